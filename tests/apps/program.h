// SPDX-License-Identifier: Apache-2.0

// The built program, for the tests that run it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "testing/child_process.h"

namespace skorra {

using Arguments = std::vector<std::string>;

Arguments Command(Arguments arguments);

inline ChildExit RunProgram(const Arguments& arguments, const std::vector<std::string>& environment = {}) {
  return RunChild(Command(arguments), environment);
}

// The same by way of a shell, which first redirects: "<&-" closes standard input.
inline Arguments Redirected(const std::string& redirections, const Arguments& arguments) {
  Arguments command = {"/bin/bash", "-c", "exec \"$@\" " + redirections, "bash"};
  const Arguments program = Command(arguments);
  command.insert(command.end(), program.begin(), program.end());
  return command;
}

// `skorra-ntp serve` with its end point.
class Server {
 public:
  explicit Server(const Arguments& options = {}, const std::string& redirections = "")
      : child_(Redirected(redirections, WithServe(options))) {
    const std::string line = child_.ReadLine().value_or("");
    EXPECT_THAT(line, testing::StartsWith(kGreeting));
    name_ = line.substr(std::min(line.size(), kGreeting.size()));
  }

  const std::string& name() const { return name_; }
  pid_t pid() const { return child_.pid(); }
  ChildExit End(int signal_number) {
    child_.Signal(signal_number);
    return child_.Wait();
  }

 private:
  static Arguments WithServe(Arguments options) {
    options.insert(options.begin(), "serve");
    return options;
  }

  inline static const std::string kGreeting = "listening on ";
  ChildProcess child_;
  std::string name_;
};

}  // namespace skorra
