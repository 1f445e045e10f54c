// SPDX-License-Identifier: Apache-2.0

// Where a task was posted from: carried with the task, for logs and tests.
#pragma once

namespace base {
inline namespace skorra_ntp {

// A value; `file` must have static storage (a string literal).
class Location {
 public:
  static constexpr Location CreateFromHere(const char* file, int line) { return Location(file, line); }

  constexpr const char* file() const { return file_; }
  constexpr int line() const { return line_; }

 private:
  constexpr Location(const char* file, int line) : file_(file), line_(line) {}

  const char* file_;
  int line_;
};

}  // namespace skorra_ntp
}  // namespace base
