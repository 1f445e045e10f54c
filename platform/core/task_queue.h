// SPDX-License-Identifier: Apache-2.0

// One thread's queue of closures: a seam with a real and a simulated implementation.
#pragma once

#include "../base/callback.h"
#include "../base/location.h"
#include "../base/time.h"

namespace core {
inline namespace skorra_ntp {

// Runs closures one at a time on one thread, in posting order; a delayed closure joins that order when its
// delay has passed, never earlier, and closures due at the same instant run in posting order. Delays are
// measured on the steady clock. A closure that is cancelled when its turn comes is dropped. Posting is
// allowed from any thread, also from a task of the same queue, and never blocks on a running task.
class TaskQueue {
 public:
  virtual ~TaskQueue() = default;

  // Runs `task` as soon as possible.
  virtual void PostTask(const base::Location& from, base::OnceCallback<void()>&& task) = 0;

  // Runs `task` once `delay` has passed; a delay of zero or less is that of `PostTask`.
  virtual void PostDelayedTask(const base::Location& from, base::OnceCallback<void()>&& task,
                               base::TimeDelta delay) = 0;

  // True when the caller runs as a task of this queue.
  virtual bool IsCurrent() const = 0;
};

}  // namespace skorra_ntp
}  // namespace core
