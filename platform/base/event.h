// SPDX-License-Identifier: Apache-2.0

// Something that happens once, and that a thread may wait for with a limit. A child that was forked in the
// middle of a call is not held up by it.
#pragma once

#include <errno.h>
#include <semaphore.h>
#include <stdint.h>
#include <time.h>

#include <algorithm>
#include <atomic>

#include "../base/time.h"

namespace base {
inline namespace skorra_ntp {

// The timed waits of the standard library's semaphores do not serve: with a time_t of 64 bits on a 32-bit
// machine, libstdc++ 12 gives the kernel a time of another layout than the call takes.
class Event {
 public:
  Event() { sem_init(&semaphore_, 0, 0); }
  ~Event() { sem_destroy(&semaphore_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // Any thread; further calls change nothing. A thread that waits sees what was written before.
  void Set() {
    is_set_.store(true, std::memory_order_release);
    sem_post(&semaphore_);
  }

  // Waits until it is set, for `limit_us` at the longest, and returns whether it is. One thread at a time.
  // Suspend of the machine does not count, a step of the wall clock changes nothing.
  bool WaitFor(int64_t limit_us) {
    constexpr int64_t kLongestUs = int64_t{100} * 365 * 86400 * kUsPerSecond;
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    limit_us = std::clamp<int64_t>(limit_us, 0, kLongestUs);
    const int64_t us = deadline.tv_nsec / 1000 + limit_us % kUsPerSecond;
    deadline.tv_sec += static_cast<time_t>(limit_us / kUsPerSecond + us / kUsPerSecond);
    deadline.tv_nsec = static_cast<long>(us % kUsPerSecond * 1000);
    while (!is_set_.load(std::memory_order_acquire)) {
      if (sem_clockwait(&semaphore_, CLOCK_MONOTONIC, &deadline) != 0 && errno != EINTR) {
        break;
      }
    }
    return is_set_.load(std::memory_order_acquire);
  }

 private:
  sem_t semaphore_;
  std::atomic<bool> is_set_{false};
};

}  // namespace skorra_ntp
}  // namespace base
