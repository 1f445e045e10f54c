// SPDX-License-Identifier: Apache-2.0
#include "testing/fork.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace skorra {

pid_t ForkBoundToParent() {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have died before that.
    if (getppid() != parent) {
      _exit(126);
    }
  }
  return pid;
}

}  // namespace skorra
