// SPDX-License-Identifier: Apache-2.0
// The host program's own facilities, under names that the library has too.
#pragma once

#include <string>

namespace base {

// Seconds since the host program's own epoch, always 42.
class Time {
 public:
  static Time Now();
  std::string ToString() const;

 private:
  double seconds_ = 0;
};

class Lock {
 public:
  Lock();
  ~Lock();
};

}  // namespace base
