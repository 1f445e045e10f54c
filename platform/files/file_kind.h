// SPDX-License-Identifier: Apache-2.0

// What a path names, in words for the user.
#pragma once

#include <sys/stat.h>

namespace base {
inline namespace skorra_ntp {

inline const char* FileKind(mode_t mode) {
  return S_ISREG(mode)    ? "a regular file"
         : S_ISDIR(mode)  ? "a directory"
         : S_ISFIFO(mode) ? "a FIFO"
         : S_ISSOCK(mode) ? "a socket"
         : S_ISCHR(mode)  ? "a character device"
         : S_ISBLK(mode)  ? "a block device"
                          : "a file of an unknown kind";
}

}  // namespace skorra_ntp
}  // namespace base
