// What the tables of scenarios share.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "tests/scenarios/scenario.h"

namespace skorra {

inline constexpr char kA[] = "198.51.100.1";
inline constexpr char kB[] = "198.51.100.2";
inline constexpr char kC[] = "198.51.100.3";

// 20 requests 10 ms apart make a burst; each address gets one per attempt.
inline RequestLimit Bursts(const std::string& address, size_t count) {
  return {address, count * 20, count * 20};
}
inline RequestLimit OneBurst(const std::string& address) { return Bursts(address, 1); }

// Long enough for both bursts that an only address gets when nothing comes back from it, 3 s each.
inline void SyncWithRepetition(Run& run) {
  run.AddDomains({"time.test"});
  run.Start();
  run.For(7 * kSecond);
}

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
