// SPDX-License-Identifier: Apache-2.0

// A reading of the manager's clock between two of the system's clock, for tests whose server lives on the
// same machine and differs from it by a known error. Any thread.
#pragma once

#include <cstdint>

#include "ntp/ntp_time_manager.h"
#include "platform/base/time.h"

namespace skorra {

// Offsets measured on a busy loopback differ by less than the evaluation's own limit on their spread.
inline constexpr int64_t kLoopbackToleranceUs = 30000;

inline int64_t SystemTimeFrom1970Us() {
  return (base::Time::Now() - base::Time::UnixEpoch()).InMicroseconds();
}

struct ClockReading {
  int64_t wall_before_us = SystemTimeFrom1970Us();
  int64_t ntp_us = NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970();
  int64_t wall_after_us = SystemTimeFrom1970Us();

  bool has_result() const { return ntp_us != 0; }
  // Whether NTP time is the system's plus `clock_error_us`.
  bool Shows(int64_t clock_error_us, int64_t tolerance_us = kLoopbackToleranceUs) const {
    return ntp_us >= wall_before_us + clock_error_us - tolerance_us &&
           ntp_us <= wall_after_us + clock_error_us + tolerance_us;
  }
};

}  // namespace skorra
