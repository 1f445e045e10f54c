// SPDX-License-Identifier: Apache-2.0

// A task queue on an event loop with a thread of its own.
//
// The posting order is kept here rather than in the event loop: a delayed closure takes its place by its
// deadline, even if the loop learns later that the deadline has passed. The thread serves the sockets between
// two rounds of tasks, and sleeps when there is no task to run; a post by another thread wakes it.
//
// The timer is a kernel timer on the boot-time clock: one that stops while the machine is suspended would be
// late by the whole sleep. It is set before a sleep, unless it is right already.
//
// Where the system does not set the timer, which a sandbox may cause, delayed tasks wait for another task to
// be posted. This is logged once in a row, and each failure counts as core.queue.timer_failed.
//
// A queue exists before its thread does: if that cannot start, tasks wait until it can.
//
// Forks: a queue belongs to the process that made it, named by its fork generation. In a child it is foreign:
// it starts nothing and drops what is posted, and its tasks and its loop are left as they were.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "platform/base/fork.h"
#include "platform/base/lock.h"
#include "platform/base/thread_annotations.h"
#include "platform/core/task_queue.h"
#include "platform/linux/event_loop.h"

namespace core {
inline namespace skorra_ntp {

class LoopTaskQueue final : public TaskQueue {
 public:
  // The queue whose thread this is; null on any other thread.
  static LoopTaskQueue* Current();

  explicit LoopTaskQueue(uint32_t fork_generation) : fork_generation_(fork_generation) {}

  // Creates the loop and its thread unless they exist or the queue is foreign. Returns an error number, or 0.
  int StartIfNeeded(const std::string& name);

  void PostTask(const base::Location& from, base::OnceCallback<void()>&& task) override;
  void PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                       base::TimeDelta delay) override;
  bool IsCurrent() const override { return Current() == this; }

  uint32_t fork_generation() const { return fork_generation_; }
  bool IsForeign() const { return fork_generation_ != base::ForkGeneration(); }
  // Only on the queue's thread.
  internal::EventLoop* event_loop();

 private:
  struct Loop {
    Loop() = default;
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    internal::EventLoop events;
    int timer = -1;
  };

  static void* ThreadMain(void* queue) noexcept;

  int CreateLoop(const std::string& name) SKORRA_REQUIRES(lock_);  // an error number, or 0
  int OpenTimer() SKORRA_REQUIRES(lock_);                          // an error number, or 0
  // Sets the timer to the first deadline.
  void ArmTimer() SKORRA_REQUIRES(lock_);
  void ReportTimerFailure(int error) SKORRA_REQUIRES(lock_);
  void MoveDueTasks() SKORRA_REQUIRES(lock_);
  void Append(base::OnceCallback<void()>&& task) SKORRA_REQUIRES(lock_);
  // Returns whether the thread may sleep; what comes after that wakes it.
  bool PrepareToSleep();
  // False on the thread itself, which a socket may have woken.
  bool IsAsleep() const SKORRA_REQUIRES(lock_) { return is_asleep_ && !IsCurrent(); }
  void RunRound();

  const uint32_t fork_generation_;
  base::Lock lock_;
  std::unique_ptr<Loop> loop_ SKORRA_GUARDED_BY(lock_);  // once its thread runs, it stays
  std::deque<base::OnceCallback<void()>> ready_ SKORRA_GUARDED_BY(lock_);
  // By deadline in steady ticks; equal ones in posting order.
  std::multimap<int64_t, base::OnceCallback<void()>> delayed_ SKORRA_GUARDED_BY(lock_);
  int64_t armed_ticks_us_ SKORRA_GUARDED_BY(lock_) = 0;     // what the timer is set to; 0: nothing
  bool is_asleep_ SKORRA_GUARDED_BY(lock_) = false;         // until its next round of tasks
  bool is_timer_failing_ SKORRA_GUARDED_BY(lock_) = false;  // the last setting of the timer failed
};

}  // namespace skorra_ntp
}  // namespace core
