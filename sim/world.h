// SPDX-License-Identifier: Apache-2.0

// A world in virtual time behind the seams: clocks, task queues, datagrams, random numbers, names and the
// machine. Its servers and links are in network.h; docs/simulation.md shows it all at work.
//
// A program that links skorra::sim instead of skorra::ntp runs the shipped manager and transport in it
// unchanged. Time stands still until `RunFor` or `RunUntil` moves it, and hours pass in milliseconds. Events
// due at the same instant run in the order in which they were scheduled, and every random number comes from
// the seed, so a run can be repeated exactly.
//
//   skorra::sim::World world;                       // becomes the world of this process
//   world.SetHost("ntp.test", {{server_endpoint}});
//   world.SetNetwork([&](const skorra::sim::SentDatagram& sent) { ... world.Deliver(...); });
//   skorra::NtpTimeManager::GetInstance()->Start();
//   world.RunFor(base::TimeDelta::FromSeconds(4));
//
// One world at a time, on one thread. Tasks, callbacks and the functions given to the world run inside
// `RunFor`, `RunUntil` and `RunOne`. Destroy every socket before its world.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../netmodel/random.h"
#include "../platform/base/location.h"
#include "../platform/base/optional.h"
#include "../platform/base/time.h"
#include "../platform/core/thread_manager.h"
#include "../platform/net/datagram_socket.h"
#include "../platform/net/host_resolver.h"
#include "../platform/net/ip_endpoint.h"
#include "../sim/clock_model.h"

namespace skorra::sim {

struct WorldState;

struct SentDatagram {
  net::IPEndPoint server;  // where it goes
  net::IPEndPoint client;  // the socket that sent it: where a reply must go
  std::vector<uint8_t> bytes;
  int64_t sent_ticks_us = 0;
};

// One call of `PostTask` (delay 0) or `PostDelayedTask`, in the order of the calls.
struct PostedTask {
  base::Location from;
  int64_t posted_ticks_us = 0;
  int64_t delay_us = 0;
};

struct HostEntry {
  std::vector<net::IPEndPoint> addresses;  // a lookup sets their ports; empty: the name does not exist
  // How long a lookup takes. It blocks the asking task: time passes and no other task runs.
  int64_t delay_us = 0;
  // Error to return instead of addresses, unless kNone.
  net::ResolveError error = net::ResolveError::kNone;
  base::TimeDelta ttl = base::TimeDelta::Max();
};

// What the program asks of a seam; `World::SetSeamHook` hears of it.
enum class SeamCall { kWallClock, kSteadyClock, kSystemOffset, kTaskQueue, kSocketClosed, kMachineClocks };

class World {
 public:
  struct Options {
    uint64_t seed = 1;
    // Microseconds since 1601-01-01 UTC; the default is 2024-01-01 00:00:00 UTC.
    int64_t wall_us = 13348540800000000;
    int64_t steady_ticks_us = 5000000000;
  };

  World() : World(Options()) {}
  explicit World(const Options& options);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // The world of this process. Ends the process with a message when there is none.
  static World& Current();

  // --- Clocks. All times are in microseconds; wall clock and truth count from 1601-01-01 UTC. Events are due
  // by the steady clock, as a machine's timers are; so are the delays of links.

  int64_t steady_ticks_us() const;
  int64_t wall_us() const;
  // The time that a perfect clock would show. It begins as the wall clock does.
  int64_t true_us() const;
  int64_t TrueAt(int64_t ticks_us) const;
  // The steady time at which the world began.
  int64_t begin_ticks_us() const;

  // Only the wall clock steps; steady time and truth do not. Watches of the machine hear of it.
  void StepWall(base::TimeDelta step);
  // How fast the machine's oscillator runs against the truth: both clocks follow it. The frequency is limited
  // to the range from -333 to 500 million parts per billion.
  void SetSteadyError(const ClockError& error);
  // How fast the wall clock runs against the steady clock, as if something slewed it.
  void SetWallError(const ClockError& error);
  // Slews the steady clock, and with it the wall clock, against the oscillator, from now on; 0 ends it. No
  // reading of the machine tells it, but the raw clock does not follow.
  void SlewSteady(int64_t ppb);
  // The frequency correction that the kernel applies to the oscillator, from now on, and tells: the same as a
  // slew, in addition to it. Both together are limited as `SetSteadyError` is.
  void SetKernelFrequency(int64_t ppb);
  // The machine takes another oscillator as its clock source; a world begins with number 1, and 0 stands for
  // a machine that does not tell. How fast it runs is `SetSteadyError`'s.
  void SetClockSource(uint64_t number);
  // The machine sleeps: tasks and events wait for the end, and what arrives meanwhile is lost. Clocks go on
  // and count `duration`, but the raw and the monotonic clock stand still. The sleep took `sleep_error`
  // longer than the clocks count; what the truth says inside the sleep leaves that out. More than
  // `-duration`. Watches of the machine hear of the end.
  void Suspend(base::TimeDelta duration, base::TimeDelta sleep_error = base::TimeDelta());

  // The world calls `hook` at every call of a seam that SeamCall names, once its answer is settled. A test
  // can note the order, look at the program at that moment, or let time pass with `Block`, so that no two
  // readings are the same. An empty function, the default, does nothing.
  void SetSeamHook(std::function<void(SeamCall)> hook);

  // --- Time and tasks.

  // Lets `duration` pass and runs everything that falls due in it.
  void RunFor(base::TimeDelta duration);
  // Runs what falls due until `done` holds (tested before each event) or `limit` has passed. Returns whether
  // it held.
  bool RunUntil(const std::function<bool()>& done, base::TimeDelta limit);
  // Moves time to the earliest event and runs it. Returns false, with nothing changed, when there is none.
  bool RunOne();
  // When the earliest event is due, in steady ticks. One that is due in the past has waited for a blocked
  // task.
  std::optional<int64_t> NextEventTicks() const;
  // Runs `event` outside any queue once `delay` has passed, or once it is `due_ticks_us` by the steady clock.
  void Schedule(base::TimeDelta delay, std::function<void()> event);
  void ScheduleAt(int64_t due_ticks_us, std::function<void()> event);
  // Lets time pass without running anything, as a task does that blocks.
  void Block(base::TimeDelta duration);
  // Runs `function` now, as if it were a task of the common queue of `business`.
  void RunAsTask(core::BusinessID business, const std::function<void()>& function);

  const std::vector<PostedTask>& posted() const;
  size_t pending_count() const;
  // While false, `GetTaskQueue` returns null, and a background lookup that starts then never reports.
  void SetQueueAvailable(bool available);

  // --- Datagrams.

  // The world calls `network` with every datagram that is sent. Without it they are lost.
  void SetNetwork(std::function<void(const SentDatagram&)> network);
  // Hands `bytes` to the socket with the local end point `client` after `delay`, if it is still open and
  // connected to `source`: like the system, a socket drops what comes from elsewhere. Its callbacks run on
  // the queue that connected it.
  void Deliver(const net::IPEndPoint& source, const net::IPEndPoint& client, std::vector<uint8_t> bytes,
               base::TimeDelta delay);
  // The same at a moment of the steady clock, which may have passed while a task blocked.
  void DeliverAt(const net::IPEndPoint& source, const net::IPEndPoint& client, std::vector<uint8_t> bytes,
                 int64_t arrival_ticks_us);
  // The same as `Deliver`, but whatever the socket is connected to.
  void DeliverFromAnywhere(const net::IPEndPoint& source, const net::IPEndPoint& client,
                           std::vector<uint8_t> bytes, base::TimeDelta delay);
  // Reports an error to the socket with the local end point `client`, now.
  void ReportError(const net::IPEndPoint& client, net::SocketError error);
  // Tells the socket with the local end point `client` when its datagram number `send_id` left, now.
  void ReportSent(const net::IPEndPoint& client, uint32_t send_id, int64_t send_ticks_us);
  // Connecting and sending to `server` fail with `error` from now on; kNone restores them.
  void SetConnectError(const net::IPEndPoint& server, net::SocketError error);
  void SetSendError(const net::IPEndPoint& server, net::SocketError error);
  size_t open_socket_count() const;

  // --- Names.

  // What a name means from now on. Names without an entry do not exist, except "localhost".
  void SetHost(const std::string& name, HostEntry entry);

  // --- The machine.

  // Sets an environment variable, or removes it. The configuration reads the environment at its first use in
  // the process and at `LoadEnvironment`. A world begins without variables.
  void SetEnvironmentVariable(const std::string& name, base::Optional<std::string> value);
  // What an interface name in a link-local address means from now on; 0 removes the interface. A world begins
  // with "lo" as number 1.
  void SetInterface(const std::string& name, uint32_t index);

  // An interface got an address: every core::MachineWatch reports it.
  void RaiseNetwork();

  // --- Chance.

  // The next 64 bits of the world's generator.
  uint64_t NextRandom() { return random().Next(); }
  netmodel::Random& random();

  // --- The log of events, for replays: byte for byte the same for the same program and seed.

  // `log` receives each line, "<seconds since the beginning> <what>"; an empty function, the default, saves
  // the work.
  void SetEventLog(std::function<void(const std::string&)> log);
  void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  friend struct WorldState;

  std::unique_ptr<WorldState> state_;  // world_state.h, which the seams share
};

}  // namespace skorra::sim
