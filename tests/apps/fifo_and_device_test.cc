// SPDX-License-Identifier: Apache-2.0

// The program where its environment names files that are none: it must not wait for what never comes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "testing/child_process.h"
#include "testing/isolated_child.h"
#include "testing/loopback_ntp_server.h"
#include "testing/temp_dir.h"

namespace skorra {
namespace {

using testing::HasSubstr;

constexpr int kHangsAfterMs = 20'000;  // more than the program's own limit

TEST(SpecialFilesTest, AConfigurationThatIsAFifoOrADeviceIsAWarningAndTheSyncGoesOn) {
  const LoopbackNtpServer server(netmodel::ServerOptions{});
  const TempDir directory;
  const std::string fifo = directory / "skorra.toml";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, std::string("/dev/zero")}) {
    SCOPED_TRACE(path);
    const ChildExit exit = RunChild({SKORRA_NTP_PROGRAM, "sync", server.endpoint().ToString()},
                                    {"SKORRA_NTP_CONFIG=" + path}, kHangsAfterMs);
    EXPECT_EQ(exit.status, 0);
    EXPECT_THAT(exit.err, HasSubstr("warning: " + path + ": cannot read the configuration file: it is a "));
  }
}

TEST(SpecialFilesTest, HostAliasesThatAreAFifoDoNotHoldTheProgram) {
  RunIsolated([] {
    const LoopbackNtpServer server(netmodel::ServerOptions{});
    const std::string fifo = "/etc/aliases";
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const ChildExit exit =
        RunChild({SKORRA_NTP_PROGRAM, "sync", "no-such-host", server.endpoint().ToString()},
                 {"HOSTALIASES=" + fifo}, kHangsAfterMs);
    EXPECT_EQ(exit.status, 0);
    EXPECT_THAT(exit.err, HasSubstr("warning: HOSTALIASES names '/etc/aliases', which is a FIFO"));
  });
}

}  // namespace
}  // namespace skorra
