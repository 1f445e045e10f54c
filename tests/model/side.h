// SPDX-License-Identifier: Apache-2.0

// The two sides of a walk, the manager and its model, as the walk drives and watches them.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ntp/ntp_sync_records.h"
#include "platform/net/ip_endpoint.h"

namespace skorra::model {

struct Line {
  int level;
  std::string text;
  friend bool operator==(const Line&, const Line&) = default;
};

struct Sent {
  net::IPEndPoint server;
  int64_t ticks_us;
  friend bool operator==(const Sent&, const Sent&) = default;
};

// What a caller sees of the manager's state in the middle of a task.
using Glimpse = std::array<int64_t, 14>;

struct Heard {
  int observer;
  NtpResult result;
  std::string message;
  net::IPEndPoint server;
  Glimpse glimpse;
  friend bool operator==(const Heard&, const Heard&) = default;
};

// What came out of a side since the last comparison, each in its order.
struct Trace {
  std::vector<Line> log;
  std::vector<int64_t> posted_delays_us;
  std::vector<Heard> heard;
  std::vector<Sent> sent;
  std::vector<int64_t> returned;

  void Clear() {
    log.clear();
    posted_delays_us.clear();
    heard.clear();
    sent.clear();
    returned.clear();
  }
};

// The public operations; observers go by numbers that are never used again. An observer whose owner has
// released it may still be added and removed: through a weak reference that leads nowhere.
class Side {
 public:
  virtual ~Side() = default;
  virtual void AddObserver(int observer) = 0;
  virtual void RemoveObserver(int observer) = 0;
  virtual void ReleaseObserver(int observer) = 0;
  virtual int Start() = 0;
  virtual int RequestAttempt() = 0;  // ntp/ntp_attempt_control.h
  virtual void Stop() = 0;
  virtual int64_t GetNtpTimestampFrom1970() = 0;
  virtual void UpdateNtpTimeDomain(const std::vector<std::string>& domains) = 0;
  virtual NtpTimeSyncStats GetAndResetNtpQualityStats() = 0;

  Trace trace;
  // Runs inside an observer's callback, after the call was noted in the trace.
  std::function<void(Side&, int observer)> on_heard;
};

}  // namespace skorra::model
