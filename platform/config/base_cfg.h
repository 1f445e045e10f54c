// The base configuration: every entry that this library reads, with its key and its environment variable.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace config {
inline namespace skorra_ntp {

// A whole number. `key` is the dotted path in the TOML file.
struct NumberEntry {
  const char* key;
  const char* environment_variable;
  uint64_t min;
  uint64_t max;
  size_t slot;  // its place in the configuration centre
};

struct TextEntry {
  const char* key;
  const char* environment_variable;
  size_t slot;
};

inline constexpr size_t kNumberEntryCount = 5;
inline constexpr size_t kTextEntryCount = 1;

struct BaseConfig {
  // Seconds of NTP time between two periodic syncs; 0 switches them off. Only the low 32 bits count.
  NumberEntry ntp_sync_interval{"ntp.sync_interval", "SKORRA_NTP_SYNC_INTERVAL", 0,
                                std::numeric_limits<uint64_t>::max(), 0};
  // How long one name may take to resolve, in milliseconds.
  NumberEntry ntp_resolve_timeout_ms{"ntp.resolve_timeout_ms", "SKORRA_NTP_RESOLVE_TIMEOUT_MS", 1, 60000, 1};
  // How many of a burst's 20 requests really leave; 8 is polite towards public servers.
  NumberEntry ntp_requests_per_burst{"ntp.requests_per_burst", "SKORRA_NTP_REQUESTS_PER_BURST", 1, 20, 2};
  // A reply whose server is further than this from its reference clock (half the root delay plus the root
  // dispersion) is not used. Milliseconds.
  NumberEntry ntp_max_root_distance_ms{"ntp.max_root_distance_ms", "SKORRA_NTP_MAX_ROOT_DISTANCE_MS", 1,
                                       60000, 3};
  // A reply that was longer than this on the way, there and back, is not used. Milliseconds.
  NumberEntry ntp_max_round_trip_ms{"ntp.max_round_trip_ms", "SKORRA_NTP_MAX_ROUND_TRIP_MS", 1, 60000, 4};
  // The server that a sync asks when the program has named none. Empty or unset: there is none.
  TextEntry ntp_default_domain{"ntp.default_domain", "SKORRA_NTP_DEFAULT_DOMAIN", 0};

  std::array<const NumberEntry*, kNumberEntryCount> numbers() const {
    return {&ntp_sync_interval, &ntp_resolve_timeout_ms, &ntp_requests_per_burst, &ntp_max_root_distance_ms,
            &ntp_max_round_trip_ms};
  }
  std::array<const TextEntry*, kTextEntryCount> texts() const { return {&ntp_default_domain}; }
};

inline const BaseConfig& BaseCfg() {
  static constexpr BaseConfig kBaseConfig{};
  return kBaseConfig;
}

}  // namespace skorra_ntp
}  // namespace config
