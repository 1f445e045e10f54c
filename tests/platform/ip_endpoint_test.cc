// SPDX-License-Identifier: Apache-2.0
#include "platform/net/ip_endpoint.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>

#include "sim/world.h"

namespace net {
namespace {

using Family = IPEndPoint::Family;

TEST(IPEndPointTest, AnEmptyEndPointHasNoAddressAndNoText) {
  const IPEndPoint empty;
  EXPECT_TRUE(empty.address_empty());
  EXPECT_EQ(empty.port(), 0);
  EXPECT_EQ(empty.ToString(), "");
}

TEST(IPEndPointTest, LiteralsAreReadAndWritten) {
  const skorra::sim::World world;
  struct Case {
    const char* literal;
    Family family;
    const char* text;  // with port 123
    const char* what;
  };
  const Case cases[] = {
      {"192.0.2.1", Family::kIPv4, "192.0.2.1:123", "IPv4"},
      {"0.0.0.0", Family::kIPv4, "0.0.0.0:123", "all zero, still an address"},
      {"255.255.255.255", Family::kIPv4, "255.255.255.255:123", "all ones"},
      {"2001:db8::1", Family::kIPv6, "[2001:db8::1]:123", "IPv6"},
      {"2001:DB8:0:0::1", Family::kIPv6, "[2001:db8::1]:123", "written in its shortest form"},
      {"::", Family::kIPv6, "[::]:123", "the unspecified address"},
      {"::ffff:192.0.2.1", Family::kIPv6, "[::ffff:192.0.2.1]:123", "an IPv4 address in IPv6 stays IPv6"},
      {"fe80::1%2", Family::kIPv6, "[fe80::1%2]:123", "with a scope"},
      {"fe80::1%4294967295", Family::kIPv6, "[fe80::1%4294967295]:123", "with the largest scope"},
      {"fe80::1%lo", Family::kIPv6, "[fe80::1%1]:123", "with the name of the loopback interface"},
  };
  for (const Case& c : cases) {
    const auto endpoint = IPEndPoint::FromLiteral(c.literal, 123);
    ASSERT_TRUE(endpoint) << c.what;
    EXPECT_EQ(endpoint->family(), c.family) << c.what;
    EXPECT_EQ(endpoint->ToString(), c.text) << c.what;
  }
}

TEST(IPEndPointTest, AnInterfaceIsNamedAsTheMachineNamesIt) {
  skorra::sim::World world;
  world.SetInterface("eth0", 7);
  const auto endpoint = IPEndPoint::FromLiteral("fe80::1%eth0", 123);
  ASSERT_TRUE(endpoint);
  EXPECT_EQ(endpoint->scope_id(), 7u);
  EXPECT_EQ(ParseHostPort("[fe80::1%eth0]:124", 123).value->host, "fe80::1%eth0");
  world.SetInterface("eth0", 0);
  EXPECT_FALSE(IPEndPoint::FromLiteral("fe80::1%eth0", 123)) << "the interface is gone";
}

TEST(IPEndPointTest, ATextThatIsNoLiteralIsNotRead) {
  const skorra::sim::World world;
  using namespace std::string_view_literals;
  const std::string_view cases[] = {"",
                                    "localhost",
                                    "192.0.2",
                                    "192.0.2.256",
                                    "192.0.2.1.",
                                    "192.0.2.01",
                                    "192.0.2.1 ",
                                    "192.0.2.1:1",
                                    "192.0.2.1\0x"sv,
                                    "0x7f.1",
                                    "1",
                                    "2001:db8::1::",
                                    "[::1]",
                                    "fe80::1%",
                                    "2001:db8::1%1",
                                    "fe80::1%4294967296",
                                    "fe80::1%no-such-interface",
                                    "fe80::1%lo:123",
                                    "2001:db8::g",
                                    "::1\0"sv,
                                    "fe80::1%0"};
  for (const std::string_view text : cases) {
    EXPECT_FALSE(IPEndPoint::FromLiteral(text, 123)) << '"' << text << '"';
  }
}

TEST(IPEndPointTest, TheBytesAreInNetworkOrderAndPadded) {
  const IPEndPoint v4 = *IPEndPoint::FromLiteral("192.0.2.1", 65535);
  EXPECT_EQ(v4, IPEndPoint::FromIPv4({192, 0, 2, 1}, 65535));
  EXPECT_EQ(v4.bytes(), (std::array<uint8_t, 16>{192, 0, 2, 1}));
  EXPECT_EQ(v4.port(), 65535);
  const IPEndPoint v6 = *IPEndPoint::FromLiteral("2001:db8::102", 0);
  EXPECT_EQ(v6.bytes(), (std::array<uint8_t, 16>{0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2}));
}

TEST(IPEndPointTest, EveryPartTellsEndPointsApart) {
  const std::set<IPEndPoint> distinct = {
      IPEndPoint(),
      *IPEndPoint::FromLiteral("192.0.2.1", 1),
      *IPEndPoint::FromLiteral("192.0.2.1", 2),
      *IPEndPoint::FromLiteral("192.0.2.2", 1),
      IPEndPoint::FromIPv6({192, 0, 2, 1}, 1),
      IPEndPoint::FromIPv6({192, 0, 2, 1}, 1, 7),
  };
  EXPECT_EQ(distinct.size(), 6u);
  for (auto a = distinct.begin(); a != distinct.end(); ++a) {
    for (auto b = distinct.begin(); b != distinct.end(); ++b) {
      EXPECT_EQ(*a == *b, a == b);
      EXPECT_EQ(*a != *b, a != b);
      EXPECT_EQ(*a < *b, std::distance(distinct.begin(), a) < std::distance(distinct.begin(), b));
    }
  }
  EXPECT_EQ(*IPEndPoint::FromLiteral("::1", 9), *IPEndPoint::FromLiteral("0:0::1", 9));
}

TEST(ParseHostPortTest, ServersAreReadAsUsersWriteThem) {
  struct Case {
    std::string text;
    const char* host;
    uint16_t port;
    const char* what;
  };
  const Case cases[] = {
      {"ntp.example.org", "ntp.example.org", 123, "a name"},
      {"ntp.example.org.", "ntp.example.org.", 123, "a name from the root"},
      {"NTP_1-x:4123", "NTP_1-x", 4123, "every kind of character"},
      {"1.example", "1.example", 123, "a name that begins like an address"},
      {"192.0.2.1", "192.0.2.1", 123, "IPv4"},
      {"192.0.2.1:1", "192.0.2.1", 1, "IPv4 with the smallest port"},
      {"2001:db8::1", "2001:db8::1", 123, "bare IPv6"},
      {"::1:123", "::1:123", 123, "bare IPv6 that looks like a port"},
      {"[2001:db8::1]", "2001:db8::1", 123, "IPv6 in brackets"},
      {"[2001:db8::1]:65535", "2001:db8::1", 65535, "IPv6 with the largest port"},
      {"[fe80::1%1]:123", "fe80::1%1", 123, "IPv6 with a scope"},
      {"host:00080", "host", 80, "leading zeros in a port change nothing"},
      {std::string(253, 'a'), nullptr, 123, "the longest name"},
  };
  for (const Case& c : cases) {
    const HostPortResult result = ParseHostPort(c.text, 123);
    ASSERT_TRUE(result.value) << c.what << ": " << result.error;
    EXPECT_EQ(result.value->host, c.host != nullptr ? c.host : c.text) << c.what;
    EXPECT_EQ(result.value->port, c.port) << c.what;
    EXPECT_EQ(result.error, "") << c.what;
  }
}

TEST(ParseHostPortTest, EverythingElseIsRefusedWithTheReason) {
  using namespace std::string_view_literals;
  struct Case {
    std::string_view text;
    const char* reason;
    const char* what;
  };
  const std::string too_long(254, 'a');
  const Case cases[] = {
      {"", "host is missing", "nothing"},
      {":123", "host is missing", "a port alone"},
      {too_long, "longer than 253", "one character too many"},
      {"two words", "host name has only", "a space"},
      {"h\xc3\xb6st", "host name has only", "a letter outside ASCII"},
      {"host\0evil"sv, "host name has only", "a zero byte"},
      {"host\nevil", "host name has only", "a line break"},
      {"user@host", "host name has only", "another character"},
      {"192.0.2", "IPv4 address has four numbers", "an address that is cut"},
      {"192.0.2.300", "IPv4 address has four numbers", "a number too large"},
      {"192.0.2.1.", "IPv4 address has four numbers", "digits and dots only"},
      {"2130706433", "IPv4 address has four numbers", "an address as one number"},
      {"host:", "port is not a number", "no port after the colon"},
      {"host:0", "port is not a number", "port 0"},
      {"host:65536", "port is not a number", "a port too large"},
      {"host:+5", "port is not a number", "a sign"},
      {"host:-5", "port is not a number", "a minus"},
      {"host: 5", "port is not a number", "a space before the port"},
      {"host:5x", "port is not a number", "letters after the port"},
      {"[::1]:0", "port is not a number", "port 0 after brackets"},
      {"host:1:2", "neither an IPv6 address nor host:port", "two colons"},
      {"2001:db8::g", "neither an IPv6 address nor host:port", "nearly IPv6"},
      {"fe80::1%lo:123", "neither an IPv6 address nor host:port", "a port behind a scope, without brackets"},
      {"[::1", "closing ']'", "no closing bracket"},
      {"[]", "brackets must hold an IPv6", "empty brackets"},
      {"[192.0.2.1]:123", "brackets must hold an IPv6", "IPv4 in brackets"},
      {"[host]:123", "brackets must hold an IPv6", "a name in brackets"},
      {"[::1]123", "may follow the ']'", "no colon after the brackets"},
      {"::1]", "neither an IPv6 address nor host:port", "no opening bracket"},
  };
  for (const Case& c : cases) {
    const HostPortResult result = ParseHostPort(c.text, 123);
    EXPECT_FALSE(result.value) << c.what;
    EXPECT_NE(result.error.find(c.reason), std::string::npos) << c.what << ": " << result.error;
  }
}

}  // namespace
}  // namespace net
