// A clock that is not right: it shows the time of another clock, its base, times a rate that may be off and
// may wander, plus steps. Whole numbers throughout, so that a run is the same on every platform.
#pragma once

#include <cstdint>
#include <vector>

#include "netmodel/random.h"

namespace skorra::sim {

// How fast a clock runs against its base. 1000 parts per billion gain 1 microsecond a second.
struct ClockError {
  int64_t frequency_ppb = 0;  // at the beginning; between -500 and 500 million
  // A random walk of the frequency: after every interval it changes by -wander_ppb to +wander_ppb.
  int64_t wander_ppb = 0;
  int64_t wander_interval_us = 60000000;
};

class ClockModel {
 public:
  // Shows `value_us` when its base shows `base_us`, and runs as fast.
  ClockModel(int64_t base_us, int64_t value_us) : segments_{{base_us, value_us, 0, 0}} {}

  // What it shows when its base shows `base_us`, also for a moment in the past.
  int64_t At(int64_t base_us) const;

  // From `base_us` on. What it showed before stays; changes are made in the order of time.
  void Step(int64_t base_us, int64_t step_us);
  void SetError(int64_t base_us, const ClockError& error, uint64_t seed);

  // How fast it runs at `base_us`.
  int64_t FrequencyAt(int64_t base_us) const { return SegmentAt(base_us).frequency_ppb; }

 private:
  // A stretch of constant frequency.
  struct Segment {
    int64_t base_us;
    int64_t value_us;
    int64_t fraction;  // of a microsecond, in units of 10^-9
    int64_t frequency_ppb;
  };

  static Segment Advance(const Segment& from, int64_t base_us);
  const Segment& SegmentAt(int64_t base_us) const;
  Segment Cut(int64_t base_us);

  ClockError error_;
  // Grown on demand while the frequency wanders.
  mutable std::vector<Segment> segments_;
  mutable Random random_{0};
  mutable int64_t next_change_us_ = 0;
};

}  // namespace skorra::sim
