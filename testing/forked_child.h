// SPDX-License-Identifier: Apache-2.0

// Runs a part of a test in a child that the test forks, without a new program in it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "testing/wait_until.h"

namespace skorra {

class ForkedChild {
 public:
  // The child runs `body` and ends at once, without handlers of exit. What `body` returns, "" or what went
  // wrong, is what the child reports; gtest's expectations do not reach the parent.
  explicit ForkedChild(const std::function<std::string()>& body);
  // Kills a child that still runs. The kernel does the same when the test dies first.
  ~ForkedChild();
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  pid_t pid() const { return pid_; }

  // The report, once the child has ended; how it ended when that was not by itself, or that it hung: then it
  // is killed. A wait of the child's own ends sooner and says what it waited for.
  std::string Report(int timeout_ms = 2 * kPatienceMs);

 private:
  pid_t pid_ = -1;
  int report_fd_ = -1;
};

// The same for one that is waited for at once.
std::string RunInChild(const std::function<std::string()>& body);

}  // namespace skorra
