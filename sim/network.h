// SPDX-License-Identifier: Apache-2.0

// Servers of a simulated world, and the paths to them.
//
//   sim::World world;
//   sim::Network network(world);
//   network.AddServer(endpoint, {.clock_error_us = 1500,
//                                .to_server = {.delay_us = 10000},
//                                .to_client = {.delay_us = 10000, .loss_permille = 50}});
//
// A request travels over the link to the server; the server answers it by its own clock when it arrives; the
// reply travels back. Addresses without a server stay silent.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "../netmodel/link.h"
#include "../netmodel/server.h"
#include "../platform/net/ip_endpoint.h"
#include "../sim/world.h"

namespace skorra::sim {

// Must live while its world runs, and must be destroyed before it.
class Network {
 public:
  explicit Network(World& world);
  ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  // Adds a server, or replaces the one at that address. Replies of the old one that are under way still
  // arrive.
  void AddServer(const net::IPEndPoint& address, netmodel::ServerOptions options);
  void RemoveServer(const net::IPEndPoint& address) { sites_.erase(address); }

  // Calls `listener` with every request when it is sent, before anything happens to it.
  void AddListener(std::function<void(const SentDatagram&)> listener) {
    listeners_.push_back(std::move(listener));
  }

  // Every request sent to `address` so far, answered or not.
  const std::vector<SentDatagram>& requests(const net::IPEndPoint& address) { return requests_[address]; }

 private:
  struct Site {
    netmodel::Server server;
    netmodel::Link to_server;
    netmodel::Link to_client;
  };

  void OnSent(const SentDatagram& sent);
  void OnArrivedAtServer(const SentDatagram& sent, const netmodel::Arrival& arrival);

  World& world_;
  std::map<net::IPEndPoint, Site> sites_;
  std::map<net::IPEndPoint, std::vector<SentDatagram>> requests_;
  std::vector<std::function<void(const SentDatagram&)>> listeners_;
};

}  // namespace skorra::sim
