// SPDX-License-Identifier: Apache-2.0
#include "clock/ntp_clock.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>
#include <variant>

#include "clock/keeper.h"
#include "clock/reading.h"
#include "clock/schedule.h"
#include "clock/shared_clock.h"
#include "clock/witnesses.h"
#include "platform/base/clock.h"
#include "platform/base/event.h"
#include "platform/base/fork.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/base/thread_annotations.h"
#include "platform/core/thread_manager.h"

namespace skorra {

struct internal::ClockObserver {
  using OnOutcome = std::function<void(const NtpSyncOutcome&)>;
  using OnWitnesses = std::function<void(const NtpWitnessReport&)>;

  explicit ClockObserver(std::variant<OnOutcome, OnWitnesses> function) : observer(std::move(function)) {}

  // On the manager's queue, so never twice at the same time. Does nothing for an observer of something else.
  template <class Event>
  void Run(const Event& event) {
    const auto* const function = std::get_if<std::function<void(const Event&)>>(&observer);
    if (function == nullptr || !*function) {
      return;
    }
    generation.store(base::ForkGeneration());
    runner.store(std::this_thread::get_id());
    is_running.store(true);
    if (!is_cancelled.load()) {
      (*function)(event);
    }
    runner.store(std::thread::id());
    is_running.store(false);
    is_running.notify_all();
  }

  // After this no call begins; waits for one under way, unless this is inside it, or it runs in the parent
  // that forked this process.
  void Cancel() {
    is_cancelled.store(true);
    while (is_running.load() && runner.load() != std::this_thread::get_id() &&
           generation.load() == base::ForkGeneration()) {
      is_running.wait(true);
    }
  }

  const std::variant<OnOutcome, OnWitnesses> observer;
  std::atomic<uint32_t> generation{0};
  std::atomic<std::thread::id> runner{};
  std::atomic<bool> is_running{false};
  std::atomic<bool> is_cancelled{false};
};

namespace {

constexpr char kSourcePath[] = "clock/ntp_clock";

// How often a read lets the manager make its own checks.
constexpr int64_t kManagerReadUs = 10 * 60 * base::kUsPerSecond;

// Of SharedClock::work_ticks_us while the clock does not run.
constexpr int64_t kNoWork = std::numeric_limits<int64_t>::max();

constinit SharedClock shared;
// From these steady ticks on a poor reading asks for a sync.
constinit std::atomic<int64_t> poor_ticks_us{0};

// A thread that waits for a reading.
struct Waiter {
  explicit Waiter(int64_t max_error) : max_error_us(max_error) {}

  // Under the lock of the process.
  void Tell() {
    if (!std::exchange(is_told, true)) {
      is_over.Set();
    }
  }

  const int64_t max_error_us;
  bool is_told = false;
  base::Event is_over;
};

bool IsReached(const Waiter& waiter, const NtpClockReading& reading) {
  return reading.has_time() && reading.error_bound_us <= waiter.max_error_us;
}

// The process's keeper, and who hears of it.
struct Process {
  base::Lock lock;
  std::vector<std::shared_ptr<Waiter>> waiters SKORRA_GUARDED_BY(lock);
  std::vector<std::weak_ptr<internal::ClockObserver>> observers SKORRA_GUARDED_BY(lock);
  std::atomic<bool> is_running{false};
  std::atomic<uint32_t> fork_generation{base::ForkGeneration()};
  const std::shared_ptr<Keeper> keeper;

  Process();
  void OnOutcome(const NtpSyncOutcome& outcome);
  void TellWaiters(const NtpClockReading& reading);
  // Calls those observers that the event is for.
  template <class Event>
  void RunObservers(const Event& event);
  std::shared_ptr<internal::ClockObserver> Add(std::shared_ptr<internal::ClockObserver> observer) {
    const base::AutoLock guard(lock);
    observers.push_back(observer);
    return observer;
  }
};

Process& TheProcess() {
  static base::NoDestructor<Process> process;
  return *process;
}

Process::Process()
    : keeper(std::make_shared<Keeper>(
          *NtpTimeManager::GetInstance(), shared,
          [this](const NtpSyncOutcome& outcome) { OnOutcome(outcome); },
          [this](const NtpWitnessReport& report) {
            TellWaiters(shared.Read());  // the bound may have come back
            RunObservers(report);
          })) {
  AddNtpSyncListener(keeper);
  // The child's first read finds work: a keeper of its own.
  pthread_atfork(nullptr, nullptr, [] {
    if (shared.work_ticks_us.load(std::memory_order_relaxed) != kNoWork) {
      shared.work_ticks_us.store(0, std::memory_order_relaxed);
    }
  });
}

void Process::OnOutcome(const NtpSyncOutcome& outcome) {
  TellWaiters(outcome.reading);
  RunObservers(outcome);
}

void Process::TellWaiters(const NtpClockReading& reading) {
  const base::AutoLock guard(lock);
  for (const auto& waiter : waiters) {
    if (IsReached(*waiter, reading)) {
      waiter->Tell();
    }
  }
}

template <class Event>
void Process::RunObservers(const Event& event) {
  std::vector<std::shared_ptr<internal::ClockObserver>> entries;
  {
    const base::AutoLock guard(lock);
    const auto is_gone = [](const auto& observer) { return observer.expired(); };
    observers.erase(std::remove_if(observers.begin(), observers.end(), is_gone), observers.end());
    for (const auto& observer : observers) {
      if (auto entry = observer.lock(); entry != nullptr) {
        entries.push_back(std::move(entry));
      }
    }
  }
  for (const auto& entry : entries) {
    entry->Run(event);
  }
}

std::shared_ptr<core::TaskQueue> Queue() {
  return core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1,
                                           base::Optional<core::ThreadOption>());
}

bool IsOnQueue() {
  const auto queue = Queue();
  return queue != nullptr && queue->IsCurrent();
}

// Runs `task` with the keeper on the queue.
void Post(std::function<void(Keeper&)> task) {
  if (const auto queue = Queue(); queue != nullptr) {
    queue->PostTask(base::Location::CreateFromHere(kSourcePath, __LINE__),
                    base::BindOnce([task = std::move(task)] { task(*TheProcess().keeper); }));
  }
}

// The keeper runs on a queue of this process, not on that of a parent.
void ContinueInChild() {
  Process& process = TheProcess();
  uint32_t generation = process.fork_generation.load(std::memory_order_relaxed);
  const uint32_t current = base::ForkGeneration();
  if (generation != current && process.fork_generation.compare_exchange_strong(generation, current)) {
    Post([](Keeper& keeper) { keeper.ContinueInChild(); });
  }
}

// Whether a sync may make it better.
bool IsPoor(const NtpClockReading& reading) {
  const bool is_too_wide = reading.error_bound_us > shared.max_error_us.load(std::memory_order_relaxed);
  return (is_too_wide && !IsBoundRefused(reading)) || reading.status > NtpClockStatus::kSynchronized;
}

[[gnu::noinline]] void ReportPoorReading(int64_t now_ticks_us) {
  int64_t due_ticks_us = poor_ticks_us.load(std::memory_order_relaxed);
  if (due_ticks_us <= now_ticks_us &&
      poor_ticks_us.compare_exchange_strong(due_ticks_us, now_ticks_us + kMinIntervalUs)) {
    Post([](Keeper& keeper) { keeper.SyncIfReadingIsPoor(); });
  }
}

// What a read does that finds work. One of the threads that find it does it.
[[gnu::noinline]] void DoWork(int64_t now_ticks_us) {
  int64_t due_ticks_us = shared.work_ticks_us.load(std::memory_order_relaxed);
  if (due_ticks_us <= now_ticks_us &&
      shared.work_ticks_us.compare_exchange_strong(due_ticks_us, now_ticks_us + kManagerReadUs)) {
    ContinueInChild();
    NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970();
    // For programs that call nothing but `now`.
    if (TheProcess().is_running.load(std::memory_order_relaxed) && IsPoor(shared.Read())) {
      ReportPoorReading(now_ticks_us);
    }
  }
}

// Limits an option to its range, and says so.
template <class Number>
void Limit(const char* name, Number& value, Number min, Number max) {
  const Number limited = std::clamp(value, min, max);
  if (limited != value) {
    base::LocalLog(base::kLogFailure, kSourcePath, __LINE__,
                   "option %s is %lld, and %lld is used: it is %lld to %lld", name,
                   static_cast<long long>(value), static_cast<long long>(limited),
                   static_cast<long long>(min), static_cast<long long>(max));
    value = limited;
  }
}

// Outcomes and a stop tell the waiter as long as this exists.
class WaiterScope {
 public:
  explicit WaiterScope(std::shared_ptr<Waiter> waiter) : waiter_(std::move(waiter)) {
    const base::AutoLock guard(process_.lock);
    process_.waiters.push_back(waiter_);
  }
  ~WaiterScope() {
    const base::AutoLock guard(process_.lock);
    process_.waiters.erase(std::find(process_.waiters.begin(), process_.waiters.end(), waiter_));
  }
  WaiterScope(const WaiterScope&) = delete;
  WaiterScope& operator=(const WaiterScope&) = delete;

 private:
  Process& process_ = TheProcess();
  const std::shared_ptr<Waiter> waiter_;
};

bool WaitFor(int64_t max_error_us, NtpClock::duration limit) {
  const auto waiter = std::make_shared<Waiter>(max_error_us);
  const WaiterScope scope(waiter);
  const auto is_reached = [&] { return IsReached(*waiter, NtpClock::Read()); };
  if (!is_reached() && TheProcess().is_running.load(std::memory_order_relaxed) && !IsOnQueue()) {
    Post([](Keeper& keeper) { keeper.SyncForReader(); });
    waiter->is_over.WaitFor(limit.count());
  }
  return is_reached();
}

}  // namespace

SharedClock& internal::ProcessClock() { return shared; }

const char* NtpSyncReasonName(NtpSyncReason reason) {
  switch (reason) {
    case NtpSyncReason::kOk:
      return "ok";
    case NtpSyncReason::kInaccurate:
      return "inaccurate";
    case NtpSyncReason::kNoServer:
      return "no_server";
    case NtpSyncReason::kNotResolved:
      return "not_resolved";
    case NtpSyncReason::kRefused:
      return "refused";
    case NtpSyncReason::kSilent:
      return "silent";
    case NtpSyncReason::kLimited:
      return "limited";
    case NtpSyncReason::kUnusable:
      return "unusable";
    case NtpSyncReason::kTooFewSamples:
      return "too_few_samples";
    case NtpSyncReason::kDisagreeing:
      return "disagreeing";
    case NtpSyncReason::kStopped:
      return "stopped";
    case NtpSyncReason::kTimedOut:
      return "timed_out";
  }
  return "unknown";
}

const char* NtpClockStatusName(NtpClockStatus status) {
  switch (status) {
    case NtpClockStatus::kUnknown:
      return "unknown";
    case NtpClockStatus::kProvisional:
      return "provisional";
    case NtpClockStatus::kSynchronized:
      return "synchronized";
    case NtpClockStatus::kFreeRunning:
      return "free_running";
    case NtpClockStatus::kDisrupted:
      return "disrupted";
    case NtpClockStatus::kConflicting:
      return "conflicting";
  }
  return "unknown";
}

const char* NtpClockAgreementName(NtpClockAgreement agreement) {
  switch (agreement) {
    case NtpClockAgreement::kUnchecked:
      return "unchecked";
    case NtpClockAgreement::kAgrees:
      return "agrees";
    case NtpClockAgreement::kConflict:
      return "conflict";
    case NtpClockAgreement::kOutvoted:
      return "outvoted";
  }
  return "unknown";
}

NtpClockSubscription::~NtpClockSubscription() { Cancel(); }

NtpClockSubscription& NtpClockSubscription::operator=(NtpClockSubscription&& other) noexcept {
  if (this != &other) {
    Cancel();
    observer_ = std::move(other.observer_);
  }
  return *this;
}

void NtpClockSubscription::Cancel() {
  if (observer_ != nullptr) {
    observer_->Cancel();
    observer_.reset();
  }
}

void NtpClock::Start(const NtpClockOptions& options) {
  NtpClockOptions limited = options;
  if (limited.interval_s != 0) {
    Limit<uint32_t>("interval_s", limited.interval_s, kMinIntervalUs / base::kUsPerSecond, UINT32_MAX);
  }
  Limit<int64_t>("max_error_us", limited.max_error_us, 1, NtpClockReading::kNoBound);
  Limit<uint32_t>("frequency_error_ppm", limited.frequency_error_ppm, 1, 100000);
  Process& process = TheProcess();
  ContinueInChild();
  // Under the lock, so that a stop at the same time comes as a whole before or after this.
  const base::AutoLock guard(process.lock);
  // First of all: without memory for the task, nothing has changed.
  Post([limited](Keeper& keeper) { keeper.Start(limited); });
  process.is_running.store(true, std::memory_order_relaxed);
  shared.work_ticks_us.store(base::GetSteadyTimeTicks() + kManagerReadUs, std::memory_order_relaxed);
}

void NtpClock::AddServers(std::vector<std::string> servers) {
  ContinueInChild();
  Post([servers = std::move(servers)](Keeper& keeper) { keeper.AddServers(servers); });
}

void NtpClock::Stop() {
  Process& process = TheProcess();
  ContinueInChild();
  const base::AutoLock guard(process.lock);
  Post([](Keeper& keeper) { keeper.Stop(); });
  process.is_running.store(false, std::memory_order_relaxed);
  shared.work_ticks_us.store(kNoWork, std::memory_order_relaxed);
  for (const auto& waiter : process.waiters) {
    waiter->Tell();
  }
}

bool NtpClock::IsRunning() noexcept {
  return shared.work_ticks_us.load(std::memory_order_relaxed) != kNoWork;
}

NtpClock::time_point NtpClock::now() noexcept {
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  const int64_t estimate_us = shared.EstimateUs(now_ticks_us);
  if (now_ticks_us >= shared.work_ticks_us.load(std::memory_order_relaxed)) {
    DoWork(now_ticks_us);
  }
  return time_point(duration(estimate_us));
}

NtpClockReading NtpClock::Read() noexcept {
  int64_t now_ticks_us = 0;
  const NtpClockReading reading = shared.Read(&now_ticks_us);
  if (now_ticks_us >= shared.work_ticks_us.load(std::memory_order_relaxed)) {
    DoWork(now_ticks_us);
  }
  if (IsPoor(reading) && TheProcess().is_running.load(std::memory_order_relaxed)) {
    ReportPoorReading(now_ticks_us);
  }
  return reading;
}

void NtpClock::Sync(duration limit, std::function<void(const NtpSyncOutcome&)> done) {
  if (!done) {
    done = [](const NtpSyncOutcome&) {};
  }
  ContinueInChild();
  if (!TheProcess().is_running.load(std::memory_order_relaxed) || Queue() == nullptr) {
    done({NtpSyncReason::kStopped, 0, Read()});
    return;
  }
  Post([limit, done = std::move(done)](Keeper& keeper) { keeper.Sync(limit.count(), done); });
}

std::future<NtpSyncOutcome> NtpClock::Sync(duration limit) {
  const auto promise = std::make_shared<std::promise<NtpSyncOutcome>>();
  Sync(limit, [promise](const NtpSyncOutcome& outcome) { promise->set_value(outcome); });
  return promise->get_future();
}

bool NtpClock::WaitUntilSynced(duration limit) {
  return WaitUntilBound(duration(NtpClockReading::kNoBound - 1), limit);
}

bool NtpClock::WaitUntilBound(duration max_error, duration limit) {
  ContinueInChild();
  return WaitFor(max_error.count(), limit);
}

NtpClockSubscription NtpClock::Observe(std::function<void(const NtpSyncOutcome&)> observer) {
  return NtpClockSubscription(
      TheProcess().Add(std::make_shared<internal::ClockObserver>(std::move(observer))));
}

NtpClockSubscription NtpClock::ObserveWitnesses(std::function<void(const NtpWitnessReport&)> observer) {
  return NtpClockSubscription(
      TheProcess().Add(std::make_shared<internal::ClockObserver>(std::move(observer))));
}

}  // namespace skorra
