// SPDX-License-Identifier: Apache-2.0

// The program with names whose name server answers for some of them only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "testing/child_process.h"
#include "testing/fake_name_server.h"
#include "testing/isolated_child.h"
#include "testing/loopback_ntp_server.h"
#include "testing/temp_dir.h"

namespace skorra {
namespace {

using testing::HasSubstr;

TEST(SyncNamesTest, AGoodServerAmongTenNamesThatHangSyncs) {
  RunIsolated([] {
    WriteFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    const FakeNameServer names(
        {.ipv4 = {.addresses = {{127, 0, 0, 1}}}, .ipv6 = {}, .port = 53, .silent_label = "silent"});
    const LoopbackNtpServer server(netmodel::ServerOptions{});
    std::vector<std::string> command = {SKORRA_NTP_PROGRAM, "sync", "--json"};
    for (int i = 0; i < 10; ++i) {
      command.push_back("silent." + std::to_string(i) + ".example.");
    }
    command.insert(command.begin() + 8, "good.example.:" + std::to_string(server.endpoint().port()));

    const ChildExit exit = RunChild(command);
    EXPECT_EQ(exit.status, 0) << exit.err;
    const auto json = nlohmann::json::parse(exit.out);
    EXPECT_EQ(json["result"], 0);
    EXPECT_EQ(json["server"], server.endpoint().ToString());
    EXPECT_EQ(json["domain_errors"]["timed_out"], 10);
    EXPECT_THAT(exit.err, HasSubstr("cannot resolve silent.9.example.: "));
  });
}

}  // namespace
}  // namespace skorra
