// SPDX-License-Identifier: Apache-2.0

// Runs the body of a test case on a machine of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "testing/forked_child.h"
#include "testing/namespaces.h"

namespace skorra {

// Runs `body` in a forked child with an empty /etc and a network of its own (EnterEmptyMachine), so that
// nothing of this machine is touched and no question leaves it. The child prints its failed expectations, and
// they fail the test. Skips the test where the system does not permit such a child.
inline void RunIsolated(const std::function<void()>& body) {
  constexpr char kNotPermitted[] = "the system does not permit it: ";
  fflush(nullptr);
  const std::string report = RunInChild([&]() -> std::string {
    if (const std::string reason = EnterEmptyMachine(); !reason.empty()) {
      return kNotPermitted + reason;
    }
    body();
    fflush(nullptr);
    return testing::Test::HasFailure() ? "expectations of the child failed" : "";
  });
  if (report.starts_with(kNotPermitted)) {
    GTEST_SKIP() << report;
  }
  EXPECT_EQ(report, "");
}

}  // namespace skorra
