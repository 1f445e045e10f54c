#include "sim/world.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/base/int_math.h"

namespace skorra::sim {
namespace {

World* current_world = nullptr;

}  // namespace

class World::Queue : public core::TaskQueue {
 public:
  explicit Queue(World* world) : world_(world) {}

  void PostTask(const base::Location& from, base::OnceCallback<void()>&& task) override {
    world_->Post(this, from, std::move(task), base::TimeDelta());
  }
  void PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                       base::TimeDelta delay) override {
    world_->Post(this, from, std::move(task), delay);
  }
  bool IsCurrent() const override { return world_->running_queue_ == this; }

 private:
  World* const world_;
};

World::World(const Options& options)
    : begin_ticks_us_(options.steady_ticks_us),
      steady_ticks_us_(options.steady_ticks_us),
      wall_(options.steady_ticks_us, options.wall_us),
      true_(options.steady_ticks_us, options.wall_us),
      random_(options.seed) {
  current_world = this;
}

World::~World() { current_world = nullptr; }

World& World::Current() {
  if (current_world == nullptr) {
    std::fputs("A seam was used while no simulated world exists; make a skorra::sim::World first.\n", stderr);
    std::abort();
  }
  return *current_world;
}

World* World::Find() { return current_world; }

void World::SetEnvironmentVariable(const std::string& name, base::Optional<std::string> value) {
  if (value) {
    environment_.insert_or_assign(name, *std::move(value));
  } else {
    environment_.erase(name);
  }
}

base::Optional<std::string> World::FindEnvironmentVariable(const std::string& name) const {
  const auto found = environment_.find(name);
  return found == environment_.end() ? base::Optional<std::string>() : found->second;
}

uint32_t World::FindInterface(const std::string& name) const {
  const auto found = interfaces_.find(name);
  return found == interfaces_.end() ? 0 : found->second;
}

void World::StepWall(base::TimeDelta step) {
  Log("the wall clock steps by %lld us", static_cast<long long>(step.InMicroseconds()));
  wall_.Step(steady_ticks_us_, step.InMicroseconds());
}

void World::SetSteadyError(const ClockError& error) {
  // The truth runs against the steady clock as much slower as that runs faster: 1 / (1 + e) - 1.
  constexpr int64_t kBillion = 1000000000;
  ClockError inverse = error;
  inverse.frequency_ppb = -error.frequency_ppb * kBillion / (kBillion + error.frequency_ppb);
  true_.SetError(steady_ticks_us_, inverse, random_.Next());
}

void World::SetWallError(const ClockError& error) { wall_.SetError(steady_ticks_us_, error, random_.Next()); }

void World::Suspend(base::TimeDelta duration) {
  Log("suspended for %lld us", static_cast<long long>(duration.InMicroseconds()));
  suspends_.emplace_back(steady_ticks_us_, steady_ticks_us_ + duration.InMicroseconds());
  steady_ticks_us_ = suspends_.back().second;
  Log("awake");
}

bool World::IsSuspendedAt(int64_t ticks_us) const {
  return std::any_of(suspends_.begin(), suspends_.end(), [&](const auto& suspend) {
    return suspend.first <= ticks_us && ticks_us < suspend.second;
  });
}

void World::Log(const char* format, ...) {
  if (!event_log_) {
    return;
  }
  const int64_t elapsed_us = steady_ticks_us_ - begin_ticks_us_;
  char text[4096];
  const int length = std::snprintf(text, sizeof(text), "%6lld.%06lld ",
                                   static_cast<long long>(elapsed_us / base::kUsPerSecond),
                                   static_cast<long long>(elapsed_us % base::kUsPerSecond));
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text + length, sizeof(text) - static_cast<size_t>(length), format, arguments);
  va_end(arguments);
  event_log_(text);
}

void World::RunFor(base::TimeDelta duration) {
  RunUntil([] { return false; }, duration);
}

bool World::RunUntil(const std::function<bool()>& done, base::TimeDelta limit) {
  const int64_t end_ticks_us = base::SaturatingAdd(steady_ticks_us_, limit.InMicroseconds());
  while (!done()) {
    if (events_.empty() || events_.begin()->first.first > end_ticks_us) {
      steady_ticks_us_ = std::max(steady_ticks_us_, end_ticks_us);
      return false;
    }
    RunOne();
  }
  return true;
}

void World::Schedule(base::TimeDelta delay, std::function<void()> event) {
  // An endless delay stays endless.
  AddEvent(base::SaturatingAdd(steady_ticks_us_, delay.InMicroseconds()), std::move(event));
}

void World::ScheduleAt(int64_t due_ticks_us, std::function<void()> event) {
  AddEvent(due_ticks_us, std::move(event));
}

void World::RunAsTask(core::BusinessID business, const std::function<void()>& function) {
  RunTask(GetTaskQueue(business, -1).get(), function);
}

void World::RunTask(const core::TaskQueue* queue, const std::function<void()>& task) {
  const core::TaskQueue* const outer = std::exchange(running_queue_, queue);
  task();
  running_queue_ = outer;
}

void World::Post(Queue* queue, const base::Location& from, base::OnceCallback<void()>&& task,
                 base::TimeDelta delay) {
  const int64_t delay_us = std::max<int64_t>(0, delay.InMicroseconds());
  posted_.push_back({from, steady_ticks_us_, delay_us});
  // A std::function must be copyable, a closure is not: it waits in shared storage.
  const auto waiting = std::make_shared<base::OnceCallback<void()>>(std::move(task));
  AddEvent(base::SaturatingAdd(steady_ticks_us_, delay_us), [this, queue, waiting] {
    if (!waiting->IsCancelled()) {
      RunTask(queue, [&] { std::move(*waiting).Run(); });
    }
  });
}

void World::AddEvent(int64_t due_ticks_us, std::function<void()> run) {
  events_.emplace(EventKey(due_ticks_us, next_sequence_++), Event{std::move(run)});
}

bool World::RunOne() {
  if (events_.empty()) {
    return false;
  }
  const auto node = events_.extract(events_.begin());
  steady_ticks_us_ = std::max(steady_ticks_us_, node.key().first);
  node.mapped().run();
  return true;
}

std::optional<int64_t> World::NextEventTicks() const {
  if (events_.empty()) {
    return std::nullopt;
  }
  return events_.begin()->first.first;
}

std::shared_ptr<core::TaskQueue> World::GetTaskQueue(core::BusinessID business, int64_t instance) {
  if (!is_queue_available_) {
    return nullptr;
  }
  auto& queue = queues_[{business, instance}];
  if (queue == nullptr) {
    queue = std::make_shared<Queue>(this);
  }
  return queue;
}

void World::Deliver(const net::IPEndPoint& source, const net::IPEndPoint& client, std::vector<uint8_t> bytes,
                    base::TimeDelta delay) {
  ScheduleArrival(source, client, std::move(bytes),
                  base::SaturatingAdd(steady_ticks_us_, delay.InMicroseconds()), true);
}

void World::DeliverAt(const net::IPEndPoint& source, const net::IPEndPoint& client,
                      std::vector<uint8_t> bytes, int64_t arrival_ticks_us) {
  ScheduleArrival(source, client, std::move(bytes), arrival_ticks_us, true);
}

void World::DeliverFromAnywhere(const net::IPEndPoint& source, const net::IPEndPoint& client,
                                std::vector<uint8_t> bytes, base::TimeDelta delay) {
  ScheduleArrival(source, client, std::move(bytes),
                  base::SaturatingAdd(steady_ticks_us_, delay.InMicroseconds()), false);
}

// The arrival is stamped with its own moment, also when a blocked task keeps it from being read at once.
void World::ScheduleArrival(const net::IPEndPoint& source, const net::IPEndPoint& client,
                            std::vector<uint8_t> bytes, int64_t arrival_ticks_us, bool is_filtered) {
  AddEvent(arrival_ticks_us, [=, this, bytes = std::move(bytes)] {
    const auto found = sockets_.find(client);
    const bool is_heard = found != sockets_.end() && (!is_filtered || found->second->remote == source) &&
                          found->second->callbacks.on_datagram && !IsSuspendedAt(arrival_ticks_us);
    if (event_log_) {
      Log("%s %s -> %s", is_heard ? "arrives" : "dropped at arrival", source.ToString().c_str(),
          client.ToString().c_str());
    }
    if (!is_heard) {
      return;
    }
    RunTask(GetTaskQueue(core::BusinessID::kNtpTime, -1).get(), [&] {
      const bool is_truncated = bytes.size() > net::kMaxDatagramBytes;
      const std::span<const uint8_t> read(bytes);
      found->second->callbacks.on_datagram({.bytes = is_truncated ? read.first(net::kMaxDatagramBytes) : read,
                                            .source = source,
                                            .receive_ticks_us = arrival_ticks_us,
                                            .stamp_source = net::StampSource::kKernel,
                                            .is_truncated = is_truncated});
    });
  });
}

void World::ReportError(const net::IPEndPoint& client, net::SocketError error) {
  const auto found = sockets_.find(client);
  if (found != sockets_.end() && found->second->callbacks.on_error) {
    RunTask(GetTaskQueue(core::BusinessID::kNtpTime, -1).get(),
            [&] { found->second->callbacks.on_error(error); });
  }
}

void World::ReportSent(const net::IPEndPoint& client, uint32_t send_id, int64_t send_ticks_us) {
  const auto found = sockets_.find(client);
  if (found != sockets_.end() && found->second->callbacks.on_sent) {
    RunTask(GetTaskQueue(core::BusinessID::kNtpTime, -1).get(),
            [&] { found->second->callbacks.on_sent(send_id, send_ticks_us); });
  }
}

void World::SetConnectError(const net::IPEndPoint& server, net::SocketError error) {
  connect_errors_[server] = error;
}

void World::SetSendError(const net::IPEndPoint& server, net::SocketError error) {
  send_errors_[server] = error;
}

net::SocketError World::AddSocket(Socket* socket) {
  if (running_queue_ == nullptr || socket->remote.address_empty()) {
    return net::SocketError::kOther;
  }
  if (const auto found = connect_errors_.find(socket->remote);
      found != connect_errors_.end() && found->second != net::SocketError::kNone) {
    return found->second;
  }
  const uint16_t port = next_port_;
  next_port_ = port == 65535 ? 49152 : static_cast<uint16_t>(port + 1);
  socket->local = socket->remote.family() == net::IPEndPoint::Family::kIPv6
                      ? *net::IPEndPoint::FromLiteral("2001:db8:ffff::1", port)
                      : *net::IPEndPoint::FromLiteral("192.0.2.1", port);
  sockets_[socket->local] = socket;
  return net::SocketError::kNone;
}

void World::RemoveSocket(Socket* socket) { sockets_.erase(socket->local); }

net::SocketError World::Send(Socket& socket, std::span<const uint8_t> bytes, uint32_t* send_id) {
  if (const auto found = send_errors_.find(socket.remote);
      found != send_errors_.end() && found->second != net::SocketError::kNone) {
    return found->second;
  }
  const uint32_t id = socket.send_count++;
  if (send_id != nullptr) {
    *send_id = id;
  }
  if (event_log_) {
    Log("sends %s -> %s", socket.local.ToString().c_str(), socket.remote.ToString().c_str());
  }
  if (network_) {
    network_({socket.remote, socket.local, {bytes.begin(), bytes.end()}, steady_ticks_us_});
  }
  return net::SocketError::kNone;
}

net::ResolveResult World::Resolve(const std::string& host, uint16_t port, base::TimeDelta timeout) {
  if (const auto literal = net::IPEndPoint::FromLiteral(host, port)) {
    return {.addresses = {*literal}};
  }
  const HostEntry entry = FindHost(host);
  Block(std::min(base::TimeDelta::FromMicroseconds(entry.delay_us), timeout));
  return AnswerLookUp(entry, host, port, timeout);
}

void World::ResolveInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                                std::function<void(net::ResolveResult)> done) {
  if (!is_queue_available_) {
    return;
  }
  if (const auto literal = net::IPEndPoint::FromLiteral(host, port)) {
    Schedule(base::TimeDelta(),
             [literal = *literal, done = std::move(done)] { done({.addresses = {literal}}); });
    return;
  }
  const HostEntry entry = FindHost(host);
  Schedule(std::min(base::TimeDelta::FromMicroseconds(entry.delay_us), timeout),
           [=, this, done = std::move(done)] { done(AnswerLookUp(entry, host, port, timeout)); });
}

HostEntry World::FindHost(const std::string& host) const {
  if (const auto found = hosts_.find(host); found != hosts_.end()) {
    return found->second;
  }
  if (host == "localhost") {
    return {.addresses = {*net::IPEndPoint::FromLiteral("127.0.0.1", 0)}};
  }
  return {};
}

net::ResolveResult World::AnswerLookUp(const HostEntry& entry, const std::string& host, uint16_t port,
                                       base::TimeDelta timeout) {
  if (entry.delay_us > timeout.InMicroseconds()) {
    Log("looks up %s: no answer in time", host.c_str());
    return {.error = net::ResolveError::kTimedOut, .detail = "no name server answered for " + host};
  }
  Log("looks up %s: %zu addresses", host.c_str(), entry.addresses.size());
  if (entry.error != net::ResolveError::kNone) {
    return {.error = entry.error, .detail = "the look-up of " + host + " failed"};
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

}  // namespace skorra::sim
