// SPDX-License-Identifier: Apache-2.0

// What this installation provides by default.
#pragma once

#include <string>

#include "../base/export.h"

namespace config {
inline namespace skorra_ntp {

class SKORRA_EXPORT VorqEnvConfig {
 public:
  // Never null, never destroyed.
  static VorqEnvConfig* GetInstance();

  // The environment's default NTP server domain, from the configuration entry `ntp_default_domain`; empty
  // when it is unset. No public server is built in, because a product may preconfigure one only with its
  // operator's leave. Any thread; takes a lock.
  std::string GetDefaultNtpDomain() const;
};

}  // namespace skorra_ntp
}  // namespace config
