// SPDX-License-Identifier: Apache-2.0

// The program's demonstration server on the loopback interface.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "apps/skorra-ntp/demo_server.h"
#include "testing/addresses.h"

namespace skorra {

// Without an address to listen on it takes a free port. Null, and the test has failed, when there is none.
inline std::unique_ptr<DemoServer> OpenDemoServer(DemoServerOptions options = {}) {
  if (options.listen.address_empty()) {
    options.listen = AnyLoopbackPort();
  }
  std::string error;
  auto server = DemoServer::Open(options, &error);
  EXPECT_NE(server, nullptr) << error;
  return server;
}

}  // namespace skorra
