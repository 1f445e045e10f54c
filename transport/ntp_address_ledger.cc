#include "transport/ntp_address_ledger.h"

#include <algorithm>

#include "platform/base/no_destructor.h"

namespace skorra {

const char* SendRefusalName(SendRefusal refusal) {
  switch (refusal) {
    case SendRefusal::kNone:
      return "none";
    case SendRefusal::kBackOff:
      return "back_off";
    case SendRefusal::kParked:
      return "parked";
    case SendRefusal::kSpacing:
      return "spacing";
  }
  return "unknown";
}

NtpAddressLedger* NtpAddressLedger::GetInstance() {
  static base::NoDestructor<NtpAddressLedger> instance;
  return instance.get();
}

SendRefusal NtpAddressLedger::BeginBurst(const net::IPEndPoint& address, int64_t now_us,
                                         uint32_t* request_count) {
  const base::AutoLock lock(lock_);
  Account& account = FindOrAdd(address, now_us);
  if (const SendRefusal refusal = Refusal(account, now_us); refusal != SendRefusal::kNone) {
    *request_count = 0;
    return refusal;
  }
  if (account.has_answered && !account.has_refused) {
    account.rate_count = 0;  // the server was content with the burst before
  }
  if (account.was_limited) {
    *request_count = std::min(*request_count, kLimitedBurst);
  }
  account.burst_us = now_us;
  account.has_answered = false;
  account.has_refused = false;
  return SendRefusal::kNone;
}

SendRefusal NtpAddressLedger::Check(const net::IPEndPoint& address, int64_t now_us) const {
  const base::AutoLock lock(lock_);
  const auto found = accounts_.find(address);
  return found == accounts_.end() ? SendRefusal::kNone : Refusal(found->second, now_us);
}

void NtpAddressLedger::OnRequestSent(const net::IPEndPoint& address) {
  const base::AutoLock lock(lock_);
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    ++found->second.counts.requests_sent;
  }
}

void NtpAddressLedger::OnRequestRefused(const net::IPEndPoint& address) {
  const base::AutoLock lock(lock_);
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    ++found->second.counts.requests_refused;
  }
}

void NtpAddressLedger::OnReply(const net::IPEndPoint& address) {
  const base::AutoLock lock(lock_);
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    ++found->second.counts.replies;
    found->second.has_answered = true;
  }
}

bool NtpAddressLedger::OnRefusal(const net::IPEndPoint& address, KissCode code, int64_t now_us,
                                 uint64_t random) {
  const base::AutoLock lock(lock_);
  Account& account = FindOrAdd(address, now_us);
  ++account.counts.kisses;
  account.has_refused = true;
  const bool is_rate = code == KissCode::kRate;
  const bool is_held = now_us < account.held_until_us;
  if (is_held && (is_rate || account.held_for == SendRefusal::kParked)) {
    return false;
  }
  if (!is_rate) {
    account.held_for = SendRefusal::kParked;
    account.held_until_us = now_us + kParkedUs;
    return true;
  }
  account.was_limited = true;
  account.held_for = SendRefusal::kBackOff;
  account.held_until_us = now_us + BackOffUs(account.rate_count++, random);
  return true;
}

bool NtpAddressLedger::HasAnswered(const net::IPEndPoint& address) const {
  const base::AutoLock lock(lock_);
  const auto found = accounts_.find(address);
  return found != accounts_.end() && found->second.has_answered;
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
}

SendRefusal NtpAddressLedger::Refusal(const Account& account, int64_t now_us) {
  if (now_us < account.held_until_us) {
    return account.held_for;
  }
  if (account.was_limited && account.burst_us && now_us - *account.burst_us < kBurstSpacingUs) {
    return SendRefusal::kSpacing;
  }
  return SendRefusal::kNone;
}

// At the cap the jitter is subtracted, so that the cap holds.
int64_t NtpAddressLedger::BackOffUs(uint32_t earlier_rates, uint64_t random) {
  const int64_t plain_us = std::min(kFirstBackOffUs << std::min<uint32_t>(earlier_rates, 10), kMaxBackOffUs);
  const auto jitter_us = static_cast<int64_t>(random % static_cast<uint64_t>(plain_us / 4 + 1));
  return plain_us + jitter_us <= kMaxBackOffUs ? plain_us + jitter_us : kMaxBackOffUs - jitter_us;
}

NtpAddressLedger::Account& NtpAddressLedger::FindOrAdd(const net::IPEndPoint& address, int64_t now_us) {
  if (const auto found = accounts_.find(address); found != accounts_.end()) {
    return found->second;
  }
  if (accounts_.size() >= kMaxAddresses) {
    const auto rank = [now_us](const auto& entry) {
      const Account& account = entry.second;
      return std::pair(Refusal(account, now_us) != SendRefusal::kNone, account.burst_us);
    };
    accounts_.erase(std::min_element(accounts_.begin(), accounts_.end(),
                                     [&](const auto& a, const auto& b) { return rank(a) < rank(b); }));
  }
  return accounts_[address];
}

}  // namespace skorra
