// SPDX-License-Identifier: Apache-2.0

// A wait for a condition that comes soon, bounded by the patience of the slowest machine.
#pragma once

#include <poll.h>

#include <cstdint>

#include "platform/base/clock.h"

namespace skorra {

// How long a test waits for something that comes soon, on the slowest machine and under every sanitizer.
inline constexpr int kPatienceMs = 60'000;

// True as soon as `condition()` is; false when it is not in time.
template <class Condition>
bool WaitUntil(Condition condition, int timeout_ms = kPatienceMs) {
  const int64_t deadline_ticks_us = base::GetSteadyTimeTicks() + int64_t{timeout_ms} * 1000;
  while (!condition()) {
    if (base::GetSteadyTimeTicks() > deadline_ticks_us) {
      return false;
    }
    poll(nullptr, 0, 1);
  }
  return true;
}

}  // namespace skorra
