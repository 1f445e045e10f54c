// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/command_line.h"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>

#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/terminal.h"
#include "apps/skorra-ntp/whole_number.h"

namespace skorra {
namespace {

// The first argument that nothing took and that begins as an option does, or not.
std::optional<std::string> FirstLeftOver(const CLI::App& app, bool is_option) {
  for (const std::string& argument : app.remaining(true)) {
    if (argument != "--" && argument.starts_with('-') == is_option) {
      return argument;
    }
  }
  return std::nullopt;
}

}  // namespace

CLI::Validator WholeNumber(uint64_t min, uint64_t max) {
  const auto check = [=](std::string& text) {
    if (const auto value = ParseWholeNumber(text, min, max)) {
      text = std::to_string(*value);  // the parser takes leading zeros for another base
      return std::string();
    }
    return "\"" + text + "\" is not valid: must be a whole number from " + std::to_string(min) + " to " +
           std::to_string(max);
  };
  return CLI::Validator(check, "");
}

CLI::Validator Number(double min, double max, bool excludes_min) {
  const auto check = [=](const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() && *end == '\0' && value <= max && (excludes_min ? value > min : value >= min)) {
      return std::string();
    }
    char message[128];
    std::snprintf(message, sizeof message,
                  excludes_min ? "must be greater than %g and at most %g" : "must be from %g to %g", min,
                  max);
    return "\"" + text + "\" is not valid: " + message;
  };
  return CLI::Validator(check, "");
}

int ExitAfterParsing(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {
    std::ostringstream text;
    app.exit(error, text, text);
    return PrintText(text.str()) ? kExitSuccess : kExitOutput;
  }
  const auto commands = app.get_subcommands();
  const std::string remedy = "Run '" + app.get_name() +
                             (commands.empty() ? "" : " " + commands.front()->get_name()) +
                             " --help' to see what it takes.";
  const auto command = commands.empty() ? FirstLeftOver(app, false) : std::nullopt;
  if (const auto option = FirstLeftOver(app, true)) {
    PrintProblem("there is no option '" + *option + "'", remedy);
  } else if (command && !app.get_subcommands({}).empty()) {
    PrintProblem("there is no command '" + *command + "'", remedy);
  } else {
    PrintProblem(error.what(), remedy);
  }
  return kExitUsage;
}

}  // namespace skorra
