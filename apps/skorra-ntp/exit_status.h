// SPDX-License-Identifier: Apache-2.0

// The program's exit statuses.
#pragma once

namespace skorra {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitMaybeInaccurate = 1;  // or other servers contradict the result
inline constexpr int kExitCannotListen = 1;     // `serve` cannot have its address
inline constexpr int kExitNoResult = 2;
inline constexpr int kExitWrongDemo = 3;  // `demo` measured or proved something other than the truth
inline constexpr int kExitUsage = 64;     // EX_USAGE of sysexits.h
// EX_IOERR of sysexits.h: standard output did not take everything. It stands for any other status, because
// the reader lacks the report that says more.
inline constexpr int kExitOutput = 74;

}  // namespace skorra
