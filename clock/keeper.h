// SPDX-License-Identifier: Apache-2.0

// Keeps the time manager going, whatever happens, and publishes what its attempts prove.
//
// It hears every attempt, also those that others started, and drives the manager: it looks the servers up
// until each has an address, starts attempts when they are due, waits for a stop before the next start,
// starts again what a stop cut off, and frees an attempt that is stuck. It decides nothing about results:
// those are the manager's.
//
// Attempts have numbers. An attempt is stuck when the manager no longer waits for it though it has no end: a
// stop that ran between a start and its beginning does that. Its domains are marked as being asked, so only a
// stop helps, and then a new start.
//
// Threads: made anywhere; everything else runs as tasks of the manager's queue. Time is steady time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "clock/attempt_tally.h"
#include "clock/frequency.h"
#include "clock/ntp_clock.h"
#include "clock/proven_burst.h"
#include "clock/shared_clock.h"
#include "clock/witnesses.h"
#include "ntp/ntp_sync_events.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/time.h"
#include "platform/base/weak_ptr.h"
#include "platform/core/machine_watch.h"
#include "platform/net/ip_endpoint.h"

namespace skorra {

class Keeper final : public NtpSyncListener {
 public:
  using Done = std::function<void(const NtpSyncOutcome&)>;

  using OnWitnesses = std::function<void(const NtpWitnessReport&)>;

  // `on_outcome` hears of every attempt's outcome, after what it published, and `on_witnesses`, unless empty,
  // what the other servers say of it. `manager` and `shared` outlive it.
  Keeper(NtpTimeManager& manager, SharedClock& shared, Done on_outcome, OnWitnesses on_witnesses = {});
  ~Keeper() override;

  void Start(const NtpClockOptions& options);
  // Before a start it only notes them.
  void AddServers(const std::vector<std::string>& servers);
  // Ends all syncs that wait as kStopped, and drives the manager no more.
  void Stop();
  // See NtpClock::Sync.
  void Sync(int64_t limit_us, Done done);
  // A reader found that the reading needs a sync: its bound is too wide, or the machine slept or was moved.
  void SyncIfReadingIsPoor();
  // A reader waits for a better reading.
  void SyncForReader() { SyncSoon(); }
  // In a child that has just been forked: takes up the work on the child's queue. Syncs that the parent waits
  // for end as kStopped here.
  void ContinueInChild();

  void OnDomainsUpdated(const NtpDomainsUpdated& event) override;
  void OnAttemptBegun() override;
  void OnBurstBegun(const NtpBurstBegun& event) override;
  void OnSampleAccepted(const NtpSampleAccepted& event) override;
  void OnReplyRejected(const NtpReplyRejected& event) override;
  void OnDomainEvaluated(const NtpDomainEvaluated& event) override;
  void OnAttemptEnded(const NtpAttemptEnded& event) override;
  void OnQueueStopped() override;

 private:
  // What the manager is doing, as far as the keeper waits for it.
  enum class Phase {
    kIdle,
    kRequested,  // a start was accepted and has not begun
    kRunning,    // an attempt has begun
    kStopping,   // the keeper asked for a stop that has not run
  };

  void OpenWatch();

  // --- Attempts.

  void RequestAttempt();
  void StopManager();
  // Looks after the manager while it is not idle.
  void ArmWatchdog();
  void OnWatchdog(uint64_t number);
  void EnterPhase(Phase phase);

  // --- Outcomes.

  NtpSyncReason JudgeOutcome(const NtpAttemptEnded& event);
  NtpSyncReason ReasonOfFailure() const;
  ProvenBurst ProveNow(const std::vector<NtpExchange>& exchanges);
  // After a contradiction of `liar`: publishes what another domain has proved in the same attempt. False:
  // there is none.
  bool PublishAnother(const std::string& liar);
  // False: the burst proves nothing, and nothing is published.
  bool Publish(const std::string& domain, NtpResult result, const ProvenBurst& burst);
  // Takes what the bursts of this attempt tell of the oscillator's frequency.
  void NoteFrequency(const NtpAttemptEnded& event);
  // From now on the reading assumes no more of the oscillator than the options say, and what the kernel's
  // correction changed by before its sync.
  void ForgetFrequencyLimits();
  // What must stay as it is from one attempt to the next.
  MachineState StateNow() const;
  void PublishStatus(NtpClockStatus status);
  void ForgetBursts();
  void OnWitnessesJudged(const NtpWitnessReport& report);
  // Tells everybody who waits, and plans the next sync.
  void Finish(NtpSyncReason reason);
  void PlanAfter(NtpSyncReason reason);

  // --- Schedule.

  static constexpr int64_t kNever = base::TimeDelta::Max().InMicroseconds();
  void SyncAt(int64_t ticks_us);
  // For users and events: now, unless that happens so often that the servers must be spared. Then as soon as
  // that is over.
  void SyncSoon();
  void EndWaiting(NtpSyncReason reason, uint64_t attempt);
  void EndOverdueSyncs(int64_t now_ticks_us);
  bool HasSomebodyToAsk() const;
  void ArmTimer();
  void OnTimer(uint64_t number);
  void OnClockSet();
  void NoteSleep();
  void OnNetworkUp();
  int64_t interval_us() const;
  int64_t FreshForNs() const;

  // --- Names.

  void AddNames(const std::vector<std::string>& names);
  void AskNames();
  void OnNamesAsked();

  void Post(std::function<void()> task, int64_t delay_us = 0);

  NtpTimeManager& manager_;
  SharedClock& shared_;
  const Done on_outcome_;
  const OnWitnesses on_witnesses_;
  Witnesses witnesses_{
      shared_, [this](std::function<void()> task, int64_t delay_us) { Post(std::move(task), delay_us); },
      [this](const NtpWitnessReport& report) { OnWitnessesJudged(report); }};

  NtpClockOptions options_;
  bool is_running_ = false;
  std::unique_ptr<core::MachineWatch> watch_;
  std::map<std::string, std::unique_ptr<base::VmClock>> vm_clocks_;  // by path; kept once opened

  Phase phase_ = Phase::kIdle;
  int64_t phase_ticks_us_ = 0;  // when it was entered
  uint64_t watchdog_number_ = 0;
  bool is_attempt_wanted_ = false;  // one is to have an outcome, however often it is cut off
  uint32_t cut_off_count_ = 0;      // in a row
  uint32_t endless_count_ = 0;      // attempts in a row that took too long
  uint64_t attempt_number_ = 0;
  int64_t attempt_ticks_us_ = 0;  // when the last one was requested or begun
  // The steady ticks from which on SyncSoon has had no attempt: it is ahead of the clock by 16 s for each of
  // the last ones.
  int64_t spared_ticks_us_ = 0;
  AttemptTally tally_;
  std::set<net::IPEndPoint> asked_;                         // addresses of this attempt
  std::map<std::string, std::vector<NtpExchange>> bursts_;  // by domain: what its burst has brought
  std::map<std::string, ProvenBurst> proven_;               // by domain: its last burst of this attempt
  MachineDrift drift_;
  FrequencyHistory frequency_;
  uint64_t clock_source_ = 0;  // as it was read last
  int64_t burst_marker_ = 0;   // the disruption marker when the bursts began

  ClockSnapshot snapshot_;  // as it was published
  uint32_t failures_ = 0;   // attempts in a row without a result
  // The last result, published or not.
  NtpSyncReason result_reason_ = NtpSyncReason::kStopped;
  int64_t result_ticks_us_ = 0;
  int64_t frequency_ppb_ = 0;               // the kernel's correction as it was read last
  int64_t growth_ppb_ = 0;                  // rho of the burst under way, as if its frequency were not known
  int64_t kernel_change_ppb_ = 0;           // the part of it that the kernel's correction has changed by
  int64_t snapshot_kernel_change_ppb_ = 0;  // the same of the published burst

  int64_t sync_ticks_us_ = kNever;
  int64_t names_ticks_us_ = kNever;
  int64_t network_ticks_us_ = 0;     // before that, the network's return changes nothing
  int64_t timer_ticks_us_ = kNever;  // of the one timer that is armed
  uint64_t timer_number_ = 0;

  std::vector<std::string> names_;  // that have no address yet, each once, in the order of the servers
  uint32_t name_tries_ = 0;
  bool has_servers_ = false;  // the manager knows a domain, as far as was heard
  bool is_asking_names_ = false;
  bool is_asking_again_ = false;          // names were added meanwhile
  std::vector<std::string> asked_names_;  // those that are being looked up
  std::set<std::string> unresolved_;      // of them, those that have no address

  struct WaitingSync {
    int64_t deadline_ticks_us;
    Done done;
  };
  std::vector<WaitingSync> waiting_;

  base::WeakPtrOwner<Keeper> weak_owner_{this};
};

}  // namespace skorra
