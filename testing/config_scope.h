// SPDX-License-Identifier: Apache-2.0

// Configuration values that the program sets for as long as the object lives.
//
//   ConfigScope config;
//   EXPECT_EQ(config.Set(config::BaseCfg().ntp_requests_per_burst, 8), "");
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "platform/base/optional.h"
#include "platform/config/config_center.h"

namespace skorra {

class ConfigScope {
 public:
  ConfigScope() = default;
  // Clears the program's value of every entry that was set here.
  ~ConfigScope() {
    for (const auto& clear : clears_) {
      clear();
    }
  }
  ConfigScope(const ConfigScope&) = delete;
  ConfigScope& operator=(const ConfigScope&) = delete;

  // Returns what the configuration centre returns: of a number, the message why its value is not valid.
  template <class Entry, class Value>
  auto Set(const Entry& entry, Value value) {
    clears_.push_back([&entry] { config::ConfigCenterImpl::GetInstance()->Set(entry, std::nullopt); });
    return config::ConfigCenterImpl::GetInstance()->Set(entry, std::move(value));
  }

 private:
  std::vector<std::function<void()>> clears_;
};

}  // namespace skorra
