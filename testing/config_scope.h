// SPDX-License-Identifier: Apache-2.0

// Configuration values that the program sets for as long as the object lives. It begins and ends without any
// such value; those of a file and of the environment stay.
//
//   ConfigScope config;
//   EXPECT_EQ(config.Set(config::BaseCfg().ntp_requests_per_burst, 8), "");
#pragma once

#include <optional>
#include <utility>

#include "platform/config/config_center.h"

namespace skorra {

class ConfigScope {
 public:
  ConfigScope() { Clear(); }
  ~ConfigScope() { Clear(); }
  ConfigScope(const ConfigScope&) = delete;
  ConfigScope& operator=(const ConfigScope&) = delete;

  // Returns what the configuration centre returns: of a number, the message why its value is not valid.
  template <class Entry, class Value>
  auto Set(const Entry& entry, Value value) {
    return config::ConfigCenterImpl::GetInstance()->Set(entry, std::move(value));
  }

 private:
  void Clear() {
    for (const config::NumberEntry* entry : config::BaseCfg().numbers()) {
      Set(*entry, std::nullopt);
    }
    for (const config::TextEntry* entry : config::BaseCfg().texts()) {
      Set(*entry, std::nullopt);
    }
  }
};

}  // namespace skorra
