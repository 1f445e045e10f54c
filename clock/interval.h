// SPDX-License-Identifier: Apache-2.0
// What the exchanges of one burst prove about the time: one interval, or a contradiction.
//
// Pure functions of their arguments: no clock, no log, no lock. Any thread, any input. Every rounding makes
// an interval wider, and an end whose sum does not fit into 64 bits is the smallest or the largest number.
//
// Source of the formulas: RFC 5905, sections 8 and 11.2. T1 to T4 are the four time stamps of an exchange. A
// request cannot arrive before it was sent, nor a reply before it left. So the server's clock is ahead of
// ours by at most T2 - T1 and by at least T3 - T4, however long each way took: that is offset + r/2 and
// offset - r/2, with r the round trip. What the stamps themselves may be wrong by widens both ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "transport/ntp_exchange.h"

namespace skorra {

// All numbers from `earliest_us` to `latest_us`, both included. Of differences between network time (since
// 1970) and steady ticks, in microseconds.
struct OffsetInterval {
  int64_t earliest_us = 0;
  int64_t latest_us = 0;

  friend bool operator==(const OffsetInterval&, const OffsetInterval&) = default;
};

// How far one of our own stamps may be from the event, in the direction in which a delay does not explain it.
// A stamp of the kernel is a wall-clock time that was mapped to steady ticks by a reading of both clocks; a
// stamp of our own is early for a request and late for a reply, which only lengthens the round trip.
inline constexpr int64_t kKernelStampErrorUs = 10;
inline constexpr int64_t kOwnStampErrorUs = 1;
// The part of a round trip that our clock may gain or lose meanwhile (RFC 5905: PHI, 15 ppm).
inline constexpr int64_t kFrequencyToleranceMillionths = 15;

// Half the root delay, the root dispersion and the server's precision, rounded up.
int64_t ServerErrorUs(const NtpExchange& exchange);

// What an exchange proves: the interval around its offset, widened at both ends by the server's error, the
// error of our own stamps, the tolerance of our frequency over the round trip, and `drift_us`: what our clock
// may have gained or lost against the truth from the exchange to the moment that the interval is for.
OffsetInterval ProvenInterval(const NtpExchange& exchange, int64_t drift_us);

// What all of them prove together; nothing when they contradict each other. There is at least one.
std::optional<OffsetInterval> Intersect(const std::vector<OffsetInterval>& intervals);

// The best guess of the offset, a difference like those above: the middle between what the quickest request
// and what the quickest reply of them say. A packet that no queue held up shows the length of its way, and
// the two need not be of one exchange. So it does not matter whether queues build up in one direction or in
// both: only ways that differ in length without any queue move this. There is at least one exchange.
int64_t EstimateUs(const std::vector<NtpExchange>& exchanges);

// Of fewer exchanges chance makes anything: the next two functions say nothing of them.
inline constexpr size_t kEnoughToCompare = 6;

// Whether the server's clock ran through the burst at another rate than ours, so that the replies, each
// possible by itself, cannot all be true. Queues on the way change the offset by half of what they change the
// round trip at most; here the offsets follow the time of sending closely, by more than the server's
// own error and our own clock's `drift_us` during the burst, and the round trips do not explain it. Needs 6
// exchanges to say so.
bool IsRamp(const std::vector<NtpExchange>& exchanges, int64_t drift_us);

// The same where the server's clock jumps to and fro: whatever one way takes longer, the other takes less, as
// if the queues of both ways knew of each other. Of two ways that do not, chance makes it so in one of 10^9
// bursts. Needs 6 exchanges, and offsets that differ by more than a quarter of the shortest round trip, the
// server's own error and twice `drift_us`: smaller ones cannot move an interval off the truth.
bool AreWaysOpposed(const std::vector<NtpExchange>& exchanges, int64_t drift_us);

}  // namespace skorra
