// SPDX-License-Identifier: Apache-2.0

// Rows about paths: delay, jitter, loss, names, and attackers off the path.
#include "tests/scenarios/rows.h"

namespace skorra {
namespace {

using netmodel::Distribution;
using sim::AttackerOptions;

std::function<void(Run&)> Path(const netmodel::LinkOptions& to_server,
                               const netmodel::LinkOptions& to_client) {
  return OneServer({.to_server = to_server, .to_client = to_client});
}

std::function<void(Run&)> Path(const netmodel::LinkOptions& both) { return Path(both, both); }

std::function<void(Run&)> AttackedPath(const AttackerOptions& options) {
  return [=](Run& run) {
    OneServer({.to_server = {.delay_us = 10 * kMs}, .to_client = {.delay_us = 10 * kMs}})(run);
    run.AddAttacker(options);
  };
}

std::vector<Scenario> PathRows() {
  return {
      {"lan",
       "a server in the same room: the result comes with the first check, within microseconds",
       Path({.delay_us = 100, .jitter = Distribution::kUniform, .jitter_us = 20}),
       SyncOnce,
       {.max_error_us = 20,
        .rms_error_us = 20,
        .first_result_us = 10 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"home_2ms_jitter",
       "a home network; the provisional result errs by half of one reply's jitter, the evaluated one by less",
       Path({.delay_us = 8 * kMs, .jitter = Distribution::kExponential, .jitter_us = 2 * kMs}),
       SyncOnce,
       {.max_error_us = 8 * kMs,
        .rms_error_us = 1500,
        .first_result_us = 40 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"mobile_40ms_jitter",
       "a mobile network: round-trip times scatter by about 20 ms, the limit, so that most results are told "
       "as possibly inaccurate and some pass",
       Path({.delay_us = 30 * kMs, .jitter = Distribution::kUniform, .jitter_us = 40 * kMs}),
       SyncOnce,
       {.max_error_us = 40 * kMs,
        .rms_error_us = 25 * kMs,
        .first_result_us = 200 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {1},
        .or_outcomes = {0}}},
      {"mobile_bell_shaped_jitter",
       "the same mean without the long tail: round-trip times agree well enough for a success",
       Path({.delay_us = 30 * kMs, .jitter = Distribution::kNormal, .jitter_us = 20 * kMs}),
       SyncOnce,
       {.max_error_us = 20 * kMs,
        .rms_error_us = 6 * kMs,
        .first_result_us = 150 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"heavy_tailed_jitter",
       "most replies are quick and some very late: those go with the highest and lowest quarter",
       Path({.delay_us = 15 * kMs, .jitter = Distribution::kPareto, .jitter_us = 2 * kMs}),
       SyncOnce,
       {.max_error_us = 10 * kMs,
        .rms_error_us = 2 * kMs,
        .first_result_us = 150 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"ipv6",
       "the same over the other family",
       [](Run& run) {
         run.SetHost("time.test", {"2001:db8::7"});
         run.AddServer("2001:db8::7", {.clock_error_us = 250});
       },
       SyncOnce,
       {.max_error_us = 250,
        .rms_error_us = 250,
        .first_result_us = 20 * kMs,
        .requests = {OneBurst("2001:db8::7")},
        .outcomes = {0},
        .min_error_at_end_us = 250}},
  };
}

std::vector<Scenario> DelayRows() {
  return {
      {"one_sided_queueing",
       "a queue that others fill on the way back only; half of the time spent in it is error, nobody can "
       "know",
       Path({.delay_us = 10 * kMs},
            {.delay_us = 10 * kMs, .service_us = 1 * kMs, .load_permille = 950, .queue_limit_us = 60 * kMs}),
       SyncOnce,
       {.max_error_us = 30 * kMs,
        .rms_error_us = 30 * kMs,
        .first_result_us = 100 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"asymmetric_path",
       "10 ms there and 90 ms back, steadily: graded as a success, and wrong by half of the difference",
       Path({.delay_us = 10 * kMs}, {.delay_us = 90 * kMs}),
       SyncOnce,
       {.max_error_us = 40 * kMs,
        .rms_error_us = 40 * kMs,
        .first_result_us = 110 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0},
        .min_error_at_end_us = 40 * kMs}},
      {"round_trip_of_1400_ms", "as far as a satellite and a slow modem: still below the limit of 1.5 s",
       Path({.delay_us = 700 * kMs}, {.delay_us = 700 * kMs}), SyncOnce,
       Right(1410 * kMs, {OneBurst(kA)}, {0})},
      {"round_trip_of_1600_ms",
       "above the limit an offset may be wrong by 0.8 s and is none; the server is there and not asked again",
       Path({.delay_us = 800 * kMs}, {.delay_us = 800 * kMs}), SyncWithRepetition,
       NoResult({OneBurst(kA)}, {-1})},
      {"queue_that_overflows",
       "a queue too slow for a burst drops most of it: the few samples give a result only after 3 s",
       Path({.delay_us = 10 * kMs, .service_us = 50 * kMs, .queue_limit_us = 100 * kMs},
            {.delay_us = 10 * kMs}),
       SyncOnce,
       {.max_error_us = 50 * kMs,
        .rms_error_us = 50 * kMs,
        .first_result_us = 100 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"satellite",
       "540 ms round trip: the third check is the first that finds replies, and more than five of them",
       Path({.delay_us = 270 * kMs, .jitter = Distribution::kUniform, .jitter_us = 1 * kMs}),
       SyncOnce,
       {.max_error_us = 2 * kMs,
        .rms_error_us = 1 * kMs,
        .first_result_us = 560 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"two_satellite_hops",
       "a request that took 1.2 s never counts as good enough: each start asks again instead of announcing",
       Path({.delay_us = 500 * kMs}),
       [](Run& run) {
         SyncOnce(run);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(1100 * kMs, {Bursts(kA, 2)}, {0, 0})},
  };
}

std::vector<Scenario> LossRows() {
  return {
      {"loss_33_percent",
       "a third of the datagrams is lost in each direction: nine of twenty come back",
       Path({.delay_us = 20 * kMs,
             .jitter = Distribution::kUniform,
             .jitter_us = 1 * kMs,
             .loss_permille = 333}),
       SyncOnce,
       {.max_error_us = 2 * kMs,
        .rms_error_us = 1 * kMs,
        .first_result_us = 240 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"loss_99_percent",
       "nothing comes back from the first burst, so the only address gets a second one, which fares no "
       "better",
       Path({.delay_us = 20 * kMs, .loss_permille = 990}, {.delay_us = 20 * kMs, .loss_permille = 990}),
       SyncWithRepetition, NoResult({Bursts(kA, 2)}, {-1})},
      {"duplicated_replies",
       "every datagram comes twice: the copies are dropped and counted, not averaged in",
       Path({.delay_us = 15 * kMs,
             .jitter = Distribution::kUniform,
             .jitter_us = 2 * kMs,
             .duplicate_permille = 1000}),
       SyncOnce,
       {.max_error_us = 3 * kMs,
        .rms_error_us = 1 * kMs,
        .first_result_us = 40 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      {"reordered_replies",
       "one reply in ten is overtaken on its way back: late ones look like a longer path and are trimmed",
       Path({.delay_us = 15 * kMs}, {.delay_us = 15 * kMs, .reorder_permille = 100, .reorder_us = 25 * kMs}),
       SyncOnce,
       {.max_error_us = 5 * kMs,
        .rms_error_us = 3 * kMs,
        .first_result_us = 60 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {0}}},
      WithReplies(
          Replies::kWrongByChance,
          {"corrupted_datagrams",
           "bits flip in one of twenty datagrams: a wrong nonce is dropped, a wrong time stamp is trimmed",
           Path({.delay_us = 15 * kMs}, {.delay_us = 15 * kMs, .corrupt_permille = 50}),
           SyncOnce,
           {.max_error_us = 1 * kMs,
            .rms_error_us = 1 * kMs,
            .first_result_us = 40 * kMs,
            .requests = {OneBurst(kA)},
            .outcomes = {0}}}),
  };
}

std::vector<Scenario> PartitionRows() {
  return {
      {"partition_over_the_burst",
       "the link is cut while the burst is sent and heals at once after: nothing came back, so that the only "
       "address is asked again after 3 s",
       Path({.delay_us = 15 * kMs, .partitions = {{0, 250 * kMs}}}), SyncWithRepetition,
       Right(3040 * kMs, {Bursts(kA, 2)}, {0})},
      {"partition_over_all_but_one_reply",
       "a single request got through before the link was cut, and its reply came: the server is there, and a "
       "second burst could be refused",
       Path({.delay_us = 15 * kMs, .partitions = {{5 * kMs, 250 * kMs}}}, {.delay_us = 15 * kMs}),
       SyncWithRepetition,
       {.max_error_us = 10,
        .rms_error_us = 10,
        .first_result_us = 40 * kMs,
        .requests = {OneBurst(kA)},
        .outcomes = {-1},
        .has_result_at_end = false}},
      {"partition_that_heals_for_the_retry",
       "the link to the first address stays cut, and the second one is asked after 3 s",
       [](Run& run) {
         run.SetHost("time.test", {kA, kB});
         run.AddServer(kA, {.to_server = {.partitions = {{0, kHour}}}});
         run.AddServer(kB, {});
       },
       SyncOnce, Right(3020 * kMs, {OneBurst(kA), OneBurst(kB)}, {0})},
  };
}

// A sync; then the server of time.test moves to another address, and the domain `asked_for` is added and
// asked.
void SyncThenMoveTheServer(Run& run, const std::string& asked_for) {
  SyncOnce(run);
  run.network.RemoveServer(Address(kA));
  run.AddServer(kB, {});
  run.SetHost("time.test", {kB});
  run.For(11 * kMinute);
  run.AddDomains({asked_for});
  run.Start();
  run.For(7 * kSecond);
}

// One server at kA, whose name holds for `ttl_s`.
std::function<void(Run&)> OneServerWithTtl(int64_t ttl_s) {
  return [=](Run& run) {
    run.AddServer(kA, {});
    run.world.SetHost("time.test", {.addresses = {Address(kA)}, .ttl = base::TimeDelta::FromSeconds(ttl_s)});
  };
}

// One server at kA, whose name takes `lookup_us` to look up.
std::function<void(Run&)> OneServerFoundAfter(int64_t lookup_us) {
  return [=](Run& run) {
    run.AddServer(kA, {});
    run.world.SetHost("time.test", {.addresses = {Address(kA)}, .delay_us = lookup_us});
  };
}

std::vector<Scenario> NameRows() {
  return {
      {"name_with_changing_addresses",
       "an answer without a time to live holds for a day: until then the old address is asked, twice, and "
       "stays silent",
       OneServer({}), [](Run& run) { SyncThenMoveTheServer(run, "time.test"); },
       Right(20 * kMs, {Bursts(kA, 3), Bursts(kB, 0)}, {0, 1})},
      {"name_that_moves",
       "an attempt after the time to live of 5 minutes looks the name up in the background, while it still "
       "asks the old address; the next one asks the new address",
       OneServerWithTtl(300),
       [](Run& run) {
         SyncThenMoveTheServer(run, "time.test");
         run.Start();
         run.For(kSecond);
       },
       Right(20 * kMs, {Bursts(kA, 3), OneBurst(kB)}, {0, 1, 0})},
      {"name_that_moves_before_its_ttl_ends",
       "the same with a time to live of an hour: the old address is asked in every attempt",
       OneServerWithTtl(3600),
       [](Run& run) {
         SyncThenMoveTheServer(run, "time.test");
         run.Start();
         run.For(7 * kSecond);
       },
       Right(20 * kMs, {Bursts(kA, 5), Bursts(kB, 0)}, {0, 1, 1})},
      {"name_that_is_gone_when_it_is_refreshed",
       "a lookup that fails leaves the list as it was, and its server answers", OneServerWithTtl(300),
       [](Run& run) {
         SyncOnce(run);
         run.SetHost("time.test", {});
         for (int i = 0; i < 2; ++i) {
           run.For(11 * kMinute);
           run.Start();
           run.For(kSecond);
         }
       },
       Right(20 * kMs, {Bursts(kA, 3)}, {0, 0, 0})},
      {"name_changed_and_added_again",
       "under another spelling the moved name is a new domain with the new address", OneServer({}),
       [](Run& run) { SyncThenMoveTheServer(run, "time.test:123"); },
       Right(20 * kMs, {Bursts(kA, 2), OneBurst(kB)}, {0, 0})},
      {"name_without_an_address",
       "the only name does not exist and there is no default: the queue stops, and nobody is told",
       [](Run& run) { run.SetHost("time.test", {}); },
       SyncOnce,
       {.has_result_at_end = false}},
  };
}

std::vector<Scenario> SlowNameRows() {
  return {
      {"name_that_is_looked_up_slowly",
       "1.5 s for a lookup is within the limit; the queue waits, and then everything is as usual",
       OneServerFoundAfter(1500 * kMs), SyncOnce, Right(1530 * kMs, {OneBurst(kA)}, {0})},
      {"name_whose_lookup_takes_too_long", "after 2 s the domain is skipped, and no attempt comes of it",
       OneServerFoundAfter(2500 * kMs), SyncOnce, NoResult({Bursts(kA, 0)}, {})},
      WithReplies(
          Replies::kWrong,
          {"name_that_leads_to_a_liar",
           "a wrong answer of the name service leads to a server an hour ahead: without a second opinion the "
           "manager believes it",
           [](Run& run) {
             OneServer({})(run);
             run.AddServer(kB, {.clock_error_us = kHour});
             run.SetHost("time.test", {kB});
           },
           SyncOnce,
           {.max_error_us = kHour,
            .rms_error_us = kHour,
            .first_result_us = 20 * kMs,
            .requests = {Bursts(kA, 0), OneBurst(kB)},
            .outcomes = {0},
            .min_error_at_end_us = kHour}}),
  };
}

std::vector<Scenario> LateNetworkRows() {
  return {
      {"network_that_comes_later",
       "at first no name can be looked up: the default domain is tried at each start until it has an address",
       [](Run& run) {
         run.SetDefaultDomain("time.test");
         run.world.SetHost("time.test", {{}, 0, net::ResolveError::kFailed});
         run.AddServer(kA, {});
         run.At(kMinute, [&run] { run.SetHost("time.test", {kA}); });
       },
       [](Run& run) {
         for (int minute = 0; minute < 3; ++minute) {
           run.Start();
           run.For(40 * kSecond);
         }
       },
       Right(80020 * kMs, {OneBurst(kA)}, {0})},
      {"network_that_comes_after_a_failed_attempt",
       "the address is known and nothing can be sent: an attempt fails after 3 s, the next one succeeds",
       [](Run& run) {
         run.AddServer(kA, {});
         run.world.SetSendError(Address(kA), net::SocketError::kNetworkUnreachable);
         run.At(10 * kSecond, [&run] { run.world.SetSendError(Address(kA), net::SocketError::kNone); });
       },
       [](Run& run) {
         run.AddDomains({kA});
         run.Start();
         run.For(12 * kSecond);
         run.Start();
         run.For(5 * kSecond);
       },
       Right(12020 * kMs, {OneBurst(kA)}, {-1, 0})},
  };
}

std::vector<Scenario> AttackRows() {
  const Limits unharmed = Right(30 * kMs, {OneBurst(kA)}, {0});
  return {
      {"spoofed_replies_with_guessed_nonces",
       "ten forged replies before each genuine one, from the right address: 64 random bits are not guessed",
       AttackedPath({}), SyncOnce, unharmed},
      {"spoofed_replies_without_a_nonce", "a reply to no request is never an answer to one",
       AttackedPath({.nonce = AttackerOptions::Nonce::kZero}), SyncOnce, unharmed},
      {"spoofed_replies_from_elsewhere_with_nonce",
       "even with the right nonce a reply from another address is dropped, and does not use the nonce up",
       AttackedPath({.nonce = AttackerOptions::Nonce::kKnown, .source = Address(kC)}), SyncOnce, unharmed},
      {"spoofed_replies_of_a_dead_server",
       "forged replies do not make a result where nobody answers, nor do they count as something that came "
       "back",
       [](Run& run) {
         OneServer({.is_silent = true})(run);
         run.AddAttacker({});
       },
       SyncWithRepetition, NoResult({Bursts(kA, 2)}, {-1})},
  };
}

}  // namespace

std::vector<Scenario> NetworkScenarios() {
  return Concatenate({PathRows(), DelayRows(), LossRows(), PartitionRows(), NameRows(), SlowNameRows(),
                      LateNetworkRows(), AttackRows()});
}

}  // namespace skorra
