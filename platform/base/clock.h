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

// One reading of three clocks of the machine, in nanoseconds. They are read in this order, one immediately
// after the other: a delay of the thread in between makes the later ones late, and a caller who needs better
// takes the best of several readings.
struct MachineClocks {
  int64_t boot_ns = 0;       // the steady ticks: GetSteadyTimeTicks is boot_ns / 1000
  int64_t raw_ns = 0;        // the bare oscillator, which nothing slews; stands still in suspend
  int64_t monotonic_ns = 0;  // slewed as the steady ticks are; stands still in suspend
};

// Costs three clock readings and no system call where the kernel offers clocks without one.
MachineClocks ReadMachineClocks();

// The frequency correction that the system applies to the oscillator, in parts per billion: the steady ticks
// gain this much on `raw_ns`, as long as nothing slews them besides. 0 when the system does not tell. One
// system call, which changes nothing.
int64_t GetKernelFrequencyPpb();

// A number that stands for the hardware that the raw clock counts, and changes when the system takes another.
// 0 when the system does not tell. A few system calls, which change nothing.
uint64_t GetClockSource();

}  // namespace skorra_ntp
}  // namespace base
