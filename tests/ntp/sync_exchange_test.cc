// SPDX-License-Identifier: Apache-2.0
// What the keeper of a clock needs of the manager: each sample with all that its exchange tells, whether a
// result was kept, when a stop is done, and an attempt whatever the kept result's age.
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ntp/ntp_attempt_control.h"
#include "ntp/ntp_sync_events.h"
#include "testing/manager_fixture.h"
#include "testing/samples.h"

namespace skorra {
namespace {

using ::testing::ElementsAre;

const std::string kName = "192.0.2.11";
const std::string kOtherName = "192.0.2.12";

class Recorder : public NtpSyncListener {
 public:
  void OnAttemptBegun() override { heard.push_back("begun"); }
  void OnSampleAccepted(const NtpSampleAccepted& event) override { samples.push_back(event); }
  void OnAttemptEnded(const NtpAttemptEnded& event) override {
    heard.push_back(NtpAttemptEndName(event.end));
    ends.push_back(event);
  }
  void OnQueueStopped() override {
    heard.push_back("queue stopped");
    if (on_queue_stopped) {
      on_queue_stopped();
    }
  }

  std::vector<std::string> heard;
  std::vector<NtpSampleAccepted> samples;
  std::vector<NtpAttemptEnded> ends;
  std::function<void()> on_queue_stopped;
};

class SyncExchangeTest : public ManagerTest {
 protected:
  SyncExchangeTest() { AddNtpSyncListener(recorder); }
  ~SyncExchangeTest() override { RemoveNtpSyncListener(recorder.get()); }

  bool IsRequested() { return internal::IsNtpAttemptRequested(manager()); }

  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

// --- The exchange.

TEST_F(SyncExchangeTest, AnAcceptedSampleCarriesAllThatItsExchangeTells) {
  constexpr int64_t kOutUs = 12000;
  constexpr int64_t kHomeUs = 8000;
  constexpr int64_t kWorkUs = 300;
  constexpr int64_t kAheadUs = 4000;
  network.AddServer(Address(kName), {.clock_error_us = kAheadUs,
                                     .processing_us = kWorkUs,
                                     .to_server = {.delay_us = kOutUs},
                                     .to_client = {.delay_us = kHomeUs},
                                     .script = [](netmodel::Exchange& exchange) {
                                       exchange.reply.leap_indicator = 2;
                                       exchange.reply.stratum = 1;
                                       exchange.reply.precision = -23;
                                       exchange.reply.root_delay = 0x10001;  // 1 s and 15.26 us
                                       exchange.reply.root_dispersion =
                                           0x8001;  // half of that second, and as much
                                       exchange.reply.reference_id = 0x47505300;
                                     }});
  AddDomains({kName});
  // The exchanges are measured against the offset that the clocks had when the manager was made.
  const int64_t offset_from_steady_us = world.wall_us() - world.steady_ticks_us();
  world.StepWall(S(7));
  const int64_t begin_us = world.steady_ticks_us() + offset_from_steady_us;
  const int64_t server_ahead_us = world.true_us() + kAheadUs - begin_us;
  Sync();
  ASSERT_GE(recorder->samples.size(), 6u);
  for (size_t i = 0; i < recorder->samples.size(); ++i) {
    SCOPED_TRACE(i);
    const int64_t send_us = begin_us + static_cast<int64_t>(i) * 10000;
    const NtpSampleAccepted& event = recorder->samples[i];
    NtpExchange expected;
    expected.sample = {server_ahead_us + (kOutUs - kHomeUs) / 2, kOutUs + kHomeUs};
    expected.send_local_us = send_us;
    expected.server_receive_us = send_us + kOutUs + server_ahead_us;
    expected.server_transmit_us = expected.server_receive_us + kWorkUs;
    expected.receive_local_us = send_us + kOutUs + kWorkUs + kHomeUs;
    expected.system_offset_from_steady_us = offset_from_steady_us;
    expected.root_delay_us = 1000016;
    expected.root_dispersion_us = 500016;
    expected.precision = -23;
    expected.stratum = 1;
    expected.leap_indicator = 2;
    expected.reference_id = 0x47505300;
    expected.send_stamp = NtpStampSource::kUser;
    expected.receive_stamp = NtpStampSource::kKernel;
    expected.server = Address(kName);
    expected.domain = kName;
    EXPECT_TRUE(event.exchange == expected) << event.exchange.send_local_us - send_us;
    EXPECT_EQ(event.sample, event.exchange.sample);
    EXPECT_EQ(event.server, event.exchange.server);
    EXPECT_EQ(event.domain, event.exchange.domain);
  }
}

TEST_F(SyncExchangeTest, EachExchangeHasTheDomainThatAsksItsServer) {
  world.SetHost("one.test", {{Address("192.0.2.21")}});
  BeginAttempt({"one.test", kOtherName});
  Receive(Address(kOtherName), {{5, 20000}});
  Receive(Address("192.0.2.99"), {{6, 20000}});
  Receive(Address("192.0.2.21"), {{7, 20000}});
  ASSERT_EQ(recorder->samples.size(), 2u) << "nobody asked the third server";
  EXPECT_EQ(recorder->samples[0].exchange.domain, kOtherName);
  EXPECT_EQ(recorder->samples[0].exchange.sample.offset_us, 5);
  EXPECT_EQ(recorder->samples[0].exchange.server, Address(kOtherName));
  EXPECT_EQ(recorder->samples[1].exchange.domain, "one.test");
  EXPECT_EQ(recorder->samples[1].exchange.sample.offset_us, 7);
}

// --- Whether a result was kept.

TEST_F(SyncExchangeTest, TheEndTellsWhetherItsRecordTookTheKeptResultsPlace) {
  constexpr NtpResult kNone = NtpResult::kNoResult;
  constexpr NtpResult kGood = NtpResult::kSuccess;
  constexpr NtpResult kPoor = NtpResult::kMaybeInaccurate;
  const struct {
    NtpResult now;
    NtpResult before;
    bool is_kept;
  } cases[] = {{kGood, kNone, true}, {kGood, kGood, true},  {kGood, kPoor, true},
               {kPoor, kNone, true}, {kPoor, kPoor, true},  {kPoor, kGood, false},
               {kNone, kNone, true}, {kNone, kGood, false}, {kNone, kPoor, false}};
  AddUnsynchronisedServer(kName);
  AddDomains({kName});
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << static_cast<int>(c.now) << " over " << static_cast<int>(c.before));
    world.RunFor(S(60));  // stops that were scheduled run
    peer.last_result() = c.before;
    peer.ntp_offset_us() = -11;
    recorder->ends.clear();
    ASSERT_EQ(internal::RequestNtpAttempt(manager()), 0);
    world.RunFor(Us(0));
    Receive(Address(kName), c.now == kGood ? GoodBurst(22) : c.now == kPoor ? PoorBurst(22) : Samples());
    world.RunFor(S(4));
    ASSERT_EQ(recorder->ends.size(), 1u);
    EXPECT_EQ(recorder->ends[0].end, NtpAttemptEnd::kOutcome);
    EXPECT_EQ(recorder->ends[0].record.result, c.now);
    EXPECT_EQ(recorder->ends[0].is_kept, c.is_kept);
    EXPECT_EQ(recorder->ends[0].is_kept, peer.ntp_offset_us() != -11);
  }
}

TEST_F(SyncExchangeTest, AnEndWithoutAnOutcomeKeepsNothing) {
  network.AddServer(Address(kName), {});
  AddDomains({kName});
  Sync();
  world.RunFor(S(60));
  ASSERT_EQ(internal::RequestNtpAttempt(manager()), 0);
  world.RunFor(Us(0));
  manager().Stop();
  world.RunFor(Us(0));
  ASSERT_EQ(recorder->ends.size(), 2u);
  EXPECT_TRUE(recorder->ends[0].is_kept);
  EXPECT_EQ(recorder->ends[1].end, NtpAttemptEnd::kStopped);
  EXPECT_FALSE(recorder->ends[1].is_kept);
}

// --- When a stop is done.

TEST_F(SyncExchangeTest, AStopOfAnIdleManagerIsReported) {
  manager().Stop();
  EXPECT_THAT(recorder->heard, ElementsAre()) << "it is a task";
  world.RunFor(Us(0));
  EXPECT_THAT(recorder->heard, ElementsAre("queue stopped"));
  manager().Stop();
  world.RunFor(S(60));
  EXPECT_THAT(recorder->heard, ElementsAre("queue stopped", "queue stopped"));
}

TEST_F(SyncExchangeTest, AStopOfARunningAttemptIsReportedAfterTheAttemptsEnd) {
  BeginAttempt({kName});
  world.RunFor(Ms(55));
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_THAT(recorder->heard, ElementsAre("begun", "stopped", "queue stopped"));
}

TEST_F(SyncExchangeTest, AStopOfAnAttemptThatHasNotBegunIsReportedAndTheNextOneEndsIt) {
  AddDomains({kName});
  manager().Stop();
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(Us(0));
  EXPECT_THAT(recorder->heard, ElementsAre("queue stopped", "begun"));
  world.RunFor(S(20));
  EXPECT_FALSE(IsRequested()) << "the stop took the request back";
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_THAT(recorder->heard, ElementsAre("queue stopped", "begun", "stopped", "queue stopped"));
}

TEST_F(SyncExchangeTest, TheStopAfterAnOutcomeIsReportedThirtySecondsLater) {
  network.AddServer(Address(kName), {});
  manager().UpdateNtpTimeDomain({kName});
  ASSERT_EQ(manager().Start(), 0);
  ASSERT_TRUE(world.RunUntil([&] { return !recorder->ends.empty(); }, S(60)));
  world.RunFor(S(30) - Us(1));
  EXPECT_THAT(recorder->heard, ElementsAre("begun", "outcome"));
  world.RunFor(Us(1));
  EXPECT_THAT(recorder->heard, ElementsAre("begun", "outcome", "queue stopped"));
}

TEST_F(SyncExchangeTest, TheStopAfterAnUpdateIsReportedThirtySecondsLater) {
  AddDomains({kName});
  world.RunFor(S(30) - Us(1));
  EXPECT_THAT(recorder->heard, ElementsAre());
  world.RunFor(Us(1));
  EXPECT_THAT(recorder->heard, ElementsAre("queue stopped"));
}

TEST_F(SyncExchangeTest, TheStopOfAnAttemptWithoutAServerIsReportedAfterItsEnd) {
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(S(60));
  EXPECT_THAT(recorder->heard, ElementsAre("begun", "no_server", "queue stopped"));
  EXPECT_FALSE(recorder->ends.at(0).is_kept);
  // It is over: a later stop ends nothing.
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_EQ(recorder->ends.size(), 1u);
}

TEST_F(SyncExchangeTest, WhenAStopIsReportedNothingIsRequestedAndNoDomainIsAsked) {
  recorder->on_queue_stopped = [&] {
    EXPECT_FALSE(IsRequested());
    EXPECT_FALSE(Record(kName).is_requesting);
    EXPECT_TRUE(Domain(0)->samples().empty());
  };
  BeginAttempt({kName});
  Receive(Address(kName), Good(2));
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_EQ(recorder->heard.back(), "queue stopped");
}

TEST_F(SyncExchangeTest, NoLockIsHeldWhenAStopIsReported) {
  bool is_lock_free = false;
  recorder->on_queue_stopped = [&] {
    std::thread([&] {
      base::Lock& lock = peer.stats_lock();
      if (lock.TryAcquire()) {
        is_lock_free = true;
        lock.Release();
      }
    }).join();
  };
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_TRUE(is_lock_free);
}

TEST_F(SyncExchangeTest, AStartInsideTheReportOfAStopHasAnOutcome) {
  network.AddServer(Address(kName), {});
  BeginAttempt({kName});
  world.RunFor(Ms(55));
  recorder->on_queue_stopped = [&] {
    recorder->on_queue_stopped = nullptr;
    EXPECT_EQ(manager().Start(), 0);
  };
  manager().Stop();
  world.RunFor(S(20));
  EXPECT_THAT(recorder->heard, ElementsAre("begun", "stopped", "queue stopped", "begun", "outcome"));
}

// --- An attempt whatever the kept result's age.

TEST_F(SyncExchangeTest, ARequestedAttemptAsksTheServersAlthoughTheKeptResultIsFresh) {
  network.AddServer(Address(kName), {.clock_error_us = 2500});
  AddDomains({kName});
  Sync();
  world.RunFor(S(60));
  ASSERT_EQ(manager().Start(), 0);
  EXPECT_FALSE(IsRequested()) << "only announced again";
  world.RunFor(S(60));
  recorder->heard.clear();
  const uint32_t start_count = peer.start_count();
  EXPECT_EQ(internal::RequestNtpAttempt(manager()), 0);
  EXPECT_TRUE(IsRequested());
  world.RunFor(S(20));
  EXPECT_THAT(recorder->heard, ElementsAre("begun", "outcome"));
  EXPECT_FALSE(IsRequested());
  EXPECT_EQ(peer.start_count(), start_count) << "no call of Start";
}

TEST_F(SyncExchangeTest, ASecondRequestIsRefusedAndChangesNothing) {
  ASSERT_EQ(manager().Start(), 0);
  const size_t posted = world.posted().size();
  EXPECT_TRUE(IsRequested());
  EXPECT_EQ(internal::RequestNtpAttempt(manager()), -1);
  EXPECT_TRUE(IsRequested());
  EXPECT_EQ(world.posted().size(), posted);
  EXPECT_TRUE(log.empty());
}

TEST_F(SyncExchangeTest, AStopTakesARequestBack) {
  BeginAttempt({kName});
  EXPECT_TRUE(IsRequested());
  manager().Stop();
  EXPECT_TRUE(IsRequested()) << "it is a task";
  world.RunFor(Us(0));
  EXPECT_FALSE(IsRequested());
}

}  // namespace
}  // namespace skorra
