// SPDX-License-Identifier: Apache-2.0
// The decisions of request_stats.h, from tables.
#include <cstdint>

#include "gtest/gtest.h"
#include "ntp/request_stats.h"

namespace skorra {
namespace {

TEST(RequestStatsDecisionTest, ACostIsTruncatedToMillisecondsAndCutToTheRange) {
  struct Case {
    const char* what;
    int64_t start_us;
    int64_t now_us;
    uint32_t cost_ms;
  };
  const Case cases[] = {
      {"no time", 5, 5, 0},
      {"just below a millisecond", 0, 999, 0},
      {"a millisecond", 0, 1000, 1},
      {"just below two", 0, 1999, 1},
      {"a clock that went back", 5000, 0, 0},
      {"a second across zero", -500000, 500000, 1000},
      {"the largest that 32 bits hold", 0, 4294967295000, 4294967295},
      {"more than they hold", 0, 4294967296000, 4294967295},
      {"much more", 0, INT64_MAX, 4294967295},
      {"a difference that wraps below zero", INT64_MIN, INT64_MAX, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(CostMs(c.start_us, c.now_us), c.cost_ms);
  }
}

TEST(RequestStatsDecisionTest, OnlyNoResultIsAFailure) {
  EXPECT_FALSE(IsCountedAsSuccess(NtpResult::kNoResult));
  EXPECT_TRUE(IsCountedAsSuccess(NtpResult::kSuccess));
  EXPECT_TRUE(IsCountedAsSuccess(NtpResult::kMaybeInaccurate));
}

TEST(RequestStatsDecisionTest, ARequestIsAddedToEveryFieldOfItsRecord) {
  struct Case {
    const char* what;
    NtpFunctionRequestStats before;
    bool success;
    uint32_t cost_ms;
    int function_type;
    NtpFunctionRequestStats after;
  };
  constexpr uint32_t kMax = UINT32_MAX;
  const Case cases[] = {
      {"the first, a success", {}, true, 120, 2, {120, 120, 1, 1, 2, 0, 120}},
      {"the second, a failure", {120, 120, 1, 1, 2, 0, 120}, false, 81, 2, {100, 120, 2, 1, 2, 1, 201}},
      {"a longer one raises the maximum", {5, 5, 1, 1, 0, 0, 5}, true, 6, 0, {5, 6, 2, 2, 0, 0, 11}},
      {"the kind replaces that of the record", {0, 0, 0, 0, 1, 0, 0}, true, 1, 0, {1, 1, 1, 1, 0, 0, 1}},
      {"the sum wraps", {kMax, kMax, 1, 1, 2, 0, kMax}, true, 3, 2, {1, kMax, 2, 2, 2, 0, 2}},
      {"the count wraps to 0, without an average",
       {9, 9, kMax, kMax, 2, 0, 1},
       true,
       4,
       2,
       {0, 9, 0, 0, 2, 0, 5}},
      {"the failures wrap", {0, 0, 4, 0, 1, kMax, 0}, false, 10, 1, {2, 10, 5, 0, 1, 0, 10}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    NtpFunctionRequestStats stats = c.before;
    AddRequest(stats, c.success, c.cost_ms, c.function_type);
    EXPECT_EQ(stats.average_cost_ms, c.after.average_cost_ms);
    EXPECT_EQ(stats.max_cost_ms, c.after.max_cost_ms);
    EXPECT_EQ(stats.request_count, c.after.request_count);
    EXPECT_EQ(stats.success_count, c.after.success_count);
    EXPECT_EQ(stats.function_type, c.after.function_type);
    EXPECT_EQ(stats.failure_count, c.after.failure_count);
    EXPECT_EQ(stats.total_cost_ms, c.after.total_cost_ms);
  }
}

TEST(RequestStatsDecisionTest, EachKindOfDomainHasTwoMetrics) {
  const DomainMetricKeys* const default_domain = MetricKeysOf(NtpDomainCode::kDefault);
  ASSERT_NE(default_domain, nullptr);
  EXPECT_EQ(default_domain->finished, 37004u);
  EXPECT_EQ(default_domain->succeeded, 37003u);
  const DomainMetricKeys* const other = MetricKeysOf(NtpDomainCode::kOther);
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->finished, 37006u);
  EXPECT_EQ(other->succeeded, 37005u);
  for (const int code : {-1, 2, 37003}) {
    EXPECT_EQ(MetricKeysOf(static_cast<NtpDomainCode>(code)), nullptr) << code;
  }
}

TEST(RequestStatsDecisionTest, AReportTakesOneOffTheCountedStarts) {
  EXPECT_EQ(ReportedStartCount(0), 0u);
  EXPECT_EQ(ReportedStartCount(1), 0u);
  EXPECT_EQ(ReportedStartCount(3), 2u);
  EXPECT_EQ(ReportedStartCount(UINT32_MAX), UINT32_MAX - 1);
  EXPECT_EQ(ReportedStartCount(kStartCountAfterReport + 2), 2u) << "a later report counts every start";
}

}  // namespace
}  // namespace skorra
