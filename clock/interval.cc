// SPDX-License-Identifier: Apache-2.0
#include "clock/interval.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "platform/base/int_math.h"
#include "platform/base/time.h"

namespace skorra {
namespace {

using base::SaturatingAdd;
using base::SaturatingNegate;
using base::SaturatingScale;
using base::SaturatingSubtract;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// Sums of terms that are never negative.
template <class... Terms>
int64_t Sum(int64_t first, Terms... rest) {
  ((first = SaturatingAdd(first, rest)), ...);
  return first;
}

int64_t NotNegative(int64_t value) { return std::max<int64_t>(value, 0); }

constexpr int64_t DivideUp(int64_t value, int64_t divisor) {
  return value / divisor + (value % divisor != 0 ? 1 : 0);
}

// The part of a round trip that our clock may be wrong by, rounded up.
int64_t ToleranceUs(int64_t round_trip_us) {
  const int64_t millionths = SaturatingScale(round_trip_us, kFrequencyToleranceMillionths);
  return millionths == kMax ? kMax : DivideUp(millionths, base::kUsPerSecond);
}

// 2^precision seconds. Above 2^40 s nothing is known, and below a microsecond one is enough.
int64_t PrecisionUs(int8_t precision) {
  if (precision >= 40) {
    return kMax;
  }
  if (precision >= 0) {
    return SaturatingScale(int64_t{1} << precision, base::kUsPerSecond);
  }
  return precision < -20 ? 1 : DivideUp(base::kUsPerSecond, int64_t{1} << -precision);
}

double Seconds(int64_t us) { return static_cast<double>(us) / base::kUsPerSecond; }

struct Point {
  double time;
  double offset;
  double round_trip;
};

// Seconds from those of `origin`.
Point PointFrom(const NtpExchange& origin, const NtpExchange& e) {
  const auto seconds = [](int64_t a_us, int64_t b_us) { return Seconds(SaturatingSubtract(a_us, b_us)); };
  const auto ticks_us = [](const NtpExchange& x) {
    return SaturatingSubtract(x.send_local_us, x.system_offset_from_steady_us);
  };
  const auto offset_us = [](const NtpExchange& x) {
    return SaturatingAdd(x.sample.offset_us, x.system_offset_from_steady_us);
  };
  return {seconds(ticks_us(e), ticks_us(origin)), seconds(offset_us(e), offset_us(origin)),
          seconds(e.sample.rtt_us, origin.sample.rtt_us)};
}

// The server's stamp, since 1970, minus ours in steady ticks, plus the error. Nothing when a step of it does
// not fit: a saturated number in the middle of the sum could make the interval narrower.
std::optional<int64_t> EndUs(int64_t server_us, int64_t local_us, int64_t local_minus_ticks_us,
                             int64_t error_us) {
  int64_t ticks_us = 0;
  int64_t end_us = 0;
  if (error_us >= kMax || error_us <= -kMax ||
      __builtin_sub_overflow(local_us, local_minus_ticks_us, &ticks_us) ||
      __builtin_sub_overflow(server_us, base::kWindowsToUnixEpochUs, &end_us) ||
      __builtin_sub_overflow(end_us, ticks_us, &end_us) ||
      __builtin_add_overflow(end_us, error_us, &end_us)) {
    return std::nullopt;
  }
  return end_us;
}

// How far offsets may swing without a contradiction, in seconds: our own clock's drift to both sides, and
// what the server says that it may be wrong by.
double AllowedSwing(const std::vector<NtpExchange>& exchanges, int64_t drift_us) {
  int64_t server_us = kMax;
  for (const NtpExchange& e : exchanges) {
    server_us = std::min(server_us, ServerErrorUs(e));
  }
  return std::max(2 * Seconds(NotNegative(drift_us)), Seconds(server_us));
}

int64_t StampErrorUs(NtpStampSource source) {
  return source == NtpStampSource::kKernel ? kKernelStampErrorUs : kOwnStampErrorUs;
}

}  // namespace

int64_t ServerErrorUs(const NtpExchange& exchange) {
  return Sum(DivideUp(NotNegative(exchange.root_delay_us), 2), NotNegative(exchange.root_dispersion_us),
             PrecisionUs(exchange.precision));
}

OffsetInterval ProvenInterval(const NtpExchange& exchange, int64_t drift_us) {
  const int64_t round_trip_us = NotNegative(exchange.sample.rtt_us);
  const int64_t tolerance_us = ToleranceUs(round_trip_us);
  // 1: the server's stamps were rounded to microseconds.
  const int64_t error_us = Sum(ServerErrorUs(exchange), tolerance_us, NotNegative(drift_us), 1);
  const int64_t offset_us = exchange.system_offset_from_steady_us;
  const auto earliest_us =
      EndUs(exchange.server_transmit_us, exchange.receive_local_us, offset_us,
            SaturatingNegate(SaturatingAdd(error_us, StampErrorUs(exchange.receive_stamp))));
  const auto latest_us = EndUs(exchange.server_receive_us, exchange.send_local_us, offset_us,
                               SaturatingAdd(error_us, StampErrorUs(exchange.send_stamp)));
  return {earliest_us.value_or(kMin), latest_us.value_or(kMax)};
}

std::optional<OffsetInterval> Intersect(const std::vector<OffsetInterval>& intervals) {
  OffsetInterval all = intervals.front();
  for (const OffsetInterval& one : intervals) {
    all.earliest_us = std::max(all.earliest_us, one.earliest_us);
    all.latest_us = std::min(all.latest_us, one.latest_us);
  }
  return all.earliest_us <= all.latest_us ? std::optional(all) : std::nullopt;
}

int64_t EstimateUs(const std::vector<NtpExchange>& exchanges) {
  int64_t earliest_us = kMin;
  int64_t latest_us = kMax;
  for (const NtpExchange& e : exchanges) {
    const int64_t offset_us = e.system_offset_from_steady_us;
    earliest_us =
        std::max(earliest_us, EndUs(e.server_transmit_us, e.receive_local_us, offset_us, 0).value_or(kMin));
    latest_us = std::min(latest_us, EndUs(e.server_receive_us, e.send_local_us, offset_us, 0).value_or(kMax));
  }
  // Half of the sum, which itself may not fit.
  return earliest_us / 2 + latest_us / 2 + (earliest_us % 2 + latest_us % 2) / 2;
}

bool AreWaysOpposed(const std::vector<NtpExchange>& exchanges, int64_t drift_us) {
  if (exchanges.size() < kEnoughToCompare) {
    return false;
  }
  // How long each way took, up to a constant: offset + r/2 there, r/2 - offset back.
  const auto count = static_cast<double>(exchanges.size());
  std::vector<Point> points;
  Point mean{};
  Point least = PointFrom(exchanges.front(), exchanges.front());
  Point most = least;
  for (const NtpExchange& e : exchanges) {
    const Point point = PointFrom(exchanges.front(), e);
    mean.offset += point.offset / count;
    mean.round_trip += point.round_trip / count;
    least = {0, std::min(least.offset, point.offset), std::min(least.round_trip, point.round_trip)};
    most = {0, std::max(most.offset, point.offset), 0};
    points.push_back(point);
  }
  double there_square = 0;
  double back_square = 0;
  double product = 0;
  for (const Point& point : points) {
    const double half = (point.round_trip - mean.round_trip) / 2;
    const double there = half + (point.offset - mean.offset);
    const double back = half - (point.offset - mean.offset);
    there_square += there * there;
    back_square += back * back;
    product += there * back;
  }
  const double shortest = Seconds(exchanges.front().sample.rtt_us) + least.round_trip;
  const double spread = most.offset - least.offset;
  // A server's clock moves both ways alike; what is small beside the other way is our own clock's drift.
  const bool is_alike = std::min(there_square, back_square) * 16 > std::max(there_square, back_square);
  if (!is_alike || spread <= shortest / 4 || spread <= AllowedSwing(exchanges, drift_us)) {
    return false;
  }
  // Fisher's transformation of the correlation: of independent ways a normal number of deviation 1.
  const double correlation = std::clamp(product / std::sqrt(there_square * back_square), -1.0, 1.0);
  return std::atanh(correlation) * std::sqrt(count - 3) < -6;
}

bool IsRamp(const std::vector<NtpExchange>& exchanges, int64_t drift_us) {
  if (exchanges.size() < kEnoughToCompare) {
    return false;
  }
  // A straight line through the offsets over the times of sending, and one through the round trips. All from
  // those of the first exchange on, in seconds: these numbers are small.
  std::vector<Point> points;
  Point mean{};
  const auto count = static_cast<double>(exchanges.size());
  for (const NtpExchange& e : exchanges) {
    const Point point = PointFrom(exchanges.front(), e);
    mean.time += point.time / count;
    mean.offset += point.offset / count;
    mean.round_trip += point.round_trip / count;
    points.push_back(point);
  }
  double time_square = 0;
  double offset_square = 0;
  double offset_product = 0;
  double round_trip_product = 0;
  for (const Point& point : points) {
    const double time = point.time - mean.time;
    const double offset = point.offset - mean.offset;
    time_square += time * time;
    offset_square += offset * offset;
    offset_product += time * offset;
    round_trip_product += time * (point.round_trip - mean.round_trip);
  }
  if (time_square <= 0) {
    return false;
  }
  const double slope = std::abs(offset_product / time_square);
  const double explained = std::abs(round_trip_product / time_square) / 2;
  // The slope's own uncertainty, from the offsets' distances to the line (least squares).
  const double residual = std::max(0.0, offset_square - slope * slope * time_square) / (count - 2);
  const double uncertainty = std::sqrt(residual / time_square);
  const auto [first, last] = std::minmax_element(
      points.begin(), points.end(), [](const Point& a, const Point& b) { return a.time < b.time; });
  // Less than a millisecond in a second is what a clock may do that is only wrong. Among honest bursts with
  // symmetric jitter, 8 standard errors are passed by one in a thousand of 6 exchanges, and by hardly any of
  // more.
  return slope > 1e-3 && slope * (last->time - first->time) > AllowedSwing(exchanges, drift_us) &&
         slope > 2 * explained && slope > 8 * uncertainty;
}

}  // namespace skorra
