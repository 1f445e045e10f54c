// SPDX-License-Identifier: Apache-2.0
#include "sim/clock_model.h"

#include <algorithm>

namespace skorra::sim {
namespace {

constexpr int64_t kBillion = 1000000000;
constexpr int64_t kMaxFrequencyPpb = kBillion / 2;

}  // namespace

int64_t ClockModel::At(int64_t ticks_us) const { return Advance(SegmentAt(ticks_us), ticks_us).wall_us; }

// Continues the segment to `ticks_us`. Splits the elapsed time so that no product overflows.
ClockModel::Segment ClockModel::Advance(const Segment& from, int64_t ticks_us) {
  const int64_t elapsed_us = ticks_us - from.ticks_us;
  const int64_t scaled = elapsed_us % kBillion * from.frequency_ppb + from.fraction;
  int64_t gained_us = elapsed_us / kBillion * from.frequency_ppb + scaled / kBillion;
  int64_t fraction = scaled % kBillion;
  if (fraction < 0) {
    fraction += kBillion;
    --gained_us;
  }
  return {ticks_us, from.wall_us + elapsed_us + gained_us, fraction, from.frequency_ppb};
}

const ClockModel::Segment& ClockModel::SegmentAt(int64_t ticks_us) const {
  while (error_.wander_ppb > 0 && next_change_ticks_us_ <= ticks_us) {
    Segment next = Advance(segments_.back(), next_change_ticks_us_);
    const auto change = random_.Below(static_cast<uint64_t>(2 * error_.wander_ppb + 1));
    next.frequency_ppb = std::clamp(next.frequency_ppb + static_cast<int64_t>(change) - error_.wander_ppb,
                                    -kMaxFrequencyPpb, kMaxFrequencyPpb);
    segments_.push_back(next);
    next_change_ticks_us_ += error_.wander_interval_us;
  }
  const auto after =
      std::upper_bound(segments_.begin(), segments_.end(), ticks_us,
                       [](int64_t at_ticks_us, const Segment& s) { return at_ticks_us < s.ticks_us; });
  return after == segments_.begin() ? *after : *(after - 1);
}

// Drops the segments after `ticks_us` and returns the state at that moment.
ClockModel::Segment ClockModel::Cut(int64_t ticks_us) {
  const Segment now = Advance(SegmentAt(ticks_us), ticks_us);
  while (segments_.size() > 1 && segments_.back().ticks_us >= ticks_us) {
    segments_.pop_back();
  }
  return now;
}

void ClockModel::Step(int64_t ticks_us, int64_t step_us) {
  Segment now = Cut(ticks_us);
  now.wall_us += step_us;
  segments_.push_back(now);
}

void ClockModel::SetError(int64_t ticks_us, const ClockError& error, uint64_t seed) {
  Segment now = Cut(ticks_us);
  error_ = error;
  error_.wander_interval_us = std::max<int64_t>(1, error.wander_interval_us);
  now.frequency_ppb = std::clamp(error.frequency_ppb, -kMaxFrequencyPpb, kMaxFrequencyPpb);
  segments_.push_back(now);
  random_ = netmodel::Random(seed);
  next_change_ticks_us_ = ticks_us + error_.wander_interval_us;
}

}  // namespace skorra::sim
