// SPDX-License-Identifier: Apache-2.0

// What witnesses are asked, when a check ends, and what a reading says of it.
#include <algorithm>
#include <memory>

#include "ntp/ntp_attempt_control.h"
#include "platform/metrics/key_metrics.h"
#include "testing/log_recorder.h"
#include "testing/temp_dir.h"
#include "testing/vm_clock_page.h"
#include "tests/clock/witness_world.h"

namespace skorra {
namespace {

using base::kUsPerSecond;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr int64_t kHourUs = 3600 * kUsPerSecond;

uint64_t Count(const std::string& agreement) {
  return base::KeyMetrics::GetCount("clock.witnesses." + agreement);
}

class WitnessTest : public ::testing::Test, public WitnessWorld {
 protected:
  // The first of three lies by an hour.
  void AddALiarAndTwoHonest() {
    Add(Near(kHourUs, 500));
    Add(Near());
    Add(Near());
  }
};

// --- What is asked.

TEST_F(WitnessTest, EachOtherServerGetsTwoRequests10MsApartFromPortsOfTheirOwn) {
  for (int i = 0; i < 3; ++i) {
    Add(Near());
  }
  StartAll();
  ASSERT_TRUE(RunToOutcome());
  const int64_t outcome_ticks_us = world.steady_ticks_us();
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(RequestsTo(0), 20u);
  for (const size_t server : {1u, 2u}) {
    const auto& requests = network.requests(Address(Name(server)));
    ASSERT_EQ(requests.size(), 22u);
    EXPECT_EQ(requests[20].sent_ticks_us, outcome_ticks_us);
    EXPECT_EQ(requests[21].sent_ticks_us, outcome_ticks_us + 10000);
    EXPECT_EQ(requests[20].client, requests[21].client);
    EXPECT_NE(requests[20].client, requests[19].client);
    EXPECT_NE(requests[20].bytes, requests[21].bytes) << "a nonce of its own";
  }
  EXPECT_LE(world.steady_ticks_us(), outcome_ticks_us + 20000) << "all have answered";
}

TEST_F(WitnessTest, NoServerEverGetsMoreThanTwoRequestsBesidesItsBurst) {
  Add(Near());
  Add(Near());
  netmodel::ServerOptions silent = Near();
  silent.is_silent = true;
  Add(std::move(silent));
  StartAll();
  for (size_t attempt = 1; attempt <= 100; ++attempt) {
    ASSERT_TRUE(RunToReport());
    EXPECT_EQ(RequestsTo(0), 20 * attempt);
    EXPECT_EQ(RequestsTo(1), 22 * attempt);
    EXPECT_EQ(RequestsTo(2), 22 * attempt);
  }
}

TEST_F(WitnessTest, AServerThatRefusesIsNotAskedAgain) {
  Add(Near());
  for (const char* code : {"RATE", "DENY", "RSTR"}) {
    netmodel::ServerOptions refusing = Near();
    refusing.kiss_code = code;
    Add(std::move(refusing));
  }
  StartAll();
  ASSERT_TRUE(RunToOutcome());
  world.RunFor(S(3));
  ASSERT_EQ(reports.size(), 1u) << "nobody is asked, and nobody was heard";
  EXPECT_EQ(report().agreement, NtpClockAgreement::kUnchecked);
  EXPECT_EQ(report().servers.size(), 1u) << "the result's own";
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kUnchecked);
  for (const size_t server : {1u, 2u, 3u}) {
    EXPECT_LE(RequestsTo(server), 2u) << "until the first refusal came";
  }
}

TEST_F(WitnessTest, AServerThatMayBeWrongByAnyAmountIsNoVoice) {
  Add(Near(kHourUs));
  Add(Near());
  netmodel::ServerOptions unsure = Near();
  unsure.script = [](netmodel::Exchange& e) { e.reply.precision = 40; };
  Add(std::move(unsure));
  StartAll();
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(report().agreement, NtpClockAgreement::kConflict) << "with a third voice a majority would agree";
  EXPECT_EQ(Read().witness_count, 1u);
}

TEST_F(WitnessTest, AServerThatSentRateOnceIsHeardByItsBurstAlone) {
  Add(Near());
  netmodel::ServerOptions limited = Near();
  bool is_refusing = true;
  limited.script = [&](netmodel::Exchange& e) {
    if (is_refusing) {
      e.reply.stratum = 0;
      e.reply.reference_id = 0x52415445;  // "RATE"
    }
  };
  Add(std::move(limited));
  StartAll(200);
  ASSERT_TRUE(RunToOutcome());
  is_refusing = false;
  world.RunFor(S(190));
  const size_t before = RequestsTo(1);
  ASSERT_TRUE(RunToReport());
  world.RunFor(S(3));
  EXPECT_EQ(RequestsTo(1), before + NtpAddressLedger::kLimitedBurst);
  EXPECT_EQ(report().agreement, NtpClockAgreement::kAgrees);
  EXPECT_EQ(Read().witness_count, 1u);
}

TEST(WitnessRefusalTest, ARefusalOfAWitnessesRequestEndsItsCheckAndBinds) {
  for (const size_t refused : {20u, 21u}) {  // the first of the two, or the second
    WitnessWorld w;
    w.Add(w.Near());
    netmodel::ServerOptions refusing = w.Near();
    refusing.script = [refused](netmodel::Exchange& e) {
      if (e.index == refused) {
        e.reply.stratum = 0;
        e.reply.reference_id = 0x44454e59;  // "DENY"
      }
    };
    w.Add(std::move(refusing));
    w.StartAll();
    ASSERT_TRUE(w.RunToOutcome());
    const int64_t outcome_ticks_us = w.world.steady_ticks_us();
    ASSERT_TRUE(w.RunToReport());
    EXPECT_LE(w.world.steady_ticks_us(), outcome_ticks_us + 20000) << refused;
    EXPECT_EQ(w.RequestsTo(1), refused + 1);
    w.world.RunFor(KeptClock::S(3600));
    EXPECT_EQ(w.RequestsTo(1), refused + 1);
  }
}

TEST_F(WitnessTest, AnAnswerToAWitnessesRequestLeavesASilentBurstSilent) {
  Add(Near());
  netmodel::ServerOptions late = Near();
  late.script = [](netmodel::Exchange& e) { e.is_answered = e.index >= 20; };
  Add(std::move(late));
  StartAll();
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(Read().witness_count, 1u);
  const NtpAddressLedger& ledger = *NtpAddressLedger::GetInstance();
  EXPECT_EQ(ledger.GetCounts().at(Address(Name(1))).replies, 2u);
  EXPECT_FALSE(ledger.HasAnswered(Address(Name(1))));
  EXPECT_TRUE(ledger.IsSilent(Address(Name(1)), world.steady_ticks_us() + 5 * kUsPerSecond));
}

TEST_F(WitnessTest, TwoDomainsOnOneAddressAreOneServer) {
  Add(Near());
  Add(Near());
  world.SetHost("again.test", {.addresses = {Address(Name(1))}});
  world.SetHost("winner.test", {.addresses = {Address(Name(0))}});
  names = {Name(0), "winner.test", "again.test", Name(1)};
  StartAll();
  ASSERT_TRUE(RunToReport());
  world.RunFor(S(3));
  ASSERT_EQ(report().servers.size(), 2u);
  EXPECT_EQ(report().servers[1].domain, "again.test") << "the first name stands";
  EXPECT_EQ(Read().witness_count, 1u);
  EXPECT_EQ(RequestsTo(0), 20u);
  EXPECT_EQ(RequestsTo(1), 22u);
}

// What a world with `servers` servers has seen: tasks, readings of clocks, packets, and its next random
// number.
std::vector<uint64_t> Traces(const char* mode, size_t servers) {
  WitnessWorld w(mode);
  uint64_t readings = 0;
  w.world.SetSeamHook([&](sim::SeamCall call) {
    readings += call == sim::SeamCall::kMachineClocks || call == sim::SeamCall::kSteadyClock ? 1 : 0;
  });
  for (size_t i = 0; i < servers; ++i) {
    w.Add(w.Near());
  }
  w.StartAll();
  w.world.RunFor(KeptClock::S(100));
  EXPECT_GE(w.outcomes.size(), 5u);
  return {w.world.posted().size(), readings, w.RequestsTo(0), w.world.NextRandom(), w.reports.size()};
}

TEST(WitnessTraceTest, WithoutOtherServersNothingIsDone) {
  EXPECT_EQ(Traces("report", 1), Traces("off", 1));
  EXPECT_EQ(Traces("refuse", 1), Traces("off", 1));
  EXPECT_NE(Traces("report", 2), Traces("off", 2));
}

TEST_F(WitnessTest, OffAsksNobodyAndChecksNothing) {
  config.Set(config::BaseCfg().ntp_witnesses, "off");
  AddALiarAndTwoHonest();
  StartAll();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(RunToOutcome());
    EXPECT_EQ(Read().agreement, NtpClockAgreement::kUnchecked);
    EXPECT_EQ(Read().witness_count, 0u);
  }
  world.RunFor(S(3));
  EXPECT_THAT(reports, IsEmpty());
  for (const size_t server : {0u, 1u, 2u}) {
    EXPECT_EQ(RequestsTo(server), 400u);
  }
}

TEST_F(WitnessTest, AClockThatIsNotRunningAsksNoWitness) {
  Add(Near());
  Add(Near());
  peer.manager().UpdateNtpTimeDomain(names);
  world.RunFor(S(31));
  peer.manager().Start();
  ASSERT_TRUE(RunToOutcome());
  world.RunFor(S(3));
  EXPECT_TRUE(Read().has_time());
  EXPECT_THAT(reports, IsEmpty());
  EXPECT_EQ(RequestsTo(1), 20u);
}

// --- When it ends, and what is told.

TEST_F(WitnessTest, TheOutcomesReadingCarriesWhatWasHeardUntilThen) {
  AddALiarAndTwoHonest();
  StartAll();
  NtpClockReading at_outcome;
  on_outcome = [&](const NtpSyncOutcome& outcome) { at_outcome = outcome.reading; };
  ASSERT_TRUE(RunToOutcome());
  EXPECT_EQ(at_outcome.agreement, NtpClockAgreement::kOutvoted);
  EXPECT_EQ(at_outcome.witness_count, 2u);
  EXPECT_EQ(at_outcome.agreeing_count, 0u);
  EXPECT_THAT(reports, IsEmpty()) << "the report comes after the outcome";
  ASSERT_TRUE(RunToReport());
}

TEST_F(WitnessTest, ServersThatAreFarAreHeardByTheirTwoRequestsAlone) {
  Add(Near());
  Add(Near(0, 400000));  // the burst's replies come after the result
  StartAll();
  ASSERT_TRUE(RunToOutcome());
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kUnchecked);
  EXPECT_EQ(Read().witness_count, 0u);
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kAgrees);
  EXPECT_EQ(Read().witness_count, 1u);
  EXPECT_EQ(Read().agreeing_count, 1u);
}

TEST_F(WitnessTest, ACheckEndsWhenTheLongestRoundTripHasPassedSinceTheLastRequest) {
  netmodel::ServerOptions silent = Near();
  silent.is_silent = true;
  Add(Near());
  Add(std::move(silent));
  Add(Near());
  StartAll();
  ASSERT_TRUE(RunToOutcome());
  const int64_t outcome_ticks_us = world.steady_ticks_us();
  const uint64_t agrees = Count("agrees");
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(world.steady_ticks_us(), outcome_ticks_us + 10000 + 1500000);
  EXPECT_EQ(Count("agrees"), agrees + 1);
  EXPECT_EQ(report().servers.size(), 2u) << "the silent one has said nothing";
}

TEST_F(WitnessTest, AServerThatContradictsItselfHasNotAnswered) {
  Add(Near());
  netmodel::ServerOptions contradicting = Near();
  contradicting.script = [](netmodel::Exchange& e) { e.clock_error_us = e.index % 2 == 0 ? kHourUs : 0; };
  Add(std::move(contradicting));
  StartAll();
  const uint64_t before = Count("disagreeing");
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(report().agreement, NtpClockAgreement::kUnchecked);
  EXPECT_EQ(report().servers.size(), 1u);
  EXPECT_EQ(Read().witness_count, 0u);
  EXPECT_EQ(Count("disagreeing"), before + 1);
}

TEST_F(WitnessTest, AResultThatStandsInForAContradictoryOneIsCheckedToo) {
  netmodel::ServerOptions contradicting = Near(0, 1000);
  contradicting.script = [](netmodel::Exchange& e) {
    e.clock_error_us = static_cast<int64_t>(e.index % 20) * 2000;
  };
  Add(std::move(contradicting));
  Add(Near(kHourUs, 2000));
  Add(Near());
  Add(Near());
  StartAll();
  ASSERT_TRUE(RunToReport());
  EXPECT_STREQ(Read().domain, Name(1).c_str());
  EXPECT_EQ(report().agreement, NtpClockAgreement::kOutvoted);
  EXPECT_THAT(Outvoted(), ElementsAre(Name(1)));
}

TEST_F(WitnessTest, TheReportsLimitsAreDifferencesFromTheResultsEstimate) {
  Add(Near());
  Add(Near(100000, 5000));
  Add(Near(0, 20000));
  StartAll();
  ASSERT_TRUE(RunToReport());
  ASSERT_EQ(report().servers.size(), 3u);
  const NtpWitness& liar = report().servers[1];
  EXPECT_EQ(liar.server, Address(Name(1)));
  EXPECT_NEAR(static_cast<double>(liar.earliest_us), 95000, 200);
  EXPECT_NEAR(static_cast<double>(liar.latest_us), 105000, 200);
  EXPECT_TRUE(liar.is_outvoted);
  EXPECT_FALSE(liar.agrees);
  EXPECT_TRUE(report().servers[0].agrees);
  EXPECT_TRUE(report().servers[2].agrees);
  EXPECT_NEAR(static_cast<double>(report().majority_earliest_us), -4000, 200);
  EXPECT_NEAR(static_cast<double>(report().majority_latest_us), 4000, 200);
}

TEST_F(WitnessTest, EachAgreementIsCounted) {
  AddALiarAndTwoHonest();
  StartAll();
  const uint64_t before = Count("outvoted");
  ASSERT_TRUE(RunToReport());
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(Count("outvoted"), before + 2);
}

TEST_F(WitnessTest, TheLogSaysOnceThatAServerIsOutvotedOrThatTwoContradictEachOther) {
  LogRecorder log;
  base::SetLogThreshold(base::kLogFailure);
  bool is_lying = true;
  netmodel::ServerOptions liar = Near(0, 500);
  liar.script = [&](netmodel::Exchange& e) { e.clock_error_us = is_lying ? kHourUs : 0; };
  Add(std::move(liar));
  Add(Near());
  bool is_third_silent = false;
  netmodel::ServerOptions third = Near();
  third.script = [&](netmodel::Exchange& e) { e.is_answered = !is_third_silent; };
  Add(std::move(third));
  StartAll();
  const auto failures = [&] {
    std::vector<std::string> texts;
    for (const auto& line : log.lines) {
      if (line.level == base::kLogFailure) {
        texts.push_back(line.text);
      }
    }
    return texts;
  };
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(RunToReport());
  }
  EXPECT_THAT(failures(), ElementsAre(HasSubstr("server 203.0.113.1 is outvoted")));
  is_third_silent = true;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(RunToReport());
  }
  EXPECT_THAT(failures(), ElementsAre(HasSubstr("outvoted"), HasSubstr("2 servers contradict each other")));
  is_lying = false;
  is_third_silent = false;
  ASSERT_TRUE(RunToReport());
  is_lying = true;
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(failures().size(), 3u) << "again after it was over";
}

// --- Without a bound while outvoted.

// No bound passes a limit and no interval ends: the sync that may bring the bound back comes all the same.
TEST_F(WitnessTest, ARefusedReadingWithoutAnIntervalIsSyncedAgain) {
  config.Set(config::BaseCfg().ntp_witnesses, "refuse");
  config.Set(config::BaseCfg().ntp_sync_interval, 0);
  Add(Near(kHourUs, 500));
  Add(Near());
  Add(Near());
  StartAll(0);
  ASSERT_TRUE(RunToReport());
  EXPECT_FALSE(Read().has_bound());
  ASSERT_EQ(outcomes.size(), 1u);
  world.RunFor(S(11 * 60));
  EXPECT_EQ(outcomes.size(), 2u);
}

TEST_F(WitnessTest, RefuseTakesTheBoundAwayWhileTheServerIsOutvotedAndGivesItBack) {
  config.Set(config::BaseCfg().ntp_witnesses, "refuse");
  bool is_lying = true;
  netmodel::ServerOptions liar = Near(0, 500);
  liar.script = [&](netmodel::Exchange& e) { e.clock_error_us = is_lying ? kHourUs : 0; };
  Add(std::move(liar));
  Add(Near());
  Add(Near());
  StartAll(64);
  NtpClockReading at_outcome;
  on_outcome = [&](const NtpSyncOutcome& outcome) { at_outcome = outcome.reading; };
  ASSERT_TRUE(RunToReport());
  for (const NtpClockReading& reading : {at_outcome, Read()}) {
    EXPECT_TRUE(reading.has_time());
    EXPECT_FALSE(reading.has_bound());
    EXPECT_EQ(reading.earliest_us, NtpClockReading().earliest_us);
    EXPECT_EQ(reading.status, NtpClockStatus::kSynchronized);
    EXPECT_EQ(reading.agreement, NtpClockAgreement::kOutvoted);
    EXPECT_NE(reading.best_estimate_us, 0);
  }
  is_lying = false;
  world.RunFor(S(40));
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kAgrees);
  EXPECT_TRUE(Read().has_bound());
  EXPECT_TRUE(IsTruthInside());
}

TEST_F(WitnessTest, RefuseLeavesTheBoundInAConflict) {
  config.Set(config::BaseCfg().ntp_witnesses, "refuse");
  Add(Near());
  Add(Near(kHourUs));
  StartAll();
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kConflict);
  EXPECT_TRUE(Read().has_bound());
}

TEST_F(WitnessTest, AReaderOfAReadingWithoutItsBoundDoesNotBringSyncAfterSync) {
  config.Set(config::BaseCfg().ntp_witnesses, "refuse");
  AddALiarAndTwoHonest();
  StartAll(3600);
  ASSERT_TRUE(RunToReport());
  ASSERT_FALSE(Read().has_bound());
  for (int second = 0; second < 3000; second += 10) {
    world.RunFor(S(10));
    OnQueue([&] { keeper->SyncIfReadingIsPoor(); });
  }
  EXPECT_EQ(outcomes.size(), 1u);
  world.RunFor(S(601));
  EXPECT_EQ(outcomes.size(), 2u) << "the next sync comes after the interval";
}

// The same through the process's clock, whose readers do not even post a task for it.
TEST(ProcessWitnessTest, ReadersOfAReadingWithoutItsBoundPostNothing) {
  ConfigScope config;
  ASSERT_EQ(config.Set(config::BaseCfg().ntp_witnesses, "refuse"), "");
  const FreshLedger fresh_ledger;
  sim::World world;
  sim::Network network(world);
  base::SetLogThreshold(base::kLogNothing);
  NtpClockOptions options;
  for (const size_t server : {0u, 1u, 2u}) {
    options.servers.push_back(WitnessWorld::Name(server));
    network.AddServer(Address(options.servers.back()), WitnessWorld::Near(server == 0 ? kHourUs : 0));
  }
  std::vector<NtpWitnessReport> reports;
  const auto subscription =
      NtpClock::ObserveWitnesses([&](const NtpWitnessReport& report) { reports.push_back(report); });
  NtpClock::Start(options);
  world.RunFor(KeptClock::S(100));
  ASSERT_EQ(reports.size(), 1u);
  ASSERT_FALSE(NtpClock::Read().has_bound());
  const size_t posted = world.posted().size();
  for (int i = 0; i < 40; ++i) {
    world.RunFor(KeptClock::S(10));
    NtpClock::Read();
  }
  EXPECT_EQ(world.posted().size(), posted);
  NtpClock::Stop();
  world.RunFor(KeptClock::S(1));
}

// A server that answers too late for the outcome may bring the bound back.
TEST_F(WitnessTest, TheFinalJudgementMayGiveTheBoundBack) {
  config.Set(config::BaseCfg().ntp_witnesses, "refuse");
  Add(Near());
  Add(Near(kHourUs));
  Add(Near(kHourUs));
  Add(Near(0, 300000));
  Add(Near(0, 300000));
  StartAll();
  ASSERT_TRUE(RunToOutcome());
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kOutvoted);
  EXPECT_FALSE(Read().has_bound());
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kAgrees);
  EXPECT_TRUE(IsTruthInside());
  EXPECT_TRUE(Read().has_bound());
}

// --- What may come in the middle of a check.

class MiddleOfACheckTest : public WitnessTest {
 protected:
  // Ends in the middle of a check that has heard the first request's reply of all but the silent one.
  void RunToTheMiddle() {
    AddALiarAndTwoHonest();
    netmodel::ServerOptions silent = Near();
    silent.is_silent = true;
    Add(std::move(silent));
    StartAll(3600);
    ASSERT_TRUE(RunToOutcome());
    world.RunFor(Ms(9));
    ASSERT_EQ(RequestsTo(1), 21u);
    ASSERT_THAT(reports, IsEmpty());
  }
};

TEST_F(MiddleOfACheckTest, ANewAttemptEndsIt) {
  RunToTheMiddle();
  OnQueue([&] { internal::RequestNtpAttempt(peer.manager()); });
  world.RunFor(Us(500));
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(report().attempt, 1u);
  EXPECT_THAT(Outvoted(), ElementsAre(Name(0)));
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kOutvoted);
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(report().attempt, 2u);
  EXPECT_EQ(RequestsTo(1), 43u) << "the second request of the first check is left out";
}

TEST_F(MiddleOfACheckTest, AStopOfTheHostEndsIt) {
  RunToTheMiddle();
  peer.manager().Stop();
  world.RunFor(S(5));
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(RequestsTo(1), 21u);
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kOutvoted);
}

TEST_F(MiddleOfACheckTest, AStopOfTheClockEndsIt) {
  RunToTheMiddle();
  OnQueue([&] { keeper->Stop(); });
  ASSERT_EQ(reports.size(), 1u);
  world.RunFor(S(5));
  EXPECT_EQ(reports.size(), 1u);
  EXPECT_EQ(RequestsTo(1), 21u);
}

TEST_F(MiddleOfACheckTest, AForkedChildForgetsItAndKeepsWhatTheOutcomeSaid) {
  RunToTheMiddle();
  const size_t sockets = world.open_socket_count();
  OnQueue([&] { keeper->ContinueInChild(); });
  EXPECT_EQ(world.open_socket_count(), sockets - 3);
  world.RunFor(S(5));
  EXPECT_THAT(reports, IsEmpty());
  EXPECT_EQ(RequestsTo(1), 21u);
  EXPECT_EQ(Read().agreement, NtpClockAgreement::kOutvoted);
  world.RunFor(S(3600));
  EXPECT_THAT(reports, ::testing::SizeIs(1)) << "the child's own attempt is checked";
}

TEST_F(MiddleOfACheckTest, TheKeepersEndEndsItInSilence) {
  RunToTheMiddle();
  const size_t sockets = world.open_socket_count();
  RemoveNtpSyncListener(keeper.get());
  OnQueue([&] { keeper.reset(); });
  EXPECT_EQ(world.open_socket_count(), sockets - 3);
  world.RunFor(S(5));
  EXPECT_THAT(reports, IsEmpty());
}

TEST_F(MiddleOfACheckTest, AMachineThatWasMovedIsNotJudged) {
  const TempDir folder;
  const std::string path = folder / "vmclock";
  WriteFile(path, VmClockPage(7));
  AddALiarAndTwoHonest();
  NtpClockOptions options;
  options.servers = names;
  options.vmclock_path = path;
  Start(options);
  ASSERT_TRUE(RunToOutcome());
  WriteFile(path, VmClockPage(8));
  world.RunFor(S(3));
  EXPECT_THAT(reports, IsEmpty());
}

// Two more requests after each end leave no socket open.
TEST_F(WitnessTest, ACheckThatIsOverLeavesNoSocketOpen) {
  Add(Near());
  Add(Near());
  StartAll();
  ASSERT_TRUE(RunToOutcome());
  const size_t sockets = world.open_socket_count();
  ASSERT_TRUE(RunToReport());
  EXPECT_EQ(world.open_socket_count(), sockets);
}

// --- Smearing.

class WitnessSmearTest : public ::testing::Test {
 protected:
  // Moves the world's beginning, 1 January 2024, by days.
  static void Pass(WitnessWorld& w, int64_t days) { w.world.RunFor(KeptClock::S(days * 86400)); }
};

TEST_F(WitnessSmearTest, AServerThatSmearsNearTheEndOfJuneIsSaidToDoSo) {
  // 30 June is the 182nd day of 2024.
  const struct {
    int64_t days;
    int64_t ahead_us;
    bool may_be_smear;
  } cases[] = {{181, 500000, true}, {181, -500000, true}, {181, 2000000, false}, {150, 500000, false}};
  for (const auto& c : cases) {
    WitnessWorld w;
    w.Add(w.Near());
    w.Add(w.Near(c.ahead_us));
    Pass(w, c.days);
    w.StartAll();
    ASSERT_TRUE(w.RunToReport());
    EXPECT_EQ(w.report().may_be_smear, c.may_be_smear) << c.days << ' ' << c.ahead_us;
  }
}

TEST_F(WitnessSmearTest, AServerThatAnnouncesALeapSecondMakesItOne) {
  WitnessWorld w;
  Pass(w, 100);
  w.Add(w.Near());
  netmodel::ServerOptions announcing = w.Near(500000);
  announcing.leap_indicator = 1;
  w.Add(std::move(announcing));
  w.StartAll();
  ASSERT_TRUE(w.RunToReport());
  EXPECT_TRUE(w.report().may_be_smear);
}

TEST_F(WitnessSmearTest, ADifferenceThatStaysOverThreeChecksMayBeOne) {
  WitnessWorld w;
  int64_t ahead_us = 300000;
  netmodel::ServerOptions other = w.Near();
  other.script = [&](netmodel::Exchange& e) { e.clock_error_us = ahead_us; };
  w.Add(w.Near());
  w.Add(std::move(other));
  Pass(w, 100);
  w.StartAll();
  const auto next = [&] {
    EXPECT_TRUE(w.RunToReport());
    return w.report().may_be_smear;
  };
  EXPECT_FALSE(next());
  EXPECT_FALSE(next());
  EXPECT_TRUE(next());
  EXPECT_TRUE(next());
  ahead_us = -300000;
  EXPECT_FALSE(next()) << "the other direction";
  EXPECT_FALSE(next());
  EXPECT_TRUE(next());
  ahead_us = 0;
  EXPECT_FALSE(next()) << "it agrees";
}

}  // namespace
}  // namespace skorra
