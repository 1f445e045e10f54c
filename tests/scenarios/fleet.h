// SPDX-License-Identifier: Apache-2.0

// What many processes with this library cost the servers that they ask: each plays in a world of its own, one
// after the other, and the requests of all are counted by the second in which they were sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/base/time.h"

namespace skorra {

struct FleetOptions {
  int processes = 10000;
  uint64_t seed = 1;
  int64_t duration_s = 24 * 3600;
  // The server does not answer from here to there.
  int64_t outage_from_s = 12 * 3600;
  int64_t outage_to_s = 13 * 3600;
};

// Who drives the syncs of a process, and how far apart they are.
struct FleetKind {
  std::string name;
  bool is_kept;           // NtpClock's keeper; otherwise the manager alone, read by the process every 10 s
  bool has_own_interval;  // each process draws 45 to 60 minutes once; otherwise all have an hour
};
const std::vector<FleetKind>& AllFleetKinds();

// How many requests were sent in each second. The processes begin within the first minute.
using FleetLoad = std::vector<uint32_t>;

// Calls `on_process` after each process with the number of those that are done.
FleetLoad PlayFleet(const FleetKind& kind, const FleetOptions& options,
                    const std::function<void(int)>& on_process = nullptr);

struct LoadFigures {
  double mean = 0;  // requests per second
  uint32_t busiest_second = 0;
  double busiest_minute = 0;  // requests per second, on average over the busiest minute of the clock
  size_t busy_seconds = 0;    // in which requests were sent
};
LoadFigures FiguresOf(const FleetLoad& load, int64_t from_s, int64_t to_s);

// What one attempt costs, counted at the network.
struct AttemptCost {
  std::string name;
  size_t requests = 0;
  size_t replies = 0;
  size_t request_bytes = 0;  // of one, without the headers of UDP and IP
};
std::vector<AttemptCost> MeasureAttempts();

// Plays all kinds and prints what they cost; `json_path`, unless empty, gets the requests of each minute.
// Returns the exit status.
int RunFleet(const FleetOptions& options, const std::string& json_path);

}  // namespace skorra
