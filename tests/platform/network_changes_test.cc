// SPDX-License-Identifier: Apache-2.0

// What the kernel's messages about the network mean, message by message.
#include "platform/linux/network_changes.h"

#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <span>
#include <vector>

namespace core::internal {
namespace {

using Bytes = std::vector<uint8_t>;

template <class T>
Bytes BytesOf(const T& value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

// A record with its header in front, padded to 4 bytes.
template <class Header>
Bytes Record(const Header& header, const Bytes& body) {
  Bytes record((sizeof header + body.size() + 3) & ~size_t{3});
  std::memcpy(record.data(), &header, sizeof header);
  std::copy(body.begin(), body.end(), record.begin() + sizeof header);
  return record;
}

Bytes Message(uint16_t type, const Bytes& body) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(sizeof header + body.size());
  header.nlmsg_type = type;
  return Record(header, body);
}

Bytes Link(int index, unsigned flags, uint16_t type = RTM_NEWLINK) {
  ifinfomsg link{};
  link.ifi_index = index;
  link.ifi_flags = flags;
  return Message(type, BytesOf(link));
}

Bytes Attribute(uint16_t type, const Bytes& value) {
  return Record(rtattr{static_cast<unsigned short>(sizeof(rtattr) + value.size()), type}, value);
}

Bytes AddressMessage(std::initializer_list<Bytes> attributes, uint8_t flags = 0,
                     uint16_t type = RTM_NEWADDR) {
  ifaddrmsg address{};
  address.ifa_family = AF_INET;
  address.ifa_flags = flags;
  Bytes body = BytesOf(address);
  for (const Bytes& attribute : attributes) {
    body.insert(body.end(), attribute.begin(), attribute.end());
  }
  return Message(type, body);
}

// As for 192.0.2.`host`.
Bytes NewAddress(uint8_t host) { return AddressMessage({Attribute(IFA_LOCAL, {192, 0, 2, host})}); }
Bytes DelAddress(uint8_t host) {
  return AddressMessage({Attribute(IFA_LOCAL, {192, 0, 2, host})}, 0, RTM_DELADDR);
}

TEST(NetworkChangesTest, OnlyAnAddressThatWasNotThereCounts) {
  NetworkChanges changes;
  EXPECT_TRUE(changes.Observe(NewAddress(1)));
  EXPECT_FALSE(changes.Observe(NewAddress(1))) << "its lifetime was extended";
  EXPECT_TRUE(changes.Observe(NewAddress(2)));
  EXPECT_FALSE(changes.Observe(DelAddress(1)));
  EXPECT_FALSE(changes.Observe(NewAddress(2)));
  EXPECT_TRUE(changes.Observe(NewAddress(1))) << "it came back";
}

TEST(NetworkChangesTest, ATentativeAddressCountsOnceItCanBeUsed) {
  const Bytes address = Attribute(IFA_ADDRESS, Bytes(16, 0xfd));
  const auto with_flags = [&](uint32_t flags) {
    return AddressMessage({address, Attribute(IFA_FLAGS, BytesOf(flags))}, IFA_F_TENTATIVE);
  };
  NetworkChanges changes;
  EXPECT_FALSE(changes.Observe(AddressMessage({address}, IFA_F_TENTATIVE)));
  EXPECT_FALSE(changes.Observe(with_flags(IFA_F_TENTATIVE | IFA_F_MANAGETEMPADDR)));
  EXPECT_TRUE(changes.Observe(with_flags(IFA_F_MANAGETEMPADDR))) << "the wide flags are the right ones";
  EXPECT_FALSE(changes.Observe(AddressMessage({address})));
}

TEST(NetworkChangesTest, OnALinkWithTwoEndsTheMachinesOwnAddressCounts) {
  const Bytes other_end = Attribute(IFA_ADDRESS, {192, 0, 2, 9});
  NetworkChanges changes;
  EXPECT_TRUE(changes.Observe(AddressMessage({other_end, Attribute(IFA_LOCAL, {192, 0, 2, 1})})));
  EXPECT_TRUE(changes.Observe(AddressMessage({other_end, Attribute(IFA_LOCAL, {192, 0, 2, 2})})));
  EXPECT_FALSE(changes.Observe(AddressMessage({Attribute(IFA_LOCAL, {192, 0, 2, 2}), other_end})));
}

TEST(NetworkChangesTest, OnlyALinkThatBeginsToRunCounts) {
  NetworkChanges changes;
  EXPECT_FALSE(changes.Observe(Link(2, IFF_UP))) << "up, but without its cable";
  EXPECT_TRUE(changes.Observe(Link(2, IFF_UP | IFF_RUNNING)));
  EXPECT_FALSE(changes.Observe(Link(2, IFF_UP | IFF_RUNNING | IFF_PROMISC)));
  EXPECT_TRUE(changes.Observe(Link(3, IFF_UP | IFF_RUNNING)));
  EXPECT_FALSE(changes.Observe(Link(2, IFF_UP)));
  EXPECT_TRUE(changes.Observe(Link(2, IFF_UP | IFF_RUNNING)));
  EXPECT_FALSE(changes.Observe(Link(2, IFF_UP | IFF_RUNNING, RTM_DELLINK)));
  EXPECT_TRUE(changes.Observe(Link(2, IFF_UP | IFF_RUNNING))) << "another interface took its number";
}

TEST(NetworkChangesTest, EveryMessageOfADatagramIsObserved) {
  Bytes datagram;
  for (const Bytes& message :
       {NewAddress(1), Link(2, IFF_UP), Message(RTM_NEWROUTE, {1, 2, 3}), NewAddress(2)}) {
    datagram.insert(datagram.end(), message.begin(), message.end());
  }
  NetworkChanges changes;
  EXPECT_TRUE(changes.Observe(datagram));
  EXPECT_FALSE(changes.Observe(NewAddress(1)));
  EXPECT_FALSE(changes.Observe(NewAddress(2)));
}

TEST(NetworkChangesTest, WhatIsMalformedSaysNothing) {
  const Bytes address = NewAddress(1);
  const Bytes link = Link(2, IFF_RUNNING);
  NetworkChanges changes;
  for (const Bytes& message : {address, link}) {
    for (size_t size = 0; size < message.size(); ++size) {
      EXPECT_FALSE(changes.Observe(std::span(message).first(size))) << size;
    }
  }
  // A length that leads nowhere, of the message and of the attribute.
  for (const uint8_t length : Bytes{0, 1, 15}) {
    Bytes message = address;
    message[0] = length;
    EXPECT_FALSE(changes.Observe(message)) << int{length};
  }
  for (const uint8_t length : Bytes{0, 3, 9}) {
    Bytes message = address;
    message[sizeof(nlmsghdr) + sizeof(ifaddrmsg)] = length;
    EXPECT_FALSE(changes.Observe(message)) << int{length};
  }
  EXPECT_FALSE(changes.Observe(AddressMessage({}))) << "no address in it";
  EXPECT_FALSE(changes.Observe(Message(RTM_NEWADDR, {}))) << "nothing in it";
  EXPECT_FALSE(changes.Observe(Message(RTM_NEWLINK, {}))) << "nothing in it";
  EXPECT_TRUE(changes.Observe(address)) << "none of it was noted";
  EXPECT_TRUE(changes.Observe(link));
}

}  // namespace
}  // namespace core::internal
