// SPDX-License-Identifier: Apache-2.0
#include "platform/base/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/base/log.h"
#include "platform/files/file_kind.h"

namespace base {
inline namespace skorra_ntp {

namespace {

// The log's own lock lets one line through at a time.
using FileSink = spdlog::sinks::rotating_file_sink_st;

std::string CannotWrite(const LogFileOptions& options, const std::string& reason) {
  return "cannot write the log file '" + options.path + "': " + reason;
}

// Returns an empty string, or why a log cannot go to `path`, which is created when nothing is there. A FIFO
// is no log file: without a reader its open would wait, with a slow one every line would, and once the reader
// has gone a write ends the process.
std::string TryPath(const std::string& path) {
  constexpr char kRemedy[] = "; give a regular file or a character device";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) {
    return errno == ENXIO ? std::string("it is a FIFO without a reader, or a socket") + kRemedy
                          : std::system_category().message(errno) +
                                "; give a file in a folder that exists and may be written";
  }
  struct stat status {};
  fstat(fd, &status);
  close(fd);
  return S_ISREG(status.st_mode) || S_ISCHR(status.st_mode)
             ? std::string()
             : std::string("it is ") + FileKind(status.st_mode) + kRemedy;
}

// Opens the file for appending. Returns an empty string, or a message that says why that failed.
std::string OpenFile(const LogFileOptions& options, std::unique_ptr<FileSink>* sink) {
  // Try first: the sink repeats a failing open for a while, and all log lines would wait.
  if (const std::string reason = TryPath(options.path); !reason.empty()) {
    return CannotWrite(options, reason);
  }
  try {
    *sink = std::make_unique<FileSink>(options.path, options.max_bytes, options.max_files);
    (*sink)->set_formatter(std::make_unique<spdlog::pattern_formatter>("%v"));
    return {};
  } catch (const std::exception& error) {
    return CannotWrite(options, error.what());
  }
}

// Writes lines to the file. A line that cannot be written goes to standard error, the first of a row of them
// after the reason. The next line opens the file again, because a failed rotation leaves the old sink without
// a file.
class FileWriter {
 public:
  FileWriter(LogFileOptions options, std::unique_ptr<FileSink> sink)
      : options_(std::move(options)), sink_(std::move(sink)) {}

  void Write(const LogLine& line) {
    const std::string text = FormatLogLine(line);
    const std::string error = TryWrite(text);
    const bool is_first_failure = !error.empty() && !has_failed_;
    has_failed_ = !error.empty();
    if (has_failed_) {
      const std::string reason =
          is_first_failure ? "skorra: " + error + "; lines go to standard error until it can be written\n"
                           : "";
      std::fputs((reason + text + '\n').c_str(), stderr);
    }
  }

 private:
  // Returns an empty string, or a message that says why the line could not be written.
  std::string TryWrite(const std::string& text) {
    if (sink_ == nullptr) {
      if (std::string error = OpenFile(options_, &sink_); !error.empty()) {
        return error;
      }
    }
    try {
      // The text carries its own time; giving none here keeps the sink from reading a clock.
      sink_->log({spdlog::log_clock::time_point{}, spdlog::source_loc{}, {}, spdlog::level::info, text});
      sink_->flush();
      return {};
    } catch (const std::exception& failure) {
      sink_ = nullptr;
      return CannotWrite(options_, failure.what());
    }
  }

  const LogFileOptions options_;
  std::unique_ptr<FileSink> sink_;  // null after a failure
  bool has_failed_ = false;         // the last line could not be written
};

}  // namespace

std::string LogToFile(const LogFileOptions& options) {
  std::unique_ptr<FileSink> sink;
  std::string error = OpenFile(options, &sink);
  if (error.empty()) {
    const auto writer = std::make_shared<FileWriter>(options, std::move(sink));
    SetLogSink([writer](const LogLine& line) { writer->Write(line); });
  }
  return error;
}

}  // namespace skorra_ntp
}  // namespace base
