// SPDX-License-Identifier: Apache-2.0

// `skorra-ntp demo`: a server with a known clock error inside the process, one that agrees with it and one
// that lies, one sync with them, and the outcome with the true offset.
#pragma once

namespace skorra {

// Returns the exit status of a sync, or 3 when the measured offset is more than 5 ms off; 74 when not
// everything could be printed.
int RunDemo();

}  // namespace skorra
