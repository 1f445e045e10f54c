// SPDX-License-Identifier: Apache-2.0

// The seams of platform/, each spoken to the current simulated world.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/callback.h"
#include "platform/base/clock.h"
#include "platform/base/environment.h"
#include "platform/base/location.h"
#include "platform/base/random.h"
#include "platform/base/time.h"
#include "platform/core/machine_watch.h"
#include "platform/core/task_queue.h"
#include "platform/core/thread_manager.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/host_resolver.h"
#include "platform/net/interface_index.h"
#include "sim/world.h"
#include "sim/world_state.h"

namespace skorra::sim {
namespace {

class VirtualTaskQueue : public core::TaskQueue {
 public:
  explicit VirtualTaskQueue(WorldState* state) : state_(*state) {}

  void PostTask(const base::Location& from, base::OnceCallback<void()>&& task) override {
    PostDelayedTask(from, std::move(task), base::TimeDelta());
  }

  void PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                       base::TimeDelta delay) override {
    const base::TimeDelta wait = std::max(delay, base::TimeDelta());
    state_.posted.push_back({from, state_.steady_ticks_us, wait.InMicroseconds()});
    // A std::function must be copyable, a closure is not: it waits in shared storage.
    const auto waiting = std::make_shared<base::OnceCallback<void()>>(std::move(task));
    state_.AddEvent(state_.After(wait), [this, waiting] {
      if (!waiting->IsCancelled()) {
        state_.RunOn(this, [&] { std::move(*waiting).Run(); });
      }
    });
  }

  bool IsCurrent() const override { return state_.running_queue == this; }

 private:
  WorldState& state_;
};

net::SocketError ErrorFor(const std::map<net::IPEndPoint, net::SocketError>& errors,
                          const net::IPEndPoint& server) {
  const auto found = errors.find(server);
  return found == errors.end() ? net::SocketError::kNone : found->second;
}

HostEntry FindHost(const std::string& host) {
  const auto& hosts = WorldState::Current().hosts;
  if (const auto found = hosts.find(host); found != hosts.end()) {
    return found->second;
  }
  if (host == "localhost") {
    return {.addresses = {*net::IPEndPoint::FromLiteral("127.0.0.1", 0)}};
  }
  return {};
}

net::ResolveResult AnswerLookup(const HostEntry& entry, const std::string& host, uint16_t port,
                                base::TimeDelta timeout) {
  World& world = World::Current();
  if (entry.delay_us > timeout.InMicroseconds()) {
    world.Log("looks up %s: no answer in time", host.c_str());
    return {.error = net::ResolveError::kTimedOut, .detail = "no name server answered for " + host};
  }
  world.Log("looks up %s: %zu addresses", host.c_str(), entry.addresses.size());
  if (entry.error != net::ResolveError::kNone) {
    return {.error = entry.error, .detail = "the lookup of " + host + " failed"};
  }
  net::ResolveResult result{.ttl = entry.ttl};
  for (const net::IPEndPoint& address : entry.addresses) {
    const auto& bytes = address.bytes();
    result.addresses.push_back(
        address.family() == net::IPEndPoint::Family::kIPv6
            ? net::IPEndPoint::FromIPv6(bytes, port, address.scope_id())
            : net::IPEndPoint::FromIPv4({bytes[0], bytes[1], bytes[2], bytes[3]}, port));
  }
  if (result.addresses.empty()) {
    result.error = net::ResolveError::kNotFound;
    result.detail = "the name " + host + " does not exist";
  }
  return result;
}

}  // namespace

const std::shared_ptr<core::TaskQueue>& WorldState::Queue(core::BusinessID business, int64_t instance) {
  auto& queue = queues[{business, instance}];
  if (queue == nullptr) {
    queue = std::make_shared<VirtualTaskQueue>(this);
  }
  return queue;
}

}  // namespace skorra::sim

namespace sim = skorra::sim;

namespace base {
inline namespace skorra_ntp {

Time Time::Now() {
  const int64_t wall_us = sim::World::Current().wall_us();
  sim::WorldState::Current().NoteSeamCall(sim::SeamCall::kWallClock);
  return Time::FromDeltaSinceWindowsEpoch(TimeDelta::FromMicroseconds(wall_us));
}

int64_t GetSteadyTimeTicks() {
  const int64_t ticks_us = sim::World::Current().steady_ticks_us();
  sim::WorldState::Current().NoteSeamCall(sim::SeamCall::kSteadyClock);
  return ticks_us;
}

int64_t GetSystemTimeOffsetFromSteady() {
  const sim::World& world = sim::World::Current();
  const int64_t offset_us = world.wall_us() - world.steady_ticks_us();
  sim::WorldState::Current().NoteSeamCall(sim::SeamCall::kSystemOffset);
  return offset_us;
}

MachineClocks ReadMachineClocks() {
  const sim::WorldState& state = sim::WorldState::Current();
  const int64_t ticks_us = state.steady_ticks_us;
  const int64_t raw_us = state.oscillator.At(ticks_us) - state.suspended_oscillator_us;
  const int64_t monotonic_us = ticks_us - state.suspended_us;
  sim::WorldState::Current().NoteSeamCall(sim::SeamCall::kMachineClocks);
  return {.boot_ns = ticks_us * 1000, .raw_ns = raw_us * 1000, .monotonic_ns = monotonic_us * 1000};
}

int64_t GetKernelFrequencyPpb() { return sim::WorldState::Current().kernel_frequency_ppb; }

uint64_t GetClockSource() { return sim::WorldState::Current().clock_source; }

// The configuration may be read, and an address parsed, before there is a world.
Optional<std::string> GetEnvironmentVariable(const char* name) {
  const sim::WorldState* const state = sim::WorldState::Find();
  if (state == nullptr) {
    return {};
  }
  const auto found = state->environment.find(name);
  return found == state->environment.end() ? Optional<std::string>() : found->second;
}

uint64_t RandUint64() { return sim::World::Current().NextRandom(); }

}  // namespace skorra_ntp
}  // namespace base

namespace core {
inline namespace skorra_ntp {

std::shared_ptr<TaskQueue> ThreadManager::GetTaskQueue(BusinessID business, int64_t instance,
                                                       base::Optional<ThreadOption> /*option*/) {
  sim::WorldState& state = sim::WorldState::Current();
  state.NoteSeamCall(sim::SeamCall::kTaskQueue);
  return state.is_queue_available ? state.Queue(business, instance) : nullptr;
}

struct MachineWatch::Impl {
  std::shared_ptr<const sim::OpenWatch> watch;
};

MachineWatch::MachineWatch(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

MachineWatch::~MachineWatch() = default;

std::unique_ptr<MachineWatch> MachineWatch::Open(Callbacks callbacks) {
  sim::WorldState& state = sim::WorldState::Current();
  if (state.running_queue == nullptr) {
    return nullptr;
  }
  auto watch =
      std::make_shared<const sim::OpenWatch>(sim::OpenWatch{std::move(callbacks), state.running_queue});
  state.watches.push_back(watch);
  return std::unique_ptr<MachineWatch>(new MachineWatch(std::make_unique<Impl>(Impl{std::move(watch)})));
}

}  // namespace skorra_ntp
}  // namespace core

namespace net {
inline namespace skorra_ntp {

struct DatagramSocket::Impl {
  sim::OpenSocket socket;
};

DatagramSocket::DatagramSocket(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DatagramSocket::~DatagramSocket() {
  sim::WorldState& state = sim::WorldState::Current();
  state.sockets.erase(impl_->socket.local);
  state.NoteSeamCall(sim::SeamCall::kSocketClosed);
}

std::unique_ptr<DatagramSocket> DatagramSocket::Connect(const IPEndPoint& remote, Callbacks callbacks,
                                                        SocketError* error) {
  sim::WorldState& state = sim::WorldState::Current();
  *error = state.running_queue == nullptr || remote.address_empty()
               ? SocketError::kOther
               : sim::ErrorFor(state.connect_errors, remote);
  if (*error != SocketError::kNone) {
    return nullptr;
  }
  const uint16_t port = state.next_port;
  state.next_port = port == 65535 ? 49152 : static_cast<uint16_t>(port + 1);
  const char* const address = remote.family() == IPEndPoint::Family::kIPv6 ? "2001:db8:ffff::1" : "192.0.2.1";
  const IPEndPoint local = *IPEndPoint::FromLiteral(address, port);
  auto impl = std::make_unique<Impl>(Impl{{remote, local, std::move(callbacks), state.running_queue}});
  state.sockets[local] = &impl->socket;
  return std::unique_ptr<DatagramSocket>(new DatagramSocket(std::move(impl)));
}

SocketError DatagramSocket::Send(std::span<const uint8_t> bytes, uint32_t* send_id) {
  sim::WorldState& state = sim::WorldState::Current();
  sim::OpenSocket& socket = impl_->socket;
  state.ResumeReading(socket);
  if (const SocketError error = sim::ErrorFor(state.send_errors, socket.remote);
      error != SocketError::kNone) {
    return error;
  }
  const uint32_t id = socket.send_count++;
  if (send_id != nullptr) {
    *send_id = id;
  }
  if (state.event_log) {
    sim::World::Current().Log("sends %s -> %s", socket.local.ToString().c_str(),
                              socket.remote.ToString().c_str());
  }
  if (state.network) {
    state.network({socket.remote, socket.local, {bytes.begin(), bytes.end()}, state.steady_ticks_us});
  }
  return SocketError::kNone;
}

void DatagramSocket::StopReading() { impl_->socket.is_reading = false; }

IPEndPoint DatagramSocket::local() const { return impl_->socket.local; }

uint32_t GetInterfaceIndex(const std::string& name) {
  const sim::WorldState* const state = sim::WorldState::Find();
  if (state == nullptr) {
    return 0;
  }
  const auto found = state->interfaces.find(name);
  return found == state->interfaces.end() ? 0 : found->second;
}

// Every lookup sees the host table of the moment when the call begins, and the slowest one sets the time.
std::vector<ResolveResult> ResolveHosts(const std::vector<HostPort>& hosts, base::TimeDelta timeout) {
  std::vector<std::optional<sim::HostEntry>> entries;  // nothing for a literal
  int64_t longest_us = 0;
  for (const HostPort& host : hosts) {
    auto& entry = entries.emplace_back();
    if (!IPEndPoint::FromLiteral(host.host, host.port)) {
      entry = sim::FindHost(host.host);
      longest_us = std::max(longest_us, entry->delay_us);
    }
  }
  sim::World::Current().Block(std::min(base::TimeDelta::FromMicroseconds(longest_us), timeout));
  std::vector<ResolveResult> results;
  for (size_t i = 0; i < hosts.size(); ++i) {
    const auto& [host, port] = hosts[i];
    results.push_back(entries[i] ? sim::AnswerLookup(*entries[i], host, port, timeout)
                                 : ResolveResult{.addresses = {*IPEndPoint::FromLiteral(host, port)}});
  }
  return results;
}

// The result comes as on a real machine: on the queue of the lookups that nobody waits for. Lookups do not
// wait for one another here, and each sees the host table of the moment when it begins.
void ResolveHostInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                             std::function<void(ResolveResult)> done) {
  sim::WorldState& state = sim::WorldState::Current();
  if (!state.is_queue_available) {
    return;
  }
  const auto literal = IPEndPoint::FromLiteral(host, port);
  const sim::HostEntry entry = literal ? sim::HostEntry() : sim::FindHost(host);
  const auto delay = std::min(base::TimeDelta::FromMicroseconds(entry.delay_us), timeout);
  state.AddEvent(state.After(delay), [=, &state, done = std::move(done)] {
    state.RunOn(state.Queue(core::BusinessID::kNames, -1).get(), [&] {
      done(literal ? ResolveResult{.addresses = {*literal}} : sim::AnswerLookup(entry, host, port, timeout));
    });
  });
}

}  // namespace skorra_ntp
}  // namespace net
