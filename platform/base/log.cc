// SPDX-License-Identifier: Apache-2.0
#include "platform/base/log.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/base/lock.h"
#include "platform/base/no_destructor.h"
#include "platform/base/thread_annotations.h"
#include "platform/base/time.h"

namespace base {
inline namespace skorra_ntp {

namespace {

constexpr size_t kMaxTextBytes = 4096;

std::atomic<int> g_threshold{kLogFailure};

// True while the thread runs the sink: a line logged from inside would wait for its own lock.
thread_local bool t_is_in_sink = false;

struct SinkHolder {
  Lock lock;
  LogSink sink SKORRA_GUARDED_BY(lock);  // empty: standard error
};

SinkHolder& Holder() {
  static NoDestructor<SinkHolder> holder;
  return *holder;
}

// One call of fwrite for the whole line: standard error is unbuffered, so lines of several processes or of
// the host program do not mix within a line.
void WriteToStandardError(const LogLine& line) {
  const std::string text = FormatLogLine(line) + '\n';
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace

void LocalLog(int level, const char* file, int line, const char* format, ...) {
  if (level < g_threshold.load(std::memory_order_relaxed)) {
    return;
  }
  std::array<char, kMaxTextBytes + 1> buffer;
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  va_end(arguments);
  // A wide string without a multibyte form cannot be formatted. Then the line shows the format itself.
  const LogLine log_line{level, file, line, length < 0 ? format : buffer.data()};

  if (t_is_in_sink) {
    WriteToStandardError(log_line);
    return;
  }
  SinkHolder& holder = Holder();
  const AutoLock lock(holder.lock);
  if (holder.sink) {
    t_is_in_sink = true;
    holder.sink(log_line);
    t_is_in_sink = false;
  } else {
    WriteToStandardError(log_line);
  }
}

void SetLogThreshold(int level) { g_threshold.store(level, std::memory_order_relaxed); }

int GetLogThreshold() { return g_threshold.load(std::memory_order_relaxed); }

void SetLogSink(LogSink sink) {
  SinkHolder& holder = Holder();
  {
    const AutoLock lock(holder.lock);
    std::swap(holder.sink, sink);
  }
  // The old sink is destroyed here, outside the lock, so that its destructor may log.
}

std::string FormatLogLine(const LogLine& line) {
  std::string text = Time::Now().ToString();
  text += ' ';
  text += std::to_string(line.level);
  text += ' ';
  text += line.file;
  text += ':';
  text += std::to_string(line.line);
  text += ' ';
  for (const char c : line.text) {
    // Texts quote names and files from outside. A line break in one must not forge another line.
    const auto byte = static_cast<unsigned char>(c);
    text += byte < 0x20 || byte == 0x7f ? '?' : c;
  }
  return text;
}

}  // namespace skorra_ntp
}  // namespace base
