// SPDX-License-Identifier: Apache-2.0

// The TOML parser for the program, in place of the packaged library. Its assertions are off, as they are
// there: a malformed file can make them fail.
#define TOML_IMPLEMENTATION
#define TOML_HEADER_ONLY 0
#define TOML_ASSERT(condition) static_cast<void>(0)
#include <toml++/toml.h>
