// SPDX-License-Identifier: Apache-2.0

// A process may end at any moment of a sync attempt, from any thread: no crash, no hang, and (in a sanitized
// build) no report.
#include <gtest/gtest.h>

#include <string>

#include "testing/child_process.h"
#include "testing/loopback_demo_server.h"
#include "testing/loopback_udp.h"

namespace skorra {
namespace {

// Repeated, because the moment within the queue's work differs from run to run.
constexpr int kRepetitions = 3;

class ExitTest : public testing::TestWithParam<const char*> {
 protected:
  static void ExpectCleanExits(const std::string& moment, const std::string& server, int repetitions) {
    for (int i = 0; i < repetitions; ++i) {
      const ChildExit exit = RunChild({SKORRA_EXIT_PROGRAM, moment, GetParam(), server});
      EXPECT_EQ(exit.status, 0) << moment;
      EXPECT_EQ(exit.err, "") << moment;
    }
  }
};

TEST_P(ExitTest, AProcessMayEndAtEveryMomentOfAnAnsweredAttempt) {
  const auto server = OpenDemoServer({.delay_us = 5000});
  ASSERT_NE(server, nullptr);
  const std::string name = server->local().ToString();
  for (const char* moment : {"after_start", "before_first_packet", "mid_burst", "after_first_read",
                             "in_observer", "wind_down", "after_stop"}) {
    ExpectCleanExits(moment, name, kRepetitions);
  }
}

TEST_P(ExitTest, AProcessMayEndWhileASilentServerIsAsked) {
  const LoopbackUdp silent;
  for (const char* moment :
       {"after_start", "before_first_packet", "mid_burst", "after_first_read", "after_stop"}) {
    ExpectCleanExits(moment, silent.local().ToString(), kRepetitions);
  }
}

TEST_P(ExitTest, AProcessMayEndWhileAClosedPortIsAsked) {
  ExpectCleanExits("mid_burst", UnusedEndPoint().ToString(), kRepetitions);
}

TEST_P(ExitTest, AProcessMayEndWhileANameIsLookedUp) {
  ExpectCleanExits("resolving", UnusedEndPoint().ToString(), kRepetitions);
}

INSTANTIATE_TEST_SUITE_P(Ways, ExitTest, testing::Values("return", "exit", "exit_on_thread"),
                         [](const auto& way) { return std::string(way.param); });

}  // namespace
}  // namespace skorra
