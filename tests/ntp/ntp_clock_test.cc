// SPDX-License-Identifier: Apache-2.0

// The clock: the value that a read gives, and when a read starts a sync.
#include "platform/base/clock.h"
#include "testing/manager_fixture.h"
#include "testing/ticking_clocks.h"

namespace skorra {
namespace {

constexpr int64_t kTenMinutesMs = 600000;

class NtpClockTest : public ManagerTest {
 protected:
  int64_t Read() { return manager().GetNtpTimestampFrom1970(); }
  int64_t now_ms() { return world.wall_us() / 1000; }
  int64_t now_unix_us() { return world.wall_us() - base::kWindowsToUnixEpochUs; }

  // Reads, and tells whether that started an attempt. A started one is forgotten again.
  bool ReadStartsSync() {
    EXPECT_FALSE(peer.is_started());
    const size_t posted = world.posted().size();
    Read();
    const bool is_started = peer.is_started();
    EXPECT_EQ(world.posted().size() - posted, is_started ? 1u : 0u);
    peer.is_started() = false;
    return is_started;
  }
};

// --- The value.

TEST_F(NtpClockTest, TheValueIsTheLocalTimestampPlusTheOffsetSince1970) {
  ASSERT_EQ(world.wall_us(), 13348540800000000);
  KeepGoodResult(2500);
  EXPECT_EQ(Read(), 1704067200002500);
  EXPECT_EQ(peer.GetNtpTimestampFrom1970Internal(), 1704067200002500);
  peer.ntp_offset_us() = -2500;
  EXPECT_EQ(Read(), 1704067199997500);
}

TEST_F(NtpClockTest, TheLocalTimestampIsTheSteadyClockPlusTheStoredOffset) {
  peer.system_offset_from_steady_us() = 123;
  EXPECT_EQ(peer.GetNowSystemTimestampUs(), base::GetSteadyTimeTicks() + 123);
  peer.system_offset_from_steady_us() = -123;
  world.RunFor(Us(77));
  EXPECT_EQ(peer.GetNowSystemTimestampUs(), 5000000077 - 123);
}

TEST_F(NtpClockTest, AStepOfTheWallClockMovesNeitherTheLocalTimestampNorTheValue) {
  KeepGoodResult(1000);
  const int64_t local_us = peer.GetNowSystemTimestampUs();
  const int64_t ntp_us = Read();
  world.StepWall(S(86400));
  EXPECT_EQ(peer.GetNowSystemTimestampUs(), local_us);
  EXPECT_EQ(Read(), ntp_us);
  world.StepWall(S(-2 * 86400));
  world.RunFor(Us(3));
  EXPECT_EQ(Read(), ntp_us + 3);
}

TEST_F(NtpClockTest, TheNextResultReplacesOffsetAndTimeBaseTogetherSoThatTheValueStays) {
  network.AddServer(Address("192.0.2.11"), {.clock_error_us = 400});
  AddDomains({"192.0.2.11"});
  Sync();
  world.StepWall(S(50));
  EXPECT_EQ(Read(), world.true_us() + 400 - base::kWindowsToUnixEpochUs);
  world.RunFor(S(1));  // the read has noticed the step and started a sync
  ASSERT_EQ(observer->outcomes.size(), 2u);
  EXPECT_EQ(peer.ntp_offset_us(), 400 - 50000000);
  EXPECT_EQ(Read(), world.true_us() + 400 - base::kWindowsToUnixEpochUs);
}

TEST_F(NtpClockTest, TheArithmeticWrapsAndHasNoSpecialCases) {
  KeepGoodResult(0);
  const int64_t now_us = now_unix_us();
  // No offset at all, as the inner function sees it: the largest number is -2^63 - 1 modulo 2^64.
  peer.ntp_offset_us() = INT64_MAX;
  EXPECT_EQ(peer.GetNtpTimestampFrom1970Internal(), INT64_MIN + (now_us - 1));
  peer.system_offset_from_steady_us() = INT64_MAX;
  EXPECT_EQ(peer.GetNowSystemTimestampUs(), INT64_MIN + (world.steady_ticks_us() - 1));
}

TEST_F(NtpClockTest, AnOffsetOfZeroIsAResult) {
  KeepGoodResult(0);
  EXPECT_EQ(Read(), now_unix_us());
}

TEST_F(NtpClockTest, TheInnerFunctionChecksAndStartsNothing) {
  peer.GetNtpTimestampFrom1970Internal();
  peer.GetNowSystemTimestampUs();
  EXPECT_EQ(peer.last_check_local_time_ms(), 0);
  EXPECT_FALSE(peer.is_started());
  EXPECT_TRUE(world.posted().empty());
}

// --- Reads without a result.

TEST_F(NtpClockTest, WithoutAResultAReadGives0AndStartsASyncAtMostOnceInTenMinutes) {
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
  ASSERT_EQ(world.posted().size(), 1u);
  EXPECT_EQ(world.posted()[0].delay_us, 0);
  world.RunFor(Us(0));
  EXPECT_EQ(CountLog(0, "Start NTP time sync"), 1u);
  ASSERT_FALSE(peer.is_started()) << "there is no server: the attempt ends at once";

  EXPECT_EQ(Read(), 0);
  EXPECT_FALSE(peer.is_started());
  world.RunFor(Ms(kTenMinutesMs - 1));
  EXPECT_EQ(Read(), 0);
  EXPECT_FALSE(peer.is_started());
  world.RunFor(Ms(1));
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
  world.RunFor(Us(0));
  EXPECT_EQ(CountLog(0, "Start NTP time sync"), 2u);
}

TEST_F(NtpClockTest, AReadWithoutAResultLogsNothingAndIsNoCallOfStart) {
  Read();
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(peer.start_count(), 0u);
}

TEST_F(NtpClockTest, ADueReadWithoutAResultBeginsAQuietPeriodAlsoWhileAnAttemptRuns) {
  ASSERT_EQ(manager().Start(), 0);
  const size_t posted = world.posted().size();
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(world.posted().size(), posted);
  EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
}

TEST_F(NtpClockTest, WithoutAResultNothingIsChecked) {
  KeepGoodResult(0);
  world.StepWall(S(2));
  peer.ntp_offset_us() = INT64_MAX;
  peer.is_started() = true;
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
  EXPECT_TRUE(log.empty()) << "the clocks were compared";
  EXPECT_EQ(peer.last_result(), NtpResult::kSuccess);
}

TEST_F(NtpClockTest, ASyncThatAReadStartedReachesTheObservers) {
  network.AddServer(Address("192.0.2.11"), {.clock_error_us = 77});
  AddDomains({"192.0.2.11"});
  manager().AddObserver(observer);
  EXPECT_EQ(Read(), 0);
  world.RunFor(S(1));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(Read(), world.true_us() + 77 - base::kWindowsToUnixEpochUs);
}

TEST_F(NtpClockTest, TheFirstReadIsDueEvenWhenTheWallClockShowsTheFirstMinutesOf1601) {
  world.StepWall(Us(5000 - world.wall_us()));
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_EQ(peer.last_check_local_time_ms(), 5);
  peer.is_started() = false;
  peer.last_check_local_time_ms() = 1;
  EXPECT_EQ(Read(), 0);
  EXPECT_FALSE(peer.is_started());
}

// --- Reads with a result.

TEST_F(NtpClockTest, WithAGoodResultAndAgreeingClocksAReadStartsNothingAndStoresNothing) {
  KeepGoodResult(10);
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(ReadStartsSync());
    EXPECT_EQ(peer.last_check_local_time_ms(), 0);
  }
  EXPECT_TRUE(log.empty());
}

TEST_F(NtpClockTest, AReadThatIsDueAsksForANewResultWhenTheKeptOneIsPoor) {
  KeepGoodResult(10);
  peer.is_reliable() = false;
  world.RunFor(Us(1999));
  EXPECT_TRUE(ReadStartsSync());
  EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
}

TEST_F(NtpClockTest, AReadThatStartsASyncStoresItsFirstReadingOfTheWallClock) {
  for (const bool has_result : {false, true}) {
    SCOPED_TRACE(has_result);
    KeepGoodResult(10);
    peer.is_reliable() = false;
    if (!has_result) {
      peer.ntp_offset_us() = INT64_MAX;
    }
    peer.is_started() = false;
    peer.last_check_local_time_ms() = 0;
    const int64_t first_ms = now_ms();
    const TickingClocks clocks(world);
    Read();
    EXPECT_TRUE(peer.is_started());
    EXPECT_EQ(peer.last_check_local_time_ms(), first_ms);
    EXPECT_GT(now_ms(), first_ms);
  }
}

TEST_F(NtpClockTest, AReadStoresItsTimeBeforeItStartsASync) {
  for (const bool has_result : {false, true}) {
    SCOPED_TRACE(has_result);
    KeepGoodResult(10);
    peer.is_reliable() = false;
    if (!has_result) {
      peer.ntp_offset_us() = INT64_MAX;
    }
    peer.is_started() = false;
    peer.last_check_local_time_ms() = 0;
    int posts = 0;
    world.SetSeamHook([&](sim::SeamCall call) {
      if (call == sim::SeamCall::kTaskQueue) {
        ++posts;
        EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
      }
    });
    Read();
    world.SetSeamHook(nullptr);
    EXPECT_EQ(posts, 1);
  }
}

TEST_F(NtpClockTest, AReadThatStartsASyncStillGivesTheValueOfTheKeptOffset) {
  KeepGoodResult(10);
  peer.is_reliable() = false;
  EXPECT_EQ(Read(), now_unix_us() + 10);
  EXPECT_TRUE(peer.is_started());
}

TEST_F(NtpClockTest, AReadThatIsDueAsksForANewResultWhenTheClocksDisagree) {
  KeepGoodResult(10);
  world.StepWall(Ms(5));
  EXPECT_TRUE(ReadStartsSync());
  EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
  EXPECT_EQ(LogLinesWith("Deviation found").size(), 1u);
}

TEST_F(NtpClockTest, AReadThatIsDueAsksForANewResultWhenThereWasNoSuccessToCompareWith) {
  KeepGoodResult(10);
  peer.last_sync_ntp_timestamp_us() = 0;
  EXPECT_TRUE(ReadStartsSync());
  EXPECT_TRUE(log.empty());
}

TEST_F(NtpClockTest, TheClocksAreOnlyComparedWhenTheResultNeedsNoUpdate) {
  KeepGoodResult(10);
  peer.last_request_cost_ms() = 800;
  world.StepWall(S(2));
  EXPECT_TRUE(ReadStartsSync());
  EXPECT_TRUE(log.empty()) << "the clocks were compared";
  EXPECT_EQ(peer.last_result(), NtpResult::kSuccess);
}

TEST_F(NtpClockTest, ChecksThatPassDoNotKeepTheNextReadFromChecking) {
  KeepGoodResult(10);
  EXPECT_FALSE(ReadStartsSync());
  world.RunFor(Ms(1));
  world.StepWall(Ms(100));
  EXPECT_TRUE(ReadStartsSync());
}

TEST_F(NtpClockTest, AStartedSyncIsFollowedByTenMinutesWithoutChecks) {
  struct Case {
    int64_t age_ms;
    bool is_due;
  };
  const Case cases[] = {{0, false},
                        {1, false},
                        {kTenMinutesMs - 1, false},
                        {kTenMinutesMs, true},
                        {kTenMinutesMs + 1, true},
                        {-1, false},
                        {-kTenMinutesMs, false},
                        {-100 * kTenMinutesMs, false}};
  for (const bool has_result : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << has_result << " " << c.age_ms);
      KeepGoodResult(10);
      peer.last_result() = NtpResult::kMaybeInaccurate;
      if (!has_result) {
        peer.ntp_offset_us() = INT64_MAX;
      }
      const int64_t last_ms = now_ms() - c.age_ms;
      peer.last_check_local_time_ms() = last_ms;
      EXPECT_EQ(ReadStartsSync(), c.is_due);
      EXPECT_EQ(peer.last_check_local_time_ms(), c.is_due ? now_ms() : last_ms);
    }
  }
}

TEST_F(NtpClockTest, AReadInTheQuietPeriodChecksNothing) {
  KeepGoodResult(10);
  peer.last_check_local_time_ms() = now_ms();
  world.StepWall(S(7));
  EXPECT_FALSE(ReadStartsSync());
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(peer.is_rtt_reliable());
  EXPECT_FALSE(peer.deviation_found());
}

TEST_F(NtpClockTest, AWallClockThatWasSetBackIsQuietUntilItPassesTheStoredTimeByTenMinutes) {
  KeepGoodResult(10);
  peer.last_result() = NtpResult::kNoResult;
  EXPECT_TRUE(ReadStartsSync());
  world.StepWall(S(-3600));
  EXPECT_FALSE(ReadStartsSync());
  world.RunFor(S(3600));
  EXPECT_FALSE(ReadStartsSync());
  world.RunFor(Us(599999999));
  EXPECT_FALSE(ReadStartsSync());
  world.RunFor(Us(1));
  EXPECT_TRUE(ReadStartsSync());
}

TEST_F(NtpClockTest, TheQuietPeriodIsCountedInWholeMillisecondsOfTheWallClock) {
  KeepGoodResult(10);
  peer.last_result() = NtpResult::kNoResult;
  world.RunFor(Us(999));
  EXPECT_TRUE(ReadStartsSync());
  world.RunFor(Us(599999000));
  EXPECT_FALSE(ReadStartsSync());
  world.RunFor(Us(1));
  EXPECT_TRUE(ReadStartsSync()) << "the 600000th millisecond has begun";
}

TEST_F(NtpClockTest, TheQuietPeriodIsMeasuredByTheWallClock) {
  KeepGoodResult(10);
  peer.last_result() = NtpResult::kNoResult;
  EXPECT_TRUE(ReadStartsSync());
  world.StepWall(Ms(kTenMinutesMs));
  EXPECT_TRUE(ReadStartsSync());
}

TEST_F(NtpClockTest, WhileAnAttemptRunsAPoorResultIsNotAskedForAgain) {
  KeepGoodResult(10);
  peer.last_result() = NtpResult::kMaybeInaccurate;
  peer.is_started() = true;
  EXPECT_EQ(Read(), now_unix_us() + 10);
  EXPECT_EQ(peer.last_check_local_time_ms(), 0);
  EXPECT_TRUE(world.posted().empty());
}

TEST_F(NtpClockTest, WhileAnAttemptRunsADisagreementBeginsTheQuietPeriodOnly) {
  KeepGoodResult(10);
  peer.is_started() = true;
  world.StepWall(S(1));
  Read();
  EXPECT_EQ(peer.last_check_local_time_ms(), now_ms());
  EXPECT_TRUE(world.posted().empty());
}

TEST_F(NtpClockTest, TheQuietPeriodSurvivesASuccessAndAStop) {
  network.AddServer(Address("192.0.2.11"), {});
  AddDomains({"192.0.2.11"});
  Read();
  const int64_t last_ms = peer.last_check_local_time_ms();
  ASSERT_NE(last_ms, 0);
  world.RunFor(S(1));
  ASSERT_EQ(peer.last_result(), NtpResult::kSuccess);
  EXPECT_EQ(peer.last_check_local_time_ms(), last_ms);
  manager().Stop();
  world.RunFor(S(60));
  EXPECT_EQ(peer.last_check_local_time_ms(), last_ms);
}

TEST_F(NtpClockTest, AStopLeavesTheValueReadable) {
  KeepGoodResult(10);
  manager().Stop();
  world.RunFor(S(1));
  EXPECT_EQ(Read(), now_unix_us() + 10);
}

// --- The printed time.

TEST_F(NtpClockTest, AnNtpTimeBecomesTheTimeSoFarFrom1970) {
  struct Case {
    const char* what;
    int64_t ntp_us;
    base::Time time;
    const char* text;
  };
  const auto since_1601 = [](int64_t us) {
    return base::Time::FromDeltaSinceWindowsEpoch(base::TimeDelta::FromMicroseconds(us));
  };
  const Case cases[] = {
      {"the epoch", 0, base::Time::UnixEpoch(), "1970-01-01T00:00:00.000000Z"},
      {"an ordinary time", 1704067200002500, since_1601(13348540800002500), "2024-01-01T00:00:00.002500Z"},
      {"before 1970", -1, since_1601(11644473599999999), "1969-12-31T23:59:59.999999Z"},
      {"the largest value is the infinite time", INT64_MAX, base::Time::Max(), "+infinity"},
      {"the smallest value is minus infinity", INT64_MIN, base::Time::Min(), "-infinity"},
      {"a sum that overflows is clamped", INT64_MAX - 1, base::Time::Max(), "+infinity"},
      {"the last value that does not overflow", INT64_MAX - base::kWindowsToUnixEpochUs - 1,
       since_1601(INT64_MAX - 1), "+293878-01-10T04:00:54.775806Z"},
      {"the next smallest value fits", INT64_MIN + 1, since_1601(INT64_MIN + 1 + base::kWindowsToUnixEpochUs),
       nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(peer.NtpTimestampToTime(c.ntp_us), c.time);
    if (c.text != nullptr) {
      EXPECT_EQ(peer.NtpTimestampToTime(c.ntp_us).ToString(), c.text);
    }
  }
}

}  // namespace
}  // namespace skorra
