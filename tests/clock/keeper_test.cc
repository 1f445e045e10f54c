// SPDX-License-Identifier: Apache-2.0
#include "clock/keeper.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>

#include "gmock/gmock.h"
#include "ntp/ntp_attempt_control.h"
#include "testing/clock_fixture.h"
#include "testing/environment_number.h"

namespace skorra {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

constexpr char kA[] = "203.0.113.1";
constexpr char kB[] = "203.0.113.2";

using base::kUsPerSecond;

class KeeperTest : public ::testing::Test, public KeptClock {};

TEST_F(KeeperTest, AClockWithAGoodServerIsSynchronized) {
  network.AddServer(Address(kA), {});
  StartWith({kA});
  world.RunFor(S(1));
  EXPECT_THAT(Reasons(), ElementsAre(NtpSyncReason::kOk));
  EXPECT_EQ(Read().status, NtpClockStatus::kSynchronized);
  EXPECT_TRUE(IsTruthInside());
  EXPECT_STREQ(Read().domain, kA);
  EXPECT_LT(Read().error_bound_us, 10000);
}

TEST_F(KeeperTest, NoSyncIsMissedIn30DaysWhateverTheWallClockDoes) {
  network.AddServer(Address(kA), {});
  world.StepWall(-S(86400));
  StartWith({kA});
  world.RunFor(S(2));
  world.StepWall(-S(365 * 86400));
  int64_t oldest_us = 0;
  for (int hour = 0; hour < 30 * 24; ++hour) {
    for (int i = 0; i < 12; ++i) {
      world.RunFor(S(300));
      oldest_us = std::max(oldest_us, Read().age_us);
      ASSERT_TRUE(IsTruthInside());
    }
  }
  EXPECT_LE(oldest_us, 3600 * kUsPerSecond);
  EXPECT_THAT(Reasons(), Each(NtpSyncReason::kOk));
}

TEST_F(KeeperTest, AServerThatComesBackIsFoundWithin20Seconds) {
  network.AddServer(Address(kA), {.to_server = {.partitions = {{0, 45 * kUsPerSecond}}}});
  StartWith({kA});
  world.RunFor(S(45));
  EXPECT_FALSE(IsGraded());
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(20)));
}

TEST_F(KeeperTest, ANameThatGetsItsAddressInTheFirstTenSecondsIsUsedWithinFive) {
  network.AddServer(Address(kA), {});
  StartWith({"late.test"});
  world.RunFor(S(8));
  world.SetHost("late.test", {.addresses = {Address(kA)}});
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(5)));
}

TEST_F(KeeperTest, AFirstReplyThatLiesIsNeverTold) {
  network.AddServer(Address(kA), {.script = [](netmodel::Exchange& exchange) {
                      exchange.clock_error_us = exchange.index == 0 ? 3600 * kUsPerSecond : 0;
                    }});
  StartWith({kA});
  for (int i = 0; i < 1000; ++i) {
    world.RunFor(Ms(10));
    const NtpClockReading reading = Read();
    if (reading.has_time()) {
      ASSERT_LT(std::abs(reading.best_estimate_us - TrueUs()), kUsPerSecond);
    }
    ASSERT_TRUE(IsTruthInside());
  }
  EXPECT_TRUE(IsGraded());
}

TEST_F(KeeperTest, AStopAndAStartOfTheHostInARowDoNotStopTheClock) {
  network.AddServer(Address(kA), {});
  StartWith({kA});
  world.RunFor(S(3600));
  peer.manager().Stop();
  peer.manager().Start();
  world.RunFor(S(2));
  EXPECT_LT(Read().age_us, 3 * kUsPerSecond);
}

TEST_F(KeeperTest, AnAttemptThatFailsLeavesNothingProvisional) {
  network.AddServer(Address(kA), {.script = [](netmodel::Exchange& e) { e.is_answered = e.index < 2; }});
  StartWith({kA});
  world.RunFor(S(1));
  EXPECT_EQ(Read().status, NtpClockStatus::kProvisional);
  ASSERT_TRUE(world.RunUntil([&] { return !outcomes.empty(); }, S(30)));
  EXPECT_EQ(Read().status, NtpClockStatus::kUnknown);
}

TEST_F(KeeperTest, ASlewDuringABurstWidensTheBound) {
  for (const int64_t ppm : {-25000, 25000}) {
    KeptClock clock;
    clock.world.SlewSteady(ppm * 1000);
    clock.network.AddServer(Address(kA), {.to_server = {.delay_us = 200}, .to_client = {.delay_us = 200}});
    clock.StartWith({kA});
    ASSERT_TRUE(clock.world.RunUntil([&] { return clock.IsGraded(); }, S(1)));
    EXPECT_TRUE(clock.IsTruthInside()) << ppm;
  }
}

TEST_F(KeeperTest, TheKernelsCorrectionOfTheFrequencyIsNoSlew) {
  // The oscillator is 100 ppm too fast, and the kernel corrects it.
  world.SetSteadyError({.frequency_ppb = 100000});
  world.SetKernelFrequency(-100000);
  network.AddServer(Address(kA), {});
  StartWith({kA});
  world.RunFor(S(1));
  const int64_t before_us = Read().error_bound_us;
  world.RunFor(S(3000));
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_LT(Read().error_bound_us, before_us + 3000 * 50 + 100);
  EXPECT_TRUE(IsTruthInside());
}

TEST_F(KeeperTest, AResultThatProvesLessThanWhatIsKnownDoesNotReplaceIt) {
  bool is_bad = false;
  network.AddServer(Address(kA), {.to_client = {.jitter = netmodel::Distribution::kUniform, .jitter_us = 0},
                                  .script = [&](netmodel::Exchange& e) {
                                    // An offset that swings within its server's own, large error.
                                    if (is_bad) {
                                      e.reply.root_dispersion = 4 << 16;
                                      e.clock_error_us = e.index % 2 == 0 ? 60000 : -60000;
                                    }
                                  }});
  StartWith({kA});
  world.RunFor(S(60));
  is_bad = true;
  const int64_t before_us = Read().error_bound_us;
  Sync(S(30));
  world.RunFor(S(10));
  ASSERT_EQ(synced.size(), 1u);
  EXPECT_EQ(synced[0].reason, NtpSyncReason::kInaccurate);
  EXPECT_LT(Read().error_bound_us, before_us + 10 * 50 + 100);
}

TEST_F(KeeperTest, ASecondBurstStartsFromNothing) {
  // Two replies that lie, too few for a result, and then the truth.
  network.AddServer(Address(kA), {});
  network.AddServer(Address(kB), {.script = [](netmodel::Exchange& e) {
                      e.is_answered = e.index < 2;
                      e.clock_error_us = 3600 * kUsPerSecond;
                    }});
  world.SetHost("two.test", {.addresses = {Address(kB), Address(kA)}});
  StartWith({"two.test"});
  ASSERT_TRUE(world.RunUntil([&] { return !outcomes.empty(); }, S(30)));
  EXPECT_THAT(Reasons(), ElementsAre(NtpSyncReason::kOk));
  EXPECT_TRUE(IsTruthInside());
}

TEST_F(KeeperTest, TheServersAreAskedInTheOrderGiven) {
  StartWith({kB, kA, kB});
  world.RunFor(Ms(1));
  ASSERT_EQ(peer.domain_infos().size(), 2u);
  EXPECT_EQ(peer.domain_infos()[0]->domain(), kB);
  EXPECT_EQ(peer.domain_infos()[1]->domain(), kA);
}

TEST_F(KeeperTest, NoAttemptIsMadeWhileNoServerHasAnAddress) {
  StartWith({"unknown.test"});
  world.RunFor(S(3600));
  ASSERT_FALSE(outcomes.empty());
  EXPECT_EQ(outcomes.back().attempt, 0u);
}

TEST_F(KeeperTest, AStoppedClockEndsItsAttempt) {
  StartWith({kA});
  world.RunFor(S(1));
  ASSERT_TRUE(internal::IsNtpAttemptRequested(peer.manager()));
  OnQueue([&] { keeper->Stop(); });
  world.RunFor(S(1));
  EXPECT_FALSE(internal::IsNtpAttemptRequested(peer.manager()));
  world.RunFor(S(7200));
  EXPECT_FALSE(internal::IsNtpAttemptRequested(peer.manager()));
}

// Stops every attempt as soon as it has begun.
class Saboteur : public NtpSyncListener {
 public:
  explicit Saboteur(NtpTimeManager& manager) : manager_(manager) {}
  void OnAttemptBegun() override {
    if (++attempts < 1000) {
      manager_.Stop();
    }
  }
  int attempts = 0;

 private:
  NtpTimeManager& manager_;
};

TEST_F(KeeperTest, AHostThatStopsEveryAttemptDoesNotMakeTheClockSpin) {
  network.AddServer(Address(kA), {});
  const auto saboteur = std::make_shared<Saboteur>(peer.manager());
  AddNtpSyncListener(saboteur);
  StartWith({kA});
  world.RunFor(S(60));
  RemoveNtpSyncListener(saboteur.get());
  EXPECT_GE(saboteur->attempts, 12);
  EXPECT_LE(saboteur->attempts, 40);
  world.RunFor(S(10));
  EXPECT_TRUE(IsGraded());
}

// An announcement of a fresh result that crosses an attempt makes the manager forget the attempt: it has no
// end, and nothing tells of it.
TEST_F(KeeperTest, AnAttemptThatTheManagerForgotIsMadeAgain) {
  network.AddServer(Address(kA), {.to_client = {.delay_us = 300000}});
  StartWith({kA});
  world.RunFor(Ms(200));
  OnQueue([&] { peer.Notify(NtpResult::kNoResult, {}); });
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(10)));
}

// A domain that counts as being asked and is not keeps an attempt open, and the manager goes on waiting.
TEST_F(KeeperTest, AnAttemptThatNeverEndsIsStoppedAndMadeAgain) {
  peer.manager().UpdateNtpTimeDomain({kA, kB});
  world.RunFor(S(31));  // beyond the stop that follows the update
  peer.domain_results().at(kB).is_requesting = true;
  StartWith({});
  world.RunFor(S(39));
  ASSERT_TRUE(outcomes.empty());
  network.AddServer(Address(kA), {});
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(10)));
}

// --- Servers that lie.

struct Liar {
  const char* name;
  std::function<int64_t(size_t)> error_us;  // of its reply with this number
};

const Liar kLiars[] = {
    {"every_second_reply_is_an_hour_ahead",
     [](size_t index) { return index % 2 == 1 ? 3600 * kUsPerSecond : 0; }},
    {"the_last_six_of_a_burst_are_an_hour_ahead",
     [](size_t index) { return index % 20 >= 14 ? 3600 * kUsPerSecond : 0; }},
    {"each_reply_is_2_ms_further_ahead",
     [](size_t index) { return static_cast<int64_t>(index % 20) * 2000; }},
    {"each_reply_is_2_ms_further_behind",
     [](size_t index) { return static_cast<int64_t>(index % 20) * -2000; }},
};

// The ramp is the hard one: with a round trip near its length, each reply is possible by itself, and their
// intervals meet beside the truth.
TEST(LiarTest, AWrongTimeIsNeverToldWhateverTheRoundTrip) {
  for (const Liar& liar : kLiars) {
    for (int64_t delay_us = 100; delay_us <= 100000; delay_us += 900) {
      KeptClock clock(static_cast<uint64_t>(delay_us));
      const netmodel::LinkOptions link{
          .delay_us = delay_us, .jitter = netmodel::Distribution::kExponential, .jitter_us = delay_us / 50};
      clock.network.AddServer(Address(kA),
                              {.to_server = link, .to_client = link, .script = [&](netmodel::Exchange& e) {
                                 e.clock_error_us = liar.error_us(e.index);
                               }});
      clock.StartWith({kA});
      for (int i = 0; i < 600; ++i) {
        clock.world.RunFor(KeptClock::Ms(100));
        ASSERT_TRUE(clock.IsTruthInside())
            << liar.name << ", each way " << delay_us << " us at " << i << " "
            << clock.Read().earliest_us - clock.TrueUs() << " " << clock.Read().latest_us - clock.TrueUs()
            << " " << clock.outcomes.size();
      }
    }
  }
}

TEST_F(KeeperTest, RepliesThatContradictEachOtherLeaveTheOldReadingWithItsBoundGrowing) {
  bool is_lying = false;
  network.AddServer(Address(kA), {.script = [&](netmodel::Exchange& exchange) {
                      exchange.clock_error_us = is_lying && exchange.index % 2 == 1 ? 3600 * kUsPerSecond : 0;
                    }});
  StartWith({kA});
  world.RunFor(S(2));
  const NtpClockReading before = Read();
  is_lying = true;
  world.RunFor(S(3600));
  ASSERT_EQ(outcomes.back().reason, NtpSyncReason::kDisagreeing);
  const NtpClockReading after = Read();
  EXPECT_EQ(after.status, NtpClockStatus::kConflicting);
  EXPECT_GT(after.error_bound_us, before.error_bound_us + 100000);
  EXPECT_TRUE(IsTruthInside());
  is_lying = false;
  world.RunFor(S(900));
  EXPECT_EQ(Read().status, NtpClockStatus::kSynchronized);
}

TEST_F(KeeperTest, RepliesThatNobodyHasJudgedAreNoTime) {
  network.AddServer(Address(kA), {.to_server = {.delay_us = 200000}});
  StartWith({kA});
  std::set<NtpClockStatus> seen;
  while (outcomes.empty()) {
    world.RunFor(Ms(10));
    seen.insert(Read().status);
    if (outcomes.empty()) {
      ASSERT_FALSE(Read().has_time());
    }
  }
  EXPECT_THAT(seen, ElementsAre(NtpClockStatus::kUnknown, NtpClockStatus::kProvisional,
                                NtpClockStatus::kSynchronized));
}

// --- The host's own calls.

// What a host may do with the manager beside the clock, at random moments.
void DoSomething(KeptClock& clock, netmodel::Random& random, const std::string& other) {
  NtpTimeManager& manager = clock.peer.manager();
  switch (random.Below(7)) {
    case 0:
      manager.Stop();
      break;
    case 1:
      manager.Start();
      break;
    case 2:
      manager.Stop();
      manager.Start();
      break;
    case 3:
      manager.UpdateNtpTimeDomain({other, "unknown.test"});
      break;
    case 4:
      manager.GetNtpTimestampFrom1970();
      break;
    case 5:
      clock.world.StepWall(KeptClock::S(static_cast<int64_t>(random.Below(7200)) - 3600));
      break;
    default:
      clock.Sync(KeptClock::S(5));
      break;
  }
}

TEST(HostCallsTest, WhateverTheHostDoesAGradedReadingComesWithinAMinuteAfterIt) {
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  const uint64_t count = EnvironmentNumber("SKORRA_HOST_SEEDS", 1, 1000000).value_or(1000);
  std::printf("%llu seeds from SKORRA_SEED=%llu on\n", static_cast<unsigned long long>(count),
              static_cast<unsigned long long>(first));
  for (uint64_t seed = first; seed < first + count; ++seed) {
    KeptClock clock(seed);
    netmodel::Random random(seed);
    clock.network.AddServer(Address(kA), {});
    clock.network.AddServer(Address(kB), {});
    clock.StartWith({kA});
    const uint64_t calls = 1 + random.Below(40);
    for (uint64_t call = 0; call < calls; ++call) {
      DoSomething(clock, random, kB);
      // Some come at the same moment, some in the middle of an attempt, some around the stops after 30 s.
      const int64_t waits_us[] = {0, 10000, 300000, kUsPerSecond, 30 * kUsPerSecond, 700 * kUsPerSecond};
      const int64_t wait_us = waits_us[random.Below(6)];
      clock.world.RunFor(KeptClock::Us(
          wait_us + static_cast<int64_t>(random.Below(static_cast<uint64_t>(wait_us / 4 + 1)))));
    }
    const size_t before = clock.synced.size();
    clock.Sync(KeptClock::S(60));
    ASSERT_TRUE(clock.world.RunUntil([&] { return clock.synced.size() > before; }, KeptClock::S(60)));
    ASSERT_EQ(clock.synced.back().reason, NtpSyncReason::kOk) << "seed " << seed;
    ASSERT_TRUE(clock.IsGraded() && clock.IsTruthInside()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace skorra
