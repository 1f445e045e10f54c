// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/loop_task_queue.h"

#include <errno.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <asio/post.hpp>
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

int LoopTaskQueue::StartIfNeeded(const std::string& name) {
  const base::AutoLock lock(lock_);
  if (loop_ != nullptr || IsForeign()) {
    return 0;
  }
  const int status = CreateLoop(name);
  if (status != 0) {
    loop_ = nullptr;
    return status;
  }
  ArmTimer();
  Wake();
  return 0;
}

int LoopTaskQueue::CreateLoop(const std::string& name) {
  try {
    loop_ = std::make_unique<Loop>();
  } catch (const std::system_error& error) {
    return error.code().value();  // no descriptor for the event loop
  }
  const int status = OpenTimer();
  return status != 0 ? status : internal::StartThread(&LoopTaskQueue::ThreadMain, this, name);
}

int LoopTaskQueue::OpenTimer() {
  const int fd = timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  std::error_code error;
  loop_->timer.assign(fd, error);
  if (error) {
    close(fd);
    return error.value();
  }
  WaitForTimer();
  return 0;
}

void* LoopTaskQueue::ThreadMain(void* queue) noexcept {
  t_current_queue = static_cast<LoopTaskQueue*>(queue);
  // The wait for the timer keeps the loop busy forever.
  t_current_queue->context()->run();
  return nullptr;
}

asio::io_context* LoopTaskQueue::context() {
  const base::AutoLock lock(lock_);
  return loop_ == nullptr ? nullptr : &loop_->context;
}

void LoopTaskQueue::PostTask(const base::Location&, base::OnceCallback<void()>&& task) {
  const base::AutoLock lock(lock_);
  if (IsForeign()) {
    return;
  }
  // Closures whose delay has passed by now joined the order before this one.
  MoveDueTasks();
  ready_.push_back(std::move(task));
  Wake();
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
  if (place == delayed_.begin()) {
    ArmTimer();
  }
}

void LoopTaskQueue::WaitForTimer() {
  loop_->timer.async_wait(asio::posix::stream_descriptor::wait_read, [this](const std::error_code& error) {
    if (error) {
      base::LocalLog(base::kLogFailure, kLogFile, __LINE__,
                     "a thread's timer fails; its tasks wait forever: %s", error.message().c_str());
      return;
    }
    {
      const base::AutoLock lock(lock_);
      uint64_t expirations = 0;
      [[maybe_unused]] const ssize_t got =
          read(loop_->timer.native_handle(), &expirations, sizeof expirations);
      WaitForTimer();
      // It fires once: arm it for the next deadline, whatever is due now.
      ArmTimer();
    }
    RunRound();
  });
}

void LoopTaskQueue::ArmTimer() {
  if (loop_ == nullptr) {
    return;
  }
  const int64_t deadline_ticks_us = delayed_.empty() ? 0 : delayed_.begin()->first;
  itimerspec when{};  // all zero disarms
  when.it_value.tv_sec = static_cast<time_t>(deadline_ticks_us / base::kUsPerSecond);
  when.it_value.tv_nsec =
      static_cast<decltype(when.it_value.tv_nsec)>(deadline_ticks_us % base::kUsPerSecond * 1000);
  if (timerfd_settime(loop_->timer.native_handle(), TFD_TIMER_ABSTIME, &when, nullptr) == 0) {
    is_timer_failing_ = false;
  } else {
    ReportTimerFailure(errno);
  }
}

void LoopTaskQueue::ReportTimerFailure(int error) {
  base::KeyMetrics::Count("core.queue.timer_failed");
  if (std::exchange(is_timer_failing_, true)) {
    return;
  }
  // On the queue's thread, without the lock: the log's sink may be a function that posts a task.
  asio::post(loop_->context, [error] {
    internal::RunHandler([error] {
      base::LocalLog(base::kLogFailure, kLogFile, __LINE__,
                     "cannot set a timer (timerfd_settime: %s), so delayed tasks do not run and no sync can "
                     "finish; a sandbox must allow this system call",
                     std::system_category().message(error).c_str());
    });
  });
}

void LoopTaskQueue::MoveDueTasks() {
  if (delayed_.empty()) {
    return;
  }
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  const auto first_later = delayed_.upper_bound(now_ticks_us);
  if (first_later == delayed_.begin()) {
    return;
  }
  for (auto task = delayed_.begin(); task != first_later; ++task) {
    ready_.push_back(std::move(task->second));
  }
  delayed_.erase(delayed_.begin(), first_later);
  ArmTimer();
}

void LoopTaskQueue::Wake() {
  if (loop_ == nullptr || std::exchange(is_wake_posted_, true)) {
    return;
  }
  asio::post(loop_->context, [this] {
    {
      const base::AutoLock lock(lock_);
      is_wake_posted_ = false;
    }
    RunRound();
  });
}

// Runs the tasks that are ready when the round begins; those that they post come in the next one.
void LoopTaskQueue::RunRound() {
  size_t count = 0;
  {
    const base::AutoLock lock(lock_);
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

asio::io_context* internal::CurrentQueueContext() {
  return t_current_queue == nullptr || t_current_queue->IsForeign() ? nullptr : t_current_queue->context();
}

bool internal::IsOnForeignLoop() { return t_current_queue != nullptr && t_current_queue->IsForeign(); }

}  // namespace skorra_ntp
}  // namespace core
