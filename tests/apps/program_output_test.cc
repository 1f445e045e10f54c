// SPDX-License-Identifier: Apache-2.0

// Standard streams that are full, closed or no longer read.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "testing/temp_dir.h"
#include "tests/apps/program.h"

namespace skorra {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// A pipe whose writing end the children inherit.
class Pipe {
 public:
  Pipe() {
    if (pipe(fds_.data()) != 0 || fcntl(fds_[0], F_SETFD, FD_CLOEXEC) != 0) {
      std::abort();
    }
  }
  ~Pipe() {
    CloseReader();
    close(fds_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  // The redirection of a child's standard output to this pipe.
  std::string redirection() const {
    const std::string fd = std::to_string(fds_[1]);
    return ">&" + fd + " " + fd + ">&-";
  }
  // What was written so far; waits for the first byte.
  std::string Read() const {
    std::array<char, 4096> buffer;
    const ssize_t size = read(fds_[0], buffer.data(), buffer.size());
    return {buffer.data(), size < 0 ? 0 : static_cast<size_t>(size)};
  }
  void CloseReader() {
    if (fds_[0] >= 0) {
      close(fds_[0]);
      fds_[0] = -1;
    }
  }

 private:
  std::array<int, 2> fds_{-1, -1};
};

// A standard output that takes nothing.
struct Loss {
  const char* what;
  std::string redirection;
  const char* error;
  const char* remedy;
};

std::vector<Loss> Losses(const Pipe& unread) {
  return {
      {"a full disk", ">/dev/full", "No space left on device", "Free some room"},
      {"a closed standard output", ">&-", "Bad file descriptor", "It is closed"},
      {"no reader", unread.redirection(), "Broken pipe", "The program that reads it has ended"},
  };
}

// Runs the program with each loss: it has to end with status 74, and say why.
void ExpectLossesReported(const Arguments& arguments, const char* also_shown = "") {
  Pipe unread;
  unread.CloseReader();
  for (const Loss& loss : Losses(unread)) {
    SCOPED_TRACE(loss.what + (" of " + testing::PrintToString(arguments)));
    const ChildExit exit = RunChild(Redirected(loss.redirection, arguments));
    EXPECT_EQ(exit.status, 74);
    EXPECT_THAT(exit.err, HasSubstr("skorra-ntp: cannot write to standard output, so the report is lost: " +
                                    std::string(loss.error) + "\n" + loss.remedy));
    EXPECT_THAT(exit.err, HasSubstr(also_shown));
  }
}

TEST(ProgramOutputTest, ALostReportOfASyncEndsWithStatus74) {
  Server server;
  ExpectLossesReported({"sync", server.name()});
  ExpectLossesReported({"sync", server.name(), "--json"});
}

TEST(ProgramOutputTest, ALostReportCountsMoreThanAFailedSync) {
  ExpectLossesReported({"sync", "nosuch.invalid"}, "Check the spelling of the names");
}

TEST(ProgramOutputTest, ALostDemonstrationEndsWithStatus74) { ExpectLossesReported({"demo"}); }

TEST(ProgramOutputTest, AServerWhoseFirstLineIsLostEndsAtOnceWithStatus74) {
  ExpectLossesReported({"serve"});
}

TEST(ProgramOutputTest, LostHelpEndsWithStatus74) {
  ExpectLossesReported({"--help"});
  ExpectLossesReported({"sync", "--help"});
  ExpectLossesReported({"--version"});
}

TEST(ProgramOutputTest, AServerWhoseReaderIsGoneAtTheEndEndsWithStatus74) {
  Pipe output;
  ChildProcess server(Redirected(output.redirection(), {"serve"}));
  EXPECT_THAT(output.Read(), testing::StartsWith("listening on "));
  output.CloseReader();
  server.Signal(SIGTERM);
  const ChildExit exit = server.Wait();
  EXPECT_EQ(exit.status, 74);
  EXPECT_THAT(exit.err, HasSubstr("Broken pipe"));
}

TEST(ProgramOutputTest, ADemonstrationWhoseReaderLeavesInTheMiddleEndsWithStatus74) {
  Pipe output;
  ChildProcess demo(Redirected(output.redirection(), {"demo"}));
  EXPECT_THAT(output.Read(), HasSubstr("A server on 127.0.0.1:"));
  output.CloseReader();
  const ChildExit exit = demo.Wait();
  EXPECT_EQ(exit.status, 74);
  EXPECT_THAT(exit.err, HasSubstr("Broken pipe"));
}

TEST(ProgramOutputTest, AFileThatMayNotGrowEndsWithStatus74) {
  const TempDir directory;
  const auto print_to = [](const std::string& path) {
    Arguments command = {"/bin/bash", "-c", "ulimit -f 0; exec \"$@\" >\"$0\"", path};
    const Arguments program = Command({"--version"});
    command.insert(command.end(), program.begin(), program.end());
    return RunChild(command);
  };
  if (print_to("/dev/null").status != 0) {
    GTEST_SKIP() << "this build does not start where no file may grow, as with the thread sanitizer";
  }
  const ChildExit exit = print_to(directory / "report");
  EXPECT_EQ(exit.status, 74);
  EXPECT_THAT(exit.err, HasSubstr("File too large"));
}

TEST(ProgramOutputTest, WrongUsageWithoutAStandardOutputStaysWrongUsage) {
  for (const char* redirection : {">/dev/full", ">&-"}) {
    const ChildExit exit = RunChild(Redirected(redirection, {"sync", "--nope"}));
    EXPECT_EQ(exit.status, 64);
    EXPECT_THAT(exit.err, Not(HasSubstr("standard output")));
  }
}

TEST(ProgramOutputTest, AClosedStandardErrorChangesNeitherReportNorStatus) {
  Server server;
  const ChildExit good = RunChild(Redirected("2>&-", {"sync", server.name(), "--log-level", "0"}));
  EXPECT_EQ(good.status, 0);
  EXPECT_THAT(good.out, HasSubstr("NTP time sync: success (result 0)\n"));
  EXPECT_THAT(good.out, Not(HasSubstr("Start NTP time sync"))) << "a line of the log";
  const ChildExit bad = RunChild(Redirected("2>&-", {"sync", "nosuch.invalid"}));
  EXPECT_EQ(bad.status, 2);
  EXPECT_THAT(bad.out, HasSubstr("no server name could be resolved"));
  EXPECT_EQ(RunChild(Redirected("2>&-", {"sync", "--nope"})).status, 64);
}

TEST(ProgramOutputTest, AProgramWithoutAnyStandardStreamEndsWithStatus74) {
  Server server;
  const ChildExit exit = RunChild(Redirected("<&- >&- 2>&-", {"sync", server.name()}));
  EXPECT_EQ(exit.status, 74);
  EXPECT_THAT(exit.out + exit.err, IsEmpty());
}

TEST(ProgramOutputTest, ClosedStandardStreamsAreOpenedOnDevNull) {
  Server server({}, "<&- 2>&-");
  for (const int fd : {0, 2}) {
    std::error_code error;
    const std::string link = "/proc/" + std::to_string(server.pid()) + "/fd/" + std::to_string(fd);
    EXPECT_EQ(std::filesystem::read_symlink(link, error), "/dev/null") << fd << ": " << error.message();
  }
  EXPECT_EQ(server.End(SIGTERM).status, 0);
}

}  // namespace
}  // namespace skorra
