// SPDX-License-Identifier: Apache-2.0

// Where samples enter the manager, and when a domain has been asked enough.
#include "testing/manager_fixture.h"
#include "testing/samples.h"

namespace skorra {
namespace {

const std::string kFirst = "192.0.2.11";
const std::string kSecond = "192.0.2.12";

class SampleIntakeTest : public ManagerTest {
 protected:
  // The first address that `name` stands for is 192.0.2.21, the second 192.0.2.22, ...
  void SetHostWithAddresses(const std::string& name, int count) {
    sim::HostEntry host;
    for (int i = 1; i <= count; ++i) {
      host.addresses.push_back(Address("192.0.2." + std::to_string(20 + i)));
    }
    world.SetHost(name, host);
  }

  size_t CountChecks() { return CountPosted(Ms(200)); }

  const net::IPEndPoint first = Address(kFirst);
  const net::IPEndPoint second = Address(kSecond);
};

// --- The first offset.

TEST_F(SampleIntakeTest, AFirstOffsetIsTakenWhileNoneIsKnownEvenWithoutAnAttempt) {
  ASSERT_FALSE(peer.is_started());
  peer.manager().OnFirstPacketReceived(-2500);
  EXPECT_EQ(peer.ntp_offset_us(), -2500);
  EXPECT_EQ(manager().GetNtpTimestampFrom1970(), world.wall_us() - 2500 - base::kWindowsToUnixEpochUs);
}

TEST_F(SampleIntakeTest, AFirstOffsetTouchesNeitherCodeNorFlagsAndIsNotLogged) {
  peer.manager().OnFirstPacketReceived(0);
  EXPECT_EQ(peer.ntp_offset_us(), 0);
  EXPECT_EQ(peer.last_result(), NtpResult::kNoResult);
  EXPECT_FALSE(peer.is_rtt_reliable());
  EXPECT_FALSE(peer.is_reliable());
  EXPECT_EQ(peer.last_sync_ntp_timestamp_us(), 0);
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(world.posted().empty());
}

TEST_F(SampleIntakeTest, AFirstOffsetDoesNotReplaceAnEarlierProvisionalOne) {
  peer.manager().OnFirstPacketReceived(100);
  peer.manager().OnFirstPacketReceived(200);
  EXPECT_EQ(peer.ntp_offset_us(), 100);
}

TEST_F(SampleIntakeTest, AFirstOffsetDoesNotReplaceAnEvaluatedOne) {
  KeepGoodResult(700);
  peer.manager().OnFirstPacketReceived(200);
  EXPECT_EQ(peer.ntp_offset_us(), 700);
}

TEST_F(SampleIntakeTest, TheClockAnswersFromTheFirstReplyOnward) {
  network.AddServer(first, {.clock_error_us = 1500});
  AddDomains({kFirst});
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(Us(9999));
  EXPECT_EQ(manager().GetNtpTimestampFrom1970(), 0);
  world.RunFor(Us(1));
  EXPECT_EQ(manager().GetNtpTimestampFrom1970(), world.true_us() + 1500 - base::kWindowsToUnixEpochUs);
  EXPECT_EQ(peer.last_result(), NtpResult::kNoResult);
}

TEST_F(SampleIntakeTest, AFailedAttemptMakesRoomForANewFirstOffset) {
  AddUnsynchronisedServer(kFirst);
  BeginAttempt({kFirst});
  peer.manager().OnFirstPacketReceived(100);
  world.RunFor(S(3));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(peer.ntp_offset_us(), INT64_MAX);
  peer.manager().OnFirstPacketReceived(300);
  EXPECT_EQ(peer.ntp_offset_us(), 300);
}

// --- Samples.

TEST_F(SampleIntakeTest, SamplesAreKeptUnchangedInTheOrderOfTheirArrival) {
  BeginAttempt({kFirst});
  const std::vector<NtpResultData> samples = {{5, 10}, {-7, -1}, {0, 0}, {INT64_MIN, INT64_MAX}, {5, 10}};
  Receive(first, samples);
  EXPECT_EQ(Domain(0)->samples(), samples);
  EXPECT_TRUE(log.empty());
}

TEST_F(SampleIntakeTest, TheNumberOfSamplesIsNotLimited) {
  BeginAttempt({kFirst});
  Receive(first, Good(10000));
  EXPECT_EQ(Domain(0)->samples().size(), 10000u);
}

TEST_F(SampleIntakeTest, ASampleIsDroppedUnseenWhileNoAttemptIsRequested) {
  BeginAttempt({kFirst});
  peer.is_started() = false;
  Receive(first, Good(1));
  EXPECT_TRUE(Domain(0)->samples().empty());
  EXPECT_TRUE(Record(kFirst).endpoint.address_empty());
  peer.domain_results().clear();
  Receive(first, Good(1));
  EXPECT_TRUE(log.empty()) << "the record was looked for";
}

TEST_F(SampleIntakeTest, ASampleFromAnEndPointThatNoDomainUsesIsDropped) {
  BeginAttempt({kFirst});
  Receive(Address("192.0.2.99"), Good(1));
  Receive(Address(kFirst, 124), Good(1));
  Receive(net::IPEndPoint(), Good(1));
  EXPECT_TRUE(Domain(0)->samples().empty());
  EXPECT_TRUE(Record(kFirst).endpoint.address_empty());
  EXPECT_TRUE(log.empty());
}

TEST_F(SampleIntakeTest, ALateSampleFromAnAddressThatARetryHasLeftIsDropped) {
  SetHostWithAddresses("two.test", 2);
  BeginAttempt({"two.test"});
  world.RunFor(S(3));
  ASSERT_EQ(Domain(0)->GetCurrentIPAddress(), Address("192.0.2.22"));
  Receive(Address("192.0.2.21"), Good(1));
  EXPECT_TRUE(Domain(0)->samples().empty());
  Receive(Address("192.0.2.22"), Good(1));
  EXPECT_EQ(Domain(0)->samples().size(), 1u);
}

TEST_F(SampleIntakeTest, OfTwoDomainsAtOneEndPointOnlyTheFirstGetsTheSample) {
  world.SetHost("a.test", {{first}});
  world.SetHost("b.test", {{first}});
  BeginAttempt({"b.test", "a.test"});
  Receive(first, Good(1));
  EXPECT_EQ(Domain(0)->samples().size(), 1u);
  EXPECT_TRUE(Domain(1)->samples().empty());
  EXPECT_EQ(Record("b.test").endpoint, first);
  EXPECT_TRUE(Record("a.test").endpoint.address_empty());
}

TEST_F(SampleIntakeTest, TheFirstDomainAtAnEndPointDecidesAlsoWhenItIsNotBeingAsked) {
  world.SetHost("a.test", {{first}});
  world.SetHost("b.test", {{first}});
  BeginAttempt({"b.test", "a.test"});
  Record("b.test").is_requesting = false;
  Receive(first, Good(1));
  EXPECT_TRUE(Domain(0)->samples().empty());
  EXPECT_TRUE(Domain(1)->samples().empty());
}

TEST_F(SampleIntakeTest, TheSecondDomainGetsTheSamplesOfItsOwnAddress) {
  BeginAttempt({kFirst, kSecond});
  Receive(second, Good(2));
  EXPECT_TRUE(Domain(0)->samples().empty());
  EXPECT_EQ(Domain(1)->samples().size(), 2u);
}

TEST_F(SampleIntakeTest, ASampleAfterTheDomainsRequestHasFinishedIsDropped) {
  BeginAttempt({kFirst, kSecond});
  world.RunFor(S(1));
  Receive(first, Poor(6));
  world.RunFor(Ms(200));
  ASSERT_FALSE(Record(kFirst).is_requesting);
  ASSERT_TRUE(Record(kSecond).is_requesting);
  Receive(first, Good(1));
  EXPECT_TRUE(Domain(0)->samples().empty());
}

TEST_F(SampleIntakeTest, ASampleAfterTheAttemptHasEndedIsDropped) {
  BeginAttempt({kFirst, kSecond});
  Receive(first, Good(6));
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  Receive(second, Good(1));
  EXPECT_TRUE(Domain(1)->samples().empty());
  // Also when a new attempt is already requested, but not begun: the records are fresh.
  peer.is_started() = true;
  Receive(second, Good(1));
  EXPECT_TRUE(Domain(1)->samples().empty());
}

TEST_F(SampleIntakeTest, ASampleForADomainWithoutARecordIsDroppedWithALine) {
  BeginAttempt({kFirst});
  peer.domain_results().clear();
  Receive(first, Good(1));
  EXPECT_TRUE(Domain(0)->samples().empty());
  EXPECT_THAT(log, ::testing::ElementsAre(Line{1, "Not query domain:192.0.2.11"}));
  EXPECT_TRUE(peer.domain_results().empty());
}

TEST_F(SampleIntakeTest, TheRecordNamesTheEndPointThatAnsweredLast) {
  SetHostWithAddresses("two.test", 2);
  BeginAttempt({"two.test"});
  EXPECT_TRUE(Record("two.test").endpoint.address_empty());
  Receive(Address("192.0.2.21"), Good(1));
  EXPECT_EQ(Record("two.test").endpoint, Address("192.0.2.21"));
  world.RunFor(S(3));
  EXPECT_EQ(Record("two.test").endpoint, Address("192.0.2.21"));
  Receive(Address("192.0.2.22"), Good(2));
  EXPECT_EQ(Record("two.test").endpoint, Address("192.0.2.22"));
}

// --- When a domain has been asked enough.

TEST_F(SampleIntakeTest, ADomainIsEvaluatedByItsTimeOrByItsSamples) {
  struct Case {
    const char* what;
    int64_t age_us;
    size_t samples;
    bool is_evaluated;
  };
  const Case cases[] = {
      {"a fresh burst without a sample", 0, 0, false},
      {"five samples are not enough", 0, 5, false},
      {"six are", 0, 6, true},
      {"more than six may have come between two checks", 0, 20, true},
      {"one microsecond before the limit, five samples", 2999999, 5, false},
      {"one microsecond before the limit, six samples", 2999999, 6, true},
      {"at the limit, five samples", 3000000, 5, true},
      {"at the limit, none", 3000000, 0, true},
      {"after the limit", 3000001, 0, true},
      {"a start in the future is not old", -1000000, 5, false},
  };
  BeginAttempt({kFirst, kSecond});  // the second keeps the attempt open
  UseUpRepetition(0);               // so that without a result the first is finished
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Record(kFirst) = NtpDomainResult();
    Record(kFirst).is_requesting = true;
    Domain(0)->samples() = Poor(c.samples);
    const size_t posted = world.posted().size();
    world.RunAsTask(core::BusinessID::kNtpTime,
                    [&] { peer.CheckServerResult(peer.GetNowSystemTimestampUs() - c.age_us, Domain(0)); });
    EXPECT_EQ(Record(kFirst).is_requesting, !c.is_evaluated);
    EXPECT_EQ(Domain(0)->samples().size(), c.is_evaluated ? 0 : c.samples);
    ASSERT_EQ(world.posted().size() - posted, c.is_evaluated ? 0u : 1u);
    if (!c.is_evaluated) {
      EXPECT_EQ(world.posted().back().delay_us, 200000);
      EXPECT_STREQ(world.posted().back().from.file(), "ntp/ntp_time_manager_impl");
    }
  }
}

TEST_F(SampleIntakeTest, FiveSamplesKeepTheCheckGoingEvery200MsUntilTheSixthIsThere) {
  BeginAttempt({kFirst});
  EXPECT_EQ(CountChecks(), 1u);
  Receive(first, Good(5));
  world.RunFor(Ms(1999));
  EXPECT_EQ(CountChecks(), 10u);
  EXPECT_TRUE(observer->outcomes.empty());
  Receive(first, Good(1));
  EXPECT_TRUE(observer->outcomes.empty());
  world.RunFor(Ms(1));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(CountChecks(), 10u);
}

TEST_F(SampleIntakeTest, AServerWithoutAUsableReplyIsGivenUpAtExactlyThreeSeconds) {
  AddUnsynchronisedServer(kFirst);
  BeginAttempt({kFirst});
  world.RunFor(Us(2999999));
  EXPECT_TRUE(observer->outcomes.empty());
  world.RunFor(Us(1));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kNoResult);
  EXPECT_EQ(CountChecks(), 15u);
}

TEST_F(SampleIntakeTest, ASilentServerIsGivenUpAfterTwoBurstsOfExactlyThreeSeconds) {
  BeginAttempt({kFirst});
  world.RunFor(Us(2999999));
  EXPECT_EQ(CountChecks(), 15u);
  EXPECT_EQ(peer.total_retry_count(), 0u);
  world.RunFor(Us(1));
  EXPECT_EQ(CountChecks(), 16u);
  EXPECT_EQ(peer.total_retry_count(), 1u);
  world.RunFor(Us(2999999));
  EXPECT_TRUE(observer->outcomes.empty());
  world.RunFor(Us(1));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kNoResult);
  EXPECT_EQ(CountChecks(), 30u);
}

TEST_F(SampleIntakeTest, ARepostedCheckKeepsTheTimeAtWhichItsBurstStarted) {
  BeginAttempt({kFirst, kSecond});
  UseUpRepetition(0);
  const int64_t start_us = peer.GetNowSystemTimestampUs() - 2700000;
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.CheckServerResult(start_us, Domain(0)); });
  world.RunFor(Us(399999));
  EXPECT_TRUE(Record(kFirst).is_requesting);
  world.RunFor(Us(1));
  EXPECT_FALSE(Record(kFirst).is_requesting) << "3.1 s after the start that was given to the first check";
}

TEST_F(SampleIntakeTest, ARetryHasChecksAndATimeLimitOfItsOwn) {
  SetHostWithAddresses("two.test", 2);
  BeginAttempt({"two.test"});
  world.RunFor(Us(5999999));
  EXPECT_TRUE(observer->outcomes.empty());
  world.RunFor(Us(1));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(CountChecks(), 30u);
}

TEST_F(SampleIntakeTest, TheFirstCheckRunsWithinTheTaskThatPostsTheBurst) {
  BeginAttempt({kFirst, kSecond});
  Domain(0)->samples() = Poor(6);
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.SendPacketToServer(Domain(0)); });
  EXPECT_FALSE(Record(kFirst).is_requesting);
  EXPECT_TRUE(Domain(0)->samples().empty());
}

TEST_F(SampleIntakeTest, AWaitingCheckKeepsItsDomainAlive) {
  BeginAttempt({kFirst});
  const std::weak_ptr<NtpTimeDomainInfo> domain = Domain(0);
  peer.domain_infos().clear();
  EXPECT_FALSE(domain.expired());
  manager().Stop();
  world.RunFor(Ms(200));
  EXPECT_TRUE(domain.expired());
}

TEST_F(SampleIntakeTest, ACheckOfAStoppedManagerNeitherEvaluatesNorPosts) {
  BeginAttempt({kFirst});
  Domain(0)->samples() = Good(6);
  peer.is_started() = false;
  const size_t posted = world.posted().size();
  world.RunAsTask(core::BusinessID::kNtpTime,
                  [&] { peer.CheckServerResult(peer.GetNowSystemTimestampUs() - 4000000, Domain(0)); });
  EXPECT_EQ(Domain(0)->samples().size(), 6u);
  EXPECT_TRUE(Record(kFirst).is_requesting);
  EXPECT_EQ(world.posted().size(), posted);
  EXPECT_TRUE(log.empty());
}

TEST_F(SampleIntakeTest, AfterAStopEveryWaitingCheckEndsAtItsNextRun) {
  BeginAttempt({kFirst, kSecond});
  Receive(first, Good(3));
  manager().Stop();
  world.RunFor(Us(0));
  log.clear();
  // What a check would see if it looked.
  Domain(0)->samples() = Good(6);
  const size_t posted = world.posted().size();
  world.RunFor(S(20));
  EXPECT_EQ(world.posted().size(), posted);
  EXPECT_EQ(Domain(0)->samples().size(), 6u);
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_TRUE(log.empty());
}

// --- What becomes of an evaluated domain.

TEST_F(SampleIntakeTest, AnEvaluationMaySeeMoreThanSixSamples) {
  network.AddServer(first, {.to_server = {.delay_us = 10000}, .to_client = {.delay_us = 10000}});
  AddDomains({kFirst});
  Sync();
  // The second check, at 200 ms, finds the answers to the 18 requests of 0 to 170 ms; four are cut off at
  // each end.
  const auto lines = LogLinesWith("NTP time sync successful");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0].text, ::testing::HasSubstr("use sample count:10,"));
}

TEST_F(SampleIntakeTest, TheFirstGoodDomainEndsTheAttemptWithoutWaitingForTheOthers) {
  BeginAttempt({kFirst, kSecond});
  Receive(second, Good(6));
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(observer->outcomes[0].server, second);
  EXPECT_FALSE(Record(kFirst).is_requesting);
  world.RunFor(S(20));
  EXPECT_EQ(observer->outcomes.size(), 1u) << "a check of the other domain is still at work";
}

TEST_F(SampleIntakeTest, AnInaccurateResultIsNoSuccessAndWaitsForTheOtherDomains) {
  BeginAttempt({kFirst, kSecond});
  Receive(first, Poor(6));
  world.RunFor(Ms(200));
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(Record(kFirst).result, NtpResult::kMaybeInaccurate);
  EXPECT_FALSE(Record(kFirst).is_requesting);
  EXPECT_EQ(CountLog(0, "192.0.2.11 request not success [1] and waiting other domain, total retry count: 0"),
            1u);
  Receive(second, Good(6));
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
}

TEST_F(SampleIntakeTest, AnInaccurateResultOfTheLastDomainEndsTheAttemptWithoutARetry) {
  SetHostWithAddresses("two.test", 2);
  BeginAttempt({"two.test"});
  Receive(Address("192.0.2.21"), Poor(6));
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kMaybeInaccurate);
  EXPECT_TRUE(network.requests(Address("192.0.2.22")).empty());
}

TEST_F(SampleIntakeTest, ADomainThatIsAskedAgainHasNoOutcomeYet) {
  SetHostWithAddresses("two.test", 2);
  BeginAttempt({"two.test"});
  world.RunFor(S(3));
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_TRUE(Record("two.test").is_requesting);
  EXPECT_FALSE(peer.is_sync_finished());
  world.RunFor(Ms(1));
  EXPECT_EQ(network.requests(Address("192.0.2.22")).size(), 1u);
}

TEST_F(SampleIntakeTest, AGoodResultAfterARetryIsASuccess) {
  SetHostWithAddresses("two.test", 2);
  BeginAttempt({"two.test"});
  world.RunFor(S(3));
  Receive(Address("192.0.2.22"), Good(6, -900));
  world.RunFor(Ms(200));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(peer.ntp_offset_us(), -900);
}

}  // namespace
}  // namespace skorra
