// SPDX-License-Identifier: Apache-2.0
// The other side of this host's seams, for the project's own suite (tests/platform/seam_conformance_test.cc).
// What waits runs the host's loop meanwhile.
#include <map>

#include "./host_loop.h"
#include "./host_queue.h"
#include "testing/loopback_udp.h"
#include "testing/seam_world.h"

namespace skorra {

namespace {
constexpr int64_t kPatienceUs = 60000000;
}  // namespace

struct SeamWorld::Impl {
  std::map<net::IPEndPoint, std::unique_ptr<LoopbackUdp>> servers;
};

SeamWorld::SeamWorld() : impl_(std::make_unique<Impl>()) {}
SeamWorld::~SeamWorld() = default;

bool SeamWorld::WaitUntil(const std::function<bool()>& done) {
  return HostLoop::Get().RunUntil(done, kPatienceUs);
}

net::IPEndPoint SeamWorld::AddServer() {
  auto server = std::make_unique<LoopbackUdp>();
  const net::IPEndPoint endpoint = server->local();
  impl_->servers[endpoint] = std::move(server);
  return endpoint;
}

std::optional<std::vector<uint8_t>> SeamWorld::ReceiveAt(const net::IPEndPoint& server) {
  return impl_->servers.at(server)->Receive(kPatienceUs / 1000);
}

void SeamWorld::SendFrom(const net::IPEndPoint& server, const net::IPEndPoint& client,
                         const std::vector<uint8_t>& bytes) {
  impl_->servers.at(server)->SendTo(client, bytes);
}

net::IPEndPoint SeamWorld::RefusingEndPoint() { return UnusedEndPoint(); }

net::ResolveResult SeamWorld::ResolveUnknownName(base::TimeDelta timeout) {
  return net::ResolveHost("unknown.example.", 123, timeout);
}

std::vector<net::ResolveResult> SeamWorld::ResolveTogether(const std::vector<net::HostPort>& hosts,
                                                           base::TimeDelta timeout) {
  return net::ResolveHosts(hosts, timeout);
}

// This host has no name server that could be silent, or say how long an address holds: the tests that want
// one are left out.
net::ResolveResult SeamWorld::ResolveSilentName(base::TimeDelta) { return {}; }
net::ResolveResult SeamWorld::ResolveNameWithTtl(base::TimeDelta) { return {}; }

void SeamWorld::SetEnvironmentVariable(const std::string& name, const std::optional<std::string>& value) {
  HostConfiguration().erase(name);
  if (value) {
    HostConfiguration()[name] = *value;
  }
}

}  // namespace skorra
