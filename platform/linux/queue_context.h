// How the other seams of this folder reach the event loop of the task queue on which they are called.
#pragma once

#include <asio/io_context.hpp>

namespace core::internal {

// The loop of the queue whose thread this is, null on any other thread. The loop is never destroyed, and
// its handlers run as tasks of the queue do.
asio::io_context* CurrentQueueContext();

}  // namespace core::internal
