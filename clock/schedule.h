// SPDX-License-Identifier: Apache-2.0
// When the keeper acts next. Pure functions of their arguments; all spans are of steady time.
#pragma once

#include <algorithm>
#include <cstdint>

#include "clock/reading.h"
#include "platform/base/int_math.h"
#include "platform/base/time.h"

namespace skorra {

// After failures in a row: 2 s, doubling up to 15 minutes.
inline constexpr int64_t kFirstRetryUs = 2 * base::kUsPerSecond;
inline constexpr int64_t kMaxRetryUs = 15 * 60 * base::kUsPerSecond;
// Names without an address: 1 s, doubling up to 5 minutes. The wait of 4 s comes three times, so that a name
// service that begins to answer within ten seconds is asked at most 4 s later.
inline constexpr int64_t kFirstNameRetryUs = base::kUsPerSecond;
inline constexpr int64_t kMaxNameRetryUs = 5 * 60 * base::kUsPerSecond;
// Two syncs that nothing but the clock or its user wants are at least this far apart (RFC 5905: MINPOLL).
inline constexpr int64_t kMinIntervalUs = 16 * base::kUsPerSecond;
// A result that may be inaccurate is renewed after this long, as the manager itself would.
inline constexpr int64_t kInaccurateUs = 10 * 60 * base::kUsPerSecond;
// Beyond its interval by this much, or by an eighth of it, the last sync is not recent any more: an attempt
// takes up to half a minute.
inline constexpr int64_t kLateUs = 60 * base::kUsPerSecond;

// `wait_us` less up to a quarter of it, so that many clients do not return together. `random`: 64 random
// bits.
constexpr int64_t WithJitter(int64_t wait_us, uint64_t random) {
  return wait_us - static_cast<int64_t>(random % static_cast<uint64_t>(wait_us / 4 + 1));
}

constexpr int64_t Doubled(int64_t first_us, uint32_t times, int64_t max_us) {
  return times >= 32 ? max_us : std::min(first_us << times, max_us);
}

// After `failures` attempts in a row without a result, 1 or more.
constexpr int64_t RetryWaitUs(uint32_t failures, uint64_t random) {
  return WithJitter(Doubled(kFirstRetryUs, failures - 1, kMaxRetryUs), random);
}

// After `tries` lookups in a row that left a name without an address, 1 or more.
constexpr int64_t NameRetryWaitUs(uint32_t tries, uint64_t random) {
  const uint32_t doublings = tries <= 3 ? tries - 1 : std::max<uint32_t>(2, tries - 3);
  return WithJitter(Doubled(kFirstNameRetryUs, doublings, kMaxNameRetryUs), random);
}

// How long the reading may go on without a sync: `interval_us` (0: no limit), or until its bound, which is
// `bound_us` now and grows by `growth`, reaches `max_error_us`. A bound that is as wide already would be so
// after a sync, too, and ends no wait. At least kMinIntervalUs; Max: forever.
constexpr int64_t SyncWaitUs(int64_t interval_us, int64_t bound_us, ClockRate growth, int64_t max_error_us) {
  int64_t wait_us = interval_us == 0 ? base::TimeDelta::Max().InMicroseconds() : interval_us;
  if (growth > 0 && bound_us < max_error_us) {
    const int64_t left_us =
        std::clamp<int64_t>(base::SaturatingSubtract(max_error_us, bound_us), 0, int64_t{1} << 30);
    wait_us = std::min(wait_us, (left_us << 32) / growth);
  }
  return std::max(wait_us, kMinIntervalUs);
}

}  // namespace skorra
