// An attacker beside the path: it cannot read the requests, but it knows that they are sent, and to where,
// and it can send datagrams that bear any source address.
#pragma once

#include <cstdint>

#include "platform/net/ip_endpoint.h"
#include "sim/network.h"
#include "sim/world.h"

namespace skorra::sim {

struct AttackerOptions {
  enum class Nonce {
    kGuessed,  // a random number
    kZero,     // a reply to nobody
    kKnown,    // what only somebody on the path can know: shows that the source is checked as well
  };
  Nonce nonce = Nonce::kGuessed;
  // Empty: the server's own address. Otherwise the socket would drop it, and it is delivered all the same,
  // as a system would that does not connect its sockets.
  net::IPEndPoint source = {};
  int replies_per_request = 10;
  int64_t lie_us = 3600000000;  // what the replies want to make of the time
  int64_t after_us = 1000;      // they arrive this long after the request was sent
  int64_t spacing_us = 10;
};

// Attacks every request from now on. Lives as long as its network.
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
