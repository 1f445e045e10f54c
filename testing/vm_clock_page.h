// SPDX-License-Identifier: Apache-2.0

// A plain file in the place of a hypervisor's page (platform/base/vm_clock.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

namespace skorra {

// A page with this disruption marker.
inline std::string VmClockPage(uint64_t disruption_marker) {
  std::string page(4096, '\0');
  page.replace(0, 4, "VCLK");
  page[5] = 16;  // the size: 4096
  page[8] = 1;   // the version
  for (size_t i = 0; i < sizeof disruption_marker; ++i) {
    page[16 + i] = static_cast<char>(disruption_marker >> 8 * i);
  }
  return page;
}

// Changes the marker in a file that may be mapped.
inline void SetVmClockMarker(const std::string& path, uint64_t disruption_marker) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(16);
  file << VmClockPage(disruption_marker).substr(16, 8);
}

}  // namespace skorra
