// SPDX-License-Identifier: Apache-2.0
#include "ntp/ntp_sync_events.h"

#include <algorithm>
#include <utility>

#include "ntp/sync_reports.h"
#include "platform/base/lock.h"
#include "platform/base/no_destructor.h"

namespace skorra {
namespace {

using Listeners = std::vector<std::shared_ptr<NtpSyncListener>>;

struct Registry {
  base::Lock lock;
  Listeners listeners SKORRA_GUARDED_BY(lock);
};

Registry& GetRegistry() {
  static base::NoDestructor<Registry> registry;
  return *registry;
}

Listeners::iterator Find(Listeners& listeners, const NtpSyncListener* listener) {
  return std::find_if(listeners.begin(), listeners.end(),
                      [&](const auto& entry) { return entry.get() == listener; });
}

}  // namespace

namespace internal {

std::atomic<size_t> sync_listener_count{0};

Listeners GetSyncListeners() {
  Registry& registry = GetRegistry();
  const base::AutoLock lock(registry.lock);
  return registry.listeners;
}

}  // namespace internal

const char* NtpAttemptEndName(NtpAttemptEnd end) {
  switch (end) {
    case NtpAttemptEnd::kOutcome:
      return "outcome";
    case NtpAttemptEnd::kNoServer:
      return "no_server";
    case NtpAttemptEnd::kStopped:
      return "stopped";
  }
  return "unknown";
}

void AddNtpSyncListener(std::shared_ptr<NtpSyncListener> listener) {
  if (listener == nullptr) {
    return;
  }
  Registry& registry = GetRegistry();
  const base::AutoLock lock(registry.lock);
  if (Find(registry.listeners, listener.get()) == registry.listeners.end()) {
    registry.listeners.push_back(std::move(listener));
  }
  internal::sync_listener_count.store(registry.listeners.size(), std::memory_order_relaxed);
}

void RemoveNtpSyncListener(const NtpSyncListener* listener) {
  Registry& registry = GetRegistry();
  std::shared_ptr<NtpSyncListener> removed;  // let go after the lock: its destructor may come back here
  const base::AutoLock lock(registry.lock);
  if (const auto entry = Find(registry.listeners, listener); entry != registry.listeners.end()) {
    removed = std::move(*entry);
    registry.listeners.erase(entry);
  }
  internal::sync_listener_count.store(registry.listeners.size(), std::memory_order_relaxed);
}

}  // namespace skorra
