// SPDX-License-Identifier: Apache-2.0

// A clock that one can trust: the time, and between which limits it certainly is.
//
//   skorra::NtpClockOptions options;
//   options.servers = {"ntp.example.org", "192.0.2.1:123"};
//   skorra::NtpClock::Start(options);
//   if (skorra::NtpClock::WaitUntilSynced(std::chrono::seconds(30))) {
//     const skorra::NtpClockReading reading = skorra::NtpClock::Read();
//     ...  // reading.earliest_us <= the true time <= reading.latest_us
//   }
//
// There is one clock in a process. It keeps time over the time manager (ntp_time_manager.h), whatever
// happens: it starts attempts, starts again what a stop cut off, tries names again that have no address yet,
// and syncs again after suspend, after a step of the wall clock and when the network comes up. Nobody else
// needs to call the manager; a host that does so all the same disturbs nothing for long. The manager's own
// reading stays what it is, with this clock or without. docs/clock.md has the formulas, and says when which
// of the two clocks is the right one.
//
// The bound is a promise under three assumptions: at least the server that answered tells the truth about
// itself, the oscillator of this machine is right within `frequency_error_ppm` once the kernel's correction
// is applied, and the stamps of requests and replies are taken where docs/clock.md says.
//
// Threads: every function may be called from any thread, unless it says otherwise. `now` and `Read` take no
// lock, allocate nothing and make no system call, except for one call in 16 s at most that finds work to do
// and posts a task.
//
// Forks: a forked child reads on, with the bound growing. Its first call of any function here that finds work
// to do starts a keeper of its own. A child forked on the manager's queue can only read.
//
// Nothing here throws, and a function that is given here must not throw: that ends the process.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../ntp/ntp_sync_records.h"
#include "../platform/base/export.h"
#include "../platform/net/ip_endpoint.h"

namespace skorra {

struct NtpClockOptions {
  // "host", "host:port", "192.0.2.1", "[2001:db8::1]:123". Empty: the domains that the manager knows already,
  // or the configured default one.
  std::vector<std::string> servers;
  // Seconds from one sync to the next; 0: the configured one (ntp.sync_interval). At least 16.
  uint32_t interval_s = 0;
  // A sync comes sooner when the bound would pass this many microseconds. Never sooner than after 16 s.
  int64_t max_error_us = 500000;
  // How far the oscillator may be from its nominal frequency, the kernel's correction applied. 1 to 100000.
  uint32_t frequency_error_ppm = 50;
  // The virtual machine's clock device, which tells that the machine was moved or restored from a snapshot.
  // Where there is none, nothing is told. A plain file of the same layout will do; do not shorten it.
  std::string vmclock_path = "/dev/vmclock0";
};

// How one sync ended, in the eyes of the clock.
enum class NtpSyncReason : int32_t {
  kOk = 0,             // a graded result, published
  kInaccurate = 1,     // a result that may be inaccurate; published unless more is known already
  kNoServer = 2,       // there is no server to ask: give one
  kNotResolved = 3,    // no name of a server has an address yet; they are tried again
  kRefused = 4,        // the servers deny access, or their ports are closed
  kSilent = 5,         // no reply came: check the network and the firewalls on the way
  kLimited = 6,        // the servers ask us to wait; that is done
  kUnusable = 7,       // replies came, and none could be used
  kTooFewSamples = 8,  // fewer replies than a result needs
  kDisagreeing = 9,    // the replies of the server contradict each other: nothing of them is published
  kStopped = 10,       // the clock is not running: call Start
  kTimedOut = 11,      // nothing was settled within the limit; the clock goes on trying
};

// The stable name of a reason: "ok", "inaccurate", "no_server", "not_resolved", ...
SKORRA_EXPORT const char* NtpSyncReasonName(NtpSyncReason reason);

// What a reading is worth.
enum class NtpClockStatus : int32_t {
  kUnknown = 0,       // no sync has brought a result yet: no time
  kProvisional = 1,   // the same, and replies have come that are not judged yet: no time
  kSynchronized = 2,  // the last sync is recent
  kFreeRunning = 3,   // it is not, or the machine slept since: the bound still holds
  kDisrupted = 4,     // the machine was moved or restored: the estimate goes on, without a bound
  kConflicting =
      5,  // the last replies contradict each other: the reading before them goes on, if there is one
};

// "unknown", "provisional", "synchronized", "free_running", "disrupted", "conflicting".
SKORRA_EXPORT const char* NtpClockStatusName(NtpClockStatus status);

// What other servers say about the reading's server. Each proves an interval for the time, as the reading's
// own server does; two agree when their intervals overlap.
enum class NtpClockAgreement : int32_t {
  kUnchecked = 0,  // no other server has answered
  kAgrees = 1,     // a majority of all servers that answered has a time in common with this one
  kConflict = 2,   // the servers contradict each other, and no majority says which one is wrong
  kOutvoted = 3,   // a majority of them contradicts this one: the time is probably wrong
};

// "unchecked", "agrees", "conflict", "outvoted".
SKORRA_EXPORT const char* NtpClockAgreementName(NtpClockAgreement agreement);

// One consistent reading: everything in it belongs to the same moment and to the same sync.
struct NtpClockReading {
  static constexpr int64_t kNoBound = std::numeric_limits<int64_t>::max();
  static constexpr int64_t kNoFrequency = std::numeric_limits<int64_t>::min();

  NtpClockStatus status = NtpClockStatus::kUnknown;
  // Of the sync that the reading stands on; kNoResult while there is none.
  NtpResult result = NtpResult::kNoResult;
  // Microseconds since 1970-01-01 UTC. Without a time 0, without a bound the smallest and the largest number.
  int64_t best_estimate_us = 0;
  int64_t earliest_us = std::numeric_limits<int64_t>::min();
  int64_t latest_us = std::numeric_limits<int64_t>::max();
  // What the error probably is, by the scatter of the samples. No promise.
  int64_t error_estimate_us = kNoBound;
  // What the error is at most: the distance from the estimate to the farther of the two limits.
  int64_t error_bound_us = kNoBound;
  // Since the sync.
  int64_t age_us = 0;
  // The server's name, as it was given. Empty without a time. Valid until the process ends.
  const char* domain = "";
  NtpClockAgreement agreement = NtpClockAgreement::kUnchecked;
  // How many other servers have answered, and how many of them agree with the reading's.
  uint32_t witness_count = 0;
  uint32_t agreeing_count = 0;
  // How much faster the true time runs than the machine's steady clock, in parts per billion, as the last
  // syncs with the server tell: the best estimate follows it. kNoFrequency while they do not tell yet.
  int64_t frequency_ppb = kNoFrequency;

  bool has_time() const { return result != NtpResult::kNoResult; }
  bool has_bound() const { return error_bound_us != kNoBound; }
  bool has_frequency() const { return frequency_ppb != kNoFrequency; }
};

struct NtpSyncOutcome {
  NtpSyncReason reason = NtpSyncReason::kStopped;
  uint64_t attempt = 0;  // the number of the attempt in this process, from 1; 0: there was none
  NtpClockReading reading;
};

// What one server said when the result of an attempt was checked. The limits are differences from the
// result's own estimate, in microseconds: the true time lies between them if this server is right.
struct NtpWitness {
  std::string domain;
  net::IPEndPoint server;
  int64_t earliest_us = 0;
  int64_t latest_us = 0;
  bool agrees = false;       // its interval overlaps that of the result's server
  bool is_outvoted = false;  // a majority contradicts it
};

// How the result of an attempt was checked against the other servers.
struct NtpWitnessReport {
  uint64_t attempt = 0;  // as in NtpSyncOutcome
  NtpClockAgreement agreement = NtpClockAgreement::kUnchecked;
  // The result's server first, then the others that have answered.
  std::vector<NtpWitness> servers;
  // Between which limits a majority of the servers has the time, as differences like those above. Without a
  // majority both are 0.
  bool has_majority = false;
  int64_t majority_earliest_us = 0;
  int64_t majority_latest_us = 0;
  // The servers differ as they do when some of them smear a leap second.
  bool may_be_smear = false;
};

namespace internal {
struct ClockObserver;
}

// Ends what it stands for when it goes out of scope: after its destructor has returned, the function is not
// called, and no call of it is running, unless the destructor runs inside that call. So hold no lock that the
// function takes when it ends.
class NtpClockSubscription {
 public:
  NtpClockSubscription() = default;
  SKORRA_EXPORT ~NtpClockSubscription();
  NtpClockSubscription(NtpClockSubscription&&) noexcept = default;
  SKORRA_EXPORT NtpClockSubscription& operator=(NtpClockSubscription&&) noexcept;

 private:
  friend class NtpClock;
  explicit NtpClockSubscription(std::shared_ptr<internal::ClockObserver> observer)
      : observer_(std::move(observer)) {}
  void Cancel();

  std::shared_ptr<internal::ClockObserver> observer_;
};

class NtpClock {
 public:
  // As the standard's clocks. It is not steady: each sync may correct it, in either direction.
  using rep = int64_t;
  using period = std::micro;
  using duration = std::chrono::duration<rep, period>;
  using time_point = std::chrono::time_point<NtpClock>;
  using sys_time_point = std::chrono::time_point<std::chrono::system_clock, duration>;
  static constexpr bool is_steady = false;

  // Starts the clock, or gives a running one new options: servers are added, none is removed. Returns at
  // once.
  SKORRA_EXPORT static void Start(const NtpClockOptions& options);
  // Adds servers to those known already; the other options stay. Before a start it only notes them.
  SKORRA_EXPORT static void AddServers(std::vector<std::string> servers);
  // Ends its work: syncs that wait end as kStopped, waits end, and readings go on with a growing bound. The
  // servers stay known to the manager: a later start asks them, too.
  SKORRA_EXPORT static void Stop();
  // Whether a start was the last of `Start` and `Stop`. Lock-free.
  SKORRA_EXPORT static bool IsRunning() noexcept;

  // The best estimate of the time since 1970-01-01 UTC, or the epoch while there is none: test
  // `Read().has_time()` once, or wait until synced. From then on it never goes back to the epoch.
  SKORRA_EXPORT static time_point now() noexcept;
  // The whole reading.
  SKORRA_EXPORT static NtpClockReading Read() noexcept;

  // Certain answers: true only when it is so for every time between the limits. Both are false in between.
  static bool IsAfter(time_point time) noexcept {
    return Read().earliest_us > time.time_since_epoch().count();
  }
  static bool IsBefore(time_point time) noexcept {
    return Read().latest_us < time.time_since_epoch().count();
  }

  // Syncs now. Exactly one outcome comes, at the latest when `limit` has passed: the end of the next attempt,
  // or why there is none. An attempt that a stop cuts off does not count and is made again. A result that is
  // less than 16 s old is the outcome itself, and attempts that users and events want are 16 s apart on
  // average, three of them at once at most: asking in a loop does not burden the servers.
  // `done` runs on the manager's queue: return soon. Without a running clock it runs at once, with kStopped.
  // A sync that a process waits for when it forks has its outcome there; in the child it ends as kStopped.
  SKORRA_EXPORT static void Sync(duration limit, std::function<void(const NtpSyncOutcome&)> done);
  // The same for a waiting thread. Not to be waited for on the manager's queue.
  SKORRA_EXPORT static std::future<NtpSyncOutcome> Sync(duration limit);

  // Waits until there is a time, or until its bound is `max_error` at most, however many attempts it takes;
  // asks for a sync when it is not so. Returns whether it is so. On the manager's queue and without a running
  // clock it returns at once. In a simulated world, where waiting would stop the time, use Observe or Sync.
  SKORRA_EXPORT static bool WaitUntilSynced(duration limit);
  SKORRA_EXPORT static bool WaitUntilBound(duration max_error, duration limit);

  // Calls `observer` with the outcome of each attempt that the clock follows, also those that others started.
  // It runs on the manager's queue: return soon.
  [[nodiscard]] SKORRA_EXPORT static NtpClockSubscription Observe(
      std::function<void(const NtpSyncOutcome&)> observer);

  // Calls `observer` with what the other servers say of each attempt's result, after its outcome: once all
  // have answered, or the time for it is over. Not called for an attempt without a result, without other
  // servers, or with ntp.witnesses set to "off". It runs on the manager's queue: return soon.
  [[nodiscard]] SKORRA_EXPORT static NtpClockSubscription ObserveWitnesses(
      std::function<void(const NtpWitnessReport&)> observer);

  static sys_time_point to_sys(time_point time) noexcept { return sys_time_point(time.time_since_epoch()); }
  static time_point from_sys(sys_time_point time) noexcept { return time_point(time.time_since_epoch()); }
};

}  // namespace skorra
