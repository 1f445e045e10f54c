// SPDX-License-Identifier: Apache-2.0
#include "clock/clocks_reading.h"

#include <limits>

namespace skorra {

ClocksReading ReadClocksClosely() {
  constexpr int kTries = 5;
  ClocksReading best{.clocks = base::ReadMachineClocks(), .error_ns = std::numeric_limits<int64_t>::max()};
  base::MachineClocks current = best.clocks;
  for (int i = 0; i < kTries; ++i) {
    const base::MachineClocks next = base::ReadMachineClocks();
    // All three of `current` were read before `next` began.
    if (const int64_t error_ns = next.boot_ns - current.boot_ns; error_ns < best.error_ns) {
      best = {.clocks = current, .error_ns = error_ns};
    }
    current = next;
  }
  return best;
}

}  // namespace skorra
