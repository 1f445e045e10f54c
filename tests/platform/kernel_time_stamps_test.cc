// SPDX-License-Identifier: Apache-2.0

// Which of the kernel's time stamps are accepted, on clocks whose every reading is given.
#include "platform/linux/kernel_time_stamps.h"

#include <gtest/gtest.h>

namespace net::internal {
namespace {

// The wall clock minus the steady one, as long as nobody steps it.
constexpr int64_t kWallMinusSteadyUs = 1'000'000'000;
constexpr int64_t kOpenedTicksUs = 50'000;
constexpr int64_t kNowTicksUs = 90'000;

std::optional<int64_t> Steady(const StampClock& clock, int64_t ticks_us, int64_t not_before_ticks_us = 0) {
  return clock.ToSteady(ticks_us + kWallMinusSteadyUs, not_before_ticks_us);
}

TEST(StampClockTest, AStampIsRightOnlyBetweenItsLimits) {
  struct Case {
    int64_t ticks_us;
    int64_t not_before_ticks_us;
    std::optional<int64_t> expected_ticks_us;
    const char* what;
  };
  const Case cases[] = {
      {70'000, 0, 70'000, "while the socket was open"},
      {kNowTicksUs, 0, kNowTicksUs, "at the moment of the last reading"},
      {kNowTicksUs + 100, 0, kNowTicksUs, "later, by no more than the clocks can be read wrong"},
      {kNowTicksUs + 101, 0, std::nullopt, "later than that: from the future"},
      {kOpenedTicksUs, 0, kOpenedTicksUs, "at the moment of the opening"},
      {kOpenedTicksUs - 100, 0, kOpenedTicksUs, "earlier, by no more than the clocks can be read wrong"},
      {kOpenedTicksUs - 101, 0, std::nullopt, "before the socket was open"},
      {70'000, 70'000, 70'000, "of a send, at the moment of the call"},
      {69'900, 70'000, 70'000, "of a send, earlier by no more than the clocks can be read wrong"},
      {69'899, 70'000, std::nullopt, "of a send, before the call"},
      {-kWallMinusSteadyUs, 0, std::nullopt, "a wall clock of zero"},
  };
  StampClock clock({kOpenedTicksUs, kWallMinusSteadyUs});
  clock.Observe({kNowTicksUs, kWallMinusSteadyUs});
  for (const Case& c : cases) {
    EXPECT_EQ(Steady(clock, c.ticks_us, c.not_before_ticks_us), c.expected_ticks_us) << c.what;
  }
}

TEST(StampClockTest, AnImplausibleStampIsReplacedByTheTimeOfReading) {
  struct Case {
    std::optional<int64_t> wall_us;
    int64_t expected_ticks_us;
    StampSource source;
    const char* what;
  };
  const Case cases[] = {
      {std::nullopt, 80'000, StampSource::kUser, "no stamp"},
      {70'000 + kWallMinusSteadyUs, 70'000, StampSource::kKernel, "a good one"},
      {95'000 + kWallMinusSteadyUs, 80'000, StampSource::kImplausible, "one from the future"},
      {70'000, 80'000, StampSource::kImplausible, "one of another clock"},
  };
  StampClock clock({kOpenedTicksUs, kWallMinusSteadyUs});
  clock.Observe({kNowTicksUs, kWallMinusSteadyUs});
  for (const Case& c : cases) {
    const Arrival arrival = clock.ToArrival(c.wall_us, 80'000);
    EXPECT_EQ(arrival.ticks_us, c.expected_ticks_us) << c.what;
    EXPECT_EQ(arrival.source, c.source) << c.what;
  }
}

TEST(StampClockTest, AStampReadAfterAStepOfTheWallClockIsRejected) {
  for (const int64_t step_us :
       {int64_t{1001}, int64_t{-1001}, int64_t{3'600'000'000}, int64_t{-3'600'000'000}}) {
    StampClock clock({kOpenedTicksUs, kWallMinusSteadyUs});
    clock.Observe({kNowTicksUs, kWallMinusSteadyUs + step_us});
    EXPECT_EQ(Steady(clock, 70'000), std::nullopt) << step_us;
    EXPECT_EQ(Steady(clock, 70'000 + step_us), std::nullopt) << step_us;
  }
}

TEST(StampClockTest, AnUncertaintyInReadingTheClocksIsNotTakenForAStep) {
  for (const int64_t change_us : {1000, -1000}) {
    StampClock clock({kOpenedTicksUs, kWallMinusSteadyUs});
    clock.Observe({kNowTicksUs, kWallMinusSteadyUs + change_us});
    EXPECT_EQ(Steady(clock, 70'000 + change_us), 70'000) << change_us;
  }
}

TEST(StampClockTest, StampsAreRejectedAfterAStepUntilTheQueueIsDrained) {
  constexpr int64_t kStepUs = -5'000;
  StampClock clock({kOpenedTicksUs, kWallMinusSteadyUs});
  clock.Observe({60'000, kWallMinusSteadyUs + kStepUs});
  // The clock is at rest again, but this stamp is from before the step, at 58,000, and would be mapped too
  // late.
  clock.Observe({70'000, kWallMinusSteadyUs + kStepUs});
  EXPECT_EQ(clock.ToSteady(58'000 + kWallMinusSteadyUs), std::nullopt);
  clock.OnQueueDrained();
  clock.Observe({80'000, kWallMinusSteadyUs + kStepUs});
  EXPECT_EQ(clock.ToSteady(75'000 + kWallMinusSteadyUs + kStepUs), 75'000);
}

TEST(StampClockTest, AStepSeenAtTheLastReadingMayBeLaterThanStampsStillToCome) {
  constexpr int64_t kStepUs = -5'000;
  StampClock clock({kOpenedTicksUs, kWallMinusSteadyUs});
  // All stamps were read, then the clock was stepped, then it was read: more may have come before the step.
  clock.Observe({60'000, kWallMinusSteadyUs + kStepUs});
  clock.OnQueueDrained();
  clock.Observe({70'000, kWallMinusSteadyUs + kStepUs});
  EXPECT_EQ(clock.ToSteady(58'000 + kWallMinusSteadyUs), std::nullopt);
}

}  // namespace
}  // namespace net::internal
