// SPDX-License-Identifier: Apache-2.0

// Samples of a burst, as servers of one kind would give them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "transport/ntp_exchange.h"

namespace skorra {

using Samples = std::vector<NtpResultData>;

inline constexpr int64_t kSampleRttUs = 20000;    // a round-trip time that is good everywhere
inline constexpr int64_t kPoorSpreadUs = 100000;  // between offsets that are too far apart

// One sample for each offset, with good round-trip times.
inline Samples FromOffsets(const std::vector<int64_t>& offsets_us) {
  Samples samples;
  for (const int64_t offset_us : offsets_us) {
    samples.push_back({offset_us, kSampleRttUs});
  }
  return samples;
}

// One sample for each round-trip time, with the same offset.
inline Samples FromRtts(const std::vector<int64_t>& rtts_us) {
  Samples samples;
  for (const int64_t rtt_us : rtts_us) {
    samples.push_back({700, rtt_us});
  }
  return samples;
}

// `count` samples that agree.
inline Samples Good(size_t count, int64_t offset_us = 1500) {
  return FromOffsets(std::vector<int64_t>(count, offset_us));
}

// `count` samples whose offsets are too far apart: a result, but an inaccurate one.
inline Samples Poor(size_t count) {
  Samples samples;
  for (size_t i = 0; i < count; ++i) {
    samples.push_back({static_cast<int64_t>(i) * kPoorSpreadUs, kSampleRttUs});
  }
  return samples;
}

// Six samples whose result has this offset, a success or an inaccurate one.
inline Samples GoodBurst(int64_t offset_us) { return Good(6, offset_us); }
inline Samples PoorBurst(int64_t offset_us) {
  const int64_t low_us = offset_us - kPoorSpreadUs;
  const int64_t high_us = offset_us + kPoorSpreadUs;
  return FromOffsets({low_us, low_us, high_us, high_us, offset_us, offset_us});
}

}  // namespace skorra
