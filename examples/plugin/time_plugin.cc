// SPDX-License-Identifier: Apache-2.0
// A plugin with one function. The library is linked into it and stays inside.
#include <cstdint>

#include "ntp/ntp_time_manager.h"

// NTP time in microseconds since 1970 UTC, or 0 while there is none. The first call names the server and
// starts asking it.
extern "C" __attribute__((visibility("default"))) int64_t plugin_now_us(const char* server) {
  static const bool is_started = [server] {
    auto* clock = skorra::NtpTimeManager::GetInstance();
    clock->UpdateNtpTimeDomain({server});
    return clock->Start() == 0;
  }();
  return is_started ? skorra::NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970() : 0;
}
