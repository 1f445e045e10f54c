// SPDX-License-Identifier: Apache-2.0
// What a world consists of, for world.cc and for the seams in seams.cc. Programs use world.h.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "netmodel/random.h"
#include "platform/core/machine_watch.h"
#include "platform/core/task_queue.h"
#include "platform/core/thread_manager.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/ip_endpoint.h"
#include "sim/clock_model.h"
#include "sim/world.h"

namespace skorra::sim {

struct OpenSocket {
  net::IPEndPoint remote;
  net::IPEndPoint local;
  net::DatagramSocket::Callbacks callbacks;
  const core::TaskQueue* queue = nullptr;  // the one that connected; the callbacks run there
  uint32_t send_count = 0;
  bool is_reading = true;  // false: not until the next send
  // What has arrived meanwhile, at most as many as a receive buffer holds.
  std::vector<std::function<void()>> unread = {};
  static constexpr size_t kMaxUnread = 256;
};

struct OpenWatch {
  core::MachineWatch::Callbacks callbacks;
  const core::TaskQueue* queue = nullptr;  // the one on which it was opened; the callbacks run there
};

struct WorldState {
  explicit WorldState(const World::Options& options);

  static WorldState& Current() { return *World::Current().state_; }
  // Null when there is no world.
  static const WorldState* Find();

  void AddEvent(int64_t due_ticks_us, std::function<void()> run);
  // When `delay` from now is; an endless delay stays endless.
  int64_t After(base::TimeDelta delay) const;
  // The queue of a business, also while the world hands out none.
  const std::shared_ptr<core::TaskQueue>& Queue(core::BusinessID business, int64_t instance);
  // Runs `function` as a task of `queue`.
  void RunOn(const core::TaskQueue* queue, const std::function<void()>& function);
  // Null when none is open there.
  OpenSocket* FindSocket(const net::IPEndPoint& local) const;
  // Delivers a datagram of the network that arrived at `arrival_ticks_us`, or keeps it for a socket that is
  // not reading.
  void Arrive(const net::IPEndPoint& source, const net::IPEndPoint& client, const std::vector<uint8_t>& bytes,
              int64_t arrival_ticks_us, bool is_filtered);
  // Lets a socket read again.
  void ResumeReading(OpenSocket& socket);
  void ScheduleArrival(const net::IPEndPoint& source, const net::IPEndPoint& client,
                       std::vector<uint8_t> bytes, int64_t arrival_ticks_us, bool is_filtered);
  bool IsSuspendedAt(int64_t ticks_us) const;
  // Sets how fast the steady clock runs against the oscillator: by its slew and the kernel's correction.
  void ApplySteadyFrequency();
  // Calls a callback of every watch that is still open by then, as a task of its queue.
  void ReportToWatches(std::function<void()> core::MachineWatch::Callbacks::*callback);
  void NoteSeamCall(SeamCall call) {
    if (seam_hook) {
      seam_hook(call);
    }
  }

  const int64_t begin_ticks_us;
  int64_t steady_ticks_us;
  ClockModel wall;        // of the steady clock
  ClockModel oscillator;  // of the steady clock; goes on in suspend
  ClockModel truth;       // of the oscillator
  int64_t slew_ppb = 0;
  int64_t kernel_frequency_ppb = 0;
  uint64_t clock_source = 1;
  netmodel::Random random;
  std::vector<std::pair<int64_t, int64_t>> suspends_ticks_us;  // from, to
  // What all of them took by the steady clock and by the oscillator.
  int64_t suspended_us = 0;
  int64_t suspended_oscillator_us = 0;
  std::function<void(const std::string&)> event_log;
  std::function<void(SeamCall)> seam_hook;

  std::map<std::pair<int64_t, uint64_t>, std::function<void()>> events;  // by due steady time and sequence
  uint64_t next_sequence = 0;
  std::vector<PostedTask> posted;
  std::map<std::pair<core::BusinessID, int64_t>, std::shared_ptr<core::TaskQueue>> queues;
  const core::TaskQueue* running_queue = nullptr;
  bool is_queue_available = true;
  std::vector<std::weak_ptr<const OpenWatch>> watches;  // in the order of their opening

  std::function<void(const SentDatagram&)> network;
  std::map<net::IPEndPoint, OpenSocket*> sockets;  // by local end point
  std::map<net::IPEndPoint, net::SocketError> connect_errors;
  std::map<net::IPEndPoint, net::SocketError> send_errors;
  uint16_t next_port = 49152;

  std::map<std::string, HostEntry> hosts;
  std::map<std::string, std::string> environment;
  std::map<std::string, uint32_t> interfaces{{"lo", 1}};
};

}  // namespace skorra::sim
