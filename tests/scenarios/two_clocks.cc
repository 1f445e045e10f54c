// SPDX-License-Identifier: Apache-2.0
#include "tests/scenarios/two_clocks.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/terminal.h"
#include "tests/scenarios/scenario.h"
#include "tests/scenarios/table.h"

namespace skorra {
namespace {

// Named members, for sums over all of them.
constexpr struct {
  const char* name;
  int64_t ClockErrors::*member;
} kMembers[] = {{"manager", &ClockErrors::manager_us},
                {"clock", &ClockErrors::clock_us},
                {"earliest", &ClockErrors::earliest_us},
                {"latest", &ClockErrors::latest_us}};

void Widen(ErrorSpan& span, const ClockErrors& errors) {
  for (const auto& [name, member] : kMembers) {
    span.least.*member = std::min(span.least.*member, errors.*member);
    span.most.*member = std::max(span.most.*member, errors.*member);
  }
}

template <class Range, class Get>
void AddSeries(std::string& json, const std::string& name, const Range& range, const Get& get) {
  json += (json.back() == '{' ? "\n\"" : ",\n\"") + name + "\": [";
  for (size_t i = 0; i < range.size(); ++i) {
    json += (i == 0 ? "" : ", ") + std::to_string(get(range[i]));
  }
  json += "]";
}

void PrintTable(const TwoClocks& played) {
  constexpr size_t kSpansPerDay = kDay / kSpanUs;
  constexpr size_t kDaysPerLine = 3;
  std::printf("%-12s %20s %20s %20s\n", "days", "error of the manager", "error of the clock",
              "its farthest limit");
  for (size_t first = 0; first < played.days_30.size(); first += kSpansPerDay * kDaysPerLine) {
    ErrorSpan span = played.days_30[first];
    const size_t end = std::min(first + kSpansPerDay * kDaysPerLine, played.days_30.size());
    for (size_t i = first; i < end; ++i) {
      Widen(span, played.days_30[i].least);
      Widen(span, played.days_30[i].most);
    }
    const auto farthest = [&](int64_t ClockErrors::*member) {
      return DurationText(std::max(std::abs(span.least.*member), std::abs(span.most.*member)));
    };
    const std::string days =
        std::to_string(first / kSpansPerDay + 1) + " to " + std::to_string(end / kSpansPerDay);
    std::printf("%-12s %20s %20s %20s\n", days.c_str(), farthest(&ClockErrors::manager_us).c_str(),
                farthest(&ClockErrors::clock_us).c_str(),
                DurationText(std::max(-span.least.earliest_us, span.most.latest_us)).c_str());
  }
}

bool WriteFile(const std::string& path, const std::string& text) {
  std::FILE* const file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    return false;
  }
  const bool is_written = std::fputs(text.c_str(), file) >= 0;
  return std::fclose(file) == 0 && is_written;
}

}  // namespace

TwoClocks PlayTwoClocks(uint64_t seed) {
  const Scenario& scenario = *FindScenario("resync_over_30_days");
  TwoClocks played{.seed = seed, .days_30 = {}, .first_day = {}};
  Run run(scenario, seed, nullptr);
  int64_t next_ticks_us = run.world.begin_ticks_us();
  int64_t span = -1;
  run.on_measured = [&] {
    const NtpClockReading reading = run.ReadClock();
    if (!reading.has_bound()) {
      return;
    }
    const int64_t true_us = run.TrueUs();
    const ClockErrors errors = {.manager_us = run.ErrorUs(),
                                .clock_us = reading.best_estimate_us - true_us,
                                .earliest_us = reading.earliest_us - true_us,
                                .latest_us = reading.latest_us - true_us};
    const int64_t ticks_us = run.world.steady_ticks_us();
    const int64_t since_begin_us = ticks_us - run.world.begin_ticks_us();
    if (since_begin_us <= kDay && ticks_us >= next_ticks_us) {
      played.first_day.push_back(errors);
      next_ticks_us += kFirstDayStepUs;
    }
    // A moment that ends a stretch belongs to it.
    if (const int64_t now_span = (since_begin_us - 1) / kSpanUs; now_span != span) {
      span = now_span;
      played.days_30.push_back({errors, errors});
    }
    Widen(played.days_30.back(), errors);
  };
  scenario.setup(run);
  scenario.story(run);
  return played;
}

std::string ToJson(const TwoClocks& played) {
  std::string json = "{\"seed\": " + std::to_string(played.seed) +
                     ", \"span_s\": " + std::to_string(kSpanUs / kSecond) +
                     ", \"step_s\": " + std::to_string(kFirstDayStepUs / kSecond) + ", \"days_30_us\": {";
  for (const auto& entry : kMembers) {
    const auto member = entry.member;
    const std::string name = entry.name;
    if (name != "latest") {
      AddSeries(json, name + "_least", played.days_30, [=](const auto& span) { return span.least.*member; });
    }
    if (name != "earliest") {
      AddSeries(json, name + "_most", played.days_30, [=](const auto& span) { return span.most.*member; });
    }
  }
  json += "},\n\"first_day_us\": {";
  for (const auto& entry : kMembers) {
    const auto member = entry.member;
    AddSeries(json, entry.name, played.first_day, [=](const auto& errors) { return errors.*member; });
  }
  return json + "}}\n";
}

int RunTwoClocks(uint64_t seed, const std::string& json_path) {
  std::printf("resync_over_30_days, seed %llu: the manager's reading and the clock with a bound\n",
              static_cast<unsigned long long>(seed));
  const TwoClocks played = PlayTwoClocks(seed);
  PrintTable(played);
  if (!json_path.empty() && !WriteFile(json_path, ToJson(played))) {
    PrintProblem("cannot write '" + json_path + "'", "Give --json a path that can be written.");
    return kExitOutput;
  }
  return 0;
}

}  // namespace skorra
