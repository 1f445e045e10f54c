// SPDX-License-Identifier: Apache-2.0
#include "platform/base/environment.h"

#include <cstdlib>

namespace base {
inline namespace skorra_ntp {

Optional<std::string> GetEnvironmentVariable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? Optional<std::string>() : Optional<std::string>(value);
}

}  // namespace skorra_ntp
}  // namespace base
