// SPDX-License-Identifier: Apache-2.0

// A kept clock among several servers, for the tests of witnesses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "testing/clock_fixture.h"

namespace skorra {

class WitnessWorld : public KeptClock {
 public:
  explicit WitnessWorld(const char* mode = "report", uint64_t seed = 1) : KeptClock(seed) {
    EXPECT_EQ(config.Set(config::BaseCfg().ntp_witnesses, mode), "");
  }

  static std::string Name(size_t server) { return "203.0.113." + std::to_string(server + 1); }
  // How an honest server of low delay behaves.
  static netmodel::ServerOptions Near(int64_t clock_error_us = 0, int64_t delay_us = 4000) {
    return {.clock_error_us = clock_error_us,
            .to_server = {.delay_us = delay_us},
            .to_client = {.delay_us = delay_us}};
  }

  // Adds a server with the next address. They win in this order: all are judged at the same moments.
  void Add(netmodel::ServerOptions options) {
    network.AddServer(Address(Name(names.size())), std::move(options));
    names.push_back(Name(names.size()));
  }
  size_t RequestsTo(size_t server) { return network.requests(Address(Name(server))).size(); }

  void StartAll(uint32_t interval_s = 16) {
    NtpClockOptions options;
    options.servers = names;
    options.interval_s = interval_s;
    Start(options);
  }
  // Lets the next check come to its end.
  bool RunToReport() {
    const size_t before = reports.size();
    return world.RunUntil([&] { return reports.size() > before; }, S(100));
  }
  bool RunToOutcome() {
    const size_t before = outcomes.size();
    return world.RunUntil([&] { return outcomes.size() > before; }, S(100));
  }
  const NtpWitnessReport& report() const { return reports.back(); }
  // The domains that the last report names.
  std::vector<std::string> Outvoted() const {
    std::vector<std::string> outvoted;
    for (const NtpWitness& server : report().servers) {
      if (server.is_outvoted) {
        outvoted.push_back(server.domain);
      }
    }
    return outvoted;
  }

  std::vector<std::string> names;
};

}  // namespace skorra
