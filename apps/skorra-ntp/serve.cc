// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/serve.h"

#include <signal.h>

#include <cmath>
#include <cstdio>
#include <optional>
#include <string_view>

#include "apps/skorra-ntp/demo_server.h"
#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/report.h"
#include "apps/skorra-ntp/terminal.h"
#include "platform/base/time.h"

namespace skorra {
namespace {

// An address with or without a port. Port 0 asks for a free one.
std::optional<net::IPEndPoint> ParseListen(std::string_view text, std::string* error) {
  constexpr std::string_view kAnyPort = ":0";
  auto parsed = net::ParseHostPort(text, 0);
  if (!parsed.value && text.ends_with(kAnyPort)) {
    parsed = net::ParseHostPort(text.substr(0, text.size() - kAnyPort.size()), 0);
  }
  if (!parsed.value) {
    *error = parsed.error;
    return std::nullopt;
  }
  const auto endpoint = net::IPEndPoint::FromLiteral(parsed.value->host, parsed.value->port);
  if (!endpoint) {
    *error = "'" + parsed.value->host + "': this is not an IP address";
  }
  return endpoint;
}

int64_t ToMicroseconds(double value, double us_per_unit) {
  return static_cast<int64_t>(std::llround(value * us_per_unit));
}

// What the server says of itself before it answers.
std::string Greeting(const ServeOptions& options, const net::IPEndPoint& local) {
  char numbers[128];
  std::snprintf(numbers, sizeof numbers, "delay %g ms, jitter up to %g ms, loss %g", options.delay_ms,
                options.jitter_ms, options.loss);
  return "listening on " + local.ToString() + "\nclock error " +
         FormatOffset(ToMicroseconds(options.offset_s, base::kUsPerSecond)) + ", " + numbers + ", seed " +
         std::to_string(options.seed) + "\n";
}

std::string CountsText(const DemoServerCounts& counts) {
  return "received " + std::to_string(counts.received) + ", answered " + std::to_string(counts.answered) +
         ", lost on purpose " + std::to_string(counts.lost) + ", ignored " + std::to_string(counts.ignored) +
         ", failed " + std::to_string(counts.failed) + "\n";
}

}  // namespace

int RunServe(const ServeOptions& options) {
  std::string error;
  const auto listen = ParseListen(options.listen, &error);
  if (!listen) {
    PrintProblem("bad --listen " + error,
                 "Give an address and a port: 127.0.0.1:12300, [::1]:0 (port 0 takes a free one)");
    return kExitUsage;
  }
  // Blocked before the server's thread starts: the thread inherits the mask, and sigwait below gets the
  // signals.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const auto server =
      DemoServer::Open({.listen = *listen,
                        .clock_error_us = ToMicroseconds(options.offset_s, base::kUsPerSecond),
                        .delay_us = ToMicroseconds(options.delay_ms, 1e3),
                        .jitter_us = ToMicroseconds(options.jitter_ms, 1e3),
                        .loss = options.loss,
                        .seed = options.seed},
                       &error);
  if (server == nullptr) {
    PrintProblem("cannot listen on " + options.listen + ": " + error,
                 "Choose another port (0 takes a free one; those below 1024 need privileges) or an address "
                 "of this machine.");
    return kExitCannotListen;
  }
  // A server whose address nobody learns is of no use.
  if (!PrintText(Greeting(options, server->local()))) {
    return kExitOutput;
  }
  int signal_number = 0;
  sigwait(&signals, &signal_number);
  server->Stop();
  return PrintText(CountsText(server->counts())) ? kExitSuccess : kExitOutput;
}

}  // namespace skorra
