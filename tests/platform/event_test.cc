// SPDX-License-Identifier: Apache-2.0
#include "platform/base/event.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "platform/base/clock.h"

namespace base {
namespace {

constexpr int64_t kForever = std::numeric_limits<int64_t>::max();

TEST(EventTest, AWaitForWhatHasHappenedReturnsAtOnce) {
  Event event;
  EXPECT_FALSE(event.WaitFor(0));
  EXPECT_FALSE(event.WaitFor(-1));
  event.Set();
  EXPECT_TRUE(event.WaitFor(0));
  EXPECT_TRUE(event.WaitFor(kForever));
  event.Set();
  EXPECT_TRUE(event.WaitFor(std::numeric_limits<int64_t>::min()));
}

TEST(EventTest, AWaitWithoutAnEventLastsItsLimit) {
  Event event;
  for (const int64_t limit_us : {1, 999, 1500}) {
    const int64_t before_ticks_us = GetSteadyTimeTicks();
    EXPECT_FALSE(event.WaitFor(limit_us));
    EXPECT_GE(GetSteadyTimeTicks() - before_ticks_us, limit_us);
  }
}

TEST(EventTest, AThreadThatWaitsIsWokenAndSeesWhatWasWrittenBefore) {
  Event event;
  int written = 0;
  std::thread setter([&] {
    written = 7;
    event.Set();
  });
  EXPECT_TRUE(event.WaitFor(kForever));
  EXPECT_EQ(written, 7);
  setter.join();
}

}  // namespace
}  // namespace base
