// SPDX-License-Identifier: Apache-2.0

// How the other seams of this folder reach the event loop of the task queue on which they are called, and how
// they run handlers on it.
//
// A loop belongs to the process that made it. A forked child must not touch the loop: it has no thread that
// runs it, and its copies of the loop's descriptors still act on the parent's registrations, timer and
// datagrams.
#pragma once

#include <cstdlib>

#include "platform/base/fork.h"
#include "platform/linux/event_loop.h"

namespace core {
inline namespace skorra_ntp {
namespace internal {

// The loop of the queue whose thread this is; null on any other thread, and in a child that a handler forked.
// The loop is never destroyed.
EventLoop* CurrentEventLoop();

// Whether this is the thread of a queue, in a child that a handler of that queue forked.
bool IsOnForeignLoop();

// Runs `handler` for the current queue's loop; forks by other threads wait meanwhile. The handler may call
// functions of the host program. A child that one of them forked ends here, since the loop must not go on
// there.
template <class Handler>
void RunHandler(Handler&& handler) {
  {
    const base::NoForkScope no_fork;
    handler();
  }
  if (IsOnForeignLoop()) {
    std::exit(EXIT_SUCCESS);
  }
}

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace core
