// SPDX-License-Identifier: Apache-2.0

// The network interfaces of the machine: a seam with a real and a simulated implementation.
#pragma once

#include <cstdint>
#include <string>

namespace net {
inline namespace skorra_ntp {

// The index of the interface called `name`; 0 when there is none. Any thread.
uint32_t GetInterfaceIndex(const std::string& name);

}  // namespace skorra_ntp
}  // namespace net
