// SPDX-License-Identifier: Apache-2.0

// A real NTP server that somebody else wrote: chronyd, as its own process on the loopback interface. It
// serves the machine's own clock, so the offset is zero.
//
//   if (const std::string reason = Chronyd::WhyNotHere(family); !reason.empty()) {
//     GTEST_SKIP() << reason;
//   }
//   const Chronyd server(family);
//   ASSERT_TRUE(server.IsUp());
#pragma once

#include <string>
#include <vector>

#include "platform/net/ip_endpoint.h"
#include "testing/child_process.h"
#include "testing/temp_dir.h"

namespace skorra {

class Chronyd {
 public:
  using Family = net::IPEndPoint::Family;

  // Empty when this machine can run one on the loopback address of `family`; otherwise the reason why not.
  static std::string WhyNotHere(Family family = Family::kIPv4);

  // `extra_lines` are added to its configuration.
  explicit Chronyd(Family family = Family::kIPv4, const std::vector<std::string>& extra_lines = {});
  ~Chronyd();
  Chronyd(const Chronyd&) = delete;
  Chronyd& operator=(const Chronyd&) = delete;

  const net::IPEndPoint& endpoint() const { return endpoint_; }
  pid_t pid() const { return child_.pid(); }

  // Asks it until it answers as a synchronised server. An IPv4 server is asked from 127.0.0.2, so that a rate
  // limit, which counts by address, has nothing against 127.0.0.1 yet; IPv6 has no second loopback address.
  bool IsUp() const;

 private:
  const TempDir folder_;
  const net::IPEndPoint endpoint_;
  ChildProcess child_;
};

}  // namespace skorra
