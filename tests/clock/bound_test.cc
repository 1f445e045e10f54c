// SPDX-License-Identifier: Apache-2.0

// The promise of the bound: with an honest server, the truth lies between the two limits at every second,
// whatever the path and the host's clock do.
//
// Every path meets every host. Each meeting has a seed of its own; SKORRA_SEED sets the first one, and
// SKORRA_BOUND_SEEDS how many each meeting gets (`./dev bounds` takes 1000).
#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "netmodel/server.h"
#include "testing/clock_fixture.h"
#include "testing/environment_number.h"

namespace skorra {
namespace {

using base::kUsPerSecond;
using netmodel::Distribution;
using netmodel::DrawDelay;
using netmodel::Random;

constexpr int64_t kMs = 1000;
constexpr char kServer[] = "203.0.113.1";

// One way of one request: how long, by its place in the burst. Negative: it is lost.
struct Delays {
  int64_t to_server_us;
  int64_t to_client_us;
};

struct Path {
  const char* name;
  std::function<Delays(Random&, size_t)> draw;
};

struct Host {
  const char* name;
  // Plans what the host does. `at_us` is drawn from the story's length, or is inside the first burst.
  std::function<void(KeptClock&, Random&, int64_t at_us)> plan;
  int64_t story_s;
  bool has_one_sync = false;  // the server is silent after that
  int64_t sleep_s = 0;
};

int64_t Exponential(Random& random, int64_t mean_us) {
  return DrawDelay(random, Distribution::kExponential, mean_us);
}
int64_t Late(Random& random) { return 40 * kMs + static_cast<int64_t>(random.Below(40 * kMs)); }

const std::vector<Path>& Paths() {
  static const std::vector<Path> paths = {
      {"symmetric_exponential_5_ms",
       [](Random& r, size_t) {
         return Delays{10 * kMs + Exponential(r, 5 * kMs), 10 * kMs + Exponential(r, 5 * kMs)};
       }},
      {"one_sided_50_ms",
       [](Random& r, size_t) {
         return Delays{10 * kMs + Exponential(r, 50 * kMs), 10 * kMs};
       }},
      {"six_in_ten_late_one_way",
       [](Random& r, size_t) {
         return Delays{10 * kMs, 10 * kMs + (r.Chance(600) ? Late(r) : 0)};
       }},
      {"all_late_one_way",
       [](Random& r, size_t) {
         return Delays{10 * kMs + Late(r), 10 * kMs};
       }},
      {"a_queue_that_builds_up",
       [](Random& r, size_t place) {
         return Delays{10 * kMs + static_cast<int64_t>(place) * 4 * kMs + Exponential(r, kMs), 10 * kMs};
       }},
      {"5_ms_there_35_ms_back",
       [](Random&, size_t) {
         return Delays{5 * kMs, 35 * kMs};
       }},
      {"every_third_lost",
       [](Random& r, size_t) {
         const int64_t delay_us = 10 * kMs + Exponential(r, 3 * kMs);
         return r.Chance(300) ? Delays{-1, -1} : Delays{delay_us, 10 * kMs};
       }},
  };
  return paths;
}

void Slew(KeptClock& clock, int64_t at_us, int64_t ppm, int64_t duration_s) {
  clock.world.Schedule(KeptClock::Us(at_us), [&clock, ppm, duration_s] {
    clock.world.SlewSteady(ppm * 1000);
    clock.world.Schedule(KeptClock::S(duration_s), [&clock] { clock.world.SlewSteady(0); });
  });
}

int64_t EitherWay(Random& random, int64_t value) { return random.Chance(500) ? value : -value; }

void Sleep(KeptClock& clock, Random& random, int64_t at_us, int64_t duration_s) {
  const int64_t error_us = EitherWay(random, static_cast<int64_t>(random.Below(kUsPerSecond)));
  clock.world.Schedule(KeptClock::Us(at_us), [&clock, duration_s, error_us] {
    clock.world.Suspend(KeptClock::S(duration_s), KeptClock::Us(error_us));
  });
}

const std::vector<Host>& Hosts() {
  constexpr int64_t kLongSleepS = 8 * 3600;
  static const std::vector<Host> hosts = {
      {"a_quiet_host", [](KeptClock&, Random&, int64_t) {}, 7200},
      {"slews_25000_ppm_for_4_s",
       [](KeptClock& c, Random& r, int64_t at_us) { Slew(c, at_us, EitherWay(r, 25000), 4); }, 7200},
      {"slews_500_ppm_for_200_s",
       [](KeptClock& c, Random& r, int64_t at_us) { Slew(c, at_us, EitherWay(r, 500), 200); }, 7200},
      {"an_oscillator_of_50_ppm",
       [](KeptClock& c, Random& r, int64_t) {
         c.world.SetSteadyError({.frequency_ppb = EitherWay(r, 50000)});
       },
       7200},
      {"suspends_for_8_hours",
       [](KeptClock& c, Random& r, int64_t at_us) { Sleep(c, r, at_us, kLongSleepS); }, 7200, false,
       kLongSleepS},
      // What the oscillator may drift does not hide the error of so short a sleep.
      {"suspends_for_a_minute", [](KeptClock& c, Random& r, int64_t at_us) { Sleep(c, r, at_us, 60); }, 7200,
       false, 60},
      {"steps_the_wall_clock",
       [](KeptClock& c, Random& r, int64_t at_us) {
         const int64_t step_s = EitherWay(r, static_cast<int64_t>(r.Below(86400)));
         c.world.Schedule(KeptClock::Us(at_us), [&c, step_s] { c.world.StepWall(KeptClock::S(step_s)); });
       },
       7200},
      {"24_hours_without_a_sync",
       [](KeptClock& c, Random& r, int64_t) {
         c.world.SetSteadyError({.frequency_ppb = EitherWay(r, 30000), .wander_ppb = 150});
       },
       86400, true},
  };
  return hosts;
}

// One path with one host, from the start of the clock on.
class Story {
 public:
  Story(const Path& path, const Host& host, uint64_t seed)
      : path_(path), host_(host), clock_(seed), random_(seed) {
    clock_.world.SetNetwork([this](const sim::SentDatagram& sent) { OnSent(sent); });
    const int64_t in_burst_us = static_cast<int64_t>(random_.Below(300 * kMs));
    const int64_t later_us =
        static_cast<int64_t>(random_.Below(static_cast<uint64_t>(host.story_s) * kUsPerSecond / 2));
    const int64_t at_us = random_.Chance(200) ? in_burst_us : later_us;
    host.plan(clock_, random_, at_us);
    // In every second story the network fails then for half an hour, so that no sync mends what happened.
    if (random_.Chance(500)) {
      outage_from_ticks_us_ = clock_.world.steady_ticks_us() + at_us;
    }
  }

  // The seconds at which the truth lay outside.
  int64_t Play() {
    NtpClockOptions options;
    options.servers = {kServer};
    // In every second story the syncs come so often that the frequency of the oscillator is known for most of
    // it.
    options.interval_s = random_.Chance(500) ? 600 : 0;
    clock_.Start(options);
    int64_t outside = 0;
    for (int64_t second = 0; second < host_.story_s; ++second) {
      clock_.world.RunFor(KeptClock::S(1));
      outside += clock_.IsTruthInside() ? 0 : 1;
      const NtpClockReading reading = clock_.Read();
      bounded_ += reading.has_bound() ? 1 : 0;
      with_frequency_ += reading.has_frequency() ? 1 : 0;
      EXPECT_TRUE(!reading.has_bound() || (reading.earliest_us <= reading.best_estimate_us &&
                                           reading.best_estimate_us <= reading.latest_us));
    }
    return outside;
  }
  int64_t bounded() const { return bounded_; }
  int64_t with_frequency() const { return with_frequency_; }
  int64_t outcomes() const { return static_cast<int64_t>(clock_.outcomes.size()); }
  int64_t disagreeing() const {
    const auto reasons = clock_.Reasons();
    return std::count(reasons.begin(), reasons.end(), NtpSyncReason::kDisagreeing);
  }

 private:
  bool IsOutage(int64_t ticks_us) const {
    // Steady time goes on while the machine sleeps.
    const int64_t length_us = 1800 * kUsPerSecond + host_.sleep_s * kUsPerSecond;
    const int64_t since_us = ticks_us - outage_from_ticks_us_;
    return outage_from_ticks_us_ != 0 && since_us >= 0 && since_us < length_us;
  }

  void OnSent(const sim::SentDatagram& sent) {
    if ((host_.has_one_sync && clock_.IsGraded()) || IsOutage(sent.sent_ticks_us)) {
      return;
    }
    place_ = sent.sent_ticks_us - last_sent_ticks_us_ > kUsPerSecond ? 0 : place_ + 1;
    last_sent_ticks_us_ = sent.sent_ticks_us;
    const Delays delays = path_.draw(random_, place_);
    if (delays.to_server_us < 0) {
      return;
    }
    clock_.world.Schedule(KeptClock::Us(delays.to_server_us), [this, sent, delays] {
      const auto reply = server_.Answer(sent.bytes, sent.client, clock_.world.true_us(), 0, random_);
      clock_.world.Deliver(sent.server, sent.client, reply->bytes, KeptClock::Us(delays.to_client_us));
    });
  }

  const Path& path_;
  const Host& host_;
  KeptClock clock_;
  Random random_;
  netmodel::Server server_{{}};
  int64_t outage_from_ticks_us_ = 0;  // 0: none
  size_t place_ = 0;
  int64_t last_sent_ticks_us_ = 0;
  int64_t bounded_ = 0;
  int64_t with_frequency_ = 0;
};

TEST(BoundTest, TheTruthLiesBetweenTheLimitsAtEverySecondOfEveryStory) {
  const uint64_t seeds = EnvironmentNumber("SKORRA_BOUND_SEEDS", 1, 1000000).value_or(2);
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  std::printf("%llu seeds from SKORRA_SEED=%llu on\n", static_cast<unsigned long long>(seeds),
              static_cast<unsigned long long>(first));
  int64_t with_frequency = 0;
  for (const Host& host : Hosts()) {
    for (const Path& path : Paths()) {
      int64_t outside = 0;
      int64_t bounded = 0;
      int64_t outcomes = 0;
      int64_t disagreeing = 0;
      for (uint64_t seed = first; seed < first + seeds; ++seed) {
        Story story(path, host, seed);
        const int64_t story_outside = story.Play();
        bounded += story.bounded();
        with_frequency += story.with_frequency();
        outcomes += story.outcomes();
        disagreeing += story.disagreeing();
        outside += story_outside;
        EXPECT_EQ(story_outside, 0) << path.name << ", " << host.name << ", seed " << seed;
      }
      const int64_t total = static_cast<int64_t>(seeds) * host.story_s;
      std::printf("%-24s %-26s %lld s, %lld outside, %.1f %% bounded, %lld syncs, %lld disagreeing\n",
                  host.name, path.name, static_cast<long long>(total), static_cast<long long>(outside),
                  100.0 * static_cast<double>(bounded) / static_cast<double>(total),
                  static_cast<long long>(outcomes), static_cast<long long>(disagreeing));
      // An honest server is hardly ever said to contradict itself.
      EXPECT_LE(disagreeing, 1 + outcomes / 1000) << path.name << ", " << host.name;
      // A bound that is missing holds too. An outage at the beginning leaves half an hour without one.
      EXPECT_GT(bounded, total * 6 / 10) << path.name << ", " << host.name;
    }
  }
  std::printf("the frequency of the oscillator was known for %lld s\n",
              static_cast<long long>(with_frequency));
  EXPECT_GT(with_frequency, 0);
}

}  // namespace
}  // namespace skorra
