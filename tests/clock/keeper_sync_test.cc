// SPDX-License-Identifier: Apache-2.0

// A sync that was asked for has exactly one outcome, whatever happens, and its reason is the right one.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "testing/clock_fixture.h"
#include "testing/environment_number.h"

namespace skorra {
namespace {

using base::kUsPerSecond;

constexpr char kA[] = "203.0.113.1";

struct ReasonCase {
  const char* name;  // what is different
  std::function<void(KeptClock&)> setup;
  std::vector<std::string> servers;
  NtpSyncReason reason;
};

netmodel::ServerOptions EveryOther(std::function<void(netmodel::Exchange&)> script) {
  netmodel::ServerOptions options;
  options.script = std::move(script);
  return options;
}

const ReasonCase kReasonCases[] = {
    {"a_good_server", [](KeptClock& c) { c.network.AddServer(Address(kA), {}); }, {kA}, NtpSyncReason::kOk},
    {"offsets_that_differ_by_the_queues",
     [](KeptClock& c) {
       c.network.AddServer(Address(kA),
                           {.to_server = {.jitter = netmodel::Distribution::kUniform, .jitter_us = 150000}});
     },
     {kA},
     NtpSyncReason::kInaccurate},
    {"no_server_at_all", [](KeptClock&) {}, {}, NtpSyncReason::kNoServer},
    {"only_a_malformed_name", [](KeptClock&) {}, {"not a name"}, NtpSyncReason::kNoServer},
    {"a_name_without_an_address", [](KeptClock&) {}, {"unknown.test"}, NtpSyncReason::kNotResolved},
    {"a_server_that_denies",
     [](KeptClock& c) { c.network.AddServer(Address(kA), {.kiss_code = "DENY"}); },
     {kA},
     NtpSyncReason::kRefused},
    {"a_closed_port",
     [](KeptClock& c) {
       c.network.AddListener([&c](const sim::SentDatagram& sent) {
         c.world.Schedule(KeptClock::Ms(1),
                          [&c, sent] { c.world.ReportError(sent.client, net::SocketError::kRefused); });
       });
     },
     {kA},
     NtpSyncReason::kRefused},
    {"a_silent_server", [](KeptClock&) {}, {kA}, NtpSyncReason::kSilent},
    {"a_server_that_limits",
     [](KeptClock& c) { c.network.AddServer(Address(kA), {.kiss_code = "RATE"}); },
     {kA},
     NtpSyncReason::kLimited},
    {"a_server_that_is_not_synchronised",
     [](KeptClock& c) { c.network.AddServer(Address(kA), {.leap_indicator = kNtpLeapUnsynchronized}); },
     {kA},
     NtpSyncReason::kUnusable},
    {"two_replies",
     [](KeptClock& c) {
       c.network.AddServer(Address(kA),
                           EveryOther([](netmodel::Exchange& e) { e.is_answered = e.index < 2; }));
     },
     {kA},
     NtpSyncReason::kTooFewSamples},
    {"replies_that_contradict_each_other",
     [](KeptClock& c) {
       c.network.AddServer(Address(kA), EveryOther([](netmodel::Exchange& e) {
                             e.clock_error_us = e.index % 2 == 0 ? 0 : kUsPerSecond;
                           }));
     },
     {kA},
     NtpSyncReason::kDisagreeing},
    {"a_server_that_is_too_slow_for_the_limit",
     [](KeptClock& c) { c.network.AddServer(Address(kA), {.to_client = {.delay_us = 1200000}}); },
     {kA},
     NtpSyncReason::kTimedOut},
    {"a_clock_that_is_stopped",
     [](KeptClock& c) {
       c.world.Schedule(KeptClock::Ms(500), [&c] { c.OnQueue([&c] { c.keeper->Stop(); }); });
     },
     {kA},
     NtpSyncReason::kStopped},
};

class ReasonTest : public ::testing::TestWithParam<ReasonCase>, public KeptClock {};

TEST_P(ReasonTest, ASyncHasOneOutcomeWithItsReason) {
  GetParam().setup(*this);
  StartWith(GetParam().servers);
  Sync(GetParam().reason == NtpSyncReason::kTimedOut ? S(1) : S(30));
  world.RunFor(S(120));
  ASSERT_EQ(synced.size(), 1u);
  EXPECT_STREQ(NtpSyncReasonName(synced[0].reason), NtpSyncReasonName(GetParam().reason));
  const bool has_time =
      GetParam().reason == NtpSyncReason::kOk || GetParam().reason == NtpSyncReason::kInaccurate;
  EXPECT_EQ(synced[0].reading.has_time(), has_time);
}

std::string NameOf(const ::testing::TestParamInfo<ReasonCase>& row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(Reasons, ReasonTest, ::testing::ValuesIn(kReasonCases), NameOf);

class SyncTest : public ::testing::Test, public KeptClock {};

TEST_F(SyncTest, AClockThatIsNotRunningAnswersAtOnce) {
  Sync(S(30));
  ASSERT_EQ(synced.size(), 1u);
  EXPECT_EQ(synced[0].reason, NtpSyncReason::kStopped);
}

TEST_F(SyncTest, ASyncOfTheLast16SecondsIsTheOutcome) {
  network.AddServer(Address(kA), {});
  StartWith({kA});
  world.RunFor(S(15));
  Sync(S(30));
  ASSERT_EQ(synced.size(), 1u);
  EXPECT_EQ(synced[0].reason, NtpSyncReason::kOk);
  EXPECT_EQ(outcomes.size(), 1u);
  world.RunFor(S(2));
  Sync(S(30));
  EXPECT_EQ(synced.size(), 1u);
  world.RunFor(S(1));
  EXPECT_EQ(synced.size(), 2u);
  EXPECT_EQ(outcomes.size(), 2u);
  EXPECT_EQ(synced[1].attempt, 2u);
}

TEST_F(SyncTest, AnAttemptThatAStopCutsOffIsMadeAgain) {
  network.AddServer(Address(kA), {.to_client = {.delay_us = 300000}});
  StartWith({kA});
  Sync(S(30));
  world.RunFor(Ms(200));
  peer.manager().Stop();
  world.RunFor(S(2));
  ASSERT_EQ(synced.size(), 1u);
  EXPECT_EQ(synced[0].reason, NtpSyncReason::kOk);
  EXPECT_EQ(synced[0].attempt, 2u);
}

TEST_F(SyncTest, EverySyncOfManyHasItsOwnOutcome) {
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  std::printf("SKORRA_SEED=%llu\n", static_cast<unsigned long long>(first));
  netmodel::Random random(first);
  network.AddServer(Address(kA), {.to_server = {.loss_permille = 800}});
  StartWith({kA});
  std::vector<int> told(500, 0);
  for (int& count : told) {
    OnQueue([&] {
      keeper->Sync(static_cast<int64_t>(random.Below(20 * kUsPerSecond)),
                   [&count](const NtpSyncOutcome&) { ++count; });
    });
    if (random.Chance(100)) {
      peer.manager().Stop();
    }
    if (random.Chance(20)) {
      OnQueue([&] { keeper->Stop(); });
      StartWith({kA});
    }
    world.RunFor(Ms(static_cast<int64_t>(random.Below(3000))));
  }
  world.RunFor(S(60));
  EXPECT_THAT(told, ::testing::Each(1));
}

}  // namespace
}  // namespace skorra
