// SPDX-License-Identifier: Apache-2.0

// Witnesses on real parts: the process's clock, servers on the loopback interface, and a forked child.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "clock/ntp_clock.h"
#include "ntp/ntp_attempt_control.h"
#include "ntp/ntp_time_manager.h"
#include "testing/config_scope.h"
#include "testing/forked_child.h"
#include "testing/loopback_ntp_server.h"
#include "testing/ntp_queue.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;

constexpr seconds kPatience(60);
constexpr int64_t kHourUs = 3600 * base::kUsPerSecond;

void StartClock(const std::vector<const LoopbackNtpServer*>& servers) {
  NtpClockOptions options;
  for (const LoopbackNtpServer* const server : servers) {
    options.servers.push_back(server->endpoint().ToString());
  }
  NtpClock::Start(options);
}

// What the clock's observers hear, in its order.
class Heard {
 public:
  std::vector<std::string> lines() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  void Add(std::string line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
  const NtpClockSubscription outcomes_ = NtpClock::Observe([this](const NtpSyncOutcome& outcome) {
    Add("outcome " + std::to_string(outcome.attempt) + ' ' + NtpSyncReasonName(outcome.reason));
  });
  const NtpClockSubscription reports_ = NtpClock::ObserveWitnesses([this](const NtpWitnessReport& report) {
    std::string line =
        "report " + std::to_string(report.attempt) + ' ' + NtpClockAgreementName(report.agreement);
    for (const NtpWitness& server : report.servers) {
      line += server.is_outvoted ? ' ' + server.domain : "";
    }
    Add(line);
  });
};

TEST(RealWitnessTest, AnOutvotedServerIsNamedAfterTheOutcomeAndRefuseLeavesNoBoundToWaitFor) {
  ConfigScope config;
  ASSERT_EQ(config.Set(config::BaseCfg().ntp_witnesses, "refuse"), "");
  const LoopbackNtpServer liar({.clock_error_us = kHourUs});
  const LoopbackNtpServer honest(netmodel::ServerOptions{});
  const LoopbackNtpServer other(netmodel::ServerOptions{});
  Heard heard;
  StartClock({&liar, &honest, &other});
  ASSERT_TRUE(WaitUntil([&] { return heard.lines().size() >= 2; }));
  EXPECT_THAT(heard.lines(), ElementsAre("outcome 1 ok", "report 1 outvoted " + liar.endpoint().ToString()));
  const NtpClockReading reading = NtpClock::Read();
  EXPECT_TRUE(reading.has_time());
  EXPECT_FALSE(reading.has_bound());
  EXPECT_EQ(reading.witness_count, 2u);
  EXPECT_FALSE(NtpClock::WaitUntilSynced(NtpClock::duration(1)));
  EXPECT_FALSE(NtpClock::WaitUntilBound(kPatience, NtpClock::duration(1)));
}

TEST(RealWitnessTest, AWaitEndsWhenTheFinalJudgementGivesTheBoundBack) {
  ConfigScope config;
  ASSERT_EQ(config.Set(config::BaseCfg().ntp_witnesses, "refuse"), "");
  // The burst of the late ones is lost.
  const auto be_late = [](netmodel::Exchange& e) { e.is_answered = e.index >= 20; };
  const LoopbackNtpServer honest(netmodel::ServerOptions{});
  const LoopbackNtpServer liar({.clock_error_us = kHourUs});
  const LoopbackNtpServer other_liar({.clock_error_us = kHourUs});
  const LoopbackNtpServer late({.script = be_late});
  const LoopbackNtpServer other_late({.script = be_late});
  Heard heard;
  StartClock({&honest, &liar, &other_liar, &late, &other_late});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(NtpClock::WaitUntilSynced(kPatience));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kPatience / 2);
  EXPECT_TRUE(NtpClock::Read().has_bound());
  ASSERT_TRUE(WaitUntil([&] { return heard.lines().size() >= 2; }));
  EXPECT_THAT(heard.lines()[0], "outcome 1 ok");
  EXPECT_THAT(heard.lines()[1], testing::HasSubstr("report 1 agrees"));
}

TEST(ForkTest, AChildForkedInTheMiddleOfACheckChecksItsOwnResult) {
  const LoopbackNtpServer good(netmodel::ServerOptions{});
  const LoopbackNtpServer other(netmodel::ServerOptions{});
  const LoopbackNtpServer silent({.is_silent = true});  // makes the check last
  Heard heard;
  StartClock({&good, &other, &silent});
  ASSERT_TRUE(WaitUntil([&] { return silent.requests() >= 21; }));
  ASSERT_THAT(heard.lines(), ElementsAre("outcome 1 ok"));
  const auto child = [&]() -> std::string {
    NtpClock::now();
    RunOnNtpQueue([] {});
    if (heard.lines().size() != 1) {
      return "the child told of its parent's check";
    }
    if (internal::RequestNtpAttempt(*NtpTimeManager::GetInstance()) != 0 ||
        !WaitUntil([&] { return heard.lines().size() >= 3; })) {
      return "the child's own check does not end";
    }
    return heard.lines()[1] + ", " + heard.lines()[2];
  };
  EXPECT_EQ(RunInChild(child), "outcome 2 ok, report 2 agrees");
  ASSERT_TRUE(WaitUntil([&] { return heard.lines().size() >= 2; }));
  EXPECT_THAT(heard.lines(), ElementsAre("outcome 1 ok", "report 1 agrees"));
}

}  // namespace
}  // namespace skorra
