// SPDX-License-Identifier: Apache-2.0

// The environment variables of the process: a seam with a real and a simulated implementation.
#pragma once

#include <string>

#include "platform/base/optional.h"

namespace base {
inline namespace skorra_ntp {

// The variable's value; nothing when it is not set. Any thread, but not while another thread changes the
// environment.
Optional<std::string> GetEnvironmentVariable(const char* name);

}  // namespace skorra_ntp
}  // namespace base
