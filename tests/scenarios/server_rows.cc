// SPDX-License-Identifier: Apache-2.0

// Rows about servers: liars, dead ones, limits, kiss codes, and what they say about themselves.
#include "tests/scenarios/rows.h"

namespace skorra {
namespace {

// Three names, one server each.
std::function<void(Run&)> ThreeServers(const netmodel::ServerOptions& a, const netmodel::ServerOptions& b,
                                       const netmodel::ServerOptions& c) {
  return [=](Run& run) {
    run.SetHost("a.test", {kA});
    run.SetHost("b.test", {kB});
    run.SetHost("c.test", {kC});
    run.AddServer(kA, a);
    run.AddServer(kB, b);
    run.AddServer(kC, c);
  };
}

netmodel::ServerOptions Far(netmodel::ServerOptions options) {
  options.to_server.delay_us = options.to_client.delay_us = 120 * kMs;
  return options;
}

void SyncWithThree(Run& run) {
  run.AddDomains({"a.test", "b.test", "c.test"});
  run.Start();
  run.For(5 * kSecond);
}

Scenario NearLiarRow(const std::vector<RequestLimit>& each) {
  return WithReplies(
      Replies::kWrong,
      {"near_server_lies_by_an_hour",
       "one of three lies by an hour and is heard first: domains are not compared, so it is believed",
       ThreeServers({.clock_error_us = kHour, .to_server = {.delay_us = kMs}, .to_client = {.delay_us = kMs}},
                    {}, {}),
       SyncWithThree,
       {.max_error_us = kHour,
        .rms_error_us = kHour,
        .first_result_us = 20 * kMs,
        .requests = each,
        .outcomes = {0},
        .min_error_at_end_us = kHour}});
}

std::vector<Scenario> SeveralServerRows() {
  const std::vector<RequestLimit> each = {OneBurst(kA), OneBurst(kB), OneBurst(kC)};
  return {
      {"far_server_lies_by_an_hour",
       "one of three lies by an hour but answers later: the first domain with a good result ends the attempt",
       ThreeServers({}, {}, Far({.clock_error_us = kHour})), SyncWithThree, Right(20 * kMs, each, {0})},
      NearLiarRow(each),
      {"two_of_three_dead", "the one that lives is enough, and nobody waits for the others",
       ThreeServers({.is_silent = true}, {.is_silent = true}, {}), SyncWithThree, Right(20 * kMs, each, {0})},
      {"all_dead",
       "no server answers: no result, told after 6 s, and two bursts for each, since each name has one "
       "address",
       ThreeServers({.is_silent = true}, {.is_silent = true}, {.is_silent = true}),
       [](Run& run) {
         run.AddDomains({"a.test", "b.test", "c.test"});
         run.Start();
         run.For(7 * kSecond);
       },
       NoResult({Bursts(kA, 2), Bursts(kB, 2), Bursts(kC, 2)}, {-1})},
      {"closed_ports",
       "errors of the network do not end an attempt early, for they may be forged, but a port that is "
       "closed is not asked twice",
       [](Run& run) {
         run.SetHost("time.test", {kA});
         run.network.AddListener([&run](const sim::SentDatagram& sent) {
           run.At(5 * kMs, [&run, sent] { run.world.ReportError(sent.client, net::SocketError::kRefused); });
         });
       },
       SyncWithRepetition, NoResult({Bursts(kA, 1)}, {-1})},
      {"three_addresses_two_dead", "the addresses of one name are asked one after another, 3 s each",
       [](Run& run) {
         run.SetHost("time.test", {kA, kB, kC});
         run.AddServer(kC, {});
       },
       [](Run& run) { Sync(run, 10 * kSecond); }, Right(6020 * kMs, each, {0})},
      {"dead_addresses_are_asked_last",
       "a later attempt begins with the address that answered the one before",
       [](Run& run) {
         run.SetHost("time.test", {kA, kB, kC});
         run.AddServer(kC, {});
       },
       [](Run& run) {
         Sync(run, 10 * kSecond);
         run.For(50 * kMinute);
         run.Start();
         run.For(kSecond);
       },
       Right(6020 * kMs, {OneBurst(kA), OneBurst(kB), Bursts(kC, 2)}, {0, 0})},
      {"two_names_for_one_address",
       "their calls share one burst: the server is asked twenty times, and the samples go to the first",
       [](Run& run) {
         OneServer({})(run);
         run.SetHost("alias.test", {kA});
       },
       [](Run& run) {
         run.AddDomains({"time.test", "alias.test"});
         run.Start();
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {{kA, 20, 20, 0}}, {0})},
  };
}

std::vector<Scenario> ChangingServerRows() {
  return {
      {"poor_server_after_a_good_one",
       "a poor result never replaces a good one: it is told as 1, and the clock stays as right as it was",
       OneServer({}),
       [](Run& run) {
         SyncOnce(run);
         run.AddServer(kA, Scattered());
         run.For(11 * kMinute);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(20 * kMs, {Bursts(kA, 2)}, {0, 1})},
      {"good_server_after_a_poor_one",
       "a result of 1 is renewed at the next start, and a 0 replaces it",
       OneServer(Scattered()),
       [](Run& run) {
         SyncOnce(run);
         run.AddServer(kA, {});
         run.Start();
         run.For(5 * kSecond);
       },
       {.max_error_us = 101 * kMs,
        .rms_error_us = 20 * kMs,
        .first_result_us = 20 * kMs,
        .requests = {Bursts(kA, 2)},
        .outcomes = {1, 0}}},
  };
}

// An attempt every `interval_us`, the first at once.
void AttemptEvery(Run& run, int64_t interval_us, int count) {
  run.AddDomains({"time.test"});
  for (int i = 0; i < count; ++i) {
    run.Start();
    run.For(interval_us);
  }
}

// Two replies, and RATE for every request beyond.
const netmodel::RateLimit kTwoThenRate = {.interval_us = 8 * kSecond, .burst = 2, .kiss_every = 1};

std::vector<Scenario> RateLimitRows() {
  return {
      {"rate_limited_server",
       "a bucket of eight: enough for a result with the first check; the twelfth request brings RATE, and "
       "only the one that is under way by then still goes out",
       OneServer({.rate_limit = {.interval_us = 2 * kSecond, .burst = 8}}), SyncOnce,
       Right(20 * kMs, {{kA, 13, 13}}, {0})},
      {"rate_limited_server_with_a_small_bucket",
       "a bucket of four: these are a result too, but only once the 3 s are over; the eighth request brings "
       "RATE",
       OneServer({.rate_limit = {.interval_us = 4 * kSecond, .burst = 4}}), SyncOnce,
       Right(20 * kMs, {{kA, 9, 9}}, {0})},
      {"rate_limited_server_with_hardly_a_bucket",
       "two replies and RATE for the third request: no result, no second burst, and the provisional result "
       "is discarded with the attempt",
       OneServer({.rate_limit = kTwoThenRate}),
       SyncWithRepetition,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {{kA, 4, 4}},
        .outcomes = {-1},
        .has_result_at_end = false}},
      {"kiss_of_death", "RATE for everything: the first ends the burst, with one more request under way",
       OneServer({.kiss_code = "RATE"}), SyncWithRepetition, NoResult({{kA, 2, 2}}, {-1})},
      {"kiss_deny", "DENY for everything does the same", OneServer({.kiss_code = "DENY"}), SyncWithRepetition,
       NoResult({{kA, 2, 2}}, {-1})},
      {"kiss_init", "INIT is no refusal: the burst goes on, and a server that is there gets no second one",
       OneServer({.kiss_code = "INIT"}), SyncWithRepetition, NoResult({OneBurst(kA)}, {-1})},
  };
}

std::vector<Scenario> BackOffRows() {
  return {
      {"attempts_within_the_back_off",
       "of four attempts in two minutes only the first sends anything; one after the two minutes and their "
       "jitter sends what a burst of eight sends until RATE comes again",
       OneServer({.rate_limit = kTwoThenRate}),
       [](Run& run) {
         AttemptEvery(run, 35 * kSecond, 4);
         run.For(20 * kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {{kA, 7, 7}},
        .outcomes = {-1, -1, -1, -1, -1},
        .has_result_at_end = false}},
      {"deny_holds_for_four_hours",
       "of attempts a minute before and a second after, the later one sends two requests again",
       OneServer({.kiss_code = "DENY"}),
       [](Run& run) {
         AttemptEvery(run, 4 * kHour - kMinute, 1);
         run.Start();
         run.For(kMinute + kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       NoResult({{kA, 4, 4}}, {-1, -1, -1})},
      {"deny_is_not_forgotten_earlier",
       "an attempt every half hour for less than four hours: only the first sends",
       OneServer({.kiss_code = "DENY"}),
       [](Run& run) {
         AttemptEvery(run, 30 * kMinute, 7);
         run.For(30 * kMinute - 10 * kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       NoResult({{kA, 2, 2}}, std::vector<int>(8, -1))},
      {"rate_from_the_first_of_two_addresses",
       "the second address answers; the first is left alone for two minutes. The address is chosen when an "
       "attempt is over, so that the one after the first without back-off asks it again, with 8 requests",
       [](Run& run) {
         run.SetHost("time.test", {kA, kB});
         run.AddServer(kA, {.rate_limit = kTwoThenRate});
         run.AddServer(kB, {});
         run.SetSyncInterval(30);
         run.At(3 * kMinute, [&run] { run.AddServer(kA, {}); });
       },
       [](Run& run) { AttemptEvery(run, 100 * kSecond, 4); },
       Right(20 * kMs, {{kA, 12, 12}, Bursts(kB, 3)}, {0, 0, 0, 0})},
      {"two_names_for_one_refusing_address",
       "what one name's requests learn binds the other's: two requests each until RATE comes, and then none",
       [](Run& run) {
         OneServer({.kiss_code = "RATE"})(run);
         run.SetHost("alias.test", {kA});
       },
       [](Run& run) {
         run.AddDomains({"time.test", "alias.test"});
         run.Start();
         run.For(7 * kSecond);
         run.Start();
         run.For(7 * kSecond);
       },
       NoResult({{kA, 4, 4, 0}}, {-1, -1})},
  };
}

std::vector<Scenario> SmallBurstRows() {
  return {
      {"eight_requests_per_burst",
       "as configured for public servers: exactly eight leave, evenly spread, and make as good a result",
       [](Run& run) {
         OneServer({})(run);
         run.SetRequestsPerBurst(8);
       },
       SyncOnce, Right(20 * kMs, {{kA, 8, 8, 20 * kMs}}, {0})},
      {"eight_requests_for_a_bucket_of_eight",
       "a server whose limit is eight never has to refuse a burst of eight, once in 20 s",
       [](Run& run) {
         OneServer({.rate_limit = {.interval_us = 2 * kSecond, .burst = 8, .kiss_every = 1}})(run);
         run.SetRequestsPerBurst(8);
         run.SetSyncInterval(10);
       },
       [](Run& run) { AttemptEvery(run, 20 * kSecond, 10); },
       Right(20 * kMs, {{kA, 80, 80, 20 * kMs}}, std::vector<int>(10, 0))},
  };
}

std::vector<Scenario> ServerClaimRows() {
  const Limits nothing = NoResult({OneBurst(kA)}, {-1});
  return {
      {"unsynchronised_server", "leap indicator 3: the server says itself that its clock is not set",
       OneServer({.leap_indicator = 3}), SyncOnce, nothing},
      {"stratum_16", "not synchronised by its stratum", OneServer({.stratum = 16}), SyncOnce, nothing},
      {"stratum_15", "the largest stratum that is one", OneServer({.stratum = 15}), SyncOnce,
       Right(20 * kMs, {OneBurst(kA)}, {0})},
      {"leap_second_announced", "leap indicators 1 and 2 only announce: the time is good",
       OneServer({.leap_indicator = 1}), SyncOnce, Right(20 * kMs, {OneBurst(kA)}, {0})},
      {"large_root_dispersion", "a server that admits to 8.5 s of doubt is not believed, and not asked again",
       OneServer(
           {.clock_error_us = 3 * kSecond, .root_delay_us = kSecond, .root_dispersion_us = 8 * kSecond}),
       SyncWithRepetition, nothing},
      {"root_distance_at_the_limit",
       "half of 2 s of root delay and 4 s of dispersion are 5 s: the manager grades by samples alone",
       OneServer(
           {.clock_error_us = 3 * kSecond, .root_delay_us = 2 * kSecond, .root_dispersion_us = 4 * kSecond}),
       SyncOnce,
       {.max_error_us = 3 * kSecond,
        .rms_error_us = 3 * kSecond,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0},
        .min_error_at_end_us = 3 * kSecond}},
      {"root_distance_above_the_limit", "1 ms more of dispersion: no result",
       OneServer({.root_delay_us = 2 * kSecond, .root_dispersion_us = 4001 * kMs}), SyncOnce, nothing},
  };
}

std::vector<Scenario> ServerBehaviourRows() {
  return {
      {"silent_server", "an address where nobody listens gets a second burst, but no third",
       OneServer({.is_silent = true}),
       [](Run& run) {
         SyncWithRepetition(run);
         run.For(kMinute);
       },
       NoResult({Bursts(kA, 2)}, {-1})},
      {"noisy_server",
       "readings that are 100 ms ahead and behind in turn: a result, but one that may be inaccurate",
       OneServer(Scattered()),
       SyncOnce,
       {.max_error_us = 101 * kMs,
        .rms_error_us = 25 * kMs,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {1}}},
      {"slow_server",
       "30 ms from receiving to transmitting cancel out of offset and round-trip time",
       OneServer({.clock_error_us = 700, .processing_us = 30 * kMs}),
       SyncOnce,
       {.max_error_us = 700,
        .rms_error_us = 700,
        .first_result_us = 50 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0},
        .min_error_at_end_us = 700}},
      WithReplies(Replies::kWrong,
                  {"drifting_server",
                   "a server that gains 200 ppm: an hour later its time, and ours, is 0.72 s off",
                   OneServer({.drift_ppb = 200000}),
                   [](Run& run) {
                     SyncOnce(run);
                     run.For(kHour);
                     run.Start();
                     run.For(5 * kSecond);
                   },
                   {.max_error_us = 724 * kMs,
                    .rms_error_us = 250 * kMs,
                    .first_result_us = 20 * kMs,
                    .requests = {Bursts(kA, 2)},
                    .outcomes = {0, 0},
                    .min_error_at_end_us = 720 * kMs}}),
  };
}

}  // namespace

std::vector<Scenario> ServerScenarios() {
  return Concatenate({SeveralServerRows(), ChangingServerRows(), RateLimitRows(), BackOffRows(),
                      SmallBurstRows(), ServerClaimRows(), ServerBehaviourRows()});
}

}  // namespace skorra
