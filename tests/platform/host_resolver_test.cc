// SPDX-License-Identifier: Apache-2.0

// Lookups on name servers that answer well, badly, late or not at all.
#include "platform/net/host_resolver.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/linux/name_lookup.h"
#include "testing/addresses.h"
#include "testing/fake_name_server.h"
#include "testing/log_recorder.h"
#include "testing/loopback_udp.h"
#include "testing/refuse_system_call.h"
#include "testing/wait_until.h"
#include "transport/ntp_packet.h"

namespace net {
namespace {

using skorra::FakeNameServer;
using skorra::kNtpPort;
using skorra::Texts;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::vector<uint8_t> kFirst = {192, 0, 2, 1};
const std::vector<uint8_t> kSecond = {192, 0, 2, 2};
const std::vector<uint8_t> kSixth = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 6};

// The trailing dot keeps the lookup from trying the machine's search domains.
constexpr char kName[] = "ntp.example.";

const auto kLong = base::TimeDelta::FromMilliseconds(skorra::kPatienceMs);

// The first name in /etc/hosts that is not a kind of localhost.
std::string FirstNameOfHostsFile() {
  std::ifstream file("/etc/hosts");
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string name;
    words >> name;  // the address
    while (words >> name) {
      if (name.find("local") == std::string::npos && name.find("ip6-") == std::string::npos) {
        return name;
      }
    }
  }
  return {};
}

TEST(HostResolverTest, BothFamiliesAreFoundWithThePortAndWithoutRepetitions) {
  const FakeNameServer server({{false, 0, {kFirst, kSecond, kFirst}}, {false, 0, {kSixth}}, 0});
  const ResolveResult result = internal::LookUpHost(kName, 4123, kLong, server.address());
  EXPECT_EQ(result.error, ResolveError::kNone);
  EXPECT_EQ(result.detail, "");
  EXPECT_THAT(Texts(result), ElementsAre("192.0.2.1:4123", "192.0.2.2:4123", "[2001:db8::6]:4123"));
}

TEST(HostResolverTest, ANameOfOneFamilyIsFound) {
  const FakeNameServer server({{false, 0, {kFirst}}, {}, 0});
  EXPECT_THAT(Texts(internal::LookUpHost(kName, kNtpPort, kLong, server.address())),
              ElementsAre("192.0.2.1:123"));
}

TEST(HostResolverTest, ALostQuestionIsRepeated) {
  const FakeNameServer server({{false, 0, {kFirst}}, {false, 0, {kSixth}}, 2});
  const ResolveResult result =
      internal::LookUpHost(kName, kNtpPort, base::TimeDelta::FromSeconds(2), server.address());
  EXPECT_THAT(Texts(result), ElementsAre("192.0.2.1:123", "[2001:db8::6]:123"));
  EXPECT_GE(server.question_count(), 4);
}

TEST(HostResolverTest, TheSecondNameServerIsAskedWhenTheFirstIsSilent) {
  const FakeNameServer silent({{true, 0, {}}, {true, 0, {}}, 0});
  const FakeNameServer good({{false, 0, {kFirst}}, {}, 0});
  EXPECT_THAT(Texts(internal::LookUpHost(kName, kNtpPort, base::TimeDelta::FromSeconds(2),
                                         silent.address() + ',' + good.address())),
              ElementsAre("192.0.2.1:123"));
}

TEST(HostResolverTest, AnUnknownNameIsNotFound) {
  const FakeNameServer server({{false, 3, {}}, {false, 3, {}}, 0});
  const ResolveResult result = internal::LookUpHost(kName, kNtpPort, kLong, server.address());
  EXPECT_EQ(result.error, ResolveError::kNotFound);
  EXPECT_THAT(result.addresses, IsEmpty());
  EXPECT_THAT(result.detail, HasSubstr("'ntp.example.'"));
}

TEST(HostResolverTest, ANameWithoutAnAddressIsNotFound) {
  const FakeNameServer server({{}, {}, 0});
  EXPECT_EQ(internal::LookUpHost(kName, kNtpPort, kLong, server.address()).error, ResolveError::kNotFound);
}

TEST(HostResolverTest, ANameThatCannotExistIsNotFoundAndNotAskedFor) {
  const FakeNameServer server({{false, 0, {kFirst}}, {}, 0});
  for (const std::string& name : {std::string("a..b"), std::string(64, 'a') + ".", std::string()}) {
    EXPECT_EQ(internal::LookUpHost(name, kNtpPort, kLong, server.address()).error, ResolveError::kNotFound)
        << name;
  }
  EXPECT_EQ(server.question_count(), 0);
}

TEST(HostResolverTest, ANameUnderInvalidIsNotFoundAndNotAskedFor) {
  const FakeNameServer server({{false, 0, {kFirst}}, {}, 0});
  for (const char* const name : {"invalid", "nosuch.invalid", "NoSuch.INVALID.", "a.b.invalid"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(internal::LookUpHost(name, kNtpPort, kLong, server.address()).error, ResolveError::kNotFound);
  }
  EXPECT_EQ(server.question_count(), 0);
  // A name that only looks alike is asked for.
  EXPECT_THAT(Texts(internal::LookUpHost("ntp.notinvalid.", kNtpPort, kLong, server.address())),
              ElementsAre("192.0.2.1:123"));
}

TEST(HostResolverTest, ANameServerThatRefusesIsAFailure) {
  for (const uint8_t response_code : {uint8_t{2}, uint8_t{5}}) {  // server failure, refused
    const FakeNameServer server({{false, response_code, {}}, {false, response_code, {}}, 0});
    const ResolveResult result = internal::LookUpHost(kName, kNtpPort, kLong, server.address());
    EXPECT_EQ(result.error, ResolveError::kFailed) << result.detail;
    EXPECT_THAT(result.detail, HasSubstr("/etc/resolv.conf"));
  }
}

TEST(HostResolverTest, AClosedPortEndsInTimeAndPointsToTheConfiguration) {
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  const ResolveResult result = internal::LookUpHost(kName, kNtpPort, base::TimeDelta::FromMilliseconds(400),
                                                    skorra::UnusedEndPoint().ToString());
  EXPECT_THAT(result.addresses, IsEmpty());
  EXPECT_TRUE(result.error == ResolveError::kFailed || result.error == ResolveError::kTimedOut);
  EXPECT_THAT(result.detail, HasSubstr("/etc/resolv.conf"));
  EXPECT_LT(base::GetSteadyTimeTicks() - start_ticks_us, 2000000);
}

TEST(HostResolverTest, ALookupMayTakeTheWholeLimitAndNoMore) {
  const FakeNameServer server({{true, 0, {}}, {true, 0, {}}, 0});
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  const ResolveResult result =
      internal::LookUpHost(kName, kNtpPort, base::TimeDelta::FromMilliseconds(800), server.address());
  const int64_t taken_us = base::GetSteadyTimeTicks() - start_ticks_us;
  EXPECT_EQ(result.error, ResolveError::kTimedOut);
  EXPECT_THAT(result.detail, HasSubstr("at most 800 ms"));
  EXPECT_GE(taken_us, 800000) << "an answer would have counted until then";
  EXPECT_LT(taken_us, 3000000);
  EXPECT_GE(server.question_count(), 2);
}

TEST(HostResolverTest, AnAnswerForOneFamilyCountsWhenTheOtherNeverComes) {
  const FakeNameServer server({{false, 0, {kFirst}}, {true, 0, {}}, 0});
  const ResolveResult result =
      internal::LookUpHost(kName, kNtpPort, base::TimeDelta::FromMilliseconds(300), server.address());
  EXPECT_THAT(Texts(result), ElementsAre("192.0.2.1:123")) << result.detail;
}

TEST(HostResolverTest, LocalhostIsTheLoopbackAddressWithoutALookup) {
  const FakeNameServer server({{false, 0, {kFirst}}, {false, 0, {kSixth}}, 0});
  for (const char* name : {"localhost", "LocalHost", "localhost."}) {
    const ResolveResult result = internal::LookUpHost(name, kNtpPort, base::TimeDelta(), server.address());
    EXPECT_THAT(Texts(result), ElementsAre("127.0.0.1:123", "[::1]:123")) << name;
  }
  EXPECT_EQ(server.question_count(), 0);
}

TEST(HostResolverTest, ANameOfTheHostsFileNeedsNoNameServer) {
  const std::string name = FirstNameOfHostsFile();
  if (name.empty()) {
    GTEST_SKIP() << "this machine's hosts file has no name but localhost";
  }
  const FakeNameServer silent({{true, 0, {}}, {true, 0, {}}, 0});
  const ResolveResult result = internal::LookUpHost(name, kNtpPort, kLong, silent.address());
  EXPECT_THAT(result.addresses, Not(IsEmpty())) << name << ": " << result.detail;
  EXPECT_EQ(result.ttl, base::TimeDelta::Max());
  EXPECT_EQ(silent.question_count(), 0);
}

TEST(HostResolverTest, TheShortestTimeToLiveCounts) {
  const struct {
    const char* what;
    FakeNameServer::Behaviour ipv4;
    FakeNameServer::Behaviour ipv6;
    int64_t expected_s;
  } rows[] = {
      {"One family has the only record.", {.addresses = {kFirst}, .ttl_s = 700}, {}, 700},
      {"That of IPv4 is shorter.",
       {.addresses = {kFirst}, .ttl_s = 300},
       {.addresses = {kSixth}, .ttl_s = 700},
       300},
      {"That of IPv6 is shorter.",
       {.addresses = {kFirst}, .ttl_s = 700},
       {.addresses = {kSixth}, .ttl_s = 300},
       300},
      {"The name is an alias that ends before the address does.",
       {.addresses = {kFirst}, .ttl_s = 700, .alias_ttl_s = 120},
       {},
       120},
      {"The address ends before the alias that leads to it.",
       {.addresses = {kFirst}, .ttl_s = 110, .alias_ttl_s = 700},
       {},
       110},
      {"No time at all.", {.addresses = {kFirst}, .ttl_s = 0}, {}, 0},
      {"The longest that there is.", {.addresses = {kFirst}, .ttl_s = 0x7fffffff}, {}, 0x7fffffff},
      {"The highest bit is set: that is 0.", {.addresses = {kFirst}, .ttl_s = 0x80000001}, {}, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const FakeNameServer server({row.ipv4, row.ipv6, 0});
    const ResolveResult result = internal::LookUpHost(kName, kNtpPort, kLong, server.address());
    EXPECT_THAT(result.addresses, Not(IsEmpty())) << result.detail;
    EXPECT_EQ(result.ttl, base::TimeDelta::FromSeconds(row.expected_s));
  }
}

TEST(HostResolverTest, ALookupInTheBackgroundWhoseThreadCannotStartWaitsForALaterOne) {
  base::Lock lock;
  std::vector<std::string> reported;
  const auto look_up = [&](const std::string& literal) {
    ResolveHostInBackground(literal, kNtpPort, kLong, [&](const ResolveResult& result) {
      const base::AutoLock guard(lock);
      reported.push_back(result.addresses.at(0).ToString());
    });
  };
  const auto reported_count = [&] {
    const base::AutoLock guard(lock);
    return reported.size();
  };
  bool is_refused = false;
  std::thread([&] {
    const skorra::LogSilence silence;
    is_refused = skorra::RefuseSystemCallOnThisThread(SYS_clone3, EAGAIN);
    look_up("192.0.2.1");
  }).join();
  ASSERT_TRUE(is_refused);
  EXPECT_EQ(reported_count(), 0u);
  look_up("192.0.2.2");
  ASSERT_TRUE(skorra::WaitUntil([&] { return reported_count() == 2; }));
  EXPECT_THAT(reported, ElementsAre("192.0.2.1:123", "192.0.2.2:123"));
}

TEST(HostResolverTest, ALookupThatCannotWaitFailsAtOnce) {
  const skorra::LoopbackUdp silent;
  ResolveResult result;
  const int64_t before_ticks_us = base::GetSteadyTimeTicks();
  std::thread([&] {
    ASSERT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_poll, ENOMEM));
    result = internal::LookUpHost(kName, kNtpPort, kLong, silent.local().ToString());
  }).join();
  EXPECT_EQ(result.error, ResolveError::kFailed) << result.detail;
  EXPECT_LT(base::GetSteadyTimeTicks() - before_ticks_us, kLong.InMicroseconds() / 2);
}

TEST(HostResolverTest, ATimeoutOfZeroAsksNobodyForLong) {
  const FakeNameServer silent({{true, 0, {}}, {true, 0, {}}, 0});
  EXPECT_EQ(internal::LookUpHost(kName, kNtpPort, base::TimeDelta(), silent.address()).error,
            ResolveError::kTimedOut);
}

TEST(HostResolverTest, ErrorsHaveStableNames) {
  EXPECT_STREQ(ResolveErrorName(ResolveError::kNotFound), "not_found");
  EXPECT_STREQ(ResolveErrorName(ResolveError::kTimedOut), "timed_out");
  EXPECT_STREQ(ResolveErrorName(ResolveError::kFailed), "failed");
}

}  // namespace
}  // namespace net
