// A world in virtual time behind the four seams: clocks, task queue, datagrams and names. Its servers and
// links are in network.h; docs/simulation.md shows it all at work.
//
// A program that links `sim/` instead of `platform/linux/` runs the shipped manager and transport in it
// unchanged. Nothing happens by itself: time stands still until `RunFor` or `RunUntil` moves it, and hours
// pass in milliseconds. Events due at the same instant run in the order in which they were scheduled, and
// every random number comes from the seed, so a run can be repeated exactly.
//
//   skorra::sim::World world;                       // becomes the world of this process
//   world.SetHost("ntp.test", {server_endpoint});
//   world.SetNetwork([&](const sim::SentDatagram& sent) { ... world.Deliver(...); });
//   skorra::NtpTimeManager::GetInstance()->Start();
//   world.RunFor(base::TimeDelta::FromSeconds(4));
//
// One world at a time, on one thread; tasks, callbacks and the functions given to it run inside `RunFor` and
// `RunUntil`. Sockets must be gone before their world is.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "netmodel/random.h"
#include "platform/base/callback.h"
#include "platform/base/location.h"
#include "platform/base/optional.h"
#include "platform/base/time.h"
#include "platform/core/task_queue.h"
#include "platform/core/thread_manager.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/host_resolver.h"
#include "platform/net/ip_endpoint.h"
#include "sim/clock_model.h"

namespace skorra::sim {

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
  std::vector<net::IPEndPoint> addresses;  // ports are those of the look-up; empty: the name does not exist
  // How long a look-up takes. The asking task is blocked meanwhile: time passes and no other task runs.
  int64_t delay_us = 0;
  // What the look-up yields instead of addresses, unless kNone.
  net::ResolveError error = net::ResolveError::kNone;
  base::TimeDelta ttl = base::TimeDelta::Max();
};

// What the program under test asks of a seam; `World::SetSeamHook` hears of it.
enum class SeamCall { kWallClock, kSteadyClock, kSystemOffset, kTaskQueue, kSocketClosed };

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

  // The world that the seams speak to. Ends the process with a message when there is none.
  static World& Current();
  // The same, or null when there is none.
  static World* Find();

  // --- Clocks. All times in microseconds; wall clock and truth count from 1601-01-01 UTC. Events are due by
  // the steady clock, as a machine's timers are; so are the delays of links.

  int64_t steady_ticks_us() const { return steady_ticks_us_; }
  int64_t wall_us() const { return wall_.At(steady_ticks_us_); }
  // The time that a faultless clock would show. It begins as the wall clock does.
  int64_t true_us() const { return true_.At(steady_ticks_us_); }
  int64_t TrueAt(int64_t ticks_us) const { return true_.At(ticks_us); }
  // The steady time at which the world began.
  int64_t begin_ticks_us() const { return begin_ticks_us_; }

  // Only the wall clock steps; steady time and truth do not.
  void StepWall(base::TimeDelta step);
  // How fast the machine's oscillator runs against the truth: both clocks follow it.
  void SetSteadyError(const ClockError& error);
  // How fast the wall clock runs against the steady clock, as if something slewed it.
  void SetWallError(const ClockError& error);
  // Sleeps: all clocks go on, tasks and events wait for the end, and what arrives meanwhile is lost.
  void Suspend(base::TimeDelta duration);

  // Called at every call of a seam that SeamCall names, once its answer is settled. A test can note the
  // order, look at the program at that moment, or let time pass with `Block`, so that no two readings are the
  // same. An empty function, the default, does nothing.
  void SetSeamHook(std::function<void(SeamCall)> hook) { seam_hook_ = std::move(hook); }

  // --- Time and tasks.

  // Lets `duration` pass and runs everything that falls due in it.
  void RunFor(base::TimeDelta duration);
  // Runs what falls due until `done` holds (tested before each event) or `limit` has passed. True when it
  // held.
  bool RunUntil(const std::function<bool()>& done, base::TimeDelta limit);
  // Runs the earliest event, moving time to it. False, with nothing changed, when there is none.
  bool RunOne();
  // When the earliest event is due, in steady ticks. What is due in the past has waited for a blocked task.
  std::optional<int64_t> NextEventTicks() const;
  // Runs `event` outside any queue once `delay` has passed, or once it is `due_ticks_us` by the steady clock.
  void Schedule(base::TimeDelta delay, std::function<void()> event);
  void ScheduleAt(int64_t due_ticks_us, std::function<void()> event);
  // Lets time pass without running anything, as a task does that blocks.
  void Block(base::TimeDelta duration) { steady_ticks_us_ += duration.InMicroseconds(); }
  // Runs `function` now, as if it were a task of the queue of `business`.
  void RunAsTask(core::BusinessID business, const std::function<void()>& function);

  const std::vector<PostedTask>& posted() const { return posted_; }
  size_t pending_count() const { return events_.size(); }
  // While false, `GetTaskQueue` hands out null, and a look-up that is started in the background never
  // reports.
  void SetQueueAvailable(bool available) { is_queue_available_ = available; }

  // --- Datagrams.

  // Called with every datagram that is sent. Without it they are lost.
  void SetNetwork(std::function<void(const SentDatagram&)> network) { network_ = std::move(network); }
  // Hands `bytes` to the socket with the local end point `client` after `delay`, if it is still open and
  // connected to `source`: like the system, a socket drops what comes from elsewhere.
  void Deliver(const net::IPEndPoint& source, const net::IPEndPoint& client, std::vector<uint8_t> bytes,
               base::TimeDelta delay);
  // The same at a moment of the steady clock, which may have passed while a task blocked.
  void DeliverAt(const net::IPEndPoint& source, const net::IPEndPoint& client, std::vector<uint8_t> bytes,
                 int64_t arrival_ticks_us);
  // The same as `Deliver` without that test.
  void DeliverFromAnywhere(const net::IPEndPoint& source, const net::IPEndPoint& client,
                           std::vector<uint8_t> bytes, base::TimeDelta delay);
  // Reports an error to the socket with the local end point `client`, now.
  void ReportError(const net::IPEndPoint& client, net::SocketError error);
  // Tells the socket with the local end point `client` when its datagram number `send_id` left, now.
  void ReportSent(const net::IPEndPoint& client, uint32_t send_id, int64_t send_ticks_us);
  // What connecting and sending to `server` yields from now on; kNone restores them.
  void SetConnectError(const net::IPEndPoint& server, net::SocketError error);
  void SetSendError(const net::IPEndPoint& server, net::SocketError error);
  size_t open_socket_count() const { return sockets_.size(); }

  // --- Names.

  // What a name means from now on. Names without an entry do not exist, except "localhost".
  void SetHost(const std::string& name, HostEntry entry) { hosts_[name] = std::move(entry); }

  // --- The machine.

  // Sets an environment variable, or removes it. The configuration reads the environment at its first use in
  // the process and at `LoadEnvironment`. A world begins without variables.
  void SetEnvironmentVariable(const std::string& name, base::Optional<std::string> value);
  // What an interface name in a link-local address means from now on; 0 removes the interface. A world begins
  // with "lo" as number 1.
  void SetInterface(const std::string& name, uint32_t index) { interfaces_[name] = index; }

  // --- Chance.

  // The next 64 bits of the world's generator.
  uint64_t NextRandom() { return random_.Next(); }
  netmodel::Random& random() { return random_; }

  // --- The log of events, for replays: byte for byte the same for the same program and seed.

  // Receives each line, "<seconds since the beginning> <what>"; an empty function, the default, saves the
  // work.
  void SetEventLog(std::function<void(const std::string&)> log) { event_log_ = std::move(log); }
  void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // --- For the seams (seams.cc).

  struct Socket;
  void NoteSeamCall(SeamCall call) {
    if (seam_hook_) {
      seam_hook_(call);
    }
  }
  std::shared_ptr<core::TaskQueue> GetTaskQueue(core::BusinessID business, int64_t instance);
  net::SocketError AddSocket(Socket* socket);
  void RemoveSocket(Socket* socket);
  net::SocketError Send(Socket& socket, std::span<const uint8_t> bytes, uint32_t* send_id);
  base::Optional<std::string> FindEnvironmentVariable(const std::string& name) const;
  uint32_t FindInterface(const std::string& name) const;
  net::ResolveResult Resolve(const std::string& host, uint16_t port, base::TimeDelta timeout);
  void ResolveInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                           std::function<void(net::ResolveResult)> done);

 private:
  class Queue;
  struct Event {
    std::function<void()> run;
  };
  using EventKey = std::pair<int64_t, uint64_t>;  // due steady time, sequence

  void Post(Queue* queue, const base::Location& from, base::OnceCallback<void()>&& task,
            base::TimeDelta delay);
  void RunTask(const core::TaskQueue* queue, const std::function<void()>& task);
  void AddEvent(int64_t due_ticks_us, std::function<void()> run);
  void ScheduleArrival(const net::IPEndPoint& source, const net::IPEndPoint& client,
                       std::vector<uint8_t> bytes, int64_t arrival_ticks_us, bool is_filtered);
  bool IsSuspendedAt(int64_t ticks_us) const;
  HostEntry FindHost(const std::string& host) const;
  net::ResolveResult AnswerLookUp(const HostEntry& entry, const std::string& host, uint16_t port,
                                  base::TimeDelta timeout);

  const int64_t begin_ticks_us_;
  int64_t steady_ticks_us_;
  ClockModel wall_;  // against the steady clock
  ClockModel true_;  // against the steady clock
  netmodel::Random random_;
  std::vector<std::pair<int64_t, int64_t>> suspends_;  // from, to
  std::function<void(const std::string&)> event_log_;
  std::function<void(SeamCall)> seam_hook_;

  std::map<EventKey, Event> events_;
  uint64_t next_sequence_ = 0;
  std::vector<PostedTask> posted_;
  std::map<std::pair<core::BusinessID, int64_t>, std::shared_ptr<Queue>> queues_;
  const core::TaskQueue* running_queue_ = nullptr;
  bool is_queue_available_ = true;

  std::function<void(const SentDatagram&)> network_;
  std::map<net::IPEndPoint, Socket*> sockets_;  // by local end point
  std::map<net::IPEndPoint, net::SocketError> connect_errors_;
  std::map<net::IPEndPoint, net::SocketError> send_errors_;
  uint16_t next_port_ = 49152;

  std::map<std::string, HostEntry> hosts_;
  std::map<std::string, std::string> environment_;
  std::map<std::string, uint32_t> interfaces_{{"lo", 1}};
};

// What the world knows of an open socket.
struct World::Socket {
  net::IPEndPoint remote;
  net::IPEndPoint local;
  net::DatagramSocket::Callbacks callbacks;
  uint32_t send_count = 0;
};

}  // namespace skorra::sim
