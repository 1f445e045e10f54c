// SPDX-License-Identifier: Apache-2.0

// Counts the outcomes that the manager announces. Any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "ntp/ntp_time_manager.h"

namespace skorra {

class CountingObserver : public NtpTimeManager::Observer {
 public:
  void OnNtpResult(NtpResult result, const std::string&, const net::IPEndPoint& server) override {
    (result != NtpResult::kSuccess ? failures : server.address_empty() ? repeats : successes).fetch_add(1);
  }

  uint32_t finished() const { return successes + failures; }
  uint32_t all() const { return finished() + repeats; }

  std::atomic<uint32_t> successes{0};
  std::atomic<uint32_t> repeats{0};   // a kept result, announced again: a success that names no server
  std::atomic<uint32_t> failures{0};  // poor results among them
};

}  // namespace skorra
