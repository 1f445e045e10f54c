// How the other seams of this folder reach the event loop of the task queue on which they are called, and
// what they need to know of forks.
//
// A loop belongs to the process that made it. A child has copies of its descriptors that share everything
// with the parent's (the registrations, the timer, the datagrams that wait), and no thread that runs it: it
// leaves the loop, and what hangs on it, alone.
#pragma once

#include <asio/io_context.hpp>
#include <cstdint>

#include "platform/base/lock.h"

namespace core {
inline namespace skorra_ntp {
namespace internal {

// The loop of the queue whose thread this is, null on any other thread, and on that of another process's
// loop. The loop is never destroyed.
asio::io_context* CurrentQueueContext();

// Different in a child from what it is in its parent.
uint32_t ForkCount();

// Held while the thread of the current queue runs a handler, so that a fork by another thread finds what the
// handlers work on whole. Null on any thread but a queue's.
base::Lock* CurrentHandlerLock();

// Gives that lock back while a handler waits for the outside world, with everything in order.
class HandlerPause {
 public:
  HandlerPause() : lock_(CurrentHandlerLock()) {
    if (lock_ != nullptr) {
      lock_->Release();
    }
  }
  ~HandlerPause() {
    if (lock_ != nullptr) {
      lock_->Acquire();
    }
  }
  HandlerPause(const HandlerPause&) = delete;
  HandlerPause& operator=(const HandlerPause&) = delete;

 private:
  base::Lock* const lock_;
};

// Thrown to leave a loop that belongs to another process.
struct LeaveLoop {};

// Runs `handler`, which is called by the current queue's loop and may call functions of the host program. In
// a child that one of those forked this does not return: the loop must not go on there.
template <class Handler>
void RunHandler(Handler&& handler) {
  const uint32_t fork_count = ForkCount();
  {
    const base::AutoLock lock(*CurrentHandlerLock());
    handler();
  }
  if (ForkCount() != fork_count) {
    throw LeaveLoop();
  }
}

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace core
