// SPDX-License-Identifier: Apache-2.0

// Counters of the process: key metrics under numbers, everything else under names.
//
// Any thread. Counters only grow, wrap at 2^64 and live until the process ends.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "../base/export.h"

namespace base {
inline namespace skorra_ntp {

class SKORRA_EXPORT KeyMetrics {
 public:
  // Adds `value` occurrences to the key metric `key`; a value below 1 adds nothing.
  static void CountPV(uint64_t key, int value);

  // The sum for `key` so far; 0 for a key that was never counted.
  static uint64_t GetPV(uint64_t key);
  static std::map<uint64_t, uint64_t> GetAllPV();

  // Counters under names, dotted from the general to the special: "ntp.rejected.mode".
  static void Count(std::string_view name);
  static uint64_t GetCount(std::string_view name);
  static std::map<std::string, uint64_t> GetAllCounts();
};

}  // namespace skorra_ntp
}  // namespace base
