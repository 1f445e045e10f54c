// SPDX-License-Identifier: Apache-2.0
// The event loop that this host has anyway: one thread and one poll(). It knows nothing of the library.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

class HostLoop {
 public:
  using Work = std::function<void()>;

  // Never destroyed. The thread that calls `RunUntil` is the loop's.
  static HostLoop& Get();

  // The loop's time in microseconds. It counts while the machine is suspended.
  static int64_t NowUs();

  // Runs `work` on the loop's thread after `delay_us`; what is due at the same time, in posting order. Any
  // thread.
  void Post(int64_t delay_us, Work work);

  // Calls `on_readable` while there is something to read, until `Unwatch`. On the loop's thread only.
  void Watch(int fd, Work on_readable);
  void Unwatch(int fd);

  // Runs until `done` holds; returns false when it does not within `limit_us`.
  bool RunUntil(const std::function<bool()>& done, int64_t limit_us);

 private:
  HostLoop();

  void RunDueWork();
  void ServeDescriptors(int64_t limit_us);

  int wake_pipe_[2];
  std::map<int, Work> watched_;
  std::mutex mutex_;
  std::multimap<int64_t, Work> work_;  // by the time when it is due; guarded by mutex_
};
