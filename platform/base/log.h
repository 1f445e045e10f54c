// SPDX-License-Identifier: Apache-2.0

// The log: printf-style lines with a level, checked at compile time, handed to one sink.
//
// A line is dropped, before any formatting, when its level is below the threshold (default kLogFailure).
//
// Sinks: standard error (the default), a rotating file (log_file.h), or a function of the host program.
// There is one sink at a time. All functions may be called from any thread. Lines reach the sink one at a
// time, in the order in which their threads took the sink's lock. A sink function must not call this library,
// because it may run while the library holds a lock; a line that it logs goes to standard error.
#pragma once

#include <functional>
#include <string>

#include "../base/export.h"

namespace base {
inline namespace skorra_ntp {

// The levels.
inline constexpr int kLogProgress = 0;  // progress and outcomes
inline constexpr int kLogFailure = 1;   // failures and found deviations
inline constexpr int kLogNothing = 2;   // as a threshold: no line of this library passes

struct LogLine {
  int level;
  const char* file;  // the source path without its ending
  int line;
  std::string text;
};

using LogSink = std::function<void(const LogLine&)>;

// Writes one line when `level` is at or above the threshold. Texts are cut at 4096 bytes.
SKORRA_EXPORT void LocalLog(int level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// From now on lines below `level` are dropped: kLogProgress shows everything, kLogNothing silences the
// library.
SKORRA_EXPORT void SetLogThreshold(int level);
SKORRA_EXPORT int GetLogThreshold();

// Replaces the sink; an empty function restores standard error. On return the old sink is no longer called. A
// sink must not throw.
SKORRA_EXPORT void SetLogSink(LogSink sink);

// The line as standard error and the log file show it: "<ISO time> <level> <file>:<line> <text>".
SKORRA_EXPORT std::string FormatLogLine(const LogLine& line);

}  // namespace skorra_ntp
}  // namespace base
