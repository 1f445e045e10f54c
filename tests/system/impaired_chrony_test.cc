// SPDX-License-Identifier: Apache-2.0

// Syncs with a real server behind a bad network: what the offset may be wrong by follows from what the
// network does, and every datagram that the network carried to us is accounted for.
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "testing/attempt_runner.h"
#include "testing/child_process.h"
#include "testing/chronyd.h"
#include "testing/impairing_relay.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

using netmodel::Distribution;
using netmodel::LinkOptions;

constexpr uint64_t kBurst = 20;
// The machine itself may add this much to an offset: its threads take turns.
constexpr int64_t kToleranceUs = 5000;

struct Row {
  const char* name;
  LinkOptions to_server;
  LinkOptions to_client;
};

const Row kRows[] = {
    // Both directions are alike: the offset is wrong by half the jitter at most.
    {"SymmetricDelayWithJitter",
     {.delay_us = 10000, .jitter = Distribution::kUniform, .jitter_us = 2000},
     {.delay_us = 10000, .jitter = Distribution::kUniform, .jitter_us = 2000}},
    // About half of the requests have an answer.
    {"LossOfThirtyPercentEachWay",
     {.delay_us = 5000, .loss_permille = 300},
     {.delay_us = 5000, .loss_permille = 300}},
    // The server answers each request twice, and each answer comes twice.
    {"EveryDatagramTwice",
     {.delay_us = 5000, .duplicate_permille = 1000},
     {.delay_us = 5000, .duplicate_permille = 1000}},
    // A datagram that is held back arrives after the next request, or the next reply.
    {"StrongReordering",
     {.delay_us = 2000, .reorder_permille = 400, .reorder_us = 15000},
     {.delay_us = 2000, .reorder_permille = 400, .reorder_us = 15000}},
    // The offset is wrong by half of the difference, which no client can see.
    {"TheWayThereIsLonger", {.delay_us = 45000}, {.delay_us = 5000}},
    {"TheWayBackIsLonger", {.delay_us = 5000}, {.delay_us = 45000}},
    {"AllTogether",
     {.delay_us = 20000,
      .jitter = Distribution::kUniform,
      .jitter_us = 2000,
      .loss_permille = 150,
      .duplicate_permille = 200,
      .reorder_permille = 200,
      .reorder_us = 12000},
     {.delay_us = 8000,
      .jitter = Distribution::kUniform,
      .jitter_us = 2000,
      .loss_permille = 150,
      .duplicate_permille = 200,
      .reorder_permille = 200,
      .reorder_us = 12000}},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

// The longest that a datagram is under way; the shortest is `delay_us`. The jitter is uniform.
int64_t LongestUs(const LinkOptions& link) {
  return link.delay_us + 2 * link.jitter_us + (link.reorder_permille > 0 ? link.reorder_us : 0);
}

class ImpairedChronyTest : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    if (const std::string reason = Chronyd::WhyNotHere(); !reason.empty()) {
      GTEST_SKIP() << reason;
    }
  }
};

// All that was sent has met its fate, and all that arrived has been judged. Once each request has made its
// sample, the copies that are left need not be read.
bool IsAllAccountedFor(const CountsSince& counts, const ImpairingRelay& relay) {
  const auto there = relay.to_server();
  const auto back = relay.to_client();
  return counts["ntp.requests_sent"] == kBurst && there.received == kBurst &&
         there.carried == there.received - there.lost + there.duplicated && back.received == there.carried &&
         back.carried == back.received - back.lost + back.duplicated &&
         (counts["ntp.samples_received"] == kBurst ||
          counts["ntp.samples_received"] + counts.SumOf("ntp.rejected.") == back.carried);
}

void ExpectTheRowsFigures(const Row& row, const ImpairingRelay& relay, const CountsSince& counts) {
  const auto there = relay.to_server();
  const auto back = relay.to_client();
  const uint64_t samples = counts["ntp.samples_received"];
  // A request makes one sample, however many copies of it or of its reply arrive.
  EXPECT_LE(samples, kBurst);
  const uint64_t duplicates = counts["ntp.rejected.duplicate"];
  EXPECT_LE(duplicates, back.carried - samples);
  if (samples < kBurst) {
    EXPECT_EQ(duplicates, back.carried - samples);
  }
  EXPECT_EQ(counts.SumOf("ntp.rejected."), duplicates);
  const bool has_loss = row.to_server.loss_permille > 0;
  EXPECT_EQ(there.lost + back.lost > 0, has_loss);
  if (!has_loss) {
    EXPECT_EQ(samples, kBurst);
  }
  const bool has_copies = row.to_server.duplicate_permille > 0;
  EXPECT_EQ(there.duplicated + back.duplicated > 0, has_copies);
  EXPECT_EQ(duplicates > 0, has_copies);
  if (row.to_server.duplicate_permille == 1000) {
    EXPECT_GE(duplicates, 3 * (kBurst - 1));
  }
  if (row.to_server.reorder_permille > 0) {
    EXPECT_GT(there.overtaken, 0u);
    EXPECT_GT(back.overtaken, 0u);
  }
}

TEST_P(ImpairedChronyTest, TheOffsetIsWithinWhatTheNetworkAllows) {
  const Row& row = GetParam();
  const Chronyd server;
  ASSERT_TRUE(server.IsUp());
  const ImpairingRelay relay(server.endpoint(), {.to_server = row.to_server, .to_client = row.to_client});
  const CountsSince counts;
  AttemptRunner runner({relay.endpoint().ToString()});

  const auto attempt = runner.Run();
  ASSERT_EQ(attempt.result, NtpResult::kSuccess);
  EXPECT_EQ(attempt.server, relay.endpoint());
  ASSERT_TRUE(WaitUntil([&] { return IsAllAccountedFor(counts, relay); }));
  ExpectTheRowsFigures(row, relay, counts);

  // An exchange is off by half of what one direction takes longer than the other.
  const int64_t own_us = kToleranceUs + (relay.to_server().latest_us + relay.to_client().latest_us) / 2;
  const int64_t lowest_us = (row.to_server.delay_us - LongestUs(row.to_client)) / 2;
  const int64_t highest_us = (LongestUs(row.to_server) - row.to_client.delay_us) / 2;
  EXPECT_GE(runner.offset_us(), lowest_us - own_us);
  EXPECT_LE(runner.offset_us(), highest_us + own_us);
  std::printf(
      "offset %lld us, from the network %lld to %lld us; %llu samples, %llu duplicates; the relay late by "
      "%lld us at worst\n",
      static_cast<long long>(runner.offset_us()), static_cast<long long>(lowest_us),
      static_cast<long long>(highest_us), static_cast<unsigned long long>(counts["ntp.samples_received"]),
      static_cast<unsigned long long>(counts["ntp.rejected.duplicate"]),
      static_cast<long long>(std::max(relay.to_server().latest_us, relay.to_client().latest_us)));
}

INSTANTIATE_TEST_SUITE_P(Rows, ImpairedChronyTest, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

using ImpairedProgramTest = ImpairedChronyTest;

// The burst may end before the last copies have come, so only what has come is counted here.
TEST_F(ImpairedProgramTest, TheReportShowsTheDuplicates) {
  const Chronyd server;
  ASSERT_TRUE(server.IsUp());
  const ImpairingRelay relay(server.endpoint(),
                             {.to_server = {.delay_us = 1000, .duplicate_permille = 1000},
                              .to_client = {.delay_us = 1000, .duplicate_permille = 1000}});
  const ChildExit exit = RunChild({SKORRA_NTP_PROGRAM, "sync", relay.endpoint().ToString(), "--json"});
  ASSERT_EQ(exit.status, 0) << exit.out << exit.err;
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_LE(json["samples_received"], kBurst);
  EXPECT_GE(json["rejected"]["duplicate"], 3 * (json["samples_received"].get<uint64_t>() - 1));
  EXPECT_LT(std::llabs(json["offset_us"].get<int64_t>()), kToleranceUs);
}

}  // namespace
}  // namespace skorra
