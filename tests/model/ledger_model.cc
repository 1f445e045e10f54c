// SPDX-License-Identifier: Apache-2.0
#include "tests/model/ledger_model.h"

#include "platform/base/time.h"

namespace skorra::model {
namespace {

constexpr int64_t kSecondUs = base::kUsPerSecond;
constexpr int64_t kMinuteUs = 60 * kSecondUs;
constexpr int64_t kHourUs = 60 * kMinuteUs;

int64_t WaitAfterRateUs(int earlier, uint64_t bits) {
  int64_t wait_us = 2 * kMinuteUs;
  for (int i = 0; i < earlier && wait_us < 2 * kHourUs; ++i) {
    wait_us *= 2;
  }
  if (wait_us > 2 * kHourUs) {
    wait_us = 2 * kHourUs;
  }
  const auto jitter_us = static_cast<int64_t>(bits % (static_cast<uint64_t>(wait_us) / 4 + 1));
  // The longest wait is only ever shortened.
  return wait_us + jitter_us > 2 * kHourUs ? 2 * kHourUs - jitter_us : wait_us + jitter_us;
}

}  // namespace

SendRefusal LedgerModel::Check(const Account& account, int64_t now_ticks_us) {
  if (account.closed_until_ticks_us && now_ticks_us < *account.closed_until_ticks_us) {
    return account.is_denied ? SendRefusal::kDenied : SendRefusal::kBackOff;
  }
  const bool is_too_soon = account.was_ever_too_fast && account.last_asked_ticks_us &&
                           now_ticks_us < *account.last_asked_ticks_us + 2 * kMinuteUs;
  return is_too_soon ? SendRefusal::kTooSoon : SendRefusal::kNone;
}

SendRefusal LedgerModel::Check(int address, int64_t now_ticks_us) const {
  const auto found = accounts_.find(address);
  return found == accounts_.end() ? SendRefusal::kNone : Check(found->second, now_ticks_us);
}

bool LedgerModel::IsHeard(int address) const {
  const auto found = accounts_.find(address);
  return found != accounts_.end() && found->second.is_heard;
}

void LedgerModel::Closed(int address, int64_t now_ticks_us) {
  accounts_[address].last_closed_ticks_us = now_ticks_us;
}

// A burst that begins later, or a reply, makes up for it.
bool LedgerModel::WasClosed(int address, int64_t since_ticks_us) const {
  const auto found = accounts_.find(address);
  return found != accounts_.end() && found->second.last_closed_ticks_us && !found->second.is_heard &&
         *found->second.last_closed_ticks_us >= since_ticks_us;
}

// From two seconds to an hour after a burst that nothing has answered.
bool LedgerModel::IsSilent(int address, int64_t now_ticks_us) const {
  const auto found = accounts_.find(address);
  if (found == accounts_.end() || found->second.is_heard || !found->second.last_asked_ticks_us) {
    return false;
  }
  const int64_t asked_ticks_us = *found->second.last_asked_ticks_us;
  return now_ticks_us >= asked_ticks_us + 2 * kSecondUs && now_ticks_us < asked_ticks_us + kHourUs;
}

NtpAddressLedger::Counts LedgerModel::Counts(int address) const {
  const auto found = accounts_.find(address);
  return found == accounts_.end() ? NtpAddressLedger::Counts() : found->second.counts;
}

LedgerModel::Verdict LedgerModel::Call(int address, int64_t now_ticks_us, int requests_per_burst) {
  Account& account = accounts_[address];
  std::optional<Burst>& burst = account.burst;
  if (!burst || burst->begin_ticks_us + (burst->calls < 20 ? kSecondUs : 195000) <= now_ticks_us) {
    burst = Burst{now_ticks_us, 0, requests_per_burst, Check(account, now_ticks_us)};
    if (account.was_ever_too_fast && burst->size > 8) {
      burst->size = 8;
    }
    if (burst->refusal == SendRefusal::kNone) {
      if (account.is_heard && !account.is_refused) {
        account.too_fast_count = 0;
      }
      account.last_asked_ticks_us = now_ticks_us;
      account.is_heard = account.is_refused = false;
      account.last_closed_ticks_us.reset();
    }
  }
  const int call = burst->calls++;
  if (burst->refusal != SendRefusal::kNone) {
    ++account.counts.requests_withheld;
    return {false, burst->refusal};
  }
  // Evenly: request number n, counted from 0, leaves with the first call whose number is at least 20 n /
  // size.
  const bool is_due = call == 0 || call * burst->size / 20 > (call - 1) * burst->size / 20;
  return {call < 20 && is_due, SendRefusal::kNone};
}

void LedgerModel::Answered(int address) {
  Account& account = accounts_[address];
  ++account.counts.replies;
  account.is_heard = true;
}

bool LedgerModel::Refused(int address, bool is_rate, int64_t now_ticks_us, uint64_t bits) {
  Account& account = accounts_[address];
  ++account.counts.kiss_codes;
  account.is_refused = true;
  const bool is_closed = account.closed_until_ticks_us && now_ticks_us < *account.closed_until_ticks_us;
  const bool is_news = !is_closed || (!is_rate && !account.is_denied);
  if (is_news) {
    account.is_denied = !is_rate;
    account.was_ever_too_fast = account.was_ever_too_fast || is_rate;
    account.closed_until_ticks_us =
        now_ticks_us + (is_rate ? WaitAfterRateUs(account.too_fast_count++, bits) : 4 * kHourUs);
  }
  // The rest of the burst does not leave.
  if (account.burst) {
    account.burst->refusal = Check(account, now_ticks_us);
  }
  return is_news;
}

}  // namespace skorra::model
