// The kernel's time stamps of datagrams: how to ask for them, where they stand in a message, and what they
// are on the steady clock.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>

#include "platform/net/datagram_socket.h"

namespace net {
inline namespace skorra_ntp {
namespace internal {

// Asks for the moment at which each datagram arrived. Without it the moment of reading must do.
bool RequestReceiveStamps(int fd);
// Asks for the moment at which each datagram left. The kernel numbers them from 0 and leaves each stamp in
// the socket's error queue.
bool RequestSendStamps(int fd);

// The receive stamp of a datagram that was read, wall-clock microseconds since 1601.
std::optional<int64_t> ReceiveStamp(msghdr& message);

struct SendStamp {
  uint32_t number = 0;
  int64_t wall_us = 0;  // since 1601
};
// The send stamp of a message from the error queue; nothing when the message is of another kind.
std::optional<SendStamp> SendStampOf(msghdr& message);

struct ClockReading {
  int64_t steady_us = 0;
  int64_t wall_minus_steady_us = 0;
};
ClockReading ReadClocks();

struct Arrival {
  int64_t ticks_us = 0;  // steady
  StampSource source = StampSource::kUser;
};

// Maps the kernel's stamps, which are of the wall clock, to the steady clock. However long a datagram had to
// wait for a busy queue, its stamp is good, unless the wall clock was set meanwhile.
class StampClock {
 public:
  // `opened` was read before the socket could have a stamp.
  explicit StampClock(const ClockReading& opened) : opened_us_(opened.steady_us), last_(opened) {}

  // Looks at the clocks. To be done after stamps were read and before they are mapped.
  void Look(const ClockReading& now);

  // Steady ticks of a stamp; nothing when it cannot be right: later than the last look, earlier than
  // `not_before_us` or the socket itself, or perhaps of a wall clock that has been set since.
  std::optional<int64_t> ToSteady(int64_t wall_us, int64_t not_before_us = 0) const;

  // When a datagram with the receive stamp `wall_us`, if any, arrived, which was read at `read_ticks_us`.
  Arrival ToArrival(std::optional<int64_t> wall_us, int64_t read_ticks_us) const;

  // All stamps from before the last look have been read and mapped: a clock set earlier matters no more.
  void ForgetSettings();

 private:
  int64_t opened_us_;
  ClockReading last_;
  bool was_set_in_last_look_ = false;
  bool is_in_doubt_ = false;  // a stamp that was read may be older than a setting of the wall clock
};

}  // namespace internal
}  // namespace skorra_ntp
}  // namespace net
