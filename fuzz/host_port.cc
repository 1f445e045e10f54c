// SPDX-License-Identifier: Apache-2.0

// The texts that name a server: whatever is understood can be written down again, and means the same then.
// Address literals are held against inet_pton.
//
// Input: the text.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "platform/net/ip_endpoint.h"
#include "sim/world.h"

namespace net {
namespace {

using Family = IPEndPoint::Family;

constexpr uint16_t kDefaultPort = 123;
constexpr uint16_t kOtherDefaultPort = 65535;

// The family that inet_pton finds in a text without scope, and the address.
Family ReadWithoutScope(const std::string& text, std::array<uint8_t, 16>* bytes) {
  bytes->fill(0);
  if (inet_pton(AF_INET, text.c_str(), bytes->data()) == 1) {
    return Family::kIPv4;
  }
  return inet_pton(AF_INET6, text.c_str(), bytes->data()) == 1 ? Family::kIPv6 : Family::kNone;
}

void CheckScope(std::string_view text, const std::optional<IPEndPoint>& found) {
  if (!found) {
    return;
  }
  std::array<uint8_t, 16> bytes;
  SKORRA_FUZZ_CHECK(ReadWithoutScope(std::string(text.substr(0, text.find('%'))), &bytes) == Family::kIPv6);
  SKORRA_FUZZ_CHECK(found->family() == Family::kIPv6 && found->bytes() == bytes);
  SKORRA_FUZZ_CHECK(found->scope_id() != 0 &&
                    text.substr(text.find('%')).find(':') == std::string_view::npos);
  SKORRA_FUZZ_CHECK(bytes[0] == 0xfe && bytes[1] >= 0x80 && bytes[1] <= 0xbf);
}

// "host:port" or "[IPv6]:port" as ToString writes it, without brackets and port.
std::string AddressPart(const std::string& text) {
  const std::string address = text.substr(0, text.rfind(':'));
  return address.starts_with('[') ? address.substr(1, address.size() - 2) : address;
}

void CheckLiteral(std::string_view text) {
  const auto found = IPEndPoint::FromLiteral(text, kDefaultPort);
  if (text.find('\0') != std::string_view::npos) {
    SKORRA_FUZZ_CHECK(!found);
    return;
  }
  if (text.find('%') != std::string_view::npos) {
    CheckScope(text, found);
  } else {
    std::array<uint8_t, 16> bytes;
    const Family family = ReadWithoutScope(std::string(text), &bytes);
    SKORRA_FUZZ_CHECK(found.has_value() == (family != Family::kNone));
    SKORRA_FUZZ_CHECK(!found || (found->family() == family && found->bytes() == bytes));
    SKORRA_FUZZ_CHECK(!found || found->scope_id() == 0);
  }
  if (!found) {
    return;
  }
  SKORRA_FUZZ_CHECK(found->port() == kDefaultPort);
  const std::string written = found->ToString();
  SKORRA_FUZZ_CHECK(written.ends_with(":123"));
  SKORRA_FUZZ_CHECK(IPEndPoint::FromLiteral(AddressPart(written), kDefaultPort) == found);
  const HostPortResult reread = ParseHostPort(written, kOtherDefaultPort);
  SKORRA_FUZZ_CHECK(reread.value && reread.value->port == kDefaultPort);
  SKORRA_FUZZ_CHECK(IPEndPoint::FromLiteral(reread.value->host, kDefaultPort) == found);
}

std::string Write(const HostPort& value) {
  const bool is_ipv6 = value.host.find(':') != std::string::npos;
  return (is_ipv6 ? '[' + value.host + ']' : value.host) + ':' + std::to_string(value.port);
}

// Whether a host other than an IPv6 address consists of allowed characters only.
bool IsName(const std::string& host) {
  return !host.empty() && host.size() <= 253 && std::all_of(host.begin(), host.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::string_view("-_.").find(c) != std::string_view::npos;
  });
}

void CheckHostPort(std::string_view text) {
  const HostPortResult result = ParseHostPort(text, kDefaultPort);
  SKORRA_FUZZ_CHECK(result.value.has_value() == result.error.empty());
  const HostPortResult other = ParseHostPort(text, kOtherDefaultPort);
  SKORRA_FUZZ_CHECK(other.error == result.error);
  // A literal without anything around it is understood, as its own host.
  const bool is_literal = IPEndPoint::FromLiteral(text, 0).has_value();
  SKORRA_FUZZ_CHECK(!is_literal || (result.value && result.value->host == text));
  if (!result.value) {
    return;
  }
  const HostPort& value = *result.value;
  SKORRA_FUZZ_CHECK(value.port != 0 && text.find(value.host) != std::string_view::npos);
  SKORRA_FUZZ_CHECK(other.value->host == value.host);
  // The default stands in for a port that is missing, and for no other.
  SKORRA_FUZZ_CHECK(other.value->port == value.port ||
                    (value.port == kDefaultPort && other.value->port == kOtherDefaultPort));
  const auto literal = IPEndPoint::FromLiteral(value.host, value.port);
  SKORRA_FUZZ_CHECK((literal && literal->family() == Family::kIPv6) || IsName(value.host));
  SKORRA_FUZZ_CHECK(literal || std::any_of(value.host.begin(), value.host.end(),
                                           [](char c) { return c != '.' && (c < '0' || c > '9'); }));
  const HostPortResult reread = ParseHostPort(Write(value), kOtherDefaultPort);
  SKORRA_FUZZ_CHECK(reread.value && reread.value->host == value.host && reread.value->port == value.port);
}

}  // namespace
}  // namespace net

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const skorra::sim::World world;  // its machine has one interface, "lo"
  const std::string text(data, data + size);
  net::CheckLiteral(text);
  net::CheckHostPort(text);
  return 0;
}
