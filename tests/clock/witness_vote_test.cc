// SPDX-License-Identifier: Apache-2.0
#include "clock/witness_vote.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "platform/base/time.h"

namespace skorra {
namespace {

using Intervals = std::vector<OffsetInterval>;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMs = 1000;

struct VoteCase {
  const char* what;
  Intervals intervals;
  NtpClockAgreement agreement;
  std::vector<bool> is_outvoted;
  std::optional<OffsetInterval> majority;
};

TEST(WitnessVoteTest, ATableOfServersThatAgreeAndDiffer) {
  using enum NtpClockAgreement;
  const VoteCase cases[] = {
      {"one alone is not checked", {{0, 10}}, kUnchecked, {false}, OffsetInterval{0, 10}},
      {"two that overlap", {{0, 10}, {5, 15}}, kAgrees, {false, false}, OffsetInterval{5, 10}},
      {"two that touch in one point", {{0, 10}, {10, 15}}, kAgrees, {false, false}, OffsetInterval{10, 10}},
      {"two that do not touch: nobody is named", {{0, 10}, {11, 15}}, kConflict, {false, false}, {}},
      {"the first against two",
       {{100, 110}, {0, 10}, {5, 15}},
       kOutvoted,
       {true, false, false},
       OffsetInterval{5, 10}},
      {"the second against two",
       {{0, 10}, {100, 110}, {5, 15}},
       kAgrees,
       {false, true, false},
       OffsetInterval{5, 10}},
      {"three that all differ", {{0, 1}, {10, 11}, {20, 21}}, kConflict, {false, false, false}, {}},
      {"two against two: no half is a majority",
       {{0, 10}, {5, 15}, {100, 110}, {105, 115}},
       kConflict,
       {false, false, false, false},
       {}},
      {"two against three",
       {{0, 10}, {5, 15}, {100, 110}, {105, 115}, {103, 120}},
       kOutvoted,
       {true, true, false, false, false},
       OffsetInterval{105, 110}},
      {"a chain of three: each end agrees with the middle alone",
       {{0, 10}, {8, 20}, {18, 30}},
       kAgrees,
       {false, false, false},
       OffsetInterval{8, 20}},
      {"two majorities on both sides of a narrow one, which has a part in neither",
       {{14, 15}, {0, 20}, {0, 5}, {18, 20}, {0, 20}},
       kAgrees,
       {false, false, false, false, false},
       OffsetInterval{0, 20}},
      {"a narrow one between two majorities is outvoted",
       {{9, 10}, {0, 5}, {0, 5}, {0, 5}, {14, 20}, {14, 20}, {14, 20}, {0, 20}, {0, 20}},
       kOutvoted,
       {true, false, false, false, false, false, false, false, false},
       OffsetInterval{0, 20}},
      {"the smallest and the largest number",
       {{kMin, kMin}, {kMin, kMax}, {kMax, kMax}},
       kAgrees,
       {false, false, false},
       OffsetInterval{kMin, kMax}},
  };
  for (const VoteCase& c : cases) {
    const WitnessVote vote = Vote(c.intervals);
    EXPECT_EQ(vote.agreement, c.agreement) << c.what;
    EXPECT_EQ(vote.is_outvoted, c.is_outvoted) << c.what;
    EXPECT_EQ(vote.majority, c.majority) << c.what;
  }
}

TEST(WitnessVoteTest, ThoseThatOverlapTheFirstAgreeWithIt) {
  EXPECT_EQ(Vote({{0, 10}, {10, 20}, {11, 20}, {-5, 0}, {-5, -1}}).agrees,
            (std::vector<bool>{true, true, false, true, false}));
}

// The same by looking at every point.
WitnessVote VoteByPoints(const Intervals& intervals, int64_t first_us, int64_t last_us) {
  const auto contains = [&](size_t i, int64_t point_us) {
    return intervals[i].earliest_us <= point_us && point_us <= intervals[i].latest_us;
  };
  WitnessVote vote;
  std::vector<bool> has_part(intervals.size());
  vote.agrees.resize(intervals.size());
  for (int64_t point_us = first_us; point_us <= last_us; ++point_us) {
    size_t depth = 0;
    for (size_t i = 0; i < intervals.size(); ++i) {
      depth += contains(i, point_us) ? 1 : 0;
      vote.agrees[i] = vote.agrees[i] || (contains(i, point_us) && contains(0, point_us));
    }
    if (depth <= intervals.size() / 2) {
      continue;
    }
    vote.majority = {vote.majority ? vote.majority->earliest_us : point_us, point_us};
    for (size_t i = 0; i < intervals.size(); ++i) {
      has_part[i] = has_part[i] || contains(i, point_us);
    }
  }
  for (const bool part : has_part) {
    vote.is_outvoted.push_back(vote.majority && !part);
  }
  vote.agreement = intervals.size() < 2  ? NtpClockAgreement::kUnchecked
                   : !vote.majority      ? NtpClockAgreement::kConflict
                   : vote.is_outvoted[0] ? NtpClockAgreement::kOutvoted
                                         : NtpClockAgreement::kAgrees;
  return vote;
}

TEST(WitnessVoteTest, AnyVoteIsThatOfEveryPointLookedAt) {
  int outvoted = 0;
  int conflicts = 0;
  EXPECT_TRUE(rc::check("any vote is that of every point looked at", [&] {
    const auto number = [](int64_t first, int64_t end) {
      return *rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::inRange<int64_t>(first, end)));
    };
    for (int round = 0; round < 20; ++round) {
      Intervals intervals(static_cast<size_t>(number(1, 8)));
      for (OffsetInterval& interval : intervals) {
        interval.earliest_us = number(0, 12);
        interval.latest_us = interval.earliest_us + number(0, 5);
      }
      const WitnessVote vote = Vote(intervals);
      const WitnessVote expected = VoteByPoints(intervals, -1, 20);
      RC_ASSERT(vote.agreement == expected.agreement);
      RC_ASSERT(vote.majority == expected.majority);
      RC_ASSERT(vote.agrees == expected.agrees);
      RC_ASSERT(vote.is_outvoted == expected.is_outvoted);
      outvoted += vote.agreement == NtpClockAgreement::kOutvoted ? 1 : 0;
      conflicts += vote.agreement == NtpClockAgreement::kConflict ? 1 : 0;
    }
  }));
  EXPECT_GT(outvoted, 0);
  EXPECT_GT(conflicts, 0);
  RecordProperty("outvoted", outvoted);
}

// --- Smearing.

TEST(SmearTest, AGapBetween20MsAnd1SIsLikeASmear) {
  const struct {
    const char* what;
    OffsetInterval result;
    OffsetInterval other;
    int64_t gap_us;
  } cases[] = {
      {"20 ms ahead", {-kMs, kMs}, {19 * kMs, 21 * kMs}, 20 * kMs},
      {"20 ms behind", {-kMs, kMs}, {-21 * kMs, -19 * kMs}, -20 * kMs},
      {"less than 20 ms", {-kMs, kMs}, {19 * kMs - 2, 21 * kMs - 1}, 0},
      {"1 s", {-kMs, kMs}, {999 * kMs, 1001 * kMs}, 1000 * kMs},
      {"1 s behind", {-kMs, kMs}, {-1001 * kMs, -999 * kMs}, -1000 * kMs},
      {"more than 1 s", {-kMs, kMs}, {999 * kMs + 2, 1001 * kMs}, 0},
      {"they overlap", {-20 * kMs, 20 * kMs}, {20 * kMs, 60 * kMs}, 0},
      {"the ends of the numbers", {kMin, kMin}, {kMax, kMax}, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SmearLikeGapUs(c.result, c.other), c.gap_us) << c.what;
  }
}

TEST(SmearTest, LeapMomentsAreTheEndsOfJuneAndOfDecember) {
  constexpr int64_t kSecond = base::kUsPerSecond;
  constexpr int64_t kDay = 86400 * kSecond;
  const struct {
    const char* what;
    int64_t end_us;  // of the day
    bool is_leap_moment;
  } cases[] = {
      {"30 June 2012", 1341100800 * kSecond, true},
      {"31 December 2016", 1483228800 * kSecond, true},
      {"30 June 2023", 1688169600 * kSecond, true},
      {"31 December 1969", 0, true},
      {"30 June 1969", -184 * kDay, true},
      {"30 June 2100, no leap year", 4118083200 * kSecond, true},
      {"31 March 2024", 1711929600 * kSecond, false},
      {"30 September 2024", 1727740800 * kSecond, false},
      {"29 February 2024", 1709251200 * kSecond, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsNearLeapMoment(c.end_us), c.is_leap_moment) << c.what;
    EXPECT_EQ(IsNearLeapMoment(c.end_us - kDay), c.is_leap_moment) << c.what;
    EXPECT_EQ(IsNearLeapMoment(c.end_us + kDay - 1), c.is_leap_moment) << c.what;
    EXPECT_FALSE(IsNearLeapMoment(c.end_us - kDay - 1)) << c.what;
    EXPECT_FALSE(IsNearLeapMoment(c.end_us + kDay)) << c.what;
  }
  EXPECT_FALSE(IsNearLeapMoment(1705276800 * kSecond));  // 15 January 2024
  IsNearLeapMoment(kMin);
  IsNearLeapMoment(kMax);
}

TEST(SmearTest, TwoServersDifferNearALeapSecond) {
  constexpr int64_t kJuneEnds = 1341100800 * base::kUsPerSecond;
  constexpr int64_t kMay = 1336000000 * base::kUsPerSecond;
  constexpr int64_t kTicks = 77000000;
  const auto around = [](int64_t middle_us) { return OffsetInterval{middle_us - kMs, middle_us + kMs}; };
  const auto differ = [&](int64_t time_us, const std::vector<int64_t>& ahead_us, bool is_announced) {
    Intervals intervals;
    for (const int64_t us : ahead_us) {
      intervals.push_back(around(time_us - kTicks + us));
    }
    return DifferNearLeapSecond(intervals, kTicks, is_announced);
  };
  EXPECT_TRUE(differ(kJuneEnds - 3600 * base::kUsPerSecond, {0, 400 * kMs}, false));
  EXPECT_TRUE(differ(kMay, {0, 400 * kMs}, true));
  EXPECT_FALSE(differ(kMay, {0, 400 * kMs}, false)) << "no leap second is near";
  EXPECT_FALSE(differ(kJuneEnds, {0, kMs}, true)) << "they agree";
  EXPECT_FALSE(differ(kJuneEnds, {0, 3600 * 1000 * kMs}, true)) << "no smear is an hour";
  EXPECT_TRUE(differ(kJuneEnds, {0, 0, 0, -400 * kMs}, false)) << "the last of four";
  EXPECT_TRUE(differ(kJuneEnds, {3600 * 1000 * kMs, 0, 400 * kMs}, false)) << "two of the others";
}

TEST(SmearTest, ARunIsAsLongAsTheServerDiffersInOneDirection) {
  SmearRun run;
  for (uint32_t i = 1; i <= kSteadyChecks; ++i) {
    run = NextSmearRun(run, 30 * kMs);
    EXPECT_EQ(run.count, i);
  }
  run = NextSmearRun(run, 900 * kMs);
  EXPECT_EQ(run.count, kSteadyChecks) << "it stays";
  run = NextSmearRun(run, -30 * kMs);
  EXPECT_EQ(run.count, 1u) << "the other direction";
  run = NextSmearRun(run, 0);
  EXPECT_EQ(run.count, 0u) << "it agrees";
  EXPECT_EQ(NextSmearRun(run, -30 * kMs).count, 1u);
}

}  // namespace
}  // namespace skorra
