// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/demo.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "apps/skorra-ntp/demo_server.h"
#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/sync.h"
#include "apps/skorra-ntp/terminal.h"

namespace skorra {
namespace {

constexpr int64_t kMaxErrorUs = 5000;
constexpr int64_t kLieUs = 3'000'000;

}  // namespace

int RunDemo() {
  const DemoServerOptions options{.listen = net::IPEndPoint::FromIPv4({127, 0, 0, 1}, 0),
                                  .clock_error_us = 2'345'678,
                                  .delay_us = 20'000,
                                  .jitter_us = 2'000,
                                  .loss = 0.1,
                                  .seed = 1};
  DemoServerOptions second = options;
  second.loss = 0;
  second.seed = 2;
  // So far away that it is never the first to have enough answers.
  DemoServerOptions liar = second;
  liar.clock_error_us += kLieUs;
  liar.delay_us = 250'000;
  liar.seed = 3;
  std::vector<std::unique_ptr<DemoServer>> servers;
  std::vector<std::string> names;
  for (const DemoServerOptions& server_options : {options, second, liar}) {
    std::string error;
    servers.push_back(DemoServer::Open(server_options, &error));
    if (servers.back() == nullptr) {
      PrintProblem("cannot open a server on the loopback interface: " + error,
                   "Check that the interface lo is up and has the address 127.0.0.1.");
      return kExitNoResult;
    }
    names.push_back(servers.back()->local().ToString());
  }
  if (!PrintText("A server on " + names[0] + " whose clock is off by " +
                 FormatOffset(options.clock_error_us) +
                 ", over a network\nwith 20 ms delay, up to 2 ms jitter each way and 10 % loss. It is "
                 "checked against\n" +
                 names[1] + ", which agrees, and " + names[2] + ", which lies by " + FormatOffset(kLieUs) +
                 ":\n\n")) {
    return kExitOutput;
  }

  const SyncReport report = RunAttempt({.servers = names});
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
