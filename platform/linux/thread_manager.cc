#include "platform/core/thread_manager.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <deque>
#include <map>
#include <system_error>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/linux/queue_context.h"

namespace core {

namespace {

constexpr char kLogFile[] = "platform/linux/thread_manager";
constexpr size_t kMaxThreadNameBytes = 15;

class LoopTaskQueue;

thread_local const LoopTaskQueue* t_current_queue = nullptr;
thread_local asio::io_context* t_current_context = nullptr;

// The posting order is kept here rather than in the event loop: a delayed closure takes its place among the
// others by its deadline, also when the loop learns later that it has passed. The loop is woken whenever
// there may be something to run, and between two rounds it serves the sockets.
//
// The timer is a kernel timer on the boot-time clock, because one that stops while the machine is suspended
// would be late by the whole sleep.
//
// The queue exists before its thread does: where the system refuses one, tasks wait until a later request for
// the queue finds the system willing.
class LoopTaskQueue final : public TaskQueue {
 public:
  // Creates the loop and its thread unless they exist. An error number, or 0. One thread at a time.
  int StartIfNeeded(const std::string& name);

  void PostTask(const base::Location& from, base::OnceCallback<void()>&& task) override;
  void PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                       base::TimeDelta delay) override;
  bool IsCurrent() const override { return t_current_queue == this; }

 private:
  struct Loop {
    explicit Loop(LoopTaskQueue* owner) : queue(owner) {}

    int OpenTimer();  // an error number, or 0
    void WaitForTimer();

    LoopTaskQueue* const queue;
    asio::io_context context;
    asio::posix::stream_descriptor timer{context};
  };

  static void* ThreadMain(void* loop) noexcept;

  void ArmTimer();                                    // lock_ is held
  void MoveDueTasks();                                // lock_ is held
  bool PushReady(base::OnceCallback<void()>&& task);  // lock_ is held; true when the loop must be woken
  void Wake();
  void RunRound();

  base::Lock lock_;
  // The following are under lock_; the loop, once there, stays.
  std::unique_ptr<Loop> loop_;
  std::deque<base::OnceCallback<void()>> ready_;
  std::multimap<int64_t, base::OnceCallback<void()>> delayed_;  // by deadline; equal ones in posting order
  bool is_wake_posted_ = false;                                 // a round is to come that has not begun
};

// A thread of the ordinary scheduling policy, whatever that of its creator. The host program's signal
// handlers run on its own threads: a thread inherits its creator's mask. Signals that a faulty instruction
// raises stay open, since blocking them would bypass the host's crash handler. An error number, or 0.
int StartThread(void* (*main)(void*), void* argument, const std::string& name) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attributes, SCHED_OTHER);
  sigset_t blocked;
  sigset_t previous;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
    sigdelset(&blocked, fault);
  }
  pthread_sigmask(SIG_SETMASK, &blocked, &previous);
  pthread_t thread;
  const int status = pthread_create(&thread, &attributes, main, argument);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  pthread_attr_destroy(&attributes);
  if (status == 0) {
    // The thread never ends, so its handle stays good although it is detached.
    pthread_setname_np(thread, name.substr(0, kMaxThreadNameBytes).c_str());
  }
  return status;
}

int LoopTaskQueue::StartIfNeeded(const std::string& name) {
  {
    const base::AutoLock lock(lock_);
    if (loop_ != nullptr) {
      return 0;
    }
  }
  std::unique_ptr<Loop> loop;
  try {
    loop = std::make_unique<Loop>(this);
  } catch (const std::system_error& error) {
    // The event loop reports a refused descriptor this way.
    return error.code().value();
  }
  int status = loop->OpenTimer();
  if (status == 0) {
    status = StartThread(&LoopTaskQueue::ThreadMain, loop.get(), name);
  }
  if (status != 0) {
    return status;
  }
  {
    const base::AutoLock lock(lock_);
    loop_ = std::move(loop);
    is_wake_posted_ = true;
    ArmTimer();
  }
  Wake();
  return 0;
}

int LoopTaskQueue::Loop::OpenTimer() {
  const int fd = timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  std::error_code error;
  timer.assign(fd, error);
  if (error) {
    close(fd);
    return error.value();
  }
  WaitForTimer();
  return 0;
}

void* LoopTaskQueue::ThreadMain(void* argument) noexcept {
  auto* const loop = static_cast<Loop*>(argument);
  t_current_queue = loop->queue;
  t_current_context = &loop->context;
  // The timer's wait keeps the loop busy for ever.
  loop->context.run();
  return nullptr;
}

void LoopTaskQueue::PostTask(const base::Location&, base::OnceCallback<void()>&& task) {
  bool must_wake = false;
  {
    const base::AutoLock lock(lock_);
    // Closures whose delay has passed by now joined the order before this one.
    MoveDueTasks();
    must_wake = PushReady(std::move(task));
  }
  if (must_wake) {
    Wake();
  }
}

void LoopTaskQueue::PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                                    base::TimeDelta delay) {
  if (delay <= base::TimeDelta()) {
    PostTask(from, std::move(task));
    return;
  }
  const auto now = base::TimeDelta::FromMicroseconds(base::GetSteadyTimeTicks());
  const int64_t deadline_us = (now + delay).InMicroseconds();
  const base::AutoLock lock(lock_);
  const auto place = delayed_.emplace(deadline_us, std::move(task));
  if (place == delayed_.begin()) {
    ArmTimer();
  }
}

void LoopTaskQueue::Loop::WaitForTimer() {
  timer.async_wait(asio::posix::stream_descriptor::wait_read, [this](const std::error_code& error) {
    if (error) {
      return;
    }
    uint64_t expirations = 0;
    [[maybe_unused]] const ssize_t got = read(timer.native_handle(), &expirations, sizeof expirations);
    WaitForTimer();
    {
      // It fires once: whatever it finds due, the next deadline needs it again.
      const base::AutoLock lock(queue->lock_);
      queue->ArmTimer();
    }
    queue->RunRound();
  });
}

void LoopTaskQueue::ArmTimer() {
  if (loop_ == nullptr) {
    return;
  }
  const int64_t deadline_us = delayed_.empty() ? 0 : delayed_.begin()->first;
  itimerspec when{};  // all zero disarms
  when.it_value.tv_sec = static_cast<time_t>(deadline_us / 1000000);
  when.it_value.tv_nsec = static_cast<decltype(when.it_value.tv_nsec)>(deadline_us % 1000000 * 1000);
  timerfd_settime(loop_->timer.native_handle(), TFD_TIMER_ABSTIME, &when, nullptr);
}

void LoopTaskQueue::MoveDueTasks() {
  if (delayed_.empty()) {
    return;
  }
  const auto first_later = delayed_.upper_bound(base::GetSteadyTimeTicks());
  if (first_later == delayed_.begin()) {
    return;
  }
  for (auto task = delayed_.begin(); task != first_later; ++task) {
    ready_.push_back(std::move(task->second));
  }
  delayed_.erase(delayed_.begin(), first_later);
  ArmTimer();
}

bool LoopTaskQueue::PushReady(base::OnceCallback<void()>&& task) {
  ready_.push_back(std::move(task));
  return loop_ != nullptr && !std::exchange(is_wake_posted_, true);
}

void LoopTaskQueue::Wake() {
  asio::post(loop_->context, [this] {
    {
      const base::AutoLock lock(lock_);
      is_wake_posted_ = false;
    }
    RunRound();
  });
}

// Runs what was ready when the round began; what the tasks post comes in the next one.
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
      std::move(task).Run();
    }
  }
}

struct Registry {
  base::Lock lock;
  std::map<std::pair<BusinessID, int64_t>, std::shared_ptr<LoopTaskQueue>> queues;
};

}  // namespace

asio::io_context* internal::CurrentQueueContext() { return t_current_context; }

std::shared_ptr<TaskQueue> ThreadManager::GetTaskQueue(BusinessID business, int64_t instance,
                                                       base::Optional<ThreadOption> option) {
  static base::NoDestructor<Registry> registry;
  const std::string name = option ? option->name : "skorra-" + std::to_string(static_cast<int32_t>(business));
  std::shared_ptr<LoopTaskQueue> queue;
  int status = 0;
  {
    const base::AutoLock lock(registry->lock);
    std::shared_ptr<LoopTaskQueue>& place = registry->queues[{business, instance}];
    if (place == nullptr) {
      place = std::make_shared<LoopTaskQueue>();
    }
    queue = place;
    status = queue->StartIfNeeded(name);
  }
  if (status != 0) {
    base::LocalLog(1, kLogFile, __LINE__, "the system refuses the thread '%s', its tasks wait: %s",
                   name.c_str(), std::system_category().message(status).c_str());
  }
  return queue;
}

}  // namespace core
