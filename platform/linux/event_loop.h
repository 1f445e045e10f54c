// SPDX-License-Identifier: Apache-2.0

// What a queue's thread sleeps in: waits until one of its descriptors has something to read, and calls the
// handler of each that has.
//
// It makes few system calls. A descriptor is registered once, not before each wait, and a handler need not
// read until nothing is left: it is called again while there is something. Nothing reads the descriptor that
// wakes the loop.
//
// One thread owns a loop. The thread that makes it watches the first descriptors; once the owner runs it, all
// calls but `Wake` are the owner's.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace core {
inline namespace skorra_ntp {
namespace internal {

class EventLoop {
 public:
  // Gets the events of epoll(7) that ended the wait. A message in a socket's error queue is one.
  using Handler = std::function<void(uint32_t events)>;

  enum class When {
    kReadable,       // while there is something to read or to report
    kNewlyReadable,  // once for each time that something comes: the handler need not read it
  };

  EventLoop() = default;
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // To be called first. Returns an error number, or 0.
  int Open();

  // Returns an error number, or 0. The descriptor stays the caller's, who calls `Unwatch` before closing it:
  // while a forked child holds it open, closing alone would leave it in the loop.
  int Watch(int fd, When when, Handler handler);
  // No handler of `fd` begins after this. May be called in a handler. Nothing happens if it is not watched.
  void Unwatch(int fd);

  // `function` runs in the next `RunDeferred`: what a descriptor's owner has to report, but not inside the
  // call by which it came to know.
  void Defer(std::function<void()> function);
  void RunDeferred();

  // Waits until there is something to do (without `may_sleep`: looks whether there is), and does it.
  void Serve(bool may_sleep);

  // Ends the wait of `Serve`, or else the next one. Any thread may call it.
  void Wake();

 private:
  struct Watched {
    uint32_t number;  // tells it from an earlier one of the same descriptor
    std::shared_ptr<Handler> handler;
  };

  void Call(uint64_t key, uint32_t events);

  int epoll_ = -1;
  int wake_ = -1;
  uint32_t next_number_ = 0;
  std::map<int, Watched> watched_;
  std::vector<std::function<void()>> deferred_;
};

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace core
