// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/serve.h"

#include <signal.h>

#include <cmath>
#include <cstdio>
#include <optional>
#include <string_view>

#include "apps/skorra-ntp/demo_server.h"
#include "apps/skorra-ntp/report.h"
#include "platform/base/time.h"

namespace skorra {
namespace {

constexpr int kExitCannotListen = 1;

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

}  // namespace

int RunServe(const ServeOptions& options) {
  std::string error;
  const auto listen = ParseListen(options.listen, &error);
  if (!listen) {
    std::fprintf(stderr,
                 "skorra-ntp: bad --listen %s\nGive an address and a port: 127.0.0.1:12300, [::1]:0 "
                 "(port 0 takes a free one)\n",
                 error.c_str());
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
    std::fprintf(stderr,
                 "skorra-ntp: cannot listen on %s: %s\nChoose another port (0 takes a free one; those below "
                 "1024 need privileges) or an address of this machine.\n",
                 options.listen.c_str(), error.c_str());
    return kExitCannotListen;
  }
  std::printf("listening on %s\n", server->local().ToString().c_str());
  std::printf("clock error %s, delay %g ms, jitter up to %g ms, loss %g, seed %llu\n",
              FormatOffset(ToMicroseconds(options.offset_s, base::kUsPerSecond)).c_str(), options.delay_ms,
              options.jitter_ms, options.loss, static_cast<unsigned long long>(options.seed));
  std::fflush(stdout);

  int signal_number = 0;
  sigwait(&signals, &signal_number);
  server->Stop();

  const DemoServerCounts counts = server->counts();
  const auto number = [](uint64_t count) { return static_cast<unsigned long long>(count); };
  std::printf("received %llu, answered %llu, lost on purpose %llu, ignored %llu, failed %llu\n",
              number(counts.received), number(counts.answered), number(counts.lost), number(counts.ignored),
              number(counts.failed));
  return kExitSuccess;
}

}  // namespace skorra
