// SPDX-License-Identifier: Apache-2.0

// The lookups behind ResolveHosts with given name servers, so that tests can use ones that misbehave.
#pragma once

#include <string>
#include <vector>

#include "platform/net/host_resolver.h"

namespace net {
inline namespace skorra_ntp {
namespace internal {

// Like ResolveHosts. `name_servers` is a list "192.0.2.1:53,[2001:db8::1]:53"; empty means the system's.
std::vector<ResolveResult> LookUpHosts(const std::vector<HostPort>& hosts, base::TimeDelta timeout,
                                       const std::string& name_servers);

// Like ResolveHost.
inline ResolveResult LookUpHost(const std::string& host, uint16_t port, base::TimeDelta timeout,
                                const std::string& name_servers) {
  return LookUpHosts({{host, port}}, timeout, name_servers).front();
}

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace net
