// SPDX-License-Identifier: Apache-2.0
#include "tests/scenarios/table.h"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string_view>

namespace skorra {
namespace {

// Where the text of an event begins, after its time.
constexpr size_t kEventColumn = 14;
constexpr std::string_view kTimeTitle = "time (s)";

// Four digits at most and a unit: short enough for a column.
std::string ShortText(int64_t us) {
  struct Unit {
    int64_t us;
    const char* name;
  };
  const Unit units[] = {{kDay, "d"}, {kHour, "h"}, {kSecond, "s"}, {kMs, "ms"}, {1, "us"}};
  for (const Unit& unit : units) {
    // Below ten of a unit the next smaller one shows more.
    if (us >= 10 * unit.us || unit.us == 1) {
      return std::to_string((us + unit.us / 2) / unit.us) + " " + unit.name;
    }
  }
  return {};
}

std::string ShortText(const std::optional<int64_t>& us) { return us ? ShortText(*us) : "-"; }

std::string Line(const std::string& name, const std::string& outcomes, const std::string& error,
                 const std::string& error_limit, const std::string& rms, const std::string& first,
                 const std::string& requests, const std::string& verdict) {
  char line[256];
  std::snprintf(line, sizeof(line), "%-43s %-11s %7s %7s %7s %7s %5s %s", name.c_str(), outcomes.c_str(),
                error.c_str(), error_limit.c_str(), rms.c_str(), first.c_str(), requests.c_str(),
                verdict.c_str());
  return line;
}

}  // namespace

std::string OutcomesText(const std::vector<int>& codes) {
  std::string text;
  for (size_t i = 0; i < codes.size();) {
    size_t end = i;
    while (end < codes.size() && codes[end] == codes[i]) {
      ++end;
    }
    text += (text.empty() ? "" : ", ") + std::to_string(codes[i]);
    text += end - i > 1 ? " x " + std::to_string(end - i) : "";
    i = end;
  }
  return text.empty() ? "none" : text;
}

std::string DurationText(int64_t us) {
  char text[32];
  const double value = static_cast<double>(us);
  if (std::abs(us) < kSecond) {
    std::snprintf(text, sizeof(text), "%.3f ms", value / 1e3);
  } else {
    std::snprintf(text, sizeof(text), "%.3f s", value / 1e6);
  }
  return text;
}

std::string TableHeader() {
  std::string header = Line("scenario", "outcomes", "error", "limit", "RMS", "first", "sent", "");
  header.pop_back();  // the gap before the verdict
  return header;
}

std::string TableRow(const Scenario& scenario, const ScenarioReport& report) {
  size_t requests = 0;
  for (const RequestCount& count : report.requests) {
    requests += count.count;
  }
  const bool has_result = report.first_result_us.has_value();
  const auto if_measured = [&](int64_t us) { return has_result ? ShortText(us) : "-"; };
  return Line(scenario.name, OutcomesText(report.outcomes), if_measured(report.max_error_us),
              if_measured(scenario.limits.max_error_us), if_measured(report.rms_error_us),
              ShortText(report.first_result_us), std::to_string(requests),
              report.failures.empty() ? "ok" : "FAIL");
}

std::string ClockRow(const Scenario& scenario, const ScenarioReport& report) {
  if (!report.clock) {
    return {};
  }
  std::string row = Line("  the clock that listens, with its rate", "",
                         report.clock->rate_us ? ShortText(report.clock->error.max_us()) : "-",
                         scenario.limits.clock ? ShortText(scenario.limits.clock->max_error_us) : "-",
                         report.clock->rate_us ? ShortText(report.clock->error.rms_us()) : "-",
                         ShortText(report.clock->rate_us), "", "");
  row.pop_back();
  return row;
}

std::vector<std::string> ReportLines(const Scenario& scenario, const ScenarioReport& report) {
  std::vector<std::string> lines = {"outcomes: " + OutcomesText(report.outcomes)};
  if (report.first_result_us) {
    const Limits& limits = scenario.limits;
    lines.push_back("largest error: " + DurationText(report.max_error_us) + ", at most " +
                    DurationText(limits.max_error_us));
    lines.push_back("RMS error: " + DurationText(report.rms_error_us) + ", at most " +
                    DurationText(limits.rms_error_us));
    lines.push_back("first result: after " + DurationText(*report.first_result_us) + ", at most " +
                    DurationText(limits.first_result_us.value_or(0)));
  } else {
    lines.push_back("no result");
  }
  if (report.clock && scenario.limits.clock) {
    const ClockMeasure& measured = *report.clock;
    const ClockLimits& limits = *scenario.limits.clock;
    const auto line = [&](const char* what, int64_t us, int64_t limit_us) {
      lines.push_back(what + DurationText(us) + ", at most " + DurationText(limit_us));
    };
    line("largest error of the clock: ", measured.error.max_us(), limits.max_error_us);
    line("RMS error of the clock: ", measured.error.rms_us(), limits.rms_error_us);
    line("largest bound of the clock: ", measured.max_bound_us, limits.max_bound_us);
    if (measured.rate_us) {
      line("the clock knows the rate: after ", *measured.rate_us, limits.rate_us);
    }
  }
  for (const RequestCount& count : report.requests) {
    lines.push_back("requests to " + count.address + ": " + std::to_string(count.count));
  }
  return lines;
}

std::string Broken(const std::string& text, size_t indent) {
  const std::string begin(indent, ' ');
  std::istringstream lines(text);
  std::string result;
  for (std::string line; std::getline(lines, line);) {
    while (line.size() > kTableWidth) {
      const size_t gap = line.rfind(' ', kTableWidth);
      const bool is_between_words = gap != std::string::npos && gap > indent;
      const size_t end = is_between_words ? gap : kTableWidth;
      result += line.substr(0, end) + "\n";
      line = begin + line.substr(is_between_words ? end + 1 : end);
    }
    result += line + "\n";
  }
  return result;
}

std::string Wrapped(const std::string& text, size_t indent) {
  return Broken(std::string(indent, ' ') + text, indent);
}

std::string EventHeader() {
  std::string header = "event";
  header.insert(0, kEventColumn, ' ');
  return header.replace(kEventColumn - 1 - kTimeTitle.size(), kTimeTitle.size(), kTimeTitle);
}

std::string EventLines(const std::string& event) { return Broken(event, kEventColumn); }

}  // namespace skorra
