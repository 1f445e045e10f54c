// SPDX-License-Identifier: Apache-2.0

// End points, the short way.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/net/ip_endpoint.h"

namespace skorra {

// `literal` must be an IPv4 or IPv6 address.
inline net::IPEndPoint Address(std::string_view literal, uint16_t port = 123) {
  return net::IPEndPoint::FromLiteral(literal, port).value();
}

// What a server listens on to get a free port of the loopback interface.
inline net::IPEndPoint AnyLoopbackPort(net::IPEndPoint::Family family = net::IPEndPoint::Family::kIPv4) {
  return Address(family == net::IPEndPoint::Family::kIPv6 ? "::1" : "127.0.0.1", 0);
}

}  // namespace skorra
