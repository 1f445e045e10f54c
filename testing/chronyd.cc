// SPDX-License-Identifier: Apache-2.0
#include "testing/chronyd.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "testing/addresses.h"
#include "testing/loopback_udp.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

constexpr const char* kProgram = "/usr/sbin/chronyd";

std::vector<std::string> Command(const TempDir& folder, const net::IPEndPoint& endpoint,
                                 const std::vector<std::string>& extra_lines) {
  const std::string config = folder / "chrony.conf";
  std::ofstream lines(config);
  // Nothing of the system's own chrony is touched: no clock, no command socket, no file outside.
  lines << "port " << endpoint.port() << "\n"
        << "bindaddress " << (endpoint.family() == Chronyd::Family::kIPv6 ? "::1" : "127.0.0.1")
        << "\nallow all\nlocal stratum 8\ncmdport 0\nbindcmdaddress /\npidfile " << folder / "chronyd.pid"
        << "\n";
  for (const std::string& line : extra_lines) {
    lines << line << "\n";
  }
  const passwd* const user = getpwuid(getuid());
  return {kProgram, "-x", "-d", "-U", "-u", user == nullptr ? "root" : user->pw_name, "-f", config};
}

}  // namespace

std::string Chronyd::WhyNotHere(Family family) {
  if (access(kProgram, X_OK) != 0) {
    return std::string(kProgram) + " is not installed";
  }
  return LoopbackUdp(family).is_open() ? "" : "this machine has no loopback address of the family";
}

Chronyd::Chronyd(Family family, const std::vector<std::string>& extra_lines)
    : endpoint_(UnusedEndPoint(family)), child_(Command(folder_, endpoint_, extra_lines)) {}

Chronyd::~Chronyd() {
  child_.Signal(SIGTERM);
  child_.Wait();
}

bool Chronyd::IsUp() const {
  const LoopbackUdp client(Address(endpoint_.family() == Family::kIPv6 ? "::1" : "127.0.0.2", 0));
  std::vector<uint8_t> request(48);
  request[0] = 4 << 3 | 3;
  return WaitUntil([&] {
    client.SendTo(endpoint_, request);
    const auto reply = client.Receive(50);
    return reply && reply->size() >= 48 && (*reply)[0] >> 6 != 3 && (*reply)[1] == 8;
  });
}

}  // namespace skorra
