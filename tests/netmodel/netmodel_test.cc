// SPDX-License-Identifier: Apache-2.0
// The parts of netmodel/: chance, links and servers.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "netmodel/link.h"
#include "netmodel/random.h"
#include "netmodel/server.h"
#include "platform/net/ip_endpoint.h"
#include "testing/addresses.h"
#include "transport/ntp_packet.h"

namespace skorra::netmodel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kSecond = 1000000;
constexpr int64_t kDay = 86400 * kSecond;

// --- Chance.

// Literals: whatever the platform, a seed means these numbers.
TEST(NetmodelRandomTest, ASeedGivesTheSameNumbersEverywhere) {
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

TEST(NetmodelRandomTest, EachDistributionHasItsMeanItsRangeAndItsTail) {
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

TEST(NetmodelRandomTest, AChanceOfZeroDrawsNothing) {
  Random random(1);
  EXPECT_FALSE(random.Chance(0));
  EXPECT_EQ(random.Next(), Random(1).Next());
}

// --- Links.

std::vector<int64_t> ArrivalsOf(Link& link, Random& random, int64_t now_ticks_us, LinkFate* fate) {
  std::vector<int64_t> times;
  for (const Arrival& arrival : link.Transmit({1, 2, 3}, now_ticks_us, random, fate)) {
    times.push_back(arrival.at_ticks_us);
  }
  return times;
}

TEST(LinkTest, ALinkWithoutFaultsTakesItsDelayAndNoRandomNumber) {
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
      EXPECT_THAT(arrival.at_ticks_us, ::testing::AnyOf(0, 77));
      held_back += arrival.at_ticks_us == 77 ? 1 : 0;
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

TEST(LinkTest, TrafficOfOthersDelaysAQueue) {
  Link link({.delay_us = 0, .service_us = 1, .load_permille = 900, .queue_limit_us = 50000}, 0);
  Random random(1);
  int64_t longest_us = 0;
  for (int64_t now_ticks_us = 0; now_ticks_us < kSecond; now_ticks_us += 10000) {
    LinkFate fate = LinkFate::kCarried;
    for (const int64_t at_ticks_us : ArrivalsOf(link, random, now_ticks_us, &fate)) {
      longest_us = std::max(longest_us, at_ticks_us - now_ticks_us);
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

TEST_F(ServerTest, AServerTellsWhatItsOptionsSay) {
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
  EXPECT_EQ(NtpTimestampToUs(reply->receive_timestamp), kNow + 1500);
  EXPECT_EQ(NtpTimestampToUs(reply->transmit_timestamp), kNow + 1540);
}

TEST_F(ServerTest, AServerDriftsFromTheBeginning) {
  Server server({.clock_error_us = 10, .drift_ppb = 100000});
  const auto reply = Ask(server, kDay);
  EXPECT_EQ(NtpTimestampToUs(reply->receive_timestamp), kNow + kDay + 10 + 8640000);
}

TEST_F(ServerTest, AServersTimesScatterToEitherSide) {
  Server server({.noise = Distribution::kConstant, .noise_us = 50});
  std::array<int, 2> sides{};
  for (int i = 0; i < 100; ++i) {
    const int64_t error_us = NtpTimestampToUs(Ask(server)->receive_timestamp) - kNow;
    ASSERT_EQ(std::abs(error_us), 50);
    ++sides[error_us > 0 ? 1 : 0];
  }
  EXPECT_GT(std::min(sides[0], sides[1]), 30);
}

TEST_F(ServerTest, AServerAnswersOnlyRequests) {
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

TEST_F(ServerTest, AScriptOverridesTheOptions) {
  Server server({.script = [](Exchange& exchange) {
    exchange.is_answered = exchange.index != 1;
    exchange.reply.stratum = static_cast<uint8_t>(exchange.index + 3);
  }});
  EXPECT_EQ(Ask(server)->stratum, 3);
  EXPECT_FALSE(Ask(server));
  EXPECT_EQ(Ask(server)->stratum, 5);
}

}  // namespace
}  // namespace skorra::netmodel
