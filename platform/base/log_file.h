// The rotating log file.
#pragma once

#include <cstddef>
#include <string>

namespace base {
inline namespace skorra_ntp {

struct LogFileOptions {
  std::string path;
  // The file is rotated before it grows beyond this size: "skorra.log" becomes "skorra.1.log", that
  // "skorra.2.log" and so on.
  size_t max_bytes = 1024 * 1024;
  // How many rotated files are kept beside the current one.
  size_t max_files = 3;
};

// Sends the log to a file. Returns an empty string, or why the file cannot be written (the sink then stays
// as it was): correct the path or its permissions and call again. Lines that the file does not take later
// go to standard error, and the file is tried again with the next line. Any thread.
std::string LogToFile(const LogFileOptions& options);

}  // namespace skorra_ntp
}  // namespace base
