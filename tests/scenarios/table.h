// SPDX-License-Identifier: Apache-2.0
// How what scenarios measured is shown: a table of at most kTableWidth columns, and the details of one row.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/scenarios/scenario.h"

namespace skorra {

inline constexpr size_t kTableWidth = 100;

// "0 x 12, 1": long stories repeat themselves. "none" without outcomes.
std::string OutcomesText(const std::vector<int>& codes);

// "1.234 ms", "2.500 s".
std::string DurationText(int64_t us);

// The line above the rows, and one row.
std::string TableHeader();
std::string TableRow(const Scenario& scenario, const ScenarioReport& report);
// The row below it, for the clock that listens; empty where none does.
std::string ClockRow(const Scenario& scenario, const ScenarioReport& report);

// Everything that was measured with its limit, one line each.
std::vector<std::string> ReportLines(const Scenario& scenario, const ScenarioReport& report);

// Each line of `text`, ended; one of more than kTableWidth columns is broken, between words where it can be,
// and goes on after `indent` spaces.
std::string Broken(const std::string& text, size_t indent);

// The same with the first line indented, too.
std::string Wrapped(const std::string& text, size_t indent);

// The line above the log of events, and one event of it.
std::string EventHeader();
std::string EventLines(const std::string& event);

}  // namespace skorra
