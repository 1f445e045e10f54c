// SPDX-License-Identifier: Apache-2.0
// The decisions of kept_result.h, from tables.
#include <cstdint>
#include <vector>

#include "gtest/gtest.h"
#include "ntp/kept_result.h"

namespace skorra {
namespace {

constexpr NtpResult kNone = NtpResult::kNoResult;
constexpr NtpResult kGood = NtpResult::kSuccess;
constexpr NtpResult kPoor = NtpResult::kMaybeInaccurate;

// --- Which of two results stays.

struct CodePair {
  NtpResult candidate;
  NtpResult other;
  bool candidate_wins;
};

TEST(KeptResultDecisionTest, AResultReplacesTheKeptOneUnlessItIsWorse) {
  const CodePair cases[] = {
      {kGood, kNone, true}, {kGood, kGood, true},  {kGood, kPoor, true},
      {kPoor, kNone, true}, {kPoor, kGood, false}, {kPoor, kPoor, true},
      {kNone, kNone, true}, {kNone, kGood, false}, {kNone, kPoor, false},
  };
  for (const CodePair& c : cases) {
    EXPECT_EQ(ReplacesKeptResult(c.candidate, c.other), c.candidate_wins)
        << static_cast<int>(c.candidate) << " over " << static_cast<int>(c.other);
  }
}

TEST(KeptResultDecisionTest, ADomainTakesOverWithALargerCodeUnlessTheCurrentOneSucceeded) {
  const CodePair cases[] = {
      {kGood, kNone, true},  {kGood, kGood, false}, {kGood, kPoor, false},
      {kPoor, kNone, true},  {kPoor, kGood, false}, {kPoor, kPoor, false},
      {kNone, kNone, false}, {kNone, kGood, false}, {kNone, kPoor, false},
  };
  for (const CodePair& c : cases) {
    EXPECT_EQ(TakesOverAsReported(c.candidate, c.other), c.candidate_wins)
        << static_cast<int>(c.candidate) << " over " << static_cast<int>(c.other);
  }
}

TEST(KeptResultDecisionTest, AnAttemptWithoutASuccessNeverAnnouncesOne) {
  EXPECT_EQ(AnnouncedWithoutSuccess(kNone), kNone);
  EXPECT_EQ(AnnouncedWithoutSuccess(kGood), kPoor);
  EXPECT_EQ(AnnouncedWithoutSuccess(kPoor), kPoor);
}

// --- Age.

TEST(KeptResultDecisionTest, TheWallClockMustHaveGoneOnSinceASuccess) {
  struct Case {
    const char* what;
    int64_t last_ms;
    int64_t now_ms;
    bool is_after;
  };
  const Case cases[] = {
      {"never synced", 0, 1000, false},       {"a millisecond later", 1000, 1001, true},
      {"the same moment", 1000, 1000, false}, {"set back", 1001, 1000, false},
      {"a success before 1601", -5, 0, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(IsAfterSuccess(c.last_ms, c.now_ms), c.is_after);
  }
}

TEST(KeptResultDecisionTest, TheQuietPeriodIsTenMinutesWithoutItsEnd) {
  EXPECT_TRUE(IsWithinQuietPeriod(1000, 1001));
  EXPECT_TRUE(IsWithinQuietPeriod(1000, 600999));
  EXPECT_FALSE(IsWithinQuietPeriod(1000, 601000));
  EXPECT_FALSE(IsWithinQuietPeriod(1000, 900000));
}

TEST(KeptResultDecisionTest, AReadIsDueByMicrosecondsWhenItIsDueByWholeMilliseconds) {
  // The rule itself: whole milliseconds, truncated toward zero.
  const auto is_due_by_rule = [](base::Time now, int64_t last_check_ms) {
    return now.ToDeltaSinceWindowsEpoch().InMilliseconds() - last_check_ms >= 600000;
  };
  constexpr int64_t kLastThatDoesNotWrapMs = INT64_MAX / 1000 - 600000;
  const std::vector<int64_t> stamps_ms = {
      1, 999, 599999, 600000, 13348540800000, 13348540800001, kLastThatDoesNotWrapMs};
  for (const int64_t last_check_ms : stamps_ms) {
    const int64_t limit_us = (last_check_ms + 600000) * 1000;
    for (const int64_t step_us : {-1000000, -1001, -1000, -999, -1, 0, 1, 500, 999, 1000}) {
      int64_t now_us = 0;
      if (__builtin_add_overflow(limit_us, step_us, &now_us)) {
        continue;
      }
      SCOPED_TRACE(::testing::Message() << last_check_ms << " ms, " << step_us << " us from its limit");
      const base::Time now =
          base::Time::FromDeltaSinceWindowsEpoch(base::TimeDelta::FromMicroseconds(now_us));
      EXPECT_EQ(now >= ReadCheckTime(last_check_ms), is_due_by_rule(now, last_check_ms));
    }
  }
}

TEST(KeptResultDecisionTest, BeforeTheYear1601AReadIsDueUpTo999MicrosecondsLaterThanByTheRule) {
  constexpr int64_t kTenMinutesBefore1601Ms = -600000;  // so that the limit is 1601 itself
  const auto at = [](int64_t us) {
    return base::Time::FromDeltaSinceWindowsEpoch(base::TimeDelta::FromMicroseconds(us));
  };
  EXPECT_EQ(at(-999).ToDeltaSinceWindowsEpoch().InMilliseconds(), 0) << "due by the rule";
  EXPECT_LT(at(-1), ReadCheckTime(kTenMinutesBefore1601Ms)) << "not due yet";
  EXPECT_EQ(at(0), ReadCheckTime(kTenMinutesBefore1601Ms));
}

TEST(KeptResultDecisionTest, ThePeriodicSyncIsDueAfterMoreWholeSecondsThanTheInterval) {
  struct Case {
    int64_t elapsed_s;
    uint32_t interval_s;
    bool is_due;
  };
  const Case cases[] = {
      {3599, 3600, false},
      {3600, 3600, false},
      {3601, 3600, true},
      {1, 1, false},
      {2, 1, true},
      {INT64_MAX, 0, false},
      {1, 0, false},
      {-1, 3600, false},
      {4294967295, UINT32_MAX, false},
      {4294967296, UINT32_MAX, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(IsPeriodicSyncDue(c.elapsed_s, c.interval_s), c.is_due)
        << c.elapsed_s << " s, interval " << c.interval_s;
  }
}

// --- Quality.

TEST(KeptResultDecisionTest, EveryWeaknessAloneMakesAResultNotGoodEnough) {
  constexpr KeptQuality kFine{kGood, 0, 200, true, true};
  struct Case {
    const char* what;
    KeptQuality kept;
    bool is_good_enough;
  };
  const Case cases[] = {
      {"nothing is wrong", kFine, true},
      {"nothing was kept", {}, false},
      {"no result", {kNone, 0, 200, true, true}, false},
      {"it may be inaccurate", {kPoor, 0, 200, true, true}, false},
      {"it has no offset", {kGood, INT64_MAX, 200, true, true}, false},
      {"the largest offset there is", {kGood, INT64_MAX - 1, 200, true, true}, true},
      {"a cost of 0 ms", {kGood, 0, 0, true, true}, false},
      {"a cost of 1 ms", {kGood, 0, 1, true, true}, true},
      {"a cost of 799 ms", {kGood, 0, 799, true, true}, true},
      {"a cost of 800 ms", {kGood, 0, 800, true, true}, false},
      {"the largest cost", {kGood, 0, UINT32_MAX, true, true}, false},
      {"unstable round-trip times", {kGood, 0, 200, false, true}, false},
      {"inconsistent offsets", {kGood, 0, 200, true, false}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(IsGoodEnough(c.kept), c.is_good_enough);
  }
}

// --- Deviation.

TEST(KeptResultDecisionTest, TheDeviationIsTheDifferenceOfTheTwoAdvances) {
  struct Case {
    const char* what;
    ClockPair before;
    ClockPair now;
    uint32_t deviation_ms;
  };
  const Case cases[] = {
      {"no time has passed", {5, 5}, {5, 5}, 0},
      {"both have advanced alike", {0, 0}, {60000000, 60000}, 0},
      {"NTP time ahead, truncated to whole milliseconds", {0, 0}, {60004999, 60000}, 4},
      {"NTP time ahead by five", {0, 0}, {60005000, 60000}, 5},
      {"the wall clock ahead", {1000, 2000}, {2000, 2007}, 6},
      {"the wall clock set back", {0, 90000}, {1000000, 0}, 91000},
      {"NTP time that went back is truncated toward zero", {0, 0}, {-999, 0}, 0},
      {"both below zero", {-3000, -9}, {-1000, -7}, 0},
      {"2^32 ms count as 0", {0, 0}, {0, int64_t{1} << 32}, 0},
      {"and one more as 1", {0, 0}, {0, (int64_t{1} << 32) + 1}, 1},
      {"the ends of the range wrap", {0, INT64_MIN}, {0, INT64_MAX}, 1},
      {"the smallest difference is its own magnitude", {0, 0}, {0, INT64_MIN}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(DeviationMs(c.before, c.now), c.deviation_ms);
  }
}

}  // namespace
}  // namespace skorra
