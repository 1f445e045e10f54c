// SPDX-License-Identifier: Apache-2.0
#include "./host_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <utility>
#include <vector>

static_assert(sizeof(time_t) == 8, "build with _TIME_BITS=64 and _FILE_OFFSET_BITS=64 on a 32-bit machine");

namespace {

// The wait of poll() stands still while the machine is suspended; a delay does not. So it is cut into pieces.
constexpr int64_t kLongestWaitUs = 1000000;

}  // namespace

HostLoop& HostLoop::Get() {
  static HostLoop& loop = *new HostLoop;
  return loop;
}

HostLoop::HostLoop() {
  if (pipe(wake_pipe_) != 0) {
    std::abort();
  }
  for (const int fd : wake_pipe_) {
    fcntl(fd, F_SETFL, O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  Watch(wake_pipe_[0], [this] {
    char bytes[64];
    while (read(wake_pipe_[0], bytes, sizeof bytes) > 0) {
    }
  });
}

int64_t HostLoop::NowUs() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

void HostLoop::Post(int64_t delay_us, Work work) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int64_t now_us = NowUs();
    const int64_t wait_us = std::clamp<int64_t>(delay_us, 0, std::numeric_limits<int64_t>::max() - now_us);
    work_.emplace(now_us + wait_us, std::move(work));
  }
  // A full pipe wakes the loop as well.
  [[maybe_unused]] const ssize_t written = write(wake_pipe_[1], "", 1);
}

void HostLoop::Watch(int fd, Work on_readable) { watched_[fd] = std::move(on_readable); }

void HostLoop::Unwatch(int fd) { watched_.erase(fd); }

bool HostLoop::RunUntil(const std::function<bool()>& done, int64_t limit_us) {
  const int64_t end_us = NowUs() + limit_us;
  while (!done()) {
    const int64_t left_us = end_us - NowUs();
    if (left_us <= 0) {
      return false;
    }
    ServeDescriptors(left_us);
    RunDueWork();
  }
  return true;
}

// What is due when it begins: the descriptors have their turn before later work.
void HostLoop::RunDueWork() {
  const int64_t now_us = NowUs();
  for (;;) {
    Work work;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (work_.empty() || work_.begin()->first > now_us) {
        return;
      }
      work = std::move(work_.begin()->second);
      work_.erase(work_.begin());
    }
    work();
  }
}

// Waits until a descriptor is ready, work is due or the limit has passed.
void HostLoop::ServeDescriptors(int64_t limit_us) {
  int64_t wait_us = std::min(limit_us, kLongestWaitUs);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!work_.empty()) {
      wait_us = std::clamp<int64_t>(work_.begin()->first - NowUs(), 0, wait_us);
    }
  }
  std::vector<pollfd> ready;
  for (const auto& [fd, on_readable] : watched_) {
    ready.push_back({fd, POLLIN, 0});
  }
  if (poll(ready.data(), ready.size(), static_cast<int>((wait_us + 999) / 1000)) <= 0) {
    return;
  }
  for (const pollfd& entry : ready) {
    const auto found = watched_.find(entry.fd);
    if (entry.revents != 0 && found != watched_.end()) {
      const Work on_readable = found->second;  // a copy: it may end its own watch
      on_readable();
    }
  }
}
