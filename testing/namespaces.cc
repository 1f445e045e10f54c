// SPDX-License-Identifier: Apache-2.0
#include "testing/namespaces.h"

#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace skorra {

std::string EnterNamespaces(int flags) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(flags) == 0) {
    return "";
  }
  if (unshare(flags | CLONE_NEWUSER) != 0) {
    return std::string("no namespaces can be made here: ") + strerror(errno);
  }
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
  std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  return "";
}

std::string EnterEmptyMachine() {
  if (std::string reason = EnterNamespaces(CLONE_NEWNS | CLONE_NEWNET); !reason.empty()) {
    return reason;
  }
  // Before anything is mounted: it must not spread to this machine.
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return std::string("mount: ") + strerror(errno);
  }
  if (mount("none", "/etc", "tmpfs", 0, "mode=755") != 0) {
    return std::string("mount tmpfs: ") + strerror(errno);
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  memcpy(request.ifr_name, "lo", sizeof "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool is_up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  close(fd);
  return is_up ? std::string() : std::string("the loopback interface: ") + strerror(errno);
}

}  // namespace skorra
