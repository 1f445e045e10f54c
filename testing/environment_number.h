// SPDX-License-Identifier: Apache-2.0

// Numbers that a test takes from the environment: seeds, durations.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>

#include "apps/skorra-ntp/whole_number.h"

namespace skorra {

// The variable's value, or nothing when it is not set or empty. A value that is no whole number from `min` to
// `max` ends the process with status 64: a replay with another seed than the one asked for would mislead.
inline std::optional<uint64_t> EnvironmentNumber(const char* name, uint64_t min = 0,
                                                 uint64_t max = std::numeric_limits<uint64_t>::max()) {
  const char* const text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return std::nullopt;
  }
  const auto value = ParseWholeNumber(text, min, max);
  if (!value) {
    std::fprintf(stderr, "%s must be a whole number from %llu to %llu\n", name,
                 static_cast<unsigned long long>(min), static_cast<unsigned long long>(max));
    std::_Exit(64);
  }
  return value;
}

}  // namespace skorra
