// SPDX-License-Identifier: Apache-2.0

// The statistics of requests and attempts, the key metrics, and the report that hands them over.
#include "platform/metrics/key_metrics.h"
#include "testing/manager_fixture.h"
#include "testing/noted_calls.h"
#include "testing/ticking_clocks.h"

namespace skorra {
namespace {

const std::string kName = "192.0.2.11";

constexpr NtpResult kNone = NtpResult::kNoResult;
constexpr NtpResult kGood = NtpResult::kSuccess;
constexpr NtpResult kPoor = NtpResult::kMaybeInaccurate;

class QualityReportTest : public ManagerTest {
 protected:
  // Increments of the four key metrics since the test began, in the order 37003 to 37006.
  using Metrics = std::vector<uint64_t>;
  static Metrics AllMetrics() {
    Metrics counts;
    for (uint64_t key = 37003; key <= 37006; ++key) {
      counts.push_back(base::KeyMetrics::GetPV(key));
    }
    return counts;
  }
  Metrics metrics() {
    Metrics counts = AllMetrics();
    for (size_t i = 0; i < counts.size(); ++i) {
      counts[i] -= metrics_before_[i];
    }
    return counts;
  }
  void ForgetMetrics() { metrics_before_ = AllMetrics(); }

  // Finishes the one domain's request that began and sent its last burst so long ago.
  void Finish(NtpResult result, int64_t age_us, int64_t burst_age_us) {
    if (peer.domain_infos().empty()) {
      AddDomains({kName});
    }
    record().is_requesting = true;
    record().request_start_time_us = peer.GetNowSystemTimestampUs() - age_us;
    record().last_request_start_time_us = peer.GetNowSystemTimestampUs() - burst_age_us;
    world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.FinishAndUpdateRequestStats(result, Domain(0)); });
  }
  NtpDomainResult& record() { return Record(kName); }
  NtpFunctionRequestStats& stats(int kind) { return peer.function_request_stats().at(kind); }

 private:
  Metrics metrics_before_ = AllMetrics();
};

// --- Adding a request to its kind.

TEST_F(QualityReportTest, TheFirstRequestOfAKindMakesItsRecord) {
  peer.CalculateStatsResult(true, 120, 2);
  EXPECT_EQ(peer.function_request_stats().size(), 1u);
  EXPECT_EQ(stats(2), (NtpFunctionRequestStats{.average_cost_ms = 120,
                                               .max_cost_ms = 120,
                                               .request_count = 1,
                                               .success_count = 1,
                                               .function_type = 2,
                                               .failure_count = 0,
                                               .total_cost_ms = 120}));
}

TEST_F(QualityReportTest, ASecondRequestIsAddedToItsKind) {
  peer.CalculateStatsResult(true, 120, 2);
  peer.CalculateStatsResult(false, 81, 2);
  EXPECT_EQ(stats(2), (NtpFunctionRequestStats{.average_cost_ms = 100,
                                               .max_cost_ms = 120,
                                               .request_count = 2,
                                               .success_count = 1,
                                               .function_type = 2,
                                               .failure_count = 1,
                                               .total_cost_ms = 201}));
}

TEST_F(QualityReportTest, ALongerRequestRaisesTheMaximum) {
  peer.CalculateStatsResult(false, 10, 0);
  peer.CalculateStatsResult(false, 11, 0);
  peer.CalculateStatsResult(true, 0, 0);
  EXPECT_EQ(stats(0), (NtpFunctionRequestStats{7, 11, 3, 1, 0, 2, 21}));
}

TEST_F(QualityReportTest, EveryKindHasARecordOfItsOwnWithItsNumber) {
  peer.CalculateStatsResult(true, 5, 0);
  peer.CalculateStatsResult(true, 6, 1);
  peer.CalculateStatsResult(true, 7, 2);
  peer.CalculateStatsResult(true, 8, -9);
  ASSERT_EQ(peer.function_request_stats().size(), 4u);
  for (const auto& [kind, cost_ms] : std::map<int, uint32_t>{{0, 5}, {1, 6}, {2, 7}, {-9, 8}}) {
    EXPECT_EQ(stats(kind), (NtpFunctionRequestStats{cost_ms, cost_ms, 1, 1, kind, 0, cost_ms}));
  }
}

TEST_F(QualityReportTest, TheTotalWrapsAndTheMaximumIsUnsigned) {
  peer.CalculateStatsResult(true, 0xfffffff0u, 2);
  EXPECT_EQ(stats(2).max_cost_ms, 0xfffffff0u);
  peer.CalculateStatsResult(true, 0x20, 2);
  EXPECT_EQ(stats(2), (NtpFunctionRequestStats{8, 0xfffffff0u, 2, 2, 2, 0, 16}));
}

TEST_F(QualityReportTest, TheCountsWrap) {
  peer.CalculateStatsResult(true, 0, 2);
  stats(2) = {1, 1, 0xffffffffu, 0xffffffffu, 2, 0xffffffffu, 7};
  peer.CalculateStatsResult(true, 3, 2);
  EXPECT_EQ(stats(2).request_count, 0u);
  EXPECT_EQ(stats(2).success_count, 0u);
  EXPECT_EQ(stats(2).failure_count, 0xffffffffu);
  EXPECT_EQ(stats(2).average_cost_ms, 0u);
  peer.CalculateStatsResult(false, 3, 2);
  EXPECT_EQ(stats(2), (NtpFunctionRequestStats{13, 3, 1, 0, 2, 0, 13}));
}

TEST_F(QualityReportTest, CountingIsNotLogged) {
  peer.CalculateStatsResult(false, 1, 0);
  peer.ReportDomainToKeyMetrics(false, NtpDomainCode::kOther);
  manager().GetAndResetNtpQualityStats();
  EXPECT_TRUE(log.empty());
}

// --- Key metrics.

TEST_F(QualityReportTest, AFinishedRequestIsCountedUnderTheKeysOfItsDomainsKind) {
  struct Case {
    const char* what;
    bool success;
    NtpDomainCode code;
    Metrics counted;
  };
  const Case cases[] = {
      {"the default domain failed", false, NtpDomainCode::kDefault, {0, 1, 0, 0}},
      {"the default domain succeeded", true, NtpDomainCode::kDefault, {1, 1, 0, 0}},
      {"another domain failed", false, NtpDomainCode::kOther, {0, 0, 0, 1}},
      {"another domain succeeded", true, NtpDomainCode::kOther, {0, 0, 1, 1}},
      {"no such kind", true, static_cast<NtpDomainCode>(2), {0, 0, 0, 0}},
      {"no such kind either", true, static_cast<NtpDomainCode>(-1), {0, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ForgetMetrics();
    peer.ReportDomainToKeyMetrics(c.success, c.code);
    EXPECT_EQ(metrics(), c.counted);
  }
}

// --- Finishing a domain's request.

TEST_F(QualityReportTest, AFinishedRequestIsClosedTimedAndCounted) {
  Finish(kGood, 1250999, 250999);
  EXPECT_FALSE(record().is_requesting);
  EXPECT_EQ(record().cost_ms, 1250u);
  EXPECT_EQ(record().last_request_cost_ms, 250u);
  EXPECT_EQ(peer.function_request_stats().size(), 1u);
  EXPECT_EQ(stats(0), (NtpFunctionRequestStats{1250, 1250, 1, 1, 0, 0, 1250}));
  EXPECT_EQ(metrics(), (Metrics{0, 0, 1, 1}));
}

TEST_F(QualityReportTest, OnlyARequestWithoutAResultIsAFailure) {
  struct Case {
    NtpResult result;
    uint32_t successes;
    Metrics counted;
  };
  const Case cases[] = {{kNone, 0, {0, 0, 0, 1}}, {kGood, 1, {0, 0, 1, 1}}, {kPoor, 1, {0, 0, 1, 1}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.result));
    peer.function_request_stats().clear();
    ForgetMetrics();
    // The code that counts is the one handed in, not that of the record.
    Finish(kNone, 0, 0);
    record().result = c.result == kNone ? kGood : kNone;
    Finish(c.result, 5000, 5000);
    EXPECT_EQ(stats(0).success_count, c.successes);
    EXPECT_EQ(stats(0).failure_count, 1 - c.successes);
    EXPECT_EQ(metrics(), c.counted);
  }
}

TEST_F(QualityReportTest, DurationsAreTruncatedToMillisecondsAndCutToTheRange) {
  struct Case {
    const char* what;
    int64_t age_us;
    uint32_t cost_ms;
  };
  const Case cases[] = {
      {"nothing", 0, 0},
      {"one microsecond", 1, 0},
      {"a fraction of a millisecond", 999, 0},
      {"one millisecond", 1000, 1},
      {"nearly two", 1999, 1},
      {"a negative duration", -1, 0},
      {"a long negative one", -5000000, 0},
      {"beyond the signed range of 32 bits", 3000000000000, 3000000000u},
      {"the last number of the range", 4294967295000, 4294967295u},
      {"a fraction more", 4294967295999, 4294967295u},
      {"2^32 milliseconds are cut", 4294967296000, 4294967295u},
      {"... so is a century", 3155760000000000, 4294967295u},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Finish(kGood, c.age_us, 777000);
    EXPECT_EQ(record().cost_ms, c.cost_ms);
    EXPECT_EQ(record().last_request_cost_ms, 777u);
    Finish(kGood, 777000, c.age_us);
    EXPECT_EQ(record().cost_ms, 777u);
    EXPECT_EQ(record().last_request_cost_ms, c.cost_ms);
  }
}

TEST_F(QualityReportTest, ARequestWithinItsFirstMillisecondIsClosedAndTimedButNotCounted) {
  for (const int64_t age_us : {int64_t{999}, int64_t{0}, int64_t{-3000}}) {
    Finish(kGood, age_us, 42000);
    EXPECT_FALSE(record().is_requesting);
    EXPECT_EQ(record().cost_ms, 0u);
    EXPECT_EQ(record().last_request_cost_ms, 42u);
    EXPECT_TRUE(peer.function_request_stats().empty());
    EXPECT_EQ(metrics(), (Metrics{0, 0, 0, 0}));
  }
}

TEST_F(QualityReportTest, TheLastBurstMayBeShorterThanAMillisecond) {
  Finish(kGood, 1000, 999);
  EXPECT_EQ(record().last_request_cost_ms, 0u);
  EXPECT_EQ(stats(0).request_count, 1u);
}

TEST_F(QualityReportTest, FinishingChangesNothingElseInTheRecord) {
  Finish(kNone, 0, 0);
  record().offset_us = 5;
  record().result = kPoor;
  record().is_reliable = true;
  record().sample_count = 4;
  record().endpoint = Address(kName);
  const NtpDomainResult before = record();
  Finish(kGood, 2000, 1000);
  NtpDomainResult expected = before;
  expected.is_requesting = false;
  expected.cost_ms = 2;
  expected.last_request_cost_ms = 1;
  expected.request_start_time_us = peer.GetNowSystemTimestampUs() - 2000;
  expected.last_request_start_time_us = peer.GetNowSystemTimestampUs() - 1000;
  EXPECT_EQ(record(), expected);
}

TEST_F(QualityReportTest, ADomainIsTheDefaultOneWhenItsNameIsTheSameText) {
  struct Case {
    const char* what;
    std::string default_domain;
    int kind;
  };
  const Case cases[] = {
      {"the same", kName, 1},
      {"the same address written differently", kName + ":123", 0},
      {"a part of it", "192.0.2.1", 0},
      {"there is none", "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SetDefaultDomain(c.default_domain);
    peer.function_request_stats().clear();
    ForgetMetrics();
    Finish(kGood, 3000, 3000);
    ASSERT_EQ(peer.function_request_stats().size(), 1u);
    EXPECT_EQ(stats(c.kind), (NtpFunctionRequestStats{3, 3, 1, 1, c.kind, 0, 3}));
    EXPECT_EQ(metrics(), c.kind == 1 ? (Metrics{1, 1, 0, 0}) : (Metrics{0, 0, 1, 1}));
  }
}

TEST_F(QualityReportTest, AFailedRequestToTheDefaultDomainIsCountedUnderOneKey) {
  SetDefaultDomain(kName);
  Finish(kNone, 3000, 3000);
  EXPECT_EQ(stats(1), (NtpFunctionRequestStats{3, 3, 1, 0, 1, 1, 3}));
  EXPECT_EQ(metrics(), (Metrics{0, 1, 0, 0}));
}

TEST_F(QualityReportTest, ADomainWithoutARecordIsNotCounted) {
  Finish(kGood, 0, 0);
  peer.domain_results().clear();
  log.clear();
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.FinishAndUpdateRequestStats(kGood, Domain(0)); });
  EXPECT_TRUE(peer.domain_results().empty());
  EXPECT_TRUE(peer.function_request_stats().empty());
  EXPECT_EQ(metrics(), (Metrics{0, 0, 0, 0}));
  EXPECT_THAT(log, ::testing::ElementsAre(Line{1, "Not query domain:192.0.2.11"}));
}

TEST_F(QualityReportTest, BothDurationsEndAtOneReadingOfTheClock) {
  AddDomains({kName});
  record().request_start_time_us = peer.GetNowSystemTimestampUs() - 5000;
  record().last_request_start_time_us = record().request_start_time_us;
  const TickingClocks clocks(world);
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.FinishAndUpdateRequestStats(kGood, Domain(0)); });
  EXPECT_EQ(record().cost_ms, 5u);
  EXPECT_EQ(record().last_request_cost_ms, 5u);
  EXPECT_EQ(clocks.readings, std::vector{sim::SeamCall::kSteadyClock});
}

TEST_F(QualityReportTest, FinishedIsCountedBeforeSucceeded) {
  NotedCalls noted;
  peer.ReportDomainToKeyMetrics(true, NtpDomainCode::kDefault);
  peer.ReportDomainToKeyMetrics(true, NtpDomainCode::kOther);
  EXPECT_THAT(noted.calls,
              ::testing::ElementsAre("count 37004", "count 37003", "count 37006", "count 37005"));
}

TEST_F(QualityReportTest, TheStatisticsAreUpdatedBeforeTheKeyMetrics) {
  NotedCalls noted;
  noted.on_call = [&](const std::string& call) {
    EXPECT_EQ(peer.function_request_stats().count(0), call == "default domain" ? 0u : 1u) << call;
  };
  Finish(kGood, 5000, 5000);
  EXPECT_THAT(noted.calls, ::testing::ElementsAre("default domain", "count 37006", "count 37005"));
}

TEST_F(QualityReportTest, TheDefaultDomainIsNotAskedForWhenTheRequestIsNotCounted) {
  NotedCalls noted;
  Finish(kGood, 999, 999);
  EXPECT_THAT(noted.calls, ::testing::IsEmpty());
}

// --- The report.

TEST_F(QualityReportTest, AReportBeforeAnythingHappenedIsEmptyAndArmsTheCount) {
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_TRUE(report.function_request_stats.empty());
  EXPECT_EQ(report.start_count, 0u);
  EXPECT_FALSE(report.deviation_found);
  EXPECT_EQ(peer.start_count(), 1u);
}

TEST_F(QualityReportTest, TheFirstReportCountsOneStartFewerAndEveryLaterOneAll) {
  AddDomains({kName});
  for (int i = 0; i < 3; ++i) {
    manager().Start();  // the second and the third are refused, and count
  }
  EXPECT_EQ(peer.start_count(), 3u);
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().start_count, 2u);
  manager().Start();
  manager().Start();
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().start_count, 2u);
  manager().Start();
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().start_count, 1u);
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().start_count, 0u);
}

TEST_F(QualityReportTest, ASingleStartBeforeTheFirstReportIsNotCounted) {
  manager().Start();
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().start_count, 0u);
  EXPECT_EQ(peer.start_count(), 1u);
}

TEST_F(QualityReportTest, AStartThatFindsAFreshResultIsCountedAndASyncByAReadIsNot) {
  manager().GetAndResetNtpQualityStats();
  manager().GetNtpTimestampFrom1970();
  ASSERT_TRUE(peer.is_started());
  world.RunFor(Us(0));
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().start_count, 0u);
  KeepGoodResult(0);
  world.RunFor(S(1));
  EXPECT_EQ(manager().Start(), 0);
  ASSERT_FALSE(peer.is_started());
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().start_count, 1u);
}

TEST_F(QualityReportTest, TheReportHandsOverTheRecordsAndBeginsANewPeriod) {
  peer.CalculateStatsResult(true, 120, 2);
  peer.CalculateStatsResult(false, 30, 0);
  manager().Start();
  manager().Start();
  peer.deviation_found() = true;
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  ASSERT_EQ(report.function_request_stats.size(), 2u);
  EXPECT_EQ(report.function_request_stats.at(0), (NtpFunctionRequestStats{30, 30, 1, 0, 0, 1, 30}));
  EXPECT_EQ(report.function_request_stats.at(2), (NtpFunctionRequestStats{120, 120, 1, 1, 2, 0, 120}));
  EXPECT_EQ(report.start_count, 1u);
  EXPECT_TRUE(report.deviation_found);
  EXPECT_TRUE(peer.function_request_stats().empty());
  EXPECT_FALSE(peer.deviation_found());
  EXPECT_EQ(peer.start_count(), 1u);
}

TEST_F(QualityReportTest, TheReportTakesTheRecordsThemselvesNotCopies) {
  peer.CalculateStatsResult(true, 120, 2);
  const NtpFunctionRequestStats* const kept = &stats(2);
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_EQ(&report.function_request_stats.at(2), kept);
}

TEST_F(QualityReportTest, ASecondReportWithNothingBetweenIsEmpty) {
  peer.CalculateStatsResult(true, 120, 2);
  manager().Start();
  manager().Start();
  peer.deviation_found() = true;
  manager().GetAndResetNtpQualityStats();
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_TRUE(report.function_request_stats.empty());
  EXPECT_EQ(report.start_count, 0u);
  EXPECT_FALSE(report.deviation_found);
}

TEST_F(QualityReportTest, ANewPeriodCountsFromNothing) {
  peer.CalculateStatsResult(false, 500, 2);
  manager().GetAndResetNtpQualityStats();
  peer.CalculateStatsResult(true, 20, 2);
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_EQ(report.function_request_stats.at(2), (NtpFunctionRequestStats{20, 20, 1, 1, 2, 0, 20}));
}

TEST_F(QualityReportTest, AStopAndARestartKeepTheStatistics) {
  peer.CalculateStatsResult(true, 120, 2);
  peer.deviation_found() = true;
  manager().Start();
  manager().Start();
  world.RunFor(Us(0));
  manager().Stop();
  world.RunFor(S(60));
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_EQ(report.function_request_stats.size(), 1u);
  EXPECT_EQ(report.start_count, 1u);
  EXPECT_TRUE(report.deviation_found);
}

TEST_F(QualityReportTest, OnlyALargeDeviationIsReportedAndOnlyOnce) {
  KeepGoodResult(0);
  world.StepWall(Ms(500));
  manager().GetNtpTimestampFrom1970();
  EXPECT_FALSE(manager().GetAndResetNtpQualityStats().deviation_found);
  KeepGoodResult(0);
  peer.last_check_local_time_ms() = 0;
  peer.is_started() = false;
  world.StepWall(Ms(501));
  manager().GetNtpTimestampFrom1970();
  EXPECT_TRUE(manager().GetAndResetNtpQualityStats().deviation_found);
  EXPECT_FALSE(manager().GetAndResetNtpQualityStats().deviation_found);
}

TEST_F(QualityReportTest, AnAttemptAtTheDefaultDomainIsReportedUnderItsKindAndAsAnAttempt) {
  network.AddServer(Address(kName), {});
  SetDefaultDomain(kName);
  Sync();
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  ASSERT_EQ(report.function_request_stats.size(), 2u);
  EXPECT_EQ(report.function_request_stats.at(1), (NtpFunctionRequestStats{200, 200, 1, 1, 1, 0, 200}));
  EXPECT_EQ(report.function_request_stats.at(2), (NtpFunctionRequestStats{200, 200, 1, 1, 2, 0, 200}));
  EXPECT_EQ(metrics(), (Metrics{1, 1, 0, 0}));
}

TEST_F(QualityReportTest, ASecondBurstToAnOnlyAddressBelongsToTheSameRequest) {
  AddDomains({kName});
  Sync();
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_EQ(report.function_request_stats.at(0), (NtpFunctionRequestStats{6000, 6000, 1, 0, 0, 1, 6000}));
  EXPECT_EQ(report.function_request_stats.at(2), (NtpFunctionRequestStats{6000, 6000, 1, 0, 2, 1, 6000}));
  EXPECT_EQ(metrics(), (Metrics{0, 0, 0, 1}));
}

TEST_F(QualityReportTest, EveryDomainOfAFailedAttemptIsCountedAndTheAttemptOnce) {
  SetDefaultDomain("192.0.2.12");
  AddDomains({kName, "192.0.2.12", "192.0.2.13"});
  for (const std::string& address : {kName, std::string("192.0.2.12"), std::string("192.0.2.13")}) {
    AddUnsynchronisedServer(address);
  }
  Sync();
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  ASSERT_EQ(report.function_request_stats.size(), 3u);
  EXPECT_EQ(report.function_request_stats.at(0), (NtpFunctionRequestStats{3000, 3000, 2, 0, 0, 2, 6000}));
  EXPECT_EQ(report.function_request_stats.at(1), (NtpFunctionRequestStats{3000, 3000, 1, 0, 1, 1, 3000}));
  EXPECT_EQ(report.function_request_stats.at(2), (NtpFunctionRequestStats{3000, 3000, 1, 0, 2, 1, 3000}));
  EXPECT_EQ(metrics(), (Metrics{0, 1, 0, 2}));
}

TEST_F(QualityReportTest, ADomainThatIsStillBeingAskedWhenTheAttemptEndsIsNotCounted) {
  network.AddServer(Address(kName), {});
  AddDomains({kName, "192.0.2.12"});
  Sync();
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_EQ(report.function_request_stats.at(0).request_count, 1u);
  EXPECT_EQ(report.function_request_stats.at(2).request_count, 1u);
}

TEST_F(QualityReportTest, ARetryIsPartOfTheSameRequest) {
  world.SetHost("two.test", {{Address("192.0.2.21"), Address("192.0.2.22")}});
  AddDomains({"two.test"});
  Sync();
  const NtpTimeSyncStats report = manager().GetAndResetNtpQualityStats();
  EXPECT_EQ(report.function_request_stats.at(0), (NtpFunctionRequestStats{6000, 6000, 1, 0, 0, 1, 6000}));
}

}  // namespace
}  // namespace skorra
