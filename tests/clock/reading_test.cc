// SPDX-License-Identifier: Apache-2.0
#include "clock/reading.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "testing/wide.h"

namespace skorra {
namespace {

using base::kUsPerSecond;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kSecondNs = 1000000000;

template <class T>
T AnyBits() {
  return static_cast<T>(*rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<T>())));
}

int64_t InRange(int64_t first, int64_t last) { return *rc::gen::inRange<int64_t>(first, last + 1); }

int64_t Either(const std::vector<int64_t>& values) { return *rc::gen::elementOf(values); }

// Half of the time none, otherwise anything in the range.
int64_t MaybeInRange(int64_t first, int64_t last) { return InRange(0, 1) == 0 ? 0 : InRange(first, last); }

// A snapshot at 100 s of each clock: the time is 1000000 s since 1970, known to 10 ms on both sides.
ClockSnapshot PlainSnapshot() {
  ClockSnapshot at;
  at.status = NtpClockStatus::kSynchronized;
  at.result = NtpResult::kSuccess;
  at.clocks = {.boot_ns = 100 * kSecondNs, .raw_ns = 100 * kSecondNs, .monotonic_ns = 100 * kSecondNs};
  at.estimate_us = 999900 * kUsPerSecond;
  at.earliest_us = at.estimate_us - 10000;
  at.latest_us = at.estimate_us + 10000;
  at.error_estimate_us = 100;
  at.growth = GrowthFromPpb(50000);
  at.prior_growth = at.growth;
  at.fresh_for_ns = 3600 * kSecondNs;
  at.domain = "example.org";
  return at;
}

base::MachineClocks After(int64_t seconds) {
  const int64_t ns = (100 + seconds) * kSecondNs;
  return {.boot_ns = ns, .raw_ns = ns, .monotonic_ns = ns};
}

// The growth in microseconds on the two sides.
struct Sides {
  int64_t earliest_us;
  int64_t latest_us;
};

Sides Growth(const NtpClockReading& reading) {
  return {reading.best_estimate_us - 10000 - reading.earliest_us,
          reading.latest_us - reading.best_estimate_us - 10000};
}

TEST(RateTest, RatesAreRoundedUpAndLimited) {
  EXPECT_EQ(RateFromPpb(0), 0);
  EXPECT_EQ(RateFromPpb(1), 5);
  EXPECT_EQ(RateFromPpb(-1), -4);
  EXPECT_EQ(RateFromPpb(kMax), int64_t{1} << 30);
  EXPECT_EQ(RateFromPpb(kMin), -(int64_t{1} << 30));
  // 0.1 / (1 - 0.1) = 1/9 of 2^32.
  EXPECT_NEAR(static_cast<double>(GrowthFromPpb(100000000)), 4294967296.0 / 9, 10);
  EXPECT_GE(GrowthFromPpb(0), 1);
  EXPECT_EQ(GrowthFromPpb(kMin), GrowthFromPpb(0));
  EXPECT_EQ(GrowthFromPpb(kMax), GrowthFromPpb(kMaxRatePpb));
}

RC_GTEST_PROP(RatePropertyTest, ScaleIsTheProductRoundedDown, ()) {
  const auto span_ns = AnyBits<int64_t>();
  const ClockRate rate = InRange(-(int64_t{1} << 30), GrowthFromPpb(kMaxRatePpb));
  RC_ASSERT(Scale(span_ns, rate) == static_cast<int64_t>((Wide{span_ns} * rate) >> 32));
}

TEST(ReadingTest, RightAfterTheSyncTheBoundIsTheInterval) {
  const NtpClockReading reading = Evaluate(PlainSnapshot(), After(0), 0, 0);
  EXPECT_EQ(reading.status, NtpClockStatus::kSynchronized);
  EXPECT_EQ(reading.best_estimate_us, 1000000 * kUsPerSecond);
  // 1 us of rounding for the age and for the slew, and at the end 1 more for the ticks that were cut.
  EXPECT_EQ(Growth(reading).earliest_us, 2);
  EXPECT_EQ(Growth(reading).latest_us, 3);
  EXPECT_EQ(reading.error_bound_us, 10003);
  EXPECT_EQ(reading.error_estimate_us, 100);
  EXPECT_EQ(reading.age_us, 0);
  EXPECT_STREQ(reading.domain, "example.org");
}

struct Row {
  const char* what;
  int64_t boot_us;  // beyond 1000 s after the sync, on each clock
  int64_t raw_us;
  int64_t monotonic_us;
  int64_t growth_us;  // beyond rho, -1: no bound
  NtpClockStatus status;
};

TEST(ReadingTest, WhatTheBoundGrowsBy) {
  constexpr auto kSynchronized = NtpClockStatus::kSynchronized;
  constexpr auto kFreeRunning = NtpClockStatus::kFreeRunning;
  const Row rows[] = {
      {"age alone", 0, 0, 0, 0, kSynchronized},
      {"the host slewed its clock forwards", 100000, 0, 100000, 100000, kSynchronized},
      {"and backwards", -100000, 0, -100000, 100000, kSynchronized},
      {"the machine slept for 8 h", 28800000000, 0, 0, 1000000 + 1440000, kFreeRunning},
      {"it slept, and the host slewed its clock", 28800000000 - 7000, 0, -7000, 1000000 + 1440000 + 7000,
       kFreeRunning},
      {"the reader was put aside after its first clock", 0, 900, 900, 900, kSynchronized},
      {"and after its second one", 0, 0, 900, 900, kSynchronized},
      {"that hides a slew of the same length from one of the two differences", -900, 0, 0, 900,
       kSynchronized},
      {"a clock that went back has no bound", -1000000001, 0, 0, -1, kFreeRunning},
      {"20 years have no bound", 630720000000000, 630720000000000, 630720000000000, -1, kFreeRunning},
  };
  for (const Row& row : rows) {
    base::MachineClocks now = After(1000);
    now.boot_ns += row.boot_us * 1000;
    now.raw_ns += row.raw_us * 1000;
    now.monotonic_ns += row.monotonic_us * 1000;
    const NtpClockReading reading = Evaluate(PlainSnapshot(), now, 0, 0);
    EXPECT_EQ(reading.status, row.status) << row.what;
    EXPECT_EQ(reading.has_bound(), row.growth_us >= 0) << row.what;
    EXPECT_EQ(reading.best_estimate_us, 1001000 * kUsPerSecond + row.boot_us) << row.what;
    if (row.growth_us < 0) {
      EXPECT_EQ(reading.earliest_us, kMin) << row.what;
      EXPECT_EQ(reading.latest_us, kMax) << row.what;
      continue;
    }
    // 50 ppm of 1000 s are 50 ms; 50 ppm of themselves, the rounding of rates and 50 ppm of what was slewed
    // come to less than 100 us, after the sleep to 200.
    EXPECT_NEAR(static_cast<double>(Growth(reading).earliest_us), static_cast<double>(50000 + row.growth_us),
                200)
        << row.what;
    EXPECT_GE(Growth(reading).earliest_us, 50000 + row.growth_us) << row.what;
    EXPECT_EQ(Growth(reading).latest_us, Growth(reading).earliest_us + 1) << row.what;
  }
}

TEST(ReadingTest, TheKernelsCorrectionIsNoSlew) {
  ClockSnapshot at = PlainSnapshot();
  at.frequency = RateFromPpb(100000);
  base::MachineClocks now = After(1000);
  now.boot_ns += 100000000;  // 100 ppm of 1000 s
  now.monotonic_ns += 100000000;
  EXPECT_LT(Growth(Evaluate(at, now, 0, 0)).earliest_us, 50100);
  at.frequency = 0;
  EXPECT_GT(Growth(Evaluate(at, now, 0, 0)).earliest_us, 150000);
}

TEST(ReadingTest, AReadingThatMayHideASleepCountsOne) {
  base::MachineClocks now = After(1000);
  now.boot_ns += 2 * kSecondNs;  // the sleep
  now.boot_ns -= 2 * kSecondNs;  // and as long between its first clock and the others
  EXPECT_LT(Growth(Evaluate(PlainSnapshot(), now, 0, 0)).earliest_us, 100000);
  const NtpClockReading reading = Evaluate(PlainSnapshot(), now, 0, 2 * kSecondNs);
  EXPECT_GT(Growth(reading).earliest_us, kSleepErrorUs);
  EXPECT_EQ(reading.status, NtpClockStatus::kFreeRunning);
}

TEST(ReadingTest, TheErrorsOfBothReadingsOfTheClocksCount) {
  ClockSnapshot at = PlainSnapshot();
  const auto grown_us = [&](const base::MachineClocks& now, int64_t error_ns) {
    return Growth(Evaluate(at, now, 0, error_ns)).earliest_us;
  };
  base::MachineClocks asleep = After(1000);
  asleep.boot_ns += kSecondNs;
  const int64_t plain_us = grown_us(After(1000), 0);
  const int64_t asleep_us = grown_us(asleep, 0);
  EXPECT_EQ(grown_us(asleep, 40000), asleep_us + 80);
  at.reading_error_ns = 5000;
  EXPECT_EQ(grown_us(After(1000), 0), plain_us + 10);
}

TEST(ReadingTest, AnOldReadingIsFreeRunning) {
  EXPECT_EQ(Evaluate(PlainSnapshot(), After(3600), 0, 0).status, NtpClockStatus::kSynchronized);
  const NtpClockReading reading = Evaluate(PlainSnapshot(), After(3601), 0, 0);
  EXPECT_EQ(reading.status, NtpClockStatus::kFreeRunning);
  EXPECT_TRUE(reading.has_bound());
  EXPECT_EQ(reading.age_us, 3601 * kUsPerSecond);
}

TEST(ReadingTest, WithoutAResultThereIsOnlyAStatus) {
  ClockSnapshot at = PlainSnapshot();
  at.result = NtpResult::kNoResult;
  at.status = NtpClockStatus::kProvisional;
  const NtpClockReading reading = Evaluate(at, After(1), 5, 0);
  EXPECT_EQ(reading.status, NtpClockStatus::kProvisional);
  EXPECT_FALSE(reading.has_time());
  EXPECT_FALSE(reading.has_bound());
  EXPECT_EQ(reading.best_estimate_us, 0);
  EXPECT_EQ(reading.earliest_us, kMin);
  EXPECT_EQ(reading.latest_us, kMax);
  EXPECT_STREQ(reading.domain, "");
}

TEST(ReadingTest, AfterADisruptionTheEstimateGoesOnWithoutABound) {
  ClockSnapshot at = PlainSnapshot();
  at.disruption_marker = 7;
  EXPECT_EQ(Evaluate(at, After(1), 7, 0).status, NtpClockStatus::kSynchronized);
  const NtpClockReading reading = Evaluate(at, After(1), 8, 0);
  EXPECT_EQ(reading.status, NtpClockStatus::kDisrupted);
  EXPECT_EQ(reading.best_estimate_us, 1000001 * kUsPerSecond);
  EXPECT_FALSE(reading.has_bound());
  EXPECT_EQ(reading.earliest_us, kMin);
  EXPECT_EQ(reading.latest_us, kMax);
}

TEST(ReadingTest, AConflictKeepsTheReadingBeforeItAndItsGrowth) {
  ClockSnapshot at = PlainSnapshot();
  at.status = NtpClockStatus::kConflicting;
  const NtpClockReading reading = Evaluate(at, After(36000), 0, 0);
  EXPECT_EQ(reading.status, NtpClockStatus::kConflicting);
  EXPECT_GE(Growth(reading).earliest_us, 1800000);
}

TEST(ReadingTest, ALeapSecondWidensItsSideFromTheMomentOnThatItMayHaveBeen) {
  ClockSnapshot at = PlainSnapshot();
  at.leap = LeapWarning::kInsert;
  at.leap_us = 1001000 * kUsPerSecond;
  // The truth repeats the day's last second, so it falls behind by one.
  EXPECT_LT(Growth(Evaluate(at, After(999), 0, 0)).earliest_us, 100000);
  EXPECT_GE(Growth(Evaluate(at, After(1000), 0, 0)).earliest_us, 1050000);
  EXPECT_LT(Growth(Evaluate(at, After(1000), 0, 0)).latest_us, 100000);
  at.leap = LeapWarning::kDelete;
  // The truth leaves out the day's last second: it is ahead from that second on.
  EXPECT_LT(Growth(Evaluate(at, After(998), 0, 0)).latest_us, 100000);
  EXPECT_GE(Growth(Evaluate(at, After(999), 0, 0)).latest_us, 1049000);
  EXPECT_LT(Growth(Evaluate(at, After(999), 0, 0)).earliest_us, 100000);
  EXPECT_GE(Evaluate(at, After(999), 0, 0).error_bound_us, 1049000);
}

// --- Any input.

ClockSnapshot AnySnapshot() {
  ClockSnapshot at;
  at.status = *rc::gen::element(NtpClockStatus::kSynchronized, NtpClockStatus::kConflicting);
  at.result = NtpResult::kSuccess;
  at.clocks = {AnyBits<int64_t>(), AnyBits<int64_t>(), AnyBits<int64_t>()};
  at.reading_error_ns = AnyBits<int64_t>();
  at.earliest_us = InRange(1 - kMaxTimeUs, kMaxTimeUs - 1);
  at.latest_us = InRange(at.earliest_us, kMaxTimeUs - 1);
  at.estimate_us = InRange(at.earliest_us, at.latest_us);
  at.error_estimate_us = InRange(0, kMaxTimeUs);
  at.growth = GrowthFromPpb(AnyBits<int64_t>());
  at.prior_growth = at.growth;
  at.frequency = RateFromPpb(AnyBits<int64_t>());
  at.leap = static_cast<LeapWarning>(InRange(0, 2));
  at.leap_us = InRange(1 - kMaxTimeUs, kMaxTimeUs - 1);
  at.fresh_for_ns = AnyBits<int64_t>();
  return at;
}

int64_t AnyClockNear(int64_t clock_ns) {
  return base::WrappingAdd(
      clock_ns,
      *rc::gen::oneOf(rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<int64_t>())),
                      rc::gen::inRange<int64_t>(-kMaxSpanNs, kMaxSpanNs),
                      rc::gen::inRange<int64_t>(0, 86400 * kSecondNs)));
}

RC_GTEST_PROP(ReadingPropertyTest, NoInputOverflowsOrMakesTheIntervalNarrower, ()) {
  const ClockSnapshot at = AnySnapshot();
  const base::MachineClocks now{AnyClockNear(at.clocks.boot_ns), AnyClockNear(at.clocks.raw_ns),
                                AnyClockNear(at.clocks.monotonic_ns)};
  const NtpClockReading reading = Evaluate(at, now, 0, Either({0, InRange(0, kMax - 1), kMax}));
  RC_ASSERT(reading.age_us == base::WrappingSubtract(now.boot_ns, at.clocks.boot_ns) / 1000);
  if (!reading.has_bound()) {
    RC_ASSERT(reading.earliest_us == kMin);
    RC_ASSERT(reading.latest_us == kMax);
    return;
  }
  RC_ASSERT(reading.earliest_us <= reading.best_estimate_us);
  RC_ASSERT(reading.best_estimate_us <= reading.latest_us);
  RC_ASSERT(reading.best_estimate_us - reading.earliest_us >= at.estimate_us - at.earliest_us);
  RC_ASSERT(reading.latest_us - reading.best_estimate_us >= at.latest_us - at.estimate_us);
  RC_ASSERT(reading.error_bound_us == std::max(reading.best_estimate_us - reading.earliest_us,
                                               reading.latest_us - reading.best_estimate_us));
  RC_ASSERT(reading.error_estimate_us >= 0);
  RC_ASSERT(reading.error_estimate_us <= reading.error_bound_us);
}

// --- The truth.

// What happened to a machine, in nanoseconds of its oscillator: slews one after the other, and a sleep.
struct Machine {
  struct Slew {
    int64_t until_ns;
    int64_t ppb;
  };
  std::vector<Slew> slews;     // by time
  int64_t frequency_ppt = 0;   // the kernel's correction, in 1e-12
  int64_t oscillator_ppb = 0;  // how wrong the corrected oscillator is: it shows 1 + this while 1 passes
  int64_t sleep_at_ns = 0;
  int64_t slept_ns = 0;
  int64_t sleep_error_ns = 0;  // it was longer by this
  int64_t true_ns = 0;         // at 0, since 1970
  base::MachineClocks begin = {};

  static int64_t Part(int64_t ns, int64_t part, int64_t of) {
    return static_cast<int64_t>(Wide{ns} * part / of);
  }
  int64_t Corrected(int64_t at_ns) const { return at_ns + Part(at_ns, frequency_ppt, 1000000000000); }
  int64_t Slewed(int64_t at_ns) const {
    int64_t slewed_ns = 0;
    int64_t begin_ns = 0;
    for (const Slew& slew : slews) {
      const int64_t end_ns = std::min(at_ns, slew.until_ns);
      slewed_ns += end_ns > begin_ns ? Part(end_ns - begin_ns, slew.ppb, kSecondNs) : 0;
      begin_ns = std::max(begin_ns, slew.until_ns);
    }
    return slewed_ns;
  }
  bool HasSlept(int64_t at_ns) const { return slept_ns > 0 && at_ns > sleep_at_ns; }
  int64_t Boot(int64_t at_ns) const {
    return Monotonic(at_ns) - begin.monotonic_ns + begin.boot_ns + (HasSlept(at_ns) ? slept_ns : 0);
  }
  int64_t Raw(int64_t at_ns) const { return begin.raw_ns + at_ns; }
  int64_t Monotonic(int64_t at_ns) const { return begin.monotonic_ns + Corrected(at_ns) + Slewed(at_ns); }
  int64_t True(int64_t at_ns) const {
    return true_ns + Part(Corrected(at_ns), kSecondNs, kSecondNs + oscillator_ppb) +
           (HasSlept(at_ns) ? slept_ns + sleep_error_ns : 0);
  }
};

Machine AnyMachine(int64_t max_error_ppb) {
  Machine machine;
  int64_t until_ns = 0;
  for (int64_t i = InRange(0, 3); i > 0; --i) {
    until_ns += InRange(1, 3600 * kSecondNs);
    // Up to what host daemons do, and now and then a pause.
    machine.slews.push_back({until_ns, MaybeInRange(-83333000, 83333000)});
  }
  // The kernel's correction, in parts per billion as it is told, and what was rounded off.
  machine.frequency_ppt = MaybeInRange(-500000, 500000) * 1000 + InRange(-500, 500);
  machine.oscillator_ppb = Either({-max_error_ppb, 0, max_error_ppb});
  machine.sleep_at_ns = InRange(0, 7200 * kSecondNs);
  machine.slept_ns = MaybeInRange(5000000, 8 * 3600 * kSecondNs);
  machine.sleep_error_ns = InRange(-std::min(kSecondNs, machine.slept_ns), kSecondNs);
  machine.true_ns = InRange(0, 4000000000000000000);
  machine.begin = {InRange(0, 1000000000000000000), InRange(0, 1000000000000000000),
                   InRange(0, 1000000000000000000)};
  return machine;
}

RC_GTEST_PROP(ReadingPropertyTest, TheTruthIsInsideWhateverTheHostDoesToItsClock, ()) {
  const int64_t max_error_ppb = Either({1000, 50000, 100000000});
  const Machine machine = AnyMachine(max_error_ppb);
  // The snapshot's clocks are read with small delays in between.
  const int64_t sync_ns = InRange(0, 3600 * kSecondNs);
  const int64_t raw_ns = sync_ns + InRange(0, 1000);
  const int64_t monotonic_ns = raw_ns + InRange(0, 1000);
  RC_PRE(machine.HasSlept(sync_ns) == machine.HasSlept(monotonic_ns));
  ClockSnapshot at = PlainSnapshot();
  at.clocks = {machine.Boot(sync_ns), machine.Raw(raw_ns), machine.Monotonic(monotonic_ns)};
  at.reading_error_ns = monotonic_ns - sync_ns + 1 + (monotonic_ns - sync_ns) / 10;  // by the steady clock
  at.frequency = RateFromPpb(machine.frequency_ppt / 1000);
  at.growth = GrowthFromPpb(max_error_ppb);
  at.prior_growth = at.growth;
  // The interval is as narrow as it can be, at one end or at both.
  const int64_t offset_ns = machine.True(sync_ns) - machine.Boot(sync_ns);
  at.earliest_us = offset_ns / 1000 - (offset_ns % 1000 < 0 ? 1 : 0);
  at.latest_us = at.earliest_us + (offset_ns % 1000 != 0 ? 1 : 0);
  at.earliest_us -= MaybeInRange(0, 10000);
  at.latest_us += MaybeInRange(0, 10000);
  at.estimate_us = InRange(at.earliest_us, at.latest_us);
  // A reader may be put aside between its clocks, now and then for long.
  const int64_t now_ns = sync_ns + Either({0, InRange(0, 86400 * kSecondNs), InRange(0, kSecondNs)});
  const auto delay_ns = [] { return Either({0, InRange(0, 100), InRange(0, 4 * kSecondNs)}); };
  const int64_t now_raw_ns = now_ns + delay_ns();
  const int64_t now_monotonic_ns = now_raw_ns + delay_ns();
  RC_PRE(now_ns >= monotonic_ns);
  RC_PRE(machine.HasSlept(now_ns) == machine.HasSlept(now_monotonic_ns));
  const base::MachineClocks now{machine.Boot(now_ns), machine.Raw(now_raw_ns),
                                machine.Monotonic(now_monotonic_ns)};
  const int64_t error_ns = machine.Boot(now_monotonic_ns) - machine.Boot(now_ns) + 1;
  // Without a closer look the reader knows nothing about its delays; it takes one when it has to.
  const bool has_looked = ClockSpans(at, now).is_doubtful() || machine.slept_ns > 0;
  const NtpClockReading reading = Evaluate(at, now, 0, has_looked ? error_ns : 0);
  RC_ASSERT(reading.has_bound());
  RC_ASSERT(Wide{reading.earliest_us} * 1000 <= machine.True(now_ns));
  RC_ASSERT(machine.True(now_ns) <= Wide{reading.latest_us} * 1000);
}

}  // namespace
}  // namespace skorra
