// SPDX-License-Identifier: Apache-2.0

// End points, the short way.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/net/host_resolver.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_packet.h"

namespace skorra {

// `literal` must be an IPv4 or IPv6 address.
inline net::IPEndPoint Address(std::string_view literal, uint16_t port = kNtpPort) {
  return net::IPEndPoint::FromLiteral(literal, port).value();
}

// What a server listens on to get a free port of the loopback interface.
inline net::IPEndPoint AnyLoopbackPort(net::IPEndPoint::Family family = net::IPEndPoint::Family::kIPv4) {
  return Address(family == net::IPEndPoint::Family::kIPv6 ? "::1" : "127.0.0.1", 0);
}

// The addresses that a lookup gave, sorted as texts.
inline std::vector<std::string> Texts(const net::ResolveResult& result) {
  std::vector<std::string> texts;
  for (const net::IPEndPoint& address : result.addresses) {
    texts.push_back(address.ToString());
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

}  // namespace skorra
