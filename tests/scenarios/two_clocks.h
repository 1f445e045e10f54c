// SPDX-License-Identifier: Apache-2.0

// The manager's reading and the clock with a bound side by side, over the 30 days of the scenario
// resync_over_30_days: the figure of docs/clock.md.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace skorra {

// What both clocks show, less the true time, in microseconds.
struct ClockErrors {
  int64_t manager_us = 0;
  int64_t clock_us = 0;
  int64_t earliest_us = 0;  // the clock's limits: the truth, 0, lies between them
  int64_t latest_us = 0;
};

// The smallest and the largest of each during a stretch of time.
struct ErrorSpan {
  ClockErrors least;
  ClockErrors most;
};

struct TwoClocks {
  uint64_t seed = 1;
  std::vector<ErrorSpan> days_30;      // one for each stretch of kSpanUs
  std::vector<ClockErrors> first_day;  // one for each kFirstDayStepUs
};

inline constexpr int64_t kSpanUs = int64_t{2} * 3600 * 1000000;
inline constexpr int64_t kFirstDayStepUs = int64_t{3} * 60 * 1000000;

// Measurements without a result of the manager and a bound of the clock are left out.
TwoClocks PlayTwoClocks(uint64_t seed);

// Whole numbers only, so the same bytes on every platform.
std::string ToJson(const TwoClocks& played);

// Plays, prints a table by days, and writes the JSON to `json_path` unless that is empty. Returns the exit
// status.
int RunTwoClocks(uint64_t seed, const std::string& json_path);

}  // namespace skorra
