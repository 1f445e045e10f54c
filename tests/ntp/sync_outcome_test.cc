// SPDX-License-Identifier: Apache-2.0

// How an attempt ends: which result is kept, what is logged and counted, and what the observers hear.
#include "platform/metrics/key_metrics.h"
#include "testing/manager_fixture.h"
#include "testing/samples.h"
#include "testing/ticking_clocks.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

const std::string kFirst = "192.0.2.11";
const std::string kSecond = "192.0.2.12";

constexpr NtpResult kNone = NtpResult::kNoResult;
constexpr NtpResult kGood = NtpResult::kSuccess;
constexpr NtpResult kPoor = NtpResult::kMaybeInaccurate;

class SyncOutcomeTest : public ManagerTest {
 protected:
  SyncOutcomeTest() {
    AddUnsynchronisedServer(kFirst);
    AddUnsynchronisedServer(kSecond);
  }

  // The five members that change together.
  struct Kept {
    int64_t offset_us;
    NtpResult result;
    bool is_rtt_reliable;
    bool is_reliable;
    int64_t system_offset_us;
    friend bool operator==(const Kept&, const Kept&) = default;
    friend void PrintTo(const Kept& kept, std::ostream* out) {
      *out << kept.offset_us << " code " << static_cast<int>(kept.result) << " rtt " << kept.is_rtt_reliable
           << " reliable " << kept.is_reliable << " base " << kept.system_offset_us;
    }
  };
  Kept kept() {
    return {peer.ntp_offset_us(), peer.last_result(), peer.is_rtt_reliable(), peer.is_reliable(),
            peer.system_offset_from_steady_us()};
  }
  void SetKept(const Kept& kept) {
    peer.ntp_offset_us() = kept.offset_us;
    peer.last_result() = kept.result;
    peer.is_rtt_reliable() = kept.is_rtt_reliable;
    peer.is_reliable() = kept.is_reliable;
    peer.system_offset_from_steady_us() = kept.system_offset_us;
  }

  // One attempt of a single domain with an answered burst, or one without a usable reply, up to its outcome.
  void Attempt(const std::vector<NtpResultData>& samples) {
    BeginAttempt({kFirst});
    Receive(first, samples);
    world.RunFor(samples.empty() ? S(3) : Ms(200));
  }

  const NtpFunctionRequestStats& Stats(int kind) { return peer.function_request_stats()[kind]; }
  std::string NtpTimeText() {
    return peer.NtpTimestampToTime(peer.GetNtpTimestampFrom1970Internal()).ToString();
  }

  const net::IPEndPoint first = Address(kFirst);
  const net::IPEndPoint second = Address(kSecond);
};

// --- Which result is kept.

TEST_F(SyncOutcomeTest, ANewResultReplacesTheKeptOneOnlyWhenItIsAtLeastAsGood) {
  struct Case {
    NtpResult now;
    NtpResult before;
    bool is_replaced;
  };
  const Case cases[] = {{kGood, kNone, true}, {kGood, kGood, true},  {kGood, kPoor, true},
                        {kPoor, kNone, true}, {kPoor, kPoor, true},  {kPoor, kGood, false},
                        {kNone, kNone, true}, {kNone, kGood, false}, {kNone, kPoor, false}};
  for (const Case& c : cases) {
    for (const bool flag : {false, true}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(c.now) << " over " << static_cast<int>(c.before));
      const Kept before{-11, c.before, flag, !flag, 5};
      SetKept(before);
      log.clear();
      NtpDomainResult record;
      record.result = c.now;
      record.offset_us = c.now == kNone ? INT64_MAX : 22;
      record.is_rtt_reliable = !flag;
      record.is_reliable = flag;
      world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.UpdateNtpResultIfBetter(&record, 6); });
      if (c.is_replaced) {
        EXPECT_EQ(kept(), (Kept{record.offset_us, c.now, !flag, flag, 6}));
        EXPECT_TRUE(log.empty());
      } else {
        EXPECT_EQ(kept(), before);
        const std::string flags = flag ? "reliable:0, rtt reliable:1" : "reliable:1, rtt reliable:0";
        EXPECT_THAT(log, ::testing::ElementsAre(
                             Line{0, "Use last sync result:" + std::to_string(static_cast<int>(c.before)) +
                                         ", offset:-11, " + flags}));
      }
    }
  }
}

// --- Success.

TEST_F(SyncOutcomeTest, TheFirstSuccessReplacesTheProvisionalOffset) {
  BeginAttempt({kFirst});
  peer.manager().OnFirstPacketReceived(999);
  Receive(first, GoodBurst(1500));
  world.RunFor(Ms(200));
  EXPECT_EQ(kept(), (Kept{1500, kGood, true, true, world.wall_us() - world.steady_ticks_us()}));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, kGood);
  EXPECT_EQ(observer->outcomes[0].message, "success");
  EXPECT_EQ(observer->outcomes[0].server, first);
}

TEST_F(SyncOutcomeTest, ASuccessStampsBothClocksAndTheCostOfTheLastRequest) {
  BeginAttempt({kFirst});
  world.RunFor(Ms(200));
  Receive(first, GoodBurst(1500));
  world.RunFor(Ms(200));
  EXPECT_EQ(peer.last_request_cost_ms(), 400u);
  EXPECT_EQ(peer.last_sync_ntp_timestamp_us(), world.wall_us() + 1500 - base::kWindowsToUnixEpochUs);
  EXPECT_EQ(peer.last_sync_local_time_ms(), world.wall_us() / 1000);
}

TEST_F(SyncOutcomeTest, ASuccessStampsTheNtpClockThenTheWallClockThenReadsTheNtpClockAgainForItsLine) {
  BeginAttempt({kFirst});
  Record(kFirst).result = kGood;
  Record(kFirst).offset_us = 0;
  // Readings come 1 ms apart: what a stamp shows tells which reading it was.
  const int64_t before_us = world.wall_us();
  const TickingClocks clocks(world);
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpSuccessResult(Domain(0)); });
  const int64_t ntp_us = peer.last_sync_ntp_timestamp_us() + base::kWindowsToUnixEpochUs;
  EXPECT_GT(ntp_us, before_us) << "the costs are computed from an earlier reading";
  EXPECT_EQ(peer.last_sync_local_time_ms(), ntp_us / 1000 + 1);
  const int64_t line_us = ntp_us + 2000 - base::kWindowsToUnixEpochUs;
  const auto lines = LogLinesWith("NTP time sync successful");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0].text,
              ::testing::HasSubstr("ntp time:" + peer.NtpTimestampToTime(line_us).ToString() + ","));
}

TEST_F(SyncOutcomeTest, ASuccessIsLoggedWithItsMeasuresTheTimeTheDomainAndTheAddress) {
  world.SetHost("two.test", {{Address("192.0.2.21"), Address("192.0.2.22")}});
  BeginAttempt({"two.test"});
  world.RunFor(S(3));
  Receive(Address("192.0.2.22"), GoodBurst(-250));
  log.clear();
  world.RunFor(Ms(200));
  EXPECT_THAT(log, ::testing::ElementsAre(Line{
                       0,
                       "NTP time sync successful, took(ms): 3200, last request took(ms): 200, use sample "
                       "count:4, success offset(us): -250, ntp time:2024-01-01T00:00:03.199750Z, "
                       "two.test, IP:192.0.2.22:123"}));
  EXPECT_EQ(peer.last_request_cost_ms(), 200u);
  EXPECT_EQ(Stats(2).total_cost_ms, 3200u);
}

TEST_F(SyncOutcomeTest, TheObserversHearTheAnsweringAddressWhereTheSuccessLineNamesTheCurrentOne) {
  BeginAttempt({kFirst});
  Record(kFirst).result = kGood;
  Record(kFirst).endpoint = Address("192.0.2.77", 1123);
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpSuccessResult(Domain(0)); });
  EXPECT_EQ(observer->outcomes.at(0).server, Address("192.0.2.77", 1123));
  const auto lines = LogLinesWith("NTP time sync successful");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0].text, ::testing::EndsWith(", 192.0.2.11, IP:192.0.2.11:123"));
}

TEST_F(SyncOutcomeTest, ASuccessCountsTheDomainsRequestAndTheAttempt) {
  const uint64_t finished = base::KeyMetrics::GetPV(37006);
  const uint64_t succeeded = base::KeyMetrics::GetPV(37005);
  Attempt(GoodBurst(0));
  for (const int kind : {0, 2}) {
    EXPECT_EQ(Stats(kind), (NtpFunctionRequestStats{200, 200, 1, 1, kind, 0, 200}));
  }
  EXPECT_EQ(peer.function_request_stats().size(), 2u);
  EXPECT_EQ(base::KeyMetrics::GetPV(37006), finished + 1);
  EXPECT_EQ(base::KeyMetrics::GetPV(37005), succeeded + 1);
}

TEST_F(SyncOutcomeTest, WhenTheSuccessLineIsWrittenTheResultIsKeptAndTheAttemptStillOpen) {
  BeginAttempt({kFirst});
  Receive(first, GoodBurst(1500));
  int lines = 0;
  base::SetLogSink([&](const base::LogLine& line) {
    ++lines;
    EXPECT_EQ(line.text.substr(0, 24), "NTP time sync successful");
    EXPECT_FALSE(peer.is_sync_finished());
    EXPECT_TRUE(peer.is_started());
    EXPECT_FALSE(Record(kFirst).is_requesting);
    EXPECT_EQ(peer.current_domain_info(), Domain(0));
    EXPECT_EQ(peer.ntp_offset_us(), 1500);
    EXPECT_EQ(peer.last_request_cost_ms(), 200u);
    EXPECT_EQ(peer.last_sync_local_time_ms(), world.wall_us() / 1000);
    EXPECT_NE(peer.last_sync_ntp_timestamp_us(), 0);
    EXPECT_EQ(peer.function_request_stats().count(0), 1u) << "the request is not counted yet";
    EXPECT_EQ(peer.function_request_stats().count(2), 0u) << "the attempt is counted too early";
    EXPECT_TRUE(observer->outcomes.empty());
  });
  world.RunFor(Ms(200));
  EXPECT_EQ(lines, 1);
  EXPECT_EQ(observer->outcomes.size(), 1u);
}

TEST_F(SyncOutcomeTest, WhenObserversHearOfASuccessItIsCountedAndTheRecordsAreStillThere) {
  BeginAttempt({kFirst});
  Receive(first, GoodBurst(1500));
  observer->on_outcome = [&] {
    EXPECT_TRUE(peer.is_sync_finished());
    EXPECT_FALSE(peer.is_started());
    EXPECT_EQ(peer.function_request_stats().count(2), 1u);
    EXPECT_EQ(LogLinesWith("NTP time sync successful").size(), 1u);
    EXPECT_EQ(Record(kFirst).offset_us, 1500);
    EXPECT_EQ(Record(kFirst).endpoint, first);
  };
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(Record(kFirst), NtpDomainResult());
}

TEST_F(SyncOutcomeTest, ASuccessResetsAllDomainsButKeepsTheWinner) {
  world.SetHost("two.test", {{Address("192.0.2.21"), Address("192.0.2.22")}});
  BeginAttempt({"two.test", kSecond});
  world.RunFor(Us(2900000));
  Receive(second, std::vector<NtpResultData>(5, NtpResultData{30, 20000}));
  // The first address answers, too: silent, it would be asked last from now on.
  NtpAddressLedger::GetInstance()->OnReply(Address("192.0.2.21"));
  world.RunFor(Ms(100));
  // Both were handled at three seconds: the first began a retry, the second had enough.
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].server, second);
  EXPECT_EQ(Domain(0)->GetCurrentIPAddress(), Address("192.0.2.21"));
  EXPECT_EQ(Record("two.test"), NtpDomainResult());
  EXPECT_EQ(Record(kSecond), NtpDomainResult());
  EXPECT_EQ(peer.total_retry_count(), 0u);
  EXPECT_EQ(peer.current_domain_info(), Domain(1));
  EXPECT_EQ(peer.domain_infos().size(), 2u);
}

TEST_F(SyncOutcomeTest, ASuccessKeepsTheTimeBaseThatItsSamplesWereMeasuredAgainst) {
  Attempt(GoodBurst(100));
  world.StepWall(S(2));
  const int64_t step_us = 2000000;
  const int64_t base_us = peer.system_offset_from_steady_us();
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(Us(0));
  EXPECT_EQ(peer.system_offset_from_steady_us(), base_us) << "changed before there was a result";
  Receive(first, GoodBurst(100 - step_us));
  log.clear();
  world.RunFor(Ms(200));
  EXPECT_EQ(kept(), (Kept{100 - step_us, kGood, true, true, base_us + step_us}));
  EXPECT_EQ(peer.last_sync_ntp_timestamp_us(), world.true_us() + 100 - base::kWindowsToUnixEpochUs);
  EXPECT_EQ(Stats(2).max_cost_ms, 200u) << "the request was timed across the two time bases";
}

TEST_F(SyncOutcomeTest, AWallClockStepDuringTheAttemptDoesNotChangeTheTimeBaseOfItsResult) {
  for (const auto& samples : {PoorBurst(100), GoodBurst(200)}) {
    const int64_t base_us = peer.system_offset_from_steady_us();
    BeginAttempt({kFirst});
    Receive(first, samples);
    world.StepWall(S(4));
    world.RunFor(Ms(200));
    EXPECT_EQ(peer.ntp_offset_us(), samples.back().offset_us);
    EXPECT_EQ(peer.system_offset_from_steady_us(), base_us);
  }
  EXPECT_EQ(observer->outcomes.size(), 2u);
}

TEST_F(SyncOutcomeTest, ASuccessWithoutARecordLeavesTheAttemptOpen) {
  BeginAttempt({kFirst, kSecond});
  peer.domain_results().erase(kFirst);
  const Kept before = kept();
  const NtpDomainResult other = Record(kSecond);
  std::vector<NtpTimeManagerPeer::DomainPtr> best_domains;  // at each line
  base::SetLogSink([&](const base::LogLine& line) {
    EXPECT_EQ(line.text, "Not query domain:192.0.2.11");
    best_domains.push_back(peer.current_domain_info());
  });
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpSuccessResult(Domain(0)); });
  EXPECT_THAT(best_domains, ::testing::ElementsAre(nullptr, Domain(0)))
      << "the lookup for the statistics comes before the domain is taken, its own after that";
  EXPECT_EQ(peer.current_domain_info(), Domain(0));
  EXPECT_EQ(kept(), before);
  EXPECT_EQ(peer.last_sync_local_time_ms(), 0);
  EXPECT_EQ(peer.last_sync_ntp_timestamp_us(), 0);
  EXPECT_FALSE(peer.is_sync_finished());
  EXPECT_TRUE(peer.is_started());
  EXPECT_TRUE(peer.function_request_stats().empty());
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(Record(kSecond), other);
}

// --- An attempt without success.

TEST_F(SyncOutcomeTest, WhenNothingWasKeptAFailureDiscardsTheProvisionalOffset) {
  BeginAttempt({kFirst});
  peer.manager().OnFirstPacketReceived(999);
  const uint64_t finished = base::KeyMetrics::GetPV(37006);
  const uint64_t succeeded = base::KeyMetrics::GetPV(37005);
  world.RunFor(S(3));
  EXPECT_EQ(kept(), (Kept{INT64_MAX, kNone, false, false, world.wall_us() - world.steady_ticks_us()}));
  EXPECT_EQ(manager().GetNtpTimestampFrom1970(), 0);
  EXPECT_THAT(log, ::testing::ElementsAre(
                       Line{0, "NTP time sync failed:192.0.2.11, use sample count:0, IP:192.0.2.11:123"}));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, kNone);
  EXPECT_EQ(observer->outcomes[0].message, "no usable result");
  EXPECT_TRUE(observer->outcomes[0].server.address_empty());
  for (const int kind : {0, 2}) {
    EXPECT_EQ(Stats(kind), (NtpFunctionRequestStats{3000, 3000, 1, 0, kind, 1, 3000}));
  }
  EXPECT_EQ(base::KeyMetrics::GetPV(37006), finished + 1);
  EXPECT_EQ(base::KeyMetrics::GetPV(37005), succeeded);
}

TEST_F(SyncOutcomeTest, APoorResultAlongsideAKeptSuccessIsReportedAsInaccurate) {
  BeginAttempt({kFirst});
  KeepGoodResult(500);
  const Kept before = kept();
  Receive(first, PoorBurst(7000));
  world.RunFor(Ms(200));
  EXPECT_EQ(kept(), before);
  EXPECT_THAT(log, ::testing::ElementsAre(
                       Line{0,
                            "Not reliable rtt stdev:0.000000, avg:20.000000, offset max_dev:100000, "
                            "avg:7000"},
                       Line{0, "Use last sync result:0, offset:500, reliable:1, rtt reliable:1"},
                       Line{0,
                            "NTP time sync finished, but result maybe inaccurate, final offset:500, "
                            "result:192.0.2.11, use sample count:4, IP:192.0.2.11:123, offset:7000, "
                            "ntp time:2024-01-01T00:00:00.200500Z"}));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, kPoor);
  EXPECT_EQ(observer->outcomes[0].message, "the result may be inaccurate");
  EXPECT_EQ(observer->outcomes[0].server, first);
  EXPECT_EQ(Stats(2), (NtpFunctionRequestStats{200, 200, 1, 1, 2, 0, 200}));
  EXPECT_EQ(peer.last_result(), kGood);
}

TEST_F(SyncOutcomeTest, AFailureAlongsideAKeptSuccessIsReportedAsInaccurate) {
  BeginAttempt({kFirst});
  KeepGoodResult(500);
  world.RunFor(S(3));
  EXPECT_EQ(observer->outcomes.at(0).result, kPoor);
  EXPECT_EQ(Stats(2).success_count, 1u);
  EXPECT_EQ(Stats(0).failure_count, 1u);
  EXPECT_EQ(peer.ntp_offset_us(), 500);
  EXPECT_EQ(peer.last_result(), kGood);
}

TEST_F(SyncOutcomeTest, AFailureAlongsideAKeptPoorResultPrintsThatItHadNoOffset) {
  Attempt(PoorBurst(4000));
  ASSERT_EQ(peer.ntp_offset_us(), 4000);
  observer->outcomes.clear();
  Attempt({});
  EXPECT_EQ(kept(), (Kept{4000, kPoor, true, false, world.wall_us() - world.steady_ticks_us()}));
  EXPECT_THAT(log, ::testing::ElementsAre(
                       Line{0, "Use last sync result:1, offset:4000, reliable:0, rtt reliable:1"},
                       Line{0,
                            "NTP time sync finished, but result maybe inaccurate, final offset:4000, "
                            "result:192.0.2.11, use sample count:0, IP:192.0.2.11:123, "
                            "offset:9223372036854775807, ntp time:2024-01-01T00:00:03.204000Z"}));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, kPoor);
  EXPECT_EQ(Stats(2).success_count, 2u);
  EXPECT_EQ(Stats(0).failure_count, 1u);
}

TEST_F(SyncOutcomeTest, OfTwoPoorResultsTheNewerOneIsKept) {
  Attempt(PoorBurst(4000));
  EXPECT_EQ(peer.ntp_offset_us(), 4000);
  Attempt(PoorBurst(5000));
  EXPECT_EQ(kept(), (Kept{5000, kPoor, true, false, world.wall_us() - world.steady_ticks_us()}));
  EXPECT_EQ(observer->outcomes.size(), 2u);
}

TEST_F(SyncOutcomeTest, AnAttemptWithoutSuccessTouchesNeitherTheStampsNorTheCost) {
  Attempt(GoodBurst(0));
  const int64_t ntp_us = peer.last_sync_ntp_timestamp_us();
  const int64_t local_ms = peer.last_sync_local_time_ms();
  ASSERT_NE(ntp_us, 0);
  for (const auto& samples : {PoorBurst(50), {}}) {
    peer.last_request_cost_ms() = 900;  // so that the result is not fresh
    Attempt(samples);
    EXPECT_EQ(peer.last_request_cost_ms(), 900u);
    EXPECT_EQ(peer.last_sync_ntp_timestamp_us(), ntp_us);
    EXPECT_EQ(peer.last_sync_local_time_ms(), local_ms);
  }
  EXPECT_EQ(observer->outcomes.size(), 3u);
}

TEST_F(SyncOutcomeTest, AKeptPoorResultKeepsTheTimeBaseOfItsOwnAttempt) {
  Attempt(GoodBurst(0));
  world.StepWall(S(-3));
  const int64_t base_us = peer.system_offset_from_steady_us();
  Attempt({});
  EXPECT_EQ(peer.system_offset_from_steady_us(), base_us) << "a failure replaced the time base";
  ASSERT_EQ(peer.last_result(), kPoor) << "the step was not noticed";
  Attempt(PoorBurst(3000000));
  EXPECT_EQ(kept(), (Kept{3000000, kPoor, true, false, base_us - 3000000}));
}

TEST_F(SyncOutcomeTest, TheObserversHearTheAnsweringAddressWhereTheFailureLineNamesTheCurrentOne) {
  world.SetHost("two.test", {{Address("192.0.2.21"), Address("192.0.2.22")}});
  BeginAttempt({"two.test"});
  Receive(Address("192.0.2.21"), {{0, 20000}});
  world.RunFor(S(6));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].server, Address("192.0.2.21"));
  EXPECT_EQ(CountLog(0, "NTP time sync failed:two.test, use sample count:0, IP:192.0.2.22:123"), 1u);
}

TEST_F(SyncOutcomeTest, TheFailureLineGivesTheSampleCountOfTheRecord) {
  // An earlier request of the same attempt left a count, the last one no result.
  BeginAttempt({kFirst});
  peer.current_domain_info() = Domain(0);
  Record(kFirst).sample_count = 4;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpErrorResult(Domain(0)); });
  EXPECT_EQ(CountLog(0, "NTP time sync failed:192.0.2.11, use sample count:4, IP:192.0.2.11:123"), 1u);
}

TEST_F(SyncOutcomeTest, TheInaccurateLineNamesTheCurrentAddressToo) {
  world.SetHost("two.test", {{Address("192.0.2.21"), Address("192.0.2.22")}});
  BeginAttempt({"two.test"});
  KeepGoodResult(0);
  Receive(Address("192.0.2.21"), {{0, 20000}});
  world.RunFor(S(6));
  EXPECT_EQ(observer->outcomes.at(0).server, Address("192.0.2.21"));
  const auto lines = LogLinesWith("NTP time sync finished");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0].text, ::testing::HasSubstr("IP:192.0.2.22:123, offset:9223372036854775807"));
}

TEST_F(SyncOutcomeTest, WhenTheFailureLineIsWrittenTheAttemptIsStillOpenAndUncounted) {
  for (const bool is_kept : {false, true}) {
    Attempt({});
    BeginAttempt({kFirst});
    if (is_kept) {
      KeepGoodResult(0);
    }
    peer.function_request_stats().clear();
    observer->outcomes.clear();
    int lines = 0;
    base::SetLogSink([&](const base::LogLine& line) {
      lines += line.text.starts_with("NTP time sync f") ? 1 : 0;
      EXPECT_FALSE(peer.is_sync_finished());
      EXPECT_EQ(peer.function_request_stats().count(0), 1u);
      EXPECT_EQ(peer.function_request_stats().count(2), 0u);
      EXPECT_TRUE(observer->outcomes.empty());
    });
    world.RunFor(S(3));
    base::SetLogSink([](const base::LogLine&) {});
    EXPECT_EQ(lines, 1);
    EXPECT_EQ(observer->outcomes.size(), 1u);
  }
}

TEST_F(SyncOutcomeTest, WhenObserversHearOfAFailureItIsCountedAndTheRecordsAreStillThere) {
  BeginAttempt({kFirst, kSecond});
  Receive(first, {{0, 20000}});
  observer->on_outcome = [&] {
    EXPECT_TRUE(peer.is_sync_finished());
    EXPECT_FALSE(peer.is_started());
    EXPECT_EQ(peer.function_request_stats().at(2).failure_count, 1u);
    EXPECT_EQ(LogLinesWith("NTP time sync failed").size(), 1u);
    EXPECT_EQ(Record(kFirst).cost_ms, 3000u);
    EXPECT_EQ(Record(kFirst).endpoint, first);
  };
  world.RunFor(S(3));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(Record(kFirst), NtpDomainResult());
  EXPECT_EQ(Record(kSecond), NtpDomainResult());
}

TEST_F(SyncOutcomeTest, AnAttemptWithoutSuccessIsReportedForTheDomainWithTheLargerCode) {
  struct Case {
    const char* what;
    bool is_first_poor;
    bool is_second_poor;
    size_t reported;  // index of the domain
  };
  // The first domain always finishes first: both are handled in the same instant, in list order.
  const Case cases[] = {
      {"only the first has an offset", true, false, 0},
      {"only the second has one", false, true, 1},
      {"both have one: the first to finish stays", true, true, 0},
      {"neither has one: the first to finish stays", false, false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    peer.current_domain_info() = nullptr;
    peer.last_result() = kNone;
    observer->outcomes.clear();
    peer.function_request_stats().clear();
    BeginAttempt({kFirst, kSecond});
    // Five samples are evaluated at three seconds; two say nothing.
    auto samples_of = [](bool is_poor, int64_t offset_us) {
      auto samples = PoorBurst(offset_us);
      samples.resize(is_poor ? 5 : 2);
      return samples;
    };
    Receive(first, samples_of(c.is_first_poor, 1000));
    Receive(second, samples_of(c.is_second_poor, 2000));
    Record(kFirst).request_start_time_us -= 10000;
    world.RunFor(S(3));
    ASSERT_EQ(observer->outcomes.size(), 1u);
    EXPECT_EQ(observer->outcomes[0].server, c.reported == 0 ? first : second);
    EXPECT_EQ(peer.current_domain_info(), Domain(c.reported));
    EXPECT_EQ(Stats(2).total_cost_ms, c.reported == 0 ? 3010u : 3000u);
    const bool is_failed = !c.is_first_poor && !c.is_second_poor;
    const std::string& name = c.reported == 0 ? kFirst : kSecond;
    ASSERT_FALSE(log.empty());
    EXPECT_THAT(log.back().text,
                ::testing::HasSubstr(is_failed ? "NTP time sync failed:" + name + ", "
                                               : ", result:" + name + ", use sample count:3, IP:" + name));
  }
}

TEST_F(SyncOutcomeTest, TheErrorPathDoesNotCountTheDomainsRequestAgain) {
  BeginAttempt({kFirst});
  peer.current_domain_info() = Domain(0);
  Record(kFirst).cost_ms = 77;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpErrorResult(Domain(0)); });
  EXPECT_EQ(peer.function_request_stats().size(), 1u);
  EXPECT_EQ(Stats(2), (NtpFunctionRequestStats{77, 77, 1, 0, 2, 1, 77}));
  EXPECT_TRUE(peer.is_sync_finished());
}

TEST_F(SyncOutcomeTest, AnAttemptTooShortToBeMeasuredIsCountedAsAnAttempt) {
  BeginAttempt({kFirst});
  Record(kFirst).result = kGood;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpSuccessResult(Domain(0)); });
  EXPECT_EQ(peer.function_request_stats().size(), 1u);
  EXPECT_EQ(Stats(2), (NtpFunctionRequestStats{0, 0, 1, 1, 2, 0, 0}));
}

TEST_F(SyncOutcomeTest, TheBestDomainOutlivesTheAttemptAndTheStop) {
  BeginAttempt({kFirst, kSecond});
  Receive(second, GoodBurst(0));
  world.RunFor(Ms(200));
  EXPECT_EQ(peer.current_domain_info(), Domain(1));
  world.RunFor(S(60));
  manager().Stop();
  world.RunFor(Us(0));
  EXPECT_EQ(peer.current_domain_info(), Domain(1));
}

// The comparison starts from the domain that the previous outcome left, whose record is of this attempt.
TEST_F(SyncOutcomeTest, OnATieTheDomainOfThePreviousOutcomeIsReported) {
  BeginAttempt({kFirst, kSecond});
  Receive(second, GoodBurst(0));
  world.RunFor(Ms(200));
  peer.last_result() = kNone;
  log.clear();
  Attempt({});
  EXPECT_EQ(CountLog(0, "NTP time sync failed:192.0.2.12, use sample count:0, IP:192.0.2.12:123"), 1u);
}

TEST_F(SyncOutcomeTest, AnErrorWithoutARecordOfTheBestDomainLeavesTheAttemptOpen) {
  BeginAttempt({kFirst, kSecond});
  peer.current_domain_info() = Domain(0);
  peer.domain_results().erase(kFirst);
  Record(kSecond).result = kPoor;
  const NtpDomainResult other = Record(kSecond);
  const Kept before = kept();
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpErrorResult(Domain(1)); });
  EXPECT_THAT(log, ::testing::ElementsAre(Line{1, "Not query domain:192.0.2.11"},
                                          Line{1, "Not query domain:192.0.2.11"}))
      << "one lookup for the choice, one of its own";
  EXPECT_EQ(peer.current_domain_info(), Domain(0));
  EXPECT_EQ(kept(), before);
  EXPECT_FALSE(peer.is_sync_finished());
  EXPECT_TRUE(peer.is_started());
  EXPECT_TRUE(peer.function_request_stats().empty());
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(Record(kSecond), other);
}

TEST_F(SyncOutcomeTest, AnErrorWithoutARecordOfTheLastDomainIsReportedForTheOther) {
  BeginAttempt({kFirst, kSecond});
  peer.current_domain_info() = Domain(0);
  peer.domain_results().erase(kSecond);
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.HandleServerNtpErrorResult(Domain(1)); });
  EXPECT_EQ(CountLog(1, "Not query domain:192.0.2.12"), 1u);
  EXPECT_EQ(LogLinesWith("NTP time sync failed:192.0.2.11").size(), 1u);
  EXPECT_EQ(observer->outcomes.size(), 1u);
}

TEST_F(SyncOutcomeTest, TheNextAttemptStartsFromCleanDomains) {
  Attempt({});
  Attempt(GoodBurst(42));
  ASSERT_EQ(observer->outcomes.size(), 2u);
  EXPECT_EQ(observer->outcomes[1].result, kGood);
  EXPECT_EQ(peer.ntp_offset_us(), 42);
}

}  // namespace
}  // namespace skorra
