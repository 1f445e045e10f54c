// SPDX-License-Identifier: Apache-2.0
#include "platform/core/thread_manager.h"

#include <dlfcn.h>
#include <link.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/base/fork.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/base/thread_annotations.h"
#include "platform/linux/loop_task_queue.h"
#include "platform/linux/start_thread.h"

namespace core {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/linux/thread_manager";
// Exponential back-off between attempts to start a thread.
constexpr int kFirstRetryPauseMs = 100;
constexpr int kLongestRetryPauseMs = 5000;

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

// Whether the failure to start a thread was logged, and whether a thread retries it.
struct StartFailure {
  bool is_logged = false;
  bool is_retried = false;
};

struct Entry {
  std::shared_ptr<LoopTaskQueue> queue;
  StartFailure failure;
};

// A child has queues of its own and leaves those of its parent alone.
using Key = std::tuple<uint32_t, BusinessID, int64_t>;  // fork generation, business, instance

struct Registry {
  base::Lock lock;
  std::map<Key, Entry> entries SKORRA_GUARDED_BY(lock);
};

Registry& AllQueues() {
  static base::NoDestructor<Registry> registry;
  return *registry;
}

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

// Retries the start in the background: a caller that waits for a task has no reason to ask for the queue
// again. If the thread for that cannot start either, the next request tries again.
void RetryInBackground(Entry& entry, const std::string& name) {
  auto retry = std::make_unique<Retry>(Retry{entry.queue, name});
  if (internal::StartThread(&RetryMain, retry.get(), name) == 0) {
    [[maybe_unused]] const Retry* const passed_on = retry.release();  // to the thread
    entry.failure.is_retried = true;
  }
}

}  // namespace

std::shared_ptr<TaskQueue> ThreadManager::GetTaskQueue(BusinessID business, int64_t instance,
                                                       base::Optional<ThreadOption> option) {
  StayLoaded();
  // In a child that a task forked, this is still the thread of the parent's queue.
  const LoopTaskQueue* const current = LoopTaskQueue::Current();
  const uint32_t generation = current != nullptr ? current->fork_generation() : base::ForkGeneration();
  const std::string name = option ? option->name : "skorra-" + std::to_string(static_cast<int32_t>(business));
  std::shared_ptr<LoopTaskQueue> queue;
  int error_to_log = 0;
  {
    Registry& registry = AllQueues();
    const base::AutoLock lock(registry.lock);
    Entry& entry = registry.entries[{generation, business, instance}];
    if (entry.queue == nullptr) {
      entry.queue = std::make_shared<LoopTaskQueue>(generation);
    }
    queue = entry.queue;
    const int error = queue->StartIfNeeded(name);
    if (error != 0 && !entry.failure.is_retried) {
      RetryInBackground(entry, name);
    }
    if (error != 0 && !std::exchange(entry.failure.is_logged, true)) {
      error_to_log = error;
    }
  }
  if (error_to_log != 0) {
    base::LocalLog(base::kLogFailure, kLogFile, __LINE__,
                   "cannot start thread '%s'; its tasks wait until a later try succeeds: %s", name.c_str(),
                   std::system_category().message(error_to_log).c_str());
  }
  return queue;
}

}  // namespace skorra_ntp
}  // namespace core
