// SPDX-License-Identifier: Apache-2.0
// Uses the library and the host's own facilities of the same names: crowded_host SERVER
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "./host.h"
#include "ntp/ntp_time_manager.h"
#include "platform/config/base_cfg.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"

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

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: crowded_host SERVER\n");
    return 2;
  }
  std::printf("%s\n", DescribeHost().c_str());
  config::ConfigCenterImpl::GetInstance()->Set(config::BaseCfg().ntp_requests_per_burst, 8);

  auto* clock = skorra::NtpTimeManager::GetInstance();
  const auto outcomes = std::make_shared<Outcomes>();
  clock->AddObserver(outcomes);
  clock->UpdateNtpTimeDomain({argv[1]});
  clock->Start();
  for (int i = 0; i < 100 && !outcomes->has_time.load(); ++i) {
    usleep(50000);
  }
  const int64_t now_us = clock->GetNtpTimestampFrom1970();
  timespec system{};
  clock_gettime(CLOCK_REALTIME, &system);
  const int64_t system_us = static_cast<int64_t>(system.tv_sec) * 1000000 + system.tv_nsec / 1000;
  std::printf("requests sent %d\n", static_cast<int>(base::KeyMetrics::GetCount("ntp.requests_sent")));
  std::printf("offset %lld us\n", static_cast<long long>(now_us - system_us));
  return outcomes->has_time.load() ? 0 : 1;
}
