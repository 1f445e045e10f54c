// SPDX-License-Identifier: Apache-2.0

// The worked example of docs/simulation.md; keep the two the same.
#include <cstdint>
#include <cstdlib>

#include "gtest/gtest.h"
#include "ntp/ntp_time_manager.h"
#include "sim/network.h"
#include "sim/world.h"

TEST(SimulationExampleTest, ADayOfALaptopPassesInMilliseconds) {
  using base::TimeDelta;

  // Everything random in this world comes from its seed.
  skorra::sim::World world({.seed = 42});
  skorra::sim::Network network(world);

  // A server behind a home network: 8 ms each way and 2 ms more on average, one datagram in fifty lost.
  const auto server = *net::IPEndPoint::FromLiteral("198.51.100.7", 123);
  const skorra::netmodel::LinkOptions link = {.delay_us = 8000,
                                              .jitter = skorra::netmodel::Distribution::kExponential,
                                              .jitter_us = 2000,
                                              .loss_permille = 20};
  network.AddServer(server, {.to_server = link, .to_client = link});
  world.SetHost("ntp.example.org", {{server}});

  // The laptop's clock runs 15 ppm fast and begins three seconds late.
  world.SetSteadyError({.frequency_ppb = 15000});
  world.StepWall(TimeDelta::FromSeconds(-3));

  auto* clock = skorra::NtpTimeManager::GetInstance();
  const auto error_us = [&] {
    return clock->GetNtpTimestampFrom1970() - (world.true_us() - base::kWindowsToUnixEpochUs);
  };
  clock->UpdateNtpTimeDomain({"ntp.example.org"});
  clock->Start();
  world.RunFor(TimeDelta::FromSeconds(2));
  EXPECT_LT(std::abs(error_us()), 2000);

  // It sleeps for eight hours. The clock keeps its 15 ppm, and the first read asks for a new result.
  world.Suspend(TimeDelta::FromSeconds(8 * 3600));
  world.RunFor(TimeDelta::FromSeconds(1));  // what was due during the sleep runs first
  EXPECT_NEAR(static_cast<double>(error_us()), 8 * 3600 * 15, 3000);
  world.RunFor(TimeDelta::FromSeconds(2));
  EXPECT_LT(std::abs(error_us()), 2000);

  // Sockets must be closed before their world ends.
  clock->Stop();
  world.RunFor(TimeDelta());
}
