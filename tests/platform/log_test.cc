// SPDX-License-Identifier: Apache-2.0
#include "platform/base/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/world.h"
#include "testing/log_recorder.h"

namespace base {
namespace {

class LogTest : public ::testing::Test {
 protected:
  skorra::sim::World world_;
  skorra::LogRecorder log_;
};

TEST_F(LogTest, TheLevelsHaveTheNumbersThatAreDocumented) {
  EXPECT_EQ(kLogProgress, 0);
  EXPECT_EQ(kLogFailure, 1);
  EXPECT_EQ(kLogNothing, 2);
}

TEST_F(LogTest, ALineReachesTheSinkWithItsPlaceAndText) {
  LocalLog(kLogFailure, "folder/part", 42, "%s is %d", "answer", 42);
  ASSERT_EQ(log_.lines.size(), 1u);
  EXPECT_EQ(log_.lines[0].level, kLogFailure);
  EXPECT_STREQ(log_.lines[0].file, "folder/part");
  EXPECT_EQ(log_.lines[0].line, 42);
  EXPECT_EQ(log_.lines[0].text, "answer is 42");
}

TEST_F(LogTest, LinesBelowTheThresholdAreDropped) {
  EXPECT_EQ(GetLogThreshold(), kLogFailure);
  LocalLog(kLogProgress, "f", 1, "progress");
  LocalLog(kLogFailure, "f", 2, "failure");
  SetLogThreshold(kLogProgress);
  EXPECT_EQ(GetLogThreshold(), kLogProgress);
  LocalLog(kLogProgress, "f", 3, "progress");
  SetLogThreshold(kLogNothing);
  LocalLog(kLogFailure, "f", 4, "failure");
  ASSERT_EQ(log_.lines.size(), 2u);
  EXPECT_EQ(log_.lines[0].line, 2);
  EXPECT_EQ(log_.lines[1].line, 3);
}

TEST_F(LogTest, ADroppedLineIsNotFormatted) {
  // Formatting it would store a number here.
  int written = -1;
  LocalLog(kLogProgress, "f", 1, "text%n", &written);
  EXPECT_EQ(written, -1);
}

TEST_F(LogTest, TextsAreCutAt4096Bytes) {
  for (const size_t size : {4095u, 4096u, 4097u, 100000u}) {
    LocalLog(kLogFailure, "f", 1, "%s", std::string(size, 'x').c_str());
    EXPECT_EQ(log_.lines.back().text, std::string(std::min<size_t>(size, 4096), 'x'));
  }
}

TEST_F(LogTest, ATextThatCannotBeFormattedShowsItsFormat) {
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
  LocalLog(kLogFailure, "f", 1, "wide %ls", no_character);
  ASSERT_EQ(log_.lines.size(), 1u);
  EXPECT_EQ(log_.lines[0].text, "wide %ls");
}

TEST_F(LogTest, AReplacedSinkIsNoLongerCalledAndReleased) {
  const auto token = std::make_shared<int>(0);
  SetLogSink([token](const LogLine&) { ++*token; });
  LocalLog(kLogFailure, "f", 1, "first");
  SetLogSink([this](const LogLine& line) { log_.lines.push_back(line); });
  EXPECT_EQ(token.use_count(), 1);
  LocalLog(kLogFailure, "f", 2, "second");
  EXPECT_EQ(*token, 1);
  ASSERT_EQ(log_.lines.size(), 1u);
}

TEST_F(LogTest, ALineShowsTimeLevelPlaceAndText) {
  EXPECT_EQ(FormatLogLine({1, "ntp/part", 7, "no server"}),
            "2024-01-01T00:00:00.000000Z 1 ntp/part:7 no server");
}

TEST_F(LogTest, ALineBreakInATextDoesNotMakeAnotherLine) {
  EXPECT_EQ(FormatLogLine({0, "f", 1, "a\nb\r\x1b[2J\x7f \xc3\xa9"}),
            "2024-01-01T00:00:00.000000Z 0 f:1 a?b??[2J? \xc3\xa9");
}

TEST_F(LogTest, WithoutASinkLinesGoToStandardError) {
  SetLogSink({});
  testing::internal::CaptureStderr();
  LocalLog(kLogFailure, "f", 1, "first");
  LocalLog(kLogProgress, "f", 2, "dropped");
  LocalLog(kLogFailure, "f", 3, "second");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "2024-01-01T00:00:00.000000Z 1 f:1 first\n2024-01-01T00:00:00.000000Z 1 f:3 second\n");
}

TEST_F(LogTest, ALineLoggedInsideTheSinkGoesToStandardError) {
  int called = 0;
  SetLogSink([&](const LogLine&) {
    ++called;
    LocalLog(kLogFailure, "inner", 1, "from inside");
  });
  testing::internal::CaptureStderr();
  LocalLog(kLogFailure, "outer", 1, "from outside");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), ::testing::HasSubstr("inner:1 from inside\n"));
  EXPECT_EQ(called, 1);
}

TEST_F(LogTest, LinesOfManyThreadsReachTheSinkOneAtATime) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  std::atomic<bool> is_inside{false};
  std::atomic<int> overlap_count{0};
  int line_count = 0;  // the sink's lock guards it
  SetLogSink([&](const LogLine&) {
    overlap_count += is_inside.exchange(true) ? 1 : 0;
    std::this_thread::yield();  // an invitation to the others
    ++line_count;
    is_inside = false;
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < kLines; ++n) {
        LocalLog(kLogFailure, "f", n, "line %d", n);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(overlap_count, 0);
  EXPECT_EQ(line_count, kThreads * kLines);
}

}  // namespace
}  // namespace base
