// SPDX-License-Identifier: Apache-2.0

// Runs a program as a child of a test, with its output caught and every wait bounded.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "testing/wait_until.h"

namespace skorra {

struct ChildExit {
  int status = -1;  // the exit status; 128 plus the signal when a signal ended the child
  std::string out;
  std::string err;
};

class ChildProcess {
 public:
  // `command` is a path and its arguments; `environment` holds "NAME=value" entries added to the test's own.
  explicit ChildProcess(const std::vector<std::string>& command,
                        const std::vector<std::string>& environment = {});
  // Kills a child that still runs. The kernel does the same when the test dies first.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  // The next line of the child's standard output, without its end; nothing when none comes in time.
  std::optional<std::string> ReadLine(int timeout_ms = kPatienceMs);

  // Waits for the end of the child. When it does not come in time the child is killed, and the status says
  // so (137).
  ChildExit Wait(int timeout_ms = kPatienceMs);

  void Signal(int signal_number) const;

 private:
  bool Pump(int64_t deadline_ticks_us);

  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  std::string out_;
  std::string err_;
};

// Starts, waits, returns.
ChildExit RunChild(const std::vector<std::string>& command, const std::vector<std::string>& environment = {},
                   int timeout_ms = kPatienceMs);

}  // namespace skorra
