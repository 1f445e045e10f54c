// SPDX-License-Identifier: Apache-2.0

// skorra-sim as its users meet it: each mode fits a terminal and says first what it shows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "testing/child_process.h"

namespace skorra {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr size_t kColumns = 100;

ChildExit RunSim(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), SKORRA_SIM_PROGRAM);
  return RunChild(arguments);
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// Runs a mode that succeeds; returns its lines, each of which has to fit.
std::vector<std::string> LinesOfMode(const std::vector<std::string>& arguments) {
  const ChildExit exit = RunSim(arguments);
  EXPECT_EQ(exit.status, 0) << exit.out << exit.err;
  EXPECT_THAT(exit.err, IsEmpty());
  const std::vector<std::string> lines = LinesOf(exit.out);
  for (const std::string& line : lines) {
    EXPECT_LE(line.size(), kColumns) << line;
  }
  return lines;
}

TEST(SimProgramTest, TheTableHasAHeaderAndFits100Columns) {
  const auto lines = LinesOfMode({});
  ASSERT_GT(lines.size(), 40u);
  EXPECT_THAT(lines[0], StartsWith("seed 1; error, limit and RMS of the clock"));
  EXPECT_THAT(lines[1], testing::MatchesRegex("scenario +outcomes +error +limit +RMS +first +sent"));
}

TEST(SimProgramTest, TheListHasAHeaderAndFits100Columns) {
  const auto lines = LinesOfMode({"--list"});
  ASSERT_GT(lines.size(), 80u);
  EXPECT_THAT(lines[0], testing::MatchesRegex("[0-9]+ scenarios, each with what it holds:"));
}

TEST(SimProgramTest, TheLogOfEachScenarioHasAHeaderAndFits100Columns) {
  size_t count = 0;
  for (const std::string& name : LinesOf(RunSim({"--list"}).out)) {
    if (name.find(' ') != std::string::npos) {
      continue;  // what the scenario holds
    }
    ++count;
    SCOPED_TRACE(name);
    const auto lines = LinesOfMode({"--scenario", name});
    EXPECT_THAT(lines, testing::Contains("     time (s) event"));
    EXPECT_EQ(lines.at(0), name + ", seed 1:");
  }
  EXPECT_GT(count, 40u);
}

TEST(SimProgramTest, ALongEventGoesOnUnderItsText) {
  EXPECT_THAT(RunSim({"--scenario", "lan"}).out,
              HasSubstr("     0.200000 log 0 NTP time sync successful, took(ms): 200, last request took(ms): "
                        "200, use sample\n"
                        "              count:10, "));
}

TEST(SimProgramTest, WalksHaveAHeaderAndFit100Columns) {
  EXPECT_EQ(LinesOfMode({"--walks", "20", "--seed", "3"}).at(0), "20 walks, seed 3");
  EXPECT_EQ(LinesOfMode({"--walk", "7"}).at(0), "walk seed 7: no difference");
}

TEST(SimProgramTest, AFleetHasAHeaderFits100ColumnsAndIsRepeatedByItsSeed) {
  const std::vector<std::string> arguments = {"--fleet", "2", "--seed", "3"};
  const auto lines = LinesOfMode(arguments);
  EXPECT_EQ(lines.at(0), "2 processes, seed 3, begun within a minute; no answer from 12 h to 13 h");
  EXPECT_THAT(lines, testing::Contains(testing::MatchesRegex("  the outage +[0-9. ]+")).Times(4));
  EXPECT_EQ(LinesOfMode(arguments), lines);
}

TEST(SimProgramTest, TwoClocksHaveAHeaderAndFit100Columns) {
  const auto lines = LinesOfMode({"--clocks"});
  EXPECT_EQ(lines.at(0), "resync_over_30_days, seed 1: the manager's reading and the clock with a bound");
  EXPECT_THAT(lines.at(1),
              testing::MatchesRegex("days +error of the manager +error of the clock +its farthest limit"));
  EXPECT_EQ(lines.size(), 12u);
}

TEST(SimProgramTest, TheHelpFits100Columns) {
  EXPECT_THAT(LinesOfMode({"--help"}).at(0), StartsWith("Plays the scenarios"));
}

TEST(SimProgramTest, WrongUsageEndsWithStatus64AndTheRemedy) {
  struct Case {
    std::vector<std::string> arguments;
    const char* message;
  };
  const char* const seed_range = "\" is not valid: must be a whole number from 0 to 18446744073709551615";
  const char* const walks_range = "\" is not valid: must be a whole number from 1 to 1000000000";
  const Case cases[] = {
      {{"--seed", "-1"}, seed_range},
      {{"--seed", ""}, seed_range},
      {{"--seed", "18446744073709551616"}, seed_range},
      {{"--seed", "0x10"}, seed_range},
      {{"--walk", "-1"}, seed_range},
      {{"--walk", ""}, seed_range},
      {{"--walks", "-1"}, walks_range},
      {{"--walks", "0"}, walks_range},
      {{"--walks", ""}, walks_range},
      {{"--walks", "1000000001"}, walks_range},
      {{"--fleet", "0"}, "\" is not valid: must be a whole number from 1 to 1000000"},
      {{"--fleet", "1000001"}, "\" is not valid: must be a whole number from 1 to 1000000"},
      {{"--json", "x"}, "--json"},
      {{"--scenario", "a\x1b[31mb"}, R"(no scenario is called 'a\x1b[31mb')"},
      {{"--nope"}, "there is no option '--nope'"},
      {{"-4"}, "there is no option '-4'"},
      {{"lan"}, "lan"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    const ChildExit exit = RunSim(c.arguments);
    EXPECT_EQ(exit.status, 64);
    EXPECT_THAT(exit.out, IsEmpty());
    EXPECT_THAT(exit.err, StartsWith("skorra-sim: "));
    EXPECT_THAT(exit.err, HasSubstr(c.message));
    EXPECT_THAT(exit.err, HasSubstr("Run 'skorra-sim --"));
  }
}

TEST(SimProgramTest, LinesThatCannotBeWrittenEndWithStatus74) {
  for (const char* redirection : {">/dev/full", ">&-"}) {
    for (const char* mode : {"--list", "--walk=7", "--help"}) {
      SCOPED_TRACE(std::string(redirection) + " " + mode);
      const ChildExit exit = RunChild(
          {"/bin/bash", "-c", "exec \"$@\" " + std::string(redirection), "bash", SKORRA_SIM_PROGRAM, mode});
      EXPECT_EQ(exit.status, 74);
      EXPECT_THAT(exit.err, HasSubstr("skorra-sim: cannot write to standard output"));
    }
  }
}

}  // namespace
}  // namespace skorra
