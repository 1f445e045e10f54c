// SPDX-License-Identifier: Apache-2.0
// Prints how far network time is from the system clock: clock_reader SERVER...
#include <time.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ntp/ntp_time_manager.h"

namespace {

// Keeps the first outcome for the thread that waits for it.
class FirstOutcome : public skorra::NtpTimeManager::Observer {
 public:
  void OnNtpResult(skorra::NtpResult /*result*/, const std::string& message,
                   const net::IPEndPoint& server) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    text_ = message + " from " + server.ToString();
    is_there_ = true;
    arrived_.notify_all();
  }

  std::string Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait(lock, [this] { return is_there_; });
    return text_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::string text_;
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
  const auto outcome = std::make_shared<FirstOutcome>();
  clock->AddObserver(outcome);
  clock->UpdateNtpTimeDomain(servers);
  clock->Start();
  std::printf("%s\n", outcome->Wait().c_str());

  const int64_t now_us = clock->GetNtpTimestampFrom1970();
  if (now_us == 0) {
    return 1;
  }
  std::printf("offset %lld us\n", static_cast<long long>(now_us - SystemTimeUs()));
  return 0;
}
