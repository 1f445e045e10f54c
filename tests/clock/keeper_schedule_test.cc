// SPDX-License-Identifier: Apache-2.0

// When the keeper syncs without being asked, and that it does nothing in between.
#include <cstdint>
#include <string>

#include "gmock/gmock.h"
#include "testing/clock_fixture.h"
#include "testing/temp_dir.h"
#include "testing/vm_clock_page.h"

namespace skorra {
namespace {

using base::kUsPerSecond;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr char kA[] = "203.0.113.1";

class KeeperScheduleTest : public ::testing::Test, public KeptClock {
 protected:
  KeeperScheduleTest() { network.AddServer(Address(kA), {}); }

  void StartAndSync() {
    StartWith({kA});
    world.RunFor(S(1));
    ASSERT_THAT(Reasons(), ElementsAre(NtpSyncReason::kOk));
  }
  // The next outcome within `limit`, whose attempt begins now.
  bool SyncsWithin(base::TimeDelta limit) {
    const size_t before = outcomes.size();
    return world.RunUntil([&] { return outcomes.size() > before; }, limit);
  }
};

TEST_F(KeeperScheduleTest, NothingRunsBetweenTwoSyncs) {
  StartAndSync();
  world.RunFor(S(60));  // the manager closes its sockets 30 s after the outcome
  int wake_ups = 0;
  const int64_t end_ticks_us = outcomes.size() == 1 ? world.steady_ticks_us() + 3530 * kUsPerSecond : 0;
  while (world.NextEventTicks() && *world.NextEventTicks() < end_ticks_us) {
    world.RunOne();
    ++wake_ups;
  }
  EXPECT_EQ(wake_ups, 0);
  EXPECT_TRUE(SyncsWithin(S(3600)));
}

TEST_F(KeeperScheduleTest, TheIntervalIsKept) {
  NtpClockOptions options;
  options.servers = {kA};
  options.interval_s = 64;
  Start(options);
  world.RunFor(S(64 * 20 + 10));
  EXPECT_GE(outcomes.size(), 20u);
  EXPECT_LE(outcomes.size(), 22u);
}

TEST_F(KeeperScheduleTest, ASyncComesBeforeTheBoundPassesItsLimit) {
  NtpClockOptions options;
  options.servers = {kA};
  options.max_error_us = 30000;
  Start(options);
  world.RunFor(S(1));
  for (int second = 0; second < 7200; ++second) {
    world.RunFor(S(1));
    ASSERT_LE(Read().error_bound_us, 30000 + 1000);
  }
}

TEST_F(KeeperScheduleTest, AWallStepBringsASyncAtOnce) {
  StartAndSync();
  world.RunFor(S(100));
  world.StepWall(-S(5));
  EXPECT_TRUE(SyncsWithin(S(1)));
}

TEST_F(KeeperScheduleTest, StepsInARowDoNotBurdenTheServer) {
  StartAndSync();
  for (int i = 0; i < 100; ++i) {
    world.StepWall(Ms(100));
    world.RunFor(S(1));
  }
  EXPECT_LE(outcomes.size(), 1u + 3 + 100 / 16);
  EXPECT_GE(outcomes.size(), 5u);
}

TEST_F(KeeperScheduleTest, TheEndOfASuspendBringsASyncAtOnceAndUntilThenTheClockRunsFreely) {
  StartAndSync();
  world.RunFor(S(100));
  const int64_t before_us = Read().error_bound_us;
  world.Suspend(S(60), Ms(-900));
  EXPECT_EQ(Read().status, NtpClockStatus::kFreeRunning);
  EXPECT_GT(Read().error_bound_us, before_us + kUsPerSecond);
  EXPECT_TRUE(IsTruthInside());
  EXPECT_TRUE(SyncsWithin(S(1)));
  EXPECT_EQ(Read().status, NtpClockStatus::kSynchronized);
  EXPECT_TRUE(IsTruthInside());
}

TEST_F(KeeperScheduleTest, FailuresComeFartherAndFartherApart) {
  network.RemoveServer(Address(kA));
  StartWith({kA});
  world.RunFor(S(3600));
  const size_t failed = outcomes.size();
  EXPECT_GE(failed, 9u);
  EXPECT_LE(failed, 14u);
  EXPECT_THAT(Reasons(), Each(NtpSyncReason::kSilent));
}

TEST_F(KeeperScheduleTest, AnAddressOfTheNetworkEndsTheWaitAfterFailures) {
  network.RemoveServer(Address(kA));
  StartWith({kA});
  world.RunFor(S(3600));
  ASSERT_FALSE(IsGraded());
  network.AddServer(Address(kA), {});
  world.RaiseNetwork();
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(3)));
}

TEST_F(KeeperScheduleTest, ANetworkThatComesAndGoesDoesNotBurdenTheServer) {
  network.RemoveServer(Address(kA));
  StartWith({kA});
  for (int i = 0; i < 3600; ++i) {
    world.RunFor(S(1));
    world.RaiseNetwork();
  }
  // In a minute there is room for five attempts of 6 s with waits of 2, 4, 8 and 16 s.
  EXPECT_LE(outcomes.size(), 60u * 5 + 5);
  EXPECT_GE(outcomes.size(), 60u * 3);
}

TEST_F(KeeperScheduleTest, ANameIsAskedAgainWhenTheNetworkComesUp) {
  StartWith({"late.test"});
  world.RunFor(S(3600));
  EXPECT_THAT(Reasons(), Each(NtpSyncReason::kNotResolved));
  world.SetHost("late.test", {.addresses = {Address(kA)}});
  world.RaiseNetwork();
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(1)));
}

TEST_F(KeeperScheduleTest, ANameThatNeverHasAnAddressIsAskedEveryFiveMinutes) {
  int lookups = 0;
  world.SetEventLog([&](const std::string& line) {
    lookups += line.find("looks up never.test") != std::string::npos ? 1 : 0;
  });
  StartWith({kA, "never.test"});
  world.RunFor(S(3600));
  EXPECT_GE(lookups, 3600 / 300 + 6);
  EXPECT_LE(lookups, 3600 / 225 + 12);
}

TEST_F(KeeperScheduleTest, AResultThatMayBeInaccurateIsRenewedAfterTenMinutes) {
  network.AddServer(Address(kA),
                    {.to_server = {.jitter = netmodel::Distribution::kUniform, .jitter_us = 150000}});
  StartWith({kA});
  world.RunFor(S(3600));
  EXPECT_GE(outcomes.size(), 5u);
  EXPECT_LE(outcomes.size(), 12u);
  EXPECT_TRUE(IsTruthInside());
}

// --- What a virtual machine's host does.

class MovedMachineTest : public KeeperScheduleTest {
 protected:
  // A clock that has synced with marker 7.
  MovedMachineTest() {
    WriteFile(path_, VmClockPage(7));
    options_.servers = {kA};
    options_.vmclock_path = path_;
    Start(options_);
    world.RunFor(S(100));
    EXPECT_EQ(Read().status, NtpClockStatus::kSynchronized);
  }

  const TempDir folder_;
  const std::string path_ = folder_ / "vmclock";
  NtpClockOptions options_;
};

TEST_F(MovedMachineTest, AChangedMarkerTakesTheBoundAwayUntilTheNextSync) {
  const int64_t estimate_us = Read().best_estimate_us;
  SetVmClockMarker(path_, 8);
  EXPECT_EQ(Read().status, NtpClockStatus::kDisrupted);
  EXPECT_FALSE(Read().has_bound());
  EXPECT_EQ(Read().best_estimate_us, estimate_us);
  OnQueue([&] { keeper->SyncIfReadingIsPoor(); });
  world.RunFor(S(1));
  EXPECT_EQ(Read().status, NtpClockStatus::kSynchronized);
  EXPECT_TRUE(Read().has_bound());
}

TEST_F(MovedMachineTest, AStartMakesADisruptedReadingNoBetter) {
  SetVmClockMarker(path_, 8);
  Start(options_);
  EXPECT_EQ(Read().status, NtpClockStatus::kDisrupted);
  EXPECT_FALSE(Read().has_bound());
}

// --- Leap seconds.

TEST_F(KeeperScheduleTest, AnAnnouncedLeapSecondWidensTheBoundFromTheEndOfTheDayOn) {
  const struct {
    uint8_t indicator;
    int64_t earlier_us;
    int64_t later_us;
  } cases[] = {{1, kUsPerSecond, 0}, {2, 0, kUsPerSecond}, {0, 0, 0}};
  for (const auto& row : cases) {
    KeptClock clock;
    clock.world.RunFor(S(86400 - 600));  // ten minutes before midnight
    bool is_silent = false;
    clock.network.AddServer(Address(kA),
                            {.leap_indicator = row.indicator,
                             .script = [&](netmodel::Exchange& e) { e.is_answered = !is_silent; }});
    clock.StartWith({kA});
    clock.world.RunFor(S(590));
    is_silent = true;
    const NtpClockReading before = clock.Read();
    clock.world.RunFor(S(20));
    const NtpClockReading after = clock.Read();
    const auto earlier_us = [](const NtpClockReading& r) { return r.best_estimate_us - r.earliest_us; };
    const auto later_us = [](const NtpClockReading& r) { return r.latest_us - r.best_estimate_us; };
    constexpr int64_t kGrownUs = 20 * 50 + 2;
    EXPECT_GE(earlier_us(after), earlier_us(before) + row.earlier_us);
    EXPECT_LE(earlier_us(after), earlier_us(before) + row.earlier_us + kGrownUs);
    EXPECT_GE(later_us(after), later_us(before) + row.later_us);
    EXPECT_LE(later_us(after), later_us(before) + row.later_us + kGrownUs);
  }
}

}  // namespace
}  // namespace skorra
