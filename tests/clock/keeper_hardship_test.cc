// SPDX-License-Identifier: Apache-2.0

// The keeper among hosts, events and servers that mean no good: it spares the servers, goes on, and its bound
// holds.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "gmock/gmock.h"
#include "ntp/ntp_attempt_control.h"
#include "platform/config/base_cfg.h"
#include "testing/clock_fixture.h"
#include "testing/temp_dir.h"
#include "testing/vm_clock_page.h"

namespace skorra {
namespace {

using base::kUsPerSecond;
using netmodel::Exchange;

constexpr char kA[] = "203.0.113.1";
constexpr char kB[] = "203.0.113.2";

void ContradictItself(Exchange& e) { e.clock_error_us = e.index % 2 == 1 ? 3600 * kUsPerSecond : 0; }
void BeSilent(Exchange& e) { e.is_answered = false; }
void BeUnsynchronised(Exchange& e) { e.reply.leap_indicator = kNtpLeapUnsynchronized; }
void BeGood(Exchange&) {}
// An offset that swings within the server's own, large error.
void SwingWithinItsError(Exchange& e) {
  e.reply.root_dispersion = 4 << 16;
  e.clock_error_us = e.index % 2 == 0 ? 60000 : -60000;
}

class HardshipTest : public ::testing::Test, public KeptClock {
 protected:
  void AddServer(const std::string& address, std::function<void(Exchange&)> script, int64_t delay_us = 5000) {
    network.AddServer(Address(address), {.to_server = {.delay_us = delay_us},
                                         .to_client = {.delay_us = delay_us},
                                         .script = [this, script](Exchange& e) {
                                           ++requests;
                                           script(e);
                                         }});
  }
  int requests = 0;
};

// --- Sparing the servers.

struct Burden {
  const char* name;
  void (*server)(Exchange&);
  void (*each_second)(HardshipTest&, KeptClock&);
};

void AskForSync(HardshipTest&, KeptClock& clock) { clock.Sync(KeptClock::S(30)); }
void StartAgain(HardshipTest&, KeptClock& clock) { clock.StartWith({kA}); }
void RaiseTheNetwork(HardshipTest&, KeptClock& clock) { clock.world.RaiseNetwork(); }
void SetTheClock(HardshipTest&, KeptClock& clock) { clock.world.StepWall(KeptClock::Ms(100)); }

TEST_F(HardshipTest, NothingThatHappensEverySecondBurdensAServer) {
  const Burden burdens[] = {
      {"syncs, and it contradicts itself", ContradictItself, AskForSync},
      {"syncs, and it is silent", BeSilent, AskForSync},
      {"syncs, and it is not synchronised", BeUnsynchronised, AskForSync},
      {"syncs, and it is inaccurate", SwingWithinItsError, AskForSync},
      {"syncs, and it is good", BeGood, AskForSync},
      {"starts, and it contradicts itself", ContradictItself, StartAgain},
      {"starts, and it is good", BeGood, StartAgain},
      {"the network's return, and it contradicts itself", ContradictItself, RaiseTheNetwork},
      {"steps of the wall clock, and it is silent", BeSilent, SetTheClock},
      {"steps of the wall clock, and it is good", BeGood, SetTheClock},
  };
  for (const Burden& burden : burdens) {
    KeptClock clock;
    int asked = 0;
    clock.network.AddServer(Address(kA), {.script = [&](Exchange& e) {
                              ++asked;
                              burden.server(e);
                            }});
    clock.StartWith({kA});
    for (int second = 0; second < 3600; ++second) {
      burden.each_second(*this, clock);
      clock.world.RunFor(S(1));
    }
    // Attempts are 16 s apart on average. One sends 20 requests, or 40 to a silent server, and once more when
    // the stop that follows an earlier outcome cuts it off.
    EXPECT_LE(asked, 3600 / 16 * 80) << burden.name;
    EXPECT_GE(asked, 20) << burden.name;
  }
}

TEST_F(HardshipTest, ALimitThatNoSyncCanReachDoesNotBringSyncAfterSync) {
  AddServer(
      kA, [](Exchange& e) { e.reply.root_dispersion = 1 << 15; }, 300000);
  StartWith({kA});
  world.RunFor(S(3500));
  EXPECT_TRUE(IsGraded());
  EXPECT_LE(requests, 140);  // one attempt that is inaccurate at worst, every ten minutes
}

TEST_F(HardshipTest, ASyncThatIsOverLeavesOneWakeUpAtMost) {
  AddServer(kA, BeGood);
  StartWith({kA});
  world.RunFor(S(60));
  for (int i = 0; i < 10; ++i) {
    Sync(S(1200));
    world.RunFor(S(20));
  }
  world.RunFor(S(60));
  int wake_ups = 0;
  const int64_t end_ticks_us = world.steady_ticks_us() + 1500 * kUsPerSecond;
  while (world.NextEventTicks() && *world.NextEventTicks() < end_ticks_us) {
    world.RunOne();
    ++wake_ups;
  }
  EXPECT_LE(wake_ups, 1);
}

// --- Going on.

TEST_F(HardshipTest, AServerThatContradictsItselfDoesNotKeepAnHonestOneFromTellingTheTime) {
  AddServer(
      kA, [](Exchange& e) { e.clock_error_us = static_cast<int64_t>(e.index % 20) * 2000; }, 1000);
  AddServer(kB, BeGood, 20000);
  StartWith({kA, kB});
  world.RunFor(S(60));
  EXPECT_TRUE(IsGraded());
  EXPECT_STREQ(Read().domain, kB);
  EXPECT_EQ(Read().result, NtpResult::kMaybeInaccurate);
  EXPECT_TRUE(IsTruthInside());
}

TEST_F(HardshipTest, NewOptionsReachARunningClock) {
  AddServer(kA, BeGood);
  StartWith({kA});
  world.RunFor(S(10));
  NtpClockOptions options;
  options.servers = {kA};
  options.interval_s = 64;
  options.frequency_error_ppm = 1000;
  Start(options);
  const int64_t bound_us = Read().error_bound_us;
  world.RunFor(S(10));
  EXPECT_GT(Read().error_bound_us, bound_us + 9000);
  world.RunFor(S(640));
  EXPECT_GE(outcomes.size(), 10u);
}

TEST_F(HardshipTest, ThePageOfAnotherMachineClockIsNoDisruption) {
  const TempDir folder;
  const std::string path = folder / "vmclock";
  WriteFile(path, VmClockPage(7));
  AddServer(kA, BeGood);
  StartWith({kA});
  world.RunFor(S(100));
  NtpClockOptions options;
  options.vmclock_path = path;
  Start(options);
  EXPECT_EQ(Read().status, NtpClockStatus::kSynchronized);
}

TEST_F(HardshipTest, RepliesThatAgreeAgainEndAConflict) {
  void (*behave)(Exchange&) = BeGood;
  AddServer(kA, [&](Exchange& e) { behave(e); });
  StartWith({kA});
  world.RunFor(S(60));
  behave = ContradictItself;
  Sync(S(30));
  world.RunFor(S(1));
  ASSERT_EQ(Read().status, NtpClockStatus::kConflicting);
  behave = SwingWithinItsError;  // proves less than what is known
  world.RunFor(S(30));
  EXPECT_EQ(outcomes.back().reason, NtpSyncReason::kInaccurate);
  EXPECT_EQ(Read().status, NtpClockStatus::kSynchronized);
}

TEST_F(HardshipTest, TheDefaultServerIsNotAskedWhenOthersWereGiven) {
  AddServer(kB, BeGood);
  world.SetHost("default.test", {.addresses = {Address(kB)}});
  config.Set(config::BaseCfg().ntp_default_domain, std::string("default.test"));
  StartWith({"mine.test"});
  world.RunFor(S(5));
  world.RaiseNetwork();
  Sync(S(1));
  world.RunFor(S(10));
  EXPECT_EQ(requests, 0);
  AddServer(kA, BeGood);
  world.SetHost("mine.test", {.addresses = {Address(kA)}});
  world.RunFor(S(400));
  EXPECT_STREQ(Read().domain, "mine.test");
}

// Hears the keeper's names and lets another update come before the keeper has judged them.
class Interrupter : public NtpSyncListener {
 public:
  explicit Interrupter(Keeper& keeper) : keeper_(keeper) {}
  void OnDomainsUpdated(const NtpDomainsUpdated& event) override {
    if (!event.without_address.empty()) {
      keeper_.OnDomainsUpdated({.added = {}, .without_address = {{"host.test", "not_found", ""}}});
      keeper_.OnDomainsUpdated({});
    }
  }

 private:
  Keeper& keeper_;
};

TEST_F(HardshipTest, AnUpdateOfTheHostLosesNoNameOfTheClock) {
  AddServer(kA, BeGood);
  const auto interrupter = std::make_shared<Interrupter>(*keeper);
  AddNtpSyncListener(interrupter);
  StartWith({"late.test"});
  world.RunFor(S(5));
  RemoveNtpSyncListener(interrupter.get());
  world.SetHost("late.test", {.addresses = {Address(kA)}});
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(10)));
}

TEST_F(HardshipTest, NamesThatAreGivenDuringALookupAreLookedUpAfterIt) {
  AddServer(kA, BeGood);
  world.SetHost("second.test", {.addresses = {Address(kA)}});
  OnQueue([&] {
    NtpClockOptions options;
    options.servers = {"first.test"};
    keeper->Start(options);
    options.servers = {"second.test"};
    keeper->Start(options);
  });
  world.RunFor(S(2));
  EXPECT_STREQ(Read().domain, "second.test");
}

TEST_F(HardshipTest, AServerThatOnlyTheHostNamesIsUsedAtOnce) {
  AddServer(kA, BeGood);
  StartWith({"unknown.test"});
  world.RunFor(S(600));
  peer.manager().UpdateNtpTimeDomain({kA});
  EXPECT_TRUE(world.RunUntil([&] { return IsGraded(); }, S(1)));
}

// Makes every attempt endless: a domain counts as being asked and is not.
class Blocker : public NtpSyncListener {
 public:
  explicit Blocker(NtpTimeManagerPeer& peer) : peer_(peer) {}
  void OnAttemptBegun() override { peer_.domain_results().at(kB).is_requesting = true; }

 private:
  NtpTimeManagerPeer& peer_;
};

TEST_F(HardshipTest, AttemptsThatNeverEndCountAsFailures) {
  peer.manager().UpdateNtpTimeDomain({kA, kB});
  world.RunFor(S(31));
  const auto blocker = std::make_shared<Blocker>(peer);
  AddNtpSyncListener(blocker);
  StartWith({});
  Sync(S(600));
  ASSERT_TRUE(world.RunUntil([&] { return !synced.empty(); }, S(100)));
  EXPECT_EQ(synced[0].reason, NtpSyncReason::kSilent);
  world.RunFor(S(1));
  EXPECT_FALSE(internal::IsNtpAttemptRequested(peer.manager()));  // it waits, as after any failure
  world.RunFor(S(2));
  EXPECT_TRUE(internal::IsNtpAttemptRequested(peer.manager()));
  RemoveNtpSyncListener(blocker.get());
  EXPECT_EQ(synced.size(), 1u);
}

// --- The bound.

TEST_F(HardshipTest, EachOfTwoSleepsCounts) {
  bool is_silent = false;
  AddServer(kA, [&](Exchange& e) { e.is_answered = !is_silent; });
  StartWith({kA});
  world.RunFor(S(60));
  is_silent = true;
  for (int sleep = 0; sleep < 3; ++sleep) {
    world.Suspend(S(60), Ms(990));
    EXPECT_TRUE(IsTruthInside());
    world.RunFor(S(60));
    EXPECT_TRUE(IsTruthInside());
  }
}

TEST_F(HardshipTest, ACorrectionOfTheFrequencyThatIsASlewIsNotTrusted) {
  for (const int64_t ppb : {-500000, 500000}) {
    KeptClock clock;
    clock.network.AddServer(Address(kA), {.to_server = {.delay_us = 200}, .to_client = {.delay_us = 200}});
    clock.StartWith({kA});
    clock.world.RunFor(S(60));
    // The host's daemon slews by the frequency, and a sync comes at that moment.
    clock.world.SetKernelFrequency(ppb);
    clock.Sync(S(10));
    clock.world.RunFor(S(1));
    ASSERT_EQ(clock.outcomes.size(), 2u);
    for (int second = 0; second < 200; ++second) {
      clock.world.RunFor(S(1));
      ASSERT_TRUE(clock.IsTruthInside()) << ppb << " ppb, second " << second;
    }
  }
}

TEST_F(HardshipTest, ALeapSecondBelongsToTheDayOfItsAnnouncement) {
  constexpr int64_t kDayUs = 86400 * kUsPerSecond;
  for (int64_t before_ms = 0; before_ms <= 4000; before_ms += 100) {
    KeptClock clock;
    const int64_t midnight_us = (clock.TrueUs() / kDayUs + 1) * kDayUs;
    clock.world.RunFor(Us(midnight_us - clock.TrueUs()) - Ms(before_ms));
    clock.network.AddServer(Address(kA), {.leap_indicator = 1, .script = [&](Exchange& e) {
                                            e.is_answered = e.index < 5 && clock.TrueUs() < midnight_us;
                                          }});
    clock.StartWith({kA});
    clock.world.RunFor(S(10));
    // After the inserted second, UTC is a second behind what was counted.
    const int64_t true_us = clock.TrueUs() - kUsPerSecond;
    const NtpClockReading reading = clock.Read();
    EXPECT_TRUE(reading.earliest_us <= true_us && clock.TrueUs() <= reading.latest_us) << before_ms;
  }
}

}  // namespace
}  // namespace skorra
