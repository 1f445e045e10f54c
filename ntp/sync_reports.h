// SPDX-License-Identifier: Apache-2.0
// How the manager reports to the listeners of ntp_sync_events.h. It costs one load of an atomic when nobody
// listens, and it reads no clock, posts nothing and logs nothing. On the manager's queue, with no lock held.
//
//   ForEachSyncListener([&](NtpSyncListener& listener) { listener.OnAttemptBegun(); });
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ntp/ntp_sync_events.h"

namespace skorra {
namespace internal {

extern std::atomic<size_t> sync_listener_count;

// In the order of their addition.
std::vector<std::shared_ptr<NtpSyncListener>> GetSyncListeners();

}  // namespace internal

inline bool HasSyncListeners() { return internal::sync_listener_count.load(std::memory_order_relaxed) != 0; }

template <class Report>
void ForEachSyncListener(const Report& report) {
  if (HasSyncListeners()) {
    for (const std::shared_ptr<NtpSyncListener>& listener : internal::GetSyncListeners()) {
      report(*listener);
    }
  }
}

// `burst` holds all samples of the domain's burst, in any order.
void ReportEvaluation(const std::string& domain, const NtpDomainResult& record,
                      std::vector<NtpResultData> burst);

}  // namespace skorra
