// SPDX-License-Identifier: Apache-2.0

// The network time of this process.
//
// One manager per process learns the offset between the local clock and network time from NTP servers and
// answers, from any thread and without a lock: what is the NTP time now?
//
//   auto* manager = skorra::NtpTimeManager::GetInstance();
//   manager->AddObserver(observer);                     // a std::shared_ptr that you keep
//   manager->UpdateNtpTimeDomain({"ntp.example.org"});
//   manager->Start();
//   ...
//   const int64_t now_us = manager->GetNtpTimestampFrom1970();  // 0 until there is a result
//
// Threads: every operation may be called from any thread. None blocks on the network: the work is done by
// tasks on the queue of business 701, which is also where observers are called.
//
// Ownership: the manager lives until the process ends; nobody deletes it. It never owns an observer.
//
// Forks: a forked child keeps the result, the observers and every domain already added, and reads on. If
// unsure about the domains, call UpdateNtpTimeDomain again there: known names are skipped. A running attempt
// belongs to the parent, with its outcome. To sync in the child, call Start; if it returns -1, call Stop
// first, then Start until it returns 0; do the same when an attempt in the child has no outcome. A child
// forked on the manager's queue (inside an observer, or a log sink called there) can only read; it ends when
// that callback returns.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../ntp/ntp_sync_records.h"
#include "../platform/base/export.h"
#include "../platform/net/ip_endpoint.h"

namespace skorra {

class NtpTimeManager {
 public:
  // Hears the outcome of every sync attempt. Its destructor must not add or remove observers: the manager may
  // release the last reference while it holds its observer lock, and adding or removing there would deadlock.
  class Observer {
   public:
    // `message` is the text of `result`. `server` is the address that answered last for the domain that the
    // outcome is reported for. It is empty when none of that domain did, and when a result that was still
    // fresh is announced again. Runs on the manager's queue: return soon, and post longer work elsewhere.
    // Adding and removing observers from here is allowed; it takes effect from the next outcome.
    virtual void OnNtpResult(NtpResult result, const std::string& message, const net::IPEndPoint& server) = 0;
    virtual ~Observer() = default;
  };

  // The one manager, never null.
  SKORRA_EXPORT static NtpTimeManager* GetInstance();

  // Registers an observer, by its object's address; one that is already gone is not registered. Keep the
  // object alive: an observer whose owner has released it is skipped.
  virtual void AddObserver(std::weak_ptr<Observer> observer) = 0;

  // Removes the first registration of the observer. It may still hear an outcome whose delivery has begun.
  virtual void RemoveObserver(std::weak_ptr<Observer> observer) = 0;

  // Asks for a sync. Returns 0 when an attempt was started, or when the kept result is fresh (younger than
  // ten minutes and undisturbed) and is announced again; returns -1 when an attempt is already running: wait
  // for its outcome.
  virtual int Start() = 0;

  // Ends a running attempt without an outcome and closes the sockets. The kept result stays readable. Stop is
  // a task and runs after those already queued. A start made before it runs is cancelled with it: it has no
  // outcome, and its domains stay marked as being asked, so that later attempts skip them until the next
  // Stop.
  virtual void Stop() = 0;

  // NTP time in microseconds since 1970-01-01 UTC, or 0 while there is no result. Lock-free. The value
  // follows the steady clock: a step of the system clock does not move it. A read without a result, or with
  // one that has grown old, poor or suspicious, starts a sync by itself, at most once in ten minutes.
  virtual int64_t GetNtpTimestampFrom1970() = 0;

  // Adds server domains ("host", "host:port", "192.0.2.1", "[2001:db8::1]:123") behind those already known;
  // known names and names without an address are skipped, none is ever removed. While an attempt runs, every
  // domain that is not being asked is asked as well.
  virtual void UpdateNtpTimeDomain(const std::vector<std::string>& domains) = 0;

  // Hands over the statistics since the previous report and begins a new period.
  virtual NtpTimeSyncStats GetAndResetNtpQualityStats() = 0;

  virtual ~NtpTimeManager() = default;
};

}  // namespace skorra
