// A mutual-exclusion lock and its scoped guard. Not recursive.
//
// A process may be forked at any moment, also by a thread that knows nothing of this library: what a lock
// protects is whole in the child, and the lock can be taken there (the functions at the end).
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

namespace base {
inline namespace skorra_ntp {

namespace internal {

class AllLocks;

// While a thread prepares a fork the others stand back: one that takes a lock again and again would hardly
// ever be met without it.
inline std::atomic<bool> is_fork_coming{false};
void StandBack();

}  // namespace internal

class Lock {
 public:
  Lock();
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Acquire() {
    if (internal::is_fork_coming.load(std::memory_order_relaxed)) {
      internal::StandBack();
    }
    mutex_.lock();
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }
  // Without waiting; true when the lock was taken.
  bool TryAcquire() {
    if (!mutex_.try_lock()) {
      return false;
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
  }
  void Release() {
    owner_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
  }

 private:
  friend class internal::AllLocks;

  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  // The list of all locks, under a mutex of its own.
  Lock* previous_ = nullptr;
  Lock* next_ = nullptr;
  bool is_held_for_fork_ = false;
};

// Holds `lock` for its own lifetime.
class AutoLock {
 public:
  explicit AutoLock(Lock& lock) : lock_(lock) { lock_.Acquire(); }
  ~AutoLock() { lock_.Release(); }
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;

 private:
  Lock& lock_;
};

namespace internal {

// What surrounds a fork, on the forking thread. The first takes every lock but those that the thread holds
// already, in no particular order. A lock that its holder does not give up for about 100 ms (it calls a
// function of the host program that does not return) is not waited for any longer:
// the child then finds it free, and what it protects as its holder left it.
void HoldLocksForFork();
void ReleaseLocksInParent();
void ReleaseLocksInChild();

}  // namespace internal

}  // namespace skorra_ntp
}  // namespace base
