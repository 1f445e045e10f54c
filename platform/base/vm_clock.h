// SPDX-License-Identifier: Apache-2.0

// The page in which a hypervisor tells a virtual machine that its time was disrupted: after a snapshot was
// restored or the machine moved to another host, the guest's clocks may be wrong by any amount, and nothing
// else in the guest shows it. On Linux the device is /dev/vmclock0; a plain file with the same bytes will do.
//
// The layout of its beginning, all little-endian: at 0 the magic number "VCLK" (32 bits), at 4 the size of
// the page (32), at 8 the version (16), at 16 the disruption marker (64).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace base {
inline namespace skorra_ntp {

class VmClock {
 public:
  // Maps the page at `path`. Null when nothing is there, when it is no such page or too short for one, and
  // when it cannot be mapped. A plain file must not be cut while it is mapped.
  static std::unique_ptr<VmClock> Open(const std::string& path);
  ~VmClock();
  VmClock(const VmClock&) = delete;
  VmClock& operator=(const VmClock&) = delete;

  // Changes to another value at each disruption. One load from memory; any thread.
  uint64_t disruption_marker() const;

 private:
  explicit VmClock(const void* page) : page_(page) {}

  const void* const page_;
};

}  // namespace skorra_ntp
}  // namespace base
