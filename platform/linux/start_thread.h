// SPDX-License-Identifier: Apache-2.0

// Threads of the library inside a host program.
#pragma once

#include <string>

namespace core {
inline namespace skorra_ntp {
namespace internal {

// Starts a detached thread with the ordinary scheduling policy, whatever that of its creator; with the
// creator's where the system does not let it choose. It blocks all signals, so that the host program's
// handlers run on the host's own threads; only the signals of faulty instructions stay open, since blocking
// them would bypass the host's crash handler. `main` must not return before this function does. Returns an
// error number, or 0.
int StartThread(void* (*main)(void*), void* argument, const std::string& name);

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace core
