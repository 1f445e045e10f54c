// Hands out the process's task queues.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/base/optional.h"
#include "platform/core/task_queue.h"

namespace core {

// Who a queue belongs to.
enum class BusinessID : int32_t {
  kNtpTime = 701,
};

struct ThreadOption {
  // At most 15 bytes (the kernel's limit); longer names are cut.
  std::string name;
};

class ThreadManager {
 public:
  // The queue of `business`: the same object for the same pair of business and instance, never null and
  // never destroyed, with one thread of its own. `instance` tells apart several users of one business; -1 is
  // the business's common queue. `option` matters only while the thread does not exist yet; without it the
  // thread is named "skorra-" and the business number. Any thread. When the system refuses another thread or
  // descriptor, that is logged at level 1, and tasks wait until a later call can start the thread.
  static std::shared_ptr<TaskQueue> GetTaskQueue(BusinessID business, int64_t instance,
                                                 base::Optional<ThreadOption> option);
};

}  // namespace core
