// SPDX-License-Identifier: Apache-2.0

// A network that goes and comes back: two network namespaces of the test's own, joined by a cable (veth).
// They vanish with the processes in them. Skipped where the system does not let the test make them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "apps/skorra-ntp/demo_server.h"
#include "platform/net/ip_endpoint.h"
#include "testing/addresses.h"
#include "testing/attempt_runner.h"
#include "testing/child_process.h"
#include "testing/forked_child.h"
#include "testing/namespaces.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

constexpr char kSkip[] = "skip: ";
constexpr int64_t kClockErrorUs = 5000000;
// Long enough for a whole burst to leave before the first answer comes.
constexpr int64_t kDelayUs = 400000;
// From the addresses for documentation (RFC 5737).
constexpr char kServerAddress[] = "192.0.2.1";
constexpr char kFirstAddress[] = "192.0.2.2/24";
constexpr char kOtherAddress[] = "192.0.2.3/24";
constexpr char kOtherAddressInProc[] = "030200C0:";

// The command `ip` of iproute2: "" or what it complains about.
std::string Ip(const std::string& arguments) {
  const ChildExit exit = RunChild({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin exec ip " + arguments});
  return exit.status == 0 ? "" : "ip " + arguments + ": " + exit.err;
}

// The first complaint of several commands.
std::string Ip(const std::vector<std::string>& commands) {
  for (const std::string& command : commands) {
    if (std::string error = Ip(command); !error.empty()) {
      return error;
    }
  }
  return "";
}

// A process with a server at the other end of the cable, which it waits for.
class OtherEnd {
 public:
  OtherEnd() {
    if (pipe2(to_.data(), O_CLOEXEC) != 0 || pipe2(from_.data(), O_CLOEXEC) != 0) {
      return;
    }
    child_ = std::make_unique<ForkedChild>([this] { return Serve(); });
  }

  // Until it has its namespace; "" or what it says.
  std::string WaitForNamespace() { return ReadLine(); }
  // Gives it the cable; its server's address, with the port, is then in `*server`.
  std::string Connect(std::string* server) {
    if (std::string error = Ip("link set skorra1 netns " + std::to_string(child_->pid())); !error.empty()) {
      return error;
    }
    Write(to_[1], "\n");
    *server = ReadLine();
    return server->starts_with(kServerAddress) ? "" : *server;
  }

 private:
  std::string Serve() {
    Write(from_[1], EnterNamespaces(CLONE_NEWNET) + '\n');
    char ready = 0;
    if (read(to_[0], &ready, 1) != 1) {
      return "the cable never came";
    }
    std::string line =
        Ip({std::string("address add ") + kServerAddress + "/24 dev skorra1", "link set skorra1 up"});
    std::unique_ptr<DemoServer> server;
    if (line.empty()) {
      server = DemoServer::Open(
          {.listen = Address(kServerAddress, 0), .clock_error_us = kClockErrorUs, .delay_us = kDelayUs},
          &line);
    }
    Write(from_[1], (server == nullptr ? line : server->local().ToString()) + '\n');
    // Until the end of the other side, which holds the pipe's other end.
    close(to_[1]);
    [[maybe_unused]] const ssize_t ignored = read(to_[0], &ready, 1);
    return "";
  }

  static void Write(int fd, const std::string& text) {
    [[maybe_unused]] const ssize_t ignored = write(fd, text.data(), text.size());
  }

  std::string ReadLine() const {
    std::string line;
    for (char c = 0; read(from_[0], &c, 1) == 1 && c != '\n';) {
      line += c;
    }
    return line;
  }

  std::array<int, 2> to_{-1, -1};
  std::array<int, 2> from_{-1, -1};
  std::unique_ptr<ForkedChild> child_;
};

uint64_t SendErrors(const CountsSince& counts) { return counts.SumOf("ntp.send_error."); }

// An attempt that succeeds with the server's time and without any failure.
std::string ExpectSuccess(AttemptRunner& runner, const std::string& server) {
  const CountsSince counts;
  const AttemptRunner::Attempt attempt = runner.Run();
  if (attempt.result != NtpResult::kSuccess || attempt.server.ToString() != server) {
    return "the attempt does not succeed";
  }
  if (SendErrors(counts) != 0 || std::llabs(runner.offset_us() - kClockErrorUs) > 30000) {
    return "the attempt succeeds, but not as it should";
  }
  return "";
}

// Every send fails for want of a network.
std::string ExpectNoNetwork(AttemptRunner& runner) {
  const CountsSince counts;
  const AttemptRunner::Attempt attempt = runner.Run();
  const uint64_t without_network =
      counts["ntp.send_error.network_unreachable"] + counts["ntp.send_error.network_down"];
  if (attempt.result != NtpResult::kNoResult || attempt.sent != 0) {
    return "the attempt does not fail";
  }
  return without_network == 40 && SendErrors(counts) == 40 ? ""
                                                           : "the errors are not counted as they should be";
}

// The link goes down in the middle of the burst. It stays down until every answer to that burst is lost: one
// or two would make the server count as answering, and the manager would not ask its only address once more.
// The link is up again before that.
std::string ExpectRecoveryWithinAnAttempt(AttemptRunner& runner, const std::string& server) {
  const CountsSince counts;
  std::string error;
  std::thread cable([&] {
    const bool is_down = WaitUntil([&] { return counts["ntp.requests_sent"] >= 3; }) &&
                         (error = Ip("link set skorra0 down")).empty() &&
                         WaitUntil([&] { return counts["ntp.requests_sent"] + SendErrors(counts) >= 20; });
    const int64_t lost_ticks_us = base::GetSteadyTimeTicks() + 2 * kDelayUs;
    WaitUntil([&] { return base::GetSteadyTimeTicks() >= lost_ticks_us; });
    if (error.empty()) {
      error = is_down && SendErrors(counts) > 0 ? Ip("link set skorra0 up") : "no send fails";
    }
  });
  const AttemptRunner::Attempt attempt = runner.Run();
  cable.join();
  if (!error.empty()) {
    return error;
  }
  return attempt.result == NtpResult::kSuccess && attempt.server.ToString() == server
             ? ""
             : "the attempt does not recover";
}

bool HasUdpSocketAt(const std::string& address) {
  std::ifstream file("/proc/self/net/udp");
  for (std::string line; std::getline(file, line);) {
    if (line.find(' ' + address) != std::string::npos) {
      return true;
    }
  }
  return false;
}

std::string PlayOutage() {
  if (std::string error = EnterNamespaces(CLONE_NEWNET); !error.empty()) {
    return kSkip + error;
  }
  if (std::string error = Ip("link add skorra0 type veth peer name skorra1"); !error.empty()) {
    return kSkip + error;
  }
  OtherEnd other_end;
  if (std::string error = other_end.WaitForNamespace(); !error.empty()) {
    return kSkip + error;
  }
  std::string server;
  if (std::string error = other_end.Connect(&server); !error.empty()) {
    return error;
  }
  if (std::string error = Ip(std::string("address add ") + kFirstAddress + " dev skorra0"); !error.empty()) {
    return error;
  }

  AttemptRunner runner({server});
  struct Step {
    const char* what;
    std::vector<std::string> commands;
    std::function<std::string()> check;
  };
  const Step steps[] = {
      {"the link is not up yet", {}, [&] { return ExpectNoNetwork(runner); }},
      {"the link comes up", {"link set skorra0 up"}, [&] { return ExpectSuccess(runner, server); }},
      {"the link fails for a moment", {}, [&] { return ExpectRecoveryWithinAnAttempt(runner, server); }},
      {"the local address changes",
       {std::string("address del ") + kFirstAddress + " dev skorra0",
        std::string("address add ") + kOtherAddress + " dev skorra0"},
       [&] {
         const std::string error = ExpectSuccess(runner, server);
         return error.empty() && !HasUdpSocketAt(kOtherAddressInProc) ? "it was not from the new address"
                                                                      : error;
       }},
  };
  for (const Step& step : steps) {
    std::string error = Ip(step.commands);
    if (error.empty()) {
      error = step.check();
    }
    if (!error.empty()) {
      return std::string(step.what) + ": " + error;
    }
  }
  return "";
}

TEST(NamespaceTest, TheManagerOutlivesAnOutageAndANewAddress) {
  const std::string report = RunInChild(PlayOutage);
  if (report.starts_with(kSkip)) {
    GTEST_SKIP() << report.substr(sizeof kSkip - 1);
  }
  EXPECT_EQ(report, "");
}

}  // namespace
}  // namespace skorra
