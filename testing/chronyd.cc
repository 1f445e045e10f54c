#include "testing/chronyd.h"

#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "testing/loopback_udp.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

constexpr const char* kProgram = "/usr/sbin/chronyd";

std::string MakeTemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "skorra-chrony-XXXXXX").string();
  return mkdtemp(name.data()) == nullptr ? "" : name;
}

std::vector<std::string> Command(const std::string& folder, const net::IPEndPoint& endpoint,
                                 const std::vector<std::string>& extra_lines) {
  const std::string config = folder + "/chrony.conf";
  std::ofstream lines(config);
  // Nothing of the system's own chrony is touched: no clock, no command socket, no file outside.
  lines << "port " << endpoint.port() << "\n"
        << "bindaddress " << (endpoint.family() == Chronyd::Family::kIPv6 ? "::1" : "127.0.0.1")
        << "\nallow all\nlocal stratum 8\ncmdport 0\nbindcmdaddress /\npidfile " << folder
        << "/chronyd.pid\n";
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
    : folder_(MakeTemporaryFolder()),
      endpoint_(UnusedEndPoint(family)),
      child_(Command(folder_, endpoint_, extra_lines)) {}

Chronyd::~Chronyd() {
  child_.Signal(SIGTERM);
  child_.Wait();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

bool Chronyd::IsUp() const {
  const LoopbackUdp client(
      *net::IPEndPoint::FromLiteral(endpoint_.family() == Family::kIPv6 ? "::1" : "127.0.0.2", 0));
  std::vector<uint8_t> request(48);
  request[0] = 4 << 3 | 3;
  return WaitUntil([&] {
    client.SendTo(endpoint_, request);
    const auto reply = client.Receive(50);
    return reply && reply->size() >= 48 && (*reply)[0] >> 6 != 3 && (*reply)[1] == 8;
  });
}

}  // namespace skorra
