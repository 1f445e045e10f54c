// SPDX-License-Identifier: Apache-2.0

// Wall-clock time and durations in microseconds.
//
// `base::Time` counts microseconds since 1601-01-01 00:00:00 UTC, `base::TimeDelta` is a signed number of
// microseconds. The largest and the smallest value of each stand for plus and minus infinity.
//
// Law of the arithmetic: it saturates and keeps infinities. Infinity plus anything finite stays infinite; a
// finite sum that overflows becomes the infinity of the delta's sign; adding opposite infinities has no
// meaning and ends the process with a message (no clock of this library yields an infinity, so only a
// mistake in the program can reach it).
//
// All are values; every operation may run on any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <string>

#include "../base/int_math.h"

namespace base {
inline namespace skorra_ntp {

inline constexpr int64_t kUsPerSecond = 1000000;
// Microseconds from 1601-01-01 to 1970-01-01, both 00:00:00 UTC: 134774 days.
inline constexpr int64_t kWindowsToUnixEpochUs = 11644473600000000;

namespace internal {

inline constexpr int64_t kPlusInfinity = std::numeric_limits<int64_t>::max();
inline constexpr int64_t kMinusInfinity = std::numeric_limits<int64_t>::min();

[[noreturn]] void FailInfinitySum();

constexpr bool IsInfinite(int64_t value) { return value == kPlusInfinity || value == kMinusInfinity; }

// `value` and `delta` count microseconds or are infinite.
constexpr int64_t AddWithInfinities(int64_t value, int64_t delta) {
  if (IsInfinite(delta)) {
    if (IsInfinite(value) && value != delta) {
      FailInfinitySum();
    }
    return delta;
  }
  return IsInfinite(value) ? value : SaturatingAdd(value, delta);
}

}  // namespace internal

class TimeDelta {
 public:
  constexpr TimeDelta() = default;

  static constexpr TimeDelta FromMicroseconds(int64_t us) { return TimeDelta(us); }
  static constexpr TimeDelta FromMilliseconds(int64_t ms) { return TimeDelta(SaturatingScale(ms, 1000)); }
  static constexpr TimeDelta FromSeconds(int64_t s) { return TimeDelta(SaturatingScale(s, kUsPerSecond)); }
  static constexpr TimeDelta Max() { return TimeDelta(internal::kPlusInfinity); }
  static constexpr TimeDelta Min() { return TimeDelta(internal::kMinusInfinity); }

  constexpr bool is_max() const { return us_ == internal::kPlusInfinity; }
  constexpr bool is_min() const { return us_ == internal::kMinusInfinity; }

  constexpr int64_t InMicroseconds() const { return us_; }
  // Truncates toward zero; an infinity stays the largest or smallest number.
  constexpr int64_t InMilliseconds() const { return internal::IsInfinite(us_) ? us_ : us_ / 1000; }

  constexpr TimeDelta operator-() const { return is_max() ? Min() : TimeDelta(SaturatingNegate(us_)); }
  constexpr TimeDelta operator+(TimeDelta other) const {
    return TimeDelta(internal::AddWithInfinities(us_, other.us_));
  }
  constexpr TimeDelta operator-(TimeDelta other) const { return *this + -other; }
  constexpr auto operator<=>(const TimeDelta&) const = default;

  // Seconds with six decimals and the unit, "-1.500000 s"; the infinities print as "+infinity" and
  // "-infinity".
  std::string ToString() const;

 private:
  constexpr explicit TimeDelta(int64_t us) : us_(us) {}

  int64_t us_ = 0;
};

class Time {
 public:
  // 1601-01-01 00:00:00 UTC.
  constexpr Time() = default;

  // The wall clock now. It may step at any moment; use `GetSteadyTimeTicks` (clock.h) to measure durations.
  static Time Now();

  static constexpr Time UnixEpoch() { return Time(kWindowsToUnixEpochUs); }
  static constexpr Time Max() { return Time(internal::kPlusInfinity); }
  static constexpr Time Min() { return Time(internal::kMinusInfinity); }
  static constexpr Time FromDeltaSinceWindowsEpoch(TimeDelta delta) { return Time(delta.InMicroseconds()); }

  constexpr TimeDelta ToDeltaSinceWindowsEpoch() const { return TimeDelta::FromMicroseconds(us_); }

  constexpr bool is_max() const { return us_ == internal::kPlusInfinity; }
  constexpr bool is_min() const { return us_ == internal::kMinusInfinity; }

  constexpr Time operator+(TimeDelta delta) const {
    return Time(internal::AddWithInfinities(us_, delta.InMicroseconds()));
  }
  constexpr Time operator-(TimeDelta delta) const { return *this + -delta; }
  constexpr TimeDelta operator-(Time other) const {
    return ToDeltaSinceWindowsEpoch() - other.ToDeltaSinceWindowsEpoch();
  }
  constexpr auto operator<=>(const Time&) const = default;

  // ISO 8601 in UTC with microseconds, "2024-01-01T00:00:00.000000Z". Years outside 0000 to 9999 carry a
  // sign and six digits; the infinities print as "+infinity" and "-infinity".
  std::string ToString() const;

 private:
  constexpr explicit Time(int64_t us) : us_(us) {}

  int64_t us_ = 0;
};

}  // namespace skorra_ntp
}  // namespace base
