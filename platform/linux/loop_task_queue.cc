// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/loop_task_queue.h"

#include <errno.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/int_math.h"
#include "platform/base/log.h"
#include "platform/base/time.h"
#include "platform/linux/queue_context.h"
#include "platform/linux/start_thread.h"
#include "platform/metrics/key_metrics.h"

namespace core {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/linux/loop_task_queue";

// Set on each queue's own thread; null elsewhere.
thread_local LoopTaskQueue* t_current_queue = nullptr;

}  // namespace

LoopTaskQueue* LoopTaskQueue::Current() { return t_current_queue; }

LoopTaskQueue::Loop::~Loop() {
  if (timer >= 0) {
    close(timer);
  }
}

int LoopTaskQueue::StartIfNeeded(const std::string& name) {
  const base::AutoLock lock(lock_);
  if (loop_ != nullptr || IsForeign()) {
    return 0;
  }
  const int status = CreateLoop(name);
  if (status != 0) {
    loop_ = nullptr;
  }
  return status;
}

int LoopTaskQueue::CreateLoop(const std::string& name) {
  loop_ = std::make_unique<Loop>();
  int status = loop_->events.Open();
  if (status == 0) {
    status = OpenTimer();
  }
  return status != 0 ? status : internal::StartThread(&LoopTaskQueue::ThreadMain, this, name);
}

int LoopTaskQueue::OpenTimer() {
  loop_->timer = timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (loop_->timer < 0) {
    return errno;
  }
  // Nothing reads the timer: setting it again is enough.
  return loop_->events.Watch(loop_->timer, internal::EventLoop::When::kNewlyReadable, [this](uint32_t) {
    const base::AutoLock lock(lock_);
    armed_ticks_us_ = 0;
  });
}

void* LoopTaskQueue::ThreadMain(void* argument) noexcept {
  auto* const queue = static_cast<LoopTaskQueue*>(argument);
  t_current_queue = queue;
  internal::EventLoop* const events = queue->event_loop();
  for (;;) {
    queue->RunRound();
    events->RunDeferred();
    events->Serve(queue->PrepareToSleep());
  }
}

internal::EventLoop* LoopTaskQueue::event_loop() {
  const base::AutoLock lock(lock_);
  return &loop_->events;
}

void LoopTaskQueue::PostTask(const base::Location&, base::OnceCallback<void()>&& task) {
  const base::AutoLock lock(lock_);
  if (IsForeign()) {
    return;
  }
  // Closures whose delay has passed by now joined the order before this one.
  MoveDueTasks();
  Append(std::move(task));
}

void LoopTaskQueue::Append(base::OnceCallback<void()>&& task) {
  ready_.push_back(std::move(task));
  if (IsAsleep()) {
    is_asleep_ = false;
    loop_->events.Wake();
  }
}

void LoopTaskQueue::PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                                    base::TimeDelta delay) {
  if (delay <= base::TimeDelta()) {
    PostTask(from, std::move(task));
    return;
  }
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  const int64_t deadline_ticks_us = base::SaturatingAdd(now_ticks_us, delay.InMicroseconds());
  const base::AutoLock lock(lock_);
  if (IsForeign()) {
    return;
  }
  const auto place = delayed_.emplace(deadline_ticks_us, std::move(task));
  if (place == delayed_.begin() && !IsCurrent()) {
    ArmTimer();
  }
}

bool LoopTaskQueue::PrepareToSleep() {
  const base::AutoLock lock(lock_);
  MoveDueTasks();
  if (ready_.empty()) {
    ArmTimer();  // if that fails, there is a task: the report
  }
  is_asleep_ = ready_.empty();
  return is_asleep_;
}

void LoopTaskQueue::ArmTimer() {
  if (loop_ == nullptr || delayed_.empty() || delayed_.begin()->first == armed_ticks_us_) {
    return;
  }
  const int64_t deadline_ticks_us = delayed_.begin()->first;
  itimerspec when{};
  when.it_value.tv_sec = static_cast<time_t>(deadline_ticks_us / base::kUsPerSecond);
  when.it_value.tv_nsec =
      static_cast<decltype(when.it_value.tv_nsec)>(deadline_ticks_us % base::kUsPerSecond * 1000);
  if (timerfd_settime(loop_->timer, TFD_TIMER_ABSTIME, &when, nullptr) == 0) {
    armed_ticks_us_ = deadline_ticks_us;
    is_timer_failing_ = false;
  } else {
    armed_ticks_us_ = 0;
    ReportTimerFailure(errno);
  }
}

void LoopTaskQueue::ReportTimerFailure(int error) {
  base::KeyMetrics::Count("core.queue.timer_failed");
  if (std::exchange(is_timer_failing_, true)) {
    return;
  }
  // On the queue's thread, without the lock: the log's sink may be a function that posts a task.
  Append(base::BindOnce([error] {
    base::LocalLog(base::kLogFailure, kLogFile, __LINE__,
                   "cannot set a timer (timerfd_settime: %s), so delayed tasks do not run and no sync can "
                   "finish; a sandbox must allow this system call",
                   std::system_category().message(error).c_str());
  }));
}

void LoopTaskQueue::MoveDueTasks() {
  if (delayed_.empty()) {
    return;
  }
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  const auto first_later = delayed_.upper_bound(now_ticks_us);
  for (auto task = delayed_.begin(); task != first_later; ++task) {
    ready_.push_back(std::move(task->second));
  }
  delayed_.erase(delayed_.begin(), first_later);
}

// Runs the tasks that are ready when the round begins; those that they post come in the next one.
void LoopTaskQueue::RunRound() {
  size_t count = 0;
  {
    const base::AutoLock lock(lock_);
    is_asleep_ = false;
    MoveDueTasks();
    count = ready_.size();
  }
  for (; count > 0; --count) {
    base::OnceCallback<void()> task;
    {
      const base::AutoLock lock(lock_);
      task = std::move(ready_.front());
      ready_.pop_front();
    }
    if (!task.IsCancelled()) {
      internal::RunHandler([&] { std::move(task).Run(); });
    }
  }
}

internal::EventLoop* internal::CurrentEventLoop() {
  return t_current_queue == nullptr || t_current_queue->IsForeign() ? nullptr : t_current_queue->event_loop();
}

bool internal::IsOnForeignLoop() { return t_current_queue != nullptr && t_current_queue->IsForeign(); }

}  // namespace skorra_ntp
}  // namespace core
