// SPDX-License-Identifier: Apache-2.0

// What the tables of scenarios share.
#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tests/scenarios/scenario.h"

namespace skorra {

inline constexpr char kA[] = "198.51.100.1";
inline constexpr char kB[] = "198.51.100.2";
inline constexpr char kC[] = "198.51.100.3";

inline Scenario WithReplies(Replies replies, Scenario row) {
  row.replies = replies;
  return row;
}

// 20 requests 10 ms apart make a burst; each address gets one per attempt.
inline RequestLimit Bursts(const std::string& address, size_t count) {
  return {address, count * 20, count * 20};
}
inline RequestLimit OneBurst(const std::string& address) { return Bursts(address, 1); }

// The manager finds the right time, to 10 us: first after `first_us`, and the attempts end with `outcomes`.
inline Limits Right(int64_t first_us, std::vector<RequestLimit> requests, std::vector<int> outcomes) {
  return {.max_error_us = 10,
          .rms_error_us = 10,
          .first_result_us = first_us,
          .requests = std::move(requests),
          .outcomes = std::move(outcomes)};
}

// The manager finds nothing, not even for a moment.
inline Limits NoResult(std::vector<RequestLimit> requests, std::vector<int> outcomes) {
  return {.requests = std::move(requests), .outcomes = std::move(outcomes), .has_result_at_end = false};
}

// The begin of most stories: one attempt to ask "time.test".
inline void Sync(Run& run, int64_t for_us) {
  run.AddDomains({"time.test"});
  run.Start();
  run.For(for_us);
}
inline void SyncOnce(Run& run) { Sync(run, 5 * kSecond); }

// Long enough for both bursts that an only address gets when nothing comes back from it, 3 s each.
inline void SyncWithRepetition(Run& run) { Sync(run, 7 * kSecond); }

// One server at kA, under the name "time.test".
inline std::function<void(Run&)> OneServer(const netmodel::ServerOptions& options) {
  return [options](Run& run) {
    run.SetHost("time.test", {kA});
    run.AddServer(kA, options);
  };
}

// Readings 100 ms ahead and behind in turn: usable, but they do not agree.
inline netmodel::ServerOptions Scattered() {
  return {
      .script = [](netmodel::Exchange& e) { e.clock_error_us = e.index % 2 == 0 ? 100 * kMs : -100 * kMs; }};
}

inline std::vector<Scenario> Concatenate(std::initializer_list<std::vector<Scenario>> tables) {
  std::vector<Scenario> all;
  for (const auto& table : tables) {
    all.insert(all.end(), table.begin(), table.end());
  }
  return all;
}

}  // namespace skorra
