// SPDX-License-Identifier: Apache-2.0

// How wrong the clock's estimate is right after a sync, alongside the manager's trimmed mean of the same
// replies. SKORRA_SEED sets the first world, SKORRA_ESTIMATES how many there are (`./dev bounds` takes
// 20,000).
#include <cstdio>
#include <cstdlib>

#include "gtest/gtest.h"
#include "testing/clock_fixture.h"
#include "testing/environment_number.h"

namespace skorra {
namespace {

using netmodel::Distribution;
using netmodel::LinkOptions;

constexpr int64_t kMs = 1000;
constexpr char kServer[] = "203.0.113.1";

struct MeanErrors {
  double clock_us = 0;
  double manager_us = 0;
};

// Over many worlds with one attempt each.
MeanErrors Measure(const LinkOptions& to_server, const LinkOptions& to_client) {
  const uint64_t count = EnvironmentNumber("SKORRA_ESTIMATES", 1, 1000000).value_or(300);
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  MeanErrors mean;
  for (uint64_t seed = first; seed < first + count; ++seed) {
    KeptClock clock(seed);
    clock.network.AddServer(Address(kServer), {.to_server = to_server, .to_client = to_client});
    clock.StartWith({kServer});
    EXPECT_TRUE(clock.world.RunUntil([&] { return clock.IsGraded(); }, KeptClock::S(10))) << "seed " << seed;
    const NtpClockReading reading = clock.Read();
    EXPECT_LE(reading.earliest_us, reading.best_estimate_us);
    EXPECT_LE(reading.best_estimate_us, reading.latest_us);
    mean.clock_us += std::abs(static_cast<double>(reading.best_estimate_us - clock.TrueUs()));
    mean.manager_us +=
        std::abs(static_cast<double>(clock.peer.manager().GetNtpTimestampFrom1970() - clock.TrueUs()));
  }
  mean.clock_us /= static_cast<double>(count);
  mean.manager_us /= static_cast<double>(count);
  std::printf(
      "%llu attempts from SKORRA_SEED=%llu on: the clock is wrong by %.0f us, the manager by %.0f us\n",
      static_cast<unsigned long long>(count), static_cast<unsigned long long>(first), mean.clock_us,
      mean.manager_us);
  return mean;
}

LinkOptions Exponential(int64_t delay_us, int64_t jitter_us) {
  return {.delay_us = delay_us, .jitter = Distribution::kExponential, .jitter_us = jitter_us};
}

TEST(EstimateTest, AQueueInOneDirectionMovesTheEstimateByLessThanHalfAMillisecond) {
  for (const bool is_there : {true, false}) {
    const LinkOptions queue = Exponential(0, 10 * kMs);
    const LinkOptions quiet{.delay_us = 0};
    const MeanErrors errors = is_there ? Measure(queue, quiet) : Measure(quiet, queue);
    EXPECT_LE(errors.clock_us, 500);
    EXPECT_GT(errors.manager_us, 2000) << "the manager averages over the queue";
  }
}

TEST(EstimateTest, QueuesInBothDirectionsMoveTheEstimateNoMoreThanTheTrimmedMean) {
  const MeanErrors errors = Measure(Exponential(10 * kMs, 5 * kMs), Exponential(10 * kMs, 5 * kMs));
  EXPECT_LE(errors.clock_us, errors.manager_us);
  EXPECT_LE(errors.clock_us, 460);
}

TEST(EstimateTest, WaysWithoutQueuesMoveTheEstimateNoMoreThanTheTrimmedMean) {
  for (const Distribution jitter : {Distribution::kConstant, Distribution::kUniform, Distribution::kPareto}) {
    const LinkOptions link{.delay_us = 5 * kMs, .jitter = jitter, .jitter_us = 4 * kMs};
    const MeanErrors errors = Measure(link, link);
    EXPECT_LE(errors.clock_us, errors.manager_us + 1) << netmodel::DistributionName(jitter);
  }
}

}  // namespace
}  // namespace skorra
