// SPDX-License-Identifier: Apache-2.0

// skorra-sim: plays the scenarios, or one of them with its log of events, or walks the manager alongside its
// model, or plays a day of many processes, or two clocks side by side for 30 days.
#include <cstdint>
#include <cstdio>
#include <string>

#include "apps/skorra-ntp/command_line.h"
#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/terminal.h"
#include "tests/model/walks.h"
#include "tests/scenarios/fleet.h"
#include "tests/scenarios/scenario.h"
#include "tests/scenarios/table.h"
#include "tests/scenarios/two_clocks.h"

namespace skorra {
namespace {

// Days of walks; a number of 32 bits.
constexpr uint64_t kMaxWalks = 1'000'000'000;
constexpr uint64_t kMaxProcesses = 1'000'000;

void PrintFailures(const ScenarioReport& report) {
  for (const std::string& failure : report.failures) {
    std::printf("%s", Wrapped(failure, 4).c_str());
  }
}

int PlayAll(uint64_t seed) {
  size_t failed = 0;
  std::printf("seed %llu; error, limit and RMS of the clock; the first result; requests sent\n%s\n",
              static_cast<unsigned long long>(seed), TableHeader().c_str());
  for (const Scenario& scenario : AllScenarios()) {
    const ScenarioReport report = PlayScenario(scenario, seed);
    failed += report.failures.empty() ? 0 : 1;
    std::printf("%s\n", TableRow(scenario, report).c_str());
    if (const std::string row = ClockRow(scenario, report); !row.empty()) {
      std::printf("%s\n", row.c_str());
    }
    PrintFailures(report);
  }
  std::printf("%zu scenarios, %zu failed\n", AllScenarios().size(), failed);
  return failed == 0 ? 0 : 1;
}

int PlayOne(const std::string& name, uint64_t seed) {
  const Scenario* const scenario = FindScenario(name);
  if (scenario == nullptr) {
    PrintProblem("no scenario is called '" + name + "'", "Run 'skorra-sim --list' to see their names.");
    return kExitUsage;
  }
  std::printf("%s, seed %llu:\n%s%s\n", name.c_str(), static_cast<unsigned long long>(seed),
              Wrapped(scenario->sentence, 4).c_str(), EventHeader().c_str());
  const ScenarioReport report = PlayScenario(
      *scenario, seed, [](const std::string& line) { std::fputs(EventLines(line).c_str(), stdout); });
  for (const std::string& line : ReportLines(*scenario, report)) {
    std::fputs(Broken(line, 4).c_str(), stdout);
  }
  std::puts(report.failures.empty() ? "ok" : "FAIL");
  PrintFailures(report);
  return report.failures.empty() ? 0 : 1;
}

int List() {
  std::printf("%zu scenarios, each with what it holds:\n", AllScenarios().size());
  for (const Scenario& scenario : AllScenarios()) {
    std::printf("%s\n%s", scenario.name.c_str(), Wrapped(scenario.sentence, 4).c_str());
  }
  return 0;
}

int Main(int argc, char** argv) {
  PrepareStandardStreams();
  CLI::App app("Plays the scenarios of skorra NTP in a simulated world and holds them to their limits.",
               "skorra-sim");
  std::string name;
  uint64_t seed = 1;
  bool is_list = false;
  long walks = 0;
  const CLI::Option* const scenario_option =
      app.add_option("--scenario", name, "play this one, with its log of events");
  const CLI::Option* const seed_option =
      app.add_option("--seed", seed, "where all random numbers come from (default 1; for walks a fresh one)")
          ->transform(WholeNumber());
  app.add_flag("--list", is_list, "list the scenarios");
  const CLI::Option* const walks_option =
      app.add_option("--walks", walks, "instead take so many random walks of the manager and its model")
          ->transform(WholeNumber(1, kMaxWalks));
  uint64_t walk_seed = 0;
  const CLI::Option* const walk_option =
      app.add_option("--walk", walk_seed, "instead take the one walk with this seed, as a failure names it")
          ->transform(WholeNumber());
  FleetOptions fleet;
  const CLI::Option* const fleet_option =
      app.add_option("--fleet", fleet.processes, "instead play a day of so many processes; see docs/fleet.md")
          ->transform(WholeNumber(1, kMaxProcesses));
  bool is_two_clocks = false;
  app.add_flag("--clocks", is_two_clocks,
               "instead play 30 days of the manager and of the clock side by side");
  std::string json_path;
  app.add_option("--json", json_path, "where --fleet writes requests per minute, or --clocks the errors");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return ExitAfterParsing(app, error);
  }
  if (!json_path.empty() && fleet_option->count() == 0 && !is_two_clocks) {
    PrintProblem("--json needs --fleet or --clocks", "Run 'skorra-sim --help' to see what it takes.");
    return kExitUsage;
  }
  if (walk_option->count() > 0) {
    return RunOneWalk(walk_seed);
  }
  if (walks_option->count() > 0) {
    return RunWalks(walks, seed_option->count() > 0 ? seed : FreshWalkSeed());
  }
  if (fleet_option->count() > 0) {
    fleet.seed = seed;
    return RunFleet(fleet, json_path);
  }
  if (is_two_clocks) {
    return RunTwoClocks(seed, json_path);
  }
  if (is_list) {
    return List();
  }
  return scenario_option->count() == 0 ? PlayAll(seed) : PlayOne(name, seed);
}

// What is printed line by line may fail at any of them; the stream remembers it.
int WithOutput(int status) {
  const bool has_failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
  if (has_failed && status != kExitOutput) {
    PrintProblem("cannot write to standard output, so lines are lost",
                 "Send it to a terminal, a file or a pipe that takes all of them.");
  }
  return has_failed ? kExitOutput : status;
}

}  // namespace
}  // namespace skorra

int main(int argc, char** argv) { return skorra::WithOutput(skorra::Main(argc, argv)); }
