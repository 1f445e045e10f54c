// SPDX-License-Identifier: Apache-2.0
// The decisions of offset_estimation.h, from tables.
#include <cstdint>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ntp/offset_estimation.h"
#include "testing/samples.h"

namespace skorra {
namespace {

TEST(OffsetEstimationDecisionTest, TrimmingSortsByOffsetAndCutsAQuarterOffEachEnd) {
  struct Case {
    const char* what;
    Samples samples;
    Samples kept;
  };
  const Case cases[] = {
      {"no sample", {}, {}},
      {"one sample", {{5, 1}}, {{5, 1}}},
      {"three samples are only sorted", {{3, 1}, {-3, 2}, {0, 3}}, {{-3, 2}, {0, 3}, {3, 1}}},
      {"four samples keep two", {{4, 1}, {3, 2}, {2, 3}, {1, 4}}, {{2, 3}, {3, 2}}},
      {"seven samples lose one at each end",
       {{7, 0}, {6, 0}, {5, 0}, {4, 0}, {3, 0}, {2, 0}, {1, 0}},
       {{2, 0}, {3, 0}, {4, 0}, {5, 0}, {6, 0}}},
      {"the order is signed", {{INT64_MAX, 1}, {0, 2}, {INT64_MIN, 3}, {-1, 4}}, {{-1, 4}, {0, 2}}},
      {"round-trip times take no part", {{2, 900}, {1, 1}, {3, 5}}, {{1, 1}, {2, 900}, {3, 5}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Samples samples = c.samples;
    SortAndTrim(samples);
    EXPECT_EQ(samples, c.kept);
  }
}

TEST(OffsetEstimationDecisionTest, AnEstimateHasTheFourMeasuresOfItsSamples) {
  struct Case {
    const char* what;
    Samples samples;
    int64_t mean_offset_us;
    int64_t max_deviation_us;
    double mean_rtt_ms;
    double rtt_stdev_ms;
  };
  const Case cases[] = {
      {"one sample deviates by nothing", {{-7, 1500}}, -7, 0, 1.5, 0.0},
      {"the mean is truncated toward zero", {{-3, 1000}, {-4, 1000}}, -3, 1, 1.0, 0.0},
      {"the farthest offset is below the mean", {{-10, 1000}, {2, 1000}, {2, 1000}}, -2, 8, 1.0, 0.0},
      {"the farthest offset is above the mean", {{10, 1000}, {-2, 1000}, {-2, 1000}}, 2, 8, 1.0, 0.0},
      {"the deviation is that of the population", {{0, 35000}, {0, 65000}}, 0, 0, 50.0, 15.0},
      {"four samples, two and two", {{0, 36000}, {0, 36000}, {0, 64000}, {0, 64000}}, 0, 0, 50.0, 14.0},
      {"a sum and distances beyond 64 bits wrap", {{INT64_MAX, 1000}, {INT64_MAX, 1000}}, -1, 0, 1.0, 0.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const OffsetEstimate estimate = EstimateOffset(c.samples);
    EXPECT_EQ(estimate.mean_offset_us, c.mean_offset_us);
    EXPECT_EQ(estimate.max_deviation_us, c.max_deviation_us);
    EXPECT_DOUBLE_EQ(estimate.mean_rtt_ms, c.mean_rtt_ms);
    EXPECT_DOUBLE_EQ(estimate.rtt_stdev_ms, c.rtt_stdev_ms);
  }
}

TEST(OffsetEstimationDecisionTest, OffsetsAreConsistentWhenEachIsLessThan30MsFromTheMean) {
  struct Case {
    std::vector<int64_t> offsets_us;
    bool is_reliable;
  };
  const Case cases[] = {
      {{-29999, 0, 29999}, true},      {{-30000, 0, 30000}, false},
      {{-30000, 15000, 15000}, false}, {{-15000, -15000, 30000}, false},
      {{-15000, -14999, 29999}, true}, {{1000000000, 1000000000, 1000059998}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.offsets_us));
    EXPECT_EQ(EstimateOffset(FromOffsets(c.offsets_us)).is_reliable, c.is_reliable);
    EXPECT_TRUE(EstimateOffset(FromOffsets(c.offsets_us)).is_rtt_reliable);
  }
}

TEST(OffsetEstimationDecisionTest, TheLimitOfTheRoundTripDeviationGrowsInTwoStepsWithTheMean) {
  struct Case {
    const char* what;
    std::vector<int64_t> rtts_us;
    bool is_rtt_reliable;
  };
  const Case cases[] = {
      {"short path, just below 15 ms", {35001, 65000}, true},
      {"short path, 15 ms", {35000, 65000}, false},
      {"mean just below 100 ms: 15 ms is the limit", {84999, 114999}, false},
      {"mean 100 ms: 20 ms is the limit", {85000, 115000}, true},
      {"medium path, just below 20 ms", {80001, 120000}, true},
      {"medium path, 20 ms", {80000, 120000}, false},
      {"mean just below 200 ms: 20 ms is the limit", {179999, 219999}, false},
      {"mean 200 ms: 30 ms is the limit", {180000, 220000}, true},
      {"mean 200 ms, just below 30 ms", {170001, 230000}, true},
      {"mean 200 ms, 30 ms", {170000, 230000}, false},
      {"a very long path has no larger limit", {1970000, 2030000}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(EstimateOffset(FromRtts(c.rtts_us)).is_rtt_reliable, c.is_rtt_reliable);
    EXPECT_TRUE(EstimateOffset(FromRtts(c.rtts_us)).is_reliable);
  }
}

TEST(OffsetEstimationDecisionTest, TheCodeIsASuccessOnlyWithAnOffsetAndBothGrades) {
  struct Case {
    int64_t offset_us;
    bool is_rtt_reliable;
    bool is_reliable;
    NtpResult result;
  };
  const Case cases[] = {
      {0, true, true, NtpResult::kSuccess},          {0, true, false, NtpResult::kMaybeInaccurate},
      {0, false, true, NtpResult::kMaybeInaccurate}, {0, false, false, NtpResult::kMaybeInaccurate},
      {INT64_MIN, true, true, NtpResult::kSuccess},  {INT64_MAX - 1, true, true, NtpResult::kSuccess},
      {INT64_MAX, true, true, NtpResult::kNoResult}, {INT64_MAX, false, false, NtpResult::kNoResult},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset_us);
    EXPECT_EQ(GradeOffset(c.offset_us, c.is_rtt_reliable, c.is_reliable), c.result);
  }
}

}  // namespace
}  // namespace skorra
