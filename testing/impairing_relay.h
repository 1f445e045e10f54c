// SPDX-License-Identifier: Apache-2.0

// A bad network on the loopback interface: a relay that stands between clients and one server and treats
// every datagram as a simulated link does, with delay, jitter, loss, duplication and reordering for each
// direction.
//
//   const ImpairingRelay relay(server.endpoint(), {.to_server = {.delay_us = 5000},
//                                                  .to_client = {.delay_us = 5000, .loss_permille = 300}});
//   ... ask relay.endpoint() ...
//
// What happens to the n-th datagram of a direction follows from the seed alone. It works in a thread of its
// own until it is destroyed; then what is under way is dropped. The functions may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <thread>
#include <vector>

#include "netmodel/link.h"
#include "netmodel/random.h"
#include "platform/base/lock.h"
#include "platform/base/thread_annotations.h"
#include "platform/net/ip_endpoint.h"
#include "testing/loopback_udp.h"

namespace skorra {

// SKORRA_RELAY_SEED, or 1 without it: a run can be repeated and varied. Prints the seed.
uint64_t RelaySeed();

class ImpairingRelay {
 public:
  struct Options {
    netmodel::LinkOptions to_server{.delay_us = 0};
    netmodel::LinkOptions to_client{.delay_us = 0};
    uint64_t seed = RelaySeed();
  };
  struct Counts {
    uint64_t received = 0;
    uint64_t lost = 0;
    uint64_t duplicated = 0;
    uint64_t carried = 0;    // passed on, copies among them
    uint64_t overtaken = 0;  // of those, passed on after one that had come later
    int64_t latest_us = 0;   // how late the relay itself was at worst, since a thread may have to wait
  };

  ImpairingRelay(const net::IPEndPoint& server, Options options);
  ~ImpairingRelay();
  ImpairingRelay(const ImpairingRelay&) = delete;
  ImpairingRelay& operator=(const ImpairingRelay&) = delete;

  // Where clients find it.
  net::IPEndPoint endpoint() const { return front_.local(); }
  Counts to_server() const;
  Counts to_client() const;

 private:
  // Each client has a socket of its own towards the server, so that replies find their way back.
  struct Client {
    explicit Client(const net::IPEndPoint& its_address)
        : address(its_address), socket(its_address.family()) {}

    const net::IPEndPoint address;
    const LoopbackUdp socket;
  };
  struct Direction {
    netmodel::Link link;
    netmodel::Random random;
    uint64_t newest = 0;  // the largest number of a datagram that was passed on
    mutable base::Lock lock = {};
    Counts counts SKORRA_GUARDED_BY(lock) = {};
  };
  struct Parcel {
    Direction* direction;
    const Client* client;
    uint64_t number;  // among those that its direction received
    std::vector<uint8_t> bytes;
  };

  void Run();
  void TakeFromClients();
  void TakeFromServer(const Client& client);
  void Accept(Direction& direction, const Client& client, const std::vector<uint8_t>& bytes);
  void PassOnWhatIsDue();
  void WaitForWork() const;

  const net::IPEndPoint server_;
  const LoopbackUdp front_;
  const int end_fd_;  // readable when the thread is to end
  // Only the thread touches these, except for the counts.
  Direction to_server_;
  Direction to_client_;
  std::map<net::IPEndPoint, Client> clients_;
  std::multimap<int64_t, Parcel> under_way_;     // by due time; what is due together keeps its order
  mutable std::atomic<bool> is_waiting_{false};  // the thread has waited for work
  std::thread thread_;
};

}  // namespace skorra
