// SPDX-License-Identifier: Apache-2.0
#include "sim/world.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/base/int_math.h"
#include "platform/base/time.h"
#include "sim/world_state.h"

namespace skorra::sim {
namespace {

World* current_world = nullptr;

constexpr int64_t kBillion = 1000000000;

// How fast a clock runs against another that runs `ppb` faster than itself: 1 / (1 + e) - 1. Limited to where
// that is in the range of a ClockError.
int64_t InverseFrequency(int64_t ppb) {
  const int64_t frequency_ppb = std::clamp(ppb, -kBillion / 3, kBillion / 2);
  return -frequency_ppb * kBillion / (kBillion + frequency_ppb);
}

}  // namespace

WorldState::WorldState(const World::Options& options)
    : begin_ticks_us(options.steady_ticks_us),
      steady_ticks_us(options.steady_ticks_us),
      wall(options.steady_ticks_us, options.wall_us),
      oscillator(options.steady_ticks_us, options.steady_ticks_us),
      truth(options.steady_ticks_us, options.wall_us),
      random(options.seed) {}

World::World(const Options& options) : state_(std::make_unique<WorldState>(options)) { current_world = this; }

World::~World() { current_world = nullptr; }

World& World::Current() {
  if (current_world == nullptr) {
    std::fputs("A seam was used while no simulated world exists; make a skorra::sim::World first.\n", stderr);
    std::abort();
  }
  return *current_world;
}

const WorldState* WorldState::Find() {
  return current_world == nullptr ? nullptr : current_world->state_.get();
}

// --- Clocks.

int64_t World::steady_ticks_us() const { return state_->steady_ticks_us; }
int64_t World::wall_us() const { return state_->wall.At(state_->steady_ticks_us); }
int64_t World::true_us() const { return TrueAt(state_->steady_ticks_us); }
int64_t World::TrueAt(int64_t ticks_us) const { return state_->truth.At(state_->oscillator.At(ticks_us)); }
int64_t World::begin_ticks_us() const { return state_->begin_ticks_us; }

void World::StepWall(base::TimeDelta step) {
  Log("the wall clock steps by %lld us", static_cast<long long>(step.InMicroseconds()));
  state_->wall.Step(state_->steady_ticks_us, step.InMicroseconds());
  state_->ReportToWatches(&core::MachineWatch::Callbacks::on_clock_set);
}

void World::SetSteadyError(const ClockError& error) {
  ClockError inverse = error;
  inverse.frequency_ppb = InverseFrequency(error.frequency_ppb);
  state_->truth.SetError(state_->oscillator.At(state_->steady_ticks_us), inverse, NextRandom());
}

void World::SetWallError(const ClockError& error) {
  state_->wall.SetError(state_->steady_ticks_us, error, NextRandom());
}

void World::SlewSteady(int64_t ppb) {
  state_->slew_ppb = ppb;
  state_->ApplySteadyFrequency();
}

void World::SetKernelFrequency(int64_t ppb) {
  state_->kernel_frequency_ppb = ppb;
  state_->ApplySteadyFrequency();
}

void World::SetClockSource(uint64_t number) { state_->clock_source = number; }

void WorldState::ApplySteadyFrequency() {
  // Nothing wanders here, so no random number is drawn.
  const int64_t frequency_ppb = InverseFrequency(slew_ppb + kernel_frequency_ppb);
  oscillator.SetError(steady_ticks_us, {.frequency_ppb = frequency_ppb}, 0);
}

void World::Suspend(base::TimeDelta duration, base::TimeDelta sleep_error) {
  Log("suspended for %lld us", static_cast<long long>(duration.InMicroseconds()));
  const int64_t begin_ticks_us = state_->steady_ticks_us;
  const int64_t begin_oscillator_us = state_->oscillator.At(begin_ticks_us);
  Block(duration);
  const int64_t end_oscillator_us = state_->oscillator.At(state_->steady_ticks_us);
  state_->suspends_ticks_us.emplace_back(begin_ticks_us, state_->steady_ticks_us);
  state_->suspended_us += state_->steady_ticks_us - begin_ticks_us;
  state_->suspended_oscillator_us += end_oscillator_us - begin_oscillator_us;
  if (sleep_error != base::TimeDelta()) {
    Log("the sleep took %lld us more than the clocks count",
        static_cast<long long>(sleep_error.InMicroseconds()));
    state_->truth.Step(end_oscillator_us, sleep_error.InMicroseconds());
  }
  Log("awake");
  state_->ReportToWatches(&core::MachineWatch::Callbacks::on_clock_set);
}

bool WorldState::IsSuspendedAt(int64_t ticks_us) const {
  return std::any_of(suspends_ticks_us.begin(), suspends_ticks_us.end(), [&](const auto& suspend) {
    return suspend.first <= ticks_us && ticks_us < suspend.second;
  });
}

void World::SetSeamHook(std::function<void(SeamCall)> hook) { state_->seam_hook = std::move(hook); }

// --- Time and tasks.

void World::RunFor(base::TimeDelta duration) {
  RunUntil([] { return false; }, duration);
}

bool World::RunUntil(const std::function<bool()>& done, base::TimeDelta limit) {
  const int64_t end_ticks_us = state_->After(limit);
  while (!done()) {
    if (state_->events.empty() || state_->events.begin()->first.first > end_ticks_us) {
      state_->steady_ticks_us = std::max(state_->steady_ticks_us, end_ticks_us);
      return false;
    }
    RunOne();
  }
  return true;
}

bool World::RunOne() {
  if (state_->events.empty()) {
    return false;
  }
  const auto node = state_->events.extract(state_->events.begin());
  state_->steady_ticks_us = std::max(state_->steady_ticks_us, node.key().first);
  node.mapped()();
  return true;
}

std::optional<int64_t> World::NextEventTicks() const {
  if (state_->events.empty()) {
    return std::nullopt;
  }
  return state_->events.begin()->first.first;
}

int64_t WorldState::After(base::TimeDelta delay) const {
  return base::SaturatingAdd(steady_ticks_us, delay.InMicroseconds());
}

void WorldState::AddEvent(int64_t due_ticks_us, std::function<void()> run) {
  events.emplace(std::pair(due_ticks_us, next_sequence++), std::move(run));
}

void World::Schedule(base::TimeDelta delay, std::function<void()> event) {
  state_->AddEvent(state_->After(delay), std::move(event));
}

void World::ScheduleAt(int64_t due_ticks_us, std::function<void()> event) {
  state_->AddEvent(due_ticks_us, std::move(event));
}

void World::Block(base::TimeDelta duration) { state_->steady_ticks_us += duration.InMicroseconds(); }

void WorldState::RunOn(const core::TaskQueue* queue, const std::function<void()>& function) {
  const core::TaskQueue* const outer = std::exchange(running_queue, queue);
  function();
  running_queue = outer;
}

void World::RunAsTask(core::BusinessID business, const std::function<void()>& function) {
  state_->RunOn(state_->Queue(business, -1).get(), function);
}

const std::vector<PostedTask>& World::posted() const { return state_->posted; }
size_t World::pending_count() const { return state_->events.size(); }
void World::SetQueueAvailable(bool available) { state_->is_queue_available = available; }

// --- Datagrams.

void World::SetNetwork(std::function<void(const SentDatagram&)> network) {
  state_->network = std::move(network);
}

void World::Deliver(const net::IPEndPoint& source, const net::IPEndPoint& client, std::vector<uint8_t> bytes,
                    base::TimeDelta delay) {
  state_->ScheduleArrival(source, client, std::move(bytes), state_->After(delay), true);
}

void World::DeliverAt(const net::IPEndPoint& source, const net::IPEndPoint& client,
                      std::vector<uint8_t> bytes, int64_t arrival_ticks_us) {
  state_->ScheduleArrival(source, client, std::move(bytes), arrival_ticks_us, true);
}

void World::DeliverFromAnywhere(const net::IPEndPoint& source, const net::IPEndPoint& client,
                                std::vector<uint8_t> bytes, base::TimeDelta delay) {
  state_->ScheduleArrival(source, client, std::move(bytes), state_->After(delay), false);
}

void WorldState::ScheduleArrival(const net::IPEndPoint& source, const net::IPEndPoint& client,
                                 std::vector<uint8_t> bytes, int64_t arrival_ticks_us, bool is_filtered) {
  AddEvent(arrival_ticks_us, [=, this, bytes = std::move(bytes)] {
    Arrive(source, client, bytes, arrival_ticks_us, is_filtered);
  });
}

// The arrival is stamped with its own moment, also when it is read later: a task blocked, or the socket was
// not being read.
void WorldState::Arrive(const net::IPEndPoint& source, const net::IPEndPoint& client,
                        const std::vector<uint8_t>& bytes, int64_t arrival_ticks_us, bool is_filtered) {
  OpenSocket* const socket = FindSocket(client);
  const bool is_heard = socket != nullptr && (!is_filtered || socket->remote == source) &&
                        socket->callbacks.on_datagram && !IsSuspendedAt(arrival_ticks_us);
  const bool is_kept = is_heard && !socket->is_reading && socket->unread.size() < OpenSocket::kMaxUnread;
  const bool is_read = is_heard && socket->is_reading;
  if (event_log) {
    World::Current().Log("%s %s -> %s",
                         is_read   ? "arrives"
                         : is_kept ? "waits to be read"
                                   : "dropped at arrival",
                         source.ToString().c_str(), client.ToString().c_str());
  }
  if (is_kept) {
    socket->unread.push_back([=, this] { Arrive(source, client, bytes, arrival_ticks_us, is_filtered); });
  }
  if (!is_read) {
    return;
  }
  RunOn(socket->queue, [&] {
    const bool is_truncated = bytes.size() > net::kMaxDatagramBytes;
    const std::span<const uint8_t> read(bytes);
    socket->callbacks.on_datagram({.bytes = is_truncated ? read.first(net::kMaxDatagramBytes) : read,
                                   .source = source,
                                   .receive_ticks_us = arrival_ticks_us,
                                   .stamp_source = net::StampSource::kKernel,
                                   .is_truncated = is_truncated});
  });
}

void WorldState::ResumeReading(OpenSocket& socket) {
  socket.is_reading = true;
  for (std::function<void()>& arrive : std::exchange(socket.unread, {})) {
    AddEvent(steady_ticks_us, std::move(arrive));
  }
}

OpenSocket* WorldState::FindSocket(const net::IPEndPoint& local) const {
  const auto found = sockets.find(local);
  return found == sockets.end() ? nullptr : found->second;
}

void World::ReportError(const net::IPEndPoint& client, net::SocketError error) {
  OpenSocket* const socket = state_->FindSocket(client);
  if (socket == nullptr || !socket->callbacks.on_error) {
    return;
  }
  if (socket->is_reading) {
    state_->RunOn(socket->queue, [&] { socket->callbacks.on_error(error); });
  } else if (socket->unread.size() < OpenSocket::kMaxUnread) {
    socket->unread.push_back([this, client, error] { ReportError(client, error); });
  }
}

void World::ReportSent(const net::IPEndPoint& client, uint32_t send_id, int64_t send_ticks_us) {
  const OpenSocket* const socket = state_->FindSocket(client);
  if (socket != nullptr && socket->callbacks.on_sent) {
    state_->RunOn(socket->queue, [&] { socket->callbacks.on_sent(send_id, send_ticks_us); });
  }
}

void World::SetConnectError(const net::IPEndPoint& server, net::SocketError error) {
  state_->connect_errors[server] = error;
}

void World::SetSendError(const net::IPEndPoint& server, net::SocketError error) {
  state_->send_errors[server] = error;
}

size_t World::open_socket_count() const { return state_->sockets.size(); }

// --- Names, the machine, chance and the log.

void World::SetHost(const std::string& name, HostEntry entry) { state_->hosts[name] = std::move(entry); }

void World::SetEnvironmentVariable(const std::string& name, base::Optional<std::string> value) {
  if (value) {
    state_->environment.insert_or_assign(name, *std::move(value));
  } else {
    state_->environment.erase(name);
  }
}

void World::RaiseNetwork() {
  Log("an interface gets an address");
  state_->ReportToWatches(&core::MachineWatch::Callbacks::on_network_up);
}

void WorldState::ReportToWatches(std::function<void()> core::MachineWatch::Callbacks::*callback) {
  std::erase_if(watches, [](const auto& watch) { return watch.expired(); });
  for (const std::weak_ptr<const OpenWatch>& open : watches) {
    AddEvent(steady_ticks_us, [=, this] {
      // The callback may close its own watch.
      const std::shared_ptr<const OpenWatch> watch = open.lock();
      if (watch != nullptr && watch->callbacks.*callback) {
        RunOn(watch->queue, watch->callbacks.*callback);
      }
    });
  }
}

void World::SetInterface(const std::string& name, uint32_t index) { state_->interfaces[name] = index; }

netmodel::Random& World::random() { return state_->random; }

void World::SetEventLog(std::function<void(const std::string&)> log) { state_->event_log = std::move(log); }

void World::Log(const char* format, ...) {
  if (!state_->event_log) {
    return;
  }
  const int64_t elapsed_us = state_->steady_ticks_us - state_->begin_ticks_us;
  char text[4096];
  const int length = std::snprintf(text, sizeof(text), "%6lld.%06lld ",
                                   static_cast<long long>(elapsed_us / base::kUsPerSecond),
                                   static_cast<long long>(elapsed_us % base::kUsPerSecond));
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text + length, sizeof(text) - static_cast<size_t>(length), format, arguments);
  va_end(arguments);
  state_->event_log(text);
}

}  // namespace skorra::sim
