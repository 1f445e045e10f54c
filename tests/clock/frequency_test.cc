// SPDX-License-Identifier: Apache-2.0
#include "clock/frequency.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "testing/addresses.h"

namespace skorra {
namespace {

constexpr int64_t kHourNs = int64_t{3600} * 1000000000;
constexpr int64_t kErrorPpb = 50000;

// The oscillator that the points are made of: the true time gains this much on it.
struct Points {
  int64_t ppb = 0;
  int64_t half_width_us = 1000;
  int64_t uncertainty_us = 10;
  int64_t kernel_ppb = 0;

  // A point when the oscillator has counted this much, with an estimate that is wrong by `error_us`.
  FrequencyPoint At(int64_t raw_ns, int64_t error_us = 0) const {
    FrequencyPoint point;
    // The kernel's correction is applied, so that the steady clock runs with it.
    const auto steady_ns =
        static_cast<int64_t>(static_cast<double>(raw_ns) * (1 + 1e-9 * static_cast<double>(kernel_ppb)));
    const auto true_ns =
        static_cast<int64_t>(static_cast<double>(steady_ns) * (1 + 1e-9 * static_cast<double>(ppb)));
    point.at.clocks = {.boot_ns = steady_ns, .raw_ns = raw_ns, .monotonic_ns = steady_ns};
    point.kernel_ppb = kernel_ppb;
    point.estimate_us = 1700000000000000 + (true_ns - steady_ns) / 1000 + error_us;
    point.proven = {point.estimate_us - error_us - half_width_us,
                    point.estimate_us - error_us + half_width_us};
    point.uncertainty_us = uncertainty_us;
    return point;
  }
  std::vector<FrequencyPoint> Hourly(int count) const {
    std::vector<FrequencyPoint> points;
    for (int i = 0; i < count; ++i) {
      points.push_back(At(i * kHourNs));
    }
    return points;
  }
};

TEST(FrequencyTest, ThreePointsOverHalfAnHourTellTheFrequency) {
  const Points points{.ppb = 20000};
  for (const int count : {0, 1, 2}) {
    EXPECT_FALSE(EstimateFrequency(points.Hourly(count), kErrorPpb)) << count;
  }
  EXPECT_TRUE(EstimateFrequency(points.Hourly(3), kErrorPpb));
  std::vector<FrequencyPoint> close{points.At(0), points.At(kHourNs / 4), points.At(kHourNs / 2 - 1)};
  EXPECT_FALSE(EstimateFrequency(close, kErrorPpb)) << "a nanosecond less than half an hour";
  close.back() = points.At(kHourNs / 2);
  EXPECT_TRUE(EstimateFrequency(close, kErrorPpb));
}

TEST(FrequencyTest, TheSlopeOfTheLineIsTheGuess) {
  for (const int64_t ppb : {-50000, -20000, -1000, 1, 200, 1000, 20000, 50000}) {
    for (const int64_t kernel_ppb : {-500000, 0, 7000, 500000}) {
      const auto estimate =
          EstimateFrequency(Points{.ppb = ppb, .kernel_ppb = kernel_ppb}.Hourly(4), kErrorPpb);
      ASSERT_TRUE(estimate);
      // Without scatter, only the noise of 50 ppb is allowed for.
      const auto slope = static_cast<double>(ppb);
      EXPECT_NEAR(static_cast<double>(estimate->ppb), slope * slope * slope / (slope * slope + 4 * 50 * 50),
                  4)
          << ppb << ", kernel " << kernel_ppb;
      EXPECT_LE(estimate->lowest_ppb, ppb);
      EXPECT_GE(estimate->highest_ppb, ppb);
    }
  }
}

TEST(FrequencyTest, TheFirstAndTheLastPointProveTheNarrowestLimits) {
  const auto estimate = EstimateFrequency(Points{.ppb = 20000, .half_width_us = 10000}.Hourly(4), kErrorPpb);
  ASSERT_TRUE(estimate);
  // 20 ms in three hours are 1852 ppb; 10 ppm is what the frequency may wander.
  EXPECT_NEAR(static_cast<double>(estimate->lowest_ppb), 20000 - 11852, 3);
  EXPECT_NEAR(static_cast<double>(estimate->highest_ppb), 20000 + 11852, 3);
}

TEST(FrequencyTest, WhatAnOscillatorMayBeWrongByLimitsEverything) {
  const auto edge = EstimateFrequency(Points{.ppb = 45000}.Hourly(4), kErrorPpb);
  ASSERT_TRUE(edge);
  EXPECT_EQ(edge->highest_ppb, 50003) << "one that shows 1 - 50 ppm while 1 passes";
  const auto wide = EstimateFrequency(Points{.ppb = 0, .half_width_us = 500000}.Hourly(4), kErrorPpb);
  ASSERT_TRUE(wide);
  EXPECT_EQ(wide->lowest_ppb, -50003);
  EXPECT_EQ(wide->highest_ppb, 50003);
}

TEST(FrequencyTest, AServerThatLiesAboutTheRateIsFollowedAsFarAsTheOscillatorMayBeWrong) {
  for (const int64_t ppb : {-100000, 100000}) {
    const auto estimate = EstimateFrequency(Points{.ppb = ppb}.Hourly(4), kErrorPpb);
    ASSERT_TRUE(estimate);
    EXPECT_EQ(estimate->ppb, ppb / 2);
    EXPECT_EQ(estimate->lowest_ppb, -50003);
    EXPECT_EQ(estimate->highest_ppb, 50003);
  }
}

TEST(FrequencyTest, AStepThatNobodySawLeavesWhatTheOscillatorMayBeWrongBy) {
  // Three points of a good clock, and one after a second was put in, 20 hours later.
  const Points points{.half_width_us = 100};
  std::vector<FrequencyPoint> stepped = points.Hourly(3);
  FrequencyPoint last = points.At(22 * kHourNs);
  last.estimate_us -= 1000000;
  last.proven.earliest_us -= 1000000;
  last.proven.latest_us -= 1000000;
  stepped.push_back(last);
  const auto estimate = EstimateFrequency(stepped, kErrorPpb);
  ASSERT_TRUE(estimate);
  EXPECT_EQ(estimate->lowest_ppb, -50003);
  EXPECT_EQ(estimate->highest_ppb, 50003);
}

TEST(FrequencyTest, AnOscillatorThatMayBeMoreWrongMayWanderMore) {
  const auto estimate = EstimateFrequency(Points{.ppb = 0, .half_width_us = 1}.Hourly(4), 500000);
  ASSERT_TRUE(estimate);
  EXPECT_NEAR(static_cast<double>(estimate->highest_ppb), 100000, 5);
}

TEST(FrequencyTest, WhatMayBeChanceIsNotFollowed) {
  // Estimates that are wrong by 1 ms either way, of an oscillator that is right.
  const Points points{.half_width_us = 2000, .uncertainty_us = 1000};
  const std::vector<FrequencyPoint> scattered{points.At(0, -1000), points.At(kHourNs, 1000),
                                              points.At(2 * kHourNs, -1000), points.At(3 * kHourNs, 1000)};
  const auto estimate = EstimateFrequency(scattered, kErrorPpb);
  ASSERT_TRUE(estimate);
  EXPECT_LT(std::abs(estimate->ppb), 30) << "the slope is 111 ppb";
}

TEST(FrequencyTest, TheKernelsCorrectionBetweenTheSyncsIsTakenOut) {
  // The kernel corrects the oscillator by 20 ppm, and by a little more from one sync to the next.
  std::vector<FrequencyPoint> points;
  int64_t steady_ns = 0;
  for (int i = 0; i < 4; ++i) {
    FrequencyPoint point;
    point.kernel_ppb = 20000 + 500 * i;
    point.at.clocks = {.boot_ns = steady_ns, .raw_ns = i * kHourNs, .monotonic_ns = steady_ns};
    point.estimate_us = 1700000000000000;  // the corrected clock is right
    point.proven = {point.estimate_us - 1000, point.estimate_us + 1000};
    points.push_back(point);
    steady_ns += kHourNs + kHourNs / 1000000000 * (20000 + 500 * i + 250);
  }
  const auto estimate = EstimateFrequency(points, kErrorPpb);
  ASSERT_TRUE(estimate);
  EXPECT_NEAR(static_cast<double>(estimate->ppb), 0, 3);
}

TEST(FrequencyTest, PointsOutOfOrderTellNothing) {
  const Points points{};
  EXPECT_FALSE(EstimateFrequency({points.At(0), points.At(2 * kHourNs), points.At(kHourNs)}, kErrorPpb));
  EXPECT_FALSE(EstimateFrequency({points.At(0), points.At(0), points.At(kHourNs)}, kErrorPpb));
}

template <class T>
T AnyBits() {
  return static_cast<T>(*rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<T>())));
}

RC_GTEST_PROP(FrequencyTest, AnyNumbersGiveLimitsInOrder, ()) {
  std::vector<FrequencyPoint> points;
  for (int i = 0; i < *rc::gen::inRange(3, 5); ++i) {
    FrequencyPoint point;
    point.at.clocks = {AnyBits<int64_t>(), (i + 1) * *rc::gen::inRange<int64_t>(1, kHourNs * 1000),
                       AnyBits<int64_t>()};
    point.at.error_ns = AnyBits<int64_t>();
    point.kernel_ppb = *rc::gen::inRange<int64_t>(-500000, 500001);
    point.proven = {AnyBits<int64_t>(), AnyBits<int64_t>()};
    point.estimate_us = AnyBits<int64_t>();
    point.uncertainty_us = AnyBits<int64_t>();
    points.push_back(point);
  }
  const int64_t error_ppb = *rc::gen::inRange<int64_t>(0, 100000001);
  const auto estimate = EstimateFrequency(points, error_ppb);
  if (estimate) {
    RC_ASSERT(estimate->lowest_ppb <= estimate->ppb);
    RC_ASSERT(estimate->ppb <= estimate->highest_ppb);
    RC_ASSERT(std::abs(estimate->ppb) <= error_ppb);
  }
}

// --- What is forgotten.

MachineState StateAt(int64_t ns) {
  return {.at = {.clocks = {.boot_ns = ns, .raw_ns = ns, .monotonic_ns = ns}, .error_ns = 100},
          .kernel_ppb = 3000,
          .disruption_marker = 5,
          .clock_source = 7};
}

class FrequencyHistoryTest : public ::testing::Test {
 protected:
  FrequencyHistoryTest() {
    for (int i = 0; i < 4; ++i) {
      EXPECT_TRUE(history_.Continue(StateAt(i * kHourNs)));
      history_.Add(server_, points_.At(i * kHourNs));
      history_.EndAttempt();
    }
  }
  bool Knows(const net::IPEndPoint& server) const { return history_.Estimate(server, kErrorPpb).has_value(); }

  const Points points_{.ppb = 20000};
  const net::IPEndPoint server_ = Address("203.0.113.1");
  FrequencyHistory history_;
};

TEST_F(FrequencyHistoryTest, WhatStaysAsItIsIsKept) {
  EXPECT_TRUE(history_.Continue(StateAt(5 * kHourNs)));
  EXPECT_TRUE(Knows(server_));
}

TEST_F(FrequencyHistoryTest, EachChangeOfTheMachineForgetsEverything) {
  struct Row {
    std::string what;
    void (*change)(MachineState&);
    bool is_kept;
  };
  const Row rows[] = {
      {"a sleep of 2 ms", [](MachineState& s) { s.at.clocks.boot_ns += 2000000; }, false},
      {"a reading that took half a millisecond",
       [](MachineState& s) {
         s.at.clocks.boot_ns += 500000;
         s.at.error_ns = 500000;
       },
       true},
      {"the marker", [](MachineState& s) { s.disruption_marker = 6; }, false},
      {"the clock source", [](MachineState& s) { s.clock_source = 8; }, false},
      {"a clock source that is not told any more", [](MachineState& s) { s.clock_source = 0; }, false},
      {"1 ppm of the kernel's correction", [](MachineState& s) { s.kernel_ppb += 1000; }, true},
      {"more than that", [](MachineState& s) { s.kernel_ppb += 1001; }, false},
      {"the same backwards", [](MachineState& s) { s.kernel_ppb -= 1001; }, false},
  };
  for (const Row& row : rows) {
    FrequencyHistory history = history_;
    MachineState state = StateAt(5 * kHourNs);
    row.change(state);
    EXPECT_EQ(history.Continue(state), row.is_kept) << row.what;
    EXPECT_EQ(history.Estimate(server_, kErrorPpb).has_value(), row.is_kept) << row.what;
  }
}

TEST_F(FrequencyHistoryTest, AnotherServerHasPointsOfItsOwn) {
  const net::IPEndPoint other = Address("203.0.113.2");
  EXPECT_FALSE(Knows(other));
  history_.Add(other, points_.At(5 * kHourNs));
  EXPECT_FALSE(Knows(other));
  EXPECT_TRUE(Knows(server_)) << "when the first one answers again, its points still hold";
}

TEST_F(FrequencyHistoryTest, AServerThatIsSilentForLongIsForgotten) {
  for (size_t i = 0; i < kFrequencyPoints; ++i) {
    EXPECT_TRUE(Knows(server_));
    history_.EndAttempt();
  }
  EXPECT_FALSE(Knows(server_));
}

TEST_F(FrequencyHistoryTest, APointOfAnotherMonthBeginsAgain) {
  constexpr int64_t kMonthEndUs = int64_t{1709251200} * 1000000;  // 2024-03-01
  FrequencyHistory history;
  for (int i = -4; i < 3; ++i) {
    FrequencyPoint point = points_.At((i + 10) * kHourNs);
    point.estimate_us += kMonthEndUs - 1700000000000000 - 10 * kHourNs / 1000 - 1000000;
    history.Add(server_, point);
    // The point at the end of the month is a second before it.
    EXPECT_EQ(history.Estimate(server_, kErrorPpb).has_value(), i >= -2 && i <= 0) << i;
  }
}

TEST_F(FrequencyHistoryTest, AnUnknownClockSourceIsNoChange) {
  MachineState state = StateAt(4 * kHourNs);
  FrequencyHistory history;
  state.clock_source = 0;
  EXPECT_TRUE(history.Continue(state));
  history.Add(server_, points_.At(0));
  EXPECT_TRUE(history.Continue(StateAt(5 * kHourNs)));
  EXPECT_FALSE(history.empty());
}

TEST_F(FrequencyHistoryTest, OnlyTheLastFourPointsCount) {
  // From now on the oscillator is another 4 ppm slower.
  const FrequencyPoint last = points_.At(3 * kHourNs);
  for (int i = 1; i <= 3; ++i) {
    FrequencyPoint point = last;
    const auto more_us = static_cast<int64_t>(24e-6 * 3600e6 * i);
    const int64_t ns = i * kHourNs;
    point.at.clocks = {last.at.clocks.boot_ns + ns, last.at.clocks.raw_ns + ns,
                       last.at.clocks.monotonic_ns + ns};
    point.estimate_us += more_us;
    point.proven.earliest_us += more_us;
    point.proven.latest_us += more_us;
    history_.Add(server_, point);
  }
  EXPECT_NEAR(static_cast<double>(history_.Estimate(server_, kErrorPpb)->ppb), 24000, 3);
}

}  // namespace
}  // namespace skorra
