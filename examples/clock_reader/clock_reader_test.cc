// SPDX-License-Identifier: Apache-2.0
// The same clock in a simulated world: hours pass in milliseconds, and no datagram leaves the process.
#include <cstdint>
#include <cstdio>

#include "clock/ntp_clock.h"
#include "sim/network.h"
#include "sim/world.h"

int main() {
  skorra::sim::World world({.seed = 7});
  skorra::sim::Network network(world);
  const auto server = *net::IPEndPoint::FromLiteral("198.51.100.7", 123);
  // Its first reply is an hour ahead. The clock tells nothing of that attempt, and makes another one.
  network.AddServer(server, {.to_server = {.delay_us = 5000},
                             .to_client = {.delay_us = 5000},
                             .script = [](skorra::netmodel::Exchange& exchange) {
                               exchange.clock_error_us = exchange.index == 0 ? 3600000000 : 0;
                             }});
  world.SetHost("ntp.example.org", {{server}});
  world.StepWall(base::TimeDelta::FromSeconds(-60));  // the machine's clock is a minute late

  skorra::NtpClockOptions options;
  options.servers = {"ntp.example.org"};
  skorra::NtpClock::Start(options);
  // Waiting would stop the world's time: run it until there is a reading.
  world.RunUntil([] { return skorra::NtpClock::Read().has_time(); }, base::TimeDelta::FromSeconds(60));
  world.RunFor(base::TimeDelta::FromSeconds(600));

  const skorra::NtpClockReading reading = skorra::NtpClock::Read();
  const int64_t true_us = world.true_us() - base::kWindowsToUnixEpochUs;
  std::printf("error %lld us, at most %lld us\n", static_cast<long long>(reading.best_estimate_us - true_us),
              static_cast<long long>(reading.error_bound_us));
  const bool is_held = reading.earliest_us <= true_us && true_us <= reading.latest_us;
  skorra::NtpClock::Stop();
  world.RunFor(base::TimeDelta::FromSeconds(1));  // sockets are closed before their world ends
  return is_held && reading.error_bound_us < 100000 ? 0 : 1;
}
