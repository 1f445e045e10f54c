// SPDX-License-Identifier: Apache-2.0

// The base configuration: the table of every entry that this library reads.
//
// Readers ask `config::GetNumber` or `config::GetText` (config_center.h), which know an entry's default. The
// table of docs/configuration.md and the program's help show these rows.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace config {
inline namespace skorra_ntp {

// A whole number from `min` to `max`.
struct NumberEntry {
  const char* key;  // the dotted path in the TOML file
  const char* environment_variable;
  uint64_t min;
  uint64_t max;
  uint64_t default_value;
  size_t slot;          // the row's place among the numbers
  const char* meaning;  // for people, without a full stop
};

// "1 to 60000".
inline std::string RangeText(const NumberEntry& entry) {
  return std::to_string(entry.min) + " to " + std::to_string(entry.max);
}

struct TextEntry {
  const char* key;
  const char* environment_variable;
  const char* default_value;
  size_t slot;  // the row's place among the texts
  const char* meaning;
  std::array<const char*, 3> values = {};  // the only ones that are valid; all null: any text is
};

constexpr bool IsValid(const TextEntry& entry, std::string_view value) {
  bool is_any = true;
  for (const char* const valid : entry.values) {
    if (valid != nullptr && value == valid) {
      return true;
    }
    is_any = is_any && valid == nullptr;
  }
  return is_any;
}

// "text", or "off, report or refuse".
inline std::string RangeText(const TextEntry& entry) {
  std::string text;
  for (size_t i = 0; i < entry.values.size() && entry.values[i] != nullptr; ++i) {
    const bool is_last = i + 1 == entry.values.size() || entry.values[i + 1] == nullptr;
    text += (i == 0 ? "" : is_last ? " or " : ", ") + std::string(entry.values[i]);
  }
  return text.empty() ? "text" : text;
}

inline constexpr size_t kNumberEntryCount = 5;
inline constexpr size_t kTextEntryCount = 2;

struct BaseConfig {
  // clang-format off
  // key, environment variable, smallest and largest value, default, place,
  //     meaning
  NumberEntry ntp_sync_interval{
      "ntp.sync_interval", "SKORRA_NTP_SYNC_INTERVAL", 0, std::numeric_limits<uint64_t>::max(), 3600, 0,
      "seconds of NTP time between two periodic syncs; 0 switches them off; only the low 32 bits count"};
  NumberEntry ntp_resolve_timeout_ms{
      "ntp.resolve_timeout_ms", "SKORRA_NTP_RESOLVE_TIMEOUT_MS", 1, 60000, 2000, 1,
      "how long the names of one call may take to resolve, in milliseconds"};
  NumberEntry ntp_requests_per_burst{
      "ntp.requests_per_burst", "SKORRA_NTP_REQUESTS_PER_BURST", 3, 20, 20, 2,
      "how many of a burst's 20 requests leave, evenly spread; a result needs 3 answers; set 8 for public "
      "servers"};
  NumberEntry ntp_max_root_distance_ms{
      "ntp.max_root_distance_ms", "SKORRA_NTP_MAX_ROOT_DISTANCE_MS", 1, 60000, 5000, 3,
      "replies of servers further than this from their reference clock (half the root delay plus the root "
      "dispersion) are dropped, in milliseconds"};
  NumberEntry ntp_max_round_trip_ms{
      "ntp.max_round_trip_ms", "SKORRA_NTP_MAX_ROUND_TRIP_MS", 1, 60000, 1500, 4,
      "replies with a longer round-trip delay are dropped, in milliseconds"};
  TextEntry ntp_default_domain{
      "ntp.default_domain", "SKORRA_NTP_DEFAULT_DOMAIN", "", 0,
      "the server that a sync asks when the program has named none"};
  TextEntry ntp_witnesses{
      "ntp.witnesses", "SKORRA_NTP_WITNESSES", "report", 1,
      "whether the clock checks a result against the other servers; with refuse, a reading that they outvote "
      "has no bound",
      {"off", "report", "refuse"}};
  // clang-format on

  constexpr std::array<const NumberEntry*, kNumberEntryCount> numbers() const {
    return {&ntp_sync_interval, &ntp_resolve_timeout_ms, &ntp_requests_per_burst, &ntp_max_root_distance_ms,
            &ntp_max_round_trip_ms};
  }
  constexpr std::array<const TextEntry*, kTextEntryCount> texts() const {
    return {&ntp_default_domain, &ntp_witnesses};
  }
};

inline constexpr BaseConfig kBaseConfig{};

inline const BaseConfig& BaseCfg() { return kBaseConfig; }

}  // namespace skorra_ntp
}  // namespace config
