// SPDX-License-Identifier: Apache-2.0

// Namespaces of a test's own, so that it may change the network or the files that it sees.
#pragma once

#include <string>

namespace skorra {

// Moves this process, which has one thread, into namespaces of its own: `flags` of unshare(2), into a user
// namespace too where that is needed. "" or why it cannot be done here.
std::string EnterNamespaces(int flags);

// Moves this process, which has one thread, onto a machine of its own: an empty /etc, and a network that is
// nothing but the loopback interface. "" or why it cannot be done here.
std::string EnterEmptyMachine();

}  // namespace skorra
