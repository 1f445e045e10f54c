// SPDX-License-Identifier: Apache-2.0

// `skorra-ntp serve`: the demonstration server in the foreground, until SIGINT or SIGTERM.
#pragma once

#include <cstdint>
#include <string>

namespace skorra {

struct ServeOptions {
  std::string listen = "127.0.0.1:0";
  double offset_s = 0;
  double delay_ms = 0;
  double jitter_ms = 0;
  double loss = 0;
  uint64_t seed = 1;
};

// Returns the exit status: 0 after a signal, 1 when the address cannot be used, 64 when it is malformed, 74
// when not everything could be printed.
int RunServe(const ServeOptions& options);

}  // namespace skorra
