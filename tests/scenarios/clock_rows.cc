// SPDX-License-Identifier: Apache-2.0

// Rows about clocks: steps, suspend, drift, and the years in which numbers end.
#include "tests/scenarios/rows.h"

namespace skorra {
namespace {

// Microseconds since 1601 of the first moments of era 1 (2036-02-07T06:28:16Z), of the second half of 32-bit
// Unix time (2038-01-19T03:14:08Z), of the second half of era 1 (2104-02-26T09:42:24Z), and after the last
// one of unsigned 32-bit Unix time (2106-02-07T06:28:16Z).
constexpr int64_t kEraOne = 13730452096 * kSecond;
constexpr int64_t kYear2038 = 13791957248 * kSecond;
constexpr int64_t kYear2104 = 15877935744 * kSecond;
constexpr int64_t kYear2106 = 15939440896 * kSecond;
constexpr int64_t kYear2030 = 13537929600 * kSecond;
constexpr int64_t kYear2024 = 13348540800 * kSecond;
constexpr int64_t kYear2026 = 13411699200 * kSecond;
constexpr int64_t kYear2137 = 16914528000 * kSecond;

struct Step {
  const char* name;
  int64_t us;
};

std::vector<Scenario> StepRows() {
  const Step steps[] = {{"forward_by_2_s", 2 * kSecond},       {"back_by_2_s", -2 * kSecond},
                        {"forward_by_an_hour", kHour},         {"back_by_an_hour", -kHour},
                        {"forward_by_ten_years", 3653 * kDay}, {"back_by_ten_years", -3653 * kDay}};
  const Limits right = Right(20 * kMs, {Bursts(kA, 2)}, {0, 0});
  Limits announced = right;
  announced.requests = {OneBurst(kA)};
  std::vector<Scenario> rows;
  for (const Step& step : steps) {
    rows.push_back(
        {std::string("wall_") + step.name + "_between_attempts",
         "NTP time follows the steady clock and does not move; the next start finds the step and asks again",
         OneServer({}),
         [=](Run& run) {
           Sync(run, kMinute);
           run.StepWall(step.us);
           run.For(kMinute);
           run.Start();
           run.For(5 * kSecond);
         },
         right});
    rows.push_back({std::string("wall_") + step.name + "_during_an_attempt",
                    "samples are measured by steady ticks; success is noted by the stepped clock, so that "
                    "the next start finds agreement and announces the kept result",
                    OneServer({}),
                    [=](Run& run) {
                      run.At(105 * kMs, [&run, step] { run.StepWall(step.us); });
                      Sync(run, kMinute);
                      run.Start();
                      run.For(5 * kSecond);
                    },
                    announced});
  }
  rows.push_back({"wall_forward_by_2_to_32_ms",
                  "only the low 32 bits of a deviation in ms count, so that this step is not found: the kept "
                  "mapping goes on, which is right all the same",
                  OneServer({}),
                  [](Run& run) {
                    Sync(run, kMinute);
                    run.StepWall(4294967296 * kMs);
                    run.For(kMinute);
                    run.Start();
                    run.For(5 * kSecond);
                  },
                  right});
  rows.push_back({"wall_wrong_by_a_day_from_the_beginning", "the offset is that day, and NTP time is right",
                  [](Run& run) {
                    OneServer({})(run);
                    run.StepWall(-kDay);
                  },
                  SyncOnce, Right(20 * kMs, {OneBurst(kA)}, {0})});
  return rows;
}

void SuspendAt(Run& run, int64_t at_us) {
  run.At(at_us, [&run] { run.world.Suspend(base::TimeDelta::FromSeconds(8 * 3600)); });
}

std::vector<Scenario> SuspendRows() {
  return {
      {"suspend_for_8_hours_between_attempts",
       "the steady clock counts sleep, but runs 10 ppm fast: 0.288 s until the next start, which asks again",
       [](Run& run) {
         OneServer({})(run);
         run.world.SetSteadyError({.frequency_ppb = 10000});
       },
       [](Run& run) {
         SyncOnce(run);
         run.world.Suspend(base::TimeDelta::FromSeconds(8 * 3600));
         run.For(kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       {.max_error_us = 289 * kMs,
        .rms_error_us = 110 * kMs,
        .first_result_us = 20 * kMs,
        .requests = {Bursts(kA, 2)},
        .outcomes = {0, 0}}},
      {"suspend_for_8_hours_and_a_start_at_once",
       "the stop that was due during the sleep runs after the start was accepted and before its attempt: "
       "nobody waits for that one, and its domain stays marked as being asked, so that the next start sends "
       "nothing; only a stop clears the mark",
       OneServer({}),
       [](Run& run) {
         SyncOnce(run);
         run.world.Suspend(base::TimeDelta::FromSeconds(8 * 3600));
         run.Start();
         run.For(5 * kSecond);
         run.Start();
         run.For(5 * kSecond);
         run.Stop();
         run.For(kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {Bursts(kA, 3)}, {0, 0})},
      {"suspend_for_8_hours_during_an_attempt",
       "five replies came before: after waking they are evaluated at once, since the time is up; a request "
       "that took 8 hours is not good enough, and the next start asks again. The sends that slept leave "
       "together",
       OneServer({}),
       [](Run& run) {
         SuspendAt(run, 55 * kMs);
         SyncOnce(run);
         run.For(kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {{kA, 40, 40, 0}}, {0, 0})},
      {"suspend_for_8_hours_before_enough_replies",
       "one reply came before, what arrived during the sleep is lost. The sends that slept leave together as "
       "a new burst; the check finds the time up before anything comes back from that, so that the only "
       "address is asked once more, which adds the two requests that the burst has left, and the next start "
       "announces what that brought",
       OneServer({}),
       [](Run& run) {
         SuspendAt(run, 15 * kMs);
         SyncOnce(run);
         run.For(kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {{kA, 22, 22, 0}}, {0, 0})},
  };
}

std::vector<Scenario> DriftRows() {
  return {
      {"resync_over_30_days",
       "an oscillator 20 ppm fast that wanders: read every minute, NTP time is renewed at the first read "
       "later than 3601 s, every 61 minutes, and is off by 73 ms and the wander at the most. A clock that "
       "hears the same attempts knows the rate from the third one on, and is then right to 1 ms",
       [](Run& run) {
         OneServer({})(run);
         run.world.SetSteadyError({.frequency_ppb = 20000, .wander_ppb = 5});
       },
       [](Run& run) {
         run.ListenWithClock();
         run.AddDomains({"time.test"});
         run.ReadEvery(kMinute);
         run.For(30 * kDay);
       },
       {.max_error_us = 80 * kMs,
        .rms_error_us = 47 * kMs,
        .first_result_us = 2 * kSecond,
        .requests = {Bursts(kA, 709)},
        .outcomes = std::vector<int>(709, 0),
        .clock = ClockLimits{.max_error_us = kMs,
                             .rms_error_us = 100,
                             .max_bound_us = 50 * kMs,
                             .rate_us = 123 * kMinute}}},
      {"slewed_wall_clock_over_a_day",
       "something slews the wall clock by 20 ppm: the clocks disagree by 12 ms when reads may ask again, so "
       "every ten minutes; NTP time itself never moves",
       [](Run& run) {
         OneServer({})(run);
         run.world.SetWallError({.frequency_ppb = 20000});
       },
       [](Run& run) {
         run.AddDomains({"time.test"});
         run.ReadEvery(kMinute);
         run.For(kDay);
       },
       Right(2 * kSecond, {Bursts(kA, 144)}, std::vector<int>(144, 0))},
      {"no_periodic_resync",
       "with the interval 0 a good result stays for good, and grows wrong with the clock",
       [](Run& run) {
         OneServer({})(run);
         run.SetSyncInterval(0);
         run.world.SetSteadyError({.frequency_ppb = -50000});
       },
       [](Run& run) {
         run.AddDomains({"time.test"});
         run.ReadEvery(kMinute);
         run.For(kDay);
       },
       {.max_error_us = 4321 * kMs,
        .rms_error_us = 2500 * kMs,
        .first_result_us = 2 * kSecond,
        .requests = {OneBurst(kA)},
        .outcomes = {0},
        .min_error_at_end_us = 4319 * kMs}},
      {"reads_of_a_process_without_a_server",
       "a read asks for an attempt, here of two bursts, at most once in ten minutes, however often it is "
       "made",
       OneServer({.is_silent = true}),
       [](Run& run) {
         run.AddDomains({"time.test"});
         run.ReadEvery(kSecond);
         run.For(25 * kMinute);
       },
       NoResult({Bursts(kA, 6)}, {-1, -1, -1})},
  };
}

std::vector<Scenario> EraRows() {
  const Limits right = Right(20 * kMs, {OneBurst(kA)}, {0});
  const auto wall_off_by = [](int64_t us) {
    return [us](Run& run) {
      OneServer({})(run);
      run.StepWall(us);
    };
  };
  return {
      {"server_in_era_1_client_in_era_0",
       "the client's clock is two hours behind, across the rollover of 2036", wall_off_by(-2 * kHour),
       SyncOnce, right, kEraOne + kHour},
      {"server_in_era_0_client_in_era_1",
       "the client's clock is two hours ahead, across the rollover of 2036", wall_off_by(2 * kHour), SyncOnce,
       right, kEraOne - kHour},
      {"era_rolls_over_during_the_burst", "half of the replies carry time stamps close to zero",
       OneServer({}), SyncOnce, right, kEraOne - 100 * kMs},
      {"year_2038", "32-bit Unix time ends during the burst", OneServer({}), SyncOnce, right,
       kYear2038 - 100 * kMs},
      {"year_2104", "the time stamps' top bit is set in era 1, and the client's clock is right",
       OneServer({}), SyncOnce, right, kYear2104 - 100 * kMs},
      {"year_2106", "unsigned 32-bit Unix time ends during the burst", OneServer({}), SyncOnce, right,
       kYear2106 - 100 * kMs},
      {"client_in_1970_server_in_2030",
       "a clock that woke up in 1970 is set right: eras are placed near 2026",
       wall_off_by(base::kWindowsToUnixEpochUs - kYear2030), SyncOnce, right, kYear2030},
      {"client_in_1970_server_in_2104",
       "a clock that woke up in 1970 is set right in the second half of era 1, too",
       wall_off_by(base::kWindowsToUnixEpochUs - kYear2104), SyncOnce, right, kYear2104 + kDay},
      {"client_in_2137_server_in_2026", "a clock beyond the window of the servers' times is set right",
       wall_off_by(kYear2137 - kYear2026), SyncOnce, right, kYear2026},
      {"laboratory_of_2024", "client and server both live two years ago", OneServer({}), SyncOnce, right,
       kYear2024},
  };
}

}  // namespace

std::vector<Scenario> ClockScenarios() {
  return Concatenate({StepRows(), SuspendRows(), DriftRows(), EraRows()});
}

}  // namespace skorra
