// SPDX-License-Identifier: Apache-2.0
#include "ntp/offset_estimation.h"

#include <algorithm>
#include <cmath>

#include "platform/base/int_math.h"

namespace skorra {
namespace {

using base::WrappingAdd;
using base::WrappingMagnitude;
using base::WrappingSubtract;

// One offset as far from the mean as this makes the offsets inconsistent.
constexpr int64_t kOffsetDistanceLimitUs = 30000;

// A deviation of round-trip times as large as its limit makes them unstable. The limit grows with their mean,
// since long paths vary more.
constexpr double kShortPathMs = 100.0;
constexpr double kMediumPathMs = 200.0;
constexpr double kShortPathDeviationMs = 15.0;
constexpr double kMediumPathDeviationMs = 20.0;
constexpr double kLongPathDeviationMs = 30.0;

double RttMs(const NtpResultData& sample) { return static_cast<double>(sample.rtt_us) / 1000.0; }

double RttDeviationLimitMs(double mean_rtt_ms) {
  if (mean_rtt_ms < kShortPathMs) {
    return kShortPathDeviationMs;
  }
  return mean_rtt_ms < kMediumPathMs ? kMediumPathDeviationMs : kLongPathDeviationMs;
}

}  // namespace

void SortByOffset(std::vector<NtpResultData>& samples) {
  std::sort(samples.begin(), samples.end(),
            [](const NtpResultData& a, const NtpResultData& b) { return a.offset_us < b.offset_us; });
}

void SortAndTrim(std::vector<NtpResultData>& samples) {
  SortByOffset(samples);
  const auto cut =
      static_cast<std::vector<NtpResultData>::difference_type>(CountTrimmedAtEachEnd(samples.size()));
  samples.erase(samples.begin(), samples.begin() + cut);
  samples.erase(samples.end() - cut, samples.end());
}

OffsetEstimate EstimateOffset(const std::vector<NtpResultData>& samples) {
  const auto count = static_cast<int64_t>(samples.size());
  int64_t offset_sum_us = 0;
  double rtt_sum_ms = 0.0;
  for (const NtpResultData& sample : samples) {
    offset_sum_us = WrappingAdd(offset_sum_us, sample.offset_us);
    rtt_sum_ms += RttMs(sample);
  }
  OffsetEstimate estimate;
  estimate.mean_offset_us = offset_sum_us / count;
  estimate.mean_rtt_ms = rtt_sum_ms / static_cast<double>(count);

  double square_sum = 0.0;
  for (const NtpResultData& sample : samples) {
    const int64_t distance_us =
        WrappingMagnitude(WrappingSubtract(sample.offset_us, estimate.mean_offset_us));
    estimate.max_deviation_us = std::max(estimate.max_deviation_us, distance_us);
    const double difference_ms = RttMs(sample) - estimate.mean_rtt_ms;
    square_sum += difference_ms * difference_ms;
  }
  estimate.rtt_stdev_ms = std::sqrt(square_sum / static_cast<double>(count));

  estimate.is_rtt_reliable = estimate.rtt_stdev_ms < RttDeviationLimitMs(estimate.mean_rtt_ms);
  estimate.is_reliable = estimate.max_deviation_us < kOffsetDistanceLimitUs;
  return estimate;
}

NtpResult GradeOffset(int64_t offset_us, bool is_rtt_reliable, bool is_reliable) {
  if (offset_us == kNoOffsetUs) {
    return NtpResult::kNoResult;
  }
  return is_rtt_reliable && is_reliable ? NtpResult::kSuccess : NtpResult::kMaybeInaccurate;
}

}  // namespace skorra
