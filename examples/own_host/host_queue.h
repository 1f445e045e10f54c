// SPDX-License-Identifier: Apache-2.0
// The library's task queues on the host's loop. All of them share its one thread.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "platform/core/task_queue.h"

// The queue whose task or callback runs on this thread; null outside of both.
extern thread_local core::TaskQueue* t_current_queue;

// Runs `function` as what runs on `queue`.
template <class Function>
void RunOn(core::TaskQueue* queue, const Function& function) {
  core::TaskQueue* const before = std::exchange(t_current_queue, queue);
  function();
  t_current_queue = before;
}

// The host's configuration; the library reads the entries of docs/configuration.md in it, by the names of
// their environment variables.
std::map<std::string, std::string>& HostConfiguration();
