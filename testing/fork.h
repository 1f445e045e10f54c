// SPDX-License-Identifier: Apache-2.0

// fork() for tests.
#pragma once

#include <sys/types.h>

namespace skorra {

// As fork(2). The kernel kills the child when the test dies first. The parent may have other threads: until
// it has started another program the child may only make system calls, unless the library promises more.
pid_t ForkBoundToParent();

}  // namespace skorra
