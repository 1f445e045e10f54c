// SPDX-License-Identifier: Apache-2.0

// Every scenario within its limits, and every replay the same.
#include "tests/scenarios/scenario.h"

#include <ostream>
#include <set>
#include <sstream>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "testing/environment_number.h"
#include "tests/scenarios/table.h"

namespace skorra {

static void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.sentence; }

namespace {

std::string EventLogOf(const std::string& name, uint64_t seed) {
  std::string log;
  PlayScenario(*FindScenario(name), seed, [&log](const std::string& line) { log += line + "\n"; });
  return log;
}

class ScenarioTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(ScenarioTest, AScenarioStaysWithinItsLimitsAndItsColumns) {
  const ScenarioReport report = PlayScenario(GetParam(), 1);
  EXPECT_THAT(report.failures, ::testing::IsEmpty());
  // A field that is too long for its column would push the next ones to the right.
  const std::string header = TableHeader();
  const std::string row = TableRow(GetParam(), report);
  EXPECT_EQ(row.substr(header.find("outcomes") - 1, 1), " ") << row;
  EXPECT_EQ(row.rfind(" ok"), header.size()) << row;
  std::istringstream lines(Wrapped(GetParam().sentence, 4));
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), kTableWidth) << line;
  }
}

INSTANTIATE_TEST_SUITE_P(All, ScenarioTest, ::testing::ValuesIn(AllScenarios()),
                         [](const auto& row) { return row.param.name; });

// SKORRA_SEED sets the first seed, SKORRA_SCENARIO_SEEDS how many there are (`./dev bounds` takes 1000).
TEST_P(ScenarioTest, TheTruthStaysBetweenTheLimitsOfAClockThatIsToldTheTruth) {
  const uint64_t count = EnvironmentNumber("SKORRA_SCENARIO_SEEDS", 1, 1000000).value_or(2);
  const uint64_t first = EnvironmentNumber("SKORRA_SEED").value_or(1);
  for (uint64_t seed = first; seed < first + count; ++seed) {
    const bool is_outside = PlayWithClock(GetParam(), seed).outside_us.has_value();
    EXPECT_TRUE(is_outside == (GetParam().replies == Replies::kWrong) ||
                GetParam().replies == Replies::kWrongByChance)
        << "SKORRA_SEED=" << seed;
  }
}

TEST(ScenarioTableTest, EachScenarioHasANameOfItsOwnAndASentence) {
  std::set<std::string> names;
  for (const Scenario& scenario : AllScenarios()) {
    EXPECT_TRUE(names.insert(scenario.name).second) << scenario.name;
    EXPECT_GT(scenario.sentence.size(), 10u) << scenario.name;
  }
  EXPECT_GE(names.size(), 40u);
}

TEST(ScenarioTableTest, TheTableHasAHeaderAndFitsATerminal) {
  const std::string header = TableHeader();
  EXPECT_THAT(header, ::testing::StartsWith("scenario "));
  EXPECT_LE(header.size() + std::string(" FAIL").size(), kTableWidth);
}

TEST(ScenarioTableTest, LongSentencesBreakBetweenWordsAndAreIndented) {
  EXPECT_EQ(Wrapped("one two", 2), "  one two\n");
  const std::string half(50, 'x');
  EXPECT_EQ(Wrapped(half + " " + half, 0), half + "\n" + half + "\n");
  EXPECT_EQ(Wrapped(half + " " + half.substr(1), 0), half + " " + half.substr(1) + "\n");
}

TEST(ScenarioTableTest, ALineThatIsTooLongGoesOnAfterTheIndent) {
  const std::string full(kTableWidth, 'x');
  EXPECT_EQ(Broken("", 2), "");
  EXPECT_EQ(Broken("a  b\nc", 2), "a  b\nc\n") << "what fits stays as it is";
  EXPECT_EQ(Broken(full, 2), full + "\n");
  EXPECT_EQ(Broken("  " + full + " y", 2), "  " + full.substr(2) + "\n  xx y\n")
      << "a word that fits no line";
  EXPECT_EQ(Broken(full + " y\nz", 4), full + "\n    y\nz\n");
  const std::string most = full.substr(40);
  const std::string rest = full.substr(60);
  EXPECT_EQ(Broken(most + " " + rest + " y", 2), most + "\n  " + rest + " y\n")
      << "the second word ends too late";
}

TEST(ScenarioReplayTest, TheSameSeedGivesTheSameLogByteForByte) {
  for (const char* name : {"mobile_40ms_jitter", "loss_33_percent", "corrupted_datagrams",
                           "one_sided_queueing", "spoofed_replies_with_guessed_nonces"}) {
    const std::string log = EventLogOf(name, 7);
    EXPECT_GT(log.size(), 1000u) << name;
    EXPECT_EQ(log, EventLogOf(name, 7)) << name;
  }
}

TEST(ScenarioReplayTest, AnotherSeedGivesAnotherLog) {
  EXPECT_NE(EventLogOf("loss_33_percent", 7), EventLogOf("loss_33_percent", 8));
}

TEST(ScenarioReplayTest, TheLogShowsSendsArrivalsManagerLinesAndOutcomes) {
  const std::string log = EventLogOf("lan", 1);
  EXPECT_THAT(log, ::testing::HasSubstr("sends 192.0.2.1:49152 -> 198.51.100.1:123\n"));
  EXPECT_THAT(log, ::testing::HasSubstr("arrives 198.51.100.1:123 -> 192.0.2.1:49152\n"));
  EXPECT_THAT(log, ::testing::HasSubstr("     0.000000 log 0 Start NTP time sync\n"));
  EXPECT_THAT(log, ::testing::HasSubstr("     0.200000 outcome 0 (success) from 198.51.100.1:123\n"));
}

// The judge itself: a row that promises too much, in each of its limits, must fail.

struct BrokenLimit {
  const char* expected;  // in the failure's text
  void (*change)(Limits&);
};

TEST(ScenarioJudgeTest, EachLimitThatIsBrokenIsNamed) {
  const BrokenLimit cases[] = {
      {"largest error", [](Limits& l) { l.max_error_us = 29; }},
      {"RMS error", [](Limits& l) { l.rms_error_us = 29; }},
      {"first result after", [](Limits& l) { l.first_result_us = 19; }},
      {"none was expected", [](Limits& l) { l.first_result_us = std::nullopt; }},
      {"outcomes 0, expected 0, 1",
       [](Limits& l) {
         l.outcomes = {0, 1};
       }},
      {"at the end there is a result", [](Limits& l) { l.has_result_at_end = false; }},
      {"the error at the end is below", [](Limits& l) { l.min_error_at_end_us = 31; }},
      {"got 20 requests", [](Limits& l) { l.requests[0].min_count = 21; }},
      {"got 20 requests", [](Limits& l) { l.requests[0].max_count = 19; }},
      {"10.000 ms apart", [](Limits& l) { l.requests[0].min_spacing_us = 10001; }},
  };
  Scenario scenario{"judged",
                    "a clock error of 30 us, measured exactly",
                    [](skorra::Run& run) { run.AddServer("198.51.100.1", {.clock_error_us = 30}); },
                    [](skorra::Run& run) {
                      run.AddDomains({"198.51.100.1"});
                      run.Start();
                      run.For(kSecond);
                    },
                    {.max_error_us = 30,
                     .rms_error_us = 30,
                     .first_result_us = 10 * kMs,
                     .requests = {{"198.51.100.1", 20, 20}},
                     .outcomes = {0},
                     .min_error_at_end_us = 30}};
  EXPECT_THAT(PlayScenario(scenario, 1).failures, ::testing::IsEmpty());
  for (const BrokenLimit& broken : cases) {
    Scenario changed = scenario;
    broken.change(changed.limits);
    EXPECT_THAT(PlayScenario(changed, 1).failures,
                ::testing::ElementsAre(::testing::HasSubstr(broken.expected)))
        << broken.expected;
  }
}

// A story with a clock that listens: an oscillator 20 ppm fast, and seven hourly attempts.
Scenario WithClock(bool listens) {
  return {"judged",
          "the clock knows the rate from the third attempt on",
          [](skorra::Run& run) {
            run.AddServer("198.51.100.1", {});
            run.world.SetSteadyError({.frequency_ppb = 20000});
          },
          [listens](skorra::Run& run) {
            if (listens) {
              run.ListenWithClock();
            }
            run.AddDomains({"198.51.100.1"});
            run.ReadEvery(kMinute);
            run.For(6 * kHour);
          },
          {.max_error_us = 80 * kMs,
           .rms_error_us = 47 * kMs,
           .first_result_us = 2 * kSecond,
           .requests = {{"198.51.100.1", 120, 120}},
           .outcomes = std::vector<int>(6, 0)}};
}

TEST(ScenarioClockTest, AClockThatListensChangesNothingOfTheStory) {
  std::string logs[2];
  for (const bool listens : {false, true}) {
    const auto log = [&](const std::string& line) { logs[listens ? 1 : 0] += line + "\n"; };
    const ScenarioReport report = PlayScenario(WithClock(listens), 1, log);
    EXPECT_THAT(report.failures, ::testing::IsEmpty());
    EXPECT_EQ(report.clock.has_value(), listens);
  }
  EXPECT_EQ(logs[0], logs[1]);
  EXPECT_GT(logs[0].size(), 1000u);
}

TEST(ScenarioClockTest, EachLimitOfTheClockThatIsBrokenIsNamed) {
  struct BrokenClockLimit {
    const char* expected;  // in the failure's text
    void (*change)(ClockLimits&);
  };
  const BrokenClockLimit cases[] = {
      {"largest error of the clock", [](ClockLimits& l) { l.max_error_us = -1; }},
      {"RMS error of the clock", [](ClockLimits& l) { l.rms_error_us = -1; }},
      {"largest bound of the clock", [](ClockLimits& l) { l.max_bound_us = 0; }},
      {"the clock knows the rate after", [](ClockLimits& l) { l.rate_us = 0; }},
  };
  const ClockLimits good = {
      .max_error_us = 7 * kMs, .rms_error_us = 7 * kMs, .max_bound_us = 190 * kMs, .rate_us = 3 * kHour};
  Scenario scenario = WithClock(true);
  scenario.limits.clock = good;
  EXPECT_THAT(PlayScenario(scenario, 1).failures, ::testing::IsEmpty());
  for (const BrokenClockLimit& broken : cases) {
    scenario.limits.clock = good;
    broken.change(*scenario.limits.clock);
    EXPECT_THAT(PlayScenario(scenario, 1).failures,
                ::testing::ElementsAre(::testing::HasSubstr(broken.expected)))
        << broken.expected;
  }
}

TEST(ScenarioClockTest, ATruthOutsideTheLimitsAndAClockThatDoesNotListenAreNamed) {
  const ClockLimits any = {
      .max_error_us = kHour, .rms_error_us = kHour, .max_bound_us = kHour, .rate_us = kDay};
  Scenario deaf = WithClock(false);
  deaf.limits.clock = any;
  EXPECT_THAT(PlayScenario(deaf, 1).failures, ::testing::Contains("no clock listens"));
  Scenario lied_to = WithClock(true);
  lied_to.setup = [](skorra::Run& run) { run.AddServer("198.51.100.1", {.clock_error_us = 10 * kMs}); };
  lied_to.limits.clock = any;
  EXPECT_THAT(
      PlayScenario(lied_to, 1).failures,
      ::testing::ElementsAre(::testing::HasSubstr("the truth lies outside the clock's limits, first")));
}

TEST(ScenarioTableTest, ARowWithAClockShowsBothSideBySide) {
  Scenario scenario = WithClock(true);
  scenario.limits.clock = ClockLimits{
      .max_error_us = 7 * kMs, .rms_error_us = 7 * kMs, .max_bound_us = 190 * kMs, .rate_us = kDay};
  const ScenarioReport report = PlayScenario(scenario, 1);
  const std::string row = ClockRow(scenario, report);
  EXPECT_THAT(row, ::testing::StartsWith("  the clock that listens"));
  EXPECT_EQ(row.size(), TableHeader().size());
  EXPECT_EQ(ClockRow(WithClock(false), PlayScenario(WithClock(false), 1)), "");
  EXPECT_THAT(ReportLines(scenario, report),
              ::testing::IsSupersetOf({::testing::HasSubstr("error of the clock: "),
                                       ::testing::HasSubstr("RMS error of the clock: "),
                                       ::testing::HasSubstr("largest bound of the clock: "),
                                       ::testing::HasSubstr("the clock knows the rate: after ")}));
}

}  // namespace
}  // namespace skorra
