// SPDX-License-Identifier: Apache-2.0
#include "platform/base/time.h"

#include <array>
#include <cstdio>
#include <cstdlib>

namespace base {
inline namespace skorra_ntp {

namespace {

constexpr int64_t kUsPerDay = 86400 * kUsPerSecond;

struct CivilDate {
  int64_t year;
  int month;
  int day;
};

// Divides rounding down, so that the remainder is never negative.
constexpr int64_t FloorDiv(int64_t value, int64_t divisor) {
  return value / divisor - (value % divisor < 0 ? 1 : 0);
}

// The Gregorian calendar repeats every 400 years, and 1601 begins such a cycle. Three of its centuries have
// 36524 days, the last has one more. A century consists of 4-year groups, and a group ends with a leap year.
CivilDate CivilFromDaysSince1601(int64_t days) {
  constexpr int64_t kDaysPerCycle = 146097;
  constexpr int64_t kDaysPerCentury = 36524;
  constexpr int64_t kDaysPerGroup = 1461;
  const int64_t cycle = FloorDiv(days, kDaysPerCycle);
  int64_t rest = days - cycle * kDaysPerCycle;
  const int64_t century = rest / kDaysPerCentury < 3 ? rest / kDaysPerCentury : 3;
  rest -= century * kDaysPerCentury;
  const int64_t group = rest / kDaysPerGroup;
  rest -= group * kDaysPerGroup;
  const int64_t year_of_group = rest / 365 < 3 ? rest / 365 : 3;
  rest -= year_of_group * 365;

  const bool is_leap = year_of_group == 3 && (group != 24 || century == 3);
  const std::array<int, 12> month_lengths = {31, is_leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  size_t month = 0;
  while (rest >= month_lengths[month]) {
    rest -= month_lengths[month];
    ++month;
  }
  return {1601 + cycle * 400 + century * 100 + group * 4 + year_of_group, static_cast<int>(month) + 1,
          static_cast<int>(rest) + 1};
}

const char* InfinityName(int64_t value) {
  return value == internal::kPlusInfinity ? "+infinity" : "-infinity";
}

}  // namespace

namespace internal {

void FailInfinitySum() {
  std::fputs("skorra: plus and minus infinity were added as times; this is a mistake in the program\n",
             stderr);
  std::abort();
}

}  // namespace internal

std::string TimeDelta::ToString() const {
  if (internal::IsInfinite(us_)) {
    return InfinityName(us_);
  }
  // A finite value is never the smallest number, so the absolute value exists.
  const int64_t absolute = us_ < 0 ? -us_ : us_;
  char text[48];
  std::snprintf(text, sizeof text, "%s%lld.%06lld s", us_ < 0 ? "-" : "",
                static_cast<long long>(absolute / kUsPerSecond),
                static_cast<long long>(absolute % kUsPerSecond));
  return text;
}

std::string Time::ToString() const {
  if (internal::IsInfinite(us_)) {
    return InfinityName(us_);
  }
  const int64_t days = FloorDiv(us_, kUsPerDay);
  // `days * kUsPerDay` would overflow for the smallest times.
  const int64_t us_of_day = us_ % kUsPerDay + (us_ % kUsPerDay < 0 ? kUsPerDay : 0);
  const int64_t second = us_of_day / kUsPerSecond;
  const CivilDate date = CivilFromDaysSince1601(days);
  const bool is_far = date.year < 0 || date.year > 9999;
  char text[64];
  std::snprintf(text, sizeof text,
                is_far ? "%+07lld-%02d-%02dT%02d:%02d:%02d.%06dZ" : "%04lld-%02d-%02dT%02d:%02d:%02d.%06dZ",
                static_cast<long long>(date.year), date.month, date.day, static_cast<int>(second / 3600),
                static_cast<int>(second / 60 % 60), static_cast<int>(second % 60),
                static_cast<int>(us_of_day % kUsPerSecond));
  return text;
}

}  // namespace skorra_ntp
}  // namespace base
