// SPDX-License-Identifier: Apache-2.0
// Prints how far network time is from the system clock: clock_reader SERVER...
//
// It waits for the end of the first attempt, since a reading before that is provisional. Typed events report
// every end. An observer, as in README.md, hears only of attempts that have an outcome.
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ntp/ntp_sync_events.h"
#include "ntp/ntp_time_manager.h"

namespace {

// Keeps the end of the first attempt for the thread that waits for it.
class FirstEnd : public skorra::NtpSyncListener {
 public:
  void OnAttemptEnded(const skorra::NtpAttemptEnded& event) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!is_there_) {
      is_there_ = true;
      event_ = event;
      arrived_.notify_all();
    }
  }

  // False when the attempt has not ended within `limit`.
  bool WaitFor(std::chrono::seconds limit, skorra::NtpAttemptEnded* event) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!arrived_.wait_for(lock, limit, [this] { return is_there_; })) {
      return false;
    }
    *event = event_;
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  skorra::NtpAttemptEnded event_;
  bool is_there_ = false;
};

int64_t SystemTimeUs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> servers(argv + 1, argv + argc);
  if (servers.empty()) {
    std::fprintf(stderr, "usage: clock_reader SERVER...\n");
    return 2;
  }
  auto* clock = skorra::NtpTimeManager::GetInstance();
  const auto first_end = std::make_shared<FirstEnd>();
  skorra::AddNtpSyncListener(first_end);
  clock->UpdateNtpTimeDomain(servers);
  clock->Start();

  // A program that goes on without the time calls Stop here, a second later Start, and waits again.
  skorra::NtpAttemptEnded event;
  if (!first_end->WaitFor(std::chrono::seconds(60), &event)) {
    std::fprintf(stderr, "no time: the attempt has not ended\n");
    return 1;
  }
  if (event.end != skorra::NtpAttemptEnd::kOutcome) {
    std::fprintf(stderr, "no time: the attempt ended with %s\n", skorra::NtpAttemptEndName(event.end));
    return 1;
  }
  std::printf("%s from %s\n", skorra::GetResultMessage(event.result).c_str(),
              event.record.endpoint.ToString().c_str());
  if (event.result == skorra::NtpResult::kNoResult) {
    return 1;
  }
  const int64_t offset_us = clock->GetNtpTimestampFrom1970() - SystemTimeUs();
  std::printf("offset %lld us\n", static_cast<long long>(offset_us));
  return 0;
}
