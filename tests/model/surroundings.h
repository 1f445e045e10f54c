// SPDX-License-Identifier: Apache-2.0

// What surrounds the manager in a walk and is no part of it: names, servers and configuration. The world that
// the manager runs in and the model read the same surroundings, so that both meet the same fortune.
//
// Whatever happens to a request depends on the walk's seed, the server and the number of the request alone:
// leaving out an event of a walk does not change the fate of everything that follows.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/net/ip_endpoint.h"
#include "sim/world.h"

namespace skorra::model {

inline constexpr int kAddressCount = 11;
inline constexpr int kHostCount = 7;  // the names whose addresses can change
inline constexpr int kNameCount = 12;

enum class Behaviour {
  kGood,
  kSilent,
  kLossy,      // answers about a third
  kScattered,  // offsets that do not agree
  kJittery,    // round-trip times that do not agree
  kSlow,
  kHostile,   // kiss codes, spoofed and doubled replies among the genuine ones
  kClosed,    // nobody listens on the port, and the network says so
  kRefusing,  // some requests too fast for it, and a few denied
  kCount,
};

struct Server {
  Behaviour behaviour = Behaviour::kGood;
  int64_t clock_error_us = 0;
};

enum class ArrivalKind {
  kGenuine,
  kKiss,            // INIT, no refusal: dropped, and the request stays open
  kOtherSource,     // from another address: the system drops it
  kSpoofedAsOther,  // the same, when the system lets it through
  kRate,            // refusals, each of which answers the request
  kDeny,
  kPortClosed,  // no datagram: an error of the network
};

struct Arrival {
  ArrivalKind kind = ArrivalKind::kGenuine;
  int64_t delay_us = 0;
};

// What becomes of one request.
struct Fate {
  int64_t server_receive_us = 0;   // by the server's clock, from the true time of sending
  int64_t server_transmit_us = 0;  // the same
  std::array<Arrival, 2> arrivals;
  size_t arrival_count = 0;
};

class Surroundings {
 public:
  struct Host {
    std::string name;
    std::vector<int> addresses;
    int64_t delay_us = 0;
    int64_t ttl_us = 0;
  };
  struct Answer {
    std::vector<net::IPEndPoint> addresses;
    int64_t delay_us = 0;
    std::optional<int64_t> ttl_us =
        std::nullopt;  // nothing: the name is an address, whose list never expires
  };

  Surroundings(uint64_t seed, int64_t offset_from_steady_us);

  static const net::IPEndPoint& Address(int index);
  static int IndexOf(const net::IPEndPoint& address);  // -1 when it is none of them
  static const std::string& Name(int index);

  Fate FateOf(int address, uint64_t request) const;
  // What one of the names resolves to; the lookup takes `delay_us`.
  Answer LookUp(const std::string& name) const;

  void SetHost(int host, uint64_t choice, int64_t delay_us, int64_t ttl_us);
  const Host& host(int index) const { return hosts_[static_cast<size_t>(index)]; }
  sim::HostEntry EntryOf(int host) const;

  std::array<Server, kAddressCount> servers;
  std::optional<uint64_t> sync_interval_s;
  std::string default_domain;    // empty: unset
  const int64_t true_offset_us;  // true time minus steady ticks
  int64_t wall_offset_us;        // wall clock minus steady ticks
  bool is_queue_available = true;

 private:
  uint64_t seed_;
  std::array<Host, kHostCount> hosts_;
};

// 64 bits that depend on all of `state` (splitmix64).
uint64_t Mix(uint64_t state);

}  // namespace skorra::model
