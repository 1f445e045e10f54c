// SPDX-License-Identifier: Apache-2.0

// Start, stop and the delayed stop of the manager's queue.
#include <thread>

#include "testing/manager_fixture.h"

namespace skorra {
namespace {

class LifecycleTest : public ManagerTest {
 protected:
  // One healthy server, and an attempt that has just succeeded with it.
  void SyncWithAServer() {
    network.AddServer(Address("192.0.2.10"), {.clock_error_us = 2500});
    manager().UpdateNtpTimeDomain({"192.0.2.10"});
    Sync();
    ASSERT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
  }

  size_t StopLines() { return CountLog(0, "Stop ntp queue"); }

  bool IsStatisticsLockHeld() {
    bool is_held = true;
    std::thread([&] {
      base::Lock& lock = peer.stats_lock();
      if (lock.TryAcquire()) {
        is_held = false;
        lock.Release();
      }
    }).join();
    return is_held;
  }
};

TEST_F(LifecycleTest, TheFirstStartBeginsAnAttemptAndASecondIsRefusedButCounted) {
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_EQ(world.posted().size(), 1u);
  EXPECT_EQ(manager().Start(), -1);
  EXPECT_EQ(world.posted().size(), 1u);
  EXPECT_EQ(peer.start_count(), 2u);
  EXPECT_TRUE(log.empty());
  world.RunFor(Us(0));
  EXPECT_EQ(CountLog(0, "Start NTP time sync"), 1u);
}

TEST_F(LifecycleTest, AStartWithinTenMinutesAnnouncesTheKeptResultAgain) {
  KeepGoodResult(1000);
  manager().AddObserver(observer);
  world.RunFor(Ms(599999));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_FALSE(peer.is_started());
  world.RunFor(Us(0));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(observer->outcomes[0].message, "success");
  EXPECT_TRUE(observer->outcomes[0].server.address_empty());
  EXPECT_TRUE(LogLinesWith("Start NTP time sync").empty());
  // The wind-down follows as after any outcome.
  EXPECT_EQ(CountPosted(S(30)), 1u);
}

TEST_F(LifecycleTest, AStartWhileAnAttemptRunsIsRefusedAlsoBesideAFreshResult) {
  KeepGoodResult(1000);
  peer.is_started() = true;
  world.RunFor(Ms(1));
  EXPECT_EQ(manager().Start(), -1);
  EXPECT_TRUE(world.posted().empty());
}

TEST_F(LifecycleTest, AStartTenMinutesAfterTheLastSuccessBeginsAnAttempt) {
  KeepGoodResult(1000);
  manager().AddObserver(observer);
  world.RunFor(Ms(600000));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  world.RunFor(Us(0));
  EXPECT_EQ(CountLog(0, "Start NTP time sync"), 1u);
  EXPECT_TRUE(observer->outcomes.empty());
}

TEST_F(LifecycleTest, AWallClockSetBackBeforeTheLastSuccessBeginsAnAttempt) {
  KeepGoodResult(1000);
  world.RunFor(S(10));
  world.StepWall(S(-11));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  // The time stamps alone decided: the drift check, which would have logged, was not reached.
  EXPECT_TRUE(LogLinesWith("Deviation found").empty());
}

TEST_F(LifecycleTest, AWallClockThatStandsAtTheLastSuccessBeginsAnAttempt) {
  KeepGoodResult(1000);
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
}

TEST_F(LifecycleTest, AWallClockOneMillisecondAfterTheLastSuccessAnnouncesItAgain) {
  KeepGoodResult(1000);
  world.RunFor(Ms(1));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_FALSE(peer.is_started());
}

TEST_F(LifecycleTest, APoorKeptResultBeginsAnAttemptWithoutADriftCheck) {
  KeepGoodResult(1000);
  peer.is_reliable() = false;
  world.RunFor(S(10));
  world.StepWall(S(2));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_TRUE(LogLinesWith("Deviation found").empty());
}

TEST_F(LifecycleTest, AnOldKeptResultBeginsAnAttemptWithoutADriftCheck) {
  KeepGoodResult(1000);
  world.RunFor(S(600));
  world.StepWall(S(2));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_TRUE(LogLinesWith("Deviation found").empty());
}

TEST_F(LifecycleTest, ClocksThatRanApartBeginAnAttempt) {
  KeepGoodResult(1000);
  world.RunFor(S(10));
  world.StepWall(Ms(5));
  EXPECT_EQ(manager().Start(), 0);
  EXPECT_TRUE(peer.is_started());
  EXPECT_EQ(LogLinesWith("Deviation found:5,").size(), 1u);
}

TEST_F(LifecycleTest, TheQueueStopsThirtySecondsAfterAnOutcome) {
  SyncWithAServer();
  world.RunFor(Us(29999999));
  EXPECT_EQ(StopLines(), 0u);
  world.RunFor(Us(1));
  EXPECT_EQ(StopLines(), 1u);
  EXPECT_EQ(log.back(), (Line{0, "Stop ntp queue"}));
}

TEST_F(LifecycleTest, AStartWithinTheThirtySecondsDoesNotPreventTheStop) {
  SyncWithAServer();
  world.RunFor(S(29));
  peer.is_reliable() = false;
  // The new attempt meets silence and is still waiting when the stop of the first one comes.
  network.AddServer(Address("192.0.2.10"), {.script = [](netmodel::Exchange& e) { e.is_answered = false; }});
  EXPECT_EQ(manager().Start(), 0);
  world.RunFor(S(1));
  EXPECT_EQ(StopLines(), 1u);
  EXPECT_FALSE(peer.is_started());
  EXPECT_FALSE(peer.is_sync_finished());
  EXPECT_FALSE(Record("192.0.2.10").is_requesting);
  // It was cut off: no outcome follows.
  world.RunFor(S(60));
  EXPECT_EQ(observer->outcomes.size(), 1u);
}

TEST_F(LifecycleTest, AStopWhileIdleCleansAndLogs) {
  peer.total_retry_count() = 7;
  manager().Stop();
  ASSERT_EQ(world.posted().size(), 1u);
  EXPECT_EQ(world.posted()[0].delay_us, 0);
  EXPECT_EQ(StopLines(), 0u);
  world.RunFor(Us(0));
  EXPECT_EQ(StopLines(), 1u);
  EXPECT_EQ(peer.total_retry_count(), 0u);
}

TEST_F(LifecycleTest, AStopDuringAnAttemptEndsItWithoutAnOutcome) {
  network.AddServer(Address("192.0.2.10"), {});
  AddDomains({"192.0.2.10"});
  manager().AddObserver(observer);
  manager().Start();
  world.RunFor(Ms(55));
  ASSERT_EQ(Domain(0)->samples().size(), 5u);
  ASSERT_EQ(world.open_socket_count(), 1u);
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_FALSE(peer.is_started());
  EXPECT_FALSE(peer.is_sync_finished());
  EXPECT_EQ(world.open_socket_count(), 0u);
  EXPECT_TRUE(Domain(0)->samples().empty());
  EXPECT_EQ(Record("192.0.2.10"), NtpDomainResult());
  const size_t sent = network.requests(Address("192.0.2.10")).size();
  world.RunFor(S(60));
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(network.requests(Address("192.0.2.10")).size(), sent);
}

TEST_F(LifecycleTest, AnAttemptAfterAStopWorks) {
  network.AddServer(Address("192.0.2.10"), {});
  AddDomains({"192.0.2.10"});
  manager().Start();
  world.RunFor(Ms(55));
  manager().Stop();
  world.RunFor(S(5));
  Sync();
  EXPECT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
}

TEST_F(LifecycleTest, AStopBetweenTheRequestAndTheAttemptLetsItSendButNeverFinish) {
  network.AddServer(Address("192.0.2.10"), {});
  AddDomains({"192.0.2.10"});
  manager().AddObserver(observer);
  manager().Stop();
  manager().Start();
  world.RunFor(S(10));
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_FALSE(peer.is_sync_finished());
}

TEST_F(LifecycleTest, WithoutAQueueStopDoesNothing) {
  world.SetQueueAvailable(false);
  manager().Stop();
  world.SetQueueAvailable(true);
  world.RunFor(S(60));
  EXPECT_TRUE(world.posted().empty());
  EXPECT_TRUE(log.empty());
}

TEST_F(LifecycleTest, AStopAfterTheQueueHasGoneDoesNothing) {
  SyncWithAServer();
  manager().Stop();
  world.RunFor(S(60));
  const size_t posted = world.posted().size();
  const size_t stops = StopLines();
  world.SetQueueAvailable(false);
  manager().Stop();
  world.SetQueueAvailable(true);
  world.RunFor(S(60));
  EXPECT_EQ(world.posted().size(), posted);
  EXPECT_EQ(StopLines(), stops);
}

TEST_F(LifecycleTest, AStopBeforeThereIsAQueueDoesNotHinderALaterOne) {
  world.SetQueueAvailable(false);
  manager().Stop();
  world.SetQueueAvailable(true);
  EXPECT_TRUE(world.posted().empty());
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_EQ(StopLines(), 1u);
}

TEST_F(LifecycleTest, WithoutAQueueTheDelayedStopIsNotPosted) {
  world.SetQueueAvailable(false);
  peer.DelayStopNtpQueueIfNeeded();
  world.SetQueueAvailable(true);
  EXPECT_TRUE(world.posted().empty());
}

TEST_F(LifecycleTest, TheDelayedStopIsNotPostedWhileAnAttemptIsInFlight) {
  peer.is_sync_finished() = false;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.DelayStopNtpQueueIfNeeded(); });
  EXPECT_TRUE(world.posted().empty());
  peer.is_sync_finished() = true;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.DelayStopNtpQueueIfNeeded(); });
  ASSERT_EQ(world.posted().size(), 1u);
  EXPECT_EQ(world.posted()[0].delay_us, 30000000);
}

TEST_F(LifecycleTest, TheStopKeepsTheHandlerAndTheKeptResult) {
  SyncWithAServer();
  const NtpTimePacketHandler* const handler = peer.packet_handler().get();
  world.RunFor(S(31));
  EXPECT_EQ(peer.packet_handler().get(), handler);
  EXPECT_EQ(peer.ntp_offset_us(), 2500);
  EXPECT_EQ(peer.last_result(), NtpResult::kSuccess);
  EXPECT_EQ(world.open_socket_count(), 0u);
}

TEST_F(LifecycleTest, TheStatisticsLockIsHeldWhileTheQueueStops) {
  bool was_locked = false;
  base::SetLogSink([&](const base::LogLine& line) {
    if (line.text == "Stop ntp queue") {
      was_locked = IsStatisticsLockHeld();
    }
  });
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.StopNtpQueue(); });
  EXPECT_TRUE(was_locked);
}

TEST_F(LifecycleTest, TheCleaningIsDoneUnderTheStatisticsLock) {
  AddDomains({"192.0.2.10"});
  manager().Start();
  world.RunFor(Us(0));
  ASSERT_EQ(world.open_socket_count(), 1u);
  int closed = 0;
  world.SetSeamHook([&](sim::SeamCall call) {
    if (call == sim::SeamCall::kSocketClosed) {
      ++closed;
      EXPECT_TRUE(IsStatisticsLockHeld());
      EXPECT_FALSE(peer.is_started());
    }
  });
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.StopNtpQueue(); });
  world.SetSeamHook(nullptr);
  EXPECT_EQ(closed, 1);
}

TEST_F(LifecycleTest, AStopLetsANewStartInBeforeItWaitsForTheStatisticsLock) {
  peer.is_started() = true;
  std::thread stop;
  {
    const base::AutoLock lock(peer.stats_lock());
    stop = std::thread([&] { world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.StopNtpQueue(); }); });
    // The other thread cannot get past the lock. The limit is only reached where it would wait forever.
    for (int yields = 0; peer.is_started() && yields < 10'000'000; ++yields) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(peer.is_started());
  }
  stop.join();
}

// The lock must not be held while something is posted, also not the lookup of a name whose addresses expired.
TEST_F(LifecycleTest, AStopPostsNothingAndLooksNoNameUp) {
  world.SetHost("ntp.test", {{Address("192.0.2.1")}, 0, net::ResolveError::kNone, S(60)});
  AddDomains({"ntp.test"});
  world.RunFor(S(3600));
  ASSERT_EQ(world.pending_count(), 0u);
  manager().Stop();
  const size_t posted = world.posted().size();
  ASSERT_TRUE(world.RunOne());
  EXPECT_EQ(CountLog(0, "Stop ntp queue"), 2u);
  EXPECT_EQ(world.posted().size(), posted);
  EXPECT_EQ(world.pending_count(), 0u);
}

TEST_F(LifecycleTest, TheLineOfTheTasksNamesTheirSource) {
  manager().Start();
  ASSERT_EQ(world.posted().size(), 1u);
  EXPECT_STREQ(world.posted()[0].from.file(), "ntp/ntp_time_manager_impl");
  EXPECT_GT(world.posted()[0].from.line(), 0);
}

}  // namespace
}  // namespace skorra
