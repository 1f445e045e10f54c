// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/event_loop.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace core {
inline namespace skorra_ntp {
namespace internal {

namespace {

// More wait until the queue's tasks have had their turn.
constexpr int kMaxEventsPerTurn = 16;

uint64_t ToKey(int fd, uint32_t number) { return uint64_t{number} << 32 | static_cast<uint32_t>(fd); }

}  // namespace

EventLoop::~EventLoop() {
  for (const int fd : {epoll_, wake_}) {
    if (fd >= 0) {
      close(fd);
    }
  }
}

int EventLoop::Open() {
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) {
    return errno;
  }
  wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  return wake_ < 0 ? errno : Watch(wake_, When::kNewlyReadable, [](uint32_t) {});
}

int EventLoop::Watch(int fd, When when, Handler handler) {
  const uint32_t number = next_number_++;
  epoll_event event{};
  event.events = when == When::kReadable ? uint32_t{EPOLLIN} : uint32_t{EPOLLIN} | uint32_t{EPOLLET};
  event.data.u64 = ToKey(fd, number);
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
    return errno;
  }
  watched_[fd] = {.number = number, .handler = std::make_shared<Handler>(std::move(handler))};
  return 0;
}

void EventLoop::Unwatch(int fd) {
  if (watched_.erase(fd) != 0) {
    epoll_event unused{};
    epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, &unused);
  }
}

void EventLoop::Defer(std::function<void()> function) { deferred_.push_back(std::move(function)); }

void EventLoop::RunDeferred() {
  for (const auto& function : std::exchange(deferred_, {})) {
    function();
  }
}

void EventLoop::Serve(bool may_sleep) {
  std::array<epoll_event, kMaxEventsPerTurn> events;
  const int count = epoll_wait(epoll_, events.data(), kMaxEventsPerTurn, may_sleep ? -1 : 0);
  for (int i = 0; i < count; ++i) {
    Call(events[static_cast<size_t>(i)].data.u64, events[static_cast<size_t>(i)].events);
  }
}

void EventLoop::Call(uint64_t key, uint32_t events) {
  const auto found = watched_.find(static_cast<int>(static_cast<uint32_t>(key)));
  if (found == watched_.end() || ToKey(found->first, found->second.number) != key) {
    return;  // a handler of this turn ended the watch
  }
  // It may end its own watch.
  const std::shared_ptr<Handler> handler = found->second.handler;
  (*handler)(events);
}

void EventLoop::Wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
}

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace core
