// SPDX-License-Identifier: Apache-2.0

// One sync attempt: its beginning, its bursts, its retries and its end.
#include "platform/metrics/key_metrics.h"
#include "testing/manager_fixture.h"
#include "testing/noted_calls.h"

namespace skorra {
namespace {

class SyncAttemptTest : public ManagerTest {
 protected:
  SyncAttemptTest() {
    world.SetHost("a.test", {{Address("192.0.2.1")}});
    world.SetHost("b.test", {{Address("192.0.2.2")}});
    world.SetHost("two.test", {{Address("192.0.2.8"), Address("192.0.2.9")}});
  }

  static constexpr int64_t kBurst = 20;

  // Replies whose offsets scatter by 40 ms: usable, but not reliable.
  static netmodel::ServerOptions Scattered() {
    return {.script = [](netmodel::Exchange& e) { e.clock_error_us = e.index % 2 == 0 ? 40000 : -40000; }};
  }

  // When requests reached the network at `address`, in microseconds after `start_us`.
  std::vector<int64_t> SentAt(const std::string& address, int64_t start_us) {
    std::vector<int64_t> times;
    for (const sim::SentDatagram& sent : network.requests(Address(address))) {
      times.push_back(sent.sent_ticks_us - start_us);
    }
    return times;
  }

  std::vector<int64_t> BurstFrom(int64_t first_us) {
    std::vector<int64_t> times;
    for (int64_t k = 0; k < kBurst; ++k) {
      times.push_back(first_us + k * 10000);
    }
    return times;
  }
};

TEST_F(SyncAttemptTest, WithoutAnyUsableServerTheQueueStopsAndNobodyIsTold) {
  SetDefaultDomain("nowhere.test");
  manager().AddObserver(observer);
  manager().Start();
  world.RunFor(S(60));
  EXPECT_EQ(log, (std::vector<Line>{{0, "Start NTP time sync"},
                                    {1, "NTP time sync failed: no correct NTP server"},
                                    {0, "Stop ntp queue"}}));
  EXPECT_FALSE(peer.is_started());
  EXPECT_TRUE(peer.is_sync_finished());
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(CountPosted(Ms(10)), 0u);
  EXPECT_TRUE(peer.domain_infos().empty());
}

TEST_F(SyncAttemptTest, WithoutAnyDomainAtAllTheQueueStops) {
  manager().Start();
  world.RunFor(Us(0));
  EXPECT_EQ(CountLog(1, "NTP time sync failed: no correct NTP server"), 1u);
}

TEST_F(SyncAttemptTest, NoDefaultDomainIsNoBadName) {
  const auto before = base::KeyMetrics::GetAllCounts();
  manager().Start();
  world.RunFor(Us(0));
  EXPECT_EQ(log, (std::vector<Line>{{0, "Start NTP time sync"},
                                    {1, "NTP time sync failed: no correct NTP server"},
                                    {0, "Stop ntp queue"}}));
  EXPECT_EQ(base::KeyMetrics::GetAllCounts(), before);
  // An empty name that a user gives is one.
  AddDomains({""});
  EXPECT_EQ(base::KeyMetrics::GetCount("ntp.domain.bad_name"),
            before.contains("ntp.domain.bad_name") ? before.at("ntp.domain.bad_name") + 1 : 1);
}

TEST_F(SyncAttemptTest, AnEmptyListFallsBackToTheDefaultDomainWithoutAnAddLine) {
  SetDefaultDomain("a.test");
  network.AddServer(Address("192.0.2.1"), {.clock_error_us = 777});
  Sync();
  EXPECT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
  ASSERT_EQ(peer.domain_infos().size(), 1u);
  EXPECT_EQ(Domain(0)->domain(), "a.test");
  EXPECT_EQ(Record("a.test"), NtpDomainResult());
  EXPECT_TRUE(LogLinesWith("Add ntp service:").empty());
}

TEST_F(SyncAttemptTest, TheDefaultDomainGetsAFreshRecordEvenWhereAnOldOneStands) {
  SetDefaultDomain("a.test");
  NtpDomainResult& old = peer.domain_results()["a.test"];
  old.offset_us = 5;
  old.result = NtpResult::kSuccess;
  old.is_requesting = true;
  manager().Start();
  world.RunFor(Us(0));
  EXPECT_EQ(CountLog(0, "Start request: a.test"), 1u);
  EXPECT_EQ(Record("a.test").result, NtpResult::kNoResult);
  EXPECT_EQ(Record("a.test").offset_us, kNoOffsetUs);
}

TEST_F(SyncAttemptTest, TheDefaultDomainIsAskedForASecondTimeAndThatNameIsTheKeyOfItsRecord) {
  SetDefaultDomain("a.test");
  NotedCalls noted;
  noted.on_call = [&](const std::string& call) {
    EXPECT_EQ(call, "default domain");
    SetDefaultDomain(noted.calls.size() == 1 ? "a.test" : "b.test");
  };
  manager().Start();
  world.RunFor(Us(0));
  EXPECT_EQ(noted.calls.size(), 2u);
  ASSERT_EQ(peer.domain_infos().size(), 1u);
  EXPECT_EQ(Domain(0)->domain(), "a.test");
  ASSERT_EQ(peer.domain_results().size(), 1u);
  EXPECT_EQ(peer.domain_results().count("b.test"), 1u);
  EXPECT_EQ(CountLog(1, "Not query domain:a.test"), 1u);
}

TEST_F(SyncAttemptTest, AListThatIsNotEmptyIsUsedWithoutTheDefaultDomain) {
  SetDefaultDomain("a.test");
  AddDomains({"b.test"});
  manager().Start();
  world.RunFor(Us(0));
  ASSERT_EQ(peer.domain_infos().size(), 1u);
  EXPECT_EQ(Domain(0)->domain(), "b.test");
}

TEST_F(SyncAttemptTest, ABurstIsTwentyRequestsTenMillisecondsApartAndOneDirectCheck) {
  AddDomains({"a.test"});
  manager().Start();
  const size_t before = world.posted().size();
  const int64_t start_us = world.steady_ticks_us();
  world.RunFor(Us(0));
  for (int64_t k = 0; k < kBurst; ++k) {
    EXPECT_EQ(world.posted()[before + static_cast<size_t>(k)].delay_us, k * 10000);
  }
  // The check ran at once: all that it left behind is its next run.
  EXPECT_EQ(world.posted().size(), before + 21);
  EXPECT_EQ(world.posted().back().delay_us, 200000);
  world.RunFor(S(2));
  EXPECT_EQ(SentAt("192.0.2.1", start_us), BurstFrom(0));
}

TEST_F(SyncAttemptTest, TheFewestRequestsPerBurstThatCanBeConfiguredAreEnoughForAResult) {
  const config::NumberEntry& entry = config::BaseCfg().ntp_requests_per_burst;
  EXPECT_EQ(config.Set(entry, entry.min), "");
  EXPECT_NE(config.Set(entry, entry.min - 1), "");
  network.AddServer(Address("192.0.2.1"), {.clock_error_us = 777});
  AddDomains({"a.test"});
  Sync();
  EXPECT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
  EXPECT_EQ(network.requests(Address("192.0.2.1")).size(), 3u);
}

TEST_F(SyncAttemptTest, ADomainThatIsAlreadyRequestingIsNotStartedAgain) {
  AddDomains({"a.test"});
  manager().Start();
  world.RunFor(Us(0));
  ASSERT_TRUE(Record("a.test").is_requesting);
  const size_t before = world.posted().size();
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.StartRequest(); });
  EXPECT_EQ(CountLog(0, "Start request: a.test"), 1u);
  EXPECT_EQ(world.posted().size(), before);
}

TEST_F(SyncAttemptTest, AllIdleDomainsStartInListOrderInTheSameTask) {
  AddDomains({"b.test", "a.test"});
  manager().Start();
  world.RunFor(Us(0));
  EXPECT_EQ(LogLinesWith("Start"),
            (std::vector<Line>{
                {0, "Start NTP time sync"}, {0, "Start request: b.test"}, {0, "Start request: a.test"}}));
  const int64_t now_us = world.wall_us();
  for (const char* name : {"a.test", "b.test"}) {
    EXPECT_TRUE(Record(name).is_requesting);
    EXPECT_EQ(Record(name).request_start_time_us, now_us);
    EXPECT_EQ(Record(name).last_request_start_time_us, now_us);
  }
  EXPECT_FALSE(peer.is_sync_finished());
}

TEST_F(SyncAttemptTest, ADomainWithoutARecordIsNotStarted) {
  AddDomains({"a.test"});
  peer.domain_results().clear();
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.StartRequest(); });
  EXPECT_EQ(CountLog(1, "Not query domain:a.test"), 1u);
  EXPECT_TRUE(LogLinesWith("Start request").empty());
}

TEST_F(SyncAttemptTest, ADomainWithoutAnAddressSendsNothingAndIsNeverChecked) {
  peer.domain_infos().push_back(std::make_shared<NtpTimeDomainInfo>("nowhere.test"));
  peer.domain_results()["nowhere.test"] = NtpDomainResult();
  manager().AddObserver(observer);
  manager().Start();
  const size_t before = world.posted().size();
  world.RunFor(S(60));
  EXPECT_EQ(world.posted().size(), before);
  EXPECT_TRUE(Record("nowhere.test").is_requesting);
  EXPECT_EQ(Record("nowhere.test").last_request_start_time_us, 0);
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(manager().Start(), -1);
}

TEST_F(SyncAttemptTest, AMissingRecordDoesNotStopABurst) {
  AddDomains({"a.test"});
  manager().Start();
  world.RunFor(Us(0));
  peer.domain_results().clear();
  const size_t before = world.posted().size();
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.SendPacketToServer(Domain(0)); });
  EXPECT_EQ(world.posted().size(), before + 21);
}

TEST_F(SyncAttemptTest, ADomainWithAnInaccurateResultIsNeverRetried) {
  AddDomains({"two.test"});
  network.AddServer(Address("192.0.2.8"), Scattered());
  network.AddServer(Address("192.0.2.9"), {});
  Sync();
  EXPECT_EQ(observer->outcomes.back().result, NtpResult::kMaybeInaccurate);
  EXPECT_TRUE(network.requests(Address("192.0.2.9")).empty());
}

TEST_F(SyncAttemptTest, ADomainWithoutAResultIsRetriedWithAFreshBurstAndAFreshTimeLimit) {
  AddDomains({"two.test"});
  network.AddServer(Address("192.0.2.9"), {});
  manager().AddObserver(observer);
  const int64_t start_us = world.steady_ticks_us();
  manager().Start();
  world.RunFor(Ms(3100));
  // Checks run every 200 ms; the one at 3.0 s finds the time up.
  EXPECT_EQ(SentAt("192.0.2.8", start_us), BurstFrom(0));
  EXPECT_EQ(peer.total_retry_count(), 1u);
  EXPECT_EQ(Record("two.test").last_request_start_time_us - Record("two.test").request_start_time_us,
            3000000);
  world.RunFor(Ms(150));
  EXPECT_EQ(SentAt("192.0.2.9", start_us), BurstFrom(3000000));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(observer->outcomes[0].server, Address("192.0.2.9"));
}

TEST_F(SyncAttemptTest, RetriesEndWhenNoAddressIsLeft) {
  AddDomains({"two.test"});
  manager().AddObserver(observer);
  const int64_t start_us = world.steady_ticks_us();
  manager().Start();
  ASSERT_TRUE(world.RunUntil([&] { return !observer->outcomes.empty(); }, S(60)));
  EXPECT_EQ(world.steady_ticks_us() - start_us, 6000000);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kNoResult);
  EXPECT_EQ(network.requests(Address("192.0.2.8")).size(), 20u);
  EXPECT_EQ(network.requests(Address("192.0.2.9")).size(), 20u);
  EXPECT_EQ(peer.total_retry_count(), 0u);  // reset with the end of the attempt
}

TEST_F(SyncAttemptTest, AnOnlyAddressFromWhichNothingCameBackIsAskedOnceMore) {
  AddDomains({"a.test"});
  manager().AddObserver(observer);
  const int64_t start_us = world.steady_ticks_us();
  manager().Start();
  world.RunFor(Us(2999999));
  EXPECT_EQ(peer.total_retry_count(), 0u);
  EXPECT_EQ(SentAt("192.0.2.1", start_us), BurstFrom(0));
  world.RunFor(Us(1));
  EXPECT_EQ(peer.total_retry_count(), 1u);
  EXPECT_EQ(Record("a.test").last_request_start_time_us - Record("a.test").request_start_time_us, 3000000);
  world.RunFor(Us(2999999));
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(peer.total_retry_count(), 1u);
  world.RunFor(Us(1));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kNoResult);
  world.RunFor(S(60));
  auto both = BurstFrom(0);
  const auto second = BurstFrom(3000000);
  both.insert(both.end(), second.begin(), second.end());
  EXPECT_EQ(SentAt("192.0.2.1", start_us), both);
}

TEST_F(SyncAttemptTest, TheSecondBurstToAnOnlyAddressMaySucceed) {
  AddDomains({"a.test"});
  network.AddServer(Address("192.0.2.1"),
                    {.script = [](netmodel::Exchange& e) { e.is_answered = e.index >= 20; }});
  manager().AddObserver(observer);
  manager().Start();
  world.RunFor(Ms(3199));
  EXPECT_TRUE(observer->outcomes.empty());
  world.RunFor(Ms(1));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
}

TEST_F(SyncAttemptTest, AnOnlyAddressFromWhichAnythingCameBackIsNotAskedAgain) {
  AddDomains({"a.test"});
  // One reply in twenty, and that one useless: the server is there.
  network.AddServer(Address("192.0.2.1"),
                    {.leap_indicator = kNtpLeapUnsynchronized,
                     .script = [](netmodel::Exchange& e) { e.is_answered = e.index == 19; }});
  manager().AddObserver(observer);
  const int64_t start_us = world.steady_ticks_us();
  manager().Start();
  ASSERT_TRUE(world.RunUntil([&] { return !observer->outcomes.empty(); }, S(60)));
  EXPECT_EQ(world.steady_ticks_us() - start_us, 3000000);
  world.RunFor(S(60));
  EXPECT_EQ(SentAt("192.0.2.1", start_us), BurstFrom(0));
}

TEST_F(SyncAttemptTest, TheNextAttemptMayRepeatAnOnlyAddressAgain) {
  AddDomains({"a.test"});
  Sync();
  Sync();
  EXPECT_EQ(network.requests(Address("192.0.2.1")).size(), 80u);
}

TEST_F(SyncAttemptTest, AFailedDomainWaitsForTheOthersAndTheLastOneEndsTheAttempt) {
  AddDomains({"a.test", "two.test"});
  AddUnsynchronisedServer("192.0.2.1");
  manager().AddObserver(observer);
  manager().Start();
  world.RunFor(Ms(3500));
  EXPECT_EQ(CountLog(0, "a.test request not success [-1] and waiting other domain, total retry count: 0"),
            1u);
  EXPECT_FALSE(Record("a.test").is_requesting);
  EXPECT_TRUE(Record("two.test").is_requesting);
  EXPECT_TRUE(observer->outcomes.empty());
  world.RunFor(Ms(3000));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kNoResult);
  EXPECT_EQ(LogLinesWith("two.test request not success").size(), 0u);
}

TEST_F(SyncAttemptTest, TheWaitingLineNamesTheCodeAndTheRetriesOfAllDomains) {
  AddDomains({"two.test", "a.test"});
  network.AddServer(Address("192.0.2.9"), Scattered());
  manager().AddObserver(observer);
  manager().Start();
  // At 3 s two.test moves on to its second address, and a.test asks its only one again.
  world.RunFor(Ms(3350));
  EXPECT_EQ(CountLog(0, "two.test request not success [1] and waiting other domain, total retry count: 2"),
            1u);
}

TEST_F(SyncAttemptTest, TheFirstSuccessEndsTheAttemptWhateverTheOthersDo) {
  AddDomains({"a.test", "b.test"});
  network.AddServer(Address("192.0.2.2"), {});
  manager().AddObserver(observer);
  manager().Start();
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].server, Address("192.0.2.2"));
  world.RunFor(S(25));
  EXPECT_EQ(observer->outcomes.size(), 1u);
  EXPECT_FALSE(Record("a.test").is_requesting);
}

TEST_F(SyncAttemptTest, AStoppedManagerRetriesFinishesAndCountsNothing) {
  AddDomains({"two.test"});
  manager().Start();
  world.RunFor(Us(0));
  peer.is_started() = false;
  log.clear();
  const size_t before = world.posted().size();
  world.RunAsTask(core::BusinessID::kNtpTime,
                  [&] { EXPECT_FALSE(peer.CheckAndRetryDomainRequestIfPending(Domain(0))); });
  EXPECT_EQ(world.posted().size(), before);
  EXPECT_TRUE(Record("two.test").is_requesting);
  EXPECT_EQ(Domain(0)->GetCurrentIPAddress(), Address("192.0.2.8"));
  EXPECT_TRUE(peer.function_request_stats().empty());
  EXPECT_TRUE(log.empty());
}

TEST_F(SyncAttemptTest, ADomainWithoutARecordIsNeitherRetriedNorFinished) {
  AddDomains({"two.test"});
  peer.domain_results().clear();
  peer.is_started() = true;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] {
    EXPECT_FALSE(peer.RetryDomainRequestIfNeeded(Domain(0)));
    EXPECT_FALSE(peer.CheckAndRetryDomainRequestIfPending(Domain(0)));
    EXPECT_TRUE(peer.IsAllDomainRequestsFinished());
  });
  EXPECT_EQ(CountLog(1, "Not query domain:two.test"), 3u);
  EXPECT_EQ(peer.current_domain_info(), nullptr);
}

TEST_F(SyncAttemptTest, AllRequestsAreFinishedOnceNoDomainIsRequesting) {
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { EXPECT_TRUE(peer.IsAllDomainRequestsFinished()); });
  AddDomains({"a.test", "b.test"});
  Record("b.test").is_requesting = true;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { EXPECT_FALSE(peer.IsAllDomainRequestsFinished()); });
  Record("b.test").is_requesting = false;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { EXPECT_TRUE(peer.IsAllDomainRequestsFinished()); });
}

TEST_F(SyncAttemptTest, TheFirstDomainToFinishBecomesTheReferenceOnlyOnce) {
  AddDomains({"a.test", "b.test"});
  peer.is_started() = true;
  UseUpRepetition(0);
  UseUpRepetition(1);
  Record("a.test").is_requesting = true;
  Record("b.test").is_requesting = true;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] {
    EXPECT_FALSE(peer.CheckAndRetryDomainRequestIfPending(Domain(1)));
    EXPECT_EQ(peer.current_domain_info(), Domain(1));
    EXPECT_TRUE(peer.CheckAndRetryDomainRequestIfPending(Domain(0)));
    EXPECT_EQ(peer.current_domain_info(), Domain(1));
  });
}

TEST_F(SyncAttemptTest, TheHandlerIsMadeOnceAndPreparedForEveryAttempt) {
  AddDomains({"a.test"});
  network.AddServer(Address("192.0.2.1"), {});
  Sync();
  const NtpTimePacketHandler* const handler = peer.packet_handler().get();
  ASSERT_NE(handler, nullptr);
  // The stop closes the handler's sockets; the next attempt opens new ones on the same handler.
  world.RunFor(S(31));
  ASSERT_EQ(world.open_socket_count(), 0u);
  peer.is_reliable() = false;
  Sync();
  EXPECT_EQ(peer.packet_handler().get(), handler);
  EXPECT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
  const auto& sent = network.requests(Address("192.0.2.1"));
  EXPECT_NE(sent.front().client, sent.back().client);
}

TEST_F(SyncAttemptTest, AFirstAttemptMeasuresAgainstTheOffsetOfTheConstruction) {
  AddDomains({"a.test"});
  const int64_t offset_us = peer.system_offset_from_steady_us();
  world.StepWall(S(3));
  manager().Start();
  world.RunFor(Us(0));
  EXPECT_EQ(peer.packet_handler()->GetSystemTimeOffsetFromSteady(), offset_us);
  EXPECT_TRUE(LogLinesWith("Deviation found").empty());
}

TEST_F(SyncAttemptTest, WithTheClocksInAgreementTheHandlerGetsTheStoredOffset) {
  AddDomains({"a.test"});
  KeepGoodResult(1000);
  const int64_t offset_us = peer.system_offset_from_steady_us();
  world.RunFor(S(601));
  world.StepWall(Ms(4));
  manager().Start();
  world.RunFor(Us(0));
  ASSERT_TRUE(peer.is_started());
  EXPECT_EQ(peer.packet_handler()->GetSystemTimeOffsetFromSteady(), offset_us);
}

TEST_F(SyncAttemptTest, WithADeviationTheHandlerGetsAFreshOffset) {
  AddDomains({"a.test"});
  KeepGoodResult(1000);
  const int64_t offset_us = peer.system_offset_from_steady_us();
  world.RunFor(S(601));
  world.StepWall(Ms(5));
  manager().Start();
  world.RunFor(Us(0));
  EXPECT_EQ(peer.packet_handler()->GetSystemTimeOffsetFromSteady(), offset_us + 5000);
  EXPECT_EQ(peer.system_offset_from_steady_us(), offset_us);  // replaced only with the next kept result
}

TEST_F(SyncAttemptTest, AListUpdateAndAStartBackToBackSucceedOnAFreshProcess) {
  network.AddServer(Address("192.0.2.1"), {.clock_error_us = 5000});
  manager().AddObserver(observer);
  manager().UpdateNtpTimeDomain({"a.test"});
  EXPECT_EQ(manager().Start(), 0);
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(network.requests(Address("192.0.2.1")).size(), 20u);
  EXPECT_EQ(CountLog(0, "Start request: a.test"), 1u);
  EXPECT_EQ(manager().GetNtpTimestampFrom1970(), world.true_us() + 5000 - base::kWindowsToUnixEpochUs);
}

TEST_F(SyncAttemptTest, ADomainAddedDuringAnAttemptIsAskedAtOnce) {
  AddDomains({"a.test"});
  network.AddServer(Address("192.0.2.2"), {});
  manager().AddObserver(observer);
  manager().Start();
  world.RunFor(Ms(1000));
  manager().UpdateNtpTimeDomain({"b.test"});
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].server, Address("192.0.2.2"));
}

TEST_F(SyncAttemptTest, AListUpdateDuringAnAttemptKeepsTheRequestsUnderWay) {
  network.AddServer(Address("192.0.2.1"),
                    {.to_server = {.delay_us = 50000}, .to_client = {.delay_us = 50000}});
  AddDomains({"a.test"});
  manager().Start();
  world.RunFor(Ms(95));
  AddDomains({"b.test"});
  world.RunFor(Ms(100));
  EXPECT_EQ(Domain(0)->samples().size(), 10u);
}

TEST_F(SyncAttemptTest, SendsThatOutliveTheHandlerDoNothing) {
  AddDomains({"a.test"});
  manager().Start();
  world.RunFor(Ms(95));
  ASSERT_EQ(network.requests(Address("192.0.2.1")).size(), 10u);
  peer.packet_handler().reset();
  world.RunFor(S(1));
  EXPECT_EQ(network.requests(Address("192.0.2.1")).size(), 10u);
}

}  // namespace
}  // namespace skorra
