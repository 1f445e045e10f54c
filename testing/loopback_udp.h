// SPDX-License-Identifier: Apache-2.0

// A plain UDP socket on the loopback interface, for the tests' own side of a conversation.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/net/ip_endpoint.h"

namespace skorra {

class LoopbackUdp {
 public:
  // Bound to a free port of 127.0.0.1 or ::1.
  explicit LoopbackUdp(net::IPEndPoint::Family family = net::IPEndPoint::Family::kIPv4);
  // Bound to any loopback address; port 0 is a free one.
  explicit LoopbackUdp(const net::IPEndPoint& address);
  ~LoopbackUdp();
  LoopbackUdp(const LoopbackUdp&) = delete;
  LoopbackUdp& operator=(const LoopbackUdp&) = delete;

  // False when the machine has no such loopback address.
  bool is_open() const { return fd_ >= 0; }
  net::IPEndPoint local() const { return local_; }
  int fd() const { return fd_; }  // for poll

  bool SendTo(const net::IPEndPoint& to, std::span<const uint8_t> bytes) const;
  // The next datagram from any sender, which `*source` then names; nothing when none comes in time.
  std::optional<std::vector<uint8_t>> Receive(int timeout_ms, net::IPEndPoint* source = nullptr) const;

 private:
  int fd_ = -1;
  net::IPEndPoint local_;
};

// A loopback end point on which nobody listens: its port was free a moment ago.
net::IPEndPoint UnusedEndPoint(net::IPEndPoint::Family family = net::IPEndPoint::Family::kIPv4);

}  // namespace skorra
