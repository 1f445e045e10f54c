// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/network_changes.h"

#include <ifaddrs.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace core {
inline namespace skorra_ntp {
namespace internal {

namespace {

using Bytes = std::span<const uint8_t>;

// Copies a T from the beginning of `bytes`. False when they are too short.
template <class T>
bool Read(Bytes bytes, T* value) {
  if (bytes.size() < sizeof *value) {
    return false;
  }
  std::memcpy(value, bytes.data(), sizeof *value);
  return true;
}

// Takes a record from the front of `*rest`: a header that holds the record's length, and a body, padded to a
// multiple of 4 bytes. False when no whole one is left.
template <class Header, class Length>
bool Take(Bytes* rest, Header* header, Length Header::*length, Bytes* body) {
  if (!Read(*rest, header) || header->*length < sizeof(Header) || header->*length > rest->size()) {
    return false;
  }
  const size_t size = header->*length;
  *body = rest->first(size).subspan(sizeof(Header));
  *rest = rest->subspan(std::min(rest->size(), (size + 3) & ~size_t{3}));
  return true;
}

std::string ToString(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace

void NetworkChanges::NoteSystem() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return;
  }
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) {
      continue;
    }
    if (entry->ifa_addr->sa_family == AF_PACKET && (entry->ifa_flags & IFF_RUNNING) != 0) {
      sockaddr_ll link;
      std::memcpy(&link, entry->ifa_addr, sizeof link);
      running_links_.insert(link.sll_ifindex);
    } else if (entry->ifa_addr->sa_family == AF_INET) {
      sockaddr_in address;
      std::memcpy(&address, entry->ifa_addr, sizeof address);
      addresses_.emplace(reinterpret_cast<const char*>(&address.sin_addr), sizeof address.sin_addr);
    }
  }
  freeifaddrs(list);
}

bool NetworkChanges::Observe(Bytes datagram) {
  bool is_up = false;
  nlmsghdr header;
  for (Bytes body; Take(&datagram, &header, &nlmsghdr::nlmsg_len, &body);) {
    switch (header.nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK:
        is_up = ObserveLink(body, header.nlmsg_type == RTM_DELLINK) || is_up;
        break;
      case RTM_NEWADDR:
      case RTM_DELADDR:
        is_up = ObserveAddress(body, header.nlmsg_type == RTM_DELADDR) || is_up;
        break;
      default:
        break;
    }
  }
  return is_up;
}

bool NetworkChanges::ObserveLink(Bytes body, bool is_gone) {
  ifinfomsg link;
  if (!Read(body, &link)) {
    return false;
  }
  if (is_gone || (link.ifi_flags & IFF_RUNNING) == 0) {
    running_links_.erase(link.ifi_index);
    return false;
  }
  return running_links_.insert(link.ifi_index).second;
}

bool NetworkChanges::ObserveAddress(Bytes body, bool is_gone) {
  ifaddrmsg message;
  if (!Read(body, &message)) {
    return false;
  }
  uint32_t flags = message.ifa_flags;
  std::string local;  // the machine's own address where the link has two ends
  std::string address;
  Bytes rest = body.subspan(sizeof message);
  rtattr attribute;
  for (Bytes value; Take(&rest, &attribute, &rtattr::rta_len, &value);) {
    if (attribute.rta_type == IFA_LOCAL) {
      local = ToString(value);
    } else if (attribute.rta_type == IFA_ADDRESS) {
      address = ToString(value);
    } else if (attribute.rta_type == IFA_FLAGS) {
      Read(value, &flags);
    }
  }
  const std::string& own = local.empty() ? address : local;
  // A tentative address cannot be used yet; another message comes when it can.
  if (own.empty() || is_gone || (flags & IFA_F_TENTATIVE) != 0) {
    addresses_.erase(own);
    return false;
  }
  return addresses_.insert(own).second;
}

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace core
