// SPDX-License-Identifier: Apache-2.0

// The manager's task queue in the real world, for a test that looks at it from another thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <type_traits>

#include "platform/base/callback.h"
#include "platform/base/time.h"
#include "platform/core/thread_manager.h"
#include "testing/wait_until.h"

namespace skorra {

inline constexpr base::Location kTestLocation = base::Location::CreateFromHere("testing/ntp_queue", 1);

// Instance -1 is the manager's; a test that needs another queue picks another number.
inline std::shared_ptr<core::TaskQueue> NtpQueue(int64_t instance = -1) {
  return core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, instance, std::nullopt);
}

// Runs `function` as a task of `queue` and returns what it returns, once it has ended.
template <class Function>
auto RunOn(core::TaskQueue& queue, Function function) {
  std::packaged_task<std::invoke_result_t<Function&>()> task(std::move(function));
  auto result = task.get_future();
  queue.PostTask(kTestLocation, base::BindOnce([&task] { task(); }));
  return result.get();
}
template <class Function>
auto RunOnNtpQueue(Function function, int64_t instance = -1) {
  return RunOn(*NtpQueue(instance), std::move(function));
}

// Waits until everything has run that is due on the manager's queue within `delay_ms`; false when that takes
// longer than the patience.
inline bool DrainNtpQueue(int64_t delay_ms = 0) {
  const auto is_over = std::make_shared<std::atomic<bool>>(false);
  NtpQueue()->PostDelayedTask(kTestLocation, base::BindOnce([is_over] { is_over->store(true); }),
                              base::TimeDelta::FromMilliseconds(delay_ms));
  return WaitUntil([&] { return is_over->load(); });
}

}  // namespace skorra
