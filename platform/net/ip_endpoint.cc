// SPDX-License-Identifier: Apache-2.0
#include "platform/net/ip_endpoint.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "platform/net/interface_index.h"

namespace net {
inline namespace skorra_ntp {

namespace {

constexpr size_t kMaxHostNameBytes = 253;  // RFC 1035, section 2.3.4, written as text

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsHostNameChar(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' || c == '.';
}

template <class Number>
std::optional<Number> ParseWholeNumber(std::string_view text) {
  Number value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  if (text.empty() || stop != end || status != std::errc()) {
    return std::nullopt;
  }
  return value;
}

HostPortResult Fail(std::string_view text, std::string_view reason) {
  return {std::nullopt, "'" + std::string(text) + "': " + std::string(reason)};
}

// An empty string when `host` can be looked up, otherwise the reason why not.
std::string CheckHost(std::string_view host) {
  if (host.empty()) {
    return "the host is missing";
  }
  if (host.size() > kMaxHostNameBytes) {
    return "the host name is longer than 253 characters";
  }
  if (!std::all_of(host.begin(), host.end(), IsHostNameChar)) {
    return "a host name has only letters, digits, '-', '_' and '.'";
  }
  if (std::all_of(host.begin(), host.end(), [](char c) { return IsDigit(c) || c == '.'; }) &&
      !IPEndPoint::FromLiteral(host, 0)) {
    return "an IPv4 address has four numbers from 0 to 255 without leading zeros";
  }
  return {};
}

bool IsIPv6Literal(std::string_view text) {
  const auto endpoint = IPEndPoint::FromLiteral(text, 0);
  return endpoint && endpoint->family() == IPEndPoint::Family::kIPv6;
}

}  // namespace

IPEndPoint IPEndPoint::FromIPv4(std::array<uint8_t, 4> address, uint16_t port) {
  IPEndPoint endpoint;
  endpoint.family_ = Family::kIPv4;
  std::copy(address.begin(), address.end(), endpoint.bytes_.begin());
  endpoint.port_ = port;
  return endpoint;
}

IPEndPoint IPEndPoint::FromIPv6(std::array<uint8_t, 16> address, uint16_t port, uint32_t scope_id) {
  IPEndPoint endpoint;
  endpoint.family_ = Family::kIPv6;
  endpoint.bytes_ = address;
  endpoint.scope_id_ = scope_id;
  endpoint.port_ = port;
  return endpoint;
}

std::optional<IPEndPoint> IPEndPoint::FromLiteral(std::string_view address, uint16_t port) {
  // inet_pton would stop at a zero byte inside.
  if (address.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  std::array<uint8_t, 4> ipv4;
  if (inet_pton(AF_INET, std::string(address).c_str(), ipv4.data()) == 1) {
    return FromIPv4(ipv4, port);
  }
  uint32_t scope_id = 0;
  const size_t percent = address.find('%');
  if (percent != std::string_view::npos) {
    const std::string_view scope = address.substr(percent + 1);
    const auto number = ParseWholeNumber<uint32_t>(scope);
    scope_id = number ? *number : GetInterfaceIndex(std::string(scope));
    if (scope_id == 0) {
      return std::nullopt;
    }
  }
  std::array<uint8_t, 16> ipv6;
  if (inet_pton(AF_INET6, std::string(address.substr(0, percent)).c_str(), ipv6.data()) == 1) {
    const bool is_link_local = ipv6[0] == 0xfe && (ipv6[1] & 0xc0) == 0x80;
    if (scope_id != 0 && !is_link_local) {
      return std::nullopt;  // the system drops such a scope, so the end point would not equal what it reports
    }
    return FromIPv6(ipv6, port, scope_id);
  }
  return std::nullopt;
}

std::string IPEndPoint::ToString() const {
  if (address_empty()) {
    return {};
  }
  char text[INET6_ADDRSTRLEN] = "";
  const bool is_ipv6 = family_ == Family::kIPv6;
  inet_ntop(is_ipv6 ? AF_INET6 : AF_INET, bytes_.data(), text, sizeof text);
  std::string result = text;
  if (is_ipv6) {
    const std::string scope = scope_id_ == 0 ? std::string() : '%' + std::to_string(scope_id_);
    result = '[' + result + scope + ']';
  }
  return result + ':' + std::to_string(port_);
}

HostPortResult ParseHostPort(std::string_view text, uint16_t default_port) {
  if (IsIPv6Literal(text)) {
    return {HostPort{std::string(text), default_port}, {}};
  }
  std::string_view host = text;
  std::optional<std::string_view> port_text;
  if (text.starts_with('[')) {
    const size_t bracket = text.find(']');
    if (bracket == std::string_view::npos) {
      return Fail(text, "the closing ']' is missing");
    }
    host = text.substr(1, bracket - 1);
    if (!IsIPv6Literal(host)) {
      return Fail(text, "the brackets must hold an IPv6 address (after '%', an interface of this machine)");
    }
    const std::string_view rest = text.substr(bracket + 1);
    if (!rest.empty() && rest.front() != ':') {
      return Fail(text, "only ':' and a port may follow the ']'");
    }
    if (!rest.empty()) {
      port_text = rest.substr(1);
    }
  } else {
    const size_t colon = text.find(':');
    host = text.substr(0, colon);
    if (colon != std::string_view::npos) {
      port_text = text.substr(colon + 1);
      if (port_text->find(':') != std::string_view::npos) {
        return Fail(text, "neither an IPv6 address nor host:port; write [IPv6]:port");
      }
    }
    if (const std::string error = CheckHost(host); !error.empty()) {
      return Fail(text, error);
    }
  }
  uint16_t port = default_port;
  if (port_text) {
    const auto number = ParseWholeNumber<uint16_t>(*port_text);
    if (!number || *number == 0) {
      return Fail(text, "the port is not a number from 1 to 65535");
    }
    port = *number;
  }
  return {HostPort{std::string(host), port}, {}};
}

}  // namespace skorra_ntp
}  // namespace net
