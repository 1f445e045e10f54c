// SPDX-License-Identifier: Apache-2.0
// A plugin with one function. The library is linked into it and stays inside.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "ntp/ntp_time_manager.h"

namespace {

// Notes that an attempt had a result. Before that a reading is provisional.
class Outcomes : public skorra::NtpTimeManager::Observer {
 public:
  void OnNtpResult(skorra::NtpResult result, const std::string& /*message*/,
                   const net::IPEndPoint& /*server*/) override {
    if (result != skorra::NtpResult::kNoResult) {
      has_time.store(true);
    }
  }

  std::atomic<bool> has_time{false};
};

}  // namespace

// NTP time in microseconds since 1970 UTC, or 0 while there is none. The first call names the server and
// starts asking it.
extern "C" __attribute__((visibility("default"))) int64_t plugin_now_us(const char* server) {
  static const auto outcomes = std::make_shared<Outcomes>();
  static const bool is_started = [server] {
    auto* clock = skorra::NtpTimeManager::GetInstance();
    clock->AddObserver(outcomes);
    clock->UpdateNtpTimeDomain({server});
    return clock->Start() == 0;
  }();
  return is_started && outcomes->has_time.load()
             ? skorra::NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970()
             : 0;
}
