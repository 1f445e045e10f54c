// SPDX-License-Identifier: Apache-2.0
#include "tests/scenarios/fleet.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/terminal.h"
#include "platform/base/no_destructor.h"
#include "platform/config/base_cfg.h"
#include "testing/clock_fixture.h"
#include "tests/scenarios/scenario.h"

namespace skorra {
namespace {

constexpr char kServer[] = "203.0.113.1";
// All processes begin within this time.
constexpr int64_t kStartWithinUs = kMinute;
constexpr int64_t kReadEveryUs = 10 * kSecond;
constexpr uint64_t kIntervalS = 3600;

// A path across the Internet, and a server that is silent during the outage.
netmodel::ServerOptions ServerBehind(netmodel::Random& random, const FleetOptions& options) {
  netmodel::LinkOptions link = {.delay_us = 2000 + static_cast<int64_t>(random.Below(40000)),
                                .jitter = netmodel::Distribution::kExponential,
                                .jitter_us = 1000,
                                .loss_permille = 5};
  if (options.outage_from_s < options.outage_to_s) {
    link.partitions = {{options.outage_from_s * kSecond, options.outage_to_s * kSecond}};
  }
  return {.to_server = link, .to_client = link};
}

// Plays one process and adds its requests to `load`.
void PlayProcess(const FleetKind& kind, const FleetOptions& options, netmodel::Random& random,
                 FleetLoad* load) {
  KeptClock process(random.Next());
  sim::World& world = process.world;
  process.network.AddServer(Address(kServer), ServerBehind(random, options));
  process.network.AddListener([&](const sim::SentDatagram& sent) {
    const auto second = static_cast<size_t>((sent.sent_ticks_us - world.begin_ticks_us()) / kSecond);
    load->at(std::min(second, load->size() - 1)) += 1;
  });
  world.SetSteadyError({.frequency_ppb = static_cast<int64_t>(random.Below(100001)) - 50000});
  const auto start_us = static_cast<int64_t>(random.Below(kStartWithinUs));
  const uint64_t interval_s = kIntervalS - (kind.has_own_interval ? random.Below(kIntervalS / 4 + 1) : 0);
  process.config.Set(config::BaseCfg().ntp_sync_interval, interval_s);
  const int64_t end_ticks_us = world.begin_ticks_us() + options.duration_s * kSecond;

  world.RunFor(base::TimeDelta::FromMicroseconds(start_us));
  if (kind.is_kept) {
    process.StartWith({kServer});
    world.RunFor(base::TimeDelta::FromMicroseconds(end_ticks_us - world.steady_ticks_us()));
    return;
  }
  NtpTimeManager& manager = process.peer.manager();
  manager.UpdateNtpTimeDomain({kServer});
  manager.Start();
  while (world.steady_ticks_us() < end_ticks_us) {
    world.RunFor(
        base::TimeDelta::FromMicroseconds(std::min(kReadEveryUs, end_ticks_us - world.steady_ticks_us())));
    manager.GetNtpTimestampFrom1970();
  }
}

AttemptCost MeasureAttempt(const std::string& name, size_t domains, uint64_t requests_per_burst,
                           const netmodel::ServerOptions& server) {
  KeptClock process;
  process.config.Set(config::BaseCfg().ntp_requests_per_burst, requests_per_burst);
  AttemptCost cost{.name = name};
  std::vector<std::string> servers;
  netmodel::ServerOptions counted = server;
  counted.script = [&](netmodel::Exchange& exchange) { cost.replies += exchange.is_answered ? 1 : 0; };
  for (size_t i = 0; i < domains; ++i) {
    servers.push_back("203.0.113." + std::to_string(i + 1));
    process.network.AddServer(Address(servers.back()), counted);
  }
  process.network.AddListener([&](const sim::SentDatagram& sent) {
    ++cost.requests;
    cost.request_bytes = sent.bytes.size();
  });
  process.peer.manager().UpdateNtpTimeDomain(servers);
  process.peer.manager().Start();
  process.world.RunFor(base::TimeDelta::FromSeconds(30));
  return cost;
}

// Shows how far a fleet is, on a terminal only.
class Progress {
 public:
  Progress(const FleetKind& kind, int processes) : kind_(kind), processes_(processes) {}
  ~Progress() { Show(""); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void OnProcess(int done) const {
    if (done % 100 == 0) {
      Show(kind_.name + ": " + std::to_string(done) + " of " + std::to_string(processes_) + " processes");
    }
  }

 private:
  void Show(const std::string& text) const {
    if (is_terminal_) {
      WriteError("\r\x1b[K" + text);
    }
  }

  const FleetKind& kind_;
  const int processes_;
  const bool is_terminal_ = isatty(STDERR_FILENO) != 0;
};

struct Span {
  std::string name;
  int64_t from_s;
  int64_t to_s;
};

std::vector<Span> SpansOf(const FleetOptions& options) {
  const int64_t from_s = options.outage_from_s;
  const int64_t to_s = options.outage_to_s;
  return {{"the first hour", 0, 3600},
          {"the hour before the outage", from_s - 3600, from_s},
          {"the outage", from_s, to_s},
          {"the quarter of an hour after it", to_s, to_s + 900},
          {"the three quarters after that", to_s + 900, to_s + 3600},
          {"the last hour", options.duration_s - 3600, options.duration_s},
          {"all", 0, options.duration_s}};
}

void PrintLoad(const FleetLoad& load, const FleetOptions& options) {
  for (const Span& span : SpansOf(options)) {
    if (span.from_s < 0 || span.from_s >= span.to_s || span.to_s > options.duration_s) {
      continue;  // a run too short for it
    }
    const LoadFigures figures = FiguresOf(load, span.from_s, span.to_s);
    std::printf("  %-33s %9.2f %9u %9.2f %9.1f %9zu\n", span.name.c_str(), figures.mean,
                figures.busiest_second, figures.busiest_minute,
                figures.mean > 0 ? figures.busiest_second / figures.mean : 0.0, figures.busy_seconds);
  }
}

bool WriteMinutes(const std::string& path, const FleetOptions& options, const std::vector<FleetLoad>& loads) {
  std::FILE* const file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    return false;
  }
  std::fprintf(file, "{\"processes\": %d, \"seed\": %llu, \"minutes\": {\n", options.processes,
               static_cast<unsigned long long>(options.seed));
  for (size_t kind = 0; kind < loads.size(); ++kind) {
    std::fprintf(file, "\"%s\": [", AllFleetKinds()[kind].name.c_str());
    for (size_t second = 0; second < loads[kind].size(); second += 60) {
      const auto begin = loads[kind].begin() + static_cast<std::ptrdiff_t>(second);
      const auto end =
          loads[kind].begin() + static_cast<std::ptrdiff_t>(std::min(second + 60, loads[kind].size()));
      std::fprintf(file, "%s%llu", second == 0 ? "" : ", ",
                   static_cast<unsigned long long>(std::accumulate(begin, end, uint64_t{0})));
    }
    std::fprintf(file, "]%s\n", kind + 1 < loads.size() ? "," : "");
  }
  std::fprintf(file, "}}\n");
  const bool has_failed = std::ferror(file) != 0;
  return std::fclose(file) == 0 && !has_failed;
}

}  // namespace

const std::vector<FleetKind>& AllFleetKinds() {
  static base::NoDestructor<std::vector<FleetKind>> kinds(
      std::vector<FleetKind>{{.name = "manager", .is_kept = false, .has_own_interval = false},
                             {.name = "keeper", .is_kept = true, .has_own_interval = false},
                             {.name = "manager, own intervals", .is_kept = false, .has_own_interval = true},
                             {.name = "keeper, own intervals", .is_kept = true, .has_own_interval = true}});
  return *kinds;
}

FleetLoad PlayFleet(const FleetKind& kind, const FleetOptions& options,
                    const std::function<void(int)>& on_process) {
  FleetLoad load(static_cast<size_t>(options.duration_s));
  netmodel::Random random(options.seed);
  for (int i = 0; i < options.processes; ++i) {
    PlayProcess(kind, options, random, &load);
    if (on_process) {
      on_process(i + 1);
    }
  }
  return load;
}

LoadFigures FiguresOf(const FleetLoad& load, int64_t from_s, int64_t to_s) {
  LoadFigures figures;
  uint64_t total = 0;
  uint64_t minute = 0;
  uint64_t busiest_minute = 0;
  for (int64_t second = from_s; second < to_s; ++second) {
    const uint32_t requests = load.at(static_cast<size_t>(second));
    total += requests;
    minute = second % 60 == 0 ? requests : minute + requests;
    busiest_minute = std::max(busiest_minute, minute);
    figures.busiest_second = std::max(figures.busiest_second, requests);
    figures.busy_seconds += requests > 0 ? 1 : 0;
  }
  figures.mean = static_cast<double>(total) / static_cast<double>(to_s - from_s);
  figures.busiest_minute = static_cast<double>(busiest_minute) / 60;
  return figures;
}

std::vector<AttemptCost> MeasureAttempts() {
  const uint64_t full = config::kBaseConfig.ntp_requests_per_burst.default_value;
  return {MeasureAttempt("one server that answers", 1, full, {}),
          MeasureAttempt("the same, 8 requests a burst", 1, 8, {}),
          MeasureAttempt("four servers that answer", 4, full, {}),
          MeasureAttempt("the same, 8 requests a burst", 4, 8, {}),
          MeasureAttempt("one server that is silent", 1, full, {.is_silent = true}),
          MeasureAttempt("one that sends RATE", 1, full, {.kiss_code = "RATE"}),
          MeasureAttempt("one that sends DENY", 1, full, {.kiss_code = "DENY"})};
}

int RunFleet(const FleetOptions& options, const std::string& json_path) {
  std::printf("%d processes, seed %llu, begun within a minute; no answer from %lld h to %lld h\n\n",
              options.processes, static_cast<unsigned long long>(options.seed),
              static_cast<long long>(options.outage_from_s / 3600),
              static_cast<long long>(options.outage_to_s / 3600));
  std::printf("%-35s %9s %9s %9s\n", "one attempt", "requests", "replies", "bytes");
  for (const AttemptCost& cost : MeasureAttempts()) {
    std::printf("  %-33s %9zu %9zu %9zu\n", cost.name.c_str(), cost.requests, cost.replies,
                cost.request_bytes);
  }
  std::printf("\n%-35s %9s %9s %9s %9s %9s\n", "requests per second", "mean", "second", "minute", "sec./mean",
              "busy s");
  std::vector<FleetLoad> loads;
  for (const FleetKind& kind : AllFleetKinds()) {
    {
      const Progress progress(kind, options.processes);
      loads.push_back(PlayFleet(kind, options, [&](int done) { progress.OnProcess(done); }));
    }
    std::printf("%s\n", kind.name.c_str());
    PrintLoad(loads.back(), options);
    std::fflush(stdout);
  }
  if (!json_path.empty() && !WriteMinutes(json_path, options, loads)) {
    PrintProblem("cannot write '" + json_path + "'", "Give --json a path that can be written.");
    return kExitOutput;
  }
  return 0;
}

}  // namespace skorra
