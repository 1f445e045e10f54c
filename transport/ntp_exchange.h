// SPDX-License-Identifier: Apache-2.0
// One exchange with a server, as data: what one request and its reply measured.
//
// A public header, by way of ntp/ntp_sync_records.h: it compiles alone, as C++17 too.
#pragma once

#include <cstdint>
#include <limits>

namespace skorra {

// The offset that stands for "no offset is known".
inline constexpr int64_t kNoOffsetUs = std::numeric_limits<int64_t>::max();

// One sample. A plain value.
struct NtpResultData {
  int64_t offset_us = 0;  // server clock minus local clock: positive means that the server is ahead
  int64_t rtt_us = 0;     // the round-trip time without the server's own work

  friend bool operator==(const NtpResultData& a, const NtpResultData& b) {
    return a.offset_us == b.offset_us && a.rtt_us == b.rtt_us;
  }
  friend bool operator!=(const NtpResultData& a, const NtpResultData& b) { return !(a == b); }
};

}  // namespace skorra
