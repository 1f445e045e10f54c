// SPDX-License-Identifier: Apache-2.0

// Witnesses against liars: every one is named in the attempt that it wins, and honest servers never are.
//
// SKORRA_SEED sets the first seed. SKORRA_WITNESS_SEEDS is how many each case of liars gets, and
// SKORRA_WITNESS_ATTEMPTS how many honest attempts are made (`./dev bounds` takes 50 and 100,000).
#include <algorithm>
#include <cstdio>
#include <numeric>

#include "testing/environment_number.h"
#include "tests/clock/witness_world.h"

namespace skorra {
namespace {

using base::kUsPerSecond;
using netmodel::Random;
using ::testing::UnorderedElementsAreArray;

constexpr int64_t kMs = 1000;
constexpr int64_t kYear = 365 * 86400 * kUsPerSecond;

// Near servers with a few milliseconds of delay that varies alike on both ways.
netmodel::ServerOptions Honest(Random& random) {
  const auto error_us = static_cast<int64_t>(random.Below(2 * kMs)) - kMs;
  netmodel::ServerOptions options =
      WitnessWorld::Near(error_us, 1500 + static_cast<int64_t>(random.Below(3 * kMs)));
  options.root_dispersion_us = kMs;
  for (netmodel::LinkOptions* link : {&options.to_server, &options.to_client}) {
    link->jitter = netmodel::Distribution::kUniform;
    link->jitter_us = 500;
  }
  return options;
}

struct Liars {
  size_t servers;
  size_t liars;
  int64_t lie_us;
  bool is_same_lie;  // or each a different one
};

// The liars, no delay and no jitter, come first in the list or are mixed into it.
void ExpectLiarsNamed(const Liars& c, bool are_first, uint64_t seed) {
  SCOPED_TRACE(testing::Message() << c.liars << " of " << c.servers << ", " << c.lie_us << " us, "
                                  << (c.is_same_lie ? "the same lie" : "different lies") << ", "
                                  << (are_first ? "first" : "mixed") << ", seed " << seed);
  Random random(seed);
  WitnessWorld w("report", seed);
  std::vector<bool> lies(c.servers, false);
  std::fill_n(lies.begin(), c.liars, true);
  for (size_t i = c.servers - 1; !are_first && i > 0; --i) {
    const size_t other = static_cast<size_t>(random.Below(i + 1));
    const bool before = lies[i];
    lies[i] = lies[other];
    lies[other] = before;
  }
  std::vector<std::string> liars;
  for (const bool is_liar : lies) {
    if (is_liar) {
      const auto times = c.is_same_lie ? int64_t{1} : static_cast<int64_t>(liars.size()) + 1;
      liars.push_back(WitnessWorld::Name(w.names.size()));
      w.Add(WitnessWorld::Near(times * c.lie_us, 500));
    } else {
      w.Add(Honest(random));
    }
  }
  w.StartAll(3600);
  ASSERT_TRUE(w.RunToReport());
  const NtpClockReading reading = w.Read();
  const NtpWitnessReport& report = w.report();
  ASSERT_EQ(w.outcomes.size(), 1u);
  EXPECT_EQ(report.attempt, w.outcomes[0].attempt);
  ASSERT_EQ(report.servers.size(), c.servers);
  EXPECT_EQ(report.servers[0].domain, reading.domain);
  EXPECT_EQ(report.servers[0].domain, w.names[0]) << "the first of the list wins";
  EXPECT_THAT(w.Outvoted(), UnorderedElementsAreArray(liars));
  EXPECT_EQ(report.agreement, lies[0] ? NtpClockAgreement::kOutvoted : NtpClockAgreement::kAgrees);
  EXPECT_EQ(reading.agreement, report.agreement);
  EXPECT_EQ(reading.witness_count, c.servers - 1);
  const size_t alike = lies[0] ? (c.is_same_lie ? c.liars - 1 : 0) : c.servers - c.liars - 1;
  EXPECT_EQ(reading.agreeing_count, alike);
  ASSERT_TRUE(report.has_majority);
  const int64_t true_ahead_us = w.TrueUs() - reading.best_estimate_us;
  EXPECT_LE(report.majority_earliest_us, true_ahead_us);
  EXPECT_GE(report.majority_latest_us, true_ahead_us);
  EXPECT_TRUE(reading.has_bound());
}

const std::vector<int64_t>& Lies() {
  static const std::vector<int64_t> lies = {30 * kMs, 100 * kMs, kUsPerSecond, 3600 * kUsPerSecond,
                                            kYear,    10 * kYear};
  return lies;
}

TEST(WitnessLiarsTest, EveryLiarOfAMinorityIsNamedInTheAttemptThatItIsPartOf) {
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  const uint64_t seeds = EnvironmentNumber("SKORRA_WITNESS_SEEDS").value_or(1);
  uint64_t played = 0;
  for (size_t servers = 3; servers <= 7; ++servers) {
    for (size_t liars = 1; 2 * liars < servers; ++liars) {
      for (const int64_t lie_us : Lies()) {
        for (int variant = 0; variant < 8; ++variant) {
          const int64_t signed_us = variant % 2 == 0 ? lie_us : -lie_us;
          // Three times ten years would leave the years that 64 bits of NTP time tell apart.
          const bool is_same_lie = variant % 4 < 2 || lie_us * static_cast<int64_t>(liars) > 10 * kYear;
          for (uint64_t i = 0; i < seeds; ++i) {
            const uint64_t seed = first + played++;
            ExpectLiarsNamed({servers, liars, signed_us, is_same_lie}, variant < 4, seed);
            if (testing::Test::HasFailure()) {
              return;
            }
          }
        }
      }
    }
  }
  std::printf("first seed %llu, %llu attempts\n", static_cast<unsigned long long>(first),
              static_cast<unsigned long long>(played));
}

TEST(WitnessLiarsTest, OfTwoThatDifferNobodyIsNamed) {
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  for (const int64_t lie_us : Lies()) {
    for (const int64_t sign : {-1, 1}) {
      for (const size_t liar : {0u, 1u}) {
        Random random(first);
        WitnessWorld w("report", first);
        for (size_t i = 0; i < 2; ++i) {
          w.Add(i == liar ? WitnessWorld::Near(sign * lie_us, 500) : Honest(random));
        }
        w.StartAll(3600);
        ASSERT_TRUE(w.RunToReport());
        EXPECT_EQ(w.report().agreement, NtpClockAgreement::kConflict) << lie_us * sign;
        EXPECT_EQ(w.Read().agreement, NtpClockAgreement::kConflict);
        EXPECT_EQ(w.report().servers.size(), 2u);
        EXPECT_TRUE(w.Outvoted().empty());
        EXPECT_FALSE(w.report().has_majority);
        EXPECT_EQ(w.Read().witness_count, 1u);
        EXPECT_EQ(w.Read().agreeing_count, 0u);
      }
    }
  }
}

// 5 ms one way and 35 ms the other, in both directions, and a queue on the way of some.
netmodel::ServerOptions Asymmetric(Random& random, size_t server) {
  const bool is_slow_back = server % 2 == 0;
  netmodel::ServerOptions options = {
      .to_server = {.delay_us = (is_slow_back ? 5 : 35) * kMs},
      .to_client = {.delay_us = (is_slow_back ? 35 : 5) * kMs},
  };
  if (random.Chance(300)) {
    options.to_client.jitter = netmodel::Distribution::kExponential;
    options.to_client.jitter_us = 5 * kMs;
  }
  if (random.Chance(300)) {
    options.to_server.jitter = netmodel::Distribution::kExponential;
    options.to_server.jitter_us = 5 * kMs;
  }
  return options;
}

TEST(WitnessLiarsTest, HonestServersOnAsymmetricPathsRaiseNoAlarm) {
  constexpr uint64_t kAttemptsOfAWorld = 250;
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  const uint64_t wanted = EnvironmentNumber("SKORRA_WITNESS_ATTEMPTS").value_or(500);
  uint64_t attempts = 0;
  for (uint64_t seed = first; attempts < wanted; ++seed) {
    Random random(seed);
    WitnessWorld w("report", seed);
    w.world.SetSteadyError({.frequency_ppb = static_cast<int64_t>(random.Below(80000)) - 40000});
    const size_t servers = 2 + static_cast<size_t>(random.Below(6));
    for (size_t i = 0; i < servers; ++i) {
      w.Add(Asymmetric(random, i));
    }
    w.StartAll();
    for (uint64_t i = 0; i < kAttemptsOfAWorld && attempts < wanted; ++i, ++attempts) {
      ASSERT_TRUE(w.RunToReport()) << "seed " << seed;
      ASSERT_EQ(w.report().agreement, NtpClockAgreement::kAgrees) << "seed " << seed;
      ASSERT_EQ(w.report().servers.size(), servers) << "seed " << seed;
      ASSERT_TRUE(w.Outvoted().empty()) << "seed " << seed;
      ASSERT_FALSE(w.report().may_be_smear) << "seed " << seed;
      ASSERT_EQ(w.Read().agreeing_count, servers - 1);
    }
    ASSERT_EQ(w.outcomes.size(), w.reports.size()) << "every attempt was checked, seed " << seed;
  }
  std::printf("first seed %llu, %llu honest attempts\n", static_cast<unsigned long long>(first),
              static_cast<unsigned long long>(attempts));
}

}  // namespace
}  // namespace skorra
