// A mutual-exclusion lock and its scoped guard. Not recursive.
#pragma once

#include <mutex>

namespace base {

class Lock {
 public:
  Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Acquire() { mutex_.lock(); }
  // Without waiting; true when the lock was taken.
  bool TryAcquire() { return mutex_.try_lock(); }
  void Release() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
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

}  // namespace base
