// SPDX-License-Identifier: Apache-2.0

// A failure of the system is counted under its name, and the next attempt after it succeeds.
//
// A failed attempt takes 6 s of real time, and each failure needs a process of its own.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <utility>

#include "ntp/ntp_time_manager.h"
#include "platform/base/clock.h"
#include "testing/attempt_runner.h"
#include "testing/forked_child.h"
#include "testing/loopback_demo_server.h"
#include "testing/loopback_udp.h"
#include "testing/ntp_queue.h"
#include "testing/refuse_system_call.h"
#include "testing/wait_until.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

// A burst, and once more since nothing came back.
constexpr uint64_t kRequestsOfAFailedAttempt = 40;
constexpr uint64_t kRequestsToAClosedPort = 20;  // it is not asked once more

constexpr std::array kSendingCalls = {
    SYS_sendto,
    SYS_sendmsg,
    SYS_sendmmsg,
#ifdef SYS_send  // where sending to the connected peer has a system call of its own
    SYS_send,
#endif
};

// An attempt that fails because each of its sends does, and is counted under this name. What was different.
std::string ExpectFailure(AttemptRunner& runner, const std::string& name) {
  const CountsSince counts;
  if (runner.Run().result != NtpResult::kNoResult) {
    return "the attempt does not fail";
  }
  const uint64_t all = counts.SumOf("ntp.send_error.");
  const uint64_t expected =
      name == "ntp.send_error.refused" ? kRequestsToAClosedPort : kRequestsOfAFailedAttempt;
  return counts[name] == expected && all == expected
             ? ""
             : std::to_string(counts[name]) + " of " + std::to_string(all) + " errors are " + name;
}

// An attempt with a result and without any failure. How good the result is depends on how busy the machine
// is.
std::string ExpectSuccess(AttemptRunner& runner, const net::IPEndPoint& server) {
  const CountsSince counts;
  const AttemptRunner::Attempt attempt = runner.Run();
  if (attempt.result.value_or(NtpResult::kNoResult) == NtpResult::kNoResult || attempt.server != server) {
    return "the next attempt does not succeed";
  }
  const uint64_t errors = counts.SumOf("ntp.send_error.") + counts.SumOf("ntp.receive_error.");
  return errors == 0 ? "" : "the next attempt still counts errors";
}

// The number that the next descriptor gets.
int NextDescriptor() {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(fd);
  return fd;
}

// Why a process without descriptors cannot be tried in this build; null where it can.
const char* WhyDescriptorsAreNeeded() {
#ifdef __SANITIZE_ADDRESS__
  return "the undefined-behaviour sanitizer opens a pipe to look at an object's type, and takes a refusal "
         "for a wrong type";
#else
  return nullptr;
#endif
}

TEST(RecoveryTest, AnAttemptSucceedsOnceThereAreDescriptorsAgain) {
  if (WhyDescriptorsAreNeeded() != nullptr) {
    GTEST_SKIP() << WhyDescriptorsAreNeeded();
  }
  EXPECT_EQ(RunInChild([]() -> std::string {
              const auto server = OpenDemoServer();
              AttemptRunner runner({server->local().ToString()});
              DrainNtpQueue();
              rlimit limit{};
              getrlimit(RLIMIT_NOFILE, &limit);
              const rlim_t usual = std::exchange(limit.rlim_cur, static_cast<rlim_t>(NextDescriptor()));
              if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
                return "the limit cannot be set";
              }
              if (std::string error = ExpectFailure(runner, "ntp.send_error.no_descriptors");
                  !error.empty()) {
                return error;
              }
              limit.rlim_cur = usual;
              setrlimit(RLIMIT_NOFILE, &limit);
              return ExpectSuccess(runner, server->local());
            }),
            "");
}

// Here the queue itself cannot start. No call starts it later: a second Start says that an attempt is
// running.
TEST(RecoveryTest, AProcessThatStartsWithoutDescriptorsSyncsOnceThereAreSome) {
  if (WhyDescriptorsAreNeeded() != nullptr) {
    GTEST_SKIP() << WhyDescriptorsAreNeeded();
  }
  EXPECT_EQ(
      RunInChild([]() -> std::string {
        const auto server = OpenDemoServer();
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlim_t usual = std::exchange(limit.rlim_cur, static_cast<rlim_t>(NextDescriptor()));
        setrlimit(RLIMIT_NOFILE, &limit);
        NtpTimeManager* const manager = NtpTimeManager::GetInstance();
        manager->UpdateNtpTimeDomain({server->local().ToString()});
        if (manager->Start() != 0 || manager->Start() != -1 || manager->GetNtpTimestampFrom1970() != 0) {
          return "there is a time";
        }
        limit.rlim_cur = usual;
        setrlimit(RLIMIT_NOFILE, &limit);
        return WaitUntil([&] { return manager->GetNtpTimestampFrom1970() != 0; }) ? "" : "no result comes";
      }),
      "");
}

// The system calls that send fail on one descriptor, the one that the first attempt's sockets get. A lower
// one is free when the second attempt opens its own.
std::string FailOnOneDescriptor(int error, const std::string& name) {
  const auto server = OpenDemoServer();
  AttemptRunner runner({server->local().ToString()});
  DrainNtpQueue();
  const int reserved = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int fd = NextDescriptor();
  bool is_refused = true;
  RunOnNtpQueue([&] {
    for (const int number : kSendingCalls) {
      is_refused = is_refused && RefuseSystemCallOnThisThread(number, error, fd);
    }
  });
  if (!is_refused) {
    return "the system calls cannot be refused";
  }
  std::string report = ExpectFailure(runner, name);
  close(reserved);
  return report.empty() ? ExpectSuccess(runner, server->local()) : report;
}

TEST(RecoveryTest, EveryFailedSendIsCountedAndTheNextOneLeaves) {
  struct Case {
    int error;
    const char* name;
    std::unique_ptr<ForkedChild> child = nullptr;
  };
  std::array<Case, 8> cases = {{
      {ECONNREFUSED, "ntp.send_error.refused"},
      {EHOSTUNREACH, "ntp.send_error.host_unreachable"},
      {ENETUNREACH, "ntp.send_error.network_unreachable"},
      {ENETDOWN, "ntp.send_error.network_down"},
      {EADDRNOTAVAIL, "ntp.send_error.no_address"},
      {ENOBUFS, "ntp.send_error.no_buffers"},
      {EAGAIN, "ntp.send_error.would_block"},
      {EINTR, "ntp.send_error.interrupted"},
  }};
  // All at the same time, since each waits most of the time.
  for (Case& c : cases) {
    c.child = std::make_unique<ForkedChild>([&] { return FailOnOneDescriptor(c.error, c.name); });
  }
  for (Case& c : cases) {
    EXPECT_EQ(c.child->Report(), "") << c.name;
  }
}

// Anybody can send an ICMP error: it never keeps the next attempt from asking the address.
TEST(RecoveryTest, AServerThatComesBackToItsPortIsAskedAgain) {
  const net::IPEndPoint server = UnusedEndPoint();
  AttemptRunner runner({server.ToString()});
  const CountsSince counts;
  const AttemptRunner::Attempt failed = runner.Run();
  EXPECT_EQ(failed.result, NtpResult::kNoResult);
  EXPECT_EQ(failed.sent, kRequestsToAClosedPort);
  EXPECT_EQ(failed.replies, 0u);
  EXPECT_GT(counts["ntp.receive_error.refused"], 0u);
  EXPECT_EQ(counts.SumOf("ntp.send_withheld."), 0u);
  EXPECT_EQ(NtpAddressLedger::GetInstance()->Check(server, base::GetSteadyTimeTicks()), SendRefusal::kNone);

  const auto opened = OpenDemoServer({.listen = server});
  ASSERT_NE(opened, nullptr) << "somebody else took the port";
  EXPECT_EQ(ExpectSuccess(runner, server), "");
}

}  // namespace
}  // namespace skorra
