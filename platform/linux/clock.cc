// SPDX-License-Identifier: Apache-2.0
#include "platform/base/clock.h"

#include <fcntl.h>
#include <sys/timex.h>
#include <time.h>
#include <unistd.h>

#include <limits>

#include "platform/base/time.h"

namespace base {
inline namespace skorra_ntp {

static_assert(sizeof(time_t) == 8, "build with _TIME_BITS=64: a 32-bit time_t ends in 2038");

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

// clock_gettime cannot fail with a clock that the kernel knows, and all kernels since 2.6.39 know both.
// Most of the cost of reading the network clock is here. Add the epoch to the seconds so that it overlaps the
// division; 32-bit unsigned division is the fastest.
int64_t ReadMicroseconds(clockid_t clock, int64_t epoch_us) {
  timespec now;
  clock_gettime(clock, &now);
  return (static_cast<int64_t>(now.tv_sec) * kUsPerSecond + epoch_us) +
         static_cast<uint32_t>(now.tv_nsec) / 1000;
}

int64_t InNanoseconds(const timespec& time) {
  return static_cast<int64_t>(time.tv_sec) * kNsPerSecond + time.tv_nsec;
}

}  // namespace

Time Time::Now() { return Time(ReadMicroseconds(CLOCK_REALTIME, kWindowsToUnixEpochUs)); }

int64_t GetSteadyTimeTicks() { return ReadMicroseconds(CLOCK_BOOTTIME, 0); }

int64_t GetSystemTimeOffsetFromSteady() {
  // Two steady readings bracket each wall reading. A delay of the thread widens the bracket, so the tightest
  // of a few is the best.
  constexpr int kTries = 4;
  int64_t tightest_us = std::numeric_limits<int64_t>::max();
  int64_t offset_us = 0;
  for (int i = 0; i < kTries; ++i) {
    const int64_t before_ticks_us = GetSteadyTimeTicks();
    const int64_t wall_us = ReadMicroseconds(CLOCK_REALTIME, kWindowsToUnixEpochUs);
    const int64_t bracket_us = GetSteadyTimeTicks() - before_ticks_us;
    if (bracket_us < tightest_us) {
      tightest_us = bracket_us;
      offset_us = wall_us - (before_ticks_us + bracket_us / 2);
    }
  }
  return offset_us;
}

MachineClocks ReadMachineClocks() {
  // The arithmetic comes last: the processor does it while it waits for the third clock.
  timespec boot;
  timespec raw;
  timespec monotonic;
  clock_gettime(CLOCK_BOOTTIME, &boot);
  clock_gettime(CLOCK_MONOTONIC_RAW, &raw);
  clock_gettime(CLOCK_MONOTONIC, &monotonic);
  return {
      .boot_ns = InNanoseconds(boot), .raw_ns = InNanoseconds(raw), .monotonic_ns = InNanoseconds(monotonic)};
}

int64_t GetKernelFrequencyPpb() {
  timex state{};
  state.modes = 0;  // reads only
  if (adjtimex(&state) < 0) {
    return 0;
  }
  // In units of 2^-16 parts per million. Adding a half before the shift, which rounds down, rounds to
  // nearest.
  return (static_cast<int64_t>(state.freq) * 1000 + (1 << 15)) >> 16;
}

uint64_t GetClockSource() {
  const int file =
      open("/sys/devices/system/clocksource/clocksource0/current_clocksource", O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return 0;
  }
  char name[64];
  const ssize_t length = read(file, name, sizeof name);
  close(file);
  // The hash FNV-1a, which tells names apart.
  uint64_t hash = length <= 0 ? 0 : 14695981039346656037u;
  for (ssize_t i = 0; i < length; ++i) {
    hash = (hash ^ static_cast<uint8_t>(name[i])) * 1099511628211u;
  }
  return hash;
}

}  // namespace skorra_ntp
}  // namespace base
