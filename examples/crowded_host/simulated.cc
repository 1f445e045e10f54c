// SPDX-License-Identifier: Apache-2.0
// Plays the library in the simulated world, next to the host's own facilities of the same names.
#include <cstdint>
#include <cstdio>

#include "./host.h"
#include "ntp/ntp_time_manager.h"
#include "sim/attacker.h"
#include "sim/clock_model.h"
#include "sim/network.h"
#include "sim/world.h"

int main() {
  std::printf("%s\n", DescribeHost().c_str());

  skorra::sim::World world({.seed = 42});
  skorra::sim::Network network(world);
  const auto server = *net::IPEndPoint::FromLiteral("198.51.100.7", 123);
  network.AddServer(server, {});
  world.SetHost("ntp.example.org", {{server}});
  world.StepWall(base::TimeDelta::FromSeconds(-3));

  auto* clock = skorra::NtpTimeManager::GetInstance();
  clock->UpdateNtpTimeDomain({"ntp.example.org"});
  clock->Start();
  world.RunFor(base::TimeDelta::FromSeconds(2));
  const int64_t error_us = clock->GetNtpTimestampFrom1970() - (world.true_us() - base::kWindowsToUnixEpochUs);
  std::printf("error %lld us\n", static_cast<long long>(error_us));

  // Sockets must be closed before their world ends.
  clock->Stop();
  world.RunFor(base::TimeDelta());
  return 0;
}
