// SPDX-License-Identifier: Apache-2.0

// The lookup behind ResolveHost with given name servers, so that tests can use ones that misbehave.
#pragma once

#include <string>

#include "platform/net/host_resolver.h"

namespace net {
inline namespace skorra_ntp {
namespace internal {

// Like ResolveHost. `name_servers` is a list "192.0.2.1:53,[2001:db8::1]:53"; empty means the system's.
ResolveResult LookUpHost(const std::string& host, uint16_t port, base::TimeDelta timeout,
                         const std::string& name_servers);

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace net
