// SPDX-License-Identifier: Apache-2.0
#include "tests/scenarios/scenario.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "platform/base/log.h"
#include "platform/config/base_cfg.h"
#include "tests/scenarios/table.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

struct RequestMeasure {
  size_t count = 0;
  int64_t min_spacing_us = std::numeric_limits<int64_t>::max();
};

RequestMeasure MeasureRequests(Run& run, const std::string& address) {
  RequestMeasure measure;
  const auto& requests = run.network.requests(Address(address));
  measure.count = requests.size();
  for (size_t i = 1; i < requests.size(); ++i) {
    measure.min_spacing_us =
        std::min(measure.min_spacing_us, requests[i].sent_ticks_us - requests[i - 1].sent_ticks_us);
  }
  return measure;
}

using Check = std::function<void(bool holds, const std::string& failure)>;

void JudgeClock(const ClockMeasure& measured, const ClockLimits& limits, const Check& check) {
  check(measured.error.max_us() <= limits.max_error_us, "largest error of the clock " +
                                                            DurationText(measured.error.max_us()) +
                                                            ", limit " + DurationText(limits.max_error_us));
  check(measured.error.rms_us() <= limits.rms_error_us, "RMS error of the clock " +
                                                            DurationText(measured.error.rms_us()) +
                                                            ", limit " + DurationText(limits.rms_error_us));
  check(measured.max_bound_us <= limits.max_bound_us, "largest bound of the clock " +
                                                          DurationText(measured.max_bound_us) + ", limit " +
                                                          DurationText(limits.max_bound_us));
  check(measured.rate_us && *measured.rate_us <= limits.rate_us,
        "the clock knows the rate " +
            (measured.rate_us ? "after " + DurationText(*measured.rate_us) : std::string("never")) +
            ", limit " + DurationText(limits.rate_us));
  check(!measured.outside_us, "the truth lies outside the clock's limits, first after " +
                                  DurationText(measured.outside_us.value_or(0)));
}

void Judge(Run& run, const Limits& limits, ScenarioReport* report) {
  const auto check = [report](bool holds, const std::string& failure) {
    if (!holds) {
      report->failures.push_back(failure);
    }
  };
  if (limits.clock) {
    check(run.clock().has_value(), "no clock listens");
    JudgeClock(run.clock().value_or(ClockMeasure()), *limits.clock, check);
  }
  check(run.max_error_us() <= limits.max_error_us,
        "largest error " + DurationText(run.max_error_us()) + ", limit " + DurationText(limits.max_error_us));
  check(run.rms_error_us() <= limits.rms_error_us,
        "RMS error " + DurationText(run.rms_error_us()) + ", limit " + DurationText(limits.rms_error_us));
  const std::optional<int64_t> first = run.first_result_us();
  if (limits.first_result_us) {
    check(first && *first <= *limits.first_result_us,
          "first result " + (first ? "after " + DurationText(*first) : std::string("never")) + ", limit " +
              DurationText(*limits.first_result_us));
  } else {
    check(!first, "there was a result, and none was expected");
  }
  const bool is_other = !limits.or_outcomes.empty() && run.outcomes() == limits.or_outcomes;
  check(run.outcomes() == limits.outcomes || is_other,
        "outcomes " + OutcomesText(run.outcomes()) + ", expected " + OutcomesText(limits.outcomes));
  check(run.HasResult() == limits.has_result_at_end,
        std::string("at the end there is ") + (run.HasResult() ? "a" : "no") + " result");
  if (limits.min_error_at_end_us > 0) {
    check(run.HasResult() && std::abs(run.ErrorUs()) >= limits.min_error_at_end_us,
          "the error at the end is below " + DurationText(limits.min_error_at_end_us));
  }
  for (const RequestLimit& limit : limits.requests) {
    const RequestMeasure measure = MeasureRequests(run, limit.address);
    check(limit.min_count <= measure.count && measure.count <= limit.max_count,
          limit.address + " got " + std::to_string(measure.count) + " requests, expected " +
              std::to_string(limit.min_count) + " to " + std::to_string(limit.max_count));
    check(measure.min_spacing_us >= limit.min_spacing_us,
          limit.address + " got requests " + DurationText(measure.min_spacing_us) +
              " apart, expected at least " + DurationText(limit.min_spacing_us));
  }
}

}  // namespace

void ErrorMeasure::Add(int64_t error_us) {
  const int64_t magnitude_us = std::abs(error_us);
  max_us_ = std::max(max_us_, magnitude_us);
  square_sum_ += static_cast<double>(magnitude_us) * static_cast<double>(magnitude_us);
  ++count_;
}

int64_t ErrorMeasure::rms_us() const {
  return count_ == 0 ? 0 : static_cast<int64_t>(std::sqrt(square_sum_ / static_cast<double>(count_)));
}

class Run::Listener : public NtpTimeManager::Observer {
 public:
  explicit Listener(sim::World& world) : world_(world) {}

  void OnNtpResult(NtpResult result, const std::string& message, const net::IPEndPoint& server) override {
    world_.Log("outcome %d (%s) from %s", static_cast<int>(result), message.c_str(),
               server.ToString().c_str());
    outcomes.push_back(static_cast<int>(result));
  }

  std::vector<int> outcomes;

 private:
  sim::World& world_;
};

Run::Run(const Scenario& scenario, uint64_t seed, std::function<void(const std::string&)> event_log)
    : world({.seed = seed, .wall_us = scenario.begin_true_us}), listener_(std::make_shared<Listener>(world)) {
  const bool is_logged = static_cast<bool>(event_log);
  world.SetEventLog(std::move(event_log));
  base::SetLogThreshold(is_logged ? base::kLogProgress : base::kLogNothing);
  base::SetLogSink(
      [this](const base::LogLine& line) { world.Log("log %d %s", line.level, line.text.c_str()); });
}

Run::~Run() {
  if (keeper_ != nullptr) {
    RemoveNtpSyncListener(keeper_.get());
    world.RunAsTask(core::BusinessID::kNtpTime, [this] { keeper_.reset(); });
  }
  base::SetLogSink(nullptr);
  base::SetLogThreshold(base::kLogFailure);
}

void Run::SetHost(const std::string& name, const std::vector<std::string>& addresses) {
  sim::HostEntry entry;
  for (const std::string& address : addresses) {
    entry.addresses.push_back(Address(address));
  }
  world.SetHost(name, std::move(entry));
}

void Run::SetDefaultDomain(const std::string& domain) {
  config_.Set(config::BaseCfg().ntp_default_domain, domain);
}

void Run::SetSyncInterval(uint64_t seconds) { config_.Set(config::BaseCfg().ntp_sync_interval, seconds); }

void Run::SetRequestsPerBurst(uint64_t count) {
  config_.Set(config::BaseCfg().ntp_requests_per_burst, count);
}

NtpTimeManagerPeer& Run::peer() {
  if (!peer_) {
    peer_.emplace();
    peer_->manager().AddObserver(listener_);
  }
  return *peer_;
}

int64_t Run::ErrorUs() { return peer().GetNtpTimestampFrom1970Internal() - TrueUs(); }

void Run::ListenWithClock() {
  if (keeper_ != nullptr) {
    return;
  }
  keeper_ = std::make_shared<Keeper>(manager(), shared_, [](const NtpSyncOutcome&) {});
  AddNtpSyncListener(keeper_);
  clock_.emplace();
}

const std::vector<int>& Run::outcomes() const { return listener_->outcomes; }

void Run::For(int64_t duration_us) {
  const int64_t end_ticks_us = world.steady_ticks_us() + duration_us;
  const int64_t slice_us = duration_us > 2 * kMinute ? kSecond : 10 * kMs;
  while (world.steady_ticks_us() < end_ticks_us) {
    if (read_interval_us_ > 0 && world.steady_ticks_us() >= next_read_ticks_us_) {
      next_read_ticks_us_ = world.steady_ticks_us() + read_interval_us_;
      manager().GetNtpTimestampFrom1970();
    }
    world.RunFor(
        base::TimeDelta::FromMicroseconds(std::min(slice_us, end_ticks_us - world.steady_ticks_us())));
    Measure();
  }
}

void Run::Measure() {
  if (!HasResult()) {
    return;
  }
  if (!first_result_us_) {
    first_result_us_ = world.steady_ticks_us() - world.begin_ticks_us();
  }
  error_.Add(ErrorUs());
  if (clock_) {
    MeasureClock();
  }
  if (on_measured) {
    on_measured();
  }
}

void Run::MeasureClock() {
  const NtpClockReading reading = ReadClock();
  const int64_t true_us = TrueUs();
  const int64_t since_begin_us = world.steady_ticks_us() - world.begin_ticks_us();
  if (reading.has_bound() && (true_us < reading.earliest_us || reading.latest_us < true_us)) {
    clock_->outside_us = clock_->outside_us.value_or(since_begin_us);
  }
  if (reading.has_frequency()) {
    clock_->error.Add(reading.best_estimate_us - true_us);
    clock_->max_bound_us = std::max(clock_->max_bound_us, reading.error_bound_us);
    clock_->rate_us = clock_->rate_us.value_or(since_begin_us);
  }
}

const std::vector<Scenario>& AllScenarios() {
  static base::NoDestructor<std::vector<Scenario>> all_scenarios([] {
    std::vector<Scenario> all;
    for (auto* table : {NetworkScenarios, ServerScenarios, ClockScenarios, LifecycleScenarios}) {
      for (Scenario& scenario : table()) {
        all.push_back(std::move(scenario));
      }
    }
    return all;
  }());
  return *all_scenarios;
}

const Scenario* FindScenario(const std::string& name) {
  const auto& all = AllScenarios();
  const auto found = std::find_if(all.begin(), all.end(), [&](const auto& row) { return row.name == name; });
  return found == all.end() ? nullptr : &*found;
}

ScenarioReport PlayScenario(const Scenario& scenario, uint64_t seed,
                            std::function<void(const std::string&)> event_log) {
  Run run(scenario, seed, std::move(event_log));
  scenario.setup(run);
  scenario.story(run);
  ScenarioReport report;
  report.outcomes = run.outcomes();
  report.max_error_us = run.max_error_us();
  report.rms_error_us = run.rms_error_us();
  report.first_result_us = run.first_result_us();
  report.clock = run.clock();
  for (const RequestLimit& limit : scenario.limits.requests) {
    report.requests.push_back({limit.address, MeasureRequests(run, limit.address).count});
  }
  Judge(run, scenario.limits, &report);
  return report;
}

ClockMeasure PlayWithClock(const Scenario& scenario, uint64_t seed) {
  Run run(scenario, seed, nullptr);
  scenario.setup(run);
  run.ListenWithClock();
  scenario.story(run);
  return *run.clock();
}

}  // namespace skorra
