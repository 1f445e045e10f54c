// SPDX-License-Identifier: Apache-2.0

// `skorra-ntp sync`: the first attempt of the library's clock.
#pragma once

#include <string>
#include <vector>

#include "apps/skorra-ntp/report.h"
#include "platform/base/log.h"

namespace skorra {

struct SyncOptions {
  std::vector<std::string> servers;   // each one domain for the library
  double timeout_s = 15;              // of the whole attempt, names included
  int log_level = base::kLogNothing;  // of the library's lines that go to standard error
};

// Starts the clock (clock/ntp_clock.h) and waits for the end of its first attempt, and then for what the
// other servers say of the result, if there are any. Warnings and progress go to standard error. The clock
// runs until the process ends, so this is called once.
SyncReport RunAttempt(const SyncOptions& options);

// The whole command: checks the servers, waits for the attempt, prints the report. Returns the exit status.
int RunSync(const SyncOptions& options, bool as_json);

}  // namespace skorra
