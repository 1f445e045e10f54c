// SPDX-License-Identifier: Apache-2.0
#include <deque>
#include <map>
#include <utility>

#include "sim/world.h"
#include "testing/seam_world.h"
#include "transport/ntp_packet.h"

namespace skorra {

namespace {

constexpr base::TimeDelta kPatience = base::TimeDelta::FromSeconds(60);
constexpr base::TimeDelta kOneWayDelay = base::TimeDelta::FromMilliseconds(1);

}  // namespace

struct SeamWorld::Impl {
  Impl() {
    world.SetNetwork([this](const sim::SentDatagram& sent) {
      world.Schedule(kOneWayDelay, [this, sent] { Arrive(sent); });
    });
  }

  void Arrive(const sim::SentDatagram& sent) {
    if (const auto server = arrived.find(sent.server); server != arrived.end()) {
      server->second.push_back(sent.bytes);
    } else {
      world.ReportError(sent.client, net::SocketError::kRefused);
    }
  }

  net::IPEndPoint NextEndPoint() { return net::IPEndPoint::FromIPv4({203, 0, 113, ++last_host}, kNtpPort); }

  sim::World world;
  std::map<net::IPEndPoint, std::deque<std::vector<uint8_t>>> arrived;  // by server
  uint8_t last_host = 0;
};

SeamWorld::SeamWorld() : impl_(std::make_unique<Impl>()) {}
SeamWorld::~SeamWorld() = default;

bool SeamWorld::WaitUntil(const std::function<bool()>& done) {
  return impl_->world.RunUntil(done, kPatience);
}

net::IPEndPoint SeamWorld::AddServer() {
  const net::IPEndPoint endpoint = impl_->NextEndPoint();
  impl_->arrived[endpoint];
  return endpoint;
}

std::optional<std::vector<uint8_t>> SeamWorld::ReceiveAt(const net::IPEndPoint& server) {
  auto& queue = impl_->arrived.at(server);
  if (!WaitUntil([&] { return !queue.empty(); })) {
    return std::nullopt;
  }
  std::vector<uint8_t> bytes = std::move(queue.front());
  queue.pop_front();
  return bytes;
}

void SeamWorld::SendFrom(const net::IPEndPoint& server, const net::IPEndPoint& client,
                         const std::vector<uint8_t>& bytes) {
  impl_->world.Deliver(server, client, bytes, kOneWayDelay);
}

net::IPEndPoint SeamWorld::RefusingEndPoint() { return impl_->NextEndPoint(); }

net::ResolveResult SeamWorld::ResolveUnknownName(base::TimeDelta timeout) {
  return net::ResolveHost("unknown.example.", kNtpPort, timeout);
}

net::ResolveResult SeamWorld::ResolveSilentName(base::TimeDelta timeout) {
  impl_->world.SetHost("silent.example.", {{}, (timeout + base::TimeDelta::FromSeconds(1)).InMicroseconds()});
  return net::ResolveHost("silent.example.", kNtpPort, timeout);
}

std::vector<net::ResolveResult> SeamWorld::ResolveTogether(const std::vector<net::HostPort>& hosts,
                                                           base::TimeDelta timeout) {
  for (const auto& [name, port] : hosts) {
    if (name == "localhost") {
      continue;
    }
    const bool is_silent = name.starts_with("silent.");
    impl_->world.SetHost(name, {.addresses = {net::IPEndPoint::FromIPv4({192, 0, 2, 1}, 0)},
                                .delay_us = is_silent ? (timeout + timeout).InMicroseconds() : 0});
  }
  return net::ResolveHosts(hosts, timeout);
}

net::ResolveResult SeamWorld::ResolveNameWithTtl(base::TimeDelta ttl) {
  impl_->world.SetHost("brief.example.", {.addresses = {impl_->NextEndPoint()}, .ttl = ttl});
  return net::ResolveHost("brief.example.", kNtpPort, kPatience);
}

void SeamWorld::SetEnvironmentVariable(const std::string& name, const std::optional<std::string>& value) {
  impl_->world.SetEnvironmentVariable(name, value);
}

}  // namespace skorra
