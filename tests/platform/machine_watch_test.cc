// SPDX-License-Identifier: Apache-2.0

// The watch on the real system. The network's events are real, in a network namespace of the test's own. The
// wall clock is not stepped, which would disturb the machine: these tests hold that the timer is armed as the
// kernel asks it, expire it, and answer its reading as the kernel does after a step.
#include "platform/core/machine_watch.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/metrics/key_metrics.h"
#include "testing/forked_child.h"
#include "testing/isolated_child.h"
#include "testing/log_recorder.h"
#include "testing/ntp_queue.h"
#include "testing/refuse_system_call.h"
#include "testing/temp_dir.h"
#include "testing/wait_until.h"

namespace core {
namespace {

using skorra::ReadFile;
using skorra::RunOnNtpQueue;
using skorra::WaitUntil;

// The open descriptors of this process.
std::vector<int> Descriptors() {
  std::vector<int> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    descriptors.push_back(std::stoi(entry.path().filename().string()));
  }
  return descriptors;
}

std::string InfoOf(int fd) { return ReadFile("/proc/self/fdinfo/" + std::to_string(fd)); }

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The timer of the wall clock, and the netlink socket; -1 when there is none.
int WallClockTimer() {
  for (const int fd : Descriptors()) {
    if (Has(InfoOf(fd), "clockid: 0\n")) {
      return fd;
    }
  }
  return -1;
}
int NetlinkSocket() {
  for (const int fd : Descriptors()) {
    int family = 0;
    socklen_t size = sizeof family;
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 && family == AF_NETLINK) {
      return fd;
    }
  }
  return -1;
}

// Each round of tasks lets the queue's loop look at its descriptors.
void LetTheLoopLook() {
  for (int i = 0; i < 100; ++i) {
    RunOnNtpQueue([] {});
  }
}

// A watch on the manager's queue, and what it reported.
class Watched {
 public:
  explicit Watched(int64_t instance = -1) : instance_(instance) {
    RunOnNtpQueue(
        [this] {
          watch_ = MachineWatch::Open({[this] { Note(&clock_set); }, [this] { Note(&network_up); }});
        },
        instance_);
  }
  ~Watched() { Close(); }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  void Close() {
    RunOnNtpQueue([this] { watch_ = nullptr; }, instance_);
  }
  bool is_open() const { return watch_ != nullptr; }
  // In a forked child, which has no thread of that queue.
  void CloseInChild() { watch_ = nullptr; }

  std::atomic<int> clock_set{0};
  std::atomic<int> network_up{0};
  std::atomic<int> off_queue{0};

 private:
  void Note(std::atomic<int>* count) {
    off_queue += skorra::NtpQueue(instance_)->IsCurrent() ? 0 : 1;
    ++*count;
  }

  const int64_t instance_;
  std::unique_ptr<MachineWatch> watch_;
};

// --- The wall clock

bool IsArmed(int timer) {
  const std::string info = InfoOf(timer);
  return Has(info, "settime flags: 03\n") && !Has(info, "it_value: (0, 0)");
}

void Expire(int timer) {
  itimerspec soon{};
  soon.it_value.tv_nsec = 1;
  ASSERT_EQ(timerfd_settime(timer, 0, &soon, nullptr), 0);
}

// From now on, for the queue's thread.
void AnswerReadsAsAfterAStep(int timer) {
  ASSERT_TRUE(
      RunOnNtpQueue([=] { return skorra::RefuseSystemCallOnThisThread(SYS_read, ECANCELED, timer); }));
}

TEST(MachineWatchTest, EveryStepOfTheWallClockIsReportedOnTheQueueAndTheTimerIsArmedAgain) {
  Watched watched;
  ASSERT_TRUE(watched.is_open());
  const int timer = WallClockTimer();
  ASSERT_GE(timer, 0);
  ASSERT_TRUE(IsArmed(timer)) << InfoOf(timer);
  AnswerReadsAsAfterAStep(timer);
  for (int steps = 1; steps <= 3; ++steps) {
    Expire(timer);
    ASSERT_TRUE(WaitUntil([&] { return watched.clock_set == steps; }));
    EXPECT_TRUE(IsArmed(timer)) << InfoOf(timer);
  }
  EXPECT_EQ(watched.network_up, 0);
  EXPECT_EQ(watched.off_queue, 0);
}

TEST(MachineWatchTest, AnExpiredTimerIsNoStep) {
  Watched watched;
  const int timer = WallClockTimer();
  ASSERT_GE(timer, 0);
  Expire(timer);
  ASSERT_TRUE(WaitUntil([&] { return Has(InfoOf(timer), "ticks: 0\n"); })) << "it is not read";
  // The next wake-up is a step, after which the first would have been reported, too.
  AnswerReadsAsAfterAStep(timer);
  Expire(timer);
  ASSERT_TRUE(WaitUntil([&] { return watched.clock_set >= 1; }));
  EXPECT_EQ(watched.clock_set, 1);
}

TEST(MachineWatchTest, ACallbackMayDestroyItsWatch) {
  std::unique_ptr<MachineWatch> watch;
  std::atomic<int> count{0};
  RunOnNtpQueue([&] {
    watch = MachineWatch::Open({.on_clock_set =
                                    [&] {
                                      watch = nullptr;
                                      ++count;
                                    },
                                .on_network_up = nullptr});
  });
  const int timer = WallClockTimer();
  ASSERT_GE(timer, 0);
  AnswerReadsAsAfterAStep(timer);
  Expire(timer);
  ASSERT_TRUE(WaitUntil([&] { return count == 1; }));
  RunOnNtpQueue([] {});
  EXPECT_EQ(WallClockTimer(), -1);
  EXPECT_EQ(NetlinkSocket(), -1);
}

TEST(MachineWatchTest, AWatchLeavesNoDescriptorOpen) {
  RunOnNtpQueue([] {});  // the queue has some of its own
  const std::vector<int> before = Descriptors();
  for (int i = 0; i < 10; ++i) {
    Watched watched;
    EXPECT_GT(Descriptors().size(), before.size());
  }
  EXPECT_EQ(Descriptors(), before);
}

// --- The network

// These change interfaces of the test's own namespace.
bool SetAddress(const char* interface, const char* address) {
  ifreq request{};
  std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
  sockaddr_in end_point{};
  end_point.sin_family = AF_INET;
  inet_pton(AF_INET, address, &end_point.sin_addr);
  std::memcpy(&request.ifr_addr, &end_point, sizeof end_point);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool is_set = ioctl(fd, SIOCSIFADDR, &request) == 0;
  close(fd);
  return is_set;
}
bool SetFlags(const char* interface, short flags) {
  ifreq request{};
  std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
  request.ifr_flags = flags;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool is_set = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  close(fd);
  return is_set;
}

bool TurnOn(const char* interface) { return SetFlags(interface, IFF_UP); }
bool TurnOff(const char* interface) { return SetFlags(interface, 0); }

// The loopback interface would get its IPv6 address again whenever it comes up.
void LeaveOutIPv6() { skorra::WriteFile("/proc/sys/net/ipv6/conf/lo/disable_ipv6", "1"); }

TEST(MachineWatchTest, ANewAddressAndALinkThatComesUpAreReportedOnTheQueue) {
  skorra::RunIsolated([] {
    LeaveOutIPv6();
    Watched watched;
    ASSERT_TRUE(watched.is_open());
    ASSERT_TRUE(SetAddress("lo:1", "192.0.2.1"));
    ASSERT_TRUE(WaitUntil([&] { return watched.network_up == 1; }));
    ASSERT_TRUE(TurnOff("lo:1")) << "an alias vanishes";
    ASSERT_TRUE(SetAddress("lo:1", "192.0.2.1"));
    ASSERT_TRUE(WaitUntil([&] { return watched.network_up == 2; }));
    ASSERT_TRUE(TurnOff("lo"));
    ASSERT_TRUE(TurnOn("lo"));
    ASSERT_TRUE(WaitUntil([&] { return watched.network_up == 3; }));
    ASSERT_TRUE(SetAddress("lo:2", "192.0.2.2"));
    ASSERT_TRUE(WaitUntil([&] { return watched.network_up >= 4; }));
    EXPECT_EQ(watched.network_up, 4) << "the loss of an address or link is not reported";
    EXPECT_EQ(watched.clock_set, 0);
    EXPECT_EQ(watched.off_queue, 0);
  });
}

TEST(MachineWatchTest, WhatWasThereAtTheOpeningIsNotNew) {
  skorra::RunIsolated([] {
    LeaveOutIPv6();
    ASSERT_TRUE(SetAddress("lo:1", "192.0.2.1"));
    Watched watched;
    // Any message about the link says that it runs.
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    request.ifr_mtu = 16384;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(ioctl(fd, SIOCSIFMTU, &request), 0);
    close(fd);
    LetTheLoopLook();
    EXPECT_EQ(watched.network_up, 0);
    ASSERT_TRUE(SetAddress("lo:2", "192.0.2.2"));
    ASSERT_TRUE(WaitUntil([&] { return watched.network_up >= 1; }));
    EXPECT_EQ(watched.network_up, 1);
  });
}

TEST(MachineWatchTest, AWatchThatIsGoneReportsNothing) {
  skorra::RunIsolated([] {
    Watched watched;
    Watched other;
    RunOnNtpQueue([&] { EXPECT_TRUE(SetAddress("lo:1", "192.0.2.1")); });
    watched.Close();
    const int count = watched.network_up;
    EXPECT_TRUE(SetAddress("lo:2", "192.0.2.2"));
    ASSERT_TRUE(WaitUntil([&] { return other.network_up >= 1; }));
    other.Close();
    EXPECT_EQ(watched.network_up, count);
  });
}

TEST(MachineWatchTest, AForkedChildThatClosesTheWatchLeavesItsParentsAlone) {
  skorra::RunIsolated([] {
    Watched watched;
    EXPECT_EQ(skorra::RunInChild([&]() -> std::string {
                watched.CloseInChild();
                return watched.is_open() ? "still open" : "";
              }),
              "");
    ASSERT_TRUE(SetAddress("lo:1", "192.0.2.1"));
    EXPECT_TRUE(WaitUntil([&] { return watched.network_up >= 1; }));
  });
}

TEST(MachineWatchTest, MessagesThatWereLostMayHaveSaidThatTheNetworkCameUp) {
  skorra::RunIsolated([] {
    Watched watched;
    const int netlink = NetlinkSocket();
    ASSERT_GE(netlink, 0);
    ASSERT_TRUE(
        RunOnNtpQueue([=] { return skorra::RefuseSystemCallOnThisThread(SYS_recvfrom, ENOBUFS, netlink); }));
    ASSERT_TRUE(TurnOff("lo"));
    EXPECT_TRUE(WaitUntil([&] { return watched.network_up >= 1; }));
  });
}

// --- Sandboxes

TEST(MachineWatchTest, WhatTheSystemDoesNotOfferIsCountedAndLoggedOnce) {
  struct Case {
    int refused;
    uint64_t clock_failed;
    uint64_t network_failed;
    const char* what;
  };
  const Case cases[] = {
      {SYS_timerfd_create, 1, 0, "no timer"},
      {SYS_socket, 0, 1, "no socket"},
      {SYS_bind, 0, 1, "no messages of the kernel"},
  };
  const skorra::LogRecorder log;
  int64_t instance = 1;  // a filter of system calls stays with its thread
  for (const Case& c : cases) {
    for (int again = 0; again < 2; ++again) {
      const uint64_t clock_before = base::KeyMetrics::GetCount("core.machine_watch.clock_failed");
      const uint64_t network_before = base::KeyMetrics::GetCount("core.machine_watch.network_failed");
      ++instance;
      ASSERT_TRUE(
          RunOnNtpQueue([&] { return skorra::RefuseSystemCallOnThisThread(c.refused, EPERM); }, instance));
      Watched watched(instance);
      EXPECT_TRUE(watched.is_open()) << c.what;
      EXPECT_EQ(base::KeyMetrics::GetCount("core.machine_watch.clock_failed") - clock_before, c.clock_failed)
          << c.what;
      EXPECT_EQ(base::KeyMetrics::GetCount("core.machine_watch.network_failed") - network_before,
                c.network_failed)
          << c.what;
      EXPECT_EQ(WallClockTimer() >= 0, c.clock_failed == 0) << c.what;
    }
  }
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(log.lines[0].text,
            "cannot watch the wall clock, so a step or a suspend is noticed later: Operation not permitted");
  EXPECT_EQ(log.lines[1].text,
            "cannot watch the network, so its return is noticed later: Operation not permitted");
}

TEST(MachineWatchTest, ASocketThatFailsIsReadNoMore) {
  skorra::RunIsolated([] {
    const skorra::LogSilence silence;
    Watched watched;
    const int netlink = NetlinkSocket();
    ASSERT_GE(netlink, 0);
    ASSERT_TRUE(
        RunOnNtpQueue([=] { return skorra::RefuseSystemCallOnThisThread(SYS_recvfrom, EIO, netlink); }));
    const auto failures = [] { return base::KeyMetrics::GetCount("core.machine_watch.network_failed"); };
    ASSERT_TRUE(TurnOff("lo"));
    ASSERT_TRUE(WaitUntil([&] { return failures() >= 1; }));
    ASSERT_TRUE(TurnOn("lo"));
    LetTheLoopLook();
    EXPECT_EQ(failures(), 1u);
    EXPECT_EQ(watched.network_up, 0);
  });
}

TEST(MachineWatchTest, ATimerThatFailsIsReadNoMore) {
  const skorra::LogSilence silence;
  Watched watched;
  const int timer = WallClockTimer();
  ASSERT_GE(timer, 0);
  ASSERT_TRUE(RunOnNtpQueue([=] { return skorra::RefuseSystemCallOnThisThread(SYS_read, EIO, timer); }));
  const auto failures = [] { return base::KeyMetrics::GetCount("core.machine_watch.clock_failed"); };
  Expire(timer);
  ASSERT_TRUE(WaitUntil([&] { return failures() >= 1; }));
  Expire(timer);
  LetTheLoopLook();
  EXPECT_EQ(failures(), 1u);
  EXPECT_EQ(watched.clock_set, 0);
}

}  // namespace
}  // namespace core
