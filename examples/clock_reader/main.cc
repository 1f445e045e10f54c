// SPDX-License-Identifier: Apache-2.0
// Prints how far network time is from the system clock, and by how much that may be wrong: clock_reader
// SERVER...
//
// It shows each attempt, and waits until one has brought a time: an attempt whose answers contradict each
// other tells none, and the clock makes another one.
#include <time.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "clock/ntp_clock.h"

namespace {

constexpr std::chrono::seconds kLimit(10);

int64_t SystemTimeUs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

int main(int argc, char** argv) {
  skorra::NtpClockOptions options;
  options.servers = std::vector<std::string>(argv + 1, argv + argc);
  if (options.servers.empty()) {
    std::fprintf(stderr, "usage: clock_reader SERVER...\n");
    return 2;
  }
  // On the library's queue; it ends with its scope.
  const skorra::NtpClockSubscription attempts =
      skorra::NtpClock::Observe([](const skorra::NtpSyncOutcome& outcome) {
        std::printf("attempt: %s\n", skorra::NtpSyncReasonName(outcome.reason));
      });
  skorra::NtpClock::Start(options);
  if (!skorra::NtpClock::WaitUntilSynced(kLimit)) {
    std::fprintf(stderr, "no time: %s\n", skorra::NtpClockStatusName(skorra::NtpClock::Read().status));
    return 1;
  }
  const skorra::NtpClockReading reading = skorra::NtpClock::Read();
  const int64_t system_time_us = SystemTimeUs();
  std::printf("offset %lld us\n", static_cast<long long>(reading.best_estimate_us - system_time_us));
  std::printf("at least %lld us, at most %lld us\n",
              static_cast<long long>(reading.earliest_us - system_time_us),
              static_cast<long long>(reading.latest_us - system_time_us));
  return 0;
}
