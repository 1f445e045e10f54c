// SPDX-License-Identifier: Apache-2.0
// From the samples of one burst to one offset: trimming, averaging and grading.
//
// Pure functions of their arguments: no clock, no log, no lock, no queue. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ntp/ntp_sync_records.h"

namespace skorra {

// Round-trip times take no part in the order, and samples with equal offsets have none among themselves.
void SortByOffset(std::vector<NtpResultData>& samples);

// How many of so many samples are trimmed off at each end: a quarter, rounded down.
constexpr size_t CountTrimmedAtEachEnd(size_t sample_count) { return sample_count / 4; }

// Sorts the samples and trims both ends off.
void SortAndTrim(std::vector<NtpResultData>& samples);

// What trimmed samples say, and how far it can be believed.
struct OffsetEstimate {
  int64_t mean_offset_us = 0;  // truncated toward zero
  // The largest distance of one offset from the mean.
  int64_t max_deviation_us = 0;
  double mean_rtt_ms = 0.0;
  double rtt_stdev_ms = 0.0;     // of the population: the divisor is the number of samples
  bool is_rtt_reliable = false;  // the round-trip times are stable
  bool is_reliable = false;      // the offsets are consistent
};

// `samples` must not be empty. Sums of offsets wrap at 64 bits.
OffsetEstimate EstimateOffset(const std::vector<NtpResultData>& samples);

// The code of an offset with these two grades; `kNoOffsetUs` is no result whatever the grades.
NtpResult GradeOffset(int64_t offset_us, bool is_rtt_reliable, bool is_reliable);

}  // namespace skorra
