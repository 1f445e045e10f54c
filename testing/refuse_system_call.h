// SPDX-License-Identifier: Apache-2.0

// Makes the kernel refuse a system call, to see what the code does then.
#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>

#include <cstdint>

namespace skorra {

// From now on the system call with this number fails with `error` on the calling thread, for good. False
// when the machine does not allow that. With `argument` only where that is the call's argument number
// `index`, its file descriptor for example.
inline bool RefuseSystemCallOnThisThread(int number, int error, int argument = -1, size_t index = 0) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 3),
      // The lower half of the argument, all machines that we build for being little-endian.
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS,
               static_cast<uint32_t>(offsetof(seccomp_data, args) + index * sizeof(uint64_t))),
      BPF_JUMP(BPF_JMP | (argument < 0 ? BPF_JGE : BPF_JEQ) | BPF_K,
               static_cast<uint32_t>(argument < 0 ? 0 : argument), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{sizeof program / sizeof program[0], program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace skorra
