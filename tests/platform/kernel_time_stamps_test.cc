// When a stamp of the kernel can be right, on clocks of which every reading is given.
#include "platform/linux/kernel_time_stamps.h"

#include <gtest/gtest.h>

namespace net::internal {
namespace {

constexpr int64_t kOffsetUs =
    1'000'000'000;  // the wall clock minus the steady one, as long as nobody sets it
constexpr int64_t kOpenedUs = 50'000;
constexpr int64_t kNowUs = 90'000;

std::optional<int64_t> Steady(const StampClock& clock, int64_t ticks_us, int64_t not_before_us = 0) {
  return clock.ToSteady(ticks_us + kOffsetUs, not_before_us);
}

TEST(StampClockTest, AStampIsRightOnlyBetweenItsLimits) {
  struct Case {
    int64_t ticks_us;
    int64_t not_before_us;
    std::optional<int64_t> expected_us;
    const char* what;
  };
  const Case cases[] = {
      {70'000, 0, 70'000, "while the socket was open"},
      {kNowUs, 0, kNowUs, "at the moment of the look"},
      {kNowUs + 100, 0, kNowUs, "later, by no more than the clocks can be read wrong"},
      {kNowUs + 101, 0, std::nullopt, "later than that: from the future"},
      {kOpenedUs, 0, kOpenedUs, "at the moment of the opening"},
      {kOpenedUs - 100, 0, kOpenedUs, "earlier, by no more than the clocks can be read wrong"},
      {kOpenedUs - 101, 0, std::nullopt, "before the socket was open"},
      {70'000, 70'000, 70'000, "of a send, at the moment of the call"},
      {69'900, 70'000, 70'000, "of a send, earlier by no more than the clocks can be read wrong"},
      {69'899, 70'000, std::nullopt, "of a send, before the call"},
      {-kOffsetUs, 0, std::nullopt, "a wall clock of zero"},
  };
  StampClock clock({kOpenedUs, kOffsetUs});
  clock.Look({kNowUs, kOffsetUs});
  for (const Case& c : cases) {
    EXPECT_EQ(Steady(clock, c.ticks_us, c.not_before_us), c.expected_us) << c.what;
  }
}

TEST(StampClockTest, WhereNoStampCanBeRightTheMomentOfReadingStandsIn) {
  struct Case {
    std::optional<int64_t> wall_us;
    int64_t expected_us;
    StampSource source;
    const char* what;
  };
  const Case cases[] = {
      {std::nullopt, 80'000, StampSource::kUser, "no stamp"},
      {70'000 + kOffsetUs, 70'000, StampSource::kKernel, "a good one"},
      {95'000 + kOffsetUs, 80'000, StampSource::kImplausible, "one from the future"},
      {70'000, 80'000, StampSource::kImplausible, "one of another clock"},
  };
  StampClock clock({kOpenedUs, kOffsetUs});
  clock.Look({kNowUs, kOffsetUs});
  for (const Case& c : cases) {
    const Arrival arrival = clock.ToArrival(c.wall_us, 80'000);
    EXPECT_EQ(arrival.ticks_us, c.expected_us) << c.what;
    EXPECT_EQ(arrival.source, c.source) << c.what;
  }
}

TEST(StampClockTest, AStampReadAfterTheWallClockWasSetIsRefused) {
  for (const int64_t step_us :
       {int64_t{1001}, int64_t{-1001}, int64_t{3'600'000'000}, int64_t{-3'600'000'000}}) {
    StampClock clock({kOpenedUs, kOffsetUs});
    clock.Look({kNowUs, kOffsetUs + step_us});
    EXPECT_EQ(Steady(clock, 70'000), std::nullopt) << step_us;
    EXPECT_EQ(Steady(clock, 70'000 + step_us), std::nullopt) << step_us;
  }
}

TEST(StampClockTest, WhatTheReadingOfTheClocksVariesIsNoSetting) {
  for (const int64_t change_us : {1000, -1000}) {
    StampClock clock({kOpenedUs, kOffsetUs});
    clock.Look({kNowUs, kOffsetUs + change_us});
    EXPECT_EQ(Steady(clock, 70'000 + change_us), 70'000) << change_us;
  }
}

TEST(StampClockTest, DatagramsThatWaitedSinceBeforeTheSettingAreRefusedUntilAllAreRead) {
  constexpr int64_t kStepUs = -5'000;
  StampClock clock({kOpenedUs, kOffsetUs});
  clock.Look({60'000, kOffsetUs + kStepUs});
  // The clock is at rest again, but this one arrived before it was set, at 58,000: it would be taken for
  // later.
  clock.Look({70'000, kOffsetUs + kStepUs});
  EXPECT_EQ(clock.ToSteady(58'000 + kOffsetUs), std::nullopt);
  clock.ForgetSettings();
  clock.Look({80'000, kOffsetUs + kStepUs});
  EXPECT_EQ(clock.ToSteady(75'000 + kOffsetUs + kStepUs), 75'000);
}

TEST(StampClockTest, ASettingThatTheLastLookSawMayBeYoungerThanWhatWasReadBefore) {
  constexpr int64_t kStepUs = -5'000;
  StampClock clock({kOpenedUs, kOffsetUs});
  // Everything was read, then the clock was set, then it was looked at: more may have come before the
  // setting.
  clock.Look({60'000, kOffsetUs + kStepUs});
  clock.ForgetSettings();
  clock.Look({70'000, kOffsetUs + kStepUs});
  EXPECT_EQ(clock.ToSteady(58'000 + kOffsetUs), std::nullopt);
}

}  // namespace
}  // namespace net::internal
