// SPDX-License-Identifier: Apache-2.0
#include "platform/base/log_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/base/log.h"
#include "testing/temp_dir.h"

namespace base {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

class LogFileTest : public ::testing::Test {
 protected:
  ~LogFileTest() override { SetLogSink({}); }

  const skorra::TempDir directory_;
  const std::string path_ = directory_ / "skorra.log";
};

TEST_F(LogFileTest, LinesAreInTheFileAtOnce) {
  ASSERT_EQ(LogToFile({path_}), "");
  LocalLog(kLogFailure, "ntp/part", 7, "first %d", 1);
  EXPECT_THAT(skorra::ReadFile(path_), MatchesRegex("20[0-9-]+T[0-9:.]+Z 1 ntp/part:7 first 1\n"));
  LocalLog(kLogFailure, "ntp/part", 8, "second");
  EXPECT_THAT(skorra::ReadFile(path_), HasSubstr("ntp/part:8 second\n"));
}

TEST_F(LogFileTest, AnExistingFileIsContinued) {
  skorra::WriteFile(path_, "from before\n");
  ASSERT_EQ(LogToFile({path_}), "");
  LocalLog(kLogFailure, "f", 1, "new");
  EXPECT_THAT(skorra::ReadFile(path_), MatchesRegex("from before\n.* 1 f:1 new\n"));
}

TEST_F(LogFileTest, TheFileIsRotatedBeforeItGrowsBeyondTheLimit) {
  ASSERT_EQ(LogToFile({path_, 200, 2}), "");
  for (int i = 0; i < 20; ++i) {
    LocalLog(kLogFailure, "f", i, "%s", std::string(60, static_cast<char>('a' + i)).c_str());
  }
  for (const char* name : {"skorra.log", "skorra.1.log", "skorra.2.log"}) {
    const std::string text = skorra::ReadFile(directory_ / name);
    EXPECT_GT(text.size(), 60u) << name;
    EXPECT_LE(text.size(), 200u) << name;
  }
  EXPECT_THAT(skorra::ReadFile(path_), HasSubstr("tttt"));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "skorra.3.log"));
}

TEST_F(LogFileTest, AFileThatCannotBeWrittenIsReportedAndTheSinkStays) {
  struct Case {
    LogFileOptions options;
    const char* reason;
  };
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Case cases[] = {
      {{directory_ / "absent/skorra.log"}, "No such file or directory"},
      {{directory_ / "."}, "Is a directory"},
      {{""}, "No such file or directory"},
      {{fifo}, "it is a FIFO without a reader, or a socket; give a regular file or a character device"},
      {{path_, 0}, "max_size"},
  };
  std::string last_text;
  SetLogSink([&](const LogLine& line) { last_text = line.text; });
  for (const Case& c : cases) {
    EXPECT_THAT(LogToFile(c.options), HasSubstr(c.reason)) << c.options.path;
    LocalLog(kLogFailure, "f", 1, "after %s", c.options.path.c_str());
    EXPECT_EQ(last_text, "after " + c.options.path);
  }
}

TEST_F(LogFileTest, AFifoIsNoLogFileEvenWhileItIsRead) {
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  EXPECT_THAT(LogToFile({fifo}), HasSubstr("it is a FIFO; give a regular file or a character device"));
  close(reader);
}

TEST_F(LogFileTest, ADeviceIsWrittenAndNeverRotated) {
  const std::string device = directory_ / "null";
  ASSERT_EQ(symlink("/dev/null", device.c_str()), 0);
  ASSERT_EQ(LogToFile({device, 100, 2}), "");
  testing::internal::CaptureStderr();
  for (int i = 0; i < 20; ++i) {
    LocalLog(kLogFailure, "f", i, "%s", std::string(60, 'x').c_str());
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(std::filesystem::is_symlink(device));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "null.1"));
}

TEST_F(LogFileTest, LinesThatTheFileDoesNotTakeGoToStandardError) {
  // Opens well, then has no space for anything.
  ASSERT_EQ(LogToFile({"/dev/full"}), "");
  testing::internal::CaptureStderr();
  LocalLog(kLogFailure, "f", 1, "first");
  LocalLog(kLogFailure, "f", 2, "second");
  EXPECT_THAT(
      testing::internal::GetCapturedStderr(),
      MatchesRegex(
          "skorra: cannot write the log file '/dev/full': [^\n]*\n[^\n]* f:1 first\n[^\n]* f:2 second\n"));
}

TEST_F(LogFileTest, AFileThatCanBeWrittenAgainIsUsedAgain) {
  // The folder goes and a file takes its place: the rotation can neither rename nor reopen.
  std::filesystem::create_directory(directory_ / "folder");
  const std::string path = directory_ / "folder/skorra.log";
  ASSERT_EQ(LogToFile({path, 200, 1}), "");
  LocalLog(kLogFailure, "f", 1, "%s", std::string(120, 'x').c_str());
  std::filesystem::remove_all(directory_ / "folder");
  skorra::WriteFile(directory_ / "folder", "a file in the way");
  testing::internal::CaptureStderr();
  LocalLog(kLogFailure, "f", 2, "%s", std::string(120, 'y').c_str());
  LocalLog(kLogFailure, "f", 3, "short");
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              MatchesRegex("skorra: cannot write [^\n]*\n[^\n]* f:2 y*\n[^\n]* f:3 short\n"));
  std::filesystem::remove(directory_ / "folder");
  std::filesystem::create_directory(directory_ / "folder");
  LocalLog(kLogFailure, "f", 4, "again");
  EXPECT_THAT(skorra::ReadFile(path), MatchesRegex(".* f:4 again\n"));
}

}  // namespace
}  // namespace base
