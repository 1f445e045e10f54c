// SPDX-License-Identifier: Apache-2.0
#include "platform/metrics/key_metrics.h"

#include <functional>

#include "platform/base/lock.h"
#include "platform/base/no_destructor.h"
#include "platform/base/thread_annotations.h"

namespace base {
inline namespace skorra_ntp {

namespace {

struct Counters {
  Lock lock;
  std::map<uint64_t, uint64_t> by_key SKORRA_GUARDED_BY(lock);
  std::map<std::string, uint64_t, std::less<>> by_name SKORRA_GUARDED_BY(lock);
};

Counters& AllCounters() {
  static NoDestructor<Counters> counters;
  return *counters;
}

}  // namespace

void KeyMetrics::CountPV(uint64_t key, int value) {
  if (value < 1) {
    return;
  }
  Counters& counters = AllCounters();
  const AutoLock lock(counters.lock);
  counters.by_key[key] += static_cast<uint64_t>(value);
}

uint64_t KeyMetrics::GetPV(uint64_t key) {
  Counters& counters = AllCounters();
  const AutoLock lock(counters.lock);
  const auto found = counters.by_key.find(key);
  return found == counters.by_key.end() ? 0 : found->second;
}

std::map<uint64_t, uint64_t> KeyMetrics::GetAllPV() {
  Counters& counters = AllCounters();
  const AutoLock lock(counters.lock);
  return counters.by_key;
}

void KeyMetrics::Count(std::string_view name) {
  Counters& counters = AllCounters();
  const AutoLock lock(counters.lock);
  const auto found = counters.by_name.find(name);
  if (found == counters.by_name.end()) {
    counters.by_name.emplace(name, 1);
  } else {
    ++found->second;
  }
}

uint64_t KeyMetrics::GetCount(std::string_view name) {
  Counters& counters = AllCounters();
  const AutoLock lock(counters.lock);
  const auto found = counters.by_name.find(name);
  return found == counters.by_name.end() ? 0 : found->second;
}

std::map<std::string, uint64_t> KeyMetrics::GetAllCounts() {
  Counters& counters = AllCounters();
  const AutoLock lock(counters.lock);
  return {counters.by_name.begin(), counters.by_name.end()};
}

}  // namespace skorra_ntp
}  // namespace base
