// SPDX-License-Identifier: Apache-2.0
#include "tests/scenarios/two_clocks.h"

#include <string>

#include "gtest/gtest.h"
#include "testing/temp_dir.h"
#include "tests/scenarios/scenario.h"

namespace skorra {
namespace {

// One run serves the whole case: it plays a month.
TEST(TwoClocksTest, TheFigureOf30DaysShowsWhatTheSimulatorMeasures) {
  const TwoClocks played = PlayTwoClocks(1);
  EXPECT_EQ(ToJson(played), ReadFile(SKORRA_DOCS "/clocks.json"))
      << "write it again: ./dev sim --clocks --json docs/clocks.json && docs/draw_charts.py";

  ASSERT_EQ(played.days_30.size(), static_cast<size_t>(30 * kDay / kSpanUs));
  ASSERT_EQ(played.first_day.size(), static_cast<size_t>(kDay / kFirstDayStepUs + 1));
  for (const ErrorSpan& span : played.days_30) {
    EXPECT_LE(span.most.earliest_us, 0) << "the truth lies between the limits";
    EXPECT_GE(span.least.latest_us, 0) << "the truth lies between the limits";
    EXPECT_LE(span.least.manager_us, span.most.manager_us);
    EXPECT_GT(span.most.manager_us, 60 * kMs) << "a sawtooth";
    EXPECT_LE(span.least.earliest_us, span.least.clock_us);
    EXPECT_GE(span.most.latest_us, span.most.clock_us);
    if (&span - played.days_30.data() > 1) {
      EXPECT_LE(span.most.clock_us - span.least.clock_us, kMs) << "from the third attempt on";
    }
  }
}

TEST(TwoClocksTest, TheJsonHoldsEachSeries) {
  const ClockErrors a = {.manager_us = 10, .clock_us = -1, .earliest_us = -100, .latest_us = 99};
  const ClockErrors b = {.manager_us = 20, .clock_us = 2, .earliest_us = -90, .latest_us = 101};
  const TwoClocks played = {.seed = 7, .days_30 = {{a, b}, {b, b}}, .first_day = {a, b}};
  EXPECT_EQ(ToJson(played),
            "{\"seed\": 7, \"span_s\": 7200, \"step_s\": 180, \"days_30_us\": {\n"
            "\"manager_least\": [10, 20],\n\"manager_most\": [20, 20],\n"
            "\"clock_least\": [-1, 2],\n\"clock_most\": [2, 2],\n"
            "\"earliest_least\": [-100, -90],\n\"latest_most\": [101, 101]},\n"
            "\"first_day_us\": {\n"
            "\"manager\": [10, 20],\n\"clock\": [-1, 2],\n\"earliest\": [-100, -90],\n"
            "\"latest\": [99, 101]}}\n");
}

}  // namespace
}  // namespace skorra
