// SPDX-License-Identifier: Apache-2.0
#include "clock/witness_vote.h"

#include <algorithm>
#include <chrono>
#include <numeric>

#include "platform/base/int_math.h"
#include "platform/base/time.h"

namespace skorra {
namespace {

bool Contains(const OffsetInterval& interval, int64_t point_us) {
  return interval.earliest_us <= point_us && point_us <= interval.latest_us;
}

bool Overlap(const OffsetInterval& a, const OffsetInterval& b) {
  return a.earliest_us <= b.latest_us && b.earliest_us <= a.latest_us;
}

bool IsInMajority(const std::vector<OffsetInterval>& intervals, int64_t point_us) {
  const auto depth = std::count_if(intervals.begin(), intervals.end(),
                                   [&](const auto& interval) { return Contains(interval, point_us); });
  return 2 * static_cast<size_t>(depth) > intervals.size();
}

int64_t MiddleUs(const OffsetInterval& interval) {
  return std::midpoint(interval.earliest_us, interval.latest_us);
}

}  // namespace

WitnessVote Vote(const std::vector<OffsetInterval>& intervals) {
  WitnessVote vote;
  // The points of a majority form intervals, each of which begins where some server's does, and ends
  // likewise.
  std::vector<int64_t> begins;
  for (const OffsetInterval& interval : intervals) {
    vote.agrees.push_back(Overlap(interval, intervals.front()));
    for (const int64_t point_us : {interval.earliest_us, interval.latest_us}) {
      if (IsInMajority(intervals, point_us)) {
        const OffsetInterval known = vote.majority.value_or(OffsetInterval{point_us, point_us});
        vote.majority = {std::min(known.earliest_us, point_us), std::max(known.latest_us, point_us)};
      }
    }
    if (IsInMajority(intervals, interval.earliest_us)) {
      begins.push_back(interval.earliest_us);
    }
  }
  for (const OffsetInterval& interval : intervals) {
    const bool has_part = std::any_of(begins.begin(), begins.end(),
                                      [&](int64_t point_us) { return Contains(interval, point_us); });
    vote.is_outvoted.push_back(vote.majority && !has_part);
  }
  if (intervals.size() < 2) {
    vote.agreement = NtpClockAgreement::kUnchecked;
  } else if (!vote.majority) {
    vote.agreement = NtpClockAgreement::kConflict;
  } else {
    vote.agreement = vote.is_outvoted.front() ? NtpClockAgreement::kOutvoted : NtpClockAgreement::kAgrees;
  }
  return vote;
}

int64_t SmearLikeGapUs(const OffsetInterval& result, const OffsetInterval& other) {
  const int64_t gap_us = base::SaturatingSubtract(MiddleUs(other), MiddleUs(result));
  const bool is_like_smear = !Overlap(result, other) && ((kMinSmearUs <= gap_us && gap_us <= kMaxSmearUs) ||
                                                         (-kMaxSmearUs <= gap_us && gap_us <= -kMinSmearUs));
  return is_like_smear ? gap_us : 0;
}

bool IsNearLeapMoment(int64_t time_us) {
  constexpr int64_t kDayUs = 24 * 3600 * base::kUsPerSecond;
  constexpr int64_t kCycleDays = 146097;  // the Gregorian calendar repeats after 400 years
  const int64_t day = time_us / kDayUs - (time_us % kDayUs < 0 ? 1 : 0);
  const std::chrono::year_month_day date(
      std::chrono::sys_days(std::chrono::days(static_cast<int>(day % kCycleDays))));
  const std::chrono::month_day place = date.month() / date.day();
  using std::chrono::December, std::chrono::January, std::chrono::June, std::chrono::July;
  return place == June / 30 || place == July / 1 || place == December / 31 || place == January / 1;
}

bool DifferNearLeapSecond(const std::vector<OffsetInterval>& intervals, int64_t ticks_us,
                          bool is_leap_announced) {
  for (size_t i = 0; i < intervals.size(); ++i) {
    const int64_t time_us = base::SaturatingAdd(MiddleUs(intervals[i]), ticks_us);
    for (size_t j = i + 1; j < intervals.size(); ++j) {
      if (SmearLikeGapUs(intervals[i], intervals[j]) != 0 &&
          (is_leap_announced || IsNearLeapMoment(time_us))) {
        return true;
      }
    }
  }
  return false;
}

SmearRun NextSmearRun(const SmearRun& run, int64_t gap_us) {
  if (gap_us == 0) {
    return {};
  }
  const bool is_ahead = gap_us > 0;
  const bool goes_on = run.count > 0 && run.is_ahead == is_ahead;
  return {.count = goes_on ? std::min(run.count + 1, kSteadyChecks) : 1, .is_ahead = is_ahead};
}

}  // namespace skorra
