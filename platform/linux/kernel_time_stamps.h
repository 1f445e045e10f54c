// SPDX-License-Identifier: Apache-2.0

// The kernel's time stamps of datagrams: how to ask for them, how to find them in a message, and how to map
// them to the steady clock.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>

#include "platform/net/datagram_socket.h"

namespace net {
inline namespace skorra_ntp {
namespace internal {

// Asks for a time stamp of each arrival. Returns false if there will be none; use the time of reading then.
bool RequestReceiveStamps(int fd);
// Asks for a time stamp of each departure. The kernel numbers the datagrams from 0 and puts each stamp into
// the socket's error queue. Returns false if there will be none.
bool RequestSendStamps(int fd);

// The receive stamp of a datagram: wall-clock microseconds since 1601.
std::optional<int64_t> ReceiveStamp(msghdr& message);

struct SendStamp {
  uint32_t number = 0;
  int64_t wall_us = 0;  // since 1601
};
// The send stamp in a message from the error queue; nullopt if the message is of another kind.
std::optional<SendStamp> SendStampOf(msghdr& message);

struct ClockReading {
  int64_t ticks_us = 0;
  int64_t wall_minus_steady_us = 0;
};
ClockReading ReadClocks();

struct Arrival {
  int64_t ticks_us = 0;
  StampSource source = StampSource::kUser;
};

// Maps the kernel's stamps, which are wall-clock times, to steady ticks. A stamp is good however long its
// datagram waited to be read, unless the wall clock was stepped meanwhile.
class StampClock {
 public:
  // `opened` must be read before the socket can receive a stamp.
  explicit StampClock(const ClockReading& opened) : opened_ticks_us_(opened.ticks_us), last_(opened) {}

  // Notes a reading of the clocks. Call it after reading stamps and before mapping them.
  void Observe(const ClockReading& now);

  // The steady ticks of a stamp. Rejects (nullopt) a stamp later than the last reading, earlier than
  // `not_before_ticks_us` or the opening of the socket, and one that may predate a step of the wall clock.
  std::optional<int64_t> ToSteady(int64_t wall_us, int64_t not_before_ticks_us = 0) const;

  // The arrival of a datagram that was read at `read_ticks_us`; `wall_us` is its receive stamp, if it has
  // one.
  Arrival ToArrival(std::optional<int64_t> wall_us, int64_t read_ticks_us) const;

  // Whether a stamp that is still to be mapped may be older than a step of the wall clock. Only
  // `OnQueueDrained` ends this.
  bool may_predate_step() const { return may_predate_step_; }

  // Call it when the socket had no more stamps at the last reading: every stamp to come is later than the
  // steps seen at earlier readings, and these are forgotten.
  void OnQueueDrained();

 private:
  int64_t opened_ticks_us_;
  ClockReading last_;
  bool stepped_at_last_reading_ = false;
  bool may_predate_step_ = false;
};

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace net
