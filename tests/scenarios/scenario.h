// SPDX-License-Identifier: Apache-2.0

// Scenarios: whole stories that the shipped manager and transport go through in a simulated world, each with
// limits on what it may measure. A row is data; scenario.cc plays it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "clock/keeper.h"
#include "clock/shared_clock.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/time.h"
#include "sim/attacker.h"
#include "sim/network.h"
#include "sim/world.h"
#include "testing/addresses.h"
#include "testing/config_scope.h"
#include "testing/fresh_ledger.h"
#include "testing/ntp_time_manager_peer.h"

namespace skorra {

inline constexpr int64_t kMs = 1000;  // in microseconds, as everything here
inline constexpr int64_t kSecond = base::kUsPerSecond;
inline constexpr int64_t kMinute = 60 * kSecond;
inline constexpr int64_t kHour = 60 * kMinute;
inline constexpr int64_t kDay = 24 * kHour;

struct RequestLimit {
  std::string address;
  size_t min_count;
  size_t max_count;
  int64_t min_spacing_us = 10 * kMs;
};

// Of a clock (clock/ntp_clock.h) that listens to the manager.
struct ClockLimits {
  // Once it knows the rate: of its best estimate against the world's truth, and of its bound.
  int64_t max_error_us = 0;
  int64_t rms_error_us = 0;
  int64_t max_bound_us = 0;
  // From the beginning until it knows the rate.
  int64_t rate_us = 0;
};

struct Limits {
  // Of NTP time as it is read, against the world's truth, while there is a result. A provisional one counts.
  int64_t max_error_us = 0;
  int64_t rms_error_us = 0;
  // From the beginning to the first result, also a provisional one; nothing: there never is one.
  std::optional<int64_t> first_result_us = std::nullopt;
  std::vector<RequestLimit> requests = {};
  std::vector<int> outcomes = {};     // what observers hear, in this order and nothing else
  std::vector<int> or_outcomes = {};  // as good as `outcomes`, where chance decides; empty: there is no such
  bool has_result_at_end = true;
  int64_t min_error_at_end_us = 0;                  // where being wrong is what the manager promises
  std::optional<ClockLimits> clock = std::nullopt;  // of a row whose clock listens
};

struct Scenario;

// The errors of one clock, at all moments of measurement together.
class ErrorMeasure {
 public:
  void Add(int64_t error_us);
  int64_t max_us() const { return max_us_; }
  int64_t rms_us() const;

 private:
  int64_t max_us_ = 0;
  double square_sum_ = 0.0;
  int64_t count_ = 0;
};

// What was measured of a clock that listens.
struct ClockMeasure {
  // Once the rate is known.
  ErrorMeasure error;
  int64_t max_bound_us = 0;
  std::optional<int64_t> rate_us;     // from the beginning until the rate was known
  std::optional<int64_t> outside_us;  // when the truth lay outside the limits for the first time
};

// One world with one manager in it, while a scenario is played.
class Run {
 public:
  Run(const Scenario& scenario, uint64_t seed, std::function<void(const std::string&)> event_log);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // --- The world: before and during the story.

  const FreshLedger fresh_ledger;
  sim::World world;
  sim::Network network{world};

  void AddServer(const std::string& address, netmodel::ServerOptions options) {
    network.AddServer(Address(address), std::move(options));
  }
  void SetHost(const std::string& name, const std::vector<std::string>& addresses);
  void StepWall(int64_t us) { world.StepWall(base::TimeDelta::FromMicroseconds(us)); }
  void SetDefaultDomain(const std::string& domain);
  void SetSyncInterval(uint64_t seconds);
  void SetRequestsPerBurst(uint64_t count);
  void AddAttacker(sim::AttackerOptions options) {
    attackers_.push_back(std::make_unique<sim::Attacker>(world, network, options));
  }
  void At(int64_t delay_us, std::function<void()> event) {
    world.Schedule(base::TimeDelta::FromMicroseconds(delay_us), std::move(event));
  }

  // --- The story.

  // The manager is made at its first use, in the world as it is then.
  NtpTimeManager& manager() { return peer().manager(); }
  void AddDomains(const std::vector<std::string>& domains) { manager().UpdateNtpTimeDomain(domains); }
  int Start() { return manager().Start(); }
  void Stop() { manager().Stop(); }
  // Lets time pass, and measures every 10 ms, in stretches beyond two minutes every second.
  void For(int64_t duration_us);
  // From now on the clock is read this often, as an application does.
  void ReadEvery(int64_t interval_us) {
    read_interval_us_ = interval_us;
    next_read_ticks_us_ = world.steady_ticks_us();
  }

  // From now on a clock hears the manager's attempts. It starts none, so the manager goes its way without it.
  void ListenWithClock();

  // --- What was measured.

  // Called after each measurement.
  std::function<void()> on_measured;
  // Of the clock that listens.
  NtpClockReading ReadClock() const { return shared_.Read(); }
  const std::optional<ClockMeasure>& clock() const { return clock_; }
  // Microseconds since 1970.
  int64_t TrueUs() const { return world.true_us() - base::kWindowsToUnixEpochUs; }

  bool HasResult() { return peer().ntp_offset_us() != kNoOffsetUs; }
  int64_t ErrorUs();
  int64_t max_error_us() const { return error_.max_us(); }
  int64_t rms_error_us() const { return error_.rms_us(); }
  std::optional<int64_t> first_result_us() const { return first_result_us_; }
  const std::vector<int>& outcomes() const;

 private:
  class Listener;

  NtpTimeManagerPeer& peer();
  void Measure();
  void MeasureClock();

  ConfigScope config_;
  std::optional<NtpTimeManagerPeer> peer_;
  std::shared_ptr<Listener> listener_;
  SharedClock shared_;
  std::shared_ptr<Keeper> keeper_;
  std::vector<std::unique_ptr<sim::Attacker>> attackers_;
  int64_t read_interval_us_ = 0;  // 0: nobody reads
  int64_t next_read_ticks_us_ = 0;
  ErrorMeasure error_;
  std::optional<ClockMeasure> clock_;
  std::optional<int64_t> first_result_us_;
};

// Whether the replies that are believed are right, within what the server says of itself. If not, the limits
// of a clock that listens promise nothing.
enum class Replies {
  kHonest,
  kWrong,
  kWrongByChance,  // with some seeds
};

struct Scenario {
  std::string name;
  std::string sentence;  // what is different, and why a surprising limit is right
  std::function<void(Run&)> setup;
  std::function<void(Run&)> story;
  Limits limits;
  int64_t begin_true_us = sim::World::Options().wall_us;  // microseconds since 1601
  Replies replies = Replies::kHonest;
};

// All rows, in the order of the table.
const std::vector<Scenario>& AllScenarios();
// Null: no row is called so.
const Scenario* FindScenario(const std::string& name);
std::vector<Scenario> NetworkScenarios();
std::vector<Scenario> ServerScenarios();
std::vector<Scenario> ClockScenarios();
std::vector<Scenario> LifecycleScenarios();

struct RequestCount {
  std::string address;
  size_t count = 0;
};

struct ScenarioReport {
  std::vector<int> outcomes;
  int64_t max_error_us = 0;
  int64_t rms_error_us = 0;
  std::optional<int64_t> first_result_us;
  std::optional<ClockMeasure> clock;
  std::vector<RequestCount> requests;  // for each address that the limits name
  std::vector<std::string> failures;   // in words; empty: the row holds
};

// Plays one scenario. Changes the process's log settings and configuration while it runs.
ScenarioReport PlayScenario(const Scenario& scenario, uint64_t seed,
                            std::function<void(const std::string&)> event_log = nullptr);

// Plays one scenario with a clock that listens from the beginning.
ClockMeasure PlayWithClock(const Scenario& scenario, uint64_t seed);

}  // namespace skorra
