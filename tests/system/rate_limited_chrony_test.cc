// SPDX-License-Identifier: Apache-2.0

// What a real server with a rate limit still answers. Its documented rules: for each client address, `burst`
// answers at once, then one in 2^`interval` seconds, and beyond that one request in 2^`leak` at random.
// Bounds follow from these rules; the figures themselves are printed.
//
// SKORRA_ATTEMPT_MS is how long an attempt may take (400 by default, longer than its requests need to leave;
// 15000 lets every attempt come to its own end).
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/base/clock.h"
#include "platform/config/base_cfg.h"
#include "testing/attempt_runner.h"
#include "testing/child_process.h"
#include "testing/chronyd.h"
#include "testing/config_scope.h"
#include "testing/environment_number.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

constexpr const char* kDefaultLimit = "ratelimit interval 3 burst 8 leak 2";
constexpr const char* kStrictLimit = "ratelimit interval 8 burst 4 leak 4";
constexpr uint64_t kBurst = 20;
constexpr int kAttempts = 10;

int AttemptMs() {
  return static_cast<int>(EnvironmentNumber("SKORRA_ATTEMPT_MS", 1, kPatienceMs).value_or(400));
}

struct Figures {
  uint64_t sent = 0;
  uint64_t replies = 0;
  std::string result;
};

// One run of the program.
Figures RunOnce(const Chronyd& server, uint64_t requests_per_burst, int limit_ms) {
  const ChildExit exit = RunChild({SKORRA_NTP_PROGRAM, "sync", server.endpoint().ToString(), "--json",
                                   "--timeout", std::to_string(limit_ms / 1000.0)},
                                  {"SKORRA_NTP_REQUESTS_PER_BURST=" + std::to_string(requests_per_burst)});
  const auto json = nlohmann::json::parse(exit.out, nullptr, false);
  if (json.is_discarded()) {
    ADD_FAILURE() << exit.status << exit.out << exit.err;
    return {};
  }
  return {json["requests_sent"], json["samples_received"], json["message"]};
}

class RateLimitedChronyTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const std::string reason = Chronyd::WhyNotHere(); !reason.empty()) {
      GTEST_SKIP() << reason;
    }
  }
};

// The first attempt of a client that the server does not know yet.
struct FirstAttempt {
  const char* name;
  const char* limit;
  uint64_t requests_per_burst;
  uint64_t fewest_replies;
};

const FirstAttempt kFirstAttempts[] = {
    // Enough of the full burst is answered.
    {"TheFullBurst", kDefaultLimit, kBurst, 8},
    // The thin burst is what the server allows: every request is answered.
    {"TheThinBurst", kDefaultLimit, 8, 8},
    // Four answers are still enough for a result.
    {"TheFullBurstBehindAStrictLimit", kStrictLimit, kBurst, 4},
    {"TheThinBurstBehindAStrictLimit", kStrictLimit, 8, 4},
};

void PrintTo(const FirstAttempt& row, std::ostream* out) { *out << row.name; }

class FirstAttemptTest : public RateLimitedChronyTest, public testing::WithParamInterface<FirstAttempt> {};

TEST_P(FirstAttemptTest, TheFirstAttemptSucceeds) {
  const FirstAttempt& row = GetParam();
  const Chronyd server(Chronyd::Family::kIPv4, {row.limit});
  ASSERT_TRUE(server.IsUp());
  const Figures figures = RunOnce(server, row.requests_per_burst, kPatienceMs);
  EXPECT_EQ(figures.result, "success");
  EXPECT_EQ(figures.sent, row.requests_per_burst);
  EXPECT_GE(figures.replies, row.fewest_replies);
  EXPECT_LE(figures.replies, figures.sent);
  std::printf("%llu sent, %llu replies\n", static_cast<unsigned long long>(figures.sent),
              static_cast<unsigned long long>(figures.replies));
}

INSTANTIATE_TEST_SUITE_P(Rows, FirstAttemptTest, testing::ValuesIn(kFirstAttempts),
                         [](const auto& row) { return std::string(row.param.name); });

const char* ResultName(const std::optional<NtpResult>& result) {
  if (!result) {
    return "cut off";
  }
  return *result == NtpResult::kSuccess ? "success" : *result == NtpResult::kNoResult ? "none" : "inaccurate";
}

// The first attempt, which is sure to succeed, ends by itself.
void RunTenAttempts(uint64_t requests_per_burst, const std::function<Figures(int limit_ms)>& attempt) {
  uint64_t first_replies = 0;
  uint64_t later_sent = 0;
  uint64_t later_replies = 0;
  for (int i = 0; i < kAttempts; ++i) {
    const Figures figures = attempt(i == 0 ? kPatienceMs : AttemptMs());
    std::printf("attempt %2d: %2llu sent, %2llu replies, %s\n", i + 1,
                static_cast<unsigned long long>(figures.sent),
                static_cast<unsigned long long>(figures.replies), figures.result.c_str());
    EXPECT_LE(figures.replies, figures.sent);
    // An address that was all silence is asked once more after 3 s.
    EXPECT_LE(figures.sent, AttemptMs() < 3000 ? requests_per_burst : 2 * requests_per_burst);
    if (i == 0) {
      EXPECT_EQ(figures.sent, requests_per_burst);
      first_replies = figures.replies;
      continue;
    }
    later_sent += figures.sent;
    later_replies += figures.replies;
  }
  std::printf("together: %llu sent, %llu replies\n",
              static_cast<unsigned long long>(requests_per_burst + later_sent),
              static_cast<unsigned long long>(first_replies + later_replies));
  // The bucket is full for the first attempt.
  EXPECT_GE(first_replies, 8u);
  // A quarter of what comes later is answered on average. Fewer than a sixteenth of 72 requests happens once
  // in a million runs.
  EXPECT_GT(later_sent, 0u);
  EXPECT_GE(later_replies, later_sent / 24);
}

class TenAttemptsTest : public RateLimitedChronyTest, public testing::WithParamInterface<uint64_t> {};

TEST_P(TenAttemptsTest, TenProcessesInARowGetWhatTheLimitAllows) {
  const Chronyd server(Chronyd::Family::kIPv4, {kDefaultLimit});
  ASSERT_TRUE(server.IsUp());
  RunTenAttempts(GetParam(), [&](int limit_ms) { return RunOnce(server, GetParam(), limit_ms); });
}

TEST_P(TenAttemptsTest, OneProcessGetsWhatTheLimitAllowsInTenAttempts) {
  const Chronyd server(Chronyd::Family::kIPv4, {kDefaultLimit});
  ASSERT_TRUE(server.IsUp());
  ConfigScope config;
  config.Set(config::BaseCfg().ntp_requests_per_burst, GetParam());
  const CountsSince counts;
  AttemptRunner runner({server.endpoint().ToString()});
  RunTenAttempts(GetParam(), [&](int limit_ms) {
    const int64_t limit_us = base::GetSteadyTimeTicks() + int64_t{limit_ms} * 1000;
    const auto attempt = runner.Run([&] { return base::GetSteadyTimeTicks() > limit_us; });
    return Figures{attempt.sent, attempt.replies, ResultName(attempt.result)};
  });
  // This server limits without a word, and silence is no reason to ask it less.
  EXPECT_EQ(counts.SumOf("ntp.kiss."), 0u);
  EXPECT_EQ(counts.SumOf("ntp.send_withheld."), 0u);
}

INSTANTIATE_TEST_SUITE_P(RequestsPerBurst, TenAttemptsTest, testing::Values(kBurst, uint64_t{8}),
                         [](const auto& row) { return std::to_string(row.param); });

}  // namespace
}  // namespace skorra
