// SPDX-License-Identifier: Apache-2.0

// The clocks of the machine: one of the seams with a real and a simulated implementation, chosen when a
// program is linked. `base::Time::Now` (time.h) is the third function of this seam.
//
// Any thread; no locks, no allocation.
#pragma once

#include <cstdint>

namespace base {
inline namespace skorra_ntp {

// Steady ticks in microseconds since the machine started. Never steps and never goes back; keeps counting
// while the machine is suspended (on Linux CLOCK_BOOTTIME).
int64_t GetSteadyTimeTicks();

// Wall clock (microseconds since 1601-01-01 UTC) minus steady ticks (microseconds), measured now.
int64_t GetSystemTimeOffsetFromSteady();

}  // namespace skorra_ntp
}  // namespace base
