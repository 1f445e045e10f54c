// SPDX-License-Identifier: Apache-2.0

// How the whole client, on real sockets, takes it when a server refuses it: the server is not asked again
// while it does not want to be, and nobody else is asked less for it.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/config/base_cfg.h"
#include "platform/net/host_resolver.h"
#include "testing/addresses.h"
#include "testing/attempt_runner.h"
#include "testing/config_scope.h"
#include "testing/loopback_ntp_server.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

constexpr uint64_t kBurst = 20;
// The least that can be configured. They leave 70 ms apart, and each attempt below ends with the first
// answer.
constexpr uint64_t kThin = 3;

// A token a second hour is none within a test. Every refusal is told.
constexpr netmodel::RateLimit LimitOf(int64_t burst) {
  return {.interval_us = int64_t{3600} * 1000000, .burst = burst, .kiss_every = 1};
}

class KissCodeTest : public testing::Test {
 protected:
  void SetRequestsPerBurst(uint64_t count) { config_.Set(config::BaseCfg().ntp_requests_per_burst, count); }

  // An attempt that gets nothing would wait for 3 s.
  static AttemptRunner::Attempt RunUntilAllAreRefused(AttemptRunner& runner) {
    const CountsSince counts;
    const auto attempt = runner.Run([&] { return counts["ntp.send_withheld.back_off"] == kBurst; });
    EXPECT_EQ(counts["ntp.send_withheld.back_off"], kBurst);
    return attempt;
  }

  ConfigScope config_;
};

// The ninth request of nine is the one that the server refuses, so that none is under way when it is.
TEST_F(KissCodeTest, WithinTheBackOffTheServerSeesNoRequestAndSendsNoSecondRate) {
  const LoopbackNtpServer server({.rate_limit = LimitOf(8)});
  SetRequestsPerBurst(9);
  const CountsSince counts;
  AttemptRunner runner({server.endpoint().ToString()});
  const auto first = runner.Run();
  EXPECT_EQ(first.result, NtpResult::kSuccess);
  EXPECT_EQ(first.server, server.endpoint());
  ASSERT_TRUE(WaitUntil([&] { return counts["ntp.kiss.rate"] == 1; }));
  EXPECT_EQ(counts["ntp.samples_received"], 8u);
  EXPECT_EQ(server.requests(), 9u);

  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(RunUntilAllAreRefused(runner).sent, 0u);
  }
  // A manager that has not seen the refusal itself is bound by it as well.
  AttemptRunner other_manager({server.endpoint().ToString()});
  EXPECT_EQ(RunUntilAllAreRefused(other_manager).sent, 0u);

  EXPECT_EQ(server.requests(), 9u);
  EXPECT_EQ(server.kisses(), 1u);
  EXPECT_EQ(counts["ntp.kiss.rate"], 1u);
  EXPECT_EQ(counts["ntp.kiss.repeated"], 0u);
}

TEST_F(KissCodeTest, TheBurstEndsWithTheRefusal) {
  const LoopbackNtpServer server({.rate_limit = LimitOf(3)});
  const CountsSince counts;
  AttemptRunner runner({server.endpoint().ToString()});
  // Three samples are enough for a result, but not for an early one.
  EXPECT_EQ(runner.Run().result, NtpResult::kSuccess);
  const uint64_t sent = counts["ntp.requests_sent"];
  EXPECT_LT(sent, kBurst);
  EXPECT_EQ(server.requests(), sent);
  EXPECT_EQ(counts["ntp.send_withheld.back_off"], kBurst - sent);
  EXPECT_EQ(counts["ntp.samples_received"], 3u);
  EXPECT_EQ(counts["ntp.kiss.rate"], 1u);
  EXPECT_EQ(counts["ntp.kiss.rate"] + counts["ntp.kiss.repeated"], server.kisses());
}

TEST_F(KissCodeTest, TheOtherAddressOfTheDomainKeepsBeingAsked) {
  const auto addresses =
      net::ResolveHost("localhost", kNtpPort, base::TimeDelta::FromMilliseconds(kPatienceMs)).addresses;
  ASSERT_GE(addresses.size(), 2u);
  const auto on_port = [&](size_t i, uint16_t port) {
    const bool is_v6 = addresses[i].family() == net::IPEndPoint::Family::kIPv6;
    return Address(is_v6 ? "::1" : "127.0.0.1", port);
  };
  // Both on one port, which must be free in both families.
  std::unique_ptr<LoopbackNtpServer> refusing;
  std::unique_ptr<LoopbackNtpServer> answering;
  for (int tries = 0; tries < 20 && (answering == nullptr || !answering->is_open()); ++tries) {
    refusing =
        std::make_unique<LoopbackNtpServer>(netmodel::ServerOptions{.kiss_code = "RATE"}, on_port(0, 0));
    if (!refusing->is_open()) {
      GTEST_SKIP() << "this machine has only one of the two loopback addresses";
    }
    answering = std::make_unique<LoopbackNtpServer>(netmodel::ServerOptions{},
                                                    on_port(1, refusing->endpoint().port()));
  }
  if (!answering->is_open()) {
    GTEST_SKIP() << "this machine has only one of the two loopback addresses";
  }

  SetRequestsPerBurst(kThin);  // so that none is under way when the refusal comes
  const CountsSince counts;
  AttemptRunner runner({"localhost:" + std::to_string(refusing->endpoint().port())});
  runner.Run([&] { return counts["ntp.kiss.rate"] == 1; });
  SetRequestsPerBurst(kBurst);
  for (int i = 1; i <= 3; ++i) {
    const auto attempt = runner.Run();
    EXPECT_EQ(attempt.result, NtpResult::kSuccess);
    EXPECT_EQ(attempt.server, answering->endpoint());
    EXPECT_EQ(answering->requests(), kBurst * static_cast<uint64_t>(i));
  }
  EXPECT_EQ(refusing->requests(), 1u);
  EXPECT_EQ(counts["ntp.kiss.rate"], 1u);
}

struct Refusal {
  const char* kiss_code;
  const char* counter;
  const char* refused_counter;
};

void PrintTo(const Refusal& row, std::ostream* out) { *out << row.kiss_code; }

class RefusalTest : public KissCodeTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusalTest, ARefusalIsHeardOnceAndObeyed) {
  const LoopbackNtpServer server({.kiss_code = GetParam().kiss_code});
  SetRequestsPerBurst(kThin);
  const CountsSince counts;
  AttemptRunner runner({server.endpoint().ToString()});
  runner.Run([&] { return counts.SumOf("ntp.kiss.") > 0; });
  const CountsSince later;
  runner.Run([&] { return later.SumOf("ntp.send_withheld.") == kBurst; });
  EXPECT_EQ(server.requests(), 1u);
  EXPECT_EQ(counts["ntp.requests_sent"], 1u);
  EXPECT_EQ(counts[GetParam().counter], 1u);
  EXPECT_EQ(counts.SumOf("ntp.kiss."), 1u);
  EXPECT_EQ(later[GetParam().refused_counter], kBurst);
  EXPECT_EQ(counts.SumOf("ntp.send_withheld."), counts[GetParam().refused_counter]);
  EXPECT_EQ(counts["ntp.samples_received"], 0u);
}

INSTANTIATE_TEST_SUITE_P(Codes, RefusalTest,
                         testing::Values(Refusal{"RATE", "ntp.kiss.rate", "ntp.send_withheld.back_off"},
                                         Refusal{"DENY", "ntp.kiss.deny", "ntp.send_withheld.denied"},
                                         Refusal{"RSTR", "ntp.kiss.rstr", "ntp.send_withheld.denied"}),
                         [](const auto& row) { return std::string(row.param.kiss_code); });

// A server that has just started is not refusing anybody.
TEST_F(KissCodeTest, AServerThatIsNotSynchronisedYetIsAskedAgain) {
  const LoopbackNtpServer server({.kiss_code = "INIT"});
  SetRequestsPerBurst(kThin);
  const CountsSince counts;
  AttemptRunner runner({server.endpoint().ToString()});
  for (uint64_t i = 1; i <= 3; ++i) {
    runner.Run([&] { return counts["ntp.kiss.init"] == i; });
    EXPECT_EQ(counts["ntp.kiss.init"], i);
  }
  EXPECT_EQ(server.requests(), 3u);
  EXPECT_EQ(counts.SumOf("ntp.send_withheld."), 0u);
}

}  // namespace
}  // namespace skorra
