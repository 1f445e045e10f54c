// SPDX-License-Identifier: Apache-2.0

// The list of server domains and its result records.
#include "platform/metrics/key_metrics.h"
#include "testing/manager_fixture.h"

namespace skorra {
namespace {

class DomainListTest : public ManagerTest {
 protected:
  DomainListTest() {
    world.SetHost("a.test", {{Address("192.0.2.1")}});
    world.SetHost("b.test", {{Address("192.0.2.2")}});
    world.SetHost("A.test", {{Address("192.0.2.3")}});
  }

  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const auto& info : peer.domain_infos()) {
      names.push_back(info->domain());
    }
    return names;
  }

  using Texts = std::vector<std::string>;
};

TEST_F(DomainListTest, ANameGivenTwiceIsAddedOnce) {
  AddDomains({"a.test", "a.test"});
  EXPECT_EQ(Names(), Texts{"a.test"});
  EXPECT_EQ(CountLog(0, "Add ntp service:a.test"), 1u);
  EXPECT_EQ(peer.domain_results().size(), 1u);
  EXPECT_EQ(Record("a.test"), NtpDomainResult());
}

TEST_F(DomainListTest, ALaterListIsAddedBehindTheEarlierOne) {
  AddDomains({"b.test"});
  AddDomains({"a.test"});
  EXPECT_EQ(Names(), (Texts{"b.test", "a.test"}));
}

TEST_F(DomainListTest, AKnownNameKeepsItsEntryAndItsRecord) {
  AddDomains({"a.test"});
  const NtpTimeDomainInfo* const entry = Domain(0).get();
  Record("a.test").sample_count = 4;
  AddDomains({"a.test", "b.test"});
  EXPECT_EQ(Domain(0).get(), entry);
  EXPECT_EQ(Record("a.test").sample_count, 4u);
  EXPECT_EQ(LogLinesWith("Add ntp service:").size(), 2u);
}

TEST_F(DomainListTest, ANewNameGetsAFreshRecordEvenWhereAnOldOneStands) {
  peer.domain_results()["a.test"].sample_count = 4;
  AddDomains({"a.test"});
  EXPECT_EQ(Record("a.test"), NtpDomainResult());
}

TEST_F(DomainListTest, ANameWithoutAddressAddsNothingAndLogsNothing) {
  AddDomains({"nowhere.test", ""});
  EXPECT_TRUE(peer.domain_infos().empty());
  EXPECT_TRUE(peer.domain_results().empty());
  EXPECT_TRUE(log.empty());
  // The stop of the queue is scheduled all the same.
  EXPECT_EQ(CountPosted(S(30)), 1u);
}

TEST_F(DomainListTest, ANameWithoutAddressStillStartsTheOthersDuringAnAttempt) {
  AddDomains({"a.test"});
  manager().Start();
  world.RunFor(Us(0));
  Record("a.test").is_requesting = false;
  AddDomains({"nowhere.test"});
  EXPECT_EQ(CountLog(0, "Start request: a.test"), 2u);
}

TEST_F(DomainListTest, NamesThatHangCostTogetherOneLimitAndTheGoodOneIsAdded) {
  std::vector<std::string> names;
  for (int i = 0; i < 10; ++i) {
    names.push_back("hanging" + std::to_string(i) + ".test");
    world.SetHost(names.back(), {.addresses = {Address("192.0.2.9")}, .delay_us = 60000000});
  }
  names.insert(names.begin() + 5, "a.test");
  const uint64_t timed_out_before = base::KeyMetrics::GetCount("ntp.domain.timed_out");
  const int64_t start_us = world.steady_ticks_us();
  AddDomains(names);
  EXPECT_EQ(world.steady_ticks_us() - start_us, 2000000);
  EXPECT_EQ(Names(), Texts{"a.test"});
  EXPECT_EQ(log, (std::vector<Line>{{0, "Add ntp service:a.test"}}));
  EXPECT_EQ(base::KeyMetrics::GetCount("ntp.domain.timed_out") - timed_out_before, 10u);
}

TEST_F(DomainListTest, NamesOfOneCallAreAddedInTheirOrderHoweverLongEachTakes) {
  world.SetHost("slow.test", {.addresses = {Address("192.0.2.8")}, .delay_us = 300000});
  world.SetHost("slower.test", {.addresses = {Address("192.0.2.9")}, .delay_us = 700000});
  const int64_t start_us = world.steady_ticks_us();
  AddDomains({"slower.test", "a.test", "192.0.2.77", "slow.test"});
  EXPECT_EQ(world.steady_ticks_us() - start_us, 700000);
  EXPECT_EQ(Names(), (Texts{"slower.test", "a.test", "192.0.2.77", "slow.test"}));
  EXPECT_EQ(log, (std::vector<Line>{{0, "Add ntp service:slower.test"},
                                    {0, "Add ntp service:a.test"},
                                    {0, "Add ntp service:192.0.2.77"},
                                    {0, "Add ntp service:slow.test"}}));
}

TEST_F(DomainListTest, ANameWithoutAddressCountsAsOftenAsItIsGiven) {
  const uint64_t before = base::KeyMetrics::GetCount("ntp.domain.not_found");
  AddDomains({"nowhere.test", "a.test", "nowhere.test"});
  EXPECT_EQ(base::KeyMetrics::GetCount("ntp.domain.not_found") - before, 2u);
  EXPECT_EQ(Names(), Texts{"a.test"});
}

TEST_F(DomainListTest, AKnownNameIsNotLookedUpAgain) {
  AddDomains({"a.test"});
  world.SetHost("a.test", {.addresses = {}, .delay_us = 500000});
  const int64_t start_us = world.steady_ticks_us();
  AddDomains({"a.test", "b.test"});
  EXPECT_EQ(world.steady_ticks_us(), start_us);
  EXPECT_EQ(Names(), (Texts{"a.test", "b.test"}));
}

TEST_F(DomainListTest, AnEmptyListWhileIdleSchedulesTheStop) {
  AddDomains({});
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(CountPosted(S(30)), 1u);
  world.RunFor(S(30));
  EXPECT_EQ(CountLog(0, "Stop ntp queue"), 1u);
}

TEST_F(DomainListTest, AnEmptyListDuringAnAttemptRestartsFinishedDomains) {
  network.AddServer(Address("192.0.2.1"), {.script = [](netmodel::Exchange& e) { e.is_answered = false; }});
  AddDomains({"a.test", "b.test"});
  manager().Start();
  world.RunFor(Us(0));
  world.RunAsTask(core::BusinessID::kNtpTime,
                  [&] { peer.FinishAndUpdateRequestStats(NtpResult::kNoResult, Domain(0)); });
  log.clear();
  AddDomains({});
  EXPECT_EQ(CountLog(0, "Start request: a.test"), 1u);
  EXPECT_TRUE(LogLinesWith("Start request: b.test").empty());
  EXPECT_EQ(CountPosted(S(30)), 1u);  // that of the update before the start
}

TEST_F(DomainListTest, NamesThatDifferInCaseAreDistinct) {
  AddDomains({"a.test", "A.test"});
  EXPECT_EQ(Names(), (Texts{"a.test", "A.test"}));
  EXPECT_EQ(peer.domain_results().size(), 2u);
}

TEST_F(DomainListTest, TheListIsCopiedWhenItIsGiven) {
  std::vector<std::string> names{"a.test"};
  manager().UpdateNtpTimeDomain(names);
  names[0] = "b.test";
  world.RunFor(Us(0));
  EXPECT_EQ(Names(), Texts{"a.test"});
}

TEST_F(DomainListTest, AnUpdateOnlyPostsOnTheCallersThread) {
  manager().UpdateNtpTimeDomain({"a.test"});
  ASSERT_EQ(world.posted().size(), 1u);
  EXPECT_EQ(world.posted()[0].delay_us, 0);
  EXPECT_TRUE(peer.domain_infos().empty());
  EXPECT_TRUE(log.empty());
}

TEST_F(DomainListTest, AnUnknownNameYieldsNullAndALogLineEachTime) {
  world.RunAsTask(core::BusinessID::kNtpTime, [&] {
    EXPECT_EQ(peer.QueryDomainResult("x.test"), nullptr);
    EXPECT_EQ(peer.QueryDomainResult("x.test"), nullptr);
  });
  EXPECT_EQ(CountLog(1, "Not query domain:x.test"), 2u);
  EXPECT_TRUE(peer.domain_results().empty());
}

TEST_F(DomainListTest, AKnownNameYieldsItsRecord) {
  AddDomains({"a.test"});
  world.RunAsTask(core::BusinessID::kNtpTime,
                  [&] { EXPECT_EQ(peer.QueryDomainResult("a.test"), &Record("a.test")); });
  EXPECT_TRUE(LogLinesWith("Not query").empty());
}

TEST_F(DomainListTest, AResetMakesEveryRecordFreshAndKeepsTheList) {
  world.SetHost("two.test", {{Address("192.0.2.8"), Address("192.0.2.9")}});
  AddDomains({"a.test", "two.test"});
  log.clear();
  world.RunAsTask(core::BusinessID::kNtpTime, [&] {
    Record("a.test").result = NtpResult::kMaybeInaccurate;
    Record("two.test").is_requesting = true;
    Domain(1)->samples().push_back({1, 2});
    EXPECT_TRUE(Domain(1)->Retry(peer.total_retry_count()));
    peer.current_domain_info() = Domain(1);
    peer.ResetServerDomainList();
  });
  EXPECT_EQ(Record("a.test"), NtpDomainResult());
  EXPECT_EQ(Record("two.test"), NtpDomainResult());
  EXPECT_EQ(peer.total_retry_count(), 0u);
  EXPECT_EQ(Names(), (Texts{"a.test", "two.test"}));
  EXPECT_EQ(peer.domain_results().size(), 2u);
  EXPECT_TRUE(Domain(1)->samples().empty());
  EXPECT_EQ(Domain(1)->GetCurrentIPAddress(), Address("192.0.2.8"));
  EXPECT_EQ(peer.current_domain_info(), Domain(1));
  EXPECT_TRUE(log.empty());
}

TEST_F(DomainListTest, TheBetterDomainIsTheOneWithTheLargerCodeUnlessTheCurrentSucceeded) {
  AddDomains({"a.test", "b.test"});
  const auto current = Domain(0);
  const auto candidate = Domain(1);
  peer.current_domain_info() = current;
  struct Case {
    int current_code;
    int candidate_code;
    bool candidate_wins;
  };
  for (const Case& c : {
           Case{-1, 1, true},    // a usable candidate beats a failure
           Case{1, -1, false},   // a failed candidate loses
           Case{-1, -1, false},  // the earlier domain wins a tie
           Case{1, 1, false},    // also this one
           Case{0, -1, false},   // a success stays
           Case{0, 0, false},    // also against another
           Case{0, 1, false},    // although 1 is the larger number
           Case{1, 0, false},    // numbers, not ranks
           Case{-1, 0, true},    // 0 is the larger number
       }) {
    SCOPED_TRACE(std::to_string(c.current_code) + " against " + std::to_string(c.candidate_code));
    Record("a.test").result = static_cast<NtpResult>(c.current_code);
    Record("b.test").result = static_cast<NtpResult>(c.candidate_code);
    world.RunAsTask(core::BusinessID::kNtpTime, [&] {
      EXPECT_EQ(peer.SelectBetterDomainInfo(candidate), c.candidate_wins ? candidate : current);
    });
  }
  EXPECT_EQ(peer.current_domain_info(), current);
}

TEST_F(DomainListTest, TheCurrentDomainStaysWhereARecordIsMissing) {
  AddDomains({"a.test", "b.test"});
  const auto current = Domain(0);
  peer.current_domain_info() = current;
  Record("b.test").result = NtpResult::kMaybeInaccurate;
  const auto stranger = std::make_shared<NtpTimeDomainInfo>("192.0.2.77");
  world.RunAsTask(core::BusinessID::kNtpTime, [&] {
    EXPECT_EQ(peer.SelectBetterDomainInfo(stranger), current);
    peer.current_domain_info() = stranger;
    EXPECT_EQ(peer.SelectBetterDomainInfo(Domain(1)), stranger);
  });
  EXPECT_EQ(CountLog(1, "Not query domain:192.0.2.77"), 2u);
}

TEST_F(DomainListTest, TheCurrentDomainStaysAndBothLookupsAreLoggedWhereBothRecordsAreMissing) {
  const auto current = std::make_shared<NtpTimeDomainInfo>("192.0.2.77");
  const auto candidate = std::make_shared<NtpTimeDomainInfo>("192.0.2.78");
  peer.current_domain_info() = current;
  world.RunAsTask(core::BusinessID::kNtpTime,
                  [&] { EXPECT_EQ(peer.SelectBetterDomainInfo(candidate), current); });
  EXPECT_EQ(log, (std::vector<Line>{{1, "Not query domain:192.0.2.77"}, {1, "Not query domain:192.0.2.78"}}));
}

}  // namespace
}  // namespace skorra
