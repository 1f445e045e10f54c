// SPDX-License-Identifier: Apache-2.0
#include "platform/base/random.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>

#include "testing/forked_child.h"
#include "testing/refuse_system_call.h"
#include "testing/wait_until.h"

namespace base {
namespace {

// True when many numbers are distinct and every bit is seen both set and clear.
bool IsRandom() {
  std::set<uint64_t> numbers;
  uint64_t ones = 0;
  uint64_t zeros = 0;
  for (int i = 0; i < 1000; ++i) {
    const uint64_t number = RandUint64();
    numbers.insert(number);
    ones |= number;
    zeros |= ~number;
  }
  return numbers.size() == 1000 && ones == ~uint64_t{0} && zeros == ~uint64_t{0};
}

TEST(RandomTest, NumbersAreDistinctAndUseEveryBit) { EXPECT_TRUE(IsRandom()); }

TEST(RandomTest, AForkedChildDoesNotRepeatItsParentsNumbers) {
  RandUint64();  // more than one number may have been drawn
  int to_parent[2];
  ASSERT_EQ(pipe(to_parent), 0);
  EXPECT_EQ(skorra::RunInChild([&]() -> std::string {
              const uint64_t number = RandUint64();
              return write(to_parent[1], &number, sizeof number) == sizeof number ? "" : "cannot tell";
            }),
            "");
  uint64_t of_child = 0;
  ASSERT_EQ(read(to_parent[0], &of_child, sizeof of_child), ssize_t{sizeof of_child});
  EXPECT_NE(RandUint64(), of_child);
  close(to_parent[0]);
  close(to_parent[1]);
}

TEST(RandomTest, NumbersStayDistinctWhenGetrandomAndTheDeviceFail) {
  struct Case {
    int error;
    const char* what;
  };
  const Case cases[] = {
      {ENOSYS, "a kernel or sandbox without the call"},
      {EAGAIN, "too early after the machine's start"},
  };
  for (const Case& c : cases) {
    std::thread([&] {
      ASSERT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_getrandom, c.error));
      EXPECT_TRUE(IsRandom()) << c.what;
      ASSERT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_openat, EACCES));
      EXPECT_TRUE(IsRandom()) << c.what << ", and no device either";
    }).join();
  }
}

TEST(RandomTest, AnInterruptionWithoutEndEndsAllTheSame) {
  std::atomic<bool> is_over{false};
  bool is_random = false;
  std::thread interrupted([&] {
    // Wherever the call goes, a signal comes: to the kernel's generator, and to the device.
    is_random = skorra::RefuseSystemCallOnThisThread(SYS_getrandom, EINTR) && IsRandom() &&
                skorra::RefuseSystemCallOnThisThread(SYS_read, EINTR) && IsRandom();
    is_over = true;
  });
  ASSERT_TRUE(skorra::WaitUntil([&] { return is_over.load(); })) << "it spins";
  interrupted.join();
  EXPECT_TRUE(is_random);
}

}  // namespace
}  // namespace base
