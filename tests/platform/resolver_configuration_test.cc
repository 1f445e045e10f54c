// SPDX-License-Identifier: Apache-2.0

// Lookups on a machine whose resolver configuration is missing, empty or broken, and in the background
// behind a name server that is silent. Each case runs in a forked child with an empty /etc and a network of
// its own, so that nothing of this machine is touched and no question leaves it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/net/host_resolver.h"
#include "testing/addresses.h"
#include "testing/fake_name_server.h"
#include "testing/isolated_child.h"
#include "testing/log_recorder.h"
#include "testing/temp_dir.h"
#include "testing/wait_until.h"
#include "transport/ntp_packet.h"

namespace net {
namespace {

using skorra::FakeNameServer;
using skorra::kNtpPort;
using skorra::RunIsolated;
using skorra::Texts;
using skorra::WriteFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kConfiguration[] = "/etc/resolv.conf";
constexpr uint16_t kNameServerPort = 53;

struct ConfigurationRow {
  const char* name;
  std::function<void()> prepare;
  friend void PrintTo(const ConfigurationRow& row, std::ostream* out) { *out << row.name; }
};

std::function<void()> Holds(const std::string& text) {
  return [text] { WriteFile(kConfiguration, text); };
}

std::string Rubbish() {
  std::string bytes;
  uint32_t state = 1;
  for (int i = 0; i < 100000; ++i) {
    state = state * 1664525 + 1013904223;
    bytes.push_back(static_cast<char>(state >> 24));
  }
  return bytes;
}

std::string Repeated(const std::string& line, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += line;
  }
  return text;
}

std::vector<ConfigurationRow> Rows() {
  return {
      {"Missing", [] {}},
      {"Empty", Holds("")},
      {"OnlyComments", Holds("# nothing\n; here\n\n   \n")},
      {"RandomBytes", Holds(Rubbish())},
      {"OneEndlessLine", Holds("nameserver " + std::string(1000000, '9'))},
      {"NameServersThatAreNoAddresses",
       Holds("nameserver\nnameserver here\nnameserver 999.1.1.1\nnameserver ::g\nnameserver fe80::1%none\n")},
      {"OptionsThatAreNoOptions",
       Holds(
           "options timeout:-1 attempts:99999999999 ndots:-5 what:ever:\noptions\nsortlist 1.2.3.4/999 x/y\n"
           "search\ndomain\nlookup zz\nnameserver 127.0.0.1\n")},
      {"AnHourForEachOfManyTries", Holds("options timeout:3600 attempts:100\nnameserver 127.0.0.1\n")},
      {"AThousandNameServers", Holds(Repeated("nameserver 127.0.0.1\n", 1000))},
      {"LinesThatBeginWithAZeroByte", Holds(Repeated(std::string("\0\n\0\0x\n\n", 7), 1000))},
      {"APipeWithoutAWriter", [] { EXPECT_EQ(mkfifo(kConfiguration, 0644), 0); }},
      {"ADirectory", [] { EXPECT_EQ(mkdir(kConfiguration, 0755), 0); }},
      {"ALinkToNowhere", [] { EXPECT_EQ(symlink("/run/nothing/resolv.conf", kConfiguration), 0); }},
      {"ALinkToItself", [] { EXPECT_EQ(symlink(kConfiguration, kConfiguration), 0); }},
  };
}

class ResolverConfigurationTest : public testing::TestWithParam<ConfigurationRow> {};

TEST_P(ResolverConfigurationTest, NamesFailInTimeAndWhatNeedsNoNameServerWorks) {
  RunIsolated([] {
    GetParam().prepare();
    const auto timeout = base::TimeDelta::FromMilliseconds(400);
    const int64_t start_ticks_us = base::GetSteadyTimeTicks();
    const ResolveResult failed = ResolveHost("ntp.example.", kNtpPort, timeout);
    EXPECT_LT(base::GetSteadyTimeTicks() - start_ticks_us, 5000000);
    EXPECT_THAT(failed.addresses, IsEmpty());
    EXPECT_TRUE(failed.error == ResolveError::kFailed || failed.error == ResolveError::kTimedOut);
    EXPECT_THAT(failed.detail, HasSubstr(kConfiguration));

    EXPECT_THAT(Texts(ResolveHost("192.0.2.1", kNtpPort, timeout)), ElementsAre("192.0.2.1:123"));
    EXPECT_THAT(Texts(ResolveHost("localhost", kNtpPort, timeout)),
                ElementsAre("127.0.0.1:123", "[::1]:123"));
    WriteFile("/etc/hosts", "192.0.2.77 here.example\n2001:db8::77 here.example\n");
    const ResolveResult here = ResolveHost("here.example", kNtpPort, timeout);
    EXPECT_THAT(Texts(here), ElementsAre("192.0.2.77:123", "[2001:db8::77]:123")) << here.detail;
    EXPECT_EQ(here.ttl, base::TimeDelta::Max());
  });
}

TEST_P(ResolverConfigurationTest, ALaterLookupUsesTheMendedConfiguration) {
  RunIsolated([] {
    GetParam().prepare();
    EXPECT_NE(ResolveHost("ntp.example.", kNtpPort, base::TimeDelta::FromMilliseconds(100)).error,
              ResolveError::kNone);
    if (unlink(kConfiguration) != 0) {
      rmdir(kConfiguration);
    }
    WriteFile(kConfiguration, "nameserver 127.0.0.1\n");
    const FakeNameServer server(
        {.ipv4 = {.addresses = {{192, 0, 2, 1}}}, .ipv6 = {}, .port = kNameServerPort});
    const ResolveResult result =
        ResolveHost("ntp.example.", kNtpPort, base::TimeDelta::FromMilliseconds(skorra::kPatienceMs));
    EXPECT_THAT(Texts(result), ElementsAre("192.0.2.1:123")) << result.detail;
  });
}

INSTANTIATE_TEST_SUITE_P(Configurations, ResolverConfigurationTest, testing::ValuesIn(Rows()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(HostsFileTest, AFileThatIsNoTextIsPassedOver) {
  RunIsolated([] {
    const auto timeout = base::TimeDelta::FromMilliseconds(400);
    const std::string entry = "192.0.2.77 here.example\n";
    WriteFile("/etc/hosts", entry);
    EXPECT_EQ(ResolveHost("here.example", kNtpPort, timeout).error, ResolveError::kNone);
    WriteFile("/etc/hosts", std::string("\0\n", 2) + entry);
    EXPECT_THAT(ResolveHost("here.example", kNtpPort, timeout).addresses, IsEmpty());
    EXPECT_EQ(unlink("/etc/hosts"), 0);
    EXPECT_EQ(mkfifo("/etc/hosts", 0644), 0);
    EXPECT_THAT(ResolveHost("here.example", kNtpPort, timeout).addresses, IsEmpty());
  });
}

TEST(HostAliasesTest, AliasesAreUsedFromARegularFileOnly) {
  RunIsolated([] {
    WriteFile(kConfiguration, "nameserver 127.0.0.1\n");
    const FakeNameServer server({.ipv4 = {.addresses = {{192, 0, 2, 1}}},
                                 .ipv6 = {},
                                 .port = kNameServerPort,
                                 .silent_label = "short"});
    const auto timeout = base::TimeDelta::FromMilliseconds(400);
    skorra::LogRecorder log(base::kLogFailure);
    setenv("HOSTALIASES", "/etc/aliases", 1);
    // There is no such file, which is nothing to tell.
    EXPECT_EQ(ResolveHost("short", kNtpPort, timeout).error, ResolveError::kTimedOut);
    EXPECT_THAT(log.lines, IsEmpty());
    WriteFile("/etc/aliases", "short long.example.\n");
    const ResolveResult aliased = ResolveHost("short", kNtpPort, timeout);
    EXPECT_THAT(Texts(aliased), ElementsAre("192.0.2.1:123")) << aliased.detail;
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_EQ(unlink("/etc/aliases"), 0);
    EXPECT_EQ(mkfifo("/etc/aliases", 0644), 0);
    const int64_t start_ticks_us = base::GetSteadyTimeTicks();
    EXPECT_EQ(ResolveHost("short", kNtpPort, timeout).error, ResolveError::kTimedOut);
    EXPECT_EQ(ResolveHost("other", kNtpPort, timeout).error, ResolveError::kNone);
    EXPECT_LT(base::GetSteadyTimeTicks() - start_ticks_us, 5000000);
    ASSERT_EQ(log.lines.size(), 1u);  // once
    EXPECT_EQ(log.lines[0].level, base::kLogFailure);
    EXPECT_THAT(log.lines[0].text, HasSubstr("HOSTALIASES names '/etc/aliases', which is no regular file"));
  });
}

TEST(BackgroundLookupTest, EachLookupInTheBackgroundHasItsOwnTimeout) {
  RunIsolated([] {
    struct Report {
      std::string host;
      ResolveError error;
      int64_t at_ticks_us;
    };
    base::Lock lock;
    std::vector<Report> reports;
    const FakeNameServer server(
        {.ipv4 = {.is_silent = true}, .ipv6 = {.is_silent = true}, .port = kNameServerPort});
    WriteFile(kConfiguration, "nameserver 127.0.0.1\n");
    const int64_t start_ticks_us = base::GetSteadyTimeTicks();
    for (const char* host : {"one.example.", "two.example.", "three.example.", "192.0.2.1"}) {
      ResolveHostInBackground(host, kNtpPort, base::TimeDelta::FromMilliseconds(200),
                              [&, host](const ResolveResult& result) {
                                const base::AutoLock guard(lock);
                                reports.push_back({host, result.error, base::GetSteadyTimeTicks()});
                              });
    }
    EXPECT_TRUE(skorra::WaitUntil([&] {
      const base::AutoLock guard(lock);
      return reports.size() == 4;
    }));
    const base::AutoLock guard(lock);
    int64_t previous_ticks_us = start_ticks_us;
    for (const Report& report : reports) {
      SCOPED_TRACE(report.host);
      const bool is_name = report.host != "192.0.2.1";
      EXPECT_EQ(report.error, is_name ? ResolveError::kTimedOut : ResolveError::kNone);
      EXPECT_GE(report.at_ticks_us - previous_ticks_us, is_name ? 200000 : 0);
      EXPECT_LT(report.at_ticks_us - previous_ticks_us, 5000000);
      previous_ticks_us = report.at_ticks_us;
    }
    EXPECT_GE(server.question_count(), 6);
  });
}

}  // namespace
}  // namespace net
