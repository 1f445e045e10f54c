// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/kernel_time_stamps.h"

#include <linux/errqueue.h>
#include <linux/net_tstamp.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/base/clock.h"
#include "platform/base/time.h"

namespace net {
inline namespace skorra_ntp {
namespace internal {

namespace {

// The wall clock was stepped if it moved further than this against the steady one since the last reading. The
// kernel runs both at one rate: smaller differences are the uncertainty of reading them, emulated clocks
// included.
constexpr int64_t kWallStepUs = 1000;
// How far outside its limits a good stamp may appear: both clocks are cut to microseconds, and their
// difference is known to half the time that the tightest pair of readings took.
constexpr int64_t kReadingErrorUs = 100;

#if __SIZEOF_LONG__ == 4
static_assert(SO_TIMESTAMPNS == SO_TIMESTAMPNS_NEW && SO_TIMESTAMPING == SO_TIMESTAMPING_NEW,
              "build with _TIME_BITS=64: the older options stamp with 32-bit seconds, which end in 2038");
#endif

// The kernel writes two 64-bit numbers on every machine, whatever the size of `timespec`.
struct KernelTime {
  int64_t seconds;
  int64_t nanoseconds;
};

int64_t ToWallUs(const cmsghdr& header) {
  KernelTime time;
  std::memcpy(&time, CMSG_DATA(&header), sizeof time);
  return time.seconds * base::kUsPerSecond + time.nanoseconds / 1000 + base::kWindowsToUnixEpochUs;
}

bool IsStamp(const cmsghdr& header, int type) {
  return header.cmsg_level == SOL_SOCKET && header.cmsg_type == type &&
         header.cmsg_len >= CMSG_LEN(sizeof(KernelTime));
}

bool IsExtendedError(const cmsghdr& header) {
  return ((header.cmsg_level == SOL_IP && header.cmsg_type == IP_RECVERR) ||
          (header.cmsg_level == SOL_IPV6 && header.cmsg_type == IPV6_RECVERR)) &&
         header.cmsg_len >= CMSG_LEN(sizeof(sock_extended_err));
}

}  // namespace

bool RequestReceiveStamps(int fd) {
  const int on = 1;
  return setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0;
}

bool RequestSendStamps(int fd) {
  // OPT_TSONLY: a stamp without a copy of its datagram needs no privilege.
  const unsigned flags = SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_OPT_ID |
                         SOF_TIMESTAMPING_OPT_TSONLY;
  return setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &flags, sizeof flags) == 0;
}

std::optional<int64_t> ReceiveStamp(msghdr& message) {
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
    if (IsStamp(*header, SCM_TIMESTAMPNS)) {
      return ToWallUs(*header);
    }
  }
  return std::nullopt;
}

std::optional<SendStamp> SendStampOf(msghdr& message) {
  std::optional<int64_t> wall_us;
  std::optional<uint32_t> number;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
    if (IsStamp(*header, SCM_TIMESTAMPING)) {
      // Three stamps; the first is the software's.
      wall_us = ToWallUs(*header);
    } else if (IsExtendedError(*header)) {
      sock_extended_err kind;
      std::memcpy(&kind, CMSG_DATA(header), sizeof kind);
      if (kind.ee_origin == SO_EE_ORIGIN_TIMESTAMPING && kind.ee_info == SCM_TSTAMP_SND) {
        number = kind.ee_data;
      }
    }
  }
  if (!wall_us || !number) {
    return std::nullopt;
  }
  return SendStamp{*number, *wall_us};
}

ClockReading ReadClocks() {
  const int64_t wall_minus_steady_us = base::GetSystemTimeOffsetFromSteady();
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  return {now_ticks_us, wall_minus_steady_us};
}

void StampClock::Observe(const ClockReading& now) {
  stepped_at_last_reading_ = std::abs(now.wall_minus_steady_us - last_.wall_minus_steady_us) > kWallStepUs;
  may_predate_step_ = may_predate_step_ || stepped_at_last_reading_;
  last_ = now;
}

std::optional<int64_t> StampClock::ToSteady(int64_t wall_us, int64_t not_before_ticks_us) const {
  const int64_t earliest_ticks_us = std::max(opened_ticks_us_, not_before_ticks_us);
  const int64_t ticks_us = wall_us - last_.wall_minus_steady_us;
  if (may_predate_step_ || ticks_us < earliest_ticks_us - kReadingErrorUs ||
      ticks_us > last_.ticks_us + kReadingErrorUs) {
    return std::nullopt;
  }
  return std::clamp(ticks_us, earliest_ticks_us, std::max(earliest_ticks_us, last_.ticks_us));
}

Arrival StampClock::ToArrival(std::optional<int64_t> wall_us, int64_t read_ticks_us) const {
  if (!wall_us) {
    return {read_ticks_us, StampSource::kUser};
  }
  const std::optional<int64_t> ticks_us = ToSteady(*wall_us);
  return ticks_us ? Arrival{*ticks_us, StampSource::kKernel}
                  : Arrival{read_ticks_us, StampSource::kImplausible};
}

void StampClock::OnQueueDrained() {
  // A step first seen at the last reading may be later than stamps that arrived after the last one was read.
  may_predate_step_ = stepped_at_last_reading_;
}

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace net
