// SPDX-License-Identifier: Apache-2.0

// The clock on real parts: its public functions, real servers, names that come late, forked children.
//
// ./dev bounds makes the long runs: SKORRA_OUTAGE_S is how long a server or a name service is away, and
// SKORRA_SYNCS how many times the clock syncs with chronyd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "clock/ntp_clock.h"
#include "ntp/ntp_attempt_control.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/clock.h"
#include "testing/chronyd.h"
#include "testing/clock_reading.h"
#include "testing/environment_number.h"
#include "testing/fake_name_server.h"
#include "testing/forked_child.h"
#include "testing/impairing_relay.h"
#include "testing/isolated_child.h"
#include "testing/log_recorder.h"
#include "testing/loopback_ntp_server.h"
#include "testing/loopback_udp.h"
#include "testing/ntp_queue.h"
#include "testing/temp_dir.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

using netmodel::Distribution;
using std::chrono::seconds;

constexpr seconds kPatience(60);

void StartClock(const net::IPEndPoint& server) {
  NtpClockOptions options;
  options.servers = {server.ToString()};
  NtpClock::Start(options);
}

// "" when the system clock, which the servers here answer by, lies between the limits.
std::string CheckBound() {
  const NtpClockReading before = NtpClock::Read();
  const int64_t system_us = SystemTimeFrom1970Us();
  const NtpClockReading after = NtpClock::Read();
  if (before.has_bound() && after.has_bound() && before.earliest_us <= system_us &&
      system_us <= after.latest_us) {
    return "";
  }
  return "the true time is not between the limits: " + std::to_string(before.earliest_us - system_us) +
         " to " + std::to_string(after.latest_us - system_us) + " us around it";
}

TEST(RealClockTest, TheFunctionsOfTheClockAgree) {
  EXPECT_EQ(NtpClock::now(), NtpClock::time_point());
  EXPECT_EQ(NtpClock::Read().status, NtpClockStatus::kUnknown);
  EXPECT_FALSE(NtpClock::WaitUntilSynced(NtpClock::duration(1)));
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  StartClock(server.endpoint());
  ASSERT_TRUE(NtpClock::WaitUntilSynced(NtpClock::duration::max()));
  EXPECT_TRUE(NtpClock::WaitUntilBound(seconds(1), kPatience));
  EXPECT_FALSE(NtpClock::WaitUntilBound(NtpClock::duration(0), NtpClock::duration(1)));
  EXPECT_FALSE(NtpClock::WaitUntilBound(NtpClock::duration(0), NtpClock::duration(-1)));
  EXPECT_EQ(CheckBound(), "");
  const NtpClockReading reading = NtpClock::Read();
  EXPECT_EQ(reading.status, NtpClockStatus::kSynchronized);
  EXPECT_EQ(reading.domain, server.endpoint().ToString());
  const NtpClock::time_point now = NtpClock::now();
  EXPECT_TRUE(NtpClock::IsAfter(now - seconds(10)));
  EXPECT_FALSE(NtpClock::IsAfter(now + seconds(1000)));
  EXPECT_TRUE(NtpClock::IsBefore(now + seconds(1000)));
  EXPECT_FALSE(NtpClock::IsBefore(now - seconds(10)));
  EXPECT_EQ(NtpClock::from_sys(NtpClock::to_sys(now)), now);
}

TEST(RealClockTest, AWaitOnTheQueueOfTheManagerReturnsAtOnce) {
  bool is_synced = true;
  RunOnNtpQueue([&] { is_synced = NtpClock::WaitUntilSynced(kPatience); });
  EXPECT_FALSE(is_synced);
}

TEST(RealClockTest, ASyncThatIsWaitedForHasItsOutcome) {
  EXPECT_EQ(NtpClock::Sync(kPatience).get().reason, NtpSyncReason::kStopped);
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  StartClock(server.endpoint());
  const NtpSyncOutcome outcome = NtpClock::Sync(kPatience).get();
  EXPECT_EQ(outcome.reason, NtpSyncReason::kOk);
  EXPECT_EQ(outcome.attempt, 1u);
  EXPECT_TRUE(outcome.reading.has_bound());
  NtpClock::Stop();
  EXPECT_EQ(NtpClock::Sync(kPatience).get().reason, NtpSyncReason::kStopped);
  EXPECT_EQ(CheckBound(), "");
}

TEST(RealClockTest, AStopEndsWhatThreadsWaitFor) {
  StartClock(UnusedEndPoint());
  std::thread stopper([] {
    RunOnNtpQueue([] {});
    NtpClock::Stop();
  });
  EXPECT_FALSE(NtpClock::WaitUntilSynced(kPatience * 10));
  stopper.join();
  EXPECT_FALSE(NtpClock::WaitUntilSynced(kPatience * 10));  // it does not run
}

TEST(RealClockTest, AWaitForABetterBoundBringsASync) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  StartClock(server.endpoint());
  ASSERT_TRUE(NtpClock::WaitUntilSynced(kPatience));
  const uint64_t requests = server.requests();
  // Narrower than any sync can prove: only that it is tried counts.
  EXPECT_FALSE(NtpClock::WaitUntilBound(NtpClock::duration(1), seconds(1)));
  EXPECT_GT(server.requests(), requests);
}

TEST(RealClockTest, StartsAndStopsOfManyThreadsLeaveOneState) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&server, i] {
      for (int call = 0; call < 200; ++call) {
        if ((i + call) % 2 == 0) {
          StartClock(server.endpoint());
        } else {
          NtpClock::Stop();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  StartClock(server.endpoint());
  EXPECT_EQ(NtpClock::Sync(kPatience).get().reason, NtpSyncReason::kOk);
  NtpClock::Stop();
  EXPECT_EQ(NtpClock::Sync(kPatience).get().reason, NtpSyncReason::kStopped);
}

TEST(RealClockTest, AnObserverIsCalledUntilItsSubscriptionEnds) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  std::atomic<int> calls{0};
  std::atomic<int> other_calls{0};
  const NtpClockSubscription other = NtpClock::Observe([&](const NtpSyncOutcome&) { ++other_calls; });
  {
    const NtpClockSubscription subscription = NtpClock::Observe([&](const NtpSyncOutcome&) { ++calls; });
    StartClock(server.endpoint());
    ASSERT_TRUE(WaitUntil([&] { return calls == 1 && other_calls == 1; }));
  }
  ASSERT_EQ(internal::RequestNtpAttempt(*NtpTimeManager::GetInstance()), 0);
  ASSERT_TRUE(WaitUntil([&] { return other_calls == 2; }));
  EXPECT_EQ(calls, 1);
}

TEST(RealClockTest, ASubscriptionMayEndInsideItsOwnCall) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  std::atomic<int> calls{0};
  NtpClockSubscription subscription;
  subscription = NtpClock::Observe([&](const NtpSyncOutcome&) {
    subscription = NtpClockSubscription();
    ++calls;
  });
  StartClock(server.endpoint());
  ASSERT_TRUE(WaitUntil([&] { return calls == 1; }));
  ASSERT_EQ(internal::RequestNtpAttempt(*NtpTimeManager::GetInstance()), 0);
  ASSERT_TRUE(WaitUntil([&] { return !internal::IsNtpAttemptRequested(*NtpTimeManager::GetInstance()); }));
  RunOnNtpQueue([] {});
  EXPECT_EQ(calls, 1);
}

bool HasLine(const LogRecorder& log, const std::string& text) {
  return std::any_of(log.lines.begin(), log.lines.end(), [&](const auto& line) { return line.text == text; });
}

TEST(RealClockTest, AFunctionThatIsNoneIsNotCalled) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  NtpClock::Sync(kPatience, nullptr);
  const NtpClockSubscription nobody = NtpClock::Observe(nullptr);
  StartClock(server.endpoint());
  NtpClock::Sync(NtpClock::duration::max(), nullptr);
  EXPECT_EQ(NtpClock::Sync(kPatience).get().reason, NtpSyncReason::kOk);
}

TEST(RealClockTest, AnOptionOutOfItsRangeIsLimitedAndLogged) {
  const LogRecorder log;
  NtpClockOptions options;
  options.interval_s = 1;
  options.frequency_error_ppm = 0;
  options.max_error_us = -5;
  NtpClock::Start(options);
  EXPECT_TRUE(HasLine(log, "option interval_s is 1, and 16 is used: it is 16 to 4294967295"));
  EXPECT_TRUE(HasLine(log, "option frequency_error_ppm is 0, and 1 is used: it is 1 to 100000"));
  EXPECT_TRUE(HasLine(log, "option max_error_us is -5, and 1 is used: it is 1 to 9223372036854775807"));
}

// --- What comes late.

TEST(RealClockTest, AServerThatComesBackAfterAnOutageIsFoundSoon) {
  const auto outage_s = static_cast<int64_t>(EnvironmentNumber("SKORRA_OUTAGE_S", 1, 600).value_or(1));
  auto server = std::make_unique<LoopbackNtpServer>(netmodel::ServerOptions{});
  const net::IPEndPoint endpoint = server->endpoint();
  server.reset();  // its port is closed now
  const int64_t begin_ticks_us = base::GetSteadyTimeTicks();
  StartClock(endpoint);
  ASSERT_TRUE(WaitUntil(
      [&] { return base::GetSteadyTimeTicks() - begin_ticks_us > outage_s * base::kUsPerSecond; }, 700'000));
  EXPECT_FALSE(NtpClock::Read().has_time());
  server = std::make_unique<LoopbackNtpServer>(netmodel::ServerOptions{}, endpoint);
  ASSERT_TRUE(server->is_open());
  const int64_t back_ticks_us = base::GetSteadyTimeTicks();
  ASSERT_TRUE(NtpClock::WaitUntilSynced(kPatience));
  const int64_t took_ms = (base::GetSteadyTimeTicks() - back_ticks_us) / 1000;
  std::printf("outage of %lld s: a graded reading %lld ms after the return\n",
              static_cast<long long>(outage_s), static_cast<long long>(took_ms));
  EXPECT_LT(took_ms, 20'000);
  EXPECT_EQ(CheckBound(), "");
}

TEST(RealClockTest, ANameServiceThatComesLateIsNoticedWithinFiveSeconds) {
  const auto late_s = static_cast<int64_t>(EnvironmentNumber("SKORRA_OUTAGE_S", 1, 600) ? 4 : 1);
  RunIsolated([late_s] {
    WriteFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    const LoopbackNtpServer server(netmodel::ServerOptions{});
    NtpClockOptions options;
    options.servers = {"late.example.:" + std::to_string(server.endpoint().port())};
    const int64_t begin_ticks_us = base::GetSteadyTimeTicks();
    NtpClock::Start(options);
    ASSERT_TRUE(
        WaitUntil([&] { return base::GetSteadyTimeTicks() - begin_ticks_us > late_s * base::kUsPerSecond; }));
    EXPECT_FALSE(NtpClock::Read().has_time());
    const FakeNameServer names({.ipv4 = {.addresses = {{127, 0, 0, 1}}}, .ipv6 = {}, .port = 53});
    ASSERT_TRUE(NtpClock::WaitUntilSynced(kPatience));
    const int64_t took_ms = (base::GetSteadyTimeTicks() - begin_ticks_us) / 1000;
    std::printf("name service %lld s late: a graded reading %lld ms after the start\n",
                static_cast<long long>(late_s), static_cast<long long>(took_ms));
    EXPECT_LT(took_ms, late_s * 1000 + 5000);
  });
}

// --- Forks.

TEST(ForkTest, AChildOfAProcessWithAClockKeepsItsOwn) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  StartClock(server.endpoint());
  ASSERT_TRUE(NtpClock::WaitUntilSynced(kPatience));
  const auto child = []() -> std::string {
    if (const std::string wrong = CheckBound(); !wrong.empty()) {
      return wrong;
    }
    std::atomic<int> outcomes{0};
    const auto subscription = NtpClock::Observe([&](const NtpSyncOutcome&) { ++outcomes; });
    NtpClock::now();
    if (internal::RequestNtpAttempt(*NtpTimeManager::GetInstance()) != 0 ||
        !WaitUntil([&] { return outcomes == 1; })) {
      return "the keeper of the child hears nothing";
    }
    return CheckBound();
  };
  EXPECT_EQ(RunInChild(child), "");
}

TEST(ForkTest, ASyncOfTheParentEndsAsStoppedInTheChild) {
  const LoopbackNtpServer server({.is_silent = true});
  StartClock(server.endpoint());
  std::future<NtpSyncOutcome> sync = NtpClock::Sync(kPatience);
  ASSERT_TRUE(WaitUntil([&] { return server.requests() > 0; }));
  const auto child = [&]() -> std::string {
    NtpClock::now();
    return NtpSyncReasonName(sync.get().reason);
  };
  EXPECT_EQ(RunInChild(child), "stopped");
  EXPECT_EQ(sync.get().reason, NtpSyncReason::kSilent);
}

TEST(ForkTest, AChildOfAProcessThatStoppedItsClockSendsNothing) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  StartClock(server.endpoint());
  ASSERT_TRUE(NtpClock::WaitUntilSynced(kPatience));
  NtpClock::Stop();
  RunOnNtpQueue([] {});
  ASSERT_TRUE(WaitUntil([&] { return server.requests() == 20; }));
  const auto child = [&]() -> std::string {
    NtpClock::now();
    NtpClock::Read();
    RunOnNtpQueue([] {});
    return "";
  };
  EXPECT_EQ(RunInChild(child), "");
  EXPECT_EQ(server.requests(), 20u);
}

TEST(ForkTest, AChildForkedInAnAttemptOfTheClockSyncs) {
  const LoopbackNtpServer server({.is_silent = true});
  const LoopbackNtpServer good(netmodel::ServerOptions{});
  StartClock(server.endpoint());
  ASSERT_TRUE(WaitUntil([&] { return server.requests() > 0; }));
  const auto child = [&]() -> std::string {
    StartClock(good.endpoint());
    return NtpClock::WaitUntilSynced(kPatience) ? CheckBound() : "no time came";
  };
  EXPECT_EQ(RunInChild(child), "");
}

// --- A real server behind a bad network.

struct Path {
  const char* name;
  netmodel::LinkOptions to_server;
  netmodel::LinkOptions to_client;
};

void PrintTo(const Path& path, std::ostream* out) { *out << path.name; }

const Path kPaths[] = {
    {"symmetric",
     {.delay_us = 5000, .jitter = Distribution::kExponential, .jitter_us = 2000},
     {.delay_us = 5000, .jitter = Distribution::kExponential, .jitter_us = 2000}},
    {"one_sided",
     {.delay_us = 1000, .jitter = Distribution::kExponential, .jitter_us = 10000},
     {.delay_us = 1000}},
};

// Each outcome is followed by a stop 30 s later: so many syncs are over before the first one.
constexpr uint64_t kSyncsOfOneProcess = 20;

std::string SyncAgainAndAgain(const net::IPEndPoint& server, uint64_t count) {
  std::atomic<uint64_t> outcomes{0};
  std::atomic<uint64_t> bad{0};
  const auto subscription = NtpClock::Observe([&](const NtpSyncOutcome& outcome) {
    const bool has_result =
        outcome.reason == NtpSyncReason::kOk || outcome.reason == NtpSyncReason::kInaccurate;
    bad += has_result ? 0 : 1;
    ++outcomes;
  });
  StartClock(server);
  for (uint64_t sync = 1; sync <= count; ++sync) {
    if (sync > 1) {
      internal::RequestNtpAttempt(*NtpTimeManager::GetInstance());
    }
    if (!WaitUntil([&] { return outcomes >= sync; }, kPatienceMs / 2)) {
      return "sync " + std::to_string(sync) + " has no outcome; status " +
             NtpClockStatusName(NtpClock::Read().status) + ", requested " +
             std::to_string(internal::IsNtpAttemptRequested(*NtpTimeManager::GetInstance()));
    }
    if (const std::string wrong = CheckBound(); !wrong.empty()) {
      return "sync " + std::to_string(sync) + ": " + wrong;
    }
  }
  return bad == 0 ? "" : std::to_string(bad) + " syncs without a result";
}

class RealBoundTest : public testing::TestWithParam<Path> {};

TEST_P(RealBoundTest, TheTrueTimeIsBetweenTheLimitsAfterEverySync) {
  if (const std::string reason = Chronyd::WhyNotHere(); !reason.empty()) {
    GTEST_SKIP() << reason;
  }
  const Chronyd server;
  ASSERT_TRUE(server.IsUp());
  const uint64_t syncs = EnvironmentNumber("SKORRA_SYNCS", 1, 1000000).value_or(10);
  const uint64_t seed = RelaySeed();
  uint64_t done = 0;
  while (done < syncs) {
    // A relay has a socket for each port that it was asked from, and each attempt takes a fresh one.
    const ImpairingRelay relay(
        server.endpoint(),
        {.to_server = GetParam().to_server, .to_client = GetParam().to_client, .seed = seed + done});
    const uint64_t count = std::min(syncs - done, kSyncsOfOneProcess);
    ASSERT_EQ(RunInChild([&] { return SyncAgainAndAgain(relay.endpoint(), count); }), "") << done;
    done += count;
  }
  std::printf("%llu syncs, the true time between the limits after each\n",
              static_cast<unsigned long long>(done));
}

std::string NameOf(const testing::TestParamInfo<Path>& row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(Paths, RealBoundTest, testing::ValuesIn(kPaths), NameOf);

}  // namespace
}  // namespace skorra
