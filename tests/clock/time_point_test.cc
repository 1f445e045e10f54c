// SPDX-License-Identifier: Apache-2.0

// NtpClock as one of the standard's clocks.
#include <chrono>
#include <cstdint>
#include <ctime>
#include <iomanip>
#include <ratio>
#include <sstream>
#include <thread>
#include <type_traits>

#include "clock/ntp_clock.h"
#include "clock/shared_clock.h"
#include "gtest/gtest.h"
#include "sim/world.h"

namespace skorra {
namespace {

// The requirements of a Clock: [time.clock.req].
static_assert(std::is_same_v<NtpClock::rep, int64_t>);
static_assert(std::is_same_v<NtpClock::period, std::micro>);
static_assert(std::is_same_v<NtpClock::duration, std::chrono::duration<NtpClock::rep, NtpClock::period>>);
static_assert(std::is_same_v<NtpClock::time_point, std::chrono::time_point<NtpClock, NtpClock::duration>>);
static_assert(std::is_same_v<NtpClock::time_point::clock, NtpClock>);
static_assert(std::is_same_v<decltype(NtpClock::now()), NtpClock::time_point>);
static_assert(std::is_same_v<decltype(NtpClock::is_steady), const bool>);
static_assert(!NtpClock::is_steady);
static_assert(noexcept(NtpClock::now()));
static_assert(std::chrono::is_clock_v<NtpClock>);

TEST(TimePointTest, WithoutATimeNowIsTheEpoch) {
  const sim::World world;
  EXPECT_EQ(NtpClock::now(), NtpClock::time_point());
}

// A time that is `us` since 1970 now, with an oscillator that is slow by this.
void PublishTime(int64_t us, int64_t ppb = 0) {
  ClockSnapshot snapshot;
  snapshot.result = NtpResult::kSuccess;
  snapshot.clocks = base::ReadMachineClocks();
  snapshot.estimate_us = us - base::GetSteadyTimeTicks();
  snapshot.rate = RateFromPpb(ppb);
  internal::ProcessClock().snapshot.Publish(snapshot);
}

TEST(TimePointTest, NowIsTheEstimate) {
  sim::World world;
  PublishTime(1000000000);
  EXPECT_EQ(NtpClock::now().time_since_epoch(), std::chrono::seconds(1000));
  world.RunFor(base::TimeDelta::FromSeconds(2));
  EXPECT_EQ(NtpClock::now().time_since_epoch(), std::chrono::seconds(1002));
}

TEST(TimePointTest, NowFollowsTheFrequencyOfTheOscillator) {
  for (const int64_t ppb : {-20000, 20000}) {
    sim::World world;
    PublishTime(1000000000, ppb);
    world.RunFor(base::TimeDelta::FromSeconds(1000));
    EXPECT_NEAR(static_cast<double>(NtpClock::now().time_since_epoch().count()),
                static_cast<double>(2000000000 + ppb), 1);
    EXPECT_EQ(NtpClock::now().time_since_epoch().count(), NtpClock::Read().best_estimate_us);
  }
}

TEST(TimePointTest, ATimeGoesToTheSystemClockAndBack) {
  for (const int64_t us : {int64_t{-1}, int64_t{0}, int64_t{1795000000123456}}) {
    const NtpClock::time_point time{NtpClock::duration(us)};
    EXPECT_EQ(NtpClock::to_sys(time).time_since_epoch().count(), us);
    EXPECT_EQ(NtpClock::from_sys(NtpClock::to_sys(time)), time);
  }
  const NtpClock::time_point time{std::chrono::seconds(86400)};
  const std::time_t seconds = std::chrono::system_clock::to_time_t(NtpClock::to_sys(time));
  EXPECT_EQ(seconds, 86400);
  std::ostringstream text;
  text << std::put_time(std::gmtime(&seconds), "%F %T");
  EXPECT_EQ(text.str(), "1970-01-02 00:00:00");
}

TEST(TimePointTest, ASleepUntilATimeThatIsReachedReturns) {
  sim::World world;
  PublishTime(1000000000);
  std::this_thread::sleep_until(NtpClock::now());
  std::this_thread::sleep_until(NtpClock::now() - std::chrono::hours(1));
}

TEST(TimePointTest, CertainAnswersComeFromTheLimits) {
  const sim::World world;
  const auto at = [](int64_t us) { return NtpClock::time_point(NtpClock::duration(us)); };
  EXPECT_FALSE(NtpClock::IsAfter(at(0)));
  EXPECT_FALSE(NtpClock::IsBefore(at(0)));
  ClockSnapshot snapshot;
  snapshot.status = NtpClockStatus::kSynchronized;
  snapshot.result = NtpResult::kSuccess;
  snapshot.clocks = base::ReadMachineClocks();
  snapshot.earliest_us = 1000000;
  snapshot.estimate_us = 1500000;
  snapshot.latest_us = 2000000;
  snapshot.fresh_for_ns = 1000000000;
  internal::ProcessClock().snapshot.Publish(snapshot);
  const NtpClockReading reading = NtpClock::Read();
  ASSERT_TRUE(reading.has_bound());
  EXPECT_TRUE(NtpClock::IsAfter(at(reading.earliest_us - 1)));
  EXPECT_FALSE(NtpClock::IsAfter(at(reading.earliest_us)));
  EXPECT_FALSE(NtpClock::IsAfter(at(reading.latest_us)));
  EXPECT_TRUE(NtpClock::IsBefore(at(reading.latest_us + 1)));
  EXPECT_FALSE(NtpClock::IsBefore(at(reading.latest_us)));
  EXPECT_FALSE(NtpClock::IsBefore(at(reading.earliest_us)));
}

}  // namespace
}  // namespace skorra
