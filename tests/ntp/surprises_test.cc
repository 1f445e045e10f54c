// SPDX-License-Identifier: Apache-2.0

// What may surprise a user of the manager. The header ntp_time_manager.h tells each of these, with what to do
// about it; a change here needs a change there. An observer that throws needs a real queue:
// tests/system/throwing_observer_test.cc.
#include <vector>

#include "testing/manager_fixture.h"

namespace skorra {
namespace {

const std::string kName = "192.0.2.31";

class SurprisesTest : public ManagerTest {
 protected:
  int64_t Read() { return manager().GetNtpTimestampFrom1970(); }
  int64_t TrueSince1970Us() { return world.true_us() - base::kWindowsToUnixEpochUs; }

  // A server whose first reply is an hour ahead of its others.
  void AddServerWhoseFirstReplyLies() {
    const auto script = [](netmodel::Exchange& exchange) {
      exchange.clock_error_us = exchange.index == 0 ? kHourUs : 0;
    };
    network.AddServer(Address(kName), {.script = script});
  }
  // Answers the first two requests of all, which are too few for a result, and then nothing.
  void AddServerThatFallsSilent() {
    const auto script = [](netmodel::Exchange& exchange) {
      exchange.is_answered = exchange.index < 2;
      exchange.clock_error_us = kHourUs;
    };
    network.AddServer(Address(kName), {.script = script});
  }

  void Begin() {
    manager().AddObserver(observer);
    manager().UpdateNtpTimeDomain({kName});
    ASSERT_EQ(manager().Start(), 0);
  }
  // The first attempt succeeds.
  void Succeed() {
    network.AddServer(Address(kName), {});
    AddDomains({kName});
    Sync();
    ASSERT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
  }
  void SilenceServer() { network.AddServer(Address(kName), {.is_silent = true}); }

  static constexpr int64_t kHourUs = 3600000000;
};

// --- A reading before the first graded outcome is provisional.

TEST_F(SurprisesTest, AReadingBeforeTheFirstOutcomeIsTheFirstReplyAloneAndUnchecked) {
  AddServerWhoseFirstReplyLies();
  Begin();
  ASSERT_TRUE(world.RunUntil([&] { return Read() != 0; }, S(1)));
  ASSERT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(Read(), TrueSince1970Us() + kHourUs);
  ASSERT_TRUE(world.RunUntil([&] { return !observer->outcomes.empty(); }, S(60)));
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(Read(), TrueSince1970Us());
}

TEST_F(SurprisesTest, AReadingInsideTheOutcomeIsTheGradedOne) {
  AddServerWhoseFirstReplyLies();
  int64_t error_us = kHourUs;
  observer->on_outcome = [&] { error_us = Read() - TrueSince1970Us(); };
  Begin();
  world.RunFor(S(1));
  EXPECT_EQ(error_us, 0);
}

TEST_F(SurprisesTest, AProvisionalReadingGoesBackToZeroWhenTheAttemptEndsWithoutAResult) {
  AddServerThatFallsSilent();
  Begin();
  ASSERT_TRUE(world.RunUntil([&] { return Read() != 0; }, S(1)));
  ASSERT_TRUE(world.RunUntil([&] { return !observer->outcomes.empty(); }, S(60)));
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kNoResult);
  EXPECT_EQ(Read(), 0);
}

TEST_F(SurprisesTest, AfterAnOutcomeWithoutAResultTheNextReadingIsProvisionalAgain) {
  SilenceServer();
  Begin();
  ASSERT_TRUE(world.RunUntil([&] { return !observer->outcomes.empty(); }, S(60)));
  ASSERT_EQ(observer->outcomes[0].result, NtpResult::kNoResult);
  AddServerWhoseFirstReplyLies();
  world.RunFor(S(31));
  ASSERT_EQ(manager().Start(), 0);
  ASSERT_TRUE(world.RunUntil([&] { return Read() != 0; }, S(1)));
  EXPECT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(Read(), TrueSince1970Us() + kHourUs);
}

TEST_F(SurprisesTest, AfterAGradedOutcomeAReadingNeverGoesBackToZero) {
  Succeed();
  SilenceServer();
  world.RunFor(S(3600));
  for (int i = 0; i < 3; ++i) {
    const size_t before = observer->outcomes.size();
    manager().Start();
    ASSERT_TRUE(world.RunUntil([&] { return observer->outcomes.size() > before; }, S(60)));
    EXPECT_EQ(observer->outcomes.back().result, NtpResult::kMaybeInaccurate) << "an older result is kept";
    EXPECT_EQ(Read(), TrueSince1970Us());
    world.RunFor(S(120));  // the reading starts another attempt, which a stop follows
  }
}

TEST_F(SurprisesTest, AProvisionalReadingStaysAfterAStopInMidAttempt) {
  AddServerWhoseFirstReplyLies();
  Begin();
  ASSERT_TRUE(world.RunUntil([&] { return Read() != 0; }, S(1)));
  manager().Stop();
  world.RunFor(S(500));
  EXPECT_EQ(Read(), TrueSince1970Us() + kHourUs);
  EXPECT_TRUE(observer->outcomes.empty());
  // Only the outcome of another attempt replaces it.
  Sync();
  EXPECT_EQ(Read(), TrueSince1970Us());
}

// --- Attempts without an outcome.

TEST_F(SurprisesTest, AnAttemptWithoutAnyServerHasNoOutcomeHoweverOftenItIsStarted) {
  manager().AddObserver(observer);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(manager().Start(), 0);
    world.RunFor(S(60));
  }
  EXPECT_TRUE(observer->outcomes.empty());
}

TEST_F(SurprisesTest, AStartWithinThirtySecondsOfAnOutcomeIsCutAndHasNoOutcome) {
  Succeed();
  SilenceServer();
  world.RunFor(S(28));
  peer.is_reliable() = false;  // or the kept result would be announced again
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(S(60));
  EXPECT_EQ(observer->outcomes.size(), 1u);
  // A start after the cut has one.
  network.AddServer(Address(kName), {});
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(S(1));
  EXPECT_EQ(observer->outcomes.size(), 2u);
}

TEST_F(SurprisesTest, AStartWithinThirtySecondsOfAnOutcomeThatEndsInTimeHasOne) {
  Succeed();
  world.RunFor(S(28));
  peer.is_reliable() = false;
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(S(1));
  EXPECT_EQ(observer->outcomes.size(), 2u);
}

TEST_F(SurprisesTest, ADomainGivenWhileIdleCutsAnAttemptThirtySecondsLaterToo) {
  SilenceServer();
  AddDomains({kName});
  world.RunFor(S(28));
  manager().AddObserver(observer);
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(S(60));
  EXPECT_TRUE(observer->outcomes.empty());
}

TEST_F(SurprisesTest, AStartMadeBeforeAStopRunsIsCancelledAndItsDomainsAreSkippedUntilTheNextStop) {
  network.AddServer(Address(kName), {});
  AddDomains({kName});
  world.RunFor(S(31));
  manager().AddObserver(observer);
  manager().Stop();
  EXPECT_EQ(manager().Start(), 0);
  world.RunFor(S(60));
  EXPECT_TRUE(observer->outcomes.empty());
  // The next start asks nobody and never ends.
  EXPECT_EQ(manager().Start(), 0);
  world.RunFor(S(60));
  EXPECT_EQ(manager().Start(), -1);
  EXPECT_TRUE(observer->outcomes.empty());
  // A stop, a second, a start: the way out.
  manager().Stop();
  world.RunFor(S(1));
  Sync();
  EXPECT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
}

TEST_F(SurprisesTest, WhileAnAttemptRunsAStartRightAfterAStopReturnsMinusOneAndNothingRunsAfterwards) {
  SilenceServer();
  Begin();
  world.RunFor(S(1));
  manager().Stop();
  EXPECT_EQ(manager().Start(), -1);
  const size_t asked = network.requests(Address(kName)).size();
  world.RunFor(S(60));
  EXPECT_TRUE(observer->outcomes.empty());
  EXPECT_EQ(network.requests(Address(kName)).size(), asked);
}

// --- Intervals and clocks.

TEST_F(SurprisesTest, AWallClockSetBackADayEndsSelfResyncForADayButNotAStart) {
  Succeed();
  peer.is_reliable() = false;
  Read();  // starts a sync by itself
  world.RunFor(S(60));
  ASSERT_EQ(observer->outcomes.size(), 2u);
  world.StepWall(S(-86400));
  for (int hour = 0; hour < 23; ++hour) {
    world.RunFor(S(3600));
    Read();
  }
  world.RunFor(S(1));
  EXPECT_EQ(observer->outcomes.size(), 2u) << "the reads started nothing";
  ASSERT_EQ(manager().Start(), 0);
  world.RunFor(S(60));
  EXPECT_EQ(observer->outcomes.size(), 3u) << "a start asks at once";
}

TEST_F(SurprisesTest, AWallClockSetBackADayLetsReadsResyncAgainAfterADay) {
  Succeed();
  peer.is_reliable() = false;
  Read();
  world.RunFor(S(60));
  ASSERT_EQ(observer->outcomes.size(), 2u);
  world.StepWall(S(-86400));
  world.RunFor(S(86400 + 600));
  Read();
  world.RunFor(S(60));
  EXPECT_EQ(observer->outcomes.size(), 3u);
}

// A busy machine may put the thread aside between the readings of the two clocks.
TEST_F(SurprisesTest, FourMillisecondsBetweenTheReadingsOfTheTwoClocksChangeNothing) {
  Succeed();
  world.RunFor(S(60));
  world.SetSeamHook([&](sim::SeamCall call) {
    if (call == sim::SeamCall::kSteadyClock) {
      world.Block(Ms(4));
    }
  });
  EXPECT_EQ(manager().Start(), 0);
  world.SetSeamHook(nullptr);
  EXPECT_EQ(peer.last_result(), NtpResult::kSuccess);
  world.RunFor(S(1));
  ASSERT_EQ(observer->outcomes.size(), 2u);
  EXPECT_TRUE(observer->outcomes[1].server.address_empty()) << "announced again";
}

TEST_F(SurprisesTest, FiveMillisecondsBetweenTheReadingsOfTheTwoClocksLookLikeClocksThatRanApart) {
  Succeed();
  world.RunFor(S(60));
  log.clear();
  const int64_t offset_us = peer.ntp_offset_us();
  world.SetSeamHook([&](sim::SeamCall call) {
    if (call == sim::SeamCall::kSteadyClock) {
      world.Block(Ms(5));
    }
  });
  // Without the pause it announces the kept result again.
  EXPECT_EQ(manager().Start(), 0);
  world.SetSeamHook(nullptr);
  EXPECT_EQ(peer.last_result(), NtpResult::kMaybeInaccurate);
  EXPECT_EQ(peer.ntp_offset_us(), offset_us) << "the reading stays";
  world.RunFor(S(1));
  ASSERT_EQ(observer->outcomes.size(), 2u);
  EXPECT_FALSE(observer->outcomes[1].server.address_empty()) << "a new attempt";
  EXPECT_EQ(observer->outcomes[1].result, NtpResult::kSuccess);
}

// --- Names and replies.

TEST_F(SurprisesTest, ANameWithoutAnAddressIsForgottenAndMayBeGivenAgain) {
  AddDomains({"late.test"});
  world.SetHost("late.test", {{Address(kName)}});
  network.AddServer(Address(kName), {});
  manager().AddObserver(observer);
  manager().Start();
  world.RunFor(S(60));
  EXPECT_TRUE(observer->outcomes.empty()) << "the name was not kept";
  AddDomains({"late.test"});
  Sync();
  EXPECT_EQ(observer->outcomes.back().result, NtpResult::kSuccess);
}

TEST_F(SurprisesTest, RepliesThatDisagreeAreAveragedAndGradedAsMaybeInaccurate) {
  const auto script = [](netmodel::Exchange& exchange) {
    exchange.clock_error_us = exchange.index % 2 == 0 ? -kHourUs : kHourUs + 2000000;
  };
  network.AddServer(Address(kName), {.script = script});
  Begin();
  ASSERT_TRUE(world.RunUntil([&] { return !observer->outcomes.empty(); }, S(60)));
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kMaybeInaccurate);
  const int64_t error_us = Read() - TrueSince1970Us();
  EXPECT_NE(Read(), 0);
  EXPECT_LT(error_us, kHourUs + 2000000) << "what no reply said";
  EXPECT_GT(error_us, -kHourUs);
}

}  // namespace
}  // namespace skorra
