// SPDX-License-Identifier: Apache-2.0
#include "bench/idle_minute.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "clock/ntp_clock.h"
#include "testing/loopback_ntp_server.h"

namespace skorra {
namespace {

struct Thread {
  std::string name;
  uint64_t switches = 0;  // how often it was put aside, for whatever reason: each time, it had been running
};

// By number, but the calling one.
std::map<std::string, Thread> OtherThreads() {
  std::map<std::string, Thread> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string number = entry.path().filename();
    if (number == std::to_string(gettid())) {
      continue;
    }
    std::ifstream status(entry.path() / "status");
    std::string word;
    while (status >> word) {
      if (word == "Name:") {
        status >> threads[number].name;
      } else if (word == "voluntary_ctxt_switches:" || word == "nonvoluntary_ctxt_switches:") {
        uint64_t switches = 0;
        status >> switches;
        threads[number].switches += switches;
      }
    }
  }
  return threads;
}

}  // namespace

bool IsIdleMinuteQuiet() {
  const LoopbackNtpServer server({});
  NtpClockOptions options;
  options.servers = {server.endpoint().ToString()};
  NtpClock::Start(options);
  if (!NtpClock::WaitUntilSynced(std::chrono::seconds(30))) {
    std::fputs("scale_bench: no sync with a server on this machine\n", stderr);
    return false;
  }
  std::this_thread::sleep_for(std::chrono::seconds(40));
  const std::map<std::string, Thread> before = OtherThreads();
  std::this_thread::sleep_for(std::chrono::seconds(60));
  uint64_t wake_ups = 0;
  for (const auto& [number, thread] : OtherThreads()) {
    const auto earlier = before.find(number);
    const uint64_t count = thread.switches - (earlier == before.end() ? 0 : earlier->second.switches);
    std::printf("%-10s %-15s %4llu wake-ups in 60 s\n", "idle", thread.name.c_str(),
                static_cast<unsigned long long>(count));
    wake_ups += count;
  }
  std::printf("%-10s %llu wake-ups in 60 s, 0 are allowed\n\n", "idle",
              static_cast<unsigned long long>(wake_ups));
  return wake_ups == 0;
}

}  // namespace skorra
