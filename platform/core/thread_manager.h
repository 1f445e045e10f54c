// SPDX-License-Identifier: Apache-2.0

// Hands out the process's task queues.
//
// The threads of the queues run until the process ends. A plugin that links this library into itself
// therefore stays in memory from the first call on: dlclose succeeds and unloads nothing, and a later dlopen
// finds the plugin as it was, with its threads and its state.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "../base/optional.h"
#include "../core/task_queue.h"

namespace core {
inline namespace skorra_ntp {

// Who a queue belongs to.
enum class BusinessID : int32_t {
  kNtpTime = 701,
  kNames = 702,  // lookups that nobody waits for
};

struct ThreadOption {
  // At most 15 bytes (the kernel's limit); longer names are cut.
  std::string name;
};

class ThreadManager {
 public:
  // The queue of `business`: the same object for the same pair of business and instance, never destroyed,
  // with one thread of its own. Null only in a simulated world that was told to have no queues. `instance`
  // tells apart several users of one business; -1 is the business's common queue. `option` matters only while
  // the thread does not exist yet; without it the thread is named "skorra-" and the business number. Any
  // thread.
  //
  // If the thread cannot start (no threads or descriptors), this is logged once at level 1, tasks queue up,
  // and starting is retried in the background and on each call.
  //
  // Forks: a queue serves the process that made it. A forked child asks again and gets an empty queue with a
  // new thread. In a child that a task forked, the thread of that task gets the parent's queues: they run
  // nothing there.
  static std::shared_ptr<TaskQueue> GetTaskQueue(BusinessID business, int64_t instance,
                                                 base::Optional<ThreadOption> option);
};

}  // namespace skorra_ntp
}  // namespace core
