// SPDX-License-Identifier: Apache-2.0
// What the listeners of a sync attempt hear, and that listening changes nothing.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ntp/ntp_sync_events.h"
#include "ntp/sync_reports.h"
#include "platform/metrics/key_metrics.h"
#include "testing/manager_fixture.h"

namespace skorra {
namespace {

const std::string kName = "192.0.2.11";

// Writes down every report: as a word in `heard`, and as itself.
class Recorder : public NtpSyncListener {
 public:
  void OnDomainsUpdated(const NtpDomainsUpdated& event) override {
    heard.push_back("domains");
    updates.push_back(event);
    if (on_domains) {
      on_domains();
    }
  }
  void OnAttemptBegun() override { heard.push_back("begun"); }
  void OnBurstBegun(const NtpBurstBegun& event) override {
    heard.push_back("burst " + event.domain + " " + event.server.ToString());
  }
  void OnSampleAccepted(const NtpSampleAccepted& event) override {
    if (heard.empty() || heard.back() != "samples " + event.domain) {
      heard.push_back("samples " + event.domain);
    }
    samples.push_back(event);
  }
  void OnReplyRejected(const NtpReplyRejected& event) override {
    ++rejections[event.counter];
    rejecting.push_back(event.server);
  }
  void OnDomainEvaluated(const NtpDomainEvaluated& event) override {
    heard.push_back("evaluated " + event.domain);
    evaluations.push_back(event);
  }
  void OnAttemptEnded(const NtpAttemptEnded& event) override {
    heard.push_back(std::string("ended ") + NtpAttemptEndName(event.end));
    ends.push_back(event);
  }

  std::vector<std::string> heard;
  std::vector<NtpDomainsUpdated> updates;
  std::vector<NtpSampleAccepted> samples;
  std::map<std::string, uint64_t> rejections;
  std::vector<net::IPEndPoint> rejecting;
  std::vector<NtpDomainEvaluated> evaluations;
  std::vector<NtpAttemptEnded> ends;
  std::function<void()> on_domains;
};

class SyncEventsTest : public ManagerTest {
 protected:
  SyncEventsTest() { AddNtpSyncListener(recorder); }
  ~SyncEventsTest() override { RemoveNtpSyncListener(recorder.get()); }

  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_F(SyncEventsTest, ASuccessIsReportedStepByStep) {
  network.AddServer(Address(kName), {.clock_error_us = 4000});
  AddDomains({kName});
  Sync();
  EXPECT_THAT(recorder->heard,
              ::testing::ElementsAre("domains", "begun", "burst " + kName + " 192.0.2.11:123",
                                     "samples " + kName, "evaluated " + kName, "ended outcome"));
  ASSERT_EQ(recorder->ends.size(), 1u);
  const NtpAttemptEnded& end = recorder->ends[0];
  EXPECT_EQ(end.result, NtpResult::kSuccess);
  EXPECT_EQ(end.domain, kName);
  EXPECT_EQ(end.record.offset_us, peer.ntp_offset_us());
  EXPECT_EQ(end.record.sample_count, recorder->evaluations.at(0).kept_count);
  EXPECT_EQ(end.record.last_request_cost_ms, peer.last_request_cost_ms());
  EXPECT_GT(end.record.cost_ms, 0u);
  EXPECT_EQ(end.record.endpoint, observer->outcomes.at(0).server);
}

TEST_F(SyncEventsTest, TheEndIsReportedAfterTheObserversHaveHeardOfIt) {
  network.AddServer(Address(kName), {});
  AddDomains({kName});
  observer->on_outcome = [&] { EXPECT_TRUE(recorder->ends.empty()); };
  Sync();
  EXPECT_EQ(recorder->ends.size(), 1u);
}

TEST_F(SyncEventsTest, EverySampleThatIsFiledIsReported) {
  BeginAttempt({kName, "192.0.2.12"});
  Receive(Address("192.0.2.12"), {{5, 20000}, {6, 21000}});
  Receive(Address("192.0.2.99"), {{7, 20000}});
  ASSERT_EQ(recorder->samples.size(), 2u) << "nobody asked the third server";
  EXPECT_EQ(recorder->samples[1].domain, "192.0.2.12");
  EXPECT_EQ(recorder->samples[1].server, Address("192.0.2.12"));
  EXPECT_EQ(recorder->samples[1].sample.offset_us, 6);
  EXPECT_EQ(recorder->samples[1].sample.rtt_us, 21000);
}

TEST_F(SyncEventsTest, ARejectedReplyIsReportedUnderItsCounter) {
  AddUnsynchronisedServer(kName);
  AddDomains({kName});
  const auto before = base::KeyMetrics::GetAllCounts();
  Sync();
  ASSERT_FALSE(recorder->rejections.empty());
  for (const auto& [counter, count] : recorder->rejections) {
    SCOPED_TRACE(counter);
    EXPECT_TRUE(counter.starts_with("ntp.rejected."));
    const auto old = before.find(counter);
    EXPECT_EQ(base::KeyMetrics::GetCount(counter) - (old == before.end() ? 0 : old->second), count);
  }
  EXPECT_THAT(recorder->rejecting, ::testing::Each(Address(kName)));
  EXPECT_TRUE(recorder->samples.empty());
}

TEST_F(SyncEventsTest, AKissCodeIsReportedUnderItsCounter) {
  network.AddServer(Address(kName), {.kiss_code = "DENY"});
  AddDomains({kName});
  const auto counts = [] {
    uint64_t sum = 0;
    for (const auto& [name, count] : base::KeyMetrics::GetAllCounts()) {
      sum += name.starts_with("ntp.kiss.") ? count : 0;
    }
    return sum;
  };
  const uint64_t before = counts();
  Sync();
  uint64_t reported = 0;
  for (const auto& [counter, count] : recorder->rejections) {
    EXPECT_TRUE(counter.starts_with("ntp.kiss.")) << counter;
    reported += count;
  }
  EXPECT_GT(reported, 0u);
  EXPECT_EQ(reported, counts() - before);
}

TEST_F(SyncEventsTest, AnEvaluationShowsWhichSamplesWereTrimmedOff) {
  BeginAttempt({kName});
  Receive(Address(kName),
          {{50, 1000}, {-9000000, 2000}, {20, 3000}, {9000000, 4000}, {30, 5000}, {40, 6000}});
  world.RunFor(Ms(200));
  ASSERT_EQ(recorder->evaluations.size(), 1u);
  const NtpDomainEvaluated& event = recorder->evaluations[0];
  EXPECT_EQ(event.domain, kName);
  EXPECT_EQ(event.record.result, NtpResult::kSuccess);
  EXPECT_EQ(event.record.offset_us, 35);
  EXPECT_EQ(event.record.sample_count, 4u);
  ASSERT_EQ(event.samples.size(), 6u);
  EXPECT_EQ(event.samples.front().offset_us, -9000000);
  EXPECT_EQ(event.samples.back().offset_us, 9000000);
  EXPECT_EQ(event.first_kept, 1u);
  EXPECT_EQ(event.kept_count, 4u);
}

TEST_F(SyncEventsTest, TooFewSamplesAreReportedAsTheyCameWithNoneKept) {
  BeginAttempt({kName});
  Receive(Address(kName), {{9, 1000}, {3, 1000}});
  world.RunFor(S(3));
  ASSERT_EQ(recorder->evaluations.size(), 1u);
  const NtpDomainEvaluated& event = recorder->evaluations[0];
  EXPECT_EQ(event.record.result, NtpResult::kNoResult);
  ASSERT_EQ(event.samples.size(), 2u);
  EXPECT_EQ(event.samples[0].offset_us, 9);
  EXPECT_EQ(event.kept_count, 0u);
}

TEST_F(SyncEventsTest, ThreeSamplesAreJudgedAndAllKept) {
  BeginAttempt({kName});
  Receive(Address(kName), {{9, 1000}, {3, 1000}, {6, 1000}});
  world.RunFor(S(3));
  ASSERT_EQ(recorder->evaluations.size(), 1u);
  EXPECT_EQ(recorder->evaluations[0].samples.front().offset_us, 3);
  EXPECT_EQ(recorder->evaluations[0].first_kept, 0u);
  EXPECT_EQ(recorder->evaluations[0].kept_count, 3u);
}

TEST_F(SyncEventsTest, EveryKindOfEndHasItsName) {
  EXPECT_STREQ(NtpAttemptEndName(NtpAttemptEnd::kOutcome), "outcome");
  EXPECT_STREQ(NtpAttemptEndName(NtpAttemptEnd::kNoServer), "no_server");
  EXPECT_STREQ(NtpAttemptEndName(NtpAttemptEnd::kStopped), "stopped");
  EXPECT_STREQ(NtpAttemptEndName(static_cast<NtpAttemptEnd>(3)), "unknown");
}

TEST_F(SyncEventsTest, ARetryIsABurstOfItsOwn) {
  world.SetHost("two.test", {{Address("192.0.2.21"), Address("192.0.2.22")}});
  BeginAttempt({"two.test"});
  world.RunFor(S(3));
  EXPECT_THAT(recorder->heard, ::testing::ElementsAre("domains", "begun", "burst two.test 192.0.2.21:123",
                                                      "evaluated two.test", "burst two.test 192.0.2.22:123"));
}

TEST_F(SyncEventsTest, AnAttemptWithoutASuccessEndsWithTheCodeThatObserversHear) {
  BeginAttempt({kName});
  // The four that are kept scatter by 100 ms.
  Receive(Address(kName), {{-100000, 1}, {-100000, 1}, {7, 1}, {9, 1}, {100000, 1}, {100000, 1}});
  world.RunFor(S(3));
  ASSERT_EQ(recorder->ends.size(), 1u);
  EXPECT_EQ(recorder->ends[0].end, NtpAttemptEnd::kOutcome);
  EXPECT_EQ(recorder->ends[0].result, NtpResult::kMaybeInaccurate);
  EXPECT_EQ(recorder->ends[0].result, observer->outcomes.at(0).result);
  EXPECT_EQ(recorder->ends[0].domain, kName);
  EXPECT_EQ(recorder->ends[0].record.offset_us, 4);
  EXPECT_EQ(recorder->ends[0].record.sample_count, 4u);
}

TEST_F(SyncEventsTest, AFailureWithoutAnySampleEndsWithoutAResult) {
  AddUnsynchronisedServer(kName);
  AddDomains({kName});
  Sync();
  ASSERT_EQ(recorder->ends.size(), 1u);
  EXPECT_EQ(recorder->ends[0].end, NtpAttemptEnd::kOutcome);
  EXPECT_EQ(recorder->ends[0].result, NtpResult::kNoResult);
  EXPECT_EQ(recorder->ends[0].record.sample_count, 0u);
}

TEST_F(SyncEventsTest, AnAttemptWithoutAnyServerHasNoOutcomeAndIsReportedAsNoServer) {
  manager().AddObserver(observer);
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(S(60));
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_THAT(recorder->heard, ::testing::ElementsAre("begun", "ended no_server"));
  EXPECT_EQ(recorder->ends[0].end, NtpAttemptEnd::kNoServer);
  EXPECT_EQ(recorder->ends[0].result, NtpResult::kNoResult);
}

TEST_F(SyncEventsTest, AnAttemptThatAStopCutsOffHasNoOutcomeAndIsReportedAsStopped) {
  network.AddServer(Address(kName), {});
  BeginAttempt({kName});
  world.RunFor(Ms(55));
  manager().Stop();
  world.RunFor(S(60));
  EXPECT_TRUE(observer->outcomes.empty());
  ASSERT_EQ(recorder->ends.size(), 1u);
  EXPECT_EQ(recorder->ends[0].end, NtpAttemptEnd::kStopped);
  EXPECT_EQ(recorder->ends[0].result, NtpResult::kNoResult);
}

TEST_F(SyncEventsTest, AStopReportsTheEndOfARunningAttemptOnlyOnce) {
  BeginAttempt({kName});
  manager().Stop();
  manager().Stop();
  world.RunFor(S(60));
  EXPECT_THAT(recorder->heard, ::testing::ElementsAre("domains", "begun",
                                                      "burst " + kName + " 192.0.2.11:123", "ended stopped"));
}

TEST_F(SyncEventsTest, TheStopAfterAnOutcomeReportsNoSecondEnd) {
  network.AddServer(Address(kName), {});
  AddDomains({kName});
  Sync();
  world.RunFor(S(60));
  EXPECT_EQ(CountLog(0, "Stop ntp queue"), 2u) << "one after the update, one after the outcome";
  EXPECT_EQ(recorder->ends.size(), 1u);
}

TEST_F(SyncEventsTest, NamesAreReportedAsAddedOrWithoutAnAddress) {
  AddDomains({kName, "nowhere.test", kName, "a:b:c"});
  ASSERT_EQ(recorder->updates.size(), 1u);
  EXPECT_THAT(recorder->updates[0].added, ::testing::ElementsAre(kName));
  const auto& without = recorder->updates[0].without_address;
  ASSERT_EQ(without.size(), 2u);
  EXPECT_EQ(without[0].name, "nowhere.test");
  EXPECT_EQ(without[0].reason, "not_found");
  EXPECT_FALSE(without[0].detail.empty());
  EXPECT_EQ(without[1].name, "a:b:c");
  EXPECT_EQ(without[1].reason, "bad_name");
  EXPECT_FALSE(without[1].detail.empty());
}

TEST_F(SyncEventsTest, AStartInsideAReportTakesEffect) {
  recorder->on_domains = [&] { EXPECT_EQ(manager().Start(), 0); };
  network.AddServer(Address(kName), {});
  manager().UpdateNtpTimeDomain({kName});
  world.RunFor(S(60));
  ASSERT_EQ(recorder->ends.size(), 1u);
  EXPECT_EQ(recorder->ends[0].end, NtpAttemptEnd::kOutcome);
  EXPECT_EQ(CountLog(0, "Stop ntp queue"), 1u) << "no stop was scheduled before the outcome";
}

// --- Listeners.

TEST_F(SyncEventsTest, AListenerIsAddedOnceAndNullIsIgnored) {
  AddNtpSyncListener(recorder);
  AddNtpSyncListener(nullptr);
  AddDomains({kName});
  EXPECT_EQ(recorder->heard.size(), 1u);
}

TEST_F(SyncEventsTest, EachListenerHearsUntilItIsRemoved) {
  const auto second = std::make_shared<Recorder>();
  AddNtpSyncListener(second);
  AddDomains({kName});
  RemoveNtpSyncListener(second.get());
  AddDomains({"192.0.2.12"});
  EXPECT_EQ(second->heard.size(), 1u);
  EXPECT_EQ(recorder->heard.size(), 2u);
  EXPECT_EQ(second.use_count(), 1) << "the library has let go";
}

TEST_F(SyncEventsTest, NobodyListensOnceTheLastListenerIsRemoved) {
  EXPECT_TRUE(HasSyncListeners());
  RemoveNtpSyncListener(recorder.get());
  EXPECT_FALSE(HasSyncListeners());
}

TEST_F(SyncEventsTest, AListenerMayRemoveListenersInItsDestructor) {
  class Leaving : public NtpSyncListener {
   public:
    ~Leaving() override { RemoveNtpSyncListener(this); }
  };
  auto leaving = std::make_shared<Leaving>();
  const NtpSyncListener* const listener = leaving.get();
  AddNtpSyncListener(std::move(leaving));
  RemoveNtpSyncListener(listener);
  EXPECT_EQ(internal::GetSyncListeners().size(), 1u);
}

TEST_F(SyncEventsTest, AListenerRemovedByAnotherMayHearTheReportThatHasBegun) {
  auto second = std::make_shared<Recorder>();
  AddNtpSyncListener(second);
  recorder->on_domains = [&] { RemoveNtpSyncListener(second.get()); };
  AddDomains({kName});
  AddDomains({"192.0.2.12"});
  EXPECT_EQ(second->heard.size(), 1u) << "only the report during which it was removed";
  EXPECT_EQ(second.use_count(), 1) << "the library has let go";
}

TEST_F(SyncEventsTest, AListenerThatRemovesItselfLivesUntilItsReportReturns) {
  auto second = std::make_shared<Recorder>();
  const std::weak_ptr<Recorder> watched = second;
  second->on_domains = [&, listener = second.get()] {
    RemoveNtpSyncListener(listener);
    EXPECT_FALSE(watched.expired());
  };
  AddNtpSyncListener(second);
  second = nullptr;
  AddDomains({kName});
  EXPECT_TRUE(watched.expired());
}

// --- Listening changes nothing.

// One attempt that succeeds, one that a stop cuts off, and what the manager asked of its surroundings.
struct Course {
  std::vector<std::string> log;
  std::vector<sim::SeamCall> seam_calls;  // every clock reading among them
  std::vector<int64_t> tasks;             // when each is due, from the beginning
  int64_t offset_us = 0;
};

Course RunCourse(const std::shared_ptr<NtpSyncListener>& listener) {
  Course course;
  sim::World world;
  sim::Network network(world);
  NtpAddressLedger::GetInstance()->Clear();
  AddNtpSyncListener(listener);
  const LogSinkScope log_sink(
      [&](const base::LogLine& line) { course.log.push_back(base::FormatLogLine(line)); },
      base::kLogProgress);
  world.SetSeamHook([&](sim::SeamCall call) { course.seam_calls.push_back(call); });
  const auto server = Address(kName);
  const auto liar = Address("192.0.2.12");
  network.AddServer(server, {.clock_error_us = 700});
  network.AddServer(liar, {.leap_indicator = kNtpLeapUnsynchronized});
  {
    NtpTimeManagerPeer peer;
    peer.manager().UpdateNtpTimeDomain({"192.0.2.12", kName, "nowhere.test"});
    peer.manager().Start();
    world.RunFor(base::TimeDelta::FromSeconds(700));
    course.offset_us = peer.ntp_offset_us();
    peer.manager().Start();
    world.RunFor(base::TimeDelta::FromMilliseconds(1));
    peer.manager().Stop();
    world.RunFor(base::TimeDelta::FromSeconds(60));
  }
  world.SetSeamHook(nullptr);
  RemoveNtpSyncListener(listener.get());
  for (const sim::PostedTask& task : world.posted()) {
    course.tasks.push_back(task.posted_ticks_us - world.begin_ticks_us() + task.delay_us);
  }
  return course;
}

TEST(SyncEventsCourseTest, ListeningAddsNoClockReadingNoTaskAndNoLogLine) {
  const auto listener = std::make_shared<Recorder>();
  const Course heard = RunCourse(listener);
  const Course alone = RunCourse(nullptr);
  EXPECT_EQ(listener->ends.size(), 2u);
  EXPECT_FALSE(listener->rejections.empty());
  EXPECT_EQ(alone.offset_us, 700);
  EXPECT_EQ(heard.log, alone.log);
  EXPECT_EQ(heard.seam_calls, alone.seam_calls);
  EXPECT_EQ(heard.tasks, alone.tasks);
  EXPECT_EQ(heard.offset_us, alone.offset_us);
}

}  // namespace
}  // namespace skorra
