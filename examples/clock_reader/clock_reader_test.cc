// SPDX-License-Identifier: Apache-2.0
// The same manager in a simulated world: hours pass in milliseconds, and no datagram leaves the process.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "ntp/ntp_time_manager.h"
#include "sim/network.h"
#include "sim/world.h"

int main() {
  skorra::sim::World world({.seed = 7});
  skorra::sim::Network network(world);
  const auto server = *net::IPEndPoint::FromLiteral("198.51.100.7", 123);
  network.AddServer(server, {.to_server = {.delay_us = 5000}, .to_client = {.delay_us = 5000}});
  world.SetHost("ntp.example.org", {{server}});
  world.StepWall(base::TimeDelta::FromSeconds(-60));  // the machine's clock is a minute late

  auto* clock = skorra::NtpTimeManager::GetInstance();
  clock->UpdateNtpTimeDomain({"ntp.example.org"});
  clock->Start();
  world.RunFor(base::TimeDelta::FromSeconds(2));

  const int64_t true_us = world.true_us() - base::kWindowsToUnixEpochUs;
  const int64_t error_us = clock->GetNtpTimestampFrom1970() - true_us;
  std::printf("error %lld us\n", static_cast<long long>(error_us));
  clock->Stop();
  world.RunFor(base::TimeDelta());  // sockets are closed before their world ends
  return std::abs(error_us) < 1000 ? 0 : 1;
}
