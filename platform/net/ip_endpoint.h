// SPDX-License-Identifier: Apache-2.0

// An IP address with a port, and the texts that name a server. Plain values, any thread.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "../base/export.h"

namespace net {
inline namespace skorra_ntp {

class SKORRA_EXPORT IPEndPoint {
 public:
  enum class Family : uint8_t { kNone, kIPv4, kIPv6 };

  // The empty end point: no address, port 0.
  IPEndPoint() = default;

  static IPEndPoint FromIPv4(std::array<uint8_t, 4> address, uint16_t port);
  // `scope_id` is the interface index of a link-local address, otherwise 0.
  static IPEndPoint FromIPv6(std::array<uint8_t, 16> address, uint16_t port, uint32_t scope_id = 0);
  // Reads an address without a port: "192.0.2.1", "2001:db8::1", or a link-local address with the number or
  // name of an interface of this machine, "fe80::1%2" or "fe80::1%eth0". Returns nothing for anything else.
  static std::optional<IPEndPoint> FromLiteral(std::string_view address, uint16_t port);

  Family family() const { return family_; }
  bool address_empty() const { return family_ == Family::kNone; }
  // In network order. An IPv4 address takes the first four bytes; the others are zero.
  const std::array<uint8_t, 16>& bytes() const { return bytes_; }
  uint16_t port() const { return port_; }
  uint32_t scope_id() const { return scope_id_; }

  // "192.0.2.1:123", "[2001:db8::1]:123", "[fe80::1%2]:123"; the empty end point gives an empty string.
  std::string ToString() const;

  // By family, address, scope and port. With many servers, each request and each reply makes dozens of these
  // comparisons, so they are calls of memcmp that the compiler can resolve.
  friend bool operator==(const IPEndPoint& a, const IPEndPoint& b) {
    return std::memcmp(a.bytes_.data(), b.bytes_.data(), 16) == 0 && a.family_ == b.family_ &&
           a.scope_id_ == b.scope_id_ && a.port_ == b.port_;
  }
  friend bool operator!=(const IPEndPoint& a, const IPEndPoint& b) { return !(a == b); }
  friend bool operator<(const IPEndPoint& a, const IPEndPoint& b) {
    if (a.family_ != b.family_) {
      return a.family_ < b.family_;
    }
    const int order = std::memcmp(a.bytes_.data(), b.bytes_.data(), 16);
    return order != 0 ? order < 0 : std::tie(a.scope_id_, a.port_) < std::tie(b.scope_id_, b.port_);
  }

 private:
  Family family_ = Family::kNone;
  std::array<uint8_t, 16> bytes_{};
  uint32_t scope_id_ = 0;
  uint16_t port_ = 0;
};

// A server as users write it.
struct HostPort {
  std::string host;  // a name, or an address literal without brackets
  uint16_t port = 0;
};

struct HostPortResult {
  std::optional<HostPort> value;
  std::string error;  // why there is no value, in words for the user
};

// Reads "host", "host:port", "192.0.2.1", "192.0.2.1:port", "[IPv6]", "[IPv6]:port" or a bare IPv6 address.
// Ports are 1 to 65535. A host name has at most 253 characters, only letters, digits, '-', '_' and '.'; it is
// not looked up. A name of digits and dots only must be an IPv4 address.
SKORRA_EXPORT HostPortResult ParseHostPort(std::string_view text, uint16_t default_port);

}  // namespace skorra_ntp
}  // namespace net
