// SPDX-License-Identifier: Apache-2.0
#include "clock/proven_burst.h"

#include <algorithm>
#include <cmath>

namespace skorra {

void MachineDrift::Begin(const ClocksReading& now, int64_t frequency_ppb) {
  *this = MachineDrift();
  begin_.clocks = now.clocks;
  begin_.reading_error_ns = now.error_ns;
  begin_.frequency = RateFromPpb(frequency_ppb);
}

void MachineDrift::Note(const ClocksReading& now) {
  const ClockSpans spans(begin_, now.clocks);
  has_slept_ = has_slept_ || spans.has_slept(now.error_ns);
  const int64_t gained_ns = base::WrappingSubtract(spans.monotonic_ns, spans.oscillator_ns);
  // A delay between the raw clock's reading and the monotonic clock's looks like a gain, now, and like a loss
  // at the beginning. Twice: what the clock was slewed during the delay is less than that.
  const auto twice = [](int64_t error_ns) { return base::SaturatingAdd(error_ns, error_ns); };
  lowest_ns_ = std::min(lowest_ns_, base::SaturatingSubtract(gained_ns, twice(now.error_ns)));
  highest_ns_ = std::max(highest_ns_, base::SaturatingAdd(gained_ns, twice(begin_.reading_error_ns)));
}

int64_t MachineDrift::drift_us() const {
  const int64_t range_ns = base::SaturatingSubtract(highest_ns_, lowest_ns_);
  return base::SaturatingAdd(range_ns / 1000 + 1, has_slept_ ? kSleepErrorUs : 0);
}

ProvenBurst Prove(const std::vector<NtpExchange>& exchanges, const ClocksReading& at, ClockRate growth,
                  int64_t drift_us) {
  ProvenBurst burst;
  burst.at = at;
  burst.server = exchanges.back().server;
  burst.estimate_us = EstimateUs(exchanges);
  std::vector<OffsetInterval> intervals;
  for (const NtpExchange& exchange : exchanges) {
    const int64_t sent_ticks_us =
        base::SaturatingSubtract(exchange.send_local_us, exchange.system_offset_from_steady_us);
    const int64_t age_us =
        std::max<int64_t>(base::SaturatingSubtract(at.clocks.boot_ns / 1000, sent_ticks_us), 0);
    const int64_t aging_us = Scale(base::SaturatingAdd(age_us, drift_us), growth) + 1;
    intervals.push_back(ProvenInterval(exchange, base::SaturatingAdd(drift_us, aging_us)));
    if (exchange.leap_indicator == 1 || exchange.leap_indicator == 2) {
      const int64_t seen_us =
          base::SaturatingSubtract(exchange.server_transmit_us, base::kWindowsToUnixEpochUs);
      burst.leap_seen_us = burst.leap == LeapWarning::kNone ? seen_us : std::min(burst.leap_seen_us, seen_us);
      burst.leap = static_cast<LeapWarning>(exchange.leap_indicator);
    }
  }
  if (!IsRamp(exchanges, drift_us) && !AreWaysOpposed(exchanges, drift_us)) {
    burst.interval = Intersect(intervals);
  }
  if (burst.interval) {
    burst.estimate_us = std::clamp(burst.estimate_us, burst.interval->earliest_us, burst.interval->latest_us);
  }
  return burst;
}

int64_t ScatterUs(const NtpResultData* samples, size_t count) {
  if (count == 0) {
    return 0;
  }
  double sum = 0;
  double square_sum = 0;
  for (size_t i = 0; i < count; ++i) {
    const auto from_first =
        static_cast<double>(base::SaturatingSubtract(samples[i].offset_us, samples[0].offset_us));
    sum += from_first;
    square_sum += from_first * from_first;
  }
  const double mean = sum / static_cast<double>(count);
  const double scatter = std::sqrt(std::max(0.0, square_sum / static_cast<double>(count) - mean * mean));
  return static_cast<int64_t>(std::min(scatter, static_cast<double>(kMaxTimeUs)));
}

}  // namespace skorra
