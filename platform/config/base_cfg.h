// The base configuration: every entry that this library reads, with its key and its environment variable.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace config {

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

inline constexpr size_t kNumberEntryCount = 2;
inline constexpr size_t kTextEntryCount = 1;

struct BaseConfig {
  // Seconds of NTP time between two periodic syncs; 0 switches them off. Only the low 32 bits count.
  NumberEntry ntp_sync_interval{"ntp.sync_interval", "SKORRA_NTP_SYNC_INTERVAL", 0,
                                std::numeric_limits<uint64_t>::max(), 0};
  // How long one name may take to resolve, in milliseconds.
  NumberEntry ntp_resolve_timeout_ms{"ntp.resolve_timeout_ms", "SKORRA_NTP_RESOLVE_TIMEOUT_MS", 1, 60000, 1};
  // The server that a sync asks when the program has named none. Empty or unset: there is none.
  TextEntry ntp_default_domain{"ntp.default_domain", "SKORRA_NTP_DEFAULT_DOMAIN", 0};

  std::array<const NumberEntry*, kNumberEntryCount> numbers() const {
    return {&ntp_sync_interval, &ntp_resolve_timeout_ms};
  }
  std::array<const TextEntry*, kTextEntryCount> texts() const { return {&ntp_default_domain}; }
};

inline const BaseConfig& BaseCfg() {
  static constexpr BaseConfig kBaseConfig{};
  return kBaseConfig;
}

}  // namespace config
