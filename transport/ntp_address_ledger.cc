// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_address_ledger.h"

#include <algorithm>
#include <string>
#include <tuple>

#include "platform/base/no_destructor.h"
#include "platform/metrics/key_metrics.h"

namespace skorra {
namespace {

// Spreads `limit` requests evenly over the burst's calls, beginning with the first.
bool IsSentWhenThinned(uint32_t call, uint32_t limit) {
  return call < kCallsPerBurst && call * limit % kCallsPerBurst < limit;
}

}  // namespace

const char* SendRefusalName(SendRefusal refusal) {
  switch (refusal) {
    case SendRefusal::kNone:
      return "none";
    case SendRefusal::kBackOff:
      return "back_off";
    case SendRefusal::kDenied:
      return "denied";
    case SendRefusal::kTooSoon:
      return "too_soon";
  }
  return "unknown";
}

NtpAddressLedger* NtpAddressLedger::GetInstance() {
  static base::NoDestructor<NtpAddressLedger> instance;
  return instance.get();
}

bool NtpAddressLedger::Admit(const net::IPEndPoint& address, int64_t now_ticks_us,
                             uint32_t requests_per_burst) {
  SendRefusal refusal = SendRefusal::kNone;
  bool is_sent = false;
  {
    const base::AutoLock lock(lock_);
    Account& account = FindOrAdd(address, now_ticks_us);
    if (!IsUnderWay(account, now_ticks_us)) {
      BeginBurst(account, now_ticks_us, requests_per_burst);
    }
    Burst& burst = *account.burst;
    const uint32_t call = burst.call_count++;
    refusal = burst.refusal;
    is_sent = refusal == SendRefusal::kNone && IsSentWhenThinned(call, burst.request_limit);
    account.counts.requests_withheld += refusal == SendRefusal::kNone ? 0 : 1;
  }
  if (refusal != SendRefusal::kNone) {
    base::KeyMetrics::Count(std::string("ntp.send_withheld.") + SendRefusalName(refusal));
  } else if (!is_sent) {
    base::KeyMetrics::Count("ntp.send_thinned");
  }
  return is_sent;
}

bool NtpAddressLedger::AdmitSingle(const net::IPEndPoint& address, int64_t now_ticks_us) {
  SendRefusal refusal = SendRefusal::kNone;
  {
    const base::AutoLock lock(lock_);
    // An address without an account gets none: that might evict another one's.
    if (const auto found = accounts_.find(address); found != accounts_.end()) {
      refusal = Refusal(found->second, now_ticks_us);
      found->second.counts.requests_withheld += refusal == SendRefusal::kNone ? 0 : 1;
    }
  }
  if (refusal != SendRefusal::kNone) {
    base::KeyMetrics::Count(std::string("ntp.send_withheld.") + SendRefusalName(refusal));
  }
  return refusal == SendRefusal::kNone;
}

SendRefusal NtpAddressLedger::Check(const net::IPEndPoint& address, int64_t now_ticks_us) const {
  const base::AutoLock lock(lock_);
  const auto found = accounts_.find(address);
  return found == accounts_.end() ? SendRefusal::kNone : Refusal(found->second, now_ticks_us);
}

void NtpAddressLedger::OnRequestSent(const net::IPEndPoint& address) {
  const base::AutoLock lock(lock_);
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    ++found->second.counts.requests_sent;
  }
}

void NtpAddressLedger::OnReply(const net::IPEndPoint& address) {
  const base::AutoLock lock(lock_);
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    ++found->second.counts.replies;
    found->second.has_answered = true;
  }
}

void NtpAddressLedger::OnSingleReply(const net::IPEndPoint& address) {
  const base::AutoLock lock(lock_);
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    ++found->second.counts.replies;
  }
}

void NtpAddressLedger::OnPortClosed(const net::IPEndPoint& address, int64_t now_ticks_us) {
  const base::AutoLock lock(lock_);
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    found->second.closed_ticks_us = now_ticks_us;
  }
}

bool NtpAddressLedger::OnRefusal(const net::IPEndPoint& address, KissCode code, int64_t now_ticks_us,
                                 uint64_t random) {
  const base::AutoLock lock(lock_);
  Account& account = FindOrAdd(address, now_ticks_us);
  ++account.counts.kiss_codes;
  account.has_refused = true;
  busy_until_ticks_us_ = now_ticks_us;
  const bool is_rate = code == KissCode::kRate;
  const bool is_held = now_ticks_us < account.held_until_ticks_us;
  const bool is_news = !is_held || (!is_rate && account.held_for != SendRefusal::kDenied);
  if (is_news && is_rate) {
    account.was_limited = true;
    account.held_for = SendRefusal::kBackOff;
    account.held_until_ticks_us = now_ticks_us + BackOffUs(account.rate_count++, random);
  } else if (is_news) {
    account.held_for = SendRefusal::kDenied;
    account.held_until_ticks_us = now_ticks_us + kDeniedUs;
  }
  if (account.burst) {
    account.burst->refusal = account.held_for;
  }
  return is_news;
}

bool NtpAddressLedger::HasAnswered(const net::IPEndPoint& address) const {
  const base::AutoLock lock(lock_);
  const auto found = accounts_.find(address);
  return found != accounts_.end() && found->second.has_answered;
}

bool NtpAddressLedger::IsSilent(const net::IPEndPoint& address, int64_t now_ticks_us) const {
  const base::AutoLock lock(lock_);
  const auto found = accounts_.find(address);
  if (found == accounts_.end() || !found->second.asked_ticks_us || found->second.has_answered) {
    return false;
  }
  const int64_t age_us = now_ticks_us - *found->second.asked_ticks_us;
  return age_us >= kSilentAfterUs && age_us < kForgetSilenceUs;
}

bool NtpAddressLedger::WasClosedSince(const net::IPEndPoint& address, int64_t since_ticks_us) const {
  const base::AutoLock lock(lock_);
  const auto found = accounts_.find(address);
  return found != accounts_.end() && !found->second.has_answered && found->second.closed_ticks_us &&
         *found->second.closed_ticks_us >= since_ticks_us;
}

std::map<net::IPEndPoint, NtpAddressLedger::Counts> NtpAddressLedger::GetCounts() const {
  const base::AutoLock lock(lock_);
  std::map<net::IPEndPoint, Counts> counts;
  for (const auto& [address, account] : accounts_) {
    counts[address] = account.counts;
  }
  return counts;
}

void NtpAddressLedger::Clear() {
  const base::AutoLock lock(lock_);
  accounts_.clear();
  busy_until_ticks_us_ = std::numeric_limits<int64_t>::min();
}

bool NtpAddressLedger::IsUnderWay(const Account& account, int64_t now_ticks_us) {
  return account.burst && now_ticks_us - account.burst->begin_ticks_us <
                              (account.burst->call_count >= kCallsPerBurst ? kFullBurstUs : kIdleBurstUs);
}

SendRefusal NtpAddressLedger::Refusal(const Account& account, int64_t now_ticks_us) {
  if (now_ticks_us < account.held_until_ticks_us) {
    return account.held_for;
  }
  if (account.was_limited && account.asked_ticks_us &&
      now_ticks_us - *account.asked_ticks_us < kBurstSpacingUs) {
    return SendRefusal::kTooSoon;
  }
  return SendRefusal::kNone;
}

void NtpAddressLedger::BeginBurst(Account& account, int64_t now_ticks_us, uint32_t request_limit) {
  Burst& burst = account.burst.emplace(Burst{});
  burst.begin_ticks_us = now_ticks_us;
  burst.request_limit = account.was_limited ? std::min(request_limit, kLimitedBurst) : request_limit;
  burst.refusal = Refusal(account, now_ticks_us);
  if (burst.refusal != SendRefusal::kNone) {
    return;
  }
  if (account.has_answered && !account.has_refused) {
    account.rate_count = 0;
  }
  account.asked_ticks_us = now_ticks_us;
  account.has_answered = false;
  account.has_refused = false;
  account.closed_ticks_us.reset();
}

int64_t NtpAddressLedger::BackOffUs(uint32_t earlier_rates, uint64_t random) {
  const int64_t plain_us = std::min(kFirstBackOffUs << std::min<uint32_t>(earlier_rates, 10), kMaxBackOffUs);
  const auto jitter_us = static_cast<int64_t>(random % static_cast<uint64_t>(plain_us / 4 + 1));
  return plain_us + jitter_us <= kMaxBackOffUs ? plain_us + jitter_us : kMaxBackOffUs - jitter_us;
}

NtpAddressLedger::Account& NtpAddressLedger::FindOrAdd(const net::IPEndPoint& address, int64_t now_ticks_us) {
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    return found->second;
  }
  MakeRoom(now_ticks_us);
  return accounts_[address];
}

void NtpAddressLedger::MakeRoom(int64_t now_ticks_us) {
  const auto rank = [now_ticks_us](const auto& entry) {
    const Account& account = entry.second;
    const bool is_held = Refusal(account, now_ticks_us) != SendRefusal::kNone;
    return std::tuple(is_held, IsUnderWay(account, now_ticks_us), account.asked_ticks_us);
  };
  while (accounts_.size() >= kMaxAddresses && now_ticks_us >= busy_until_ticks_us_) {
    const auto oldest = std::min_element(accounts_.begin(), accounts_.end(),
                                         [&](const auto& a, const auto& b) { return rank(a) < rank(b); });
    const auto [is_held, is_under_way, asked_ticks_us] = rank(*oldest);
    if (is_under_way && !is_held) {
      // Bursts end in the order of their beginnings, and this one began first. A hold may end at any time.
      const bool is_any_held = std::any_of(accounts_.begin(), accounts_.end(),
                                           [&](const auto& entry) { return std::get<0>(rank(entry)); });
      busy_until_ticks_us_ = is_any_held ? now_ticks_us : *asked_ticks_us + kFullBurstUs;
      return;
    }
    accounts_.erase(oldest);
  }
}

}  // namespace skorra
