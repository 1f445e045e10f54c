// SPDX-License-Identifier: Apache-2.0
// One exchange with a server, as data: what one request and its reply measured, and all else that they tell.
//
// A public header: it compiles alone, as C++17 too.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <tuple>

#include "../platform/net/ip_endpoint.h"

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

// Who read the clock for one of our own time stamps.
enum class NtpStampSource : int32_t {
  kKernel = 0,
  kUser = 1,  // this process, next to the system call: the kernel gave no stamp, or an implausible one
};

// All that one exchange tells: what was measured, and what the server says of itself. A plain value.
struct NtpExchange {
  NtpResultData sample{};
  // The four time stamps (RFC 5905, section 8), microseconds since 1601. Ours are steady ticks plus
  // `system_offset_from_steady_us`. The server's are rounded to the nearest microsecond.
  int64_t send_local_us = 0;       // T1
  int64_t server_receive_us = 0;   // T2
  int64_t server_transmit_us = 0;  // T3
  int64_t receive_local_us = 0;    // T4
  int64_t system_offset_from_steady_us = 0;
  // Of the server from its reference clock, rounded up to whole microseconds.
  int64_t root_delay_us = 0;
  int64_t root_dispersion_us = 0;
  int8_t precision = 0;        // of the server's clock: log2 seconds
  uint8_t stratum = 0;         // 1 to 15
  uint8_t leap_indicator = 0;  // 1: the last minute of this day has 61 s; 2: it has 59 s; 0 otherwise
  uint32_t reference_id = 0;   // at stratum 1 the reference clock's four letters
  NtpStampSource send_stamp = NtpStampSource::kUser;     // of T1
  NtpStampSource receive_stamp = NtpStampSource::kUser;  // of T4
  net::IPEndPoint server{};                              // that answered
  std::string domain{};  // that asked the address; empty until the time manager has filed the sample

  friend bool operator==(const NtpExchange& a, const NtpExchange& b) {
    const auto members = [](const NtpExchange& e) {
      return std::tie(e.sample, e.send_local_us, e.server_receive_us, e.server_transmit_us,
                      e.receive_local_us, e.system_offset_from_steady_us, e.root_delay_us,
                      e.root_dispersion_us, e.precision, e.stratum, e.leap_indicator, e.reference_id,
                      e.send_stamp, e.receive_stamp, e.server, e.domain);
    };
    return members(a) == members(b);
  }
  friend bool operator!=(const NtpExchange& a, const NtpExchange& b) { return !(a == b); }
};

}  // namespace skorra
