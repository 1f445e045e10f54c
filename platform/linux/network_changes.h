// SPDX-License-Identifier: Apache-2.0

// What the kernel's messages about interfaces and addresses (rtnetlink) mean: whether the network came up.
//
// The kernel repeats what is known already: an address whose lifetime was extended, a link whose statistics
// changed. Only what was not there before counts.
#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <string>

namespace core {
inline namespace skorra_ntp {
namespace internal {

class NetworkChanges {
 public:
  // Notes the running links and the IPv4 addresses that the machine has now. The IPv6 addresses are left out:
  // one that is still being checked for a duplicate cannot be told from one in use, so the first message
  // about each counts.
  void NoteSystem();

  // Notes what one datagram of the kernel says. True when an interface got an address or its link came up.
  // Never fails; what is malformed or unknown says nothing.
  bool Observe(std::span<const uint8_t> datagram);

 private:
  bool ObserveLink(std::span<const uint8_t> body, bool is_gone);
  bool ObserveAddress(std::span<const uint8_t> body, bool is_gone);

  std::set<int> running_links_;      // by interface index
  std::set<std::string> addresses_;  // their bytes
};

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace core
