// SPDX-License-Identifier: Apache-2.0
#include "platform/base/fork.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "platform/base/lock.h"

namespace base {
inline namespace skorra_ntp {

namespace internal {

namespace {

constexpr int kPauseUs = 100;
constexpr int64_t kMaxWaitMs = 100;

constinit std::atomic<uint32_t> g_generation{0};
constinit std::atomic<bool> g_is_fork_coming{false};
constinit std::atomic<int> g_threads_inside{0};
constinit thread_local int t_depth = 0;  // of this thread's scopes and locks

constinit std::mutex g_list_mutex;
constinit Lock* g_first_lock = nullptr;  // under g_list_mutex, as every lock's next_

void Pause() { usleep(kPauseUs); }

// The kernel's clock, also where a simulation stands behind clock.h: a real fork waits in real time.
int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int CountThisThread() { return t_depth > 0 ? 1 : 0; }

void BeforeFork() {
  while (g_is_fork_coming.exchange(true)) {
    Pause();  // another thread forks
  }
  const int64_t deadline_ms = NowMs() + kMaxWaitMs;
  while (g_threads_inside > CountThisThread() && NowMs() < deadline_ms) {
    Pause();
  }
  g_list_mutex.lock();
}

void LetThreadsEnter() {
  g_list_mutex.unlock();
  g_is_fork_coming = false;
}

void AfterForkInChild() {
  g_generation.fetch_add(1, std::memory_order_relaxed);
  g_threads_inside = CountThisThread();
  AllLocks::ResetOrphaned();
  LetThreadsEnter();
}

// Registered before anything of this library is used: nobody knows when the host program forks.
[[maybe_unused]] const int g_status = pthread_atfork(BeforeFork, LetThreadsEnter, AfterForkInChild);

}  // namespace

bool IsForkComing() { return g_is_fork_coming; }

bool TryEnter() {
  if (t_depth == 0) {
    // In this order: either this thread sees that a fork is coming, or the fork sees this thread.
    ++g_threads_inside;
    if (g_is_fork_coming) {
      --g_threads_inside;
      return false;
    }
  }
  ++t_depth;
  return true;
}

void Leave() {
  if (--t_depth == 0) {
    --g_threads_inside;
  }
}

void YieldToFork() {
  while (g_is_fork_coming) {
    Pause();
  }
}

void AllLocks::Add(Lock* lock) {
  const std::lock_guard guard(g_list_mutex);
  lock->next_ = std::exchange(g_first_lock, lock);
}

void AllLocks::Remove(Lock* lock) {
  const std::lock_guard guard(g_list_mutex);
  Lock** place = &g_first_lock;
  while (*place != lock) {
    place = &(*place)->next_;
  }
  *place = lock->next_;
}

void AllLocks::ResetOrphaned() {
  for (Lock* lock = g_first_lock; lock != nullptr; lock = lock->next_) {
    if (HeldByThisThread(*lock)) {
      continue;
    }
    if (lock->mutex_.try_lock()) {
      lock->mutex_.unlock();
    } else {
      new (&lock->mutex_) std::mutex;
    }
    lock->holder_.store({}, std::memory_order_relaxed);
  }
}

bool AllLocks::HeldByThisThread(const Lock& lock) {
  return lock.holder_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

}  // namespace internal

uint32_t ForkGeneration() { return internal::g_generation.load(std::memory_order_relaxed); }

NoForkScope::NoForkScope() {
  while (!internal::TryEnter()) {
    internal::YieldToFork();
  }
}

NoForkScope::~NoForkScope() { internal::Leave(); }

ForkAllowedScope::ForkAllowedScope() : depth_(internal::t_depth) {
  if (depth_ > 0) {
    internal::t_depth = 1;
    internal::Leave();
  }
}

ForkAllowedScope::~ForkAllowedScope() {
  while (depth_ > 0 && !internal::TryEnter()) {
    internal::YieldToFork();
  }
  internal::t_depth = depth_;
}

}  // namespace skorra_ntp
}  // namespace base
