// SPDX-License-Identifier: Apache-2.0
#include "ntp/kept_result.h"

namespace skorra {

using base::WrappingMagnitude;
using base::WrappingSubtract;

bool ReplacesKeptResult(NtpResult candidate, NtpResult kept) {
  return candidate == NtpResult::kSuccess || (kept != NtpResult::kSuccess && candidate >= kept);
}

bool TakesOverAsReported(NtpResult candidate, NtpResult current) {
  return current != NtpResult::kSuccess && current < candidate;
}

NtpResult AnnouncedWithoutSuccess(NtpResult kept) {
  return kept == NtpResult::kSuccess ? NtpResult::kMaybeInaccurate : kept;
}

bool IsAfterSuccess(int64_t last_ms, int64_t now_ms) { return last_ms != 0 && last_ms < now_ms; }

bool IsWithinQuietPeriod(int64_t last_ms, int64_t now_ms) {
  return WrappingSubtract(now_ms, last_ms) < kQuietPeriodMs;
}

bool IsPeriodicSyncDue(int64_t elapsed_s, uint32_t interval_s) {
  return interval_s != 0 && elapsed_s > int64_t{interval_s};
}

bool IsGoodEnough(const KeptQuality& kept) {
  return kept.result == NtpResult::kSuccess && kept.offset_us != kNoOffsetUs &&
         kept.last_request_cost_ms >= kMinGoodCostMs && kept.last_request_cost_ms <= kMaxGoodCostMs &&
         kept.is_rtt_reliable && kept.is_reliable;
}

uint32_t DeviationMs(const ClockPair& before, const ClockPair& now) {
  const int64_t local_elapsed_ms = WrappingSubtract(now.local_ms, before.local_ms);
  const int64_t ntp_elapsed_ms = WrappingSubtract(now.ntp_us, before.ntp_us) / 1000;
  return static_cast<uint32_t>(WrappingMagnitude(WrappingSubtract(local_elapsed_ms, ntp_elapsed_ms)));
}

}  // namespace skorra
