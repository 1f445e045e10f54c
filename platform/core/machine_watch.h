// SPDX-License-Identifier: Apache-2.0

// Tells when the machine's time or network is no longer what it was: a seam with a real and a simulated
// implementation. The system pushes these events; nothing polls.
//
//   watch_ = core::MachineWatch::Open({.on_clock_set = [this] { ... }, .on_network_up = [this] { ... }});
//
// A hint, not a record: several events may be reported as one, and some networks report more than one for
// what a person would call one event.
#pragma once

#include <functional>
#include <memory>

namespace core {
inline namespace skorra_ntp {

// Belongs to the task queue on which it was opened: it is opened and destroyed there, and the callbacks run
// there, never inside `Open`. Destroying it ends the callbacks; a callback may destroy its own watch. In a
// forked child, a watch of the parent reports nothing.
class MachineWatch {
 public:
  // Either may be empty.
  struct Callbacks {
    // The wall clock was set (not slewed), or the machine woke up from suspend.
    std::function<void()> on_clock_set = nullptr;
    // An interface got an address, or its link came up.
    std::function<void()> on_network_up = nullptr;
  };

  // Null when the caller does not run on a task queue. Where the system does not offer one of the events (a
  // sandbox may forbid it), that event is never reported: this is logged once in the process, and each watch
  // counts it as core.machine_watch.clock_failed or core.machine_watch.network_failed.
  static std::unique_ptr<MachineWatch> Open(Callbacks callbacks);
  ~MachineWatch();
  MachineWatch(const MachineWatch&) = delete;
  MachineWatch& operator=(const MachineWatch&) = delete;

 private:
  struct Impl;
  explicit MachineWatch(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace skorra_ntp
}  // namespace core
