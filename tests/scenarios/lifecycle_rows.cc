// SPDX-License-Identifier: Apache-2.0

// Rows about starts and stops, and domains that come while an attempt runs.
#include "tests/scenarios/rows.h"

namespace skorra {
namespace {

// `Stop` after `us` of an attempt.
std::function<void(Run&)> StopAfter(int64_t us) {
  return [us](Run& run) {
    run.AddDomains({"time.test"});
    run.For(10 * kMs);
    run.Start();
    run.For(us);
    run.Stop();
    run.For(kMinute);
  };
}

std::vector<Scenario> StopRows() {
  return {
      {"stop_before_the_first_send",
       "a stop right after the start: its task runs before the first send, and nothing leaves the machine",
       OneServer({}), StopAfter(0), NoResult({Bursts(kA, 0)}, {})},
      {"stop_before_the_first_reply", "one request is out; its reply finds the socket closed", OneServer({}),
       StopAfter(5 * kMs), NoResult({{kA, 1, 1}}, {})},
      {"stop_during_the_burst",
       "no outcome; the provisional result of the first reply stays, since only an outcome would replace it",
       OneServer({}), StopAfter(95 * kMs), Right(40 * kMs, {{kA, 10, 10}}, {})},
      {"stop_while_waiting", "the burst is out and nobody answers: the attempt ends without an outcome",
       OneServer({.is_silent = true}), StopAfter(kSecond), NoResult({OneBurst(kA)}, {})},
      {"stop_during_a_retry", "in the burst to the second address",
       [](Run& run) {
         run.SetHost("time.test", {kA, kB});
         run.AddServer(kB, {.is_silent = true});
       },
       StopAfter(3095 * kMs), NoResult({OneBurst(kA), {kB, 10, 10}}, {})},
      {"stop_after_the_outcome", "closes the sockets earlier; the result stays", OneServer({}),
       StopAfter(kSecond), Right(40 * kMs, {OneBurst(kA)}, {0})},
  };
}

std::vector<Scenario> StopAndStartRows() {
  return {
      {"stop_and_start_at_once",
       "the stop is a task that has not run yet, so that the start is refused: no attempt is left",
       OneServer({}),
       [](Run& run) {
         Sync(run, 95 * kMs);
         run.Stop();
         run.Start();
         run.For(10 * kSecond);
       },
       Right(20 * kMs, {{kA, 10, 10}}, {})},
      {"stop_and_start_during_the_burst",
       "the first attempt's posted sends go on in the second, and both share the burst under way, until 195 "
       "ms after its beginning the next one can begin. The first check evaluates first: one outcome",
       OneServer({}),
       [](Run& run) {
         Sync(run, 85 * kMs);
         run.Stop();
         run.For(10 * kMs);
         run.Start();
         run.For(10 * kSecond);
       },
       Right(20 * kMs, {{kA, 30, 30, 5 * kMs}}, {0})},
      {"stop_without_a_start", "cleans up what is not there, and harms nothing", OneServer({}),
       [](Run& run) {
         run.Stop();
         run.For(kSecond);
         SyncOnce(run);
       },
       Right(1020 * kMs, {OneBurst(kA)}, {0})},
      {"stop_just_before_a_start",
       "the stop's task runs after the start was accepted: the burst leaves, but nobody waits for the "
       "replies",
       OneServer({}),
       [](Run& run) {
         run.Stop();
         SyncOnce(run);
       },
       Right(20 * kMs, {OneBurst(kA)}, {})},
      {"start_before_a_pending_stop",
       "the stop that follows an outcome by 30 s is not taken back: it cuts off the attempt that began "
       "before it, without an outcome; the next one succeeds",
       OneServer({.to_server = {.delay_us = 450 * kMs}, .to_client = {.delay_us = 450 * kMs}}),
       [](Run& run) {
         Sync(run, 30500 * kMs);
         run.Start();
         run.For(10 * kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(1 * kSecond, {Bursts(kA, 3)}, {0, 0})},
  };
}

std::vector<Scenario> StartRows() {
  return {
      {"start_with_a_fresh_result", "is announced again from what is kept, and nobody is asked",
       OneServer({}),
       [](Run& run) {
         SyncOnce(run);
         run.For(4 * kMinute);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {OneBurst(kA)}, {0, 0})},
      {"start_during_an_attempt", "is refused: one burst, one outcome", OneServer({}),
       [](Run& run) {
         Sync(run, 95 * kMs);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {OneBurst(kA)}, {0})},
      {"start_without_any_server",
       "no domain and no default: the queue stops, and nobody is told",
       [](Run&) {},
       [](Run& run) {
         run.Start();
         run.For(kMinute);
       },
       {.has_result_at_end = false}},
      {"reads_alone",
       "a process that only reads gets its result by its first read",
       OneServer({.clock_error_us = -1500}),
       [](Run& run) {
         run.AddDomains({"time.test"});
         run.ReadEvery(100 * kMs);
         run.For(5 * kSecond);
       },
       {.max_error_us = 1500,
        .rms_error_us = 1500,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0},
        .min_error_at_end_us = 1500}},
  };
}

std::vector<Scenario> LateDomainRows() {
  return {
      {"domain_added_during_an_attempt",
       "the only server is dead, and a second one is named after a second: it is asked at once",
       [](Run& run) {
         OneServer({.is_silent = true})(run);
         run.SetHost("late.test", {kB});
         run.AddServer(kB, {});
         run.At(kSecond, [&run] { run.AddDomains({"late.test"}); });
       },
       SyncOnce, Right(1020 * kMs, {OneBurst(kA), OneBurst(kB)}, {0})},
      {"domain_added_after_others_have_finished",
       "a domain that has finished is idle again, and is asked once more alongside the one that is added",
       [](Run& run) {
         run.SetHost("poor.test", {kA});
         run.SetHost("dead.test", {kB});
         run.SetHost("late.test", {kC});
         run.AddServer(kA, Scattered());
         run.AddServer(kC, {});
         run.At(kSecond, [&run] { run.AddDomains({"late.test"}); });
       },
       [](Run& run) {
         run.AddDomains({"poor.test", "dead.test"});
         run.Start();
         run.For(5 * kSecond);
       },
       {.max_error_us = 101 * kMs,
        .rms_error_us = 50 * kMs,
        .first_result_us = 20 * kMs,
        .requests = {Bursts(kA, 2), OneBurst(kB), OneBurst(kC)},
        .outcomes = {0}}},
      {"domains_added_after_the_start_call",
       "the attempt begins with the list that is there when its task runs",
       [](Run& run) {
         OneServer({})(run);
         run.SetDefaultDomain("default.test");
         run.SetHost("default.test", {kB});
       },
       [](Run& run) {
         run.Start();
         run.AddDomains({"time.test"});
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {OneBurst(kA), OneBurst(kB)}, {0})},
  };
}

}  // namespace

std::vector<Scenario> LifecycleScenarios() {
  return Concatenate({StopRows(), StopAndStartRows(), StartRows(), LateDomainRows()});
}

}  // namespace skorra
