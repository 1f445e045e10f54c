// Rows about servers: liars, dead ones, limits, kiss codes, and what they say about themselves.
#include "tests/scenarios/rows.h"

namespace skorra {
namespace {

// Three names, one server each.
std::function<void(Run&)> ThreeServers(const sim::ServerOptions& a, const sim::ServerOptions& b,
                                       const sim::ServerOptions& c) {
  return [=](Run& run) {
    run.SetHost("a.test", {kA});
    run.SetHost("b.test", {kB});
    run.SetHost("c.test", {kC});
    run.AddServer(kA, a);
    run.AddServer(kB, b);
    run.AddServer(kC, c);
  };
}

sim::ServerOptions Far(sim::ServerOptions options) {
  options.to_server.delay_us = options.to_client.delay_us = 120 * kMs;
  return options;
}

void SyncWithThree(Run& run) {
  run.AddDomains({"a.test", "b.test", "c.test"});
  run.Start();
  run.For(5 * kSecond);
}

void SyncOnce(Run& run) {
  run.AddDomains({"time.test"});
  run.Start();
  run.For(5 * kSecond);
}

std::vector<Scenario> SeveralServerRows() {
  const std::vector<RequestLimit> each = {OneBurst(kA), OneBurst(kB), OneBurst(kC)};
  return {
      {"far_server_lies_by_an_hour",
       "one of three lies by an hour but answers later: the first domain with a good result ends the attempt",
       ThreeServers({}, {}, Far({.clock_error_us = kHour})),
       SyncWithThree,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = each,
        .outcomes = {0}}},
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
        .min_error_at_end_us = kHour}},
      {"two_of_three_dead",
       "the one that lives is enough, and nobody waits for the others",
       ThreeServers({.is_silent = true}, {.is_silent = true}, {}),
       SyncWithThree,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = each,
        .outcomes = {0}}},
      {"all_dead",
       "no server answers: no result, told after 3 s, and one burst for each",
       ThreeServers({.is_silent = true}, {.is_silent = true}, {.is_silent = true}),
       SyncWithThree,
       {.requests = each, .outcomes = {-1}, .has_result_at_end = false}},
      {"closed_ports",
       "errors of the network do not end an attempt early: they may be forged",
       [](Run& run) {
         run.SetHost("time.test", {kA});
         run.network.AddListener([&run](const sim::SentDatagram& sent) {
           run.At(5 * kMs, [&run, sent] { run.world.ReportError(sent.client, net::SocketError::kRefused); });
         });
       },
       SyncOnce,
       {.requests = {OneBurst(kA)}, .outcomes = {-1}, .has_result_at_end = false}},
      {"three_addresses_two_dead",
       "the addresses of one name are asked one after another, 3 s each",
       [](Run& run) {
         run.SetHost("time.test", {kA, kB, kC});
         run.AddServer(kC, {});
       },
       [](Run& run) {
         run.AddDomains({"time.test"});
         run.Start();
         run.For(10 * kSecond);
       },
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 6020 * kMs,
        .requests = each,
        .outcomes = {0}}},
      {"two_names_for_one_address",
       "both get a burst, and the samples go to the first: the spacing at the server is that of both bursts",
       [](Run& run) {
         OneServer({})(run);
         run.SetHost("alias.test", {kA});
       },
       [](Run& run) {
         run.AddDomains({"time.test", "alias.test"});
         run.Start();
         run.For(5 * kSecond);
       },
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {{kA, 40, 40, 0}},
        .outcomes = {0}}},
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
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {Bursts(kA, 2)},
        .outcomes = {0, 1}}},
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

std::vector<Scenario> RefusalRows() {
  const Limits nothing = {.requests = {OneBurst(kA)}, .outcomes = {-1}, .has_result_at_end = false};
  return {
      {"rate_limited_server",
       "a bucket of eight: enough for a result with the first check",
       OneServer({.rate_limit = {.interval_us = 2 * kSecond, .burst = 8}}),
       SyncOnce,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"rate_limited_server_with_a_small_bucket",
       "a bucket of four: these are a result too, but only once the 3 s are over",
       OneServer({.rate_limit = {.interval_us = 4 * kSecond, .burst = 4}}),
       SyncOnce,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"rate_limited_server_with_hardly_a_bucket",
       "two replies and kisses for the rest are no result; the provisional one is discarded with the attempt",
       OneServer({.rate_limit = {.interval_us = 8 * kSecond, .burst = 2, .kiss_every = 1}}),
       SyncOnce,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {-1},
        .has_result_at_end = false}},
      {"kiss_of_death", "RATE for everything: stratum 0 is no time, and no cause for more requests",
       OneServer({.kiss_code = "RATE"}), SyncOnce, nothing},
      {"kiss_deny", "DENY for everything", OneServer({.kiss_code = "DENY"}), SyncOnce, nothing},
  };
}

std::vector<Scenario> HonestServerRows() {
  const Limits nothing = {.requests = {OneBurst(kA)}, .outcomes = {-1}, .has_result_at_end = false};
  return {
      {"unsynchronised_server", "leap indicator 3: the server says itself that its clock is not set",
       OneServer({.leap_indicator = 3}), SyncOnce, nothing},
      {"stratum_16", "not synchronised by its stratum", OneServer({.stratum = 16}), SyncOnce, nothing},
      {"stratum_15",
       "the largest stratum that is one",
       OneServer({.stratum = 15}),
       SyncOnce,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"leap_second_announced",
       "leap indicators 1 and 2 only announce: the time is good",
       OneServer({.leap_indicator = 1}),
       SyncOnce,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"large_root_dispersion",
       "a server that admits to 8 s of doubt: the manager grades by samples alone",
       OneServer(
           {.clock_error_us = 3 * kSecond, .root_delay_us = kSecond, .root_dispersion_us = 8 * kSecond}),
       SyncOnce,
       {.max_error_us = 3 * kSecond,
        .rms_error_us = 3 * kSecond,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0},
        .min_error_at_end_us = 3 * kSecond}},
      {"silent_server", "an address where nobody listens", OneServer({.is_silent = true}), SyncOnce, nothing},
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
        .min_error_at_end_us = 720 * kMs}},
  };
}

}  // namespace

std::vector<Scenario> ServerScenarios() {
  return Concatenate({SeveralServerRows(), ChangingServerRows(), RefusalRows(), HonestServerRows()});
}

}  // namespace skorra
