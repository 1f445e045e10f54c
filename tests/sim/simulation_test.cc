// SPDX-License-Identifier: Apache-2.0

// The simulated world's own parts: clocks, suspend, datagrams, names, attackers and the log.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/base/clock.h"
#include "platform/base/random.h"
#include "platform/base/time.h"
#include "platform/core/machine_watch.h"
#include "sim/attacker.h"
#include "sim/clock_model.h"
#include "sim/network.h"
#include "sim/world.h"
#include "testing/addresses.h"

namespace skorra::sim {
namespace {

using base::TimeDelta;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kSecond = base::kUsPerSecond;
constexpr int64_t kDay = 86400 * kSecond;

// --- Clock model.

TEST(ClockModelTest, AClockWithoutFaultsShowsItsBase) {
  ClockModel clock(1000, 5000);
  EXPECT_EQ(clock.At(1000), 5000);
  EXPECT_EQ(clock.At(1000 + kDay), 5000 + kDay);
}

TEST(ClockModelTest, AStepMovesOnlyLaterReadings) {
  ClockModel clock(0, 0);
  clock.Step(100, -40);
  EXPECT_EQ(clock.At(99), 99);
  EXPECT_EQ(clock.At(100), 60);
  EXPECT_EQ(clock.At(200), 160);
}

struct RateCase {
  const char* sentence;
  int64_t ppb;
  int64_t elapsed_us;
  int64_t gained_us;
};

TEST(ClockModelTest, AConstantFrequencyErrorGainsWithTime) {
  const RateCase cases[] = {
      {"20 ppm in a day", 20000, kDay, 1728000},
      {"20 ppm slow in a day", -20000, kDay, -1728000},
      {"one ppb shows only after 1000 s", 1, 999 * kSecond, 0},
      {"and then by a microsecond", 1, 1000 * kSecond, 1},
      {"a lag shows at once, since readings are cut downwards", -1, 1, -1},
      {"a century at 100 ppm does not overflow", 100000, 36525 * kDay, 36525 * kDay / 10000},
  };
  for (const RateCase& row : cases) {
    ClockModel clock(0, 0);
    clock.SetError(0, {.frequency_ppb = row.ppb}, 1);
    EXPECT_EQ(clock.At(row.elapsed_us) - row.elapsed_us, row.gained_us) << row.sentence;
  }
}

TEST(ClockModelTest, AChangeOfFrequencyLosesNoFraction) {
  ClockModel clock(0, 0);
  for (int64_t second = 0; second < 1000; ++second) {
    clock.SetError(second * kSecond, {.frequency_ppb = 1}, 1);
  }
  EXPECT_EQ(clock.At(1000 * kSecond), 1000 * kSecond + 1);
}

TEST(ClockModelTest, AWanderingFrequencyIsARandomWalkOfTheSeed) {
  const ClockError error = {.frequency_ppb = 1000, .wander_ppb = 50, .wander_interval_us = kSecond};
  ClockModel clock(0, 0);
  ClockModel same(0, 0);
  ClockModel other(0, 0);
  clock.SetError(0, error, 7);
  same.SetError(0, error, 7);
  other.SetError(0, error, 8);
  bool has_changed = false;
  for (int64_t second = 1; second < 1000; ++second) {
    const int64_t change = clock.FrequencyAt(second * kSecond) - clock.FrequencyAt((second - 1) * kSecond);
    EXPECT_LE(std::abs(change), 50);
    has_changed = has_changed || change != 0;
  }
  EXPECT_TRUE(has_changed);
  // Asked for once, at the end, it shows the same as the one that was asked all the way.
  EXPECT_EQ(clock.At(1000 * kSecond), same.At(1000 * kSecond));
  EXPECT_NE(clock.At(1000 * kSecond), other.At(1000 * kSecond));
  EXPECT_EQ(clock.FrequencyAt(0), 1000);
}

// --- The world.

class WorldTest : public ::testing::Test {
 protected:
  struct Received {
    int64_t at_us;  // since the beginning, by its stamp
    net::IPEndPoint source;
    NtpPacket packet;
  };

  // A socket on the queue of the manager, and what it receives.
  std::unique_ptr<net::DatagramSocket> Connect(const net::IPEndPoint& server) {
    std::unique_ptr<net::DatagramSocket> socket;
    world_.RunAsTask(core::BusinessID::kNtpTime, [&] {
      net::SocketError error = net::SocketError::kNone;
      socket = net::DatagramSocket::Connect(
          server,
          {.on_datagram =
               [this](const net::ReceivedDatagram& datagram) {
                 received_.push_back({datagram.receive_ticks_us - world_.begin_ticks_us(), datagram.source,
                                      *DecodePacket(datagram.bytes)});
               },
           .on_error = nullptr},
          &error);
    });
    return socket;
  }
  void SendRequest(net::DatagramSocket& socket, uint64_t nonce) {
    world_.RunAsTask(core::BusinessID::kNtpTime, [&] { socket.Send(EncodePacket(MakeRequest(nonce))); });
  }

  World world_;
  Network network_{world_};
  std::vector<Received> received_;
};

TEST_F(WorldTest, BothClocksFollowTheOscillatorAndTheTruthDoesNot) {
  const int64_t begin_true_us = world_.true_us();
  world_.SetSteadyError({.frequency_ppb = 100000});
  world_.RunFor(TimeDelta::FromSeconds(10000));
  EXPECT_EQ(world_.wall_us() - begin_true_us, 10000 * kSecond);
  EXPECT_EQ(base::GetSteadyTimeTicks() - world_.begin_ticks_us(), 10000 * kSecond);
  // 100 ppm of what the truth says: 10000 s / 1.0001.
  EXPECT_NEAR(static_cast<double>(world_.true_us() - begin_true_us), 1e10 / 1.0001, 20);
}

TEST_F(WorldTest, AnOscillatorIsAtMostAThirdTooSlow) {
  const int64_t begin_true_us = world_.true_us();
  world_.SetSteadyError({.frequency_ppb = -1000000000});
  world_.RunFor(TimeDelta::FromSeconds(2));
  EXPECT_NEAR(static_cast<double>(world_.true_us() - begin_true_us), 3e6, 10);
}

TEST_F(WorldTest, ASlewedWallClockLeavesSteadyTimeAndTruthAlone) {
  const int64_t begin_true_us = world_.true_us();
  world_.SetWallError({.frequency_ppb = -50000});
  world_.RunFor(TimeDelta::FromSeconds(1000));
  EXPECT_EQ(world_.wall_us() - begin_true_us, 1000 * kSecond - 50000);
  EXPECT_EQ(world_.true_us() - begin_true_us, 1000 * kSecond);
}

TEST_F(WorldTest, AStepMovesTheWallClockOnly) {
  const int64_t true_us = world_.true_us();
  const int64_t steady_ticks_us = world_.steady_ticks_us();
  world_.StepWall(TimeDelta::FromSeconds(-7));
  EXPECT_EQ(world_.wall_us(), true_us - 7 * kSecond);
  EXPECT_EQ(world_.true_us(), true_us);
  EXPECT_EQ(world_.steady_ticks_us(), steady_ticks_us);
}

TEST_F(WorldTest, DuringASuspendClocksGoOnAndTasksWait) {
  std::vector<int64_t> ran_at;
  const int64_t begin_ticks_us = world_.steady_ticks_us();
  const auto queue = core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1, std::nullopt);
  for (const int64_t delay_s : {20, 10, 7200}) {
    queue->PostDelayedTask(base::Location::CreateFromHere("test", __LINE__), base::BindOnce([&] {
                             ran_at.push_back(world_.steady_ticks_us() - begin_ticks_us);
                           }),
                           TimeDelta::FromSeconds(delay_s));
  }
  const int64_t true_us = world_.true_us();
  world_.Suspend(TimeDelta::FromSeconds(3600));
  EXPECT_THAT(ran_at, IsEmpty());
  EXPECT_EQ(world_.true_us() - true_us, 3600 * kSecond);
  EXPECT_EQ(world_.wall_us(), world_.true_us());
  world_.RunFor(TimeDelta::FromSeconds(3600));
  EXPECT_THAT(ran_at, ElementsAre(3600 * kSecond, 3600 * kSecond, 7200 * kSecond));
}

TEST_F(WorldTest, RawAndMonotonicStandStillInASuspendAndBootDoesNot) {
  const base::MachineClocks begin = base::ReadMachineClocks();
  EXPECT_EQ(begin.boot_ns, world_.begin_ticks_us() * 1000);
  EXPECT_EQ(begin.raw_ns, begin.boot_ns);
  EXPECT_EQ(begin.monotonic_ns, begin.boot_ns);
  for (const int64_t rounds : {1, 2}) {
    world_.RunFor(TimeDelta::FromSeconds(10));
    world_.Suspend(TimeDelta::FromSeconds(3600));
    const base::MachineClocks now = base::ReadMachineClocks();
    EXPECT_EQ(now.boot_ns / 1000, base::GetSteadyTimeTicks());
    EXPECT_EQ(now.boot_ns - begin.boot_ns, rounds * 3610 * kSecond * 1000);
    EXPECT_EQ(now.raw_ns - begin.raw_ns, rounds * 10 * kSecond * 1000);
    EXPECT_EQ(now.monotonic_ns - begin.monotonic_ns, rounds * 10 * kSecond * 1000);
  }
}

TEST_F(WorldTest, ASlewMovesTheSteadyClocksAgainstRawAndTruth) {
  const base::MachineClocks begin = base::ReadMachineClocks();
  const int64_t begin_true_us = world_.true_us();
  const int64_t begin_wall_us = world_.wall_us();
  world_.SlewSteady(500000);
  // By the steady clocks, which run 500 ppm fast: 1000.5 s of them are 1000 s.
  world_.RunFor(TimeDelta::FromMilliseconds(1000500));
  base::MachineClocks now = base::ReadMachineClocks();
  EXPECT_EQ(now.boot_ns - begin.boot_ns, 1000500000000);
  EXPECT_EQ(now.monotonic_ns - begin.monotonic_ns, 1000500000000);
  EXPECT_EQ(world_.wall_us() - begin_wall_us, 1000500000);
  EXPECT_NEAR(static_cast<double>(now.raw_ns - begin.raw_ns), 1e12, 2e3);
  EXPECT_NEAR(static_cast<double>(world_.true_us() - begin_true_us), 1e9, 2);
  EXPECT_EQ(base::GetKernelFrequencyPpb(), 0) << "the machine does not tell";
  // After its end all go on together, with what the slew gained.
  world_.SlewSteady(0);
  const int64_t gained_ns = now.boot_ns - now.raw_ns;
  world_.RunFor(TimeDelta::FromSeconds(1000));
  now = base::ReadMachineClocks();
  EXPECT_EQ(now.boot_ns - now.raw_ns, gained_ns);
}

TEST_F(WorldTest, ASlewDuringASuspendMovesBootAgainstTheTruthButNotRaw) {
  const base::MachineClocks begin = base::ReadMachineClocks();
  const int64_t begin_true_us = world_.true_us();
  world_.SlewSteady(500000);
  world_.Suspend(TimeDelta::FromMilliseconds(1000500));
  const base::MachineClocks now = base::ReadMachineClocks();
  EXPECT_EQ(now.boot_ns - begin.boot_ns, 1000500000000);
  EXPECT_EQ(now.raw_ns, begin.raw_ns);
  EXPECT_EQ(now.monotonic_ns, begin.monotonic_ns);
  EXPECT_NEAR(static_cast<double>(world_.true_us() - begin_true_us), 1e9, 2);
}

TEST_F(WorldTest, TheKernelsFrequencyIsToldAndAddsToASlew) {
  const base::MachineClocks begin = base::ReadMachineClocks();
  world_.SetKernelFrequency(-20000);
  EXPECT_EQ(base::GetKernelFrequencyPpb(), -20000);
  world_.RunFor(TimeDelta::FromSeconds(1000));
  const base::MachineClocks alone = base::ReadMachineClocks();
  EXPECT_NEAR(static_cast<double>(alone.raw_ns - begin.raw_ns), 1e12 / 0.99998, 2e3);
  world_.SlewSteady(120000);
  EXPECT_EQ(base::GetKernelFrequencyPpb(), -20000);
  world_.RunFor(TimeDelta::FromSeconds(1000));
  const base::MachineClocks both = base::ReadMachineClocks();
  EXPECT_NEAR(static_cast<double>(both.raw_ns - alone.raw_ns), 1e12 / 1.0001, 2e3);
}

TEST_F(WorldTest, TheClockSourceIsTheOneThatWasSet) {
  EXPECT_EQ(base::GetClockSource(), 1u);
  world_.SetClockSource(2);
  EXPECT_EQ(base::GetClockSource(), 2u);
}

TEST_F(WorldTest, AnOscillatorsErrorMovesAllClocksOfTheMachineAgainstTheTruthAlsoUnderASlew) {
  world_.SlewSteady(100000);
  world_.SetSteadyError({.frequency_ppb = -30000});
  const base::MachineClocks begin = base::ReadMachineClocks();
  const int64_t begin_true_us = world_.true_us();
  world_.RunFor(TimeDelta::FromSeconds(1000));
  const base::MachineClocks now = base::ReadMachineClocks();
  EXPECT_NEAR(static_cast<double>(now.raw_ns - begin.raw_ns), 1e12 / 1.0001, 2e3);
  EXPECT_NEAR(static_cast<double>(world_.true_us() - begin_true_us), 1e9 / 1.0001 / 0.99997, 3);
}

TEST_F(WorldTest, TheClocksMiscountASleepByItsError) {
  const int64_t begin_true_us = world_.true_us();
  const int64_t begin_ticks_us = world_.steady_ticks_us();
  world_.Suspend(TimeDelta::FromSeconds(3600), TimeDelta::FromMilliseconds(-700));
  EXPECT_EQ(world_.true_us() - begin_true_us, 3600 * kSecond - 700000);
  EXPECT_EQ(world_.steady_ticks_us() - begin_ticks_us, 3600 * kSecond);
  EXPECT_EQ(world_.wall_us() - begin_true_us, 3600 * kSecond);
  world_.Suspend(TimeDelta::FromSeconds(60), TimeDelta::FromSeconds(2));
  world_.RunFor(TimeDelta::FromSeconds(10));
  EXPECT_EQ(world_.true_us() - begin_true_us, 3672 * kSecond - 700000);
  EXPECT_EQ(world_.TrueAt(begin_ticks_us), begin_true_us);
  EXPECT_EQ(world_.steady_ticks_us() - begin_ticks_us, 3670 * kSecond);
}

TEST_F(WorldTest, AHookHearsOfAReadingOfTheThreeClocks) {
  std::vector<SeamCall> calls;
  world_.SetSeamHook([&](SeamCall call) {
    calls.push_back(call);
    world_.Block(TimeDelta::FromSeconds(1));
  });
  const base::MachineClocks first = base::ReadMachineClocks();
  const base::MachineClocks second = base::ReadMachineClocks();
  world_.SetSeamHook(nullptr);
  EXPECT_THAT(calls, ElementsAre(SeamCall::kMachineClocks, SeamCall::kMachineClocks));
  EXPECT_EQ(first.boot_ns, world_.begin_ticks_us() * 1000) << "settled before the hook runs";
  EXPECT_EQ(second.raw_ns - first.raw_ns, kSecond * 1000);
}

class WatchTest : public WorldTest {
 protected:
  std::unique_ptr<core::MachineWatch> Open(const std::string& name, int64_t instance = -1) {
    const auto note = [=, this](const char* event) {
      const auto queue =
          core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, instance, std::nullopt);
      events_.push_back(name + event + (queue->IsCurrent() ? "" : " off its queue"));
    };
    std::unique_ptr<core::MachineWatch> watch;
    RunOnQueue(instance, [&] {
      watch = core::MachineWatch::Open({[=] { note(": clock"); }, [=] { note(": network"); }});
    });
    return watch;
  }
  void RunOnQueue(int64_t instance, const std::function<void()>& function) {
    const auto queue = core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, instance, std::nullopt);
    queue->PostTask(base::Location::CreateFromHere("test", __LINE__), base::BindOnce([&] { function(); }));
    world_.RunFor(TimeDelta());
  }
  // What was reported since the last call.
  std::vector<std::string> Events() {
    world_.RunFor(TimeDelta());
    return std::exchange(events_, {});
  }

  std::vector<std::string> events_;
};

TEST_F(WatchTest, EachWatchHearsOfStepsSuspendsAndTheNetworkOnItsQueueInTheOrderOfOpening) {
  const auto first = Open("first");
  const auto second = Open("second", 1);
  EXPECT_THAT(Events(), IsEmpty());
  world_.StepWall(TimeDelta::FromSeconds(-1));
  EXPECT_THAT(events_, IsEmpty()) << "not inside the step";
  EXPECT_THAT(Events(), ElementsAre("first: clock", "second: clock"));
  world_.Suspend(TimeDelta::FromSeconds(10));
  EXPECT_THAT(Events(), ElementsAre("first: clock", "second: clock"));
  world_.RaiseNetwork();
  EXPECT_THAT(Events(), ElementsAre("first: network", "second: network"));
  world_.SlewSteady(1000);
  world_.SetKernelFrequency(1000);
  world_.SetSteadyError({.frequency_ppb = 1000});
  world_.SetWallError({.frequency_ppb = 1000});
  world_.RunFor(TimeDelta::FromSeconds(1000));
  EXPECT_THAT(Events(), IsEmpty()) << "no step";
}

TEST_F(WatchTest, AWatchThatIsGoneHearsNothingMore) {
  auto watch = Open("watch");
  world_.StepWall(TimeDelta::FromSeconds(1));
  world_.RaiseNetwork();
  watch = nullptr;
  EXPECT_THAT(Events(), IsEmpty());
  world_.StepWall(TimeDelta::FromSeconds(1));
  EXPECT_EQ(world_.pending_count(), 0u) << "without a watch, nothing happens";
}

TEST_F(WatchTest, ACallbackMayDestroyItsWatch) {
  std::unique_ptr<core::MachineWatch> watch;
  int count = 0;
  RunOnQueue(-1, [&] {
    watch = core::MachineWatch::Open({.on_clock_set =
                                          [&] {
                                            watch = nullptr;
                                            ++count;
                                          },
                                      .on_network_up = nullptr});
  });
  world_.RaiseNetwork();
  EXPECT_THAT(Events(), IsEmpty()) << "a callback may be left out";
  world_.StepWall(TimeDelta::FromSeconds(1));
  world_.StepWall(TimeDelta::FromSeconds(1));
  world_.RunFor(TimeDelta());
  EXPECT_EQ(count, 1);
}

TEST_F(WorldTest, ASuspendLosesDatagramsAndABlockedTaskDoesNot) {
  const auto server = Address("203.0.113.1");
  network_.AddServer(server, {});
  const auto socket = Connect(server);
  SendRequest(*socket, 1);
  world_.Suspend(TimeDelta::FromSeconds(1));
  world_.RunFor(TimeDelta::FromSeconds(1));
  EXPECT_TRUE(received_.empty());
  SendRequest(*socket, 2);
  world_.Block(TimeDelta::FromSeconds(1));
  world_.RunFor(TimeDelta::FromSeconds(1));
  ASSERT_EQ(received_.size(), 1u);
  EXPECT_EQ(received_[0].at_us, 2 * kSecond + 10000);
  // The server stamped the request when it came, not when the blocked task let it.
  EXPECT_EQ(NtpTimestampToUs(received_[0].packet.receive_timestamp),
            World::Options().wall_us + 2 * kSecond + 5000);
}

TEST_F(WorldTest, RunOneTakesTheEarliestEventAndMovesTimeToIt) {
  EXPECT_EQ(world_.NextEventTicks(), std::nullopt);
  EXPECT_FALSE(world_.RunOne());
  int ran = 0;
  world_.Schedule(TimeDelta::FromSeconds(2), [&] { ran = 2; });
  world_.ScheduleAt(world_.begin_ticks_us() + kSecond, [&] { ran = 1; });
  EXPECT_EQ(world_.NextEventTicks(), world_.begin_ticks_us() + kSecond);
  EXPECT_TRUE(world_.RunOne());
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(world_.steady_ticks_us(), world_.begin_ticks_us() + kSecond);
  EXPECT_TRUE(world_.RunOne());
  EXPECT_EQ(ran, 2);
  EXPECT_FALSE(world_.RunOne());
}

TEST_F(WorldTest, ALookupMayFail) {
  world_.SetHost("down.test", {{Address("203.0.113.1")}, 0, net::ResolveError::kFailed});
  const net::ResolveResult result = net::ResolveHost("down.test", kNtpPort, TimeDelta::FromSeconds(1));
  EXPECT_EQ(result.error, net::ResolveError::kFailed);
  EXPECT_THAT(result.addresses, IsEmpty());
}

TEST_F(WorldTest, ALookupGivesTheAddressesSetLast) {
  world_.SetHost("moving.test", {{Address("203.0.113.1")}});
  EXPECT_THAT(net::ResolveHost("moving.test", kNtpPort, TimeDelta::FromSeconds(1)).addresses,
              ElementsAre(Address("203.0.113.1")));
  world_.SetHost("moving.test", {{Address("203.0.113.2")}});
  EXPECT_THAT(net::ResolveHost("moving.test", kNtpPort, TimeDelta::FromSeconds(1)).addresses,
              ElementsAre(Address("203.0.113.2")));
}

TEST_F(WorldTest, TheTwoDirectionsOfAPathAreSeparate) {
  const auto server = Address("203.0.113.1");
  network_.AddServer(
      server, {.processing_us = 3000, .to_server = {.delay_us = 1000}, .to_client = {.delay_us = 9000}});
  const auto socket = Connect(server);
  SendRequest(*socket, 1);
  world_.RunFor(TimeDelta::FromSeconds(1));
  ASSERT_EQ(received_.size(), 1u);
  EXPECT_EQ(received_[0].at_us, 13000);
  EXPECT_EQ(NtpTimestampToUs(received_[0].packet.receive_timestamp), World::Options().wall_us + 1000);
}

struct AttackCase {
  const char* sentence;
  AttackerOptions options;
  size_t heard;
  size_t with_the_nonce;
};

TEST_F(WorldTest, AnAttackerForgesSourceAndNonceAsTold) {
  const AttackCase cases[] = {
      {"guesses from the right address are heard, and none is right", {}, 10, 0},
      {"from elsewhere, past the socket's filter",
       {.nonce = AttackerOptions::Nonce::kZero, .source = Address("203.0.113.9")},
       10,
       0},
      {"with the nonce", {.nonce = AttackerOptions::Nonce::kKnown, .replies_per_request = 4}, 4, 4},
  };
  uint8_t host = 1;
  for (const AttackCase& row : cases) {
    Network network(world_);
    Attacker attacker(world_, network, row.options);
    received_.clear();
    const auto server = net::IPEndPoint::FromIPv4({203, 0, 113, ++host}, kNtpPort);
    const auto socket = Connect(server);
    SendRequest(*socket, 0xABCD);
    world_.RunFor(TimeDelta::FromSeconds(1));
    EXPECT_EQ(attacker.sent_count(), static_cast<size_t>(row.options.replies_per_request)) << row.sentence;
    EXPECT_EQ(received_.size(), row.heard) << row.sentence;
    EXPECT_EQ(std::count_if(received_.begin(), received_.end(),
                            [](const Received& r) { return r.packet.origin_timestamp == 0xABCD; }),
              static_cast<std::ptrdiff_t>(row.with_the_nonce))
        << row.sentence;
    for (const Received& received : received_) {
      EXPECT_EQ(received.source, row.options.source.address_empty() ? server : row.options.source);
    }
  }
}

TEST_F(WorldTest, TheLogNamesTimeAndEvent) {
  std::vector<std::string> lines;
  world_.SetEventLog([&](const std::string& line) { lines.push_back(line); });
  world_.RunFor(TimeDelta::FromMilliseconds(1500));
  world_.StepWall(TimeDelta::FromMilliseconds(-2));
  world_.Suspend(TimeDelta::FromSeconds(2));
  world_.RaiseNetwork();
  world_.Suspend(TimeDelta::FromSeconds(1), TimeDelta::FromMilliseconds(-5));
  world_.SetEventLog(nullptr);
  world_.Log("nobody hears this");
  EXPECT_THAT(
      lines,
      ElementsAre("     1.500000 the wall clock steps by -2000 us", "     1.500000 suspended for 2000000 us",
                  "     3.500000 awake", "     3.500000 an interface gets an address",
                  "     3.500000 suspended for 1000000 us",
                  "     4.500000 the sleep took -5000 us more than the clocks count", "     4.500000 awake"));
}

}  // namespace
}  // namespace skorra::sim
