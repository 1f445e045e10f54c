// SPDX-License-Identifier: Apache-2.0
#include "testing/loopback_ntp_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

#include "platform/base/clock.h"
#include "platform/base/time.h"

namespace skorra {

LoopbackNtpServer::LoopbackNtpServer(netmodel::ServerOptions options, const net::IPEndPoint& listen)
    : socket_(listen),
      end_fd_(eventfd(0, EFD_CLOEXEC)),
      server_(std::move(options)),
      thread_([this] { Run(); }) {}

LoopbackNtpServer::~LoopbackNtpServer() {
  eventfd_write(end_fd_, 1);
  thread_.join();
  close(end_fd_);
}

void LoopbackNtpServer::Run() {
  const int64_t begin_ticks_us = base::GetSteadyTimeTicks();
  netmodel::Random random(1);
  pollfd sources[] = {{end_fd_, POLLIN, 0}, {socket_.fd(), POLLIN, 0}};
  while (poll(sources, 2, -1) >= 0 && sources[0].revents == 0) {
    net::IPEndPoint client;
    const auto request = socket_.Receive(0, &client);
    if (!request) {
      continue;
    }
    ++requests_;
    const auto reply =
        server_.Answer(*request, client, base::Time::Now().ToDeltaSinceWindowsEpoch().InMicroseconds(),
                       base::GetSteadyTimeTicks() - begin_ticks_us, random);
    if (reply) {
      kisses_ += reply->bytes[1] == 0 ? 1 : 0;  // the stratum
      socket_.SendTo(client, reply->bytes);
    }
  }
}

}  // namespace skorra
