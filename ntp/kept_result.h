// SPDX-License-Identifier: Apache-2.0
// The decisions about the kept result: whether a new one takes its place, whether it is fresh enough to be
// announced again, and whether it asks to be renewed.
//
// Pure functions of their arguments: no clock, no log, no lock, no queue. Any thread. "Local ms" are
// milliseconds of the wall clock since 1601. They stand in a header because a read of the clock that is due
// makes several of these decisions between its clock readings.
#pragma once

#include <cstdint>

#include "ntp/ntp_sync_records.h"
#include "platform/base/int_math.h"
#include "platform/base/time.h"

namespace skorra {

// --- Which of two results stays.

// Whether a result takes the place of the kept one. A success always does, and otherwise one that is at least
// as good: also "no result" over "no result", which throws a provisional offset away.
constexpr bool ReplacesKeptResult(NtpResult candidate, NtpResult kept) {
  return candidate == NtpResult::kSuccess || (kept != NtpResult::kSuccess && candidate >= kept);
}

// Whether the candidate becomes the domain that a failed attempt reports. A plain comparison of codes, not a
// ranking: a current success stays, and so does "may be inaccurate" against a candidate's success.
// This is intended; DomainListTest (tests/ntp/domain_list_test.cc) holds it.
constexpr bool TakesOverAsReported(NtpResult candidate, NtpResult current) {
  return current != NtpResult::kSuccess && current < candidate;
}

// The code that an attempt without a success announces when this one is kept. It is never success, whatever
// an earlier attempt left.
constexpr NtpResult AnnouncedWithoutSuccess(NtpResult kept) {
  return kept == NtpResult::kSuccess ? NtpResult::kMaybeInaccurate : kept;
}

// --- Age. A kept result younger than the quiet period is announced again instead of asking servers. For as
// long after a read has asked for a sync, reads check nothing.

inline constexpr int64_t kQuietPeriodMs = 600000;

// Whether there was a success, and the wall clock has gone on since. `last_ms` is its moment, 0 for never.
constexpr bool IsAfterSuccess(int64_t last_ms, int64_t now_ms) { return last_ms != 0 && last_ms < now_ms; }

constexpr bool IsWithinQuietPeriod(int64_t last_ms, int64_t now_ms) {
  return base::WrappingSubtract(now_ms, last_ms) < kQuietPeriodMs;
}

// The moment from which a read checks the kept result again, when one last began a sync at `last_check_ms`
// (not 0, which means never).
//
// The rule is now_ms - last_check_ms >= 600000 in whole milliseconds. Comparing microseconds with a limit
// that was multiplied up gives the same answer and spares the read a division, but for two kinds of value
// that no system clock yields: of a wall clock before 1601, whose milliseconds are rounded up, a read is due
// up to 999 us later than by the rule; and a stored value within ten minutes of the ends of what 64 bits of
// microseconds hold wraps. KeptResultDecisionTest in tests/ntp/kept_result_decision_test.cc compares the two.
constexpr base::Time ReadCheckTime(int64_t last_check_ms) {
  return base::Time::FromDeltaSinceWindowsEpoch(base::TimeDelta::FromMicroseconds(
      base::WrappingMultiply(base::WrappingAdd(last_check_ms, kQuietPeriodMs), 1000)));
}

// Whether a result asks for the periodic sync once it is `elapsed_s` whole seconds of NTP time old: they must
// be more than the interval. An interval of 0 switches the periodic sync off.
constexpr bool IsPeriodicSyncDue(int64_t elapsed_s, uint32_t interval_s) {
  return interval_s != 0 && elapsed_s > int64_t{interval_s};
}

// --- Quality.

// The properties by which the kept result is judged.
struct KeptQuality {
  NtpResult result = NtpResult::kNoResult;
  int64_t offset_us = kNoOffsetUs;
  uint32_t last_request_cost_ms = 0;
  bool is_rtt_reliable = false;
  bool is_reliable = false;
};

// The cost of the last request of a good result, both ends included. 0 ms is no good cost either. This is
// intended; DriftDetectionTest (tests/ntp/drift_detection_test.cc) holds it.
inline constexpr uint32_t kMinGoodCostMs = 1;
inline constexpr uint32_t kMaxGoodCostMs = 799;

constexpr bool IsGoodEnough(const KeptQuality& kept) {
  return kept.result == NtpResult::kSuccess && kept.offset_us != kNoOffsetUs &&
         kept.last_request_cost_ms >= kMinGoodCostMs && kept.last_request_cost_ms <= kMaxGoodCostMs &&
         kept.is_rtt_reliable && kept.is_reliable;
}

// --- Deviation: whether the wall clock and the NTP clock, which follows the steady one, have run apart.

// One moment on both clocks.
struct ClockPair {
  int64_t ntp_us = 0;    // since 1970
  int64_t local_ms = 0;  // since 1601
};

// By how much the time that passed on one clock differs from that on the other. Only the low 32 bits of the
// difference count.
constexpr uint32_t DeviationMs(const ClockPair& before, const ClockPair& now) {
  const int64_t local_elapsed_ms = base::WrappingSubtract(now.local_ms, before.local_ms);
  const int64_t ntp_elapsed_ms = base::WrappingSubtract(now.ntp_us, before.ntp_us) / 1000;
  return static_cast<uint32_t>(
      base::WrappingMagnitude(base::WrappingSubtract(local_elapsed_ms, ntp_elapsed_ms)));
}

inline constexpr uint32_t kToleratedDeviationMs = 4;  // up to this the clocks agree
inline constexpr uint32_t kLargeDeviationMs = 500;    // above this the quality report tells it

}  // namespace skorra
