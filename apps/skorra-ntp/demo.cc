// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/demo.h"

#include <cstdlib>
#include <string>

#include "apps/skorra-ntp/demo_server.h"
#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/sync.h"
#include "apps/skorra-ntp/terminal.h"

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
    PrintProblem("cannot open a server on the loopback interface: " + error,
                 "Check that the interface lo is up and has the address 127.0.0.1.");
    return kExitNoResult;
  }
  const std::string name = server->local().ToString();
  if (!PrintText("A server on " + name + " whose clock is off by " + FormatOffset(options.clock_error_us) +
                 ", over a network\nwith 20 ms delay, up to 2 ms jitter each way and 10 % loss:\n\n")) {
    return kExitOutput;
  }

  const SyncReport report = RunAttempt({.servers = {name}});
  std::string text = ToText(report);
  const auto offset_us = OffsetUs(report);
  const int64_t error_us = offset_us.value_or(0) - options.clock_error_us;
  if (offset_us) {
    text += "\n  true offset      " + FormatOffset(options.clock_error_us) + "\n  measured offset  " +
            FormatOffset(*offset_us) + "\n  error            " + FormatOffset(error_us) + "\n";
  }
  const bool limits_hold = LimitsHold(report, options.clock_error_us);
  if (report.reading.has_bound()) {
    text += "  error at most    " + FormatSpan(report.reading.error_bound_us) +
            (limits_hold ? ": the true offset lies between the limits\n"
                         : ": the true offset does not lie between the limits\n");
  }
  const bool is_printed = PrintText(text);
  int status = ExitStatus(report);
  if (!offset_us) {
    PrintProblem(Advice(report));
  } else if (std::llabs(error_us) > kMaxErrorUs) {
    PrintProblem("the error is more than 5 ms",
                 "If the machine is busy, or its clock was set meanwhile, try again.");
    status = kExitWrongDemo;
  } else if (!limits_hold) {
    PrintProblem("the true offset does not lie between the limits",
                 "If the machine's clock was set meanwhile, try again. Otherwise the limits are wrong: "
                 "please report it.");
    status = kExitWrongDemo;
  }
  return is_printed ? status : kExitOutput;
}

}  // namespace skorra
