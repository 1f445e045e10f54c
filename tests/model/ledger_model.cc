#include "tests/model/ledger_model.h"

#include "platform/base/time.h"

namespace skorra::model {
namespace {

constexpr int64_t kS = base::kUsPerSecond;
constexpr int64_t kMinute = 60 * kS;
constexpr int64_t kHour = 60 * kMinute;

int64_t WaitAfterRate(int earlier, uint64_t bits) {
  int64_t wait = 2 * kMinute;
  for (int i = 0; i < earlier && wait < 2 * kHour; ++i) {
    wait *= 2;
  }
  if (wait > 2 * kHour) {
    wait = 2 * kHour;
  }
  const auto jitter = static_cast<int64_t>(bits % (static_cast<uint64_t>(wait) / 4 + 1));
  // The longest wait is only ever shortened.
  return wait + jitter > 2 * kHour ? 2 * kHour - jitter : wait + jitter;
}

}  // namespace

bool LedgerModel::IsHeld(int address, int64_t now_us) const {
  const Account& account = accounts_[static_cast<size_t>(address)];
  if (account.closed_until_us && now_us < *account.closed_until_us) {
    return true;
  }
  return account.was_ever_too_fast && account.last_burst_us && now_us < *account.last_burst_us + 2 * kMinute;
}

bool LedgerModel::Call(int address, int64_t now_us) {
  std::optional<Burst>& burst = bursts_[static_cast<size_t>(address)];
  if (!burst || burst->begin_us + (burst->calls < 20 ? kS : 195000) <= now_us) {
    burst = Burst{now_us};
    if (IsHeld(address, now_us)) {
      burst->size = 0;
    } else {
      Account& account = Of(address);
      if (account.is_heard && !account.is_refused) {
        account.too_fast_count = 0;
      }
      if (account.was_ever_too_fast) {
        burst->size = 8;
      }
      account.last_burst_us = now_us;
      account.is_heard = account.is_refused = false;
    }
  }
  const int call = burst->calls++;
  // Evenly: request number n, counted from 0, leaves with the first call that has n/size of the burst behind
  // it.
  const bool is_due = call == 0 || call * burst->size / 20 > (call - 1) * burst->size / 20;
  if (burst->size == 0 || call >= 20 || !is_due) {
    return false;
  }
  while (random_.Next() == 0) {
  }
  return true;
}

void LedgerModel::Refused(int address, ArrivalKind how, int64_t now_us) {
  // The rest of the burst stays at home.
  if (std::optional<Burst>& burst = bursts_[static_cast<size_t>(address)]) {
    burst->size = 0;
  }
  const uint64_t bits = random_.Next();
  Account& account = Of(address);
  account.is_refused = true;
  const bool is_closed = account.closed_until_us && now_us < *account.closed_until_us;
  if (how == ArrivalKind::kRate) {
    if (is_closed) {
      return;
    }
    account.is_denied = false;
    account.was_ever_too_fast = true;
    account.closed_until_us = now_us + WaitAfterRate(account.too_fast_count++, bits);
  } else if (!is_closed || !account.is_denied) {
    account.is_denied = true;
    account.closed_until_us = now_us + 4 * kHour;
  }
}

}  // namespace skorra::model
