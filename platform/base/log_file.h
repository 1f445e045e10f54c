// SPDX-License-Identifier: Apache-2.0

// The rotating log file.
#pragma once

#include <cstddef>
#include <string>

#include "../base/export.h"

namespace base {
inline namespace skorra_ntp {

struct LogFileOptions {
  std::string path;
  // The file is rotated before it grows beyond this size: "skorra.log" becomes "skorra.1.log", and
  // "skorra.1.log" becomes "skorra.2.log".
  size_t max_bytes = 1024 * 1024;
  // How many rotated files are kept in addition to the current one.
  size_t max_files = 3;
};

// Sends the log to a regular file, or to a character device, which is not rotated. Returns an empty string,
// or the reason why the file cannot be written; then the sink stays as it was: correct the path or its
// permissions and call again. When a later write fails, the line goes to standard error, and the next line
// tries the file again. Any thread.
SKORRA_EXPORT std::string LogToFile(const LogFileOptions& options);

}  // namespace skorra_ntp
}  // namespace base
