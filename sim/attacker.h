// SPDX-License-Identifier: Apache-2.0

// An attacker off the path: it cannot read the requests, but it knows when they are sent and where to, and it
// can send datagrams with any source address.
#pragma once

#include <cstdint>

#include "../platform/net/ip_endpoint.h"
#include "../sim/network.h"
#include "../sim/world.h"

namespace skorra::sim {

struct AttackerOptions {
  enum class Nonce {
    kGuessed,  // a random number
    kZero,     // a reply to nobody
    kKnown,  // the right one, which only an attacker on the path knows: shows that the source is checked too
  };
  Nonce nonce = Nonce::kGuessed;
  // Source address of the replies; empty: the server's own. A reply from another address is delivered all the
  // same, as on a system that does not connect its sockets.
  net::IPEndPoint source = {};
  int replies_per_request = 10;
  int64_t lie_us = 3600000000;  // offset that the forged replies claim
  int64_t after_us = 1000;      // the first arrives this long after its request was sent
  int64_t spacing_us = 10;
};

// Attacks every request from now on. It must live as long as its network.
class Attacker {
 public:
  Attacker(World& world, Network& network, AttackerOptions options);
  Attacker(const Attacker&) = delete;
  Attacker& operator=(const Attacker&) = delete;

  size_t sent_count() const { return sent_count_; }

 private:
  void Attack(const SentDatagram& sent);

  World& world_;
  const AttackerOptions options_;
  size_t sent_count_ = 0;
};

}  // namespace skorra::sim
