// SPDX-License-Identifier: Apache-2.0

// Makes a real manager sync again and again in one process, one whole attempt after another.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ntp/ntp_sync_records.h"
#include "ntp/ntp_time_manager.h"
#include "testing/ntp_time_manager_peer.h"

namespace skorra {

// What the process has counted since this was made.
class CountsSince {
 public:
  CountsSince();
  uint64_t operator[](const std::string& name) const;
  // Of all counters whose names begin so.
  uint64_t SumOf(const std::string& prefix) const;

 private:
  const std::map<std::string, uint64_t> before_;
};

class AttemptRunner {
 public:
  struct Attempt {
    std::optional<NtpResult> result;  // nothing: cut off before its outcome
    net::IPEndPoint server;           // that the outcome names
    uint64_t sent = 0;
    uint64_t replies = 0;  // those that became samples
  };

  // The manager is one of its own, so that earlier tests of the process have left no result in it.
  explicit AttemptRunner(const std::vector<std::string>& domains);
  ~AttemptRunner();
  AttemptRunner(const AttemptRunner&) = delete;
  AttemptRunner& operator=(const AttemptRunner&) = delete;

  // Syncs even when the kept result is fresh. An attempt whose outcome has not come when `is_enough` says
  // true is stopped.
  Attempt Run(const std::function<bool()>& is_enough = [] { return false; });

  // NTP time minus system time that the manager has settled on.
  int64_t offset_us() const { return peer_.ntp_offset_us().load(); }

 private:
  class Recorder;

  void CutOff();

  NtpTimeManagerPeer& peer_;
  const std::shared_ptr<Recorder> recorder_;
};

}  // namespace skorra
