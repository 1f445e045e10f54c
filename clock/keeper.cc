// SPDX-License-Identifier: Apache-2.0
#include "clock/keeper.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "clock/interval.h"
#include "clock/schedule.h"
#include "ntp/ntp_attempt_control.h"
#include "platform/base/clock.h"
#include "platform/base/int_math.h"
#include "platform/base/location.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/base/random.h"
#include "platform/config/base_cfg.h"
#include "platform/config/config_center.h"
#include "platform/core/thread_manager.h"
#include "platform/metrics/key_metrics.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

using base::kUsPerSecond;

constexpr char kSourcePath[] = "clock/keeper";

// How often the keeper looks after a manager that is not idle, and how long an attempt may take: one whose
// servers are all silent takes up to 30 s.
constexpr int64_t kWatchdogUs = 5 * kUsPerSecond;
constexpr int64_t kAttemptLimitUs = 40 * kUsPerSecond;
// How often the network's return ends the wait after failures.
constexpr int64_t kNetworkRestUs = 60 * kUsPerSecond;
// A start that was cut off is made again at once, and from the second time on after this, doubling to 5 s.
constexpr int64_t kFirstRestartUs = 100000;
constexpr int64_t kMaxRestartUs = 5 * kUsPerSecond;

std::shared_ptr<core::TaskQueue> Queue() {
  return core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1,
                                           base::Optional<core::ThreadOption>());
}

// How many attempts users and events may bring in a row.
constexpr int64_t kAttemptsAtOnce = 3;

bool IsResult(NtpSyncReason reason) {
  return reason == NtpSyncReason::kOk || reason == NtpSyncReason::kInaccurate;
}

// Microseconds since 1970 of the end of the day of `time_us`.
int64_t EndOfDayUs(int64_t time_us) {
  constexpr int64_t kDayUs = 24 * 3600 * kUsPerSecond;
  return (time_us / kDayUs + 1) * kDayUs;
}

}  // namespace

Keeper::Keeper(NtpTimeManager& manager, SharedClock& shared, Done on_outcome, OnWitnesses on_witnesses)
    : manager_(manager),
      shared_(shared),
      on_outcome_(std::move(on_outcome)),
      on_witnesses_(std::move(on_witnesses)) {}

Keeper::~Keeper() = default;

void Keeper::Post(std::function<void()> task, int64_t delay_us) {
  const auto queue = Queue();
  if (queue == nullptr) {
    return;
  }
  queue->PostDelayedTask(base::Location::CreateFromHere(kSourcePath, __LINE__),
                         base::BindOnce([keeper = weak_owner_.GetWeakPtr(), task = std::move(task)] {
                           if (keeper) {
                             task();
                           }
                         }),
                         base::TimeDelta::FromMicroseconds(delay_us));
}

// --- Start and stop.

void Keeper::Start(const NtpClockOptions& options) {
  const bool was_running = is_running_;
  is_running_ = true;
  options_ = options;
  shared_.max_error_us.store(options.max_error_us, std::memory_order_relaxed);
  const bool is_disrupted = snapshot_.disruption_marker != shared_.disruption_marker();
  auto& page = vm_clocks_[options.vmclock_path];
  if (page == nullptr) {
    page = base::VmClock::Open(options.vmclock_path);
  }
  shared_.vm_clock.store(page.get(), std::memory_order_release);
  if (watch_ == nullptr) {
    OpenWatch();
  }
  if (!was_running) {
    frequency_ppb_ = base::GetKernelFrequencyPpb();
  }
  if (snapshot_.result != NtpResult::kNoResult) {
    // The options hold for the reading that there is, too.
    ForgetFrequencyLimits();
    snapshot_.fresh_for_ns = FreshForNs();
    if (!is_disrupted) {
      snapshot_.disruption_marker = shared_.disruption_marker();  // of another page, perhaps
    }
    shared_.snapshot.Publish(snapshot_);
    if (failures_ == 0 && IsResult(result_reason_)) {
      PlanAfter(result_reason_);
    }
  }
  AddServers(options.servers);
}

void Keeper::AddServers(const std::vector<std::string>& servers) {
  AddNames(servers);
  if (!is_running_) {
    return;
  }
  if (names_.empty()) {
    SyncSoon();
  } else {
    AskNames();
  }
}

void Keeper::OpenWatch() {
  watch_ = core::MachineWatch::Open(
      {.on_clock_set = [this] { OnClockSet(); }, .on_network_up = [this] { OnNetworkUp(); }});
}

void Keeper::Stop() {
  witnesses_.End();
  is_running_ = false;
  watch_.reset();
  names_.clear();
  is_attempt_wanted_ = false;
  sync_ticks_us_ = kNever;
  names_ticks_us_ = kNever;
  EndWaiting(NtpSyncReason::kStopped, 0);
  if (phase_ == Phase::kRequested || phase_ == Phase::kRunning) {
    manager_.Stop();
  }
}

void Keeper::ContinueInChild() {
  watch_.reset();     // the parent's, which is silent here
  witnesses_.Drop();  // the parent's, which hears of it
  ForgetBursts();
  phase_ = Phase::kIdle;
  timer_ticks_us_ = kNever;
  is_asking_names_ = false;
  EndWaiting(NtpSyncReason::kStopped, 0);
  if (!is_running_) {
    return;
  }
  OpenWatch();
  if (!names_.empty()) {
    AskNames();
  }
  // An attempt of the parent stays marked as running here until a stop.
  if (is_attempt_wanted_ || internal::IsNtpAttemptRequested(manager_)) {
    is_attempt_wanted_ = true;
    StopManager();
  }
  ArmTimer();
}

// --- Attempts.

void Keeper::EnterPhase(Phase phase) {
  phase_ = phase;
  phase_ticks_us_ = base::GetSteadyTimeTicks();
}

void Keeper::RequestAttempt() {
  if (!is_running_ || !HasSomebodyToAsk()) {
    if (is_running_ && !names_.empty()) {
      AskNames();
    }
    return;
  }
  is_attempt_wanted_ = true;
  sync_ticks_us_ = kNever;
  if (phase_ == Phase::kRunning || phase_ == Phase::kStopping) {
    return;  // its end, or the stop's, goes on from here
  }
  internal::RequestNtpAttempt(manager_);  // if one is requested already, that one will do
  EnterPhase(Phase::kRequested);
  attempt_ticks_us_ = phase_ticks_us_;
  ArmWatchdog();
}

void Keeper::StopManager() {
  EnterPhase(Phase::kStopping);
  manager_.Stop();
  ArmWatchdog();
}

void Keeper::ArmWatchdog() {
  const uint64_t number = ++watchdog_number_;
  Post([this, number] { OnWatchdog(number); }, kWatchdogUs);
}

void Keeper::OnWatchdog(uint64_t number) {
  if (number != watchdog_number_ || phase_ == Phase::kIdle || !is_running_) {
    return;
  }
  const bool is_too_long = base::GetSteadyTimeTicks() - phase_ticks_us_ >= kAttemptLimitUs;
  const bool is_waited_for = internal::IsNtpAttemptRequested(manager_);
  if (phase_ == Phase::kRunning && is_waited_for && !is_too_long) {
    ArmWatchdog();
    return;
  }
  base::KeyMetrics::Count("clock.stuck");
  is_attempt_wanted_ = true;
  if (is_too_long && ++endless_count_ > 1) {
    Finish(ReasonOfFailure());  // it is no accident: the next one waits as after a failure
  }
  StopManager();
}

void Keeper::OnAttemptBegun() {
  witnesses_.End();
  ++attempt_number_;
  tally_ = AttemptTally();
  EnterPhase(Phase::kRunning);
  attempt_ticks_us_ = phase_ticks_us_;
  if (!is_running_) {
    return;
  }
  if (!internal::IsNtpAttemptRequested(manager_)) {
    // A stop ran between the start and this moment: nobody waits for the attempt, and it would never end.
    base::KeyMetrics::Count("clock.stuck");
    is_attempt_wanted_ = true;
    StopManager();
    return;
  }
  ArmWatchdog();
}

void Keeper::OnBurstBegun(const NtpBurstBegun& event) {
  if (bursts_.empty()) {
    burst_marker_ = shared_.disruption_marker();
    // A correction that has just changed may be a slew itself: then the oscillator is as wrong as the change.
    const int64_t before_ppb = std::exchange(frequency_ppb_, base::GetKernelFrequencyPpb());
    kernel_change_ppb_ = std::abs(frequency_ppb_ - before_ppb);
    growth_ppb_ = int64_t{1000} * options_.frequency_error_ppm + kernel_change_ppb_;
    if (!frequency_.empty()) {
      clock_source_ = base::GetClockSource();
    }
    const MachineState state = StateNow();
    frequency_.Continue(state);
    drift_.Begin(state.at, frequency_ppb_);
  }
  bursts_[event.domain].clear();
  asked_.insert(event.server);
  witnesses_.NoteBurst(event.domain, event.server);
}

void Keeper::OnSampleAccepted(const NtpSampleAccepted& event) {
  drift_.Note(ReadClocksClosely());
  bursts_[event.domain].push_back(event.exchange);
  ++tally_.samples;
  if (snapshot_.status == NtpClockStatus::kUnknown && snapshot_.result == NtpResult::kNoResult) {
    PublishStatus(NtpClockStatus::kProvisional);
  }
}

void Keeper::OnReplyRejected(const NtpReplyRejected& event) { CountRejection(tally_, event.counter); }

void Keeper::OnDomainEvaluated(const NtpDomainEvaluated& event) {
  proven_.erase(event.domain);
  const std::vector<NtpExchange>& exchanges = bursts_[event.domain];
  if (exchanges.empty() || event.record.result == NtpResult::kNoResult) {
    return;
  }
  ProvenBurst burst = ProveNow(exchanges);
  burst.scatter_us = ScatterUs(event.samples.data() + event.first_kept, event.kept_count);
  proven_[event.domain] = burst;
}

ProvenBurst Keeper::ProveNow(const std::vector<NtpExchange>& exchanges) {
  const ClocksReading at = ReadClocksClosely();
  drift_.Note(at);
  return Prove(exchanges, at, GrowthFromPpb(growth_ppb_), drift_.drift_us());
}

void Keeper::OnAttemptEnded(const NtpAttemptEnded& event) {
  if (event.end == NtpAttemptEnd::kStopped) {
    // No outcome: OnQueueStopped, which follows, starts again. For a stop of its own the keeper has decided.
    if (phase_ != Phase::kStopping) {
      is_attempt_wanted_ = is_running_;
    }
    return;
  }
  EnterPhase(Phase::kIdle);
  NtpSyncReason reason = NtpSyncReason::kNoServer;
  if (event.end == NtpAttemptEnd::kOutcome) {
    has_servers_ = true;
    NoteFrequency(event);
    reason = JudgeOutcome(event);
  } else if (!names_.empty()) {
    reason = NtpSyncReason::kNotResolved;
  }
  ForgetBursts();
  endless_count_ = 0;
  Finish(reason);
}

void Keeper::ForgetBursts() {
  bursts_.clear();
  proven_.clear();
  asked_.clear();
  witnesses_.ForgetBursts();
}

void Keeper::OnQueueStopped() {
  witnesses_.End();
  if (clock_source_ == 0 && !frequency_.empty()) {
    clock_source_ = base::GetClockSource();  // not in the first attempt: a program may end after that
  }
  ForgetBursts();
  EnterPhase(Phase::kIdle);
  if (!is_running_ || !is_attempt_wanted_) {
    return;
  }
  if (cut_off_count_++ == 0) {
    RequestAttempt();
    return;
  }
  SyncAt(base::GetSteadyTimeTicks() + Doubled(kFirstRestartUs, cut_off_count_ - 2, kMaxRestartUs));
}

// --- Outcomes.

NtpSyncReason Keeper::ReasonOfFailure() const {
  AttemptTally tally = tally_;
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  const NtpAddressLedger& ledger = *NtpAddressLedger::GetInstance();
  for (const net::IPEndPoint& server : asked_) {
    const SendRefusal refusal = ledger.Check(server, now_ticks_us);
    tally.held_denied += refusal == SendRefusal::kDenied ? 1 : 0;
    tally.held_limited += refusal == SendRefusal::kBackOff || refusal == SendRefusal::kTooSoon ? 1 : 0;
    tally.closed_ports += ledger.WasClosedSince(server, attempt_ticks_us_) ? 1 : 0;
  }
  return ReasonWithoutResult(tally);
}

NtpSyncReason Keeper::JudgeOutcome(const NtpAttemptEnded& event) {
  const auto found = proven_.find(event.domain);
  if (event.record.result == NtpResult::kNoResult || found == proven_.end()) {
    return ReasonOfFailure();
  }
  const ProvenBurst& burst = found->second;
  if (!burst.interval) {
    base::KeyMetrics::Count("clock.disagreeing");
    return PublishAnother(event.domain) ? NtpSyncReason::kInaccurate : NtpSyncReason::kDisagreeing;
  }
  // A result that the manager did not keep may still prove more than what is known.
  const NtpClockReading reading = shared_.Read();
  const int64_t width_us = base::SaturatingSubtract(burst.interval->latest_us, burst.interval->earliest_us);
  const bool is_better = event.is_kept || !reading.has_bound() ||
                         width_us < base::SaturatingSubtract(reading.latest_us, reading.earliest_us);
  if (is_better && !Publish(event.domain, event.record.result, burst)) {
    return NtpSyncReason::kUnusable;
  }
  return event.record.result == NtpResult::kSuccess ? NtpSyncReason::kOk : NtpSyncReason::kInaccurate;
}

bool Keeper::PublishAnother(const std::string& liar) {
  for (const auto& [domain, exchanges] : bursts_) {
    // The manager's first success ends the attempt: it has not judged this one. So few exchanges as make no
    // result, or as hide a contradiction, are not used.
    if (domain == liar || exchanges.size() < kEnoughToCompare) {
      continue;
    }
    const ProvenBurst burst = ProveNow(exchanges);
    if (burst.interval && Publish(domain, NtpResult::kMaybeInaccurate, burst)) {
      return true;
    }
  }
  return false;
}

MachineState Keeper::StateNow() const {
  return {.at = ReadClocksClosely(),
          .kernel_ppb = frequency_ppb_,
          .disruption_marker = shared_.disruption_marker(),
          .clock_source = clock_source_};
}

void Keeper::NoteFrequency(const NtpAttemptEnded& event) {
  if (!frequency_.Continue(StateNow())) {
    return;
  }
  for (const auto& [domain, exchanges] : bursts_) {
    const auto found = proven_.find(domain);
    // Only the domain that the outcome is of has been judged for certain, see PublishAnother.
    if (exchanges.empty() || (domain != event.domain && exchanges.size() < kEnoughToCompare)) {
      continue;
    }
    const ProvenBurst burst = found != proven_.end() ? found->second : ProveNow(exchanges);
    if (burst.interval) {
      frequency_.Add(burst.server, {.at = burst.at,
                                    .kernel_ppb = frequency_ppb_,
                                    .proven = *burst.interval,
                                    .estimate_us = burst.estimate_us,
                                    .uncertainty_us = burst.scatter_us + kKernelStampErrorUs});
    }
  }
  frequency_.EndAttempt();
}

void Keeper::ForgetFrequencyLimits() {
  snapshot_.growth =
      GrowthFromPpb(int64_t{1000} * options_.frequency_error_ppm + snapshot_kernel_change_ppb_);
  snapshot_.prior_growth = snapshot_.growth;
  snapshot_.rate = std::clamp(snapshot_.rate, -snapshot_.growth, snapshot_.growth);
  snapshot_.middle_rate = 0;
}

bool Keeper::Publish(const std::string& domain, NtpResult result, const ProvenBurst& burst) {
  const OffsetInterval& proven = *burst.interval;
  if (proven.earliest_us <= -kMaxTimeUs || proven.latest_us >= kMaxTimeUs) {
    return false;  // the server says of itself that it may be wrong by any amount
  }
  static base::NoDestructor<std::set<std::string>> names;  // readers keep pointers to them
  ClockSnapshot snapshot;
  snapshot.status = NtpClockStatus::kSynchronized;
  snapshot.result = result;
  snapshot.clocks = burst.at.clocks;
  snapshot.reading_error_ns = burst.at.error_ns;
  snapshot.estimate_us = burst.estimate_us;
  snapshot.earliest_us = proven.earliest_us;
  snapshot.latest_us = proven.latest_us;
  snapshot.error_estimate_us = burst.scatter_us;
  snapshot.growth = GrowthFromPpb(growth_ppb_);
  snapshot.prior_growth = snapshot.growth;
  snapshot_kernel_change_ppb_ = kernel_change_ppb_;
  if (const auto frequency = frequency_.Estimate(burst.server, growth_ppb_)) {
    snapshot.earliest_us -= kGainErrorUs;
    snapshot.latest_us += kGainErrorUs;
    const int64_t middle_ppb = (frequency->lowest_ppb + frequency->highest_ppb) / 2;
    // 2: the middle was cut to a whole number, and the rates are rounded.
    const int64_t half_ppb = (frequency->highest_ppb - frequency->lowest_ppb) / 2 + 2;
    snapshot.growth = RateFromPpb(half_ppb);
    snapshot.rate = RateFromPpb(frequency->ppb);
    snapshot.middle_rate = RateFromPpb(middle_ppb);
    snapshot.frequency_ppb = frequency->ppb;
  }
  snapshot.frequency = drift_.frequency();
  snapshot.leap = burst.leap;
  snapshot.leap_us = EndOfDayUs(burst.leap_seen_us);
  snapshot.fresh_for_ns = FreshForNs();
  snapshot.disruption_marker = burst_marker_;
  snapshot.domain = names->insert(domain).first->c_str();
  if (is_running_) {
    witnesses_.Begin({.attempt = attempt_number_,
                      .domain = domain,
                      .estimate_us = snapshot.estimate_us,
                      .drift = drift_,
                      .growth = GrowthFromPpb(growth_ppb_),
                      .disruption_marker = burst_marker_},
                     bursts_, snapshot);
  }
  snapshot_ = snapshot;
  shared_.snapshot.Publish(snapshot);
  return true;
}

void Keeper::OnWitnessesJudged(const NtpWitnessReport& report) {
  witnesses_.Tell(report, snapshot_);
  shared_.snapshot.Publish(snapshot_);
  if (is_running_ && phase_ == Phase::kIdle && failures_ == 0 && IsResult(result_reason_)) {
    PlanAfter(result_reason_);  // the bound may have gone, or come back
  }
  if (on_witnesses_) {
    on_witnesses_(report);
  }
}

int64_t Keeper::FreshForNs() const {
  return interval_us() == 0 ? kMaxSpanNs : (interval_us() + std::max(kLateUs, interval_us() / 8)) * 1000;
}

void Keeper::PublishStatus(NtpClockStatus status) {
  if (snapshot_.status != status) {
    snapshot_.status = status;
    shared_.snapshot.Publish(snapshot_);
  }
}

void Keeper::Finish(NtpSyncReason reason) {
  is_attempt_wanted_ = false;
  cut_off_count_ = 0;
  if (reason == NtpSyncReason::kDisagreeing) {
    PublishStatus(NtpClockStatus::kConflicting);
  } else if (snapshot_.status == NtpClockStatus::kProvisional) {
    PublishStatus(NtpClockStatus::kUnknown);
  } else if (snapshot_.status == NtpClockStatus::kConflicting && IsResult(reason) &&
             snapshot_.result != NtpResult::kNoResult) {
    PublishStatus(NtpClockStatus::kSynchronized);  // the last replies agree again
  }
  if (IsResult(reason)) {
    failures_ = 0;
    result_reason_ = reason;
    result_ticks_us_ = base::GetSteadyTimeTicks();
  } else {
    ++failures_;
  }
  if (is_running_) {
    PlanAfter(reason);
  }
  EndWaiting(reason, attempt_number_);
  on_outcome_({reason, attempt_number_, shared_.Read()});
}

void Keeper::EndWaiting(NtpSyncReason reason, uint64_t attempt) {
  const NtpSyncOutcome outcome{reason, attempt, shared_.Read()};
  for (const WaitingSync& sync : std::exchange(waiting_, {})) {
    sync.done(outcome);
  }
}

void Keeper::EndOverdueSyncs(int64_t now_ticks_us) {
  const auto first_overdue =
      std::stable_partition(waiting_.begin(), waiting_.end(),
                            [&](const WaitingSync& sync) { return sync.deadline_ticks_us > now_ticks_us; });
  const std::vector<WaitingSync> overdue(std::make_move_iterator(first_overdue),
                                         std::make_move_iterator(waiting_.end()));
  waiting_.erase(first_overdue, waiting_.end());
  for (const WaitingSync& sync : overdue) {
    sync.done({NtpSyncReason::kTimedOut, 0, shared_.Read()});
  }
}

void Keeper::PlanAfter(NtpSyncReason reason) {
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  if (!IsResult(reason)) {
    // Without any server, the names are tried again instead.
    if (HasSomebodyToAsk()) {
      SyncAt(now_ticks_us + RetryWaitUs(std::max<uint32_t>(failures_, 1), base::RandUint64()));
    }
    return;
  }
  int64_t longest_us = interval_us();
  if (longest_us == 0 && IsBoundRefused(shared_.Read())) {
    longest_us = kInaccurateUs;  // no limit would bring a sync
  }
  if (reason == NtpSyncReason::kInaccurate && (longest_us == 0 || longest_us > kInaccurateUs)) {
    longest_us = kInaccurateUs;
  }
  const int64_t limit_wait_us =
      SyncWaitUs(0, shared_.Read().error_bound_us,
                 snapshot_.growth + std::abs(snapshot_.rate - snapshot_.middle_rate), options_.max_error_us);
  const int64_t limit_ticks_us = base::SaturatingAdd(now_ticks_us, limit_wait_us);
  const int64_t interval_ticks_us =
      longest_us == 0 ? kNever : result_ticks_us_ + std::max(longest_us, kMinIntervalUs);
  SyncAt(std::min(limit_ticks_us, interval_ticks_us));
}

// --- Schedule.

int64_t Keeper::interval_us() const {
  if (options_.interval_s != 0) {
    return options_.interval_s * kUsPerSecond;
  }
  // Only the low 32 bits count, as for the manager.
  return static_cast<uint32_t>(config::GetNumber(config::BaseCfg().ntp_sync_interval)) * kUsPerSecond;
}

void Keeper::SyncAt(int64_t ticks_us) {
  sync_ticks_us_ = ticks_us;
  ArmTimer();
}

bool Keeper::HasSomebodyToAsk() const { return has_servers_ || options_.servers.empty(); }

void Keeper::SyncSoon() {
  if (phase_ != Phase::kIdle) {
    is_attempt_wanted_ = true;
    return;
  }
  // At most kAttemptsAtOnce in a row, and on average one in kMinIntervalUs.
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  const int64_t begin_ticks_us = spared_ticks_us_ - (kAttemptsAtOnce - 1) * kMinIntervalUs;
  if (begin_ticks_us <= now_ticks_us) {
    spared_ticks_us_ = std::max(spared_ticks_us_, now_ticks_us) + kMinIntervalUs;
    RequestAttempt();
  } else if (begin_ticks_us < sync_ticks_us_) {
    spared_ticks_us_ += kMinIntervalUs;
    SyncAt(begin_ticks_us);
  }
}

// One timer serves all deadlines. It is set again only when it would come too late: one that comes too
// early finds nothing to do and sets itself again.
void Keeper::ArmTimer() {
  int64_t ticks_us = std::min(sync_ticks_us_, names_ticks_us_);
  for (const WaitingSync& sync : waiting_) {
    ticks_us = std::min(ticks_us, sync.deadline_ticks_us);
  }
  if (ticks_us >= timer_ticks_us_) {
    return;
  }
  timer_ticks_us_ = ticks_us;
  const uint64_t number = ++timer_number_;
  const int64_t wait_us = std::max<int64_t>(ticks_us - base::GetSteadyTimeTicks(), 0);
  Post([this, number] { OnTimer(number); }, wait_us);
}

void Keeper::OnTimer(uint64_t number) {
  if (number != timer_number_) {
    return;
  }
  timer_ticks_us_ = kNever;
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  EndOverdueSyncs(now_ticks_us);
  // A lookup blocks the queue: it waits until no burst is under way.
  if (names_ticks_us_ <= now_ticks_us) {
    names_ticks_us_ = kNever;
    if (phase_ == Phase::kIdle || !has_servers_) {
      AskNames();
    } else {
      names_ticks_us_ = now_ticks_us + kFirstNameRetryUs;
    }
  }
  if (sync_ticks_us_ <= now_ticks_us) {
    RequestAttempt();
  }
  ArmTimer();
}

void Keeper::OnClockSet() {
  NoteSleep();
  if (failures_ == 0) {
    SyncSoon();
  } else {
    OnNetworkUp();  // the machine may have been asleep for long
  }
}

void Keeper::OnNetworkUp() {
  // A network that comes and goes all the time does not make up for the waits between failures.
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  if (now_ticks_us < network_ticks_us_) {
    return;
  }
  network_ticks_us_ = now_ticks_us + kNetworkRestUs;
  if (!names_.empty() && !is_asking_names_) {
    name_tries_ = 0;
    AskNames();
  }
  if (failures_ > 0 || snapshot_.result == NtpResult::kNoResult) {
    failures_ = std::min<uint32_t>(failures_, 1);
    SyncSoon();
  }
}

// Each sleep may have been longer or shorter than the clocks say: a reader knows of one.
void Keeper::NoteSleep() {
  const ClocksReading now = ReadClocksClosely();
  const ClockSpans spans(snapshot_, now.clocks);
  if (snapshot_.result != NtpResult::kNoResult && HasSleptMore(snapshot_, spans, now.error_ns)) {
    snapshot_.slept_ns = spans.slept_ns();
    snapshot_.sleep_error_us += kSleepErrorUs;
    ForgetFrequencyLimits();
    snapshot_.frequency_ppb = NtpClockReading::kNoFrequency;
    shared_.snapshot.Publish(snapshot_);
  }
}

void Keeper::SyncIfReadingIsPoor() {
  const NtpClockReading reading = shared_.Read();
  // A bound that was too wide right after the sync will be so after the next one.
  const int64_t narrowest_us =
      std::max(base::SaturatingSubtract(snapshot_.latest_us, snapshot_.estimate_us),
               base::SaturatingSubtract(snapshot_.estimate_us, snapshot_.earliest_us));
  const bool is_too_wide = reading.error_bound_us > options_.max_error_us &&
                           narrowest_us < options_.max_error_us && !IsBoundRefused(reading);
  const bool is_poor = is_too_wide || reading.status == NtpClockStatus::kFreeRunning ||
                       reading.status == NtpClockStatus::kDisrupted;
  if (is_running_ && is_poor && failures_ == 0) {
    SyncSoon();
  }
}

void Keeper::Sync(int64_t limit_us, Done done) {
  if (!is_running_) {
    done({NtpSyncReason::kStopped, 0, shared_.Read()});
    return;
  }
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  if (IsResult(result_reason_) && now_ticks_us - result_ticks_us_ < kMinIntervalUs && failures_ == 0 &&
      phase_ == Phase::kIdle && shared_.Read().status == NtpClockStatus::kSynchronized) {
    done({result_reason_, attempt_number_, shared_.Read()});
    return;
  }
  waiting_.push_back({base::SaturatingAdd(now_ticks_us, std::max<int64_t>(limit_us, 0)), std::move(done)});
  ArmTimer();
  SyncSoon();
}

// --- Names.

void Keeper::AddNames(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (std::find(names_.begin(), names_.end(), name) == names_.end()) {
      names_.push_back(name);
    }
  }
}

void Keeper::AskNames() {
  names_ticks_us_ = kNever;
  if (std::exchange(is_asking_names_, true)) {
    is_asking_again_ = true;
    return;
  }
  asked_names_ = names_;
  unresolved_.clear();
  manager_.UpdateNtpTimeDomain(asked_names_);
  // The queue keeps the order: by then the update of these names has been reported.
  Post([this] { OnNamesAsked(); });
}

// Of any update, also one that the host asked for.
void Keeper::OnDomainsUpdated(const NtpDomainsUpdated& event) {
  for (const std::string& name : event.added) {
    has_servers_ = true;
    unresolved_.erase(name);
  }
  if (is_running_ && !is_asking_names_ && !event.added.empty() && snapshot_.result == NtpResult::kNoResult) {
    Post([this] { SyncSoon(); });  // the host has found somebody to ask
  }
  for (const auto& [name, reason, detail] : event.without_address) {
    const auto place = std::find(names_.begin(), names_.end(), name);
    if (reason == "bad_name" && place != names_.end()) {
      names_.erase(place);
      base::LocalLog(base::kLogFailure, kSourcePath, __LINE__, "bad server %s; it is not asked",
                     detail.c_str());
    } else if (place != names_.end()) {
      unresolved_.insert(name);
    }
  }
}

void Keeper::OnNamesAsked() {
  is_asking_names_ = false;
  if (!is_running_) {
    return;
  }
  // What was asked for and was not found wanting has an address, now or since earlier.
  const auto has_address = [this](const std::string& name) {
    const bool was_asked = std::find(asked_names_.begin(), asked_names_.end(), name) != asked_names_.end();
    return was_asked && unresolved_.count(name) == 0;
  };
  const auto first_resolved = std::stable_partition(
      names_.begin(), names_.end(), [&](const std::string& name) { return !has_address(name); });
  has_servers_ = has_servers_ || first_resolved != names_.end();
  names_.erase(first_resolved, names_.end());
  if (std::exchange(is_asking_again_, false)) {
    AskNames();
    return;
  }
  if (names_.empty()) {
    name_tries_ = 0;
  } else {
    names_ticks_us_ = base::GetSteadyTimeTicks() + NameRetryWaitUs(++name_tries_, base::RandUint64());
  }
  if (!HasSomebodyToAsk()) {
    if (phase_ == Phase::kIdle) {
      Finish(names_.empty() ? NtpSyncReason::kNoServer : NtpSyncReason::kNotResolved);
    }
  } else if (snapshot_.result == NtpResult::kNoResult || failures_ > 0) {
    SyncSoon();
  }
  ArmTimer();
}

}  // namespace skorra
