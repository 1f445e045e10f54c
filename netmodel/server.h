// SPDX-License-Identifier: Apache-2.0

// A time server as a function of a request and the time: its clock, what it says about itself, and which
// requests it answers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "../netmodel/link.h"
#include "../netmodel/random.h"
#include "../platform/net/ip_endpoint.h"
#include "../transport/ntp_packet.h"

namespace skorra::netmodel {

// One request and its reply; the server's options fill it in before the script sees it.
struct Exchange {
  size_t index = 0;  // of this request among those that reached the server, from 0
  bool is_answered = true;
  int64_t clock_error_us = 0;
  // The server sets the receive and transmit time stamps after the script, unless the script set them.
  NtpPacket reply;
};

// A bucket of tokens for each client address, full at first. Each request takes a token. A request that finds
// the bucket empty gets no answer; one in `kiss_every` of these gets the kiss code RATE.
struct RateLimit {
  int64_t interval_us = 0;  // a token comes back this often; 0: no limit
  int64_t burst = 8;        // the bucket's size
  int64_t kiss_every = 4;   // 0: never
};

struct ServerOptions {
  int64_t clock_error_us = 0;  // its clock minus the true time: a fault, a lie, another era
  int64_t drift_ppb = 0;       // what the error gains since the beginning
  Distribution noise = Distribution::kConstant;
  int64_t noise_us = 0;  // its readings are off by this much on average, to either side
  uint8_t stratum = 2;
  uint8_t leap_indicator = 0;
  int64_t root_delay_us = 0;
  int64_t root_dispersion_us = 0;
  int64_t processing_us = 0;  // from receiving to transmitting
  bool is_silent = false;
  std::string kiss_code = {};  // four letters; empty: it answers with the time
  RateLimit rate_limit = {};
  LinkOptions to_server = {};
  LinkOptions to_client = {};
  // May change any reply, or drop it.
  std::function<void(Exchange&)> script = nullptr;
};

struct ServerReply {
  std::vector<uint8_t> bytes;
  int64_t after_us = 0;  // it leaves this long after the request arrived
};

class Server {
 public:
  explicit Server(ServerOptions options) : options_(std::move(options)) {}

  // Answers `request`, which arrived from `client` at the true time `true_us`, `elapsed_us` after the
  // beginning. Returns nullopt when the server stays silent.
  std::optional<ServerReply> Answer(std::span<const uint8_t> request, const net::IPEndPoint& client,
                                    int64_t true_us, int64_t elapsed_us, Random& random);

 private:
  struct Bucket {
    int64_t tokens;
    int64_t refilled_at_us;  // in elapsed time
    int64_t refused = 0;
  };
  enum class Admission { kAnswer, kKiss, kSilence };

  Admission Admit(net::IPEndPoint client, int64_t elapsed_us);

  ServerOptions options_;
  size_t request_count_ = 0;
  std::map<net::IPEndPoint, Bucket> buckets_;  // by address, the port left out
};

}  // namespace skorra::netmodel
