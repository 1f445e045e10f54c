// SPDX-License-Identifier: Apache-2.0
#include "platform/base/time.h"

#include <gtest/gtest.h>

namespace base {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

TimeDelta Us(int64_t us) { return TimeDelta::FromMicroseconds(us); }
Time At(int64_t us) { return Time::FromDeltaSinceWindowsEpoch(Us(us)); }
Time AtUnixSeconds(int64_t s) { return Time::UnixEpoch() + TimeDelta::FromSeconds(s); }

TEST(TimeTest, ATimeIsWrittenAsItsCivilDateInUtc) {
  struct Case {
    Time time;
    const char* text;
    const char* what;
  };
  const Case cases[] = {
      {Time(), "1601-01-01T00:00:00.000000Z", "the epoch"},
      {At(1), "1601-01-01T00:00:00.000001Z", "the first microsecond"},
      {At(-1), "1600-12-31T23:59:59.999999Z", "the last microsecond before the epoch"},
      {Time::UnixEpoch(), "1970-01-01T00:00:00.000000Z", "the Unix epoch"},
      {Time::UnixEpoch() - Us(1), "1969-12-31T23:59:59.999999Z", "one less"},
      {AtUnixSeconds(-11670998400), "1600-02-29T00:00:00.000000Z", "a century year that is a leap year"},
      {AtUnixSeconds(951782400), "2000-02-29T00:00:00.000000Z", "the same four centuries later"},
      {AtUnixSeconds(951868800), "2000-03-01T00:00:00.000000Z", "the day after it"},
      {AtUnixSeconds(978220800), "2000-12-31T00:00:00.000000Z", "the last day of a 400-year cycle"},
      {AtUnixSeconds(4107456000), "2100-02-28T00:00:00.000000Z", "a century year that is none"},
      {AtUnixSeconds(4107542400), "2100-03-01T00:00:00.000000Z", "has no leap day"},
      {AtUnixSeconds(1704067200) + Us(123456), "2024-01-01T00:00:00.123456Z", "microseconds"},
      {AtUnixSeconds(1709251199), "2024-02-29T23:59:59.000000Z", "a common leap day"},
      {AtUnixSeconds(1735603200), "2024-12-31T00:00:00.000000Z", "day 366"},
      {AtUnixSeconds(2085978495), "2036-02-07T06:28:15.000000Z", "the last second of NTP era 0"},
      {AtUnixSeconds(2085978496), "2036-02-07T06:28:16.000000Z", "the first second of NTP era 1"},
      {AtUnixSeconds(2147483647), "2038-01-19T03:14:07.000000Z", "the last second of a signed 32-bit count"},
      {AtUnixSeconds(2147483648), "2038-01-19T03:14:08.000000Z", "the one after it"},
      {AtUnixSeconds(4233462144), "2104-02-26T09:42:24.000000Z", "half an NTP era after era 1 began"},
      {AtUnixSeconds(4294967295), "2106-02-07T06:28:15.000000Z",
       "the last second of an unsigned 32-bit count"},
      {AtUnixSeconds(4294967296), "2106-02-07T06:28:16.000000Z", "the one after that"},
      {AtUnixSeconds(253402300799), "9999-12-31T23:59:59.000000Z", "the last year without a sign"},
      {AtUnixSeconds(253402300800), "+010000-01-01T00:00:00.000000Z", "the first with one"},
      {AtUnixSeconds(-62167219200), "0000-01-01T00:00:00.000000Z", "year 0"},
      {AtUnixSeconds(-62167219201), "-000001-12-31T23:59:59.000000Z", "the year before"},
      {At(kMax - 1), "+293878-01-10T04:00:54.775806Z", "the largest finite time"},
      {At(kMin + 1), "-290677-12-23T19:59:05.224193Z", "the smallest finite time"},
      {Time::Max(), "+infinity", "plus infinity"},
      {Time::Min(), "-infinity", "minus infinity"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.time.ToString(), c.text) << c.what;
  }
}

TEST(TimeTest, EveryDayOfACycleFollowsTheDayBefore) {
  // An independent count, day by day from 1401-01-01 across the epoch.
  int64_t year = 1401;
  int month = 1;
  int day = 1;
  const int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  for (int64_t days = -73049; days < 2 * 146097; ++days) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%04d-%02d-%02dT00:00:00.000000Z", static_cast<int>(year), month,
                  day);
    ASSERT_EQ(At(days * 86400000000).ToString(), expected);
    const bool is_leap = year % 400 == 0 || (year % 4 == 0 && year % 100 != 0);
    ++day;
    if (day > lengths[month - 1] + (month == 2 && is_leap ? 1 : 0)) {
      day = 1;
      month = month == 12 ? 1 : month + 1;
      year += month == 1 ? 1 : 0;
    }
  }
}

TEST(TimeTest, ADurationIsWrittenInSeconds) {
  struct Case {
    TimeDelta delta;
    const char* text;
  };
  const Case cases[] = {
      {TimeDelta(), "0.000000 s"},
      {Us(1), "0.000001 s"},
      {Us(-1), "-0.000001 s"},
      {Us(-1500000), "-1.500000 s"},
      {TimeDelta::FromSeconds(3600), "3600.000000 s"},
      {Us(kMax - 1), "9223372036854.775806 s"},
      {Us(kMin + 1), "-9223372036854.775807 s"},
      {TimeDelta::Max(), "+infinity"},
      {TimeDelta::Min(), "-infinity"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.delta.ToString(), c.text);
  }
}

TEST(TimeTest, SumsSaturateAndKeepInfinities) {
  struct Case {
    int64_t left;
    int64_t right;
    int64_t sum;
    const char* what;
  };
  const Case cases[] = {
      {5, -7, -2, "an ordinary sum"},
      {kMax - 1, 0, kMax - 1, "the largest finite value stays finite"},
      {kMax - 2, 1, kMax - 1, "and is reached"},
      {kMax - 1, 1, kMax, "one more is infinity"},
      {kMax - 1, kMax - 1, kMax, "so is an overflow"},
      {kMin + 2, -1, kMin + 1, "the smallest finite value is reached"},
      {kMin + 1, -1, kMin, "one less is minus infinity"},
      {kMin + 1, kMin + 1, kMin, "so is an overflow downwards"},
      {kMax, -1, kMax, "plus infinity absorbs what is finite"},
      {kMin, 1, kMin, "minus infinity too"},
      {kMax, kMin + 1, kMax, "even the smallest finite value"},
      {kMax, kMax, kMax, "equal infinities stay"},
      {kMin, kMin, kMin, "on both sides"},
      {-1, kMax, kMax, "an infinite right side wins"},
      {1, kMin, kMin, "on both sides"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ((Us(c.left) + Us(c.right)).InMicroseconds(), c.sum) << c.what;
    EXPECT_EQ(At(c.left) + Us(c.right), At(c.sum)) << c.what;
    // The negation of the smallest finite value is an infinity, so there the difference is another one.
    if (c.right != kMin + 1) {
      EXPECT_EQ((Us(c.left) - -Us(c.right)).InMicroseconds(), c.sum) << c.what;
    }
  }
}

TEST(TimeTest, NegationKeepsInfinities) {
  EXPECT_EQ(-TimeDelta::Max(), TimeDelta::Min());
  EXPECT_EQ(-TimeDelta::Min(), TimeDelta::Max());
  EXPECT_EQ(-Us(kMin + 1), TimeDelta::Max());
  EXPECT_EQ(-Us(7), Us(-7));
}

TEST(TimeTest, ConversionsOfUnitsSaturateAndTruncateTowardZero) {
  EXPECT_EQ(TimeDelta::FromSeconds(kMax / 1000000).InMicroseconds(), kMax / 1000000 * 1000000);
  EXPECT_TRUE(TimeDelta::FromSeconds(kMax / 1000000 + 1).is_max());
  EXPECT_TRUE(TimeDelta::FromSeconds(kMin / 1000000 - 1).is_min());
  EXPECT_TRUE(TimeDelta::FromMilliseconds(kMax).is_max());
  EXPECT_TRUE(TimeDelta::FromMilliseconds(kMin).is_min());
  EXPECT_EQ(Us(1999).InMilliseconds(), 1);
  EXPECT_EQ(Us(-1999).InMilliseconds(), -1);
  EXPECT_EQ(TimeDelta::Max().InMilliseconds(), kMax);
  EXPECT_EQ(TimeDelta::Min().InMilliseconds(), kMin);
}

TEST(TimeTest, TheDifferenceOfTwoTimesSaturates) {
  EXPECT_EQ(At(10) - At(25), Us(-15));
  EXPECT_TRUE((At(kMax - 1) - At(-2)).is_max());
  EXPECT_TRUE((At(kMin + 1) - At(2)).is_min());
  EXPECT_EQ(Time::UnixEpoch() - Time(), Us(kWindowsToUnixEpochUs));
  EXPECT_TRUE((Time::Max() - At(5)).is_max());
}

TEST(TimeTest, TimesCompareByTheirMicroseconds) {
  EXPECT_LT(Time::Min(), At(kMin + 1));
  EXPECT_LT(At(-1), Time());
  EXPECT_LT(At(kMax - 1), Time::Max());
  EXPECT_GT(Us(1), TimeDelta());
}

TEST(TimeDeathTest, AddingOppositeInfinitiesEndsTheProcessWithAMessage) {
  EXPECT_DEATH((void)(Time::Max() + TimeDelta::Min()), "plus and minus infinity");
  EXPECT_DEATH((void)(Time::Min() + TimeDelta::Max()), "plus and minus infinity");
  EXPECT_DEATH((void)(TimeDelta::Max() - TimeDelta::Max()), "plus and minus infinity");
}

}  // namespace
}  // namespace base
