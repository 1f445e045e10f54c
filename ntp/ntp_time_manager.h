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
//   ...  // wait until the observer has heard an outcome, as docs/embedding.md shows
//   const int64_t now_us = manager->GetNtpTimestampFrom1970();
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
//
// What may surprise you, and what to do:
//
// - A reading is provisional until an observer has heard kSuccess or kMaybeInaccurate. It is what the first
//   reply alone said: unchecked and ungraded. It goes back to 0 when the attempt ends with kNoResult, and
//   the first reply after that sets it again. Use no reading before one of these two outcomes. After it, a
//   reading is graded and never goes back to 0.
// - A provisional reading stays after a stop in mid-attempt. Start again, and wait for that attempt's
//   outcome.
// - An attempt may have no outcome: when no domain with an address is known, and when a stop cuts it off.
//   Wait with a time limit; an attempt takes up to about 30 s when its servers are silent. When no outcome
//   comes, call Stop, a second later Start. NtpAttemptEnded (ntp_sync_events.h) reports such ends.
// - 30 s after each outcome, and 30 s after domains given while no attempt runs, a stop closes the sockets.
//   Nothing takes it back: it cuts off an attempt that runs at that moment. Start again after it, or start
//   when these 30 s are over.
// - `Stop(); Start();` back to back starts nothing useful, since the stop is a task and runs later. While
//   an attempt runs, Start returns -1. Otherwise the stop cancels the start; the attempt's domains stay
//   marked as being asked, and later attempts skip them until the next stop. Wait a second between the two.
// - The ten minutes between two syncs that reads start are kept by the wall clock. If it is set back by a
//   day, reads start no sync for a day. Call Start when you know of such a step, or once an hour.
// - The manager compares the wall clock with NTP time by reading one after the other. A busy machine may
//   put the thread aside in between. More than 4 ms of that look like clocks that ran apart: a kept
//   kSuccess becomes kMaybeInaccurate, and a sync starts. Nothing needs to be done; the reading stays good.
// - A name that has no address when it is given is dropped, and no observer hears of it. NtpDomainsUpdated
//   (ntp_sync_events.h) names it with the reason. Give it again later.
// - Replies that disagree are averaged: the outcome is kMaybeInaccurate, and the reading may be a time that
//   no server told. Look at the outcome's result, and give better servers or start again later. After a
//   kSuccess, it may also say that a later attempt was no better, and that the earlier result is kept.
// - An observer that throws ends the process. Catch inside it.
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
  // Hears the outcome of every sync attempt that has one. An attempt without any server has none, nor has one
  // that a stop cuts off; the typed event NtpAttemptEnded (ntp_sync_events.h) reports these ends as kNoServer
  // and kStopped. Its destructor must not add or remove observers: the manager may release the last reference
  // while it holds its observer lock, and adding or removing there would deadlock.
  class Observer {
   public:
    // `message` is the text of `result`. `server` is the address that answered last for the domain that the
    // outcome is reported for. It is empty when none of that domain did, and when a result that was still
    // fresh is announced again. Runs on the manager's queue: return soon, and post longer work elsewhere.
    // Adding and removing observers from here is allowed; it takes effect from the next outcome. Must not
    // throw.
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
  // for its outcome, with a time limit.
  virtual int Start() = 0;

  // Ends a running attempt without an outcome and closes the sockets. The kept result stays readable. Stop is
  // a task and runs after those already queued.
  virtual void Stop() = 0;

  // NTP time in microseconds since 1970-01-01 UTC, or 0 while nothing is known. Provisional until the first
  // outcome with a result. Lock-free. The value follows the steady clock: a step of the system clock does not
  // move it. A read without a result, or with one that has grown old, poor or suspicious, starts a sync by
  // itself, at most once in ten minutes.
  virtual int64_t GetNtpTimestampFrom1970() = 0;

  // Adds server domains ("host", "host:port", "192.0.2.1", "[2001:db8::1]:123") behind those already known;
  // known names are skipped, none is ever removed. While an attempt runs, every domain that is not being
  // asked is asked as well.
  virtual void UpdateNtpTimeDomain(const std::vector<std::string>& domains) = 0;

  // Hands over the statistics since the previous report and begins a new period.
  virtual NtpTimeSyncStats GetAndResetNtpQualityStats() = 0;

  virtual ~NtpTimeManager() = default;
};

}  // namespace skorra
