// SPDX-License-Identifier: Apache-2.0
#include <stdlib.h>

#include <map>

#include "platform/base/time.h"
#include "platform/linux/name_lookup.h"
#include "testing/fake_name_server.h"
#include "testing/loopback_udp.h"
#include "testing/seam_world.h"
#include "testing/wait_until.h"
#include "transport/ntp_packet.h"

namespace skorra {

struct SeamWorld::Impl {
  std::map<net::IPEndPoint, std::unique_ptr<LoopbackUdp>> servers;
};

SeamWorld::SeamWorld() : impl_(std::make_unique<Impl>()) {}
SeamWorld::~SeamWorld() = default;

bool SeamWorld::WaitUntil(const std::function<bool()>& done) { return skorra::WaitUntil(done); }

net::IPEndPoint SeamWorld::AddServer() {
  auto server = std::make_unique<LoopbackUdp>();
  const net::IPEndPoint endpoint = server->local();
  impl_->servers[endpoint] = std::move(server);
  return endpoint;
}

std::optional<std::vector<uint8_t>> SeamWorld::ReceiveAt(const net::IPEndPoint& server) {
  return impl_->servers.at(server)->Receive(kPatienceMs);
}

void SeamWorld::SendFrom(const net::IPEndPoint& server, const net::IPEndPoint& client,
                         const std::vector<uint8_t>& bytes) {
  impl_->servers.at(server)->SendTo(client, bytes);
}

net::IPEndPoint SeamWorld::RefusingEndPoint() { return UnusedEndPoint(); }

net::ResolveResult SeamWorld::ResolveUnknownName(base::TimeDelta timeout) {
  const FakeNameServer server({{false, 3, {}}, {false, 3, {}}, 0});
  return net::internal::LookUpHost("unknown.example.", kNtpPort, timeout, server.address());
}

net::ResolveResult SeamWorld::ResolveSilentName(base::TimeDelta timeout) {
  const FakeNameServer server({{true, 0, {}}, {true, 0, {}}, 0});
  return net::internal::LookUpHost("silent.example.", kNtpPort, timeout, server.address());
}

std::vector<net::ResolveResult> SeamWorld::ResolveTogether(const std::vector<net::HostPort>& hosts,
                                                           base::TimeDelta timeout) {
  const FakeNameServer server(
      {.ipv4 = {.addresses = {{192, 0, 2, 1}}}, .ipv6 = {}, .silent_label = "silent"});
  return net::internal::LookUpHosts(hosts, timeout, server.address());
}

net::ResolveResult SeamWorld::ResolveNameWithTtl(base::TimeDelta ttl) {
  const auto ttl_s = static_cast<uint32_t>(ttl.InMicroseconds() / base::kUsPerSecond);
  const FakeNameServer server({{.addresses = {{192, 0, 2, 1}}, .ttl_s = ttl_s}, {}, 0});
  return net::internal::LookUpHost("brief.example.", kNtpPort, base::TimeDelta::FromMilliseconds(kPatienceMs),
                                   server.address());
}

void SeamWorld::SetEnvironmentVariable(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
}

}  // namespace skorra
