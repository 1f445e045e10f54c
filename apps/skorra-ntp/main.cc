// SPDX-License-Identifier: Apache-2.0

// The command line; what the commands do is in sync.h, serve.h and demo.h.
#include <malloc.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <string>

#include "apps/skorra-ntp/command_line.h"
#include "apps/skorra-ntp/demo.h"
#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/serve.h"
#include "apps/skorra-ntp/sync.h"
#include "apps/skorra-ntp/terminal.h"
#include "platform/base/environment.h"
#include "platform/base/log.h"
#include "platform/config/config_center.h"
#include "platform/files/file_kind.h"

namespace {

constexpr const char* kConfigVariable = "SKORRA_NTP_CONFIG";

constexpr const char* kFooter =
    "Examples:\n"
    "  skorra-ntp sync ntp.example.org\n"
    "  skorra-ntp demo\n"
    "  skorra-ntp serve --offset 1.5 --delay 40\n"
    "Each command explains itself: skorra-ntp sync --help\n\n"
    "Exit status: 0 success, 64 wrong usage, 74 standard output is full, closed or no longer read;\n"
    "the others are those of the command.\n\n";

constexpr const char* kSyncFooter =
    "Examples:\n"
    "  skorra-ntp sync ntp.example.org                    a name, port 123\n"
    "  skorra-ntp sync 192.0.2.1 '[2001:db8::1]:12300'    two servers; the first good answer wins,\n"
    "                                                     and is checked against the other\n"
    "  skorra-ntp sync --json --timeout 5 192.0.2.1       for scripts\n\n"
    "The report tells how wrong the offset is at most, and why the sync ended as it did:\n"
    "  ok, inaccurate    there is an offset, and the true one lies between the limits\n"
    "  not_resolved      no name has an address\n"
    "  no_server         the names lost their addresses\n"
    "  refused           access is denied, or the port is closed\n"
    "  silent            no answer came\n"
    "  limited           the servers ask us to wait\n"
    "  unusable          every answer failed a check\n"
    "  too_few_samples   too few answers could be used\n"
    "  disagreeing       the answers contradict each other: no time is told\n"
    "  stopped           the attempt took too long, and was stopped\n"
    "  timed_out         the time allowed has passed\n\n"
    "It also tells what the other servers say of the one that answered first:\n"
    "  agrees            a majority has a time in common with it\n"
    "  unchecked         no other server answered\n"
    "  conflict          they contradict each other, and no majority tells who is wrong\n"
    "  outvoted          a majority contradicts it: the offset is probably wrong\n\n"
    "Exit status:\n"
    "  0   success\n"
    "  1   an offset was measured, but it may be inaccurate, or other servers contradict it\n"
    "  2   no result, or the time allowed has passed\n"
    "  64  wrong usage\n"
    "  74  the report was lost: standard output is full, closed or no longer read\n\n";

constexpr const char* kServeFooter =
    "Examples:\n"
    "  skorra-ntp serve --listen 127.0.0.1:12300 --offset -3.25\n"
    "  skorra-ntp serve --listen '[::1]:0' --delay 80 --jitter 10 --loss 0.2\n"
    "The first line of the output is \"listening on ADDR:PORT\"; ask there:\n"
    "  skorra-ntp sync 127.0.0.1:12300\n"
    "SIGINT (Ctrl-C) or SIGTERM ends the server.\n\n"
    "Exit status: 0 after a signal, 1 when the address cannot be used, 64 wrong usage,\n"
    "74 when standard output is full, closed or no longer read";

constexpr const char* kDemoFooter =
    "Example:\n"
    "  skorra-ntp demo\n\n"
    "Exit status: that of `sync`, or 3 when the measured offset is more than 5 ms from the true one\n"
    "or its limits do not hold that;\n"
    "74 when standard output is full, closed or no longer read, whatever was measured";

// The environment variables, with those of the configuration's table.
std::string EnvironmentHelp() {
  std::string text = std::string("Environment:\n  ") + kConfigVariable +
                     "\n      a TOML configuration file, read at the start";
  const auto add = [&text](const auto& entry, const std::string& values) {
    text +=
        std::string("\n  ") + entry.environment_variable + "\n      " + entry.meaning + " (" + values + ')';
  };
  for (const config::NumberEntry* entry : config::BaseCfg().numbers()) {
    add(*entry, config::RangeText(*entry) + ", default " + std::to_string(entry->default_value));
  }
  for (const config::TextEntry* entry : config::BaseCfg().texts()) {
    const std::string value = entry->default_value;
    const bool has_values = entry->values[0] != nullptr;
    add(*entry,
        (has_values ? config::RangeText(*entry) + ", " : "") + "default " + (value.empty() ? "none" : value));
  }
  return text;
}

// The library logs the same problems; without the threshold each would be printed twice.
void LoadConfiguration() {
  base::SetLogThreshold(base::kLogNothing);
  auto* const center = config::ConfigCenterImpl::GetInstance();
  auto problems = center->LoadEnvironment();
  if (const auto path = base::GetEnvironmentVariable(kConfigVariable); path && !path->empty()) {
    for (auto& problem : center->LoadFile(*path)) {
      problems.push_back(std::move(problem));
    }
  }
  for (const auto& problem : problems) {
    skorra::PrintProblem("warning: " + problem);
  }
}

// The resolver does without such a file, and says so in the log, which is off unless the user wants it.
void WarnOfHostAliases() {
  const auto path = base::GetEnvironmentVariable("HOSTALIASES");
  struct stat status {};
  if (path && stat(path->c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    skorra::PrintProblem("warning: HOSTALIASES names '" + *path + "', which is " +
                         base::FileKind(status.st_mode) +
                         "; names are looked up without aliases. Give a regular file.");
  }
}

void AddSync(CLI::App& app, skorra::SyncOptions& options, bool& as_json) {
  auto* const command =
      app.add_subcommand("sync", "Ask NTP servers and print the clock offset with its limits");
  command
      ->add_option("SERVER", options.servers,
                   "host, host:port, address, address:port or [IPv6]:port; several are asked at once")
      ->required();
  command->add_flag("--json", as_json, "Print one JSON object and nothing else");
  command
      ->add_option("--timeout", options.timeout_s, "Seconds for the whole attempt (default 15, at most 3600)")
      ->check(skorra::Number(0, 3600, true));
  command
      ->add_option("--log-level", options.log_level,
                   "The library's log on standard error: 0 all lines, 1 failures, 2 nothing (default 2)")
      ->transform(skorra::WholeNumber(0, 2));
  command->footer(kSyncFooter + EnvironmentHelp());
}

void AddServe(CLI::App& app, skorra::ServeOptions& options) {
  auto* const command =
      app.add_subcommand("serve", "Run a small NTP server with a chosen clock error, to try things out");
  command->add_option("--listen", options.listen, "ADDR:PORT (default 127.0.0.1:0, port 0 takes a free one)");
  command
      ->add_option("--offset", options.offset_s,
                   "Clock error in seconds; may be negative or fractional (default 0)")
      ->check(skorra::Number(-1e9, 1e9));
  command->add_option("--delay", options.delay_ms, "Round-trip delay in milliseconds (default 0)")
      ->check(skorra::Number(0, 60000));
  command
      ->add_option("--jitter", options.jitter_ms,
                   "Up to this many milliseconds more in each direction (default 0)")
      ->check(skorra::Number(0, 60000));
  command->add_option("--loss", options.loss, "Share of requests that get no answer, 0 to 1 (default 0)")
      ->check(skorra::Number(0, 1));
  command->add_option("--seed", options.seed, "Seed of the random jitter and loss (default 1)")
      ->transform(skorra::WholeNumber());
  command->footer(kServeFooter);
}

}  // namespace

int main(int argc, char** argv) {
  mallopt(M_ARENA_MAX, 1);  // its threads wait most of the time
  skorra::PrepareStandardStreams();
  CLI::App app{"Network time without touching the system clock", "skorra-ntp"};
  app.set_version_flag("--version", "skorra-ntp " SKORRA_VERSION);
  app.require_subcommand(1);
  app.footer(kFooter + EnvironmentHelp());

  skorra::SyncOptions sync;
  skorra::ServeOptions serve;
  bool as_json = false;
  AddSync(app, sync, as_json);
  AddServe(app, serve);
  auto* const demo =
      app.add_subcommand("demo", "Sync with a server whose clock error is known, and find out one that lies");
  demo->footer(kDemoFooter);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return skorra::ExitAfterParsing(app, error);
  }

  LoadConfiguration();
  WarnOfHostAliases();
  if (app.got_subcommand("sync")) {
    return skorra::RunSync(sync, as_json);
  }
  return app.got_subcommand("serve") ? skorra::RunServe(serve) : skorra::RunDemo();
}
