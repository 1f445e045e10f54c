// Servers of a simulated world, and the paths to them.
//
//   sim::World world;
//   sim::Network network(world);
//   network.AddServer(endpoint, {.clock_error_us = 1500, .to_server_us = 10000, .to_client_us = 10000});
//
// A server answers every request with a well-formed reply stamped by its own clock, the world's true time
// plus its error. A script may change any reply, or drop it. Addresses without a server stay silent.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "platform/net/ip_endpoint.h"
#include "sim/world.h"
#include "transport/ntp_packet.h"

namespace skorra::sim {

// One request and what becomes of it; filled in from the server's options before the script sees it.
struct Exchange {
  size_t index = 0;  // counts the requests to this server from 0
  bool is_answered = true;
  int64_t clock_error_us = 0;
  int64_t to_server_us = 0;
  int64_t to_client_us = 0;
  NtpPacket
      reply;  // its receive and transmit time stamps are set after the script has run, unless it set them
};

struct ServerOptions {
  int64_t clock_error_us = 0;   // its clock minus the world's true time
  int64_t to_server_us = 5000;  // one-way delays
  int64_t to_client_us = 5000;
  std::function<void(Exchange&)> script = nullptr;
};

// Lives as long as requests may be sent; the world must outlive it.
class Network {
 public:
  explicit Network(World& world);
  ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  // Adds a server, or replaces the one at that address.
  void AddServer(const net::IPEndPoint& address, ServerOptions options);

  // Every request sent to `address` so far, answered or not.
  const std::vector<SentDatagram>& requests(const net::IPEndPoint& address) { return requests_[address]; }

 private:
  void OnSent(const SentDatagram& sent);

  World& world_;
  std::map<net::IPEndPoint, ServerOptions> servers_;
  std::map<net::IPEndPoint, std::vector<SentDatagram>> requests_;
};

}  // namespace skorra::sim
