// SPDX-License-Identifier: Apache-2.0
// What several servers say together about the time: who agrees, and who is wrong.
//
// Pure functions of their arguments: no clock, no log, no lock. Any thread, any input.
//
// Each server proves an interval for the time, all of them at the same moment. If more than half of the
// servers are honest, the true time lies in more than half of the intervals. So a server is certainly wrong
// whose interval shares no point with more than half of them, itself included: it is outvoted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "clock/interval.h"
#include "clock/ntp_clock.h"

namespace skorra {

struct WitnessVote {
  NtpClockAgreement agreement = NtpClockAgreement::kUnchecked;
  // From the first to the last point that lies in more than half of the intervals. Nothing: there is none.
  std::optional<OffsetInterval> majority;
  std::vector<bool> agrees;       // by server: its interval overlaps the first one's
  std::vector<bool> is_outvoted;  // by server: there is a majority, and its interval has no part in it
};

// `intervals` has one for each server that answered, the first one that of the server whose result is
// checked; each one's earliest end is not after its latest. With no other server, nothing is checked.
WitnessVote Vote(const std::vector<OffsetInterval>& intervals);

// Servers that smear a leap second tell a time that is up to a second from that of the others for most of a
// day, and so do their readings: further apart than the errors of good servers, and not further than this.
inline constexpr int64_t kMinSmearUs = 20000;
inline constexpr int64_t kMaxSmearUs = 1000000;
// A difference that has lasted this many checks in a row is no accident.
inline constexpr uint32_t kSteadyChecks = 3;

// How far the middle of `other` is ahead of that of `result`, if that may be a smear: the intervals have no
// point in common, and their middles are 20 ms to 1 s apart. 0: it may not.
int64_t SmearLikeGapUs(const OffsetInterval& result, const OffsetInterval& other);

// Whether `time_us`, since 1970, is in the 24 hours before or after the end of 30 June or of 31 December.
bool IsNearLeapMoment(int64_t time_us);

// Whether two of the servers differ as by a smear while a leap second is near: one of them has announced it,
// or it is within 24 hours of a day that may have one. `ticks_us` is the moment of the intervals.
bool DifferNearLeapSecond(const std::vector<OffsetInterval>& intervals, int64_t ticks_us,
                          bool is_leap_announced);

// How often in a row, and in which direction, one server has differed from the result's as by a smear.
struct SmearRun {
  uint32_t count = 0;
  bool is_ahead = false;
};

// The run after a check that found `gap_us` (SmearLikeGapUs).
SmearRun NextSmearRun(const SmearRun& run, int64_t gap_us);

}  // namespace skorra
