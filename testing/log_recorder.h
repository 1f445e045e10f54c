// SPDX-License-Identifier: Apache-2.0

// Takes the log's lines away from standard error for a while.
//
//   const LogRecorder log(base::kLogProgress);
//   ... log.lines ...
#pragma once

#include <utility>
#include <vector>

#include "platform/base/log.h"

namespace skorra {

// `sink` gets the lines from its making to its end, those at or above `threshold`. Afterwards there is no
// sink, and the threshold is what it was.
class LogSinkScope {
 public:
  explicit LogSinkScope(base::LogSink sink, int threshold = base::GetLogThreshold())
      : old_threshold_(base::GetLogThreshold()) {
    base::SetLogSink(std::move(sink));
    base::SetLogThreshold(threshold);
  }
  ~LogSinkScope() {
    base::SetLogSink(nullptr);
    base::SetLogThreshold(old_threshold_);
  }
  LogSinkScope(const LogSinkScope&) = delete;
  LogSinkScope& operator=(const LogSinkScope&) = delete;

 private:
  const int old_threshold_;
};

// Drops the lines.
class LogSilence {
 public:
  explicit LogSilence(int threshold = base::GetLogThreshold())
      : sink_([](const base::LogLine&) {}, threshold) {}

 private:
  const LogSinkScope sink_;
};

// Keeps the lines. Read them while no other thread writes one.
class LogRecorder {
 public:
  explicit LogRecorder(int threshold = base::GetLogThreshold())
      : sink_([this](const base::LogLine& line) { lines.push_back(line); }, threshold) {}

  std::vector<base::LogLine> lines;

 private:
  const LogSinkScope sink_;
};

}  // namespace skorra
