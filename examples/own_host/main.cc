// SPDX-License-Identifier: Apache-2.0
// Syncs with the servers that are given, on one thread, and prints the time: own_host SERVER...
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "./host_loop.h"
#include "./host_queue.h"
#include "clock/ntp_clock.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/log.h"
#include "platform/base/time.h"
#include "platform/metrics/key_metrics.h"

namespace {

constexpr int64_t kLimitUs = 10 * base::kUsPerSecond;

int64_t SystemTimeUs() { return (base::Time::Now() - base::Time::UnixEpoch()).InMicroseconds(); }

void PrintOffset(const char* text, int64_t time_us) {
  std::printf("%s %lld us\n", text, static_cast<long long>(time_us - SystemTimeUs()));
}

bool HasTime() { return skorra::NtpClock::Read().has_time(); }

}  // namespace

int main(int argc, char** argv) {
  HostConfiguration() = {{"SKORRA_NTP_REQUESTS_PER_BURST", "8"}};
  base::SetLogThreshold(base::kLogProgress);
  base::SetLogSink([](const base::LogLine& line) { std::printf("log: %s\n", line.text.c_str()); });

  skorra::NtpClockOptions options;
  options.servers = std::vector<std::string>(argv + 1, argv + argc);
  int attempts = 0;
  const skorra::NtpClockSubscription outcomes =
      skorra::NtpClock::Observe([&](const skorra::NtpSyncOutcome& outcome) {
        ++attempts;
        std::printf("attempt: %s\n", skorra::NtpSyncReasonName(outcome.reason));
      });
  skorra::NtpClock::Start(options);
  // Not NtpClock::WaitUntilSynced: on the loop's own thread it would hold up what it waits for.
  if (!HostLoop::Get().RunUntil(HasTime, kLimitUs)) {
    std::fprintf(stderr, "no time: %s\n", skorra::NtpClockStatusName(skorra::NtpClock::Read().status));
    return 1;
  }
  const skorra::NtpClockReading reading = skorra::NtpClock::Read();
  const int64_t system_time_us = SystemTimeUs();
  PrintOffset("offset", reading.best_estimate_us);
  std::printf("at least %lld us, at most %lld us\n",
              static_cast<long long>(reading.earliest_us - system_time_us),
              static_cast<long long>(reading.latest_us - system_time_us));
  PrintOffset("the manager's offset", skorra::NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970());
  std::printf("%d attempts, %d requests sent\n", attempts,
              static_cast<int>(base::KeyMetrics::GetCount("ntp.requests_sent")));
  return 0;
}
