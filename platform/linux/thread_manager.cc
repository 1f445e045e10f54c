#include "platform/core/thread_manager.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <system_error>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/linux/queue_context.h"

namespace core {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/linux/thread_manager";
constexpr size_t kMaxThreadNameBytes = 15;
// Doubled from the first to the longest.
constexpr int kFirstRetryPauseMs = 100;
constexpr int kLongestRetryPauseMs = 5000;

class LoopTaskQueue;

std::atomic<uint32_t> g_fork_count{0};

// Before anything of this library is used: nobody knows when the host program forks.
[[maybe_unused]] const int g_fork_handlers_status =
    pthread_atfork(base::internal::HoldLocksForFork, base::internal::ReleaseLocksInParent, [] {
      g_fork_count.fetch_add(1, std::memory_order_relaxed);
      base::internal::ReleaseLocksInChild();
    });

// Of a queue's thread.
thread_local LoopTaskQueue* t_current_queue = nullptr;
thread_local asio::io_context* t_current_context = nullptr;
thread_local uint32_t t_fork_count = 0;  // of the process that the loop belongs to

// The posting order is kept here rather than in the event loop: a delayed closure takes its place among the
// others by its deadline, also when the loop learns later that it has passed. The loop is woken whenever
// there may be something to run, and between two rounds it serves the sockets.
//
// The timer is a kernel timer on the boot-time clock, because one that stops while the machine is suspended
// would be late by the whole sleep.
//
// The queue exists before its thread does: where the system refuses one, tasks wait until a later request for
// the queue finds the system willing. So it is in a child of the process, where the thread is missing: the
// parent's tasks and loop are left as they were, and the child begins anew.
class LoopTaskQueue final : public TaskQueue {
 public:
  // Creates the loop and its thread unless they exist. An error number, or 0. One thread at a time.
  int StartIfNeeded(const std::string& name);

  void PostTask(const base::Location& from, base::OnceCallback<void()>&& task) override;
  void PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                       base::TimeDelta delay) override;
  bool IsCurrent() const override { return t_current_queue == this; }

  // What was done about a refusal by the system. In one process there is only one: it is over with the loop.
  struct Refusal {
    bool is_told = false;
    bool is_retried = false;  // a thread tries to get the loop
  };
  Refusal& refusal();  // under the registry's lock

  base::Lock& handler_lock() { return handler_lock_; }

 private:
  struct Loop {
    explicit Loop(LoopTaskQueue* owner) : queue(owner) {}

    int OpenTimer();  // an error number, or 0
    void WaitForTimer();

    LoopTaskQueue* const queue;
    asio::io_context context;
    asio::posix::stream_descriptor timer{context};
  };

  // What there is to do in one process.
  struct Work {
    const uint32_t fork_count = internal::ForkCount();
    std::unique_ptr<Loop> loop;  // once there, it stays
    std::deque<base::OnceCallback<void()>> ready;
    std::multimap<int64_t, base::OnceCallback<void()>> delayed;  // by deadline; equal ones in posting order
    bool is_wake_posted = false;                                 // a round is to come that has not begun
    Refusal refusal;
  };

  static void* ThreadMain(void* loop) noexcept;

  Work& work();                                        // lock_ is held
  void ArmTimer();                                     // lock_ is held
  void MoveDueTasks();                                 // lock_ is held
  Loop* PushReady(base::OnceCallback<void()>&& task);  // lock_ is held; the loop if it must be woken
  void Wake(Loop* loop);
  void RunRound();

  base::Lock handler_lock_;
  base::Lock lock_;
  std::list<Work> works_{1};  // under lock_; one for each process down to this one, the parent's untouched
};

// Keeps the shared object that holds this code in memory until the process ends: its threads never end, so
// dlclose of a plugin that links this library must not unmap it. Nothing to do for the program itself, which
// the loader lists without a name. To be called without a lock of ours: the constructors of an object that is
// being loaded run under the loader's lock, and may call this library.
void StayLoaded() {
  static std::atomic<bool> is_done{false};
  if (is_done.load(std::memory_order_relaxed)) {
    return;
  }
  Dl_info info;
  void* map = nullptr;
  if (dladdr1(reinterpret_cast<const void*>(&StayLoaded), &info, &map, RTLD_DL_LINKMAP) != 0 &&
      map != nullptr && static_cast<const link_map*>(map)->l_name[0] != '\0' &&
      dlopen(static_cast<const link_map*>(map)->l_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) == nullptr) {
    dlerror();  // nothing can be done, and the host program must not find our message
  }
  is_done.store(true, std::memory_order_relaxed);
}

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
    // The thread ends late or never, so its handle is good although it is detached.
    pthread_setname_np(thread, name.substr(0, kMaxThreadNameBytes).c_str());
  }
  return status;
}

LoopTaskQueue::Work& LoopTaskQueue::work() {
  if (works_.back().fork_count != internal::ForkCount()) {
    works_.emplace_back();
  }
  return works_.back();
}

int LoopTaskQueue::StartIfNeeded(const std::string& name) {
  {
    const base::AutoLock lock(lock_);
    // In a child that a task forked the current thread is still that of the queue.
    if (work().loop != nullptr || IsCurrent()) {
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
  Loop* const started = loop.get();
  {
    const base::AutoLock lock(lock_);
    work().loop = std::move(loop);
    work().is_wake_posted = true;
    ArmTimer();
  }
  Wake(started);
  return 0;
}

LoopTaskQueue::Refusal& LoopTaskQueue::refusal() {
  const base::AutoLock lock(lock_);
  return work().refusal;
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
  t_fork_count = internal::ForkCount();
  try {
    // The timer's wait keeps the loop busy for ever.
    loop->context.run();
  } catch (const internal::LeaveLoop&) {
    // The only thread of a child that a task forked ends here, and the child with it.
  }
  return nullptr;
}

void LoopTaskQueue::PostTask(const base::Location&, base::OnceCallback<void()>&& task) {
  Loop* loop_to_wake = nullptr;
  {
    const base::AutoLock lock(lock_);
    // Closures whose delay has passed by now joined the order before this one.
    MoveDueTasks();
    loop_to_wake = PushReady(std::move(task));
  }
  if (loop_to_wake != nullptr) {
    Wake(loop_to_wake);
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
  const auto place = work().delayed.emplace(deadline_us, std::move(task));
  if (place == work().delayed.begin()) {
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
  const Work& now = work();
  if (now.loop == nullptr) {
    return;
  }
  const int64_t deadline_us = now.delayed.empty() ? 0 : now.delayed.begin()->first;
  itimerspec when{};  // all zero disarms
  when.it_value.tv_sec = static_cast<time_t>(deadline_us / base::kUsPerSecond);
  when.it_value.tv_nsec =
      static_cast<decltype(when.it_value.tv_nsec)>(deadline_us % base::kUsPerSecond * 1000);
  timerfd_settime(now.loop->timer.native_handle(), TFD_TIMER_ABSTIME, &when, nullptr);
}

void LoopTaskQueue::MoveDueTasks() {
  Work& now = work();
  if (now.delayed.empty()) {
    return;
  }
  const auto first_later = now.delayed.upper_bound(base::GetSteadyTimeTicks());
  if (first_later == now.delayed.begin()) {
    return;
  }
  for (auto task = now.delayed.begin(); task != first_later; ++task) {
    now.ready.push_back(std::move(task->second));
  }
  now.delayed.erase(now.delayed.begin(), first_later);
  ArmTimer();
}

LoopTaskQueue::Loop* LoopTaskQueue::PushReady(base::OnceCallback<void()>&& task) {
  Work& now = work();
  now.ready.push_back(std::move(task));
  return now.loop != nullptr && !std::exchange(now.is_wake_posted, true) ? now.loop.get() : nullptr;
}

void LoopTaskQueue::Wake(Loop* loop) {
  asio::post(loop->context, [this] {
    {
      const base::AutoLock lock(lock_);
      work().is_wake_posted = false;
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
    count = work().ready.size();
  }
  for (; count > 0; --count) {
    base::OnceCallback<void()> task;
    {
      const base::AutoLock lock(lock_);
      task = std::move(work().ready.front());
      work().ready.pop_front();
    }
    if (!task.IsCancelled()) {
      internal::RunHandler([&] { std::move(task).Run(); });
    }
  }
}

struct Registry {
  base::Lock lock;
  std::map<std::pair<BusinessID, int64_t>, std::shared_ptr<LoopTaskQueue>> queues;
};

Registry& AllQueues() {
  static base::NoDestructor<Registry> registry;
  return *registry;
}

// A loop that the system refused, to be tried again and again: whoever waits for a task of the queue has no
// reason to call a second time.
struct Retry {
  const std::shared_ptr<LoopTaskQueue> queue;
  const std::string name;
};

void* RetryMain(void* argument) noexcept {
  const std::unique_ptr<Retry> retry(static_cast<Retry*>(argument));
  for (int pause_ms = kFirstRetryPauseMs;; pause_ms = std::min(2 * pause_ms, kLongestRetryPauseMs)) {
    poll(nullptr, 0, pause_ms);
    const base::AutoLock lock(AllQueues().lock);
    if (retry->queue->StartIfNeeded(retry->name) == 0) {
      return nullptr;
    }
  }
}

// Whether the refusal is news. Where the retry's thread is refused as well, the next call tries again.
bool RetryInBackground(const std::shared_ptr<LoopTaskQueue>& queue, const std::string& name) {
  const base::AutoLock lock(AllQueues().lock);  // so that the thread does not end before it is named
  LoopTaskQueue::Refusal& refusal = queue->refusal();
  if (!refusal.is_retried) {
    auto retry = std::make_unique<Retry>(Retry{queue, name});
    if (StartThread(&RetryMain, retry.get(), name) == 0) {
      [[maybe_unused]] const Retry* const passed_on = retry.release();  // to the thread
      refusal.is_retried = true;
    }
  }
  return !std::exchange(refusal.is_told, true);
}

}  // namespace

asio::io_context* internal::CurrentQueueContext() {
  return t_fork_count == ForkCount() ? t_current_context : nullptr;
}

uint32_t internal::ForkCount() { return g_fork_count.load(std::memory_order_relaxed); }

base::Lock* internal::CurrentHandlerLock() {
  return t_current_queue == nullptr ? nullptr : &t_current_queue->handler_lock();
}

std::shared_ptr<TaskQueue> ThreadManager::GetTaskQueue(BusinessID business, int64_t instance,
                                                       base::Optional<ThreadOption> option) {
  Registry& registry = AllQueues();
  const std::string name = option ? option->name : "skorra-" + std::to_string(static_cast<int32_t>(business));
  std::shared_ptr<LoopTaskQueue> queue;
  int status = 0;
  StayLoaded();
  {
    const base::AutoLock lock(registry.lock);
    std::shared_ptr<LoopTaskQueue>& place = registry.queues[{business, instance}];
    if (place == nullptr) {
      place = std::make_shared<LoopTaskQueue>();
    }
    queue = place;
    status = queue->StartIfNeeded(name);
  }
  if (status != 0 && RetryInBackground(queue, name)) {
    base::LocalLog(base::kLogFailure, kLogFile, __LINE__, "cannot start thread '%s'; its tasks wait: %s",
                   name.c_str(), std::system_category().message(status).c_str());
  }
  return queue;
}

}  // namespace skorra_ntp
}  // namespace core
