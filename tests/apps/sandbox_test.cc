// SPDX-License-Identifier: Apache-2.0

// The program in a sandbox that does not let it make every system call.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <string>
#include <vector>

#include "testing/child_process.h"
#include "testing/forked_child.h"
#include "testing/loopback_ntp_server.h"
#include "testing/refuse_system_call.h"

namespace skorra {
namespace {

// Runs the program where the system call `number` fails. "" or what differs from the expected end.
std::string RunWithout(int number, const std::vector<std::string>& arguments, int expected_status,
                       const std::string& expected_message) {
  return RunInChild([&]() -> std::string {
    if (!RefuseSystemCallOnThisThread(number, EPERM)) {
      return "the machine has no filters for system calls";
    }
    std::vector<std::string> command = {SKORRA_NTP_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const ChildExit exit = RunChild(command);
    if (exit.status != expected_status || exit.err.find(expected_message) == std::string::npos) {
      return "status " + std::to_string(exit.status) + '\n' + exit.out + exit.err;
    }
    return "";
  });
}

TEST(SandboxTest, ASyncNeedsNoSchedulingCall) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  EXPECT_EQ(RunWithout(SYS_sched_setscheduler, {"sync", server.endpoint().ToString()}, 0, ""), "");
}

TEST(SandboxTest, ASyncWithoutTimersEndsAtItsTimeLimitAndSaysSo) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  std::vector<std::string> arguments = {"sync", server.endpoint().ToString(), "--timeout", "1"};
  EXPECT_EQ(RunWithout(SYS_timerfd_settime, arguments, 2, "does not let the program set a timer"), "");
  arguments.insert(arguments.end(), {"--log-level", "1"});
  EXPECT_EQ(RunWithout(SYS_timerfd_settime, arguments, 2, "cannot set a timer (timerfd_settime: "), "");
}

}  // namespace
}  // namespace skorra
