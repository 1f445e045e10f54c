// SPDX-License-Identifier: Apache-2.0
#include "ntp/ntp_attempt_control.h"

#include "ntp/ntp_time_manager_impl.h"

namespace skorra::internal {

int RequestNtpAttempt(NtpTimeManager& manager) {
  return static_cast<NtpTimeManagerImpl&>(manager).StartInNtpQueue();
}

bool IsNtpAttemptRequested(const NtpTimeManager& manager) {
  return static_cast<const NtpTimeManagerImpl&>(manager).is_started_.load(std::memory_order_relaxed);
}

}  // namespace skorra::internal
