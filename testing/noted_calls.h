// SPDX-License-Identifier: Apache-2.0
// A note of what the manager counts as key metrics and of when it asks for the environment's default domain.
//
// The product has no hook for this. A test program that uses it is linked with noted_calls.cc and with the
// linker's option --wrap for both functions (tests/CMakeLists.txt).
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace skorra {

// Notes the calls from its making to its end. One at a time, on one thread.
class NotedCalls {
 public:
  NotedCalls();
  ~NotedCalls();
  NotedCalls(const NotedCalls&) = delete;
  NotedCalls& operator=(const NotedCalls&) = delete;

  // In their order: "count 37004", "default domain".
  std::vector<std::string> calls;
  // Called with each note before the call itself is carried out.
  std::function<void(const std::string&)> on_call;
};

}  // namespace skorra
