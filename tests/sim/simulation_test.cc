// The simulated world's own parts: clocks, chance, links, servers, attackers, suspend and the log.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "netmodel/link.h"
#include "netmodel/server.h"
#include "platform/base/clock.h"
#include "platform/base/random.h"
#include "sim/attacker.h"
#include "sim/clock_model.h"
#include "sim/network.h"
#include "sim/world.h"

namespace skorra::sim {
namespace {

using base::TimeDelta;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kSecond = 1000000;
constexpr int64_t kDay = 86400 * kSecond;

net::IPEndPoint Address(const std::string& text, uint16_t port = 123) {
  return *net::IPEndPoint::FromLiteral(text, port);
}

// --- Clock model.

TEST(ClockModelTest, RunsAsItsBaseUntilTold) {
  ClockModel clock(1000, 5000);
  EXPECT_EQ(clock.At(1000), 5000);
  EXPECT_EQ(clock.At(1000 + kDay), 5000 + kDay);
}

TEST(ClockModelTest, AStepMovesWhatFollowsAndNotWhatWasBefore) {
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

// --- Chance.

// Literals: whatever the platform, a seed means these numbers.
TEST(SimRandomTest, ASeedGivesTheSameNumbersEverywhere) {
  Random random(1);
  EXPECT_EQ(random.Next(), 10451216379200822465u);
  EXPECT_EQ(random.Next(), 13757245211066428519u);
}

struct DistributionCase {
  Distribution distribution;
  int64_t min_us;
  int64_t max_us;
  double above_twice_the_mean_percent;  // within one of this
};

TEST(SimRandomTest, EachDistributionHasItsMeanItsRangeAndItsTail) {
  constexpr int kDraws = 100000;
  constexpr int64_t kMean = 10000;
  const DistributionCase cases[] = {
      {Distribution::kConstant, kMean, kMean, 0},
      {Distribution::kUniform, 0, 2 * kMean, 0},
      {Distribution::kExponential, 0, 23 * kMean, 13.5},  // e^-2; -ln(2^-32) is 22.2
      {Distribution::kNormal, 0, 2 * kMean, 0},
      {Distribution::kPareto, 0, 100 * kMean, 11.1},  // 1 / 3^2
  };
  for (const DistributionCase& row : cases) {
    SCOPED_TRACE(DistributionName(row.distribution));
    Random random(3);
    double sum = 0;
    int above = 0;
    for (int i = 0; i < kDraws; ++i) {
      const int64_t delay_us = DrawDelay(random, row.distribution, kMean);
      EXPECT_GE(delay_us, row.min_us);
      EXPECT_LE(delay_us, row.max_us);
      sum += static_cast<double>(delay_us);
      above += delay_us > 2 * kMean ? 1 : 0;
    }
    // The heavy tail converges slowly, and is cut.
    const double tolerance = row.distribution == Distribution::kPareto ? 0.05 : 0.01;
    EXPECT_NEAR(sum / kDraws, kMean, kMean * tolerance);
    EXPECT_NEAR(100.0 * above / kDraws, row.above_twice_the_mean_percent, 1);
  }
}

TEST(SimRandomTest, AChanceOfZeroDrawsNothing) {
  Random random(1);
  EXPECT_FALSE(random.Chance(0));
  EXPECT_EQ(random.Next(), Random(1).Next());
}

// --- Links.

std::vector<int64_t> ArrivalsOf(Link& link, Random& random, int64_t now_us, LinkFate* fate) {
  std::vector<int64_t> times;
  for (const Arrival& arrival : link.Transmit({1, 2, 3}, now_us, random, fate)) {
    times.push_back(arrival.at_us);
  }
  return times;
}

TEST(LinkTest, WithoutFaultsTakesItsDelayAndNoRandomNumber) {
  Link link({.delay_us = 700}, 0);
  Random random(1);
  LinkFate fate = LinkFate::kLost;
  EXPECT_THAT(ArrivalsOf(link, random, 100, &fate), ElementsAre(800));
  EXPECT_EQ(fate, LinkFate::kCarried);
  EXPECT_EQ(random.Next(), Random(1).Next());
}

TEST(LinkTest, FaultsComeAsOftenAsTheyShould) {
  constexpr int kSent = 20000;
  Link link({.delay_us = 0,
             .loss_permille = 333,
             .duplicate_permille = 250,
             .reorder_permille = 100,
             .reorder_us = 77,
             .corrupt_permille = 50},
            0);
  Random random(9);
  const std::vector<uint8_t> bytes(48, 0xA5);
  int lost = 0;
  int doubled = 0;
  int held_back = 0;
  int corrupted = 0;
  int arrived = 0;
  for (int i = 0; i < kSent; ++i) {
    LinkFate fate = LinkFate::kCarried;
    const std::vector<Arrival> arrivals = link.Transmit(bytes, 0, random, &fate);
    lost += fate == LinkFate::kLost ? 1 : 0;
    EXPECT_EQ(arrivals.empty(), fate == LinkFate::kLost);
    doubled += arrivals.size() == 2 ? 1 : 0;
    for (const Arrival& arrival : arrivals) {
      ++arrived;
      EXPECT_THAT(arrival.at_us, ::testing::AnyOf(0, 77));
      held_back += arrival.at_us == 77 ? 1 : 0;
      int flipped = 0;
      for (size_t byte = 0; byte < bytes.size(); ++byte) {
        flipped += std::popcount(static_cast<uint8_t>(arrival.bytes[byte] ^ bytes[byte]));
      }
      EXPECT_LE(flipped, 3);
      corrupted += flipped > 0 ? 1 : 0;
    }
  }
  EXPECT_NEAR(lost, kSent * 0.333, kSent * 0.01);
  EXPECT_NEAR(doubled, (kSent - lost) * 0.25, kSent * 0.01);
  EXPECT_NEAR(held_back, arrived * 0.1, arrived * 0.01);
  EXPECT_NEAR(corrupted, arrived * 0.05, arrived * 0.01);
}

TEST(LinkTest, NothingEntersDuringAPartition) {
  Link link({.delay_us = 10, .partitions = {{1000, 2000}}}, 500);
  Random random(1);
  LinkFate fate = LinkFate::kCarried;
  EXPECT_THAT(ArrivalsOf(link, random, 1499, &fate), ElementsAre(1509));
  EXPECT_THAT(ArrivalsOf(link, random, 1500, &fate), IsEmpty());
  EXPECT_EQ(fate, LinkFate::kPartitioned);
  EXPECT_THAT(ArrivalsOf(link, random, 2499, &fate), IsEmpty());
  EXPECT_THAT(ArrivalsOf(link, random, 2500, &fate), ElementsAre(2510));
}

TEST(LinkTest, AQueueFillsOverflowsAndDrains) {
  Link link({.delay_us = 0, .service_us = 100, .queue_limit_us = 250}, 0);
  Random random(1);
  LinkFate fate = LinkFate::kCarried;
  EXPECT_THAT(ArrivalsOf(link, random, 0, &fate), ElementsAre(100));
  EXPECT_THAT(ArrivalsOf(link, random, 0, &fate), ElementsAre(200));
  EXPECT_THAT(ArrivalsOf(link, random, 0, &fate), IsEmpty());
  EXPECT_EQ(fate, LinkFate::kQueueFull);
  EXPECT_THAT(ArrivalsOf(link, random, 150, &fate), ElementsAre(300));
  EXPECT_THAT(ArrivalsOf(link, random, 1000, &fate), ElementsAre(1100));
}

TEST(LinkTest, OthersTrafficMakesAQueueWait) {
  Link link({.delay_us = 0, .service_us = 1, .load_permille = 900, .queue_limit_us = 50000}, 0);
  Random random(1);
  int64_t longest_us = 0;
  for (int64_t now_us = 0; now_us < kSecond; now_us += 10000) {
    LinkFate fate = LinkFate::kCarried;
    for (const int64_t at_us : ArrivalsOf(link, random, now_us, &fate)) {
      longest_us = std::max(longest_us, at_us - now_us);
    }
  }
  EXPECT_GT(longest_us, 5000);
  EXPECT_LE(longest_us, 50000);
}

// --- Servers.

class ServerTest : public ::testing::Test {
 protected:
  static constexpr int64_t kNow = 13348540800000000;

  std::optional<NtpPacket> Ask(Server& server, int64_t elapsed_us = 0, uint16_t port = 4000) {
    const auto request = EncodePacket(MakeRequest(0x1234));
    const auto reply =
        server.Answer(request, Address("192.0.2.1", port), kNow + elapsed_us, elapsed_us, random_);
    return reply ? DecodePacket(reply->bytes) : std::nullopt;
  }

  Random random_{1};
};

TEST_F(ServerTest, TellsWhatItsOptionsSay) {
  Server server({.clock_error_us = 1500,
                 .stratum = 7,
                 .leap_indicator = 2,
                 .root_delay_us = 500000,
                 .root_dispersion_us = 250000,
                 .processing_us = 40});
  const auto reply = Ask(server);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->origin_timestamp, 0x1234u);
  EXPECT_EQ(reply->mode, kNtpModeServer);
  EXPECT_EQ(reply->stratum, 7);
  EXPECT_EQ(reply->leap_indicator, 2);
  EXPECT_EQ(reply->root_delay, 0x8000u);
  EXPECT_EQ(reply->root_dispersion, 0x4000u);
  EXPECT_EQ(NtpTimestampToUs(reply->receive_timestamp, kNow), kNow + 1500);
  EXPECT_EQ(NtpTimestampToUs(reply->transmit_timestamp, kNow), kNow + 1540);
}

TEST_F(ServerTest, DriftsFromTheBeginning) {
  Server server({.clock_error_us = 10, .drift_ppb = 100000});
  const auto reply = Ask(server, kDay);
  EXPECT_EQ(NtpTimestampToUs(reply->receive_timestamp, kNow), kNow + kDay + 10 + 8640000);
}

TEST_F(ServerTest, ScattersToEitherSide) {
  Server server({.noise = Distribution::kConstant, .noise_us = 50});
  std::array<int, 2> sides{};
  for (int i = 0; i < 100; ++i) {
    const int64_t error_us = NtpTimestampToUs(Ask(server)->receive_timestamp, kNow) - kNow;
    ASSERT_EQ(std::abs(error_us), 50);
    ++sides[error_us > 0 ? 1 : 0];
  }
  EXPECT_GT(std::min(sides[0], sides[1]), 30);
}

TEST_F(ServerTest, AnswersOnlyRequests) {
  Server server({});
  NtpPacket other = MakeRequest(1);
  other.mode = kNtpModeServer;
  EXPECT_FALSE(server.Answer(EncodePacket(other), Address("192.0.2.1"), kNow, 0, random_));
  EXPECT_FALSE(server.Answer(std::vector<uint8_t>(47), Address("192.0.2.1"), kNow, 0, random_));
  Server silent({.is_silent = true});
  EXPECT_FALSE(Ask(silent));
}

TEST_F(ServerTest, AKissCodeIsStratumZeroWithFourLetters) {
  Server server({.kiss_code = "DENY"});
  const auto reply = Ask(server);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->stratum, 0);
  EXPECT_EQ(reply->reference_id, 0x44454E59u);
}

TEST_F(ServerTest, ABucketOfTokensEmptiesKissesAndFillsAgain) {
  Server server({.rate_limit = {.interval_us = 2 * kSecond, .burst = 3, .kiss_every = 2}});
  std::string answers;
  const auto ask = [&](int64_t elapsed_us, uint16_t port) {
    const auto reply = Ask(server, elapsed_us, port);
    answers += !reply ? '-' : reply->stratum == 0 ? 'k' : 'a';
  };
  // Another port of the same client is the same client.
  for (const uint16_t port : {uint16_t{1}, uint16_t{2}, uint16_t{3}, uint16_t{4}, uint16_t{5}, uint16_t{6}}) {
    ask(0, port);
  }
  ask(2 * kSecond - 1, 1);
  ask(2 * kSecond, 1);
  ask(2 * kSecond, 1);
  for (int i = 0; i < 4; ++i) {
    ask(100 * kSecond, 1);
  }
  EXPECT_EQ(answers, "aaa-k-ka-aaak");
}

TEST_F(ServerTest, AScriptHasTheLastWord) {
  Server server({.script = [](Exchange& exchange) {
    exchange.is_answered = exchange.index != 1;
    exchange.reply.stratum = static_cast<uint8_t>(exchange.index + 3);
  }});
  EXPECT_EQ(Ask(server)->stratum, 3);
  EXPECT_FALSE(Ask(server));
  EXPECT_EQ(Ask(server)->stratum, 5);
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
    OnQueue([&] {
      net::SocketError error = net::SocketError::kNone;
      socket = net::DatagramSocket::Connect(
          server,
          {.on_datagram =
               [this](const net::ReceivedDatagram& datagram) {
                 received_.push_back({datagram.receive_ticks_us - world_.begin_us(), datagram.source,
                                      *DecodePacket(datagram.bytes)});
               },
           .on_error = nullptr},
          &error);
    });
    return socket;
  }
  void OnQueue(const std::function<void()>& function) {
    world_.RunAsTask(core::BusinessID::kNtpTime, function);
  }
  void SendRequest(net::DatagramSocket& socket, uint64_t nonce) {
    OnQueue([&] { socket.Send(EncodePacket(MakeRequest(nonce))); });
  }

  World world_;
  Network network_{world_};
  std::vector<Received> received_;
};

TEST_F(WorldTest, BothClocksFollowTheOscillatorAndTheTruthDoesNot) {
  const int64_t begin_us = world_.true_us();
  world_.SetSteadyError({.frequency_ppb = 100000});
  world_.RunFor(TimeDelta::FromSeconds(10000));
  EXPECT_EQ(world_.wall_us() - begin_us, 10000 * kSecond);
  EXPECT_EQ(base::GetSteadyTimeTicks() - world_.begin_us(), 10000 * kSecond);
  // 100 ppm of what the truth says: 10000 s / 1.0001.
  EXPECT_NEAR(static_cast<double>(world_.true_us() - begin_us), 1e10 / 1.0001, 20);
}

TEST_F(WorldTest, ASlewedWallClockLeavesSteadyTimeAndTruthAlone) {
  const int64_t begin_us = world_.true_us();
  world_.SetWallError({.frequency_ppb = -50000});
  world_.RunFor(TimeDelta::FromSeconds(1000));
  EXPECT_EQ(world_.wall_us() - begin_us, 1000 * kSecond - 50000);
  EXPECT_EQ(world_.true_us() - begin_us, 1000 * kSecond);
}

TEST_F(WorldTest, AStepMovesTheWallClockOnly) {
  const int64_t true_us = world_.true_us();
  const int64_t steady_us = world_.steady_us();
  world_.StepWall(TimeDelta::FromSeconds(-7));
  EXPECT_EQ(world_.wall_us(), true_us - 7 * kSecond);
  EXPECT_EQ(world_.true_us(), true_us);
  EXPECT_EQ(world_.steady_us(), steady_us);
}

TEST_F(WorldTest, DuringASuspendClocksGoOnAndTasksWait) {
  std::vector<int64_t> ran_at;
  const int64_t begin_us = world_.steady_us();
  const auto queue = world_.GetTaskQueue(core::BusinessID::kNtpTime, -1);
  for (const int64_t delay_s : {20, 10, 7200}) {
    queue->PostDelayedTask(base::Location::CreateFromHere("test", __LINE__),
                           base::BindOnce([&] { ran_at.push_back(world_.steady_us() - begin_us); }),
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

TEST_F(WorldTest, WhatArrivesDuringASuspendIsLostAndWhatArrivesDuringABlockedTaskIsNot) {
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
  EXPECT_EQ(NtpTimestampToUs(received_[0].packet.receive_timestamp, world_.true_us()),
            World::Options().wall_us + 2 * kSecond + 5000);
}

TEST_F(WorldTest, RunOneTakesTheEarliestEventAndMovesTimeToIt) {
  EXPECT_EQ(world_.NextEventTicks(), std::nullopt);
  EXPECT_FALSE(world_.RunOne());
  int ran = 0;
  world_.Schedule(TimeDelta::FromSeconds(2), [&] { ran = 2; });
  world_.ScheduleAt(world_.begin_us() + kSecond, [&] { ran = 1; });
  EXPECT_EQ(world_.NextEventTicks(), world_.begin_us() + kSecond);
  EXPECT_TRUE(world_.RunOne());
  EXPECT_EQ(ran, 1);
  EXPECT_EQ(world_.steady_us(), world_.begin_us() + kSecond);
  EXPECT_TRUE(world_.RunOne());
  EXPECT_EQ(ran, 2);
  EXPECT_FALSE(world_.RunOne());
}

TEST_F(WorldTest, ALookUpMayFail) {
  world_.SetHost("down.test", {{Address("203.0.113.1")}, 0, net::ResolveError::kFailed});
  const net::ResolveResult result = net::ResolveHost("down.test", 123, TimeDelta::FromSeconds(1));
  EXPECT_EQ(result.error, net::ResolveError::kFailed);
  EXPECT_THAT(result.addresses, IsEmpty());
}

TEST_F(WorldTest, ALookUpGivesTheAnswerOfItsMoment) {
  world_.SetHost("moving.test", {{Address("203.0.113.1")}});
  EXPECT_THAT(net::ResolveHost("moving.test", 123, TimeDelta::FromSeconds(1)).addresses,
              ElementsAre(Address("203.0.113.1")));
  world_.SetHost("moving.test", {{Address("203.0.113.2")}});
  EXPECT_THAT(net::ResolveHost("moving.test", 123, TimeDelta::FromSeconds(1)).addresses,
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
  EXPECT_EQ(NtpTimestampToUs(received_[0].packet.receive_timestamp, world_.true_us()),
            World::Options().wall_us + 1000);
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
    const auto server = net::IPEndPoint::FromIPv4({203, 0, 113, ++host}, 123);
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
  world_.SetEventLog(nullptr);
  world_.Log("nobody hears this");
  EXPECT_THAT(lines, ElementsAre("     1.500000 the wall clock steps by -2000 us",
                                 "     1.500000 suspended for 2000000 us", "     3.500000 awake"));
}

}  // namespace
}  // namespace skorra::sim
