// SPDX-License-Identifier: Apache-2.0
// The same manager in a simulated world: hours pass in milliseconds, and no datagram leaves the process.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "ntp/ntp_time_manager.h"
#include "sim/network.h"
#include "sim/world.h"

namespace {

// Counts the outcomes. Everything in a simulated world runs on one thread.
class Outcomes : public skorra::NtpTimeManager::Observer {
 public:
  void OnNtpResult(skorra::NtpResult, const std::string&, const net::IPEndPoint&) override { ++count; }

  int count = 0;
};

}  // namespace

int main() {
  skorra::sim::World world({.seed = 7});
  skorra::sim::Network network(world);
  const auto server = *net::IPEndPoint::FromLiteral("198.51.100.7", 123);
  // Its first reply is an hour ahead. A reading before the outcome would be that.
  network.AddServer(server, {.to_server = {.delay_us = 5000},
                             .to_client = {.delay_us = 5000},
                             .script = [](skorra::netmodel::Exchange& exchange) {
                               exchange.clock_error_us = exchange.index == 0 ? 3600000000 : 0;
                             }});
  world.SetHost("ntp.example.org", {{server}});
  world.StepWall(base::TimeDelta::FromSeconds(-60));  // the machine's clock is a minute late

  auto* clock = skorra::NtpTimeManager::GetInstance();
  const auto outcomes = std::make_shared<Outcomes>();
  clock->AddObserver(outcomes);
  clock->UpdateNtpTimeDomain({"ntp.example.org"});
  clock->Start();
  const bool is_heard = world.RunUntil([&] { return outcomes->count > 0; }, base::TimeDelta::FromSeconds(60));

  const int64_t true_us = world.true_us() - base::kWindowsToUnixEpochUs;
  const int64_t error_us = clock->GetNtpTimestampFrom1970() - true_us;
  std::printf("error %lld us\n", static_cast<long long>(error_us));
  clock->Stop();
  world.RunFor(base::TimeDelta());  // sockets are closed before their world ends
  return is_heard && std::abs(error_us) < 1000 ? 0 : 1;
}
