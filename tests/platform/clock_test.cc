// SPDX-License-Identifier: Apache-2.0

// Which calls of the system the clocks are made of, and what becomes of their answers. The test program is
// linked with --wrap for the two functions, so that every call of the library comes through here.
#include "platform/base/clock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/timex.h>
#include <time.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "testing/refuse_system_call.h"
#include "testing/time_call_names.h"

namespace {

// What this thread's calls are answered with; without it they go on to the system.
struct Answers {
  std::vector<clockid_t> readings;  // in their order
  long frequency = 0;               // as adjtimex tells it
  int adjtimex_status = 0;
  unsigned adjtimex_modes = 0;  // that were asked for
};
thread_local Answers* t_answers = nullptr;

}  // namespace

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* time) asm("__real_" SKORRA_CLOCK_GETTIME);
int __wrap_clock_gettime(clockid_t clock, timespec* time) asm("__wrap_" SKORRA_CLOCK_GETTIME);
int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  if (t_answers == nullptr) {
    return __real_clock_gettime(clock, time);
  }
  t_answers->readings.push_back(clock);
  // Each clock shows a time of its own, none of which fits into 32 bits.
  time->tv_sec = static_cast<time_t>(t_answers->readings.size()) << 31;
  time->tv_nsec = 999'999'990 + static_cast<long>(t_answers->readings.size());
  return 0;
}
int __real_adjtimex(timex* state) asm("__real_" SKORRA_ADJTIMEX);
int __wrap_adjtimex(timex* state) asm("__wrap_" SKORRA_ADJTIMEX);
int __wrap_adjtimex(timex* state) {
  if (t_answers == nullptr) {
    return __real_adjtimex(state);
  }
  t_answers->adjtimex_modes = state->modes;
  state->freq = t_answers->frequency;
  return t_answers->adjtimex_status;
}
}

namespace base {
namespace {

using ::testing::ElementsAre;

class ClockCallsTest : public ::testing::Test {
 protected:
  ClockCallsTest() { t_answers = &answers_; }
  ~ClockCallsTest() override { t_answers = nullptr; }

  Answers answers_;
};

TEST_F(ClockCallsTest, TheThreeClocksAreReadOnceInTheirOrderAndToTheNanosecond) {
  const MachineClocks clocks = ReadMachineClocks();
  EXPECT_THAT(answers_.readings, ElementsAre(CLOCK_BOOTTIME, CLOCK_MONOTONIC_RAW, CLOCK_MONOTONIC));
  EXPECT_EQ(clocks.boot_ns, 2147483648'999'999'991);
  EXPECT_EQ(clocks.raw_ns, 4294967296'999'999'992);
  EXPECT_EQ(clocks.monotonic_ns, 6442450944'999'999'993);
}

TEST_F(ClockCallsTest, TheSteadyTicksAreThoseOfTheFirstClock) {
  GetSteadyTimeTicks();
  EXPECT_THAT(answers_.readings, ElementsAre(CLOCK_BOOTTIME));
}

TEST_F(ClockCallsTest, TheKernelsFrequencyIsRoundedToTheNearestPartPerBillion) {
  struct Case {
    long frequency;  // in 2^-16 parts per million
    int64_t ppb;
    const char* what;
  };
  const Case cases[] = {
      {0, 0, "none"},
      {65536, 1000, "one part per million"},
      {-65536, -1000, "the same backwards"},
      {500 * 65536, 500'000, "the most that Linux applies"},
      {-500 * 65536, -500'000, "and backwards"},
      {32, 0, "0.49 ppb"},
      {33, 1, "0.504 ppb"},
      {-32, 0, "-0.49 ppb"},
      {-33, -1, "-0.504 ppb"},
      {98, 1, "1.495 ppb"},
      {-99, -2, "-1.51 ppb"},
  };
  for (const Case& c : cases) {
    answers_.frequency = c.frequency;
    answers_.adjtimex_modes = ADJ_FREQUENCY;
    EXPECT_EQ(GetKernelFrequencyPpb(), c.ppb) << c.what;
    EXPECT_EQ(answers_.adjtimex_modes, 0u) << "it only reads";
  }
}

TEST(ClockSourceTest, TheClockSourceIsToldWhereTheSystemHasAName) {
  std::ifstream file("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string name;
  EXPECT_EQ(GetClockSource() != 0, static_cast<bool>(file >> name)) << name;
}

TEST(ClockSourceTest, ASandboxThatHidesTheClockSourceGivesNone) {
  std::thread([] {
    ASSERT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_openat, EACCES));
    EXPECT_EQ(GetClockSource(), 0u);
  }).join();
}

TEST_F(ClockCallsTest, TheKernelsFrequencyHoldsInEveryStateOfItsClock) {
  answers_.frequency = 65536;
  for (const int state : {TIME_OK, TIME_INS, TIME_DEL, TIME_OOP, TIME_WAIT, TIME_ERROR}) {
    answers_.adjtimex_status = state;
    EXPECT_EQ(GetKernelFrequencyPpb(), 1000) << state;
  }
  answers_.adjtimex_status = -1;
  EXPECT_EQ(GetKernelFrequencyPpb(), 0) << "it fails in a sandbox";
}

}  // namespace
}  // namespace base
