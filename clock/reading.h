// SPDX-License-Identifier: Apache-2.0
// From what was known at the last sync to a reading of this moment: how the bound grows.
//
// Pure functions of their arguments, any thread, any input. They stand in a header because a reader makes
// them between two clock readings. Nothing here divides except to print microseconds, and nothing overflows:
// a span of 2^59 ns (18 years) or more has no bound, and below that every sum stays under 2^62.
//
// The bound at a moment (docs/clock.md):
//
//   E = E0 + rho * age + |slew of the host's clock since the sync| + S
//
// E0 is half of the interval that the sync proved, `rho` how wrong the oscillator may be, once what is known
// of its frequency (frequency.h) is taken into account. The steady clock is slewed by the host's own time
// daemon, the raw clock is not: what the monotonic clock has gained over the raw one, beyond the kernel's
// frequency correction at the sync, is the slew. S is what a suspend, or a leap second that may have been
// inserted, adds.
#pragma once

#include <algorithm>
#include <cstdint>

#include "clock/ntp_clock.h"
#include "platform/base/clock.h"
#include "platform/base/int_math.h"
#include "platform/base/time.h"

namespace skorra {

// A ratio of nanoseconds, in units of 2^-32. 1/3 in magnitude at most.
using ClockRate = int64_t;

inline constexpr int64_t kMaxRatePpb = 250000000;

// Rounded up; `ppb` is limited to +-kMaxRatePpb.
constexpr ClockRate RateFromPpb(int64_t ppb) {
  const int64_t limited = std::clamp(ppb, -kMaxRatePpb, kMaxRatePpb);
  const int64_t scaled = limited * (int64_t{1} << 32);
  return scaled / 1000000000 + (scaled % 1000000000 > 0 ? 1 : 0);
}

// rho of an oscillator that is wrong by up to `ppb`. A slow one shows 1 - ppb while 1 passes, so the error is
// the larger part ppb / (1 - ppb) of what it shows. 1 ppb: the kernel's correction was rounded, and rates
// are.
constexpr ClockRate GrowthFromPpb(int64_t ppb) {
  const int64_t limited = std::clamp<int64_t>(ppb, 0, kMaxRatePpb) + 1;
  return limited * (int64_t{1} << 32) / (1000000000 - limited) + 1;
}

// span_ns * rate, rounded down.
constexpr int64_t Scale(int64_t span_ns, ClockRate rate) {
#ifdef __SIZEOF_INT128__
  __extension__ using Wide = __int128;  // one instruction where there is one
  return static_cast<int64_t>((static_cast<Wide>(span_ns) * rate) >> 32);
#else
  const auto low = static_cast<int64_t>(static_cast<uint32_t>(span_ns));
  return (span_ns >> 32) * rate + ((low * rate) >> 32);
#endif
}

// How long a suspend may have lasted longer or shorter than the clock that counts it says.
inline constexpr int64_t kSleepErrorUs = base::kUsPerSecond;
inline constexpr int64_t kLeapSecondUs = base::kUsPerSecond;
// A difference between two clocks that nothing but a suspend makes. The reading itself takes far less: a
// reader that was put aside between its clocks reads again.
inline constexpr int64_t kSuspendNs = 1000000;
// A reading whose clocks are further apart is taken again, with a closer look.
inline constexpr int64_t kTornReadingNs = 50000;
inline constexpr int64_t kMaxSpanNs = int64_t{1} << 59;
// Times of day and offsets of snapshots are smaller than this.
inline constexpr int64_t kMaxTimeUs = int64_t{1} << 60;

// For the error estimate: this part of what the bound has grown by.
inline constexpr int kLikelyShareOfGrowth = 8;

// What a leap second that was announced does at the end of the day.
enum class LeapWarning : int64_t {
  kNone = 0,
  kInsert = 1,  // the day is one second longer: afterwards the true time may be a second earlier
  kDelete = 2,  // one second shorter: afterwards it may be a second later
};

// Everything that a reader needs, published by the keeper. All members are 64 bits wide on the way.
struct ClockSnapshot {
  NtpClockStatus status = NtpClockStatus::kUnknown;
  NtpResult result = NtpResult::kNoResult;  // no result: no time, and only `status` has a meaning
  // The three clocks at one moment of the sync, known to `reading_error_ns`.
  base::MachineClocks clocks = {};
  int64_t reading_error_ns = 0;
  // Network time since 1970 minus steady ticks: the estimate, and the limits that the sync proved. Smaller
  // than kMaxTimeUs.
  int64_t estimate_us = 0;
  int64_t earliest_us = 0;
  int64_t latest_us = 0;
  int64_t error_estimate_us = 0;
  ClockRate growth = 0;        // rho
  ClockRate prior_growth = 0;  // rho of an oscillator whose frequency is not known
  // How fast the true time runs against the oscillator: as the estimate assumes, and in the middle of what it
  // may be, from where rho counts.
  ClockRate rate = 0;
  ClockRate middle_rate = 0;
  ClockRate frequency = 0;  // the kernel's correction
  LeapWarning leap = LeapWarning::kNone;
  int64_t leap_us = 0;       // when that day ends, since 1970
  int64_t fresh_for_ns = 0;  // older than this, the reading is free-running
  int64_t disruption_marker = 0;
  // Of sleeps since then that the keeper has heard of: their length, and what they add to the bound.
  int64_t slept_ns = 0;
  int64_t sleep_error_us = 0;
  const char* domain = "";
  // As they are told (NtpClockReading).
  NtpClockAgreement agreement = NtpClockAgreement::kUnchecked;
  uint32_t witness_count = 0;
  uint32_t agreeing_count = 0;
  int64_t frequency_ppb = NtpClockReading::kNoFrequency;
};

// What has passed on each clock since the snapshot. `now` is read in the order steady, raw, monotonic, so its
// raw reading belongs to a moment between the two others.
struct ClockSpans {
  int64_t steady_ns;
  int64_t oscillator_ns;  // raw, with the kernel's correction at the snapshot
  int64_t monotonic_ns;

  template <class Snapshot>
  constexpr ClockSpans(const Snapshot& at, const base::MachineClocks& now)
      : steady_ns(base::WrappingSubtract(now.boot_ns, at.clocks.boot_ns)),
        oscillator_ns(base::WrappingSubtract(now.raw_ns, at.clocks.raw_ns)),
        monotonic_ns(base::WrappingSubtract(now.monotonic_ns, at.clocks.monotonic_ns)) {
    oscillator_ns = base::WrappingAdd(oscillator_ns, Scale(oscillator_ns, at.frequency));
  }

  // The sleep in it, less the time from the first to the last of the three readings.
  constexpr int64_t slept_ns() const { return base::WrappingSubtract(steady_ns, monotonic_ns); }
  // `reading_error_ns`: what is known of that time.
  constexpr bool has_slept(int64_t reading_error_ns) const {
    return base::SaturatingAdd(slept_ns(), reading_error_ns) > kSuspendNs;
  }
  // Whether the reader was put aside between its clocks, the machine slept, or the snapshot is younger: the
  // clocks are to be read again, and closely.
  constexpr bool is_doubtful() const {
    return slept_ns() < -kTornReadingNs || slept_ns() > kSuspendNs || steady_ns < 0;
  }
  // How far the steady clock was slewed at most, but for the reading error of the snapshot. With the raw
  // clock read between the two others, a delay of the reader makes `before` too low and `after` too high, so
  // the gain is between them: at most `after`, and the loss at most -`before`. Nothing slews a clock by more
  // than an eighth: that much it may have been slewed during the delay. The steady clock gains on the raw
  // clock while the machine sleeps; then only the monotonic clock tells, and the delay has to be known.
  constexpr int64_t slew_ns(int64_t reading_error_ns) const {
    const int64_t before_ns = base::WrappingSubtract(steady_ns, oscillator_ns);
    const int64_t after_ns = base::WrappingSubtract(monotonic_ns, oscillator_ns);
    if (has_slept(reading_error_ns)) [[unlikely]] {
      const int64_t delays_ns = base::SaturatingAdd(reading_error_ns, reading_error_ns);
      return base::WrappingAdd(base::WrappingMagnitude(after_ns), delays_ns);
    }
    const int64_t delay_ns = std::max<int64_t>(base::WrappingSubtract(monotonic_ns, steady_ns), 0);
    const int64_t slew_ns = std::max(after_ns, base::WrappingSubtract(0, before_ns));
    return base::WrappingAdd(std::max<int64_t>(slew_ns, 0), (delay_ns >> 3) + 1);
  }
};

// Whether the machine has slept since the last sleep that the snapshot counts.
template <class Snapshot>
constexpr bool HasSleptMore(const Snapshot& at, const ClockSpans& spans, int64_t reading_error_ns) {
  const int64_t more_ns = base::WrappingSubtract(spans.slept_ns(), at.slept_ns);
  return base::SaturatingAdd(more_ns, reading_error_ns) > kSuspendNs;
}

// The bound's growth since the snapshot in microseconds, rounded up; -1: there is no bound any more. Neither
// a leap second nor a disruption is part of it.
template <class Snapshot>
constexpr int64_t GrowthUs(const Snapshot& at, const ClockSpans& spans, int64_t reading_error_ns) {
  const int64_t slew_ns = spans.slew_ns(reading_error_ns);
  ClockRate growth = at.growth;
  if (spans.has_slept(reading_error_ns)) [[unlikely]] {
    // What counted the sleep may be as wrong as any oscillator.
    growth = at.prior_growth + base::WrappingMagnitude(at.middle_rate);
  }
  // As unsigned numbers, so that what is negative is too large.
  if (static_cast<uint64_t>(spans.steady_ns) >= kMaxSpanNs || static_cast<uint64_t>(slew_ns) >= kMaxSpanNs ||
      static_cast<uint64_t>(at.reading_error_ns) >= kMaxSpanNs) {
    return -1;
  }
  // The slew comes last from the clocks, so its part is one product: with that of rho, since the oscillator
  // may have counted more than the steady clock shows.
  const ClockRate slew_rate =
      (growth + base::WrappingMagnitude(at.middle_rate) + (int64_t{1} << 32)) / 1000 + 1;
  const int64_t age_ns = Scale(spans.steady_ns, growth) + 1 + 2 * at.reading_error_ns;
  return (age_ns + 999) / 1000 + (Scale(slew_ns, slew_rate) + 1) + at.sleep_error_us +
         (HasSleptMore(at, spans, reading_error_ns) ? kSleepErrorUs : 0);
}

// Widens a reading on the side of the leap second that was announced, once that may have been.
template <class Snapshot>
constexpr void AddLeapSecond(const Snapshot& at, NtpClockReading& reading) {
  // A second that is left out is the day's last one; one that is inserted comes after it.
  const bool is_left_out = at.leap == LeapWarning::kDelete;
  if (reading.latest_us >= at.leap_us - (is_left_out ? kLeapSecondUs : 0)) {
    (is_left_out ? reading.latest_us : reading.earliest_us) += is_left_out ? kLeapSecondUs : -kLeapSecondUs;
    reading.error_bound_us = std::max(reading.best_estimate_us - reading.earliest_us,
                                      reading.latest_us - reading.best_estimate_us);
  }
}

// What the true time gains on the steady clock in `span_ns` without sleep, in microseconds, within
// kGainErrorUs.
constexpr int64_t GainUs(int64_t span_ns, ClockRate rate) { return Scale(span_ns, rate) / 1000; }
inline constexpr int64_t kGainErrorUs = 2;

// The estimate of a snapshot that has a time, without the rest of the reading. Of sleeps it knows those that
// the snapshot counts.
template <class Snapshot>
constexpr int64_t EstimateAtUs(const Snapshot& at, int64_t ticks_us) {
  const int64_t steady_ns = base::WrappingSubtract(base::WrappingMultiply(ticks_us, 1000), at.clocks.boot_ns);
  return base::WrappingAdd(base::WrappingAdd(ticks_us, at.estimate_us),
                           GainUs(base::WrappingSubtract(steady_ns, at.slept_ns), at.rate));
}

// Writes the reading at the moment of `now`'s steady clock into `reading`, which is as it was made. `at` is a
// ClockSnapshot, or has its members. `disruption_marker` is the machine's, read later. `reading_error_ns`
// says how far apart the three clocks were read at most; it may be 0 for a reading that is not doubtful
// (ClockSpans).
template <class Snapshot>
constexpr void EvaluateInto(NtpClockReading& reading, const Snapshot& at, const ClockSpans& spans,
                            int64_t boot_ns, int64_t disruption_marker, int64_t reading_error_ns) {
  reading.status = at.status;
  reading.result = at.result;
  if (reading.result == NtpResult::kNoResult) [[unlikely]] {
    return;
  }
  const int64_t ticks_us = boot_ns / 1000;
  reading.domain = at.domain;
  reading.agreement = at.agreement;
  reading.witness_count = at.witness_count;
  reading.agreeing_count = at.agreeing_count;
  reading.frequency_ppb = at.frequency_ppb;
  reading.age_us = spans.steady_ns / 1000;
  // While the machine sleeps, the oscillator counts nothing.
  reading.best_estimate_us =
      base::WrappingAdd(base::WrappingAdd(ticks_us, at.estimate_us), GainUs(spans.monotonic_ns, at.rate));
  if (disruption_marker != at.disruption_marker) [[unlikely]] {
    reading.status = NtpClockStatus::kDisrupted;
    return;
  }
  if (reading.status == NtpClockStatus::kSynchronized &&
      (static_cast<uint64_t>(spans.steady_ns) > static_cast<uint64_t>(at.fresh_for_ns) ||
       spans.has_slept(reading_error_ns))) [[unlikely]] {
    reading.status = NtpClockStatus::kFreeRunning;
  }
  const int64_t growth_us = GrowthUs(at, spans, reading_error_ns);
  if (growth_us < 0) [[unlikely]] {
    return;
  }
  const int64_t middle_us = GainUs(spans.monotonic_ns, at.middle_rate);
  reading.earliest_us = base::WrappingAdd(ticks_us, at.earliest_us) + middle_us - growth_us;
  // 1: the ticks were cut to whole microseconds.
  reading.latest_us = base::WrappingAdd(ticks_us, at.latest_us) + middle_us + growth_us + 1;
  reading.error_bound_us =
      std::max(reading.best_estimate_us - reading.earliest_us, reading.latest_us - reading.best_estimate_us);
  reading.error_estimate_us =
      std::min(reading.error_bound_us, at.error_estimate_us + growth_us / kLikelyShareOfGrowth);
  if (at.leap != LeapWarning::kNone) [[unlikely]] {
    AddLeapSecond(at, reading);
  }
}

template <class Snapshot>
constexpr NtpClockReading Evaluate(const Snapshot& at, const base::MachineClocks& now,
                                   int64_t disruption_marker, int64_t reading_error_ns) {
  NtpClockReading reading;
  EvaluateInto(reading, at, ClockSpans(at, now), now.boot_ns, disruption_marker, reading_error_ns);
  return reading;
}

}  // namespace skorra
