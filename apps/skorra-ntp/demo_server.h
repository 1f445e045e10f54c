// SPDX-License-Identifier: Apache-2.0

// A small NTPv4 server with a known clock error, for demonstrations and tests on a machine without one.
//
//   std::string error;
//   const auto server = skorra::DemoServer::Open({.listen = *net::IPEndPoint::FromLiteral("127.0.0.1", 0),
//                                                 .clock_error_us = 2'345'678},
//                                                &error);
//   ... ask server->local() ...
//
// It reads and writes packets with code of its own, not with the library's codec, so that a mistake in one
// shows in the other. It is not meant for a network: it has no rate limit, and its clock is the machine's
// plus the error.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/net/ip_endpoint.h"

namespace skorra {

struct DemoServerOptions {
  net::IPEndPoint listen{};    // port 0 takes a free one
  int64_t clock_error_us = 0;  // positive: the server's clock is ahead of the machine's
  // The simulated network takes this long for both directions together: half of it passes before the
  // receive time stamp is taken and half after the transmit time stamp.
  int64_t delay_us = 0;
  int64_t jitter_us = 0;  // each direction takes 0 to this much longer, at random
  double loss = 0;        // the share of requests that get no answer, 0 to 1
  uint64_t seed = 1;      // where the random numbers for jitter and loss come from
};

struct DemoServerCounts {
  uint64_t received = 0;  // datagrams
  uint64_t answered = 0;
  uint64_t lost = 0;     // requests left without an answer on purpose
  uint64_t ignored = 0;  // datagrams that are not a request of version 3 or 4
  // Answers that could not be sent, requests beyond the queue's limit, and errors while receiving.
  uint64_t failed = 0;
};

// Answers on a thread of its own from `Open` to `Stop` or the destructor. `local` and `counts` may be called
// from any thread.
class DemoServer {
 public:
  // Returns null, with the reason in `*error`, when the address cannot be used.
  static std::unique_ptr<DemoServer> Open(const DemoServerOptions& options, std::string* error);
  ~DemoServer();
  DemoServer(const DemoServer&) = delete;
  DemoServer& operator=(const DemoServer&) = delete;

  // Stops answering and drops the replies still under way. The counts are final after that.
  void Stop();

  // Where it answers, with the port that it got.
  net::IPEndPoint local() const;
  DemoServerCounts counts() const;

 private:
  class Impl;
  explicit DemoServer(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace skorra
