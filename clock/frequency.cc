// SPDX-License-Identifier: Apache-2.0
#include "clock/frequency.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iterator>

#include "clock/reading.h"
#include "platform/base/int_math.h"

namespace skorra {
namespace {

constexpr double kPpb = 1e9;

int64_t RawSpanNs(const FrequencyPoint& from, const FrequencyPoint& to) {
  return base::WrappingSubtract(to.at.clocks.raw_ns, from.at.clocks.raw_ns);
}

// By how much the network's time gained on the raw clock from one point to the other, when the differences to
// the steady ticks were these.
int64_t GainNs(const FrequencyPoint& from, const FrequencyPoint& to, int64_t from_us, int64_t to_us) {
  const int64_t steady_ns = base::WrappingSubtract(to.at.clocks.boot_ns, from.at.clocks.boot_ns);
  const int64_t moved_us = base::SaturatingSubtract(to_us, from_us);
  return base::SaturatingAdd(base::SaturatingScale(moved_us, 1000),
                             base::SaturatingSubtract(steady_ns, RawSpanNs(from, to)));
}

// The month of a point's estimate, counted from any beginning.
int64_t MonthOf(const FrequencyPoint& point) {
  constexpr int64_t kDayUs = int64_t{24} * 3600 * base::kUsPerSecond;
  const int64_t us = base::SaturatingAdd(point.at.clocks.boot_ns / 1000, point.estimate_us);
  const auto day = static_cast<int>(std::clamp<int64_t>(us / kDayUs, 0, 1000000));
  const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(day))};
  return int64_t{int{date.year()}} * 12 + unsigned{date.month()};
}

// Parts per billion of a span, cut to a range in which sums do not overflow.
double Ppb(int64_t gain_ns, int64_t span_ns) {
  const double ppb = static_cast<double>(gain_ns) / static_cast<double>(span_ns) * kPpb;
  return std::clamp(ppb, -kPpb, kPpb);
}

struct Limits {
  int64_t lowest_ppb;
  int64_t highest_ppb;
};

// Of an oscillator that is wrong by up to `error_ppb`, both when it shows less and when it shows more.
// Rounded up.
int64_t ErrorOfShownPpb(int64_t error_ppb) {
  return error_ppb + error_ppb * error_ppb / (1000000000 - error_ppb) + 1;
}

// What all pairs prove of their averages, against the oscillator with the last point's correction. Of
// averages that differ, the lowest limit is above the highest.
Limits ProvenLimits(const std::vector<FrequencyPoint>& points) {
  Limits limits{-kMaxRatePpb, kMaxRatePpb};
  const double correction = 1 + static_cast<double>(points.back().kernel_ppb) / kPpb;
  // Against the corrected oscillator, from that against the raw clock.
  const auto corrected = [&](double raw_ppb) { return ((1 + raw_ppb / kPpb) / correction - 1) * kPpb; };
  for (size_t i = 0; i < points.size(); ++i) {
    for (size_t j = i + 1; j < points.size(); ++j) {
      const int64_t span_ns = RawSpanNs(points[i], points[j]);
      // The clocks of a reading were read at different moments of this time, and some count microseconds.
      const int64_t errors_ns =
          base::SaturatingAdd(base::SaturatingAdd(points[i].at.error_ns, points[j].at.error_ns), 4000);
      const int64_t least_ns = base::SaturatingSubtract(
          GainNs(points[i], points[j], points[i].proven.latest_us, points[j].proven.earliest_us), errors_ns);
      const int64_t most_ns = base::SaturatingAdd(
          GainNs(points[i], points[j], points[i].proven.earliest_us, points[j].proven.latest_us), errors_ns);
      const auto lowest_ppb = static_cast<int64_t>(std::floor(corrected(Ppb(least_ns, span_ns))));
      const auto highest_ppb = static_cast<int64_t>(std::ceil(corrected(Ppb(most_ns, span_ns))));
      limits.lowest_ppb = std::max(limits.lowest_ppb, lowest_ppb);
      limits.highest_ppb = std::min(limits.highest_ppb, highest_ppb);
    }
  }
  return limits;
}

double Square(double value) { return value * value; }

// The slope of the line, as far as it is more than chance.
double ProbablePpb(const std::vector<FrequencyPoint>& points) {
  // Of each point the oscillator's time and the network's gain on it, both from the first point on, in
  // seconds.
  std::vector<double> times{0.0};
  std::vector<double> gains{0.0};
  double uncertainty_square = Square(static_cast<double>(points.front().uncertainty_us) / 1e6);
  double correction_s = 0;  // what the kernel's correction has added to the raw clock
  double raw_s = 0;
  // How far the correction may have been from what is assumed, at the worst.
  double correction_square = 0;
  for (size_t i = 1; i < points.size(); ++i) {
    const FrequencyPoint& before = points[i - 1];
    const FrequencyPoint& point = points[i];
    const double span_s = static_cast<double>(RawSpanNs(before, point)) / 1e9;
    // Between two syncs the correction went from the one to the other.
    const double kernel_ppb = static_cast<double>(before.kernel_ppb + point.kernel_ppb) / 2;
    const double change = static_cast<double>(point.kernel_ppb - before.kernel_ppb) / 2 / kPpb;
    correction_square = std::max(correction_square, change * change);
    raw_s += span_s;
    correction_s += span_s * kernel_ppb / kPpb;
    const int64_t gain_ns = GainNs(points.front(), point, points.front().estimate_us, point.estimate_us);
    times.push_back(raw_s + correction_s);
    gains.push_back(static_cast<double>(gain_ns) / 1e9 - correction_s);
    uncertainty_square += Square(static_cast<double>(point.uncertainty_us) / 1e6);
  }
  const auto count = static_cast<double>(points.size());
  double mean_time = 0;
  double mean_gain = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    mean_time += times[i] / count;
    mean_gain += gains[i] / count;
  }
  double time_square = 0;
  double gain_square = 0;
  double product = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    time_square += (times[i] - mean_time) * (times[i] - mean_time);
    gain_square += (gains[i] - mean_gain) * (gains[i] - mean_gain);
    product += (times[i] - mean_time) * (gains[i] - mean_gain);
  }
  const double slope = product / time_square;
  // Whichever says more: the syncs themselves, or the distances to the line.
  const double residual = std::max(0.0, gain_square - slope * product) / (count - 2);
  constexpr double kNoise = static_cast<double>(kFrequencyNoisePpb) / kPpb;
  const double slope_square_uncertainty =
      std::max(uncertainty_square / count, residual) / time_square + correction_square + kNoise * kNoise;
  const double slope_square = slope * slope;
  return slope_square <= 0 ? 0 : slope * slope_square / (slope_square + 4 * slope_square_uncertainty) * kPpb;
}

}  // namespace

std::optional<FrequencyEstimate> EstimateFrequency(const std::vector<FrequencyPoint>& points,
                                                   int64_t error_ppb) {
  if (points.size() < kMinFrequencyPoints) {
    return std::nullopt;
  }
  for (size_t i = 1; i < points.size(); ++i) {
    const int64_t span_ns = RawSpanNs(points[i - 1], points[i]);
    if (span_ns <= 0 || span_ns >= kMaxSpanNs) {
      return std::nullopt;
    }
  }
  if (RawSpanNs(points.front(), points.back()) < kMinFrequencySpanNs) {
    return std::nullopt;
  }
  const int64_t limited_ppb = std::clamp<int64_t>(error_ppb, 0, kMaxRatePpb);
  const int64_t prior_ppb = ErrorOfShownPpb(limited_ppb);
  const int64_t wander_ppb = std::max(kWanderPpb, limited_ppb / kWanderPart);
  const Limits proven = ProvenLimits(points);
  FrequencyEstimate estimate{.lowest_ppb = std::max(proven.lowest_ppb - wander_ppb, -prior_ppb),
                             .highest_ppb = std::min(proven.highest_ppb + wander_ppb, prior_ppb)};
  if (proven.lowest_ppb - proven.highest_ppb > wander_ppb || estimate.lowest_ppb > estimate.highest_ppb) {
    estimate.lowest_ppb = -prior_ppb;
    estimate.highest_ppb = prior_ppb;
  }
  const auto probable_ppb =
      static_cast<int64_t>(std::clamp(ProbablePpb(points), -double{kMaxRatePpb}, double{kMaxRatePpb}));
  // The limits of an error hold for what the oscillator shows; the guess is no promise and takes the round
  // number.
  estimate.ppb = std::clamp(std::clamp(probable_ppb, -limited_ppb, limited_ppb), estimate.lowest_ppb,
                            estimate.highest_ppb);
  return estimate;
}

bool FrequencyHistory::Continue(const MachineState& now) {
  bool is_same = true;
  if (last_) {
    const base::MachineClocks& before = last_->at.clocks;
    const int64_t slept_ns =
        base::WrappingSubtract(base::WrappingSubtract(now.at.clocks.boot_ns, before.boot_ns),
                               base::WrappingSubtract(now.at.clocks.monotonic_ns, before.monotonic_ns));
    const int64_t errors_ns = base::SaturatingAdd(now.at.error_ns, last_->at.error_ns);
    is_same = base::SaturatingSubtract(slept_ns, errors_ns) <= kSuspendNs &&
              now.disruption_marker == last_->disruption_marker &&
              (now.clock_source == last_->clock_source || last_->clock_source == 0) &&
              std::abs(base::SaturatingSubtract(now.kernel_ppb, last_->kernel_ppb)) <= kFrequencyStepPpb;
  }
  last_ = now;
  if (!is_same) {
    servers_.clear();
  }
  return is_same;
}

void FrequencyHistory::Add(const net::IPEndPoint& server, const FrequencyPoint& point) {
  Server& entry = servers_[server];
  entry.attempts_without = 0;
  if (!entry.points.empty() && MonthOf(entry.points.back()) != MonthOf(point)) {
    entry.points.clear();
  }
  if (entry.points.size() == kFrequencyPoints) {
    entry.points.erase(entry.points.begin());
  }
  entry.points.push_back(point);
}

void FrequencyHistory::EndAttempt() {
  for (auto entry = servers_.begin(); entry != servers_.end();) {
    entry = ++entry->second.attempts_without > kFrequencyPoints ? servers_.erase(entry) : std::next(entry);
  }
}

std::optional<FrequencyEstimate> FrequencyHistory::Estimate(const net::IPEndPoint& server,
                                                            int64_t error_ppb) const {
  const auto found = servers_.find(server);
  return found == servers_.end() ? std::nullopt : EstimateFrequency(found->second.points, error_ppb);
}

}  // namespace skorra
