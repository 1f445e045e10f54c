// SPDX-License-Identifier: Apache-2.0

// A server of the simulation on a real socket: it answers on the loopback interface by the machine's clock,
// with rate limits and kiss codes, and counts what it sees.
//
//   const LoopbackNtpServer server({.rate_limit = {.interval_us = 8000000, .burst = 8, .kiss_every = 1}});
//   ... ask server.endpoint() ...
//
// It answers at once, in a thread of its own, until it is destroyed. Any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "netmodel/server.h"
#include "platform/net/ip_endpoint.h"
#include "testing/addresses.h"
#include "testing/loopback_udp.h"

namespace skorra {

class LoopbackNtpServer {
 public:
  // Port 0 takes a free one.
  explicit LoopbackNtpServer(netmodel::ServerOptions options,
                             const net::IPEndPoint& listen = AnyLoopbackPort());
  ~LoopbackNtpServer();
  LoopbackNtpServer(const LoopbackNtpServer&) = delete;
  LoopbackNtpServer& operator=(const LoopbackNtpServer&) = delete;

  // False when the address is taken, or when the machine does not have it.
  bool is_open() const { return socket_.is_open(); }
  net::IPEndPoint endpoint() const { return socket_.local(); }
  uint64_t requests() const { return requests_; }  // datagrams that came
  uint64_t kisses() const { return kisses_; }      // answered with a kiss code

 private:
  void Run();

  const LoopbackUdp socket_;
  const int end_fd_;  // readable when the thread is to end
  netmodel::Server server_;
  std::atomic<uint64_t> requests_{0};
  std::atomic<uint64_t> kisses_{0};
  std::thread thread_;
};

}  // namespace skorra
