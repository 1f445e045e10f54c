// SPDX-License-Identifier: Apache-2.0
#include "clock/schedule.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace skorra {
namespace {

using base::kUsPerSecond;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

template <class T>
T AnyBits() {
  return static_cast<T>(*rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<T>())));
}

TEST(ScheduleTest, RetriesDoubleFrom2SecondsTo15Minutes) {
  const std::vector<int64_t> seconds{2, 4, 8, 16, 32, 64, 128, 256, 512, 900, 900};
  for (size_t i = 0; i < seconds.size(); ++i) {
    EXPECT_EQ(RetryWaitUs(static_cast<uint32_t>(i + 1), 0), seconds[i] * kUsPerSecond) << i + 1;
  }
  EXPECT_EQ(RetryWaitUs(std::numeric_limits<uint32_t>::max(), 0), 900 * kUsPerSecond);
}

TEST(ScheduleTest, NamesAreTriedAgainFrom1SecondTo5Minutes) {
  const std::vector<int64_t> seconds{1, 2, 4, 4, 4, 8, 16, 32, 64, 128, 256, 300, 300};
  for (size_t i = 0; i < seconds.size(); ++i) {
    EXPECT_EQ(NameRetryWaitUs(static_cast<uint32_t>(i + 1), 0), seconds[i] * kUsPerSecond) << i + 1;
  }
  EXPECT_EQ(NameRetryWaitUs(std::numeric_limits<uint32_t>::max(), 0), 300 * kUsPerSecond);
}

TEST(ScheduleTest, ANameServiceThatBeginsToAnswerWithin10SecondsIsAskedWithin5) {
  for (const uint64_t random : {uint64_t{0}, uint64_t{123456789}, std::numeric_limits<uint64_t>::max()}) {
    int64_t asked_us = 0;
    for (uint32_t tries = 1; asked_us <= 10 * kUsPerSecond; ++tries) {
      const int64_t wait_us = NameRetryWaitUs(tries, random);
      EXPECT_LE(wait_us, 4 * kUsPerSecond);
      asked_us += wait_us;
    }
  }
}

RC_GTEST_PROP(SchedulePropertyTest, JitterTakesAQuarterAtMost, ()) {
  const auto wait_us = *rc::gen::inRange<int64_t>(0, kMaxRetryUs);
  const int64_t jittered_us = WithJitter(wait_us, AnyBits<uint64_t>());
  RC_ASSERT(jittered_us <= wait_us);
  RC_ASSERT(jittered_us >= wait_us - wait_us / 4);
}

struct Row {
  const char* what;
  int64_t interval_us;
  int64_t bound_us;
  ClockRate growth;
  int64_t max_error_us;
  int64_t wait_us;
};

TEST(ScheduleTest, TheNextSyncComesWithTheIntervalOrWithTheLimitOfTheBound) {
  const ClockRate half = int64_t{1} << 31;  // of a microsecond in a microsecond
  const Row rows[] = {
      {"the interval, when the bound does not grow", 3600 * kUsPerSecond, 100, 0, 500, 3600 * kUsPerSecond},
      {"the interval, when the bound is small until then", 100 * kUsPerSecond, 0, half, 50 * kUsPerSecond,
       100 * kUsPerSecond},
      {"the limit, when the bound reaches it earlier", 101 * kUsPerSecond, 0, half, 50 * kUsPerSecond,
       100 * kUsPerSecond},
      {"the limit, when there is no interval", 0, 10 * kUsPerSecond, half, 50 * kUsPerSecond,
       80 * kUsPerSecond},
      {"16 s, when the limit is nearly reached", 3600 * kUsPerSecond, 499, half, 500, kMinIntervalUs},
      {"the interval, when a sync leaves the bound beyond the limit", 3600 * kUsPerSecond, 500, half, 500,
       3600 * kUsPerSecond},
      {"the interval, without a bound", 3600 * kUsPerSecond, kMax, half, 500, 3600 * kUsPerSecond},
      {"16 s, when the interval is shorter", 1, 0, 0, 500, kMinIntervalUs},
      {"never, without interval and growth", 0, 0, 0, 500, base::TimeDelta::Max().InMicroseconds()},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(SyncWaitUs(row.interval_us, row.bound_us, row.growth, row.max_error_us), row.wait_us)
        << row.what;
  }
}

RC_GTEST_PROP(SchedulePropertyTest, NoInputOverflowsAndTheWaitIsNeverShorterThan16Seconds, ()) {
  RC_ASSERT(SyncWaitUs(AnyBits<int64_t>(), AnyBits<int64_t>(), AnyBits<int64_t>(), AnyBits<int64_t>()) >=
            kMinIntervalUs);
  RC_ASSERT(SyncWaitUs(0, kMin, 1, kMax) >= kMinIntervalUs);
}

RC_GTEST_PROP(SchedulePropertyTest, AtTheEndOfTheWaitTheBoundHasNotPassedItsLimit, ()) {
  const auto bound_us = *rc::gen::inRange<int64_t>(0, 10 * kUsPerSecond);
  const auto room_us = *rc::gen::inRange<int64_t>(1, 10 * kUsPerSecond);
  const ClockRate growth = GrowthFromPpb(*rc::gen::inRange<int64_t>(1000, 100000000));
  const int64_t wait_us = SyncWaitUs(0, bound_us, growth, bound_us + room_us);
  RC_ASSERT(wait_us == kMinIntervalUs || Scale(wait_us, growth) <= room_us);
}

}  // namespace
}  // namespace skorra
