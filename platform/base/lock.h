// SPDX-License-Identifier: Apache-2.0

// A mutual-exclusion lock and its scoped guard. Not recursive. A process may be forked at any moment: the
// data that a lock guards is whole in the child, and the lock can be taken there (fork.h).
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "../base/fork.h"
#include "../base/thread_annotations.h"

namespace base {
inline namespace skorra_ntp {

class SKORRA_CAPABILITY("lock") Lock {
 public:
  Lock() { internal::AllLocks::Add(this); }
  ~Lock() { internal::AllLocks::Remove(this); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Acquire() SKORRA_ACQUIRE() {
    mutex_.lock();
    // In this order: a thread that only waits for the lock holds up no fork.
    while (!internal::TryEnter()) {
      mutex_.unlock();
      internal::YieldToFork();
      mutex_.lock();
    }
    holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }

  // Does not wait. Returns true if the lock was taken; it may fail without reason while a fork is coming.
  bool TryAcquire() SKORRA_TRY_ACQUIRE(true) {
    if (!mutex_.try_lock()) {
      return false;
    }
    if (!internal::TryEnter()) {
      mutex_.unlock();
      return false;
    }
    holder_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
  }

  void Release() SKORRA_RELEASE() {
    holder_.store(std::thread::id(), std::memory_order_relaxed);
    mutex_.unlock();
    internal::Leave();
  }

 private:
  friend class internal::AllLocks;

  std::mutex mutex_;
  std::atomic<std::thread::id> holder_{};
  Lock* next_ = nullptr;  // in the list of all locks
};

// Holds `lock` for its own lifetime.
class SKORRA_SCOPED_CAPABILITY AutoLock {
 public:
  explicit AutoLock(Lock& lock) SKORRA_ACQUIRE(lock) : lock_(lock) { lock_.Acquire(); }
  ~AutoLock() SKORRA_RELEASE() { lock_.Release(); }
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;

 private:
  Lock& lock_;
};

}  // namespace skorra_ntp
}  // namespace base
