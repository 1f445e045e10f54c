// The log: printf-style lines with a level, checked at compile time, handed to one sink.
//
// Levels: 0 carries progress and outcomes, 1 failures and found deviations. A line is dropped, before any
// formatting, when its level is below the threshold (default 1).
//
// Sinks: standard error (the default), a rotating file (log_file.h), or a function of the host program.
// One sink at a time. All functions may be called from any thread; lines reach the sink one at a time, in
// the order in which their threads took the sink's lock. A sink function must not
// call this library: it may run while the library holds a lock. What it logs all the same goes to standard
// error.
#pragma once

#include <functional>
#include <string>

namespace base {
inline namespace skorra_ntp {

struct LogLine {
  int level;
  const char* file;  // the source path without its ending
  int line;
  std::string text;
};

using LogSink = std::function<void(const LogLine&)>;

// Writes one line when `level` is at or above the threshold. Texts are cut at 4096 bytes.
void LocalLog(int level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Lines below `level` are dropped from now on: 0 shows everything, 2 silences the library.
void SetLogThreshold(int level);
int GetLogThreshold();

// Replaces the sink; an empty function restores standard error. On return the old sink is no longer called.
void SetLogSink(LogSink sink);

// The line as standard error and the log file show it: "<ISO time> <level> <file>:<line> <text>".
std::string FormatLogLine(const LogLine& line);

}  // namespace skorra_ntp
}  // namespace base
