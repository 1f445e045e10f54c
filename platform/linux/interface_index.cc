// SPDX-License-Identifier: Apache-2.0
#include "platform/net/interface_index.h"

#include <net/if.h>

namespace net {
inline namespace skorra_ntp {

uint32_t GetInterfaceIndex(const std::string& name) {
  // The system ignores a colon and what follows it: "lo:123" would be taken for "lo".
  return name.find(':') == std::string::npos ? if_nametoindex(name.c_str()) : 0;
}

}  // namespace skorra_ntp
}  // namespace net
