// SPDX-License-Identifier: Apache-2.0

// A process in which nothing is due does not wake up, seen from outside: what the kernel says of its timers
// and of the calls that its threads wait in. Between two syncs of NtpClock nothing is due
// (KeeperScheduleTest); that a whole minute passes so on real parts is measured by ./dev bench --scale.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/event.h"
#include "testing/loopback_ntp_server.h"
#include "testing/ntp_queue.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Le;

std::string ContentOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// Of each timer of this process the seconds until it expires, rounded down; -1: it is not armed.
std::vector<int64_t> Timers() {
  std::vector<int64_t> timers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != "anon_inode:[timerfd]") {
      continue;
    }
    const std::string info = ContentOf("/proc/self/fdinfo" / entry.path().filename());
    long long seconds = 0;
    long long ns = 0;
    const size_t value = info.find("it_value:");
    if (value == std::string::npos ||
        std::sscanf(info.c_str() + value, "it_value: (%lld, %lld)", &seconds, &ns) != 2) {
      ADD_FAILURE() << info;
      continue;
    }
    timers.push_back(seconds == 0 && ns == 0 ? -1 : seconds);
  }
  return timers;
}

// Whether every thread of the library waits for events without a limit; a sanitizer has threads of its own.
// Nothing where the kernel does not tell.
std::optional<bool> DoQueuesWaitWithoutLimit() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    if (!ContentOf(entry.path() / "comm").starts_with("skorra-")) {
      continue;
    }
    ++count;
    // Number and six arguments of the system call; or "running".
    std::istringstream call(ContentOf(entry.path() / "syscall"));
    std::string number;
    std::string arguments[4];
    call >> number >> arguments[0] >> arguments[1] >> arguments[2] >> arguments[3];
    if (number.empty()) {
      return std::nullopt;
    }
#ifdef SYS_epoll_wait
    const bool is_epoll =
        number == std::to_string(SYS_epoll_wait) || number == std::to_string(SYS_epoll_pwait);
#else
    const bool is_epoll = number == std::to_string(SYS_epoll_pwait);
#endif
    if (!is_epoll || static_cast<int32_t>(std::stoull(arguments[3], nullptr, 16)) != -1) {
      return false;
    }
  }
  return count > 0;
}

class IdleTest : public ::testing::Test {
 protected:
  // Waits until the library's threads have gone to sleep.
  static void ComeToRest() {
    if (NtpQueue() != nullptr && !DoQueuesWaitWithoutLimit()) {
      GTEST_SKIP() << "the kernel does not tell what threads wait for";
    }
    EXPECT_TRUE(WaitUntil([] { return DoQueuesWaitWithoutLimit().value_or(false); }));
  }
};

TEST_F(IdleTest, AQueueThatHasRunItsTasksWaitsWithoutATimer) {
  base::Event has_run;
  NtpQueue()->PostDelayedTask(kTestLocation, base::BindOnce([&] { has_run.Set(); }),
                              base::TimeDelta::FromMilliseconds(20));
  ASSERT_TRUE(has_run.WaitFor(int64_t{1000} * kPatienceMs));
  ComeToRest();
  EXPECT_THAT(Timers(), ElementsAre(-1));
}

class Listener : public NtpTimeManager::Observer {
 public:
  void OnNtpResult(NtpResult, const std::string&, const net::IPEndPoint&) override { has_ended.Set(); }
  base::Event has_ended;
};

TEST_F(IdleTest, AfterAnAttemptOnlyTheStopOfThirtySecondsLaterIsDue) {
  const LoopbackNtpServer server({});
  const auto listener = std::make_shared<Listener>();
  NtpTimeManager* const manager = NtpTimeManager::GetInstance();
  manager->AddObserver(listener);
  manager->UpdateNtpTimeDomain({server.endpoint().ToString()});
  manager->Start();
  ASSERT_TRUE(listener->has_ended.WaitFor(int64_t{1000} * kPatienceMs));
  ComeToRest();
  EXPECT_THAT(Timers(), ElementsAre(AllOf(Ge(20), Le(30))));
}

}  // namespace
}  // namespace skorra
