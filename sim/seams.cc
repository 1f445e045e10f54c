// The seams of platform/, each spoken to the current simulated world.
#include "platform/base/clock.h"
#include "platform/base/environment.h"
#include "platform/base/random.h"
#include "platform/base/time.h"
#include "platform/net/interface_index.h"
#include "sim/world.h"

namespace base {
inline namespace skorra_ntp {

Time Time::Now() {
  skorra::sim::World& world = skorra::sim::World::Current();
  const int64_t wall_us = world.wall_us();
  world.NoteSeamCall(skorra::sim::SeamCall::kWallClock);
  return Time::FromDeltaSinceWindowsEpoch(TimeDelta::FromMicroseconds(wall_us));
}

int64_t GetSteadyTimeTicks() {
  skorra::sim::World& world = skorra::sim::World::Current();
  const int64_t ticks_us = world.steady_ticks_us();
  world.NoteSeamCall(skorra::sim::SeamCall::kSteadyClock);
  return ticks_us;
}

int64_t GetSystemTimeOffsetFromSteady() {
  skorra::sim::World& world = skorra::sim::World::Current();
  const int64_t offset_us = world.wall_us() - world.steady_ticks_us();
  world.NoteSeamCall(skorra::sim::SeamCall::kSystemOffset);
  return offset_us;
}

// The configuration may be read, and an address parsed, before there is a world.
Optional<std::string> GetEnvironmentVariable(const char* name) {
  const skorra::sim::World* const world = skorra::sim::World::Find();
  return world == nullptr ? Optional<std::string>() : world->FindEnvironmentVariable(name);
}

uint64_t RandUint64() { return skorra::sim::World::Current().NextRandom(); }

}  // namespace skorra_ntp
}  // namespace base

namespace core {
inline namespace skorra_ntp {

std::shared_ptr<TaskQueue> ThreadManager::GetTaskQueue(BusinessID business, int64_t instance,
                                                       base::Optional<ThreadOption> /*option*/) {
  skorra::sim::World& world = skorra::sim::World::Current();
  world.NoteSeamCall(skorra::sim::SeamCall::kTaskQueue);
  return world.GetTaskQueue(business, instance);
}

}  // namespace skorra_ntp
}  // namespace core

namespace net {
inline namespace skorra_ntp {

struct DatagramSocket::Impl {
  skorra::sim::World::Socket socket;
};

DatagramSocket::DatagramSocket(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DatagramSocket::~DatagramSocket() {
  skorra::sim::World& world = skorra::sim::World::Current();
  world.RemoveSocket(&impl_->socket);
  world.NoteSeamCall(skorra::sim::SeamCall::kSocketClosed);
}

std::unique_ptr<DatagramSocket> DatagramSocket::Connect(const IPEndPoint& remote, Callbacks callbacks,
                                                        SocketError* error) {
  auto impl = std::make_unique<Impl>(Impl{{remote, IPEndPoint(), std::move(callbacks), 0}});
  *error = skorra::sim::World::Current().AddSocket(&impl->socket);
  if (*error != SocketError::kNone) {
    return nullptr;
  }
  return std::unique_ptr<DatagramSocket>(new DatagramSocket(std::move(impl)));
}

SocketError DatagramSocket::Send(std::span<const uint8_t> bytes, uint32_t* send_id) {
  return skorra::sim::World::Current().Send(impl_->socket, bytes, send_id);
}

IPEndPoint DatagramSocket::local() const { return impl_->socket.local; }

uint32_t GetInterfaceIndex(const std::string& name) {
  const skorra::sim::World* const world = skorra::sim::World::Find();
  return world == nullptr ? 0 : world->FindInterface(name);
}

ResolveResult ResolveHost(const std::string& host, uint16_t port, base::TimeDelta timeout) {
  return skorra::sim::World::Current().Resolve(host, port, timeout);
}

void ResolveHostInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                             std::function<void(ResolveResult)> done) {
  skorra::sim::World::Current().ResolveInBackground(host, port, timeout, std::move(done));
}

}  // namespace skorra_ntp
}  // namespace net
