// SPDX-License-Identifier: Apache-2.0

// Whether the library lets the machine sleep when there is nothing to do.
#pragma once

namespace skorra {

// Starts NtpClock with a server in this process, lets it sync, waits until the manager has closed its sockets
// (30 s after the outcome), and counts for a minute how often threads of this process wake up, as the kernel
// counts it. Prints the count of each thread. Takes 100 s; returns whether no thread did.
bool IsIdleMinuteQuiet();

}  // namespace skorra
