// SPDX-License-Identifier: Apache-2.0

// Days of a machine whose oscillator is wrong: how wrong the clock's estimate is when it follows the
// frequency that the syncs tell, alongside the same estimates without that, and whether the truth stays
// between the limits. SKORRA_SEED sets the first story, SKORRA_FREQUENCY_SEEDS how many each kind gets
// (`./dev bounds` takes 100).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "testing/clock_fixture.h"
#include "testing/environment_number.h"

namespace skorra {
namespace {

using base::kUsPerSecond;
using netmodel::Distribution;
using netmodel::Random;

constexpr int64_t kMs = 1000;
constexpr int64_t kHourUs = 3600 * kUsPerSecond;
constexpr int64_t kStepUs = 600 * kUsPerSecond;  // the oscillator changes as often
constexpr char kServer[] = "203.0.113.1";
constexpr char kOther[] = "203.0.113.2";

uint64_t FirstSeed() { return EnvironmentNumber("SKORRA_SEED").value_or(1); }
uint64_t SeedCount() { return EnvironmentNumber("SKORRA_FREQUENCY_SEEDS", 1, 100000).value_or(4); }

// A sine of amplitude 1 with the period of a day, as two parabolas: nothing of the mathematics library, whose
// last digit differs from one platform to the next.
double DailyWave(int64_t us) {
  const double part = static_cast<double>(us % (24 * kHourUs)) / (12.0 * kHourUs);  // 0 to 2
  const double x = part < 1 ? part : part - 1;
  return (part < 1 ? 4.0 : -4.0) * x * (1 - x);
}

// The frequency of an oscillator, in parts per billion: what it gains on the truth.
struct Oscillator {
  int64_t base_ppb = 0;
  int64_t daily_ppb = 0;      // amplitude of a wave over the day
  int64_t load_step_ppb = 0;  // added while the machine is busy, which begins and ends a few times a day
  // The host's own time daemon corrects it every ten minutes, and misses it by up to this; negative: there is
  // no daemon.
  int64_t daemon_error_ppb = -1;
};

class Day {
 public:
  Day(const Oscillator& oscillator, const netmodel::ServerOptions& server, uint64_t seed)
      : oscillator_(oscillator), clock(seed), random_(seed) {
    clock.network.AddServer(Address(kServer), server);
    clock.on_outcome = [this](const NtpSyncOutcome&) {
      const NtpClockReading reading = clock.Read();
      estimate_at_sync_us_ = reading.best_estimate_us - clock.world.steady_ticks_us();
    };
    phase_us_ = static_cast<int64_t>(random_.Below(24 * kHourUs));
    Change();
    clock.StartWith({kServer});
  }

  // Plays until `end_us` after the beginning and calls `look` every minute.
  void PlayUntil(int64_t end_us, const std::function<void()>& look) {
    for (; played_us_ < end_us; played_us_ += 60 * kUsPerSecond) {
      clock.world.RunFor(KeptClock::S(60));
      look();
    }
  }
  // The estimate of the last sync, as it would go on with the steady clock alone.
  int64_t UncorrectedUs() const { return clock.world.steady_ticks_us() + estimate_at_sync_us_; }
  int64_t played_us() const { return played_us_; }

 private:
  void Change() {
    const int64_t now_us = clock.world.steady_ticks_us() - clock.world.begin_ticks_us();
    if (random_.Chance(20)) {
      is_busy_ = !is_busy_;
    }
    const int64_t ppb =
        oscillator_.base_ppb +
        static_cast<int64_t>(static_cast<double>(oscillator_.daily_ppb) * DailyWave(now_us + phase_us_)) +
        (is_busy_ ? oscillator_.load_step_ppb : 0);
    clock.world.SetSteadyError({.frequency_ppb = ppb});
    if (oscillator_.daemon_error_ppb >= 0) {
      const auto error_ppb =
          static_cast<int64_t>(random_.Below(2 * static_cast<uint64_t>(oscillator_.daemon_error_ppb) + 1)) -
          oscillator_.daemon_error_ppb;
      clock.world.SetKernelFrequency(-ppb + error_ppb);
    }
    clock.world.Schedule(KeptClock::Us(kStepUs), [this] { Change(); });
  }

  const Oscillator oscillator_;

 public:
  KeptClock clock;

 private:
  Random random_;
  int64_t phase_us_ = 0;
  bool is_busy_ = false;
  int64_t played_us_ = 0;
  int64_t estimate_at_sync_us_ = 0;
};

// A server 10 ms away in each direction, with queues: half of the interval of a sync is about 10 ms.
netmodel::ServerOptions Server(int64_t jitter_us) {
  const netmodel::LinkOptions link{
      .delay_us = 10 * kMs, .jitter = Distribution::kExponential, .jitter_us = jitter_us};
  return {.to_server = link, .to_client = link};
}

struct Errors {
  double corrected_us = 0;
  double uncorrected_us = 0;
  int64_t outside = 0;
  int64_t measured = 0;
  int64_t widest_us = 0;  // the bound just before a sync
};

// From hour 5 to hour 96 of several stories.
Errors MeasureErrors(const Oscillator& oscillator, int64_t jitter_us) {
  Errors errors;
  for (uint64_t seed = FirstSeed(); seed < FirstSeed() + SeedCount(); ++seed) {
    Day day(oscillator, Server(jitter_us), seed);
    int64_t story_outside = 0;
    int64_t with_frequency = 0;
    day.PlayUntil(96 * kHourUs, [&] {
      const NtpClockReading reading = day.clock.Read();
      story_outside += day.clock.IsTruthInside() ? 0 : 1;
      if (day.played_us() >= 5 * kHourUs) {
        with_frequency += reading.has_frequency() ? 1 : 0;
        errors.corrected_us += std::abs(static_cast<double>(reading.best_estimate_us - day.clock.TrueUs()));
        errors.uncorrected_us += std::abs(static_cast<double>(day.UncorrectedUs() - day.clock.TrueUs()));
        errors.widest_us = std::max(errors.widest_us, reading.error_bound_us);
        ++errors.measured;
      }
    });
    EXPECT_EQ(story_outside, 0) << "seed " << seed;
    EXPECT_TRUE(with_frequency > 0 || oscillator.daemon_error_ppb >= 0) << "seed " << seed;
    errors.outside += story_outside;
  }
  errors.corrected_us /= static_cast<double>(errors.measured);
  errors.uncorrected_us /= static_cast<double>(errors.measured);
  std::printf(
      "%llu stories from SKORRA_SEED=%llu on: wrong by %.0f us, without the frequency by %.0f us; the bound "
      "is %lld us "
      "at most, and the truth was outside at %lld of %lld minutes\n",
      static_cast<unsigned long long>(SeedCount()), static_cast<unsigned long long>(FirstSeed()),
      errors.corrected_us, errors.uncorrected_us, static_cast<long long>(errors.widest_us),
      static_cast<long long>(errors.outside), static_cast<long long>(errors.measured));
  return errors;
}

TEST(FrequencyStoryTest, AnOscillatorThatIsWrongBy20PpmCostsLessThanATenth) {
  const Errors errors = MeasureErrors({.base_ppb = 20000, .daily_ppb = 500}, 0);
  EXPECT_LE(errors.corrected_us, errors.uncorrected_us / 10);
  EXPECT_LE(errors.widest_us, 60 * kMs) << "an hour after a sync that is known to 10 ms";
}

TEST(FrequencyStoryTest, SoItIsWithQueuesOnTheWay) {
  const Errors errors = MeasureErrors({.base_ppb = 20000, .daily_ppb = 500}, 2 * kMs);
  EXPECT_LE(errors.corrected_us, errors.uncorrected_us / 10);
}

TEST(FrequencyStoryTest, TheTruthStaysInsideWhileTheOscillatorFollowsTheDayAndTheLoad) {
  const Errors errors = MeasureErrors({.base_ppb = 20000, .daily_ppb = 3000, .load_step_ppb = 3000}, 2 * kMs);
  EXPECT_EQ(errors.outside, 0);
  EXPECT_LE(errors.corrected_us, errors.uncorrected_us / 5);
}

TEST(FrequencyStoryTest, ADisciplinedHostLosesNothing) {
  const Oscillator hosts[] = {
      {.base_ppb = 200},
      {.base_ppb = -200},
      {.base_ppb = 20000, .daily_ppb = 500, .daemon_error_ppb = 200},
      {.base_ppb = 20000, .daily_ppb = 3000, .daemon_error_ppb = 200},
  };
  for (const Oscillator& host : hosts) {
    for (const int64_t jitter_us : {int64_t{0}, 2 * kMs, 5 * kMs}) {
      const Errors errors = MeasureErrors(host, jitter_us);
      EXPECT_LE(errors.corrected_us, errors.uncorrected_us * 1.05);
    }
  }
}

TEST(FrequencyStoryTest, AServerWhoseClockRunsFastIsFollowedByAtMost50Ppm) {
  netmodel::ServerOptions server = Server(0);
  server.drift_ppb = 100000;
  Day day({}, server, FirstSeed());
  int64_t before_us = 0;
  int64_t outcomes = 0;
  day.PlayUntil(12 * kHourUs, [&] {
    const NtpClockReading reading = day.clock.Read();
    const auto now_outcomes = static_cast<int64_t>(day.clock.outcomes.size());
    if (now_outcomes == outcomes && before_us != 0) {
      const int64_t gained_us = reading.best_estimate_us - before_us - 60 * kUsPerSecond;
      EXPECT_LE(std::abs(gained_us), 60 * 50 + 2);
    }
    outcomes = now_outcomes;
    before_us = reading.best_estimate_us;
  });
  EXPECT_EQ(day.clock.Read().frequency_ppb, 50000);
}

// Whether the reading knows the frequency after each of these events, four hours of hourly syncs before.
class FrequencyForgottenTest : public ::testing::Test {
 protected:
  FrequencyForgottenTest() {
    day_.PlayUntil(4 * kHourUs + 1800 * kUsPerSecond, [] {});
    EXPECT_TRUE(day_.clock.Read().has_frequency());
  }
  bool KnowsAfterNextSync() {
    const size_t before = day_.clock.outcomes.size();
    const bool is_synced =
        day_.clock.world.RunUntil([&] { return day_.clock.outcomes.size() > before; }, KeptClock::S(3700));
    EXPECT_TRUE(is_synced);
    return day_.clock.Read().has_frequency();
  }
  void EndHour() { day_.clock.world.RunFor(KeptClock::S(3600)); }

  Day day_{{.base_ppb = 20000}, Server(0), FirstSeed()};
};

TEST_F(FrequencyForgottenTest, NothingHappens) { EXPECT_TRUE(KnowsAfterNextSync()); }

TEST_F(FrequencyForgottenTest, ASuspend) {
  day_.clock.world.Suspend(KeptClock::S(60));
  EXPECT_FALSE(KnowsAfterNextSync());
  EndHour();
  EndHour();
  EndHour();
  EXPECT_TRUE(day_.clock.Read().has_frequency()) << "it is learned again";
}

TEST_F(FrequencyForgottenTest, AnotherClockSource) {
  day_.clock.world.SetClockSource(2);
  EXPECT_FALSE(KnowsAfterNextSync());
}

TEST_F(FrequencyForgottenTest, AStepOfTheKernelsFrequency) {
  day_.clock.world.SetKernelFrequency(1001);
  EXPECT_FALSE(KnowsAfterNextSync());
}

TEST_F(FrequencyForgottenTest, ASmallStepOfTheKernelsFrequency) {
  day_.clock.world.SetKernelFrequency(1000);
  EXPECT_TRUE(KnowsAfterNextSync());
}

TEST_F(FrequencyForgottenTest, AnotherServer) {
  day_.clock.network.AddServer(Address(kOther), Server(0));
  day_.clock.network.RemoveServer(Address(kServer));
  day_.clock.OnQueue([&] { day_.clock.keeper->AddServers({kOther}); });
  EXPECT_FALSE(KnowsAfterNextSync());
  EXPECT_STREQ(day_.clock.Read().domain, kOther);
}

// While the machine sleeps, its oscillator counts nothing: the estimate goes on as the steady clock does.
TEST_F(FrequencyForgottenTest, ASleepIsNotCorrected) {
  day_.clock.network.RemoveServer(Address(kServer));
  const auto gained_us = [&] {
    return day_.clock.Read().best_estimate_us - day_.clock.world.steady_ticks_us();
  };
  const int64_t before_us = gained_us();
  day_.clock.world.Suspend(KeptClock::S(8 * 3600));
  EXPECT_LE(std::abs(gained_us() - before_us), 1) << "20 ppm of it would be 576 ms";
  EXPECT_TRUE(day_.clock.IsTruthInside());
  day_.clock.world.RunFor(KeptClock::S(60));
  EXPECT_NEAR(static_cast<double>(gained_us() - before_us), -1200, 2) << "20 ppm of the minute after it";
  const int64_t now_us = day_.clock.shared.EstimateUs(day_.clock.world.steady_ticks_us());
  EXPECT_LE(std::abs(now_us - day_.clock.Read().best_estimate_us), 1);
  EXPECT_TRUE(day_.clock.IsTruthInside());
}

// Nobody hears of the resume: the reading alone finds out that the machine slept. What counts the sleep is as
// wrong as the oscillator here.
TEST(FrequencyStoryTest, ASleepOfAStoppedClockGrowsTheBoundAsIfNothingWasKnown) {
  for (const int64_t ppb : {-45000, 45000}) {
    Day day({.base_ppb = ppb}, Server(0), FirstSeed());
    day.PlayUntil(5 * kHourUs, [] {});
    ASSERT_TRUE(day.clock.Read().has_frequency());
    day.clock.OnQueue([&] { day.clock.keeper->Stop(); });
    for (int days = 0; days < 3; ++days) {
      day.clock.world.Suspend(KeptClock::S(24 * 3600));
      EXPECT_TRUE(day.clock.IsTruthInside()) << ppb << ", after day " << days;
    }
  }
}

TEST_F(FrequencyForgottenTest, AStartDoesNotForgetWhatTheKernelsCorrectionHasChangedBy) {
  day_.clock.world.SetKernelFrequency(100000);  // a daemon slews by the frequency
  EXPECT_FALSE(KnowsAfterNextSync());
  day_.clock.network.RemoveServer(Address(kServer));
  day_.clock.StartWith({kServer});
  for (int minute = 0; minute < 60; ++minute) {
    day_.clock.world.RunFor(KeptClock::S(60));
    ASSERT_TRUE(day_.clock.IsTruthInside()) << minute;
  }
}

}  // namespace
}  // namespace skorra
