// SPDX-License-Identifier: Apache-2.0

// Whole numbers as people write them.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace skorra {

// The number that `text` is: decimal digits and nothing else, from `min` to `max`. Nothing otherwise.
inline std::optional<uint64_t> ParseWholeNumber(std::string_view text, uint64_t min, uint64_t max) {
  uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  const bool is_number = stop == end && status == std::errc();
  return is_number && value >= min && value <= max ? std::optional(value) : std::nullopt;
}

}  // namespace skorra
