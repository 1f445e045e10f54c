// SPDX-License-Identifier: Apache-2.0

// One direction of a path between the machine and a server: when each datagram arrives, if it does. Two links
// with different options make an asymmetric path.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "../netmodel/random.h"
#include "../platform/base/time.h"

namespace skorra::netmodel {

// Probabilities are in 1/1000. Options left at their defaults draw no random number.
struct LinkOptions {
  int64_t delay_us = 5000;  // every datagram takes this long,
  Distribution jitter = Distribution::kConstant;
  int64_t jitter_us = 0;  // and this much more on average

  int loss_permille = 0;
  int duplicate_permille = 0;  // the copy takes its own delay
  int reorder_permille = 0;    // delayed by `reorder_us`, so that later ones overtake it
  int64_t reorder_us = 30000;
  int corrupt_permille = 0;  // one to three bits flip; there is no checksum

  // A queue that serves one datagram after another, `service_us` each; 0: no queue. Other traffic takes
  // `load_permille` of its capacity on average, varying from none to twice that; above 1000 the queue grows.
  // A datagram that would wait longer than `queue_limit_us` is dropped.
  int64_t service_us = 0;
  int load_permille = 0;
  int64_t queue_limit_us = base::kUsPerSecond;

  // Nothing enters the link during one of these. Microseconds since the link's beginning.
  struct Window {
    int64_t from_us;
    int64_t to_us;
  };
  std::vector<Window> partitions = {};
};

struct Arrival {
  int64_t at_ticks_us;
  std::vector<uint8_t> bytes;
};

// What became of a datagram, for the log.
enum class LinkFate { kCarried, kLost, kPartitioned, kQueueFull };
const char* LinkFateName(LinkFate fate);

class Link {
 public:
  // `begin_ticks_us` is when partitions begin to count.
  Link(LinkOptions options, int64_t begin_ticks_us)
      : options_(std::move(options)), begin_ticks_us_(begin_ticks_us), queue_ticks_us_(begin_ticks_us) {}

  // Sends one datagram at `now_ticks_us`, which must not go back from call to call. Returns no arrival, one
  // or two.
  std::vector<Arrival> Transmit(const std::vector<uint8_t>& bytes, int64_t now_ticks_us, Random& random,
                                LinkFate* fate);

 private:
  bool IsPartitioned(int64_t now_ticks_us) const;
  // How long the datagram waits and is served; nullopt when it is dropped.
  std::optional<int64_t> PassQueue(int64_t now_ticks_us, Random& random);

  LinkOptions options_;
  int64_t begin_ticks_us_;
  int64_t queue_ticks_us_;  // when `backlog_us_` was computed
  int64_t backlog_us_ = 0;  // work in the queue
};

}  // namespace skorra::netmodel
