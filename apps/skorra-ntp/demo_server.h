// A small NTPv4 server with a known clock error, for demonstrations and tests on a machine without one.
//
//   std::string error;
//   const auto server = skorra::DemoServer::Open({.listen = *net::IPEndPoint::FromLiteral("127.0.0.1", 0),
//                                                 .clock_error_us = 2'345'678},
//                                                &error);
//   ... ask server->local() ...
//
// It reads and writes packets by itself, with nothing of the library's own codec, so that a mistake there
// cannot hide behind the same mistake here. It is no server for a network: it has no rate limit, and its
// clock is that of the machine plus the error.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/net/ip_endpoint.h"

namespace skorra {

struct DemoServerOptions {
  net::IPEndPoint listen{};    // port 0 takes a free one
  int64_t clock_error_us = 0;  // positive: the server's clock is ahead of the machine's
  // What the simulated network takes for both directions together; half of it passes before the receive
  // time stamp is taken and half after the transmit time stamp.
  int64_t delay_us = 0;
  int64_t jitter_us = 0;  // the most that one direction takes in addition, drawn separately for each
  double loss = 0;        // the share of requests that get no answer, 0 to 1
  uint64_t seed = 1;      // of the draws for jitter and loss
};

struct DemoServerCounts {
  uint64_t received = 0;  // datagrams
  uint64_t answered = 0;
  uint64_t lost = 0;     // requests left without an answer on purpose
  uint64_t ignored = 0;  // datagrams that are no request of version 3 or 4
  uint64_t failed = 0;   // answers that the system refused to send, and requests beyond the queue's limit
};

// Answers on a thread of its own from `Open` to `Stop` or the destructor. `local` and `counts` may be called
// from any thread.
class DemoServer {
 public:
  // Null, with the reason in `*error`, when the address cannot be used.
  static std::unique_ptr<DemoServer> Open(const DemoServerOptions& options, std::string* error);
  ~DemoServer();
  DemoServer(const DemoServer&) = delete;
  DemoServer& operator=(const DemoServer&) = delete;

  // Ends the answering; replies still under way are dropped. The counts are final then.
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
