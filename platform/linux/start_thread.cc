// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/start_thread.h"

#include <pthread.h>
#include <signal.h>

#include <cstddef>

namespace core {
inline namespace skorra_ntp {

namespace {

constexpr size_t kMaxThreadNameBytes = 15;

}  // namespace

int internal::StartThread(void* (*main)(void*), void* argument, const std::string& name) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attributes, SCHED_OTHER);
  // A thread inherits the mask of its creator.
  sigset_t blocked;
  sigset_t previous;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
    sigdelset(&blocked, fault);
  }
  pthread_sigmask(SIG_SETMASK, &blocked, &previous);
  pthread_t thread;
  int status = pthread_create(&thread, &attributes, main, argument);
  if (status != 0) {
    // A sandbox may not allow setting the policy. The creator's is better than no thread.
    pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
    status = pthread_create(&thread, &attributes, main, argument);
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  pthread_attr_destroy(&attributes);
  if (status == 0) {
    pthread_setname_np(thread, name.substr(0, kMaxThreadNameBytes).c_str());
  }
  return status;
}

}  // namespace skorra_ntp
}  // namespace core
