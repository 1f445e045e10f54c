// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/demo.h"

#include <cstdio>
#include <cstdlib>

#include "apps/skorra-ntp/demo_server.h"
#include "apps/skorra-ntp/sync.h"

namespace skorra {
namespace {

constexpr int64_t kMaxErrorUs = 5000;

}  // namespace

int RunDemo() {
  const DemoServerOptions options{.listen = net::IPEndPoint::FromIPv4({127, 0, 0, 1}, 0),
                                  .clock_error_us = 2'345'678,
                                  .delay_us = 20'000,
                                  .jitter_us = 2'000,
                                  .loss = 0.1,
                                  .seed = 1};
  std::string error;
  const auto server = DemoServer::Open(options, &error);
  if (server == nullptr) {
    std::fprintf(stderr,
                 "skorra-ntp: cannot open a server on the loopback interface: %s\n"
                 "Check that the interface lo is up and has the address 127.0.0.1.\n",
                 error.c_str());
    return kExitNoResult;
  }
  const std::string name = server->local().ToString();
  std::printf(
      "A server on %s whose clock is off by %s, over a network\n"
      "with 20 ms delay, up to 2 ms jitter each way and 10 %% loss:\n\n",
      name.c_str(), FormatOffset(options.clock_error_us).c_str());
  std::fflush(stdout);

  const SyncReport report = RunAttempt({.servers = {name}});
  std::fputs(ToText(report).c_str(), stdout);
  const auto offset_us = OffsetUs(report);
  if (!offset_us) {
    std::fprintf(stderr, "skorra-ntp: %s\n", Advice(report).c_str());
    return ExitStatus(report);
  }
  const int64_t error_us = *offset_us - options.clock_error_us;
  std::printf("\n  true offset      %s\n  measured offset  %s\n  error            %s\n",
              FormatOffset(options.clock_error_us).c_str(), FormatOffset(*offset_us).c_str(),
              FormatOffset(error_us).c_str());
  if (std::llabs(error_us) > kMaxErrorUs) {
    std::fprintf(stderr,
                 "skorra-ntp: the error is more than 5 ms. If the machine is busy, or its clock was set "
                 "meanwhile, try again.\n");
    return kExitWrongDemo;
  }
  return ExitStatus(report);
}

}  // namespace skorra
