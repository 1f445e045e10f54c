#include "platform/base/lock.h"

#include <chrono>
#include <new>

namespace base {
inline namespace skorra_ntp {

namespace internal {

namespace {

using std::chrono::steady_clock;

// One try is a look at every lock with a short wait for each; after a failed one all are given back, so that
// whoever holds one of them and waits for another gets on.
constexpr std::chrono::milliseconds kPatience{100};
constexpr std::chrono::microseconds kPause{100};
constexpr int kMaxYields = 20;
// Once for each lock that a thread takes meanwhile, so that nothing depends on who else stands back.
constexpr std::chrono::milliseconds kStandBack{1};

}  // namespace

// The list of all locks of the process.
class AllLocks {
 public:
  static void Add(Lock* lock) {
    const std::lock_guard guard(mutex);
    lock->next_ = first;
    if (first != nullptr) {
      first->previous_ = lock;
    }
    first = lock;
  }

  static void Remove(Lock* lock) {
    const std::lock_guard guard(mutex);
    (lock->previous_ != nullptr ? lock->previous_->next_ : first) = lock->next_;
    if (lock->next_ != nullptr) {
      lock->next_->previous_ = lock->previous_;
    }
  }

  // Returns with `mutex` held.
  static void Hold() {
    const auto deadline = steady_clock::now() + kPatience;
    while (true) {
      is_fork_coming.store(true, std::memory_order_relaxed);
      mutex.lock();
      if (TryHold() || steady_clock::now() >= deadline) {
        return;
      }
      Release();
      std::this_thread::sleep_for(kPause);
    }
  }

  static void Release() {
    is_fork_coming.store(false, std::memory_order_relaxed);
    for (Lock* lock = first; lock != nullptr; lock = lock->next_) {
      if (lock->is_held_for_fork_) {
        lock->is_held_for_fork_ = false;
        lock->mutex_.unlock();
      }
    }
    mutex.unlock();
  }

  // A lock that could not be had belongs to a thread that the child does not have.
  static void Renew() {
    for (Lock* lock = first; lock != nullptr; lock = lock->next_) {
      if (!lock->is_held_for_fork_ && !IsMine(*lock)) {
        new (&lock->mutex_) std::mutex;
        lock->owner_.store({}, std::memory_order_relaxed);
      }
    }
  }

 private:
  // Takes what it can get; false when that is not all.
  static bool TryHold() {
    bool is_all = true;
    for (Lock* lock = first; lock != nullptr; lock = lock->next_) {
      is_all = (IsMine(*lock) || TryHold(*lock)) && is_all;
    }
    return is_all;
  }

  static bool TryHold(Lock& lock) {
    for (int yields_left = kMaxYields; !lock.mutex_.try_lock(); --yields_left) {
      if (yields_left == 0) {
        return false;
      }
      std::this_thread::yield();
    }
    lock.is_held_for_fork_ = true;
    return true;
  }

  static bool IsMine(const Lock& lock) {
    return lock.owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }

  static constinit std::mutex mutex;
  static constinit Lock* first;
};

constinit std::mutex AllLocks::mutex;
constinit Lock* AllLocks::first = nullptr;

void StandBack() { std::this_thread::sleep_for(kStandBack); }

void HoldLocksForFork() { AllLocks::Hold(); }

void ReleaseLocksInParent() { AllLocks::Release(); }

void ReleaseLocksInChild() {
  AllLocks::Renew();
  AllLocks::Release();
}

}  // namespace internal

Lock::Lock() { internal::AllLocks::Add(this); }

Lock::~Lock() { internal::AllLocks::Remove(this); }

}  // namespace skorra_ntp
}  // namespace base
