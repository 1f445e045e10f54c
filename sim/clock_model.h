// SPDX-License-Identifier: Apache-2.0

// A clock that is not right: it runs against the steady clock at a rate that may be off and may wander, plus
// steps. Whole numbers throughout, so that a run is the same on every platform.
#pragma once

#include <cstdint>
#include <vector>

#include "../netmodel/random.h"

namespace skorra::sim {

// How fast a clock runs against the steady clock. 1000 parts per billion gain 1 microsecond a second.
struct ClockError {
  int64_t frequency_ppb = 0;  // at the beginning; between -500 and 500 million
  // A random walk of the frequency: after every interval it changes by -wander_ppb to +wander_ppb.
  int64_t wander_ppb = 0;
  int64_t wander_interval_us = 60000000;
};

class ClockModel {
 public:
  // Shows `wall_us` at the steady time `ticks_us`, and runs as fast as the steady clock.
  ClockModel(int64_t ticks_us, int64_t wall_us) : segments_{{ticks_us, wall_us, 0, 0}} {}

  // What it shows at `ticks_us`, which may lie in the past.
  int64_t At(int64_t ticks_us) const;

  // Both change what it shows from `ticks_us` on, not before. Calls must follow the order of time.
  void Step(int64_t ticks_us, int64_t step_us);
  void SetError(int64_t ticks_us, const ClockError& error, uint64_t seed);

  // How fast it runs at `ticks_us`.
  int64_t FrequencyAt(int64_t ticks_us) const { return SegmentAt(ticks_us).frequency_ppb; }

 private:
  // A stretch of constant frequency.
  struct Segment {
    int64_t ticks_us;
    int64_t wall_us;
    int64_t fraction;  // of a microsecond, in units of 10^-9
    int64_t frequency_ppb;
  };

  static Segment Advance(const Segment& from, int64_t ticks_us);
  const Segment& SegmentAt(int64_t ticks_us) const;
  Segment Cut(int64_t ticks_us);

  ClockError error_;
  // Grows on demand while the frequency wanders.
  mutable std::vector<Segment> segments_;
  mutable netmodel::Random random_{0};
  mutable int64_t next_change_ticks_us_ = 0;
};

}  // namespace skorra::sim
