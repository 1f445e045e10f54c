// SPDX-License-Identifier: Apache-2.0

// Whether the clocks have run apart, and whether the kept result should be renewed.
#include <algorithm>
#include <optional>

#include "testing/manager_fixture.h"
#include "testing/ticking_clocks.h"

namespace skorra {
namespace {

constexpr NtpResult kGood = NtpResult::kSuccess;
constexpr NtpResult kPoor = NtpResult::kMaybeInaccurate;

class DriftDetectionTest : public ManagerTest {
 protected:
  static constexpr int64_t kTwoTo32 = int64_t{1} << 32;

  // A good result as of now. Further runs of a table start from here again.
  void Restart() {
    KeepGoodResult(10);
    peer.deviation_found() = false;
    log.clear();
  }
  // Moves the comparison point so that the clocks seem to have advanced by so much since.
  void SetAdvance(int64_t local_ms, int64_t ntp_us) {
    peer.last_sync_local_time_ms() = world.wall_us() / 1000 - local_ms;
    peer.last_sync_ntp_timestamp_us() = peer.GetNtpTimestampFrom1970Internal() - ntp_us;
  }
};

// --- Do the clocks agree?

TEST_F(DriftDetectionTest, WithoutAnEarlierSuccessTheClocksAreNotCompared) {
  KeepGoodResult(10);
  peer.last_sync_ntp_timestamp_us() = 0;
  world.StepWall(S(9));
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(peer.is_rtt_reliable());
  EXPECT_EQ(peer.last_result(), kGood);
  EXPECT_FALSE(peer.deviation_found());
}

TEST_F(DriftDetectionTest, ClocksThatRunTogetherAgree) {
  KeepGoodResult(10);
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(peer.CheckElapsedTimeDeviation());
    world.RunFor(S(86400));
  }
  EXPECT_TRUE(log.empty());
}

TEST_F(DriftDetectionTest, TheDeviationIsTheDifferenceOfTheTwoAdvances) {
  struct Case {
    const char* what;
    int64_t local_ms;
    int64_t ntp_us;
    uint32_t deviation_ms;  // as printed; at most 4 is agreement
    bool is_large;
  };
  const Case cases[] = {
      {"nothing has passed", 0, 0, 0, false},
      {"4 ms ahead", 60004, 60000000, 4, false},
      {"4 ms behind", 59996, 60000000, 4, false},
      {"5 ms ahead", 60005, 60000000, 5, false},
      {"5 ms behind", 59995, 60000000, 5, false},
      {"the NTP advance is truncated to 60004 ms", 60000, 60004999, 4, false},
      {"... and this one to 60005 ms", 60000, 60005000, 5, false},
      {"a negative NTP advance is truncated toward zero", 0, -4999, 4, false},
      {"... to -5 ms", 0, -5000, 5, false},
      {"500 ms is not large", 60500, 60000000, 500, false},
      {"501 ms is", 60501, 60000000, 501, true},
      {"499 ms is not", 59501, 60000000, 499, false},
      {"501 ms behind is large", 59499, 60000000, 501, true},
      {"two seconds", 62000, 60000000, 2000, true},
      {"beyond the signed range of 32 bits", 3000000000, 0, 3000000000u, true},
      {"the largest number of 32 bits", kTwoTo32 - 1, 0, 4294967295u, true},
      {"2^32 ms wrap to 0", kTwoTo32, 0, 0, false},
      {"2^32 + 4 ms wrap to 4", kTwoTo32 + 4, 0, 4, false},
      {"2^32 + 5 ms wrap to 5", kTwoTo32 + 5, 0, 5, false},
      {"-2^32 - 5 ms wrap to 5", -kTwoTo32 - 5, 0, 5, false},
      {"the magnitude is taken before it is cut", -kTwoTo32 + 1, 0, 4294967295u, true},
      {"2^32 + 501 ms wrap to a large deviation", kTwoTo32 + 501, 0, 501, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Restart();
    SetAdvance(c.local_ms, c.ntp_us);
    const bool agree = c.deviation_ms <= 4;
    EXPECT_EQ(peer.CheckElapsedTimeDeviation(), agree);
    EXPECT_EQ(log.size(), agree ? 0u : 1u);
    EXPECT_EQ(LogLinesWith("Deviation found:" + std::to_string(c.deviation_ms) + ",").size(),
              agree ? 0u : 1u);
    EXPECT_EQ(peer.is_rtt_reliable(), agree);
    EXPECT_EQ(peer.last_result(), agree ? kGood : kPoor);
    EXPECT_EQ(peer.deviation_found(), c.is_large);
  }
}

TEST_F(DriftDetectionTest, ASuccessBefore1970IsAPointToCompareWith) {
  KeepGoodResult(-2000000000000000);
  ASSERT_LT(peer.last_sync_ntp_timestamp_us(), 0);
  world.RunFor(S(60));
  EXPECT_TRUE(peer.CheckElapsedTimeDeviation());
  world.StepWall(Ms(5));
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  EXPECT_EQ(LogLinesWith("Deviation found:5,").size(), 1u);
}

TEST_F(DriftDetectionTest, TheWallClockIsReadInWholeMilliseconds) {
  KeepGoodResult(0);
  world.RunFor(Us(999));
  world.StepWall(Ms(4));
  EXPECT_TRUE(peer.CheckElapsedTimeDeviation());
  KeepGoodResult(0);
  world.StepWall(Ms(4));
  world.RunFor(Us(1));
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation()) << "the fifth millisecond has begun, of NTP time not one";
}

TEST_F(DriftDetectionTest, TheNtpClockIsReadBeforeTheWallClock) {
  KeepGoodResult(10);
  const TickingClocks clocks(world);
  EXPECT_TRUE(peer.CheckElapsedTimeDeviation());
  EXPECT_EQ(clocks.readings, (std::vector{sim::SeamCall::kSteadyClock, sim::SeamCall::kWallClock}));
}

TEST_F(DriftDetectionTest, AWallClockSetForwardIsFoundLoggedAndDemotesTheResult) {
  KeepGoodResult(1500);
  world.RunFor(S(60));
  world.StepWall(S(2));
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  EXPECT_THAT(log,
              ::testing::ElementsAre(Line{1,
                                          "Deviation found:2000, ntp:{ now:2024-01-01T00:01:00.001500Z, "
                                          "before:2024-01-01T00:00:00.001500Z}, local:{ now:13348540862000, "
                                          "before:13348540800000}"}));
  EXPECT_EQ(peer.last_result(), kPoor);
  EXPECT_FALSE(peer.is_rtt_reliable());
  EXPECT_TRUE(peer.deviation_found());
}

TEST_F(DriftDetectionTest, AWallClockSetBackIsFoundToo) {
  KeepGoodResult(0);
  world.RunFor(S(60));
  world.StepWall(S(-2));
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  EXPECT_THAT(log,
              ::testing::ElementsAre(Line{1,
                                          "Deviation found:2000, ntp:{ now:2024-01-01T00:01:00.000000Z, "
                                          "before:2024-01-01T00:00:00.000000Z}, local:{ now:13348540858000, "
                                          "before:13348540800000}"}));
}

TEST_F(DriftDetectionTest, ADeviationLeavesTheOffsetTheStampsAndTheOtherFlag) {
  for (const bool is_reliable : {false, true}) {
    Restart();
    peer.is_reliable() = is_reliable;
    const int64_t ntp_us = peer.last_sync_ntp_timestamp_us();
    const int64_t local_ms = peer.last_sync_local_time_ms();
    world.StepWall(S(2));
    EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
    EXPECT_EQ(peer.ntp_offset_us(), 10);
    EXPECT_EQ(peer.last_sync_ntp_timestamp_us(), ntp_us);
    EXPECT_EQ(peer.last_sync_local_time_ms(), local_ms);
    EXPECT_EQ(peer.is_reliable(), is_reliable);
    EXPECT_EQ(peer.last_request_cost_ms(), 200u);
    EXPECT_EQ(peer.last_check_local_time_ms(), 0);
  }
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation()) << "the comparison point has moved";
  EXPECT_EQ(log.size(), 2u);
}

TEST_F(DriftDetectionTest, ADeviationIsLoggedBeforeTheResultIsDemoted) {
  KeepGoodResult(10);
  world.StepWall(S(2));
  int lines = 0;
  base::SetLogSink([&](const base::LogLine&) {
    ++lines;
    EXPECT_TRUE(peer.is_rtt_reliable());
    EXPECT_EQ(peer.last_result(), kGood);
    EXPECT_FALSE(peer.deviation_found());
  });
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  EXPECT_EQ(lines, 1);
}

TEST_F(DriftDetectionTest, ADeviationChangesNoCodeButSuccess) {
  for (const NtpResult code : {NtpResult::kNoResult, kPoor}) {
    Restart();
    peer.last_result() = code;
    world.StepWall(S(2));
    EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
    EXPECT_EQ(peer.last_result(), code);
  }
}

TEST_F(DriftDetectionTest, ALargeDeviationStaysFoundWhenTheClocksAgreeAgain) {
  KeepGoodResult(10);
  world.StepWall(S(2));
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  world.StepWall(Ms(-1980));
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  EXPECT_TRUE(peer.deviation_found());
  world.StepWall(Ms(-20));
  EXPECT_TRUE(peer.CheckElapsedTimeDeviation());
  EXPECT_TRUE(peer.deviation_found());
}

TEST_F(DriftDetectionTest, ADemotedResultAsksForARenewalUntilANewOneIsAccepted) {
  network.AddServer(Address("192.0.2.11"), {});
  AddDomains({"192.0.2.11"});
  Sync();
  EXPECT_FALSE(peer.NeedToUpdateResult());
  world.StepWall(Ms(5));
  EXPECT_FALSE(peer.NeedToUpdateResult());
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  world.StepWall(Ms(-5));
  EXPECT_TRUE(peer.CheckElapsedTimeDeviation());
  EXPECT_TRUE(peer.NeedToUpdateResult()) << "agreement alone restores nothing";
  Sync();
  EXPECT_EQ(peer.last_result(), kGood);
  EXPECT_TRUE(peer.is_rtt_reliable());
  EXPECT_FALSE(peer.NeedToUpdateResult());
}

TEST_F(DriftDetectionTest, ExtremeStampsAndOffsetsWrap) {
  Restart();
  peer.last_sync_local_time_ms() = INT64_MIN;
  peer.CheckElapsedTimeDeviation();
  Restart();
  peer.last_sync_ntp_timestamp_us() = INT64_MIN;
  peer.ntp_offset_us() = INT64_MAX;
  peer.CheckElapsedTimeDeviation();
  peer.NeedToUpdateResult();
  Restart();
  // Exactly -2^63 ms: its magnitude is 2^63, of which 32 bits are left.
  peer.last_sync_local_time_ms() = world.wall_us() / 1000 - INT64_MAX - 1;
  EXPECT_TRUE(peer.CheckElapsedTimeDeviation());
}

// --- Is the result due for renewal?

TEST_F(DriftDetectionTest, AManagerThatNeverSyncedNeedsAnUpdate) {
  EXPECT_TRUE(peer.NeedToUpdateResult());
  EXPECT_FALSE(peer.CheckElapsedTimeDeviation());
  EXPECT_TRUE(log.empty());
}

TEST_F(DriftDetectionTest, AGoodYoungResultNeedsNoUpdate) {
  KeepGoodResult(10);
  EXPECT_FALSE(peer.NeedToUpdateResult());
  EXPECT_TRUE(log.empty());
}

TEST_F(DriftDetectionTest, EveryWeaknessOfTheResultAloneAsksForAnUpdate) {
  struct Case {
    const char* what;
    std::function<void()> weaken;
    bool is_needed;
  };
  const Case cases[] = {
      {"no result code", [&] { peer.last_result() = NtpResult::kNoResult; }, true},
      {"an inaccurate result", [&] { peer.last_result() = kPoor; }, true},
      {"no offset", [&] { peer.ntp_offset_us() = INT64_MAX; }, true},
      {"nearly no offset is one", [&] { peer.ntp_offset_us() = INT64_MAX - 1; }, false},
      {"a cost of 0 ms", [&] { peer.last_request_cost_ms() = 0; }, true},
      {"a cost of 1 ms", [&] { peer.last_request_cost_ms() = 1; }, false},
      {"a cost of 2 ms", [&] { peer.last_request_cost_ms() = 2; }, false},
      {"a cost of 799 ms", [&] { peer.last_request_cost_ms() = 799; }, false},
      {"a cost of 800 ms", [&] { peer.last_request_cost_ms() = 800; }, true},
      {"a cost of 801 ms", [&] { peer.last_request_cost_ms() = 801; }, true},
      {"the largest cost", [&] { peer.last_request_cost_ms() = UINT32_MAX; }, true},
      {"unstable round-trip times", [&] { peer.is_rtt_reliable() = false; }, true},
      {"scattered offsets", [&] { peer.is_reliable() = false; }, true},
  };
  for (const bool has_synced : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << c.what << (has_synced ? "" : ", never synced"));
      Restart();
      c.weaken();
      // The stamp moves with the offset, so that the periodic test does not answer.
      peer.last_sync_ntp_timestamp_us() =
          has_synced ? std::max<int64_t>(1, peer.GetNtpTimestampFrom1970Internal()) : 0;
      EXPECT_EQ(peer.NeedToUpdateResult(), c.is_needed);
      peer.is_started() = true;
      EXPECT_FALSE(peer.NeedToUpdateResult()) << "an attempt is already on its way";
      peer.is_started() = false;
      EXPECT_TRUE(log.empty());
    }
  }
}

TEST_F(DriftDetectionTest, APeriodIsOverWhenMoreWholeSecondsThanTheIntervalHavePassed) {
  struct Case {
    const char* what;
    std::optional<uint64_t> interval_s;
    int64_t elapsed_us;
    bool is_over;
  };
  const Case cases[] = {
      {"the default is an hour: equality is not enough", std::nullopt, 3600000000, false},
      {"nor is a fraction of the next second", std::nullopt, 3600999999, false},
      {"the next whole second is", std::nullopt, 3601000000, true},
      {"much later", std::nullopt, 86400000000000, true},
      {"one second", 1, 1999999, false},
      {"one second, over", 1, 2000000, true},
      {"a configured hour", 3600, 3601000000, true},
      {"two hours", 7200, 7200999999, false},
      {"two hours, over", 7200, 7201000000, true},
      {"0 switches it off", 0, 86400000000000, false},
      {"2^32 has no low bits: off", uint64_t{1} << 32, 86400000000000, false},
      {"of 2^32 + 10 the low bits count", (uint64_t{1} << 32) + 10, 11000000, true},
      {"of 2^32 + 10 the low bits count, not over", (uint64_t{1} << 32) + 10, 10999999, false},
      {"the largest interval is not negative", 0xffffffff, 100000000, false},
      {"the largest interval, over", 0xffffffff, 4294967296000000, true},
      {"all bits set", ~uint64_t{0}, 4294967295999999, false},
      {"beyond the signed range of 32 bits", 0x80000000, 100000000, false},
      {"the success lies in the future", 1, -5000000, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SetSyncInterval(c.interval_s);
    KeepGoodResult(4600000000000000);  // far ahead, so that every age lies after 1970
    SetAdvance(0, c.elapsed_us);
    log.clear();
    EXPECT_EQ(peer.NeedToUpdateResult(), c.is_over);
    EXPECT_EQ(log.size(), c.is_over ? 1u : 0u);
    EXPECT_EQ(LogLinesWith("Periodic Sync:" + std::to_string(c.elapsed_us / 1000000) + ", ").size(),
              c.is_over ? 1u : 0u);
  }
}

TEST_F(DriftDetectionTest, TheEndOfThePeriodIsLoggedOnce) {
  KeepGoodResult(1500);
  world.RunFor(Us(3600999999));
  EXPECT_FALSE(peer.NeedToUpdateResult());
  world.RunFor(Us(1));
  EXPECT_TRUE(peer.NeedToUpdateResult());
  EXPECT_THAT(log, ::testing::ElementsAre(Line{0,
                                               "Periodic Sync:3601, ntp:{ now:2024-01-01T01:00:01.001500Z, "
                                               "before:2024-01-01T00:00:00.001500Z}"}));
}

TEST_F(DriftDetectionTest, WithAnIntervalOf0OnlyTheQualityDecides) {
  SetSyncInterval(0);
  KeepGoodResult(10);
  world.RunFor(S(365 * 86400));
  EXPECT_FALSE(peer.NeedToUpdateResult());
  peer.is_reliable() = false;
  EXPECT_TRUE(peer.NeedToUpdateResult());
  EXPECT_TRUE(log.empty());
}

TEST_F(DriftDetectionTest, ThePeriodIsLookedAtBeforeTheQuality) {
  KeepGoodResult(10);
  peer.last_result() = kPoor;
  SetAdvance(0, 3601000000);
  EXPECT_TRUE(peer.NeedToUpdateResult());
  EXPECT_EQ(LogLinesWith("Periodic Sync:").size(), 1u);
}

TEST_F(DriftDetectionTest, WhileAnAttemptRunsThePeriodIsNotLookedAt) {
  KeepGoodResult(10);
  SetAdvance(0, 3601000000);
  peer.is_started() = true;
  EXPECT_FALSE(peer.NeedToUpdateResult());
  EXPECT_TRUE(log.empty());
}

TEST_F(DriftDetectionTest, ThePeriodNeedsASuccessAfter1970) {
  KeepGoodResult(10);
  for (const int64_t before_us : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
    peer.last_sync_ntp_timestamp_us() = before_us;
    EXPECT_FALSE(peer.NeedToUpdateResult());
  }
  EXPECT_TRUE(log.empty());
  peer.last_sync_ntp_timestamp_us() = 1;
  EXPECT_TRUE(peer.NeedToUpdateResult());
  EXPECT_EQ(log.size(), 1u);
}

TEST_F(DriftDetectionTest, ThePeriodIsMeasuredInNtpTimeNotByTheWallClock) {
  KeepGoodResult(10);
  world.StepWall(S(7200));
  EXPECT_FALSE(peer.NeedToUpdateResult());
  world.StepWall(S(-14400));
  world.RunFor(S(3601));
  EXPECT_TRUE(peer.NeedToUpdateResult());
  EXPECT_EQ(LogLinesWith("Periodic Sync:3601,").size(), 1u);
}

// --- What the callers make of the answers.

TEST_F(DriftDetectionTest, AReadAfterThePeriodStartsASyncAndOneBeforeDoesNot) {
  network.AddServer(Address("192.0.2.11"), {});
  AddDomains({"192.0.2.11"});
  Sync();
  world.RunFor(S(3600));
  manager().GetNtpTimestampFrom1970();
  EXPECT_FALSE(peer.is_started());
  world.RunFor(S(1));
  manager().GetNtpTimestampFrom1970();
  EXPECT_TRUE(peer.is_started());
}

TEST_F(DriftDetectionTest, AStartWithAWeakResultSyncsWithoutComparingTheClocks) {
  KeepGoodResult(10);
  world.RunFor(S(1));
  peer.is_reliable() = false;
  world.StepWall(S(2));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_TRUE(log.empty());
}

TEST_F(DriftDetectionTest, AStartWithDisagreeingClocksSyncsAndReportsTheDeviation) {
  KeepGoodResult(10);
  world.RunFor(S(1));
  world.StepWall(S(2));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_EQ(LogLinesWith("Deviation found:2000,").size(), 1u);
  EXPECT_TRUE(manager().GetAndResetNtpQualityStats().deviation_found);
}

}  // namespace
}  // namespace skorra
