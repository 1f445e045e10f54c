// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/start_thread.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <cstddef>
#include <memory>

namespace core {
inline namespace skorra_ntp {

namespace {

constexpr size_t kMaxThreadNameBytes = 15;

struct Start {
  void* (*main)(void*);
  void* argument;
  std::string name;
};

// The thread names itself, and leaves the scheduling policy of its creator if that is a special one. That may
// fail in a sandbox; such a thread is better than none.
void* NameAndRun(void* argument) noexcept {
  const std::unique_ptr<Start> start(static_cast<Start*>(argument));
  pthread_setname_np(pthread_self(), start->name.c_str());
  if (sched_getscheduler(0) != SCHED_OTHER) {
    const sched_param none{};
    sched_setscheduler(0, SCHED_OTHER, &none);
  }
  return start->main(start->argument);
}

}  // namespace

int internal::StartThread(void* (*main)(void*), void* argument, const std::string& name) {
  auto start = std::make_unique<Start>(
      Start{.main = main, .argument = argument, .name = name.substr(0, kMaxThreadNameBytes)});
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  // Else the thread has the mask of its creator.
  sigset_t blocked;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
    sigdelset(&blocked, fault);
  }
  pthread_attr_setsigmask_np(&attributes, &blocked);
  pthread_t thread;
  const int status = pthread_create(&thread, &attributes, &NameAndRun, start.get());
  pthread_attr_destroy(&attributes);
  if (status == 0) {
    [[maybe_unused]] const Start* const passed_on = start.release();  // to the thread
  }
  return status;
}

}  // namespace skorra_ntp
}  // namespace core
