// SPDX-License-Identifier: Apache-2.0

// Steps of the wall clock come from a timer that the kernel cancels when the clock is set (and at the end of
// a suspend); the timer itself never expires. The network comes from a netlink socket, which needs no
// privilege.
#include "platform/core/machine_watch.h"

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <span>
#include <system_error>
#include <utility>

#include "platform/base/fork.h"
#include "platform/base/log.h"
#include "platform/linux/event_loop.h"
#include "platform/linux/network_changes.h"
#include "platform/linux/queue_context.h"
#include "platform/metrics/key_metrics.h"

namespace core {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/linux/machine_watch";
// After this many datagrams in a row, the queue's tasks run first.
constexpr int kMaxDatagramsPerWakeUp = 64;

using internal::EventLoop;

// One of the two events that the system may not offer. Logged once in the process.
struct Part {
  const char* counter;
  const char* message;
  std::atomic<bool> is_logged{false};
};

Part clock_part{.counter = "core.machine_watch.clock_failed",
                .message = "cannot watch the wall clock, so a step or a suspend is noticed later: %s"};
Part network_part{.counter = "core.machine_watch.network_failed",
                  .message = "cannot watch the network, so its return is noticed later: %s"};

// Returns ECANCELED when the wall clock was set before the timer was armed (and it is armed all the same),
// another error number, or 0.
int ArmForever(int timer) {
  itimerspec when{};
  when.it_value.tv_sec = std::numeric_limits<time_t>::max();
  return timerfd_settime(timer, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr) == 0 ? 0 : errno;
}

}  // namespace

// Shared with the event loop's handlers: one may be pending, or calling a callback, when the watch is
// destroyed.
struct MachineWatch::Impl {
  struct State : std::enable_shared_from_this<State> {
    State(EventLoop& queue_loop, Callbacks functions) : loop(queue_loop), callbacks(std::move(functions)) {}

    // These three return an error number, or 0.
    int OpenTimer();
    int OpenNetlink();
    int Watch(int fd, void (State::*read)());
    void ReadTimer();
    void ReadNetlink();
    // Takes what has arrived, up to a limit. Sets `*is_up` when the network came up. Returns an error number,
    // or 0.
    int TakeMessages(bool* is_up);
    void Report(const std::function<void()>& callback);
    void ReportFailure(Part& part, int error);

    EventLoop& loop;
    int timer = -1;
    int netlink = -1;
    internal::NetworkChanges network_changes;
    const Callbacks callbacks;
    // In a forked child the watch remains its parent's: the child closes it without telling the event loop.
    const uint32_t fork_generation = base::ForkGeneration();
  };

  std::shared_ptr<State> state;
};

int MachineWatch::Impl::State::Watch(int fd, void (State::*read)()) {
  return loop.Watch(fd, EventLoop::When::kReadable,
                    [self = shared_from_this(), read](uint32_t) { (self.get()->*read)(); });
}

int MachineWatch::Impl::State::OpenTimer() {
  timer = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (timer < 0) {
    return errno;
  }
  const int error = ArmForever(timer);
  return error == 0 || error == ECANCELED ? Watch(timer, &State::ReadTimer) : error;
}

int MachineWatch::Impl::State::OpenNetlink() {
  netlink = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (netlink < 0) {
    return errno;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (bind(netlink, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return errno;
  }
  network_changes.NoteSystem();
  return Watch(netlink, &State::ReadNetlink);
}

void MachineWatch::Impl::State::ReadTimer() {
  uint64_t expirations = 0;
  int error = read(timer, &expirations, sizeof expirations) < 0 ? errno : 0;
  const bool is_clock_set = error == ECANCELED;
  if (is_clock_set) {
    // A step that comes before it is armed again is part of this report.
    error = ArmForever(timer);
  }
  if (error != 0 && error != ECANCELED && error != EAGAIN && error != EINTR) {
    loop.Unwatch(timer);
    ReportFailure(clock_part, error);
  }
  if (is_clock_set) {
    Report(callbacks.on_clock_set);
  }
}

void MachineWatch::Impl::State::ReadNetlink() {
  bool is_up = false;
  if (const int error = TakeMessages(&is_up); error != 0) {
    loop.Unwatch(netlink);
    ReportFailure(network_part, error);
  }
  if (is_up) {
    Report(callbacks.on_network_up);
  }
}

int MachineWatch::Impl::State::TakeMessages(bool* is_up) {
  alignas(nlmsghdr) std::array<uint8_t, 16384> buffer;
  for (int i = 0; i < kMaxDatagramsPerWakeUp; ++i) {
    sockaddr_nl source{};
    socklen_t source_size = sizeof source;
    const ssize_t size = recvfrom(netlink, buffer.data(), buffer.size(), 0,
                                  reinterpret_cast<sockaddr*>(&source), &source_size);
    if (size >= 0) {
      // Only the kernel has number 0; another process may write to the socket, too.
      const auto datagram = std::span<const uint8_t>(buffer).first(static_cast<size_t>(size));
      *is_up = (source.nl_pid == 0 && network_changes.Observe(datagram)) || *is_up;
    } else if (errno == ENOBUFS) {
      *is_up = true;  // messages were lost, one of which may have said so
    } else if (errno != EINTR) {
      return errno == EAGAIN ? 0 : errno;
    }
  }
  return 0;
}

void MachineWatch::Impl::State::Report(const std::function<void()>& callback) {
  if (callback) {
    internal::RunHandler(callback);
  }
}

void MachineWatch::Impl::State::ReportFailure(Part& part, int error) {
  base::KeyMetrics::Count(part.counter);
  if (part.is_logged.exchange(true, std::memory_order_relaxed)) {
    return;
  }
  // By itself: the log's sink may be a function of the host program.
  loop.Defer([&part, error] {
    internal::RunHandler([&] {
      base::LocalLog(base::kLogFailure, kLogFile, __LINE__, part.message,
                     std::system_category().message(error).c_str());
    });
  });
}

std::unique_ptr<MachineWatch> MachineWatch::Open(Callbacks callbacks) {
  EventLoop* const loop = internal::CurrentEventLoop();
  if (loop == nullptr) {
    return nullptr;
  }
  auto state = std::make_shared<Impl::State>(*loop, std::move(callbacks));
  if (const int error = state->OpenTimer(); error != 0) {
    state->ReportFailure(clock_part, error);
  }
  if (const int error = state->OpenNetlink(); error != 0) {
    state->ReportFailure(network_part, error);
  }
  return std::unique_ptr<MachineWatch>(new MachineWatch(std::make_unique<Impl>(Impl{std::move(state)})));
}

MachineWatch::MachineWatch(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

MachineWatch::~MachineWatch() {
  Impl::State& state = *impl_->state;
  for (const int fd : {state.timer, state.netlink}) {
    if (fd < 0) {
      continue;
    }
    if (state.fork_generation == base::ForkGeneration()) {
      state.loop.Unwatch(fd);
    }
    close(fd);
  }
}

}  // namespace skorra_ntp
}  // namespace core
