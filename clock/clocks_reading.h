// SPDX-License-Identifier: Apache-2.0
// A reading of the machine's three clocks that says how well its parts belong together.
#pragma once

#include <cstdint>

#include "platform/base/clock.h"

namespace skorra {

struct ClocksReading {
  base::MachineClocks clocks;
  int64_t error_ns = 0;  // the time from the first to the last of its three readings, at most
};

// The best of a few. Any thread.
ClocksReading ReadClocksClosely();

}  // namespace skorra
