// SPDX-License-Identifier: Apache-2.0

// The names that calls of the system have for the linker. With a time_t of 64 bits on a 32-bit machine they
// are others than in C. tests/CMakeLists.txt wraps the same.
#pragma once

#include <time.h>

#if __TIMESIZE == 32
#define SKORRA_CLOCK_GETTIME "__clock_gettime64"
#define SKORRA_ADJTIMEX "___adjtimex64"
#else
#define SKORRA_CLOCK_GETTIME "clock_gettime"
#define SKORRA_ADJTIMEX "adjtimex"
#endif
