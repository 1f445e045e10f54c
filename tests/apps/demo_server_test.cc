// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/demo_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/base/clock.h"
#include "testing/clock_reading.h"
#include "testing/loopback_demo_server.h"
#include "testing/loopback_udp.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kPacketSize = 48;

// A request of `version` and `mode` whose transmit time stamp is the bytes 1 to 8.
Bytes Request(int version = 4, int mode = 3) {
  Bytes request(kPacketSize);
  request[0] = static_cast<uint8_t>(version << 3 | mode);
  request[2] = 6;
  for (size_t i = 0; i < 8; ++i) {
    request[40 + i] = static_cast<uint8_t>(i + 1);
  }
  return request;
}

// What a request to `server` brings, and the wall clock before and after it. No reply fails the test.
struct Exchange {
  int64_t before_us = 0;
  Bytes reply;
  int64_t after_us = 0;
};

Exchange Ask(const DemoServer& server, const Bytes& request = Request()) {
  const LoopbackUdp client;
  Exchange exchange;
  exchange.before_us = SystemTimeFrom1970Us();
  EXPECT_TRUE(client.SendTo(server.local(), request));
  const auto reply = client.Receive(kPatienceMs);
  exchange.after_us = SystemTimeFrom1970Us();
  EXPECT_TRUE(reply);
  exchange.reply = reply.value_or(Bytes(kPacketSize));
  return exchange;
}

uint32_t ReadUint32(const Bytes& bytes, size_t at) {
  return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 |
         bytes[at + 3];
}

int64_t ReadTimeSince1970Us(const Bytes& bytes, size_t at) {
  const uint32_t era_seconds = ReadUint32(bytes, at) - 2208988800;
  return int64_t{era_seconds} * 1'000'000 +
         (static_cast<int64_t>(ReadUint32(bytes, at + 4)) * 1'000'000 >> 32);
}

TEST(DemoServerTest, TheReplyIsThatOfAPrimaryServerToThisRequest) {
  const auto server = OpenDemoServer({.clock_error_us = 2'345'678});
  const auto [before_us, reply, after_us] = Ask(*server);
  ASSERT_EQ(reply.size(), kPacketSize);
  const Bytes head(reply.begin(), reply.begin() + 16);
  EXPECT_EQ(head, (Bytes{0x24, 1, 6, 0xec, 0, 0, 0, 0x10, 0, 0, 0, 0x20, 'L', 'O', 'C', 'L'}));
  EXPECT_EQ(Bytes(reply.begin() + 24, reply.begin() + 32), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
  const int64_t reference_us = ReadTimeSince1970Us(reply, 16);
  const int64_t receive_us = ReadTimeSince1970Us(reply, 32);
  const int64_t transmit_us = ReadTimeSince1970Us(reply, 40);
  EXPECT_LT(reference_us, receive_us);
  // One microsecond for the rounding of the fraction.
  EXPECT_GE(receive_us, before_us + 2'345'678 - 1);
  EXPECT_LE(receive_us, transmit_us);
  EXPECT_LE(transmit_us, after_us + 2'345'678);
}

TEST(DemoServerTest, ANegativeErrorPutsTheClockBehind) {
  const auto server = OpenDemoServer({.clock_error_us = -3'600'500'000});
  const Bytes reply = Ask(*server).reply;
  const int64_t behind_us = SystemTimeFrom1970Us() - ReadTimeSince1970Us(reply, 40);
  EXPECT_GE(behind_us, 3'600'500'000);
  EXPECT_LE(behind_us, 3'600'500'000 + int64_t{kPatienceMs} * 1000);
}

TEST(DemoServerTest, RequestsOfVersionThreeAndFourAreAnsweredInTheirVersion) {
  const auto server = OpenDemoServer({});
  const LoopbackUdp client;
  for (const int version : {3, 4}) {
    ASSERT_TRUE(client.SendTo(server->local(), Request(version)));
    const auto reply = client.Receive(kPatienceMs);
    ASSERT_TRUE(reply) << "version " << version;
    EXPECT_EQ((*reply)[0], version << 3 | 4);
  }
}

TEST(DemoServerTest, ADatagramThatIsNoRequestGetsNoAnswer) {
  const auto server = OpenDemoServer({});
  const LoopbackUdp client;
  uint64_t sent = 0;
  for (int version = 0; version < 8; ++version) {
    for (int mode = 0; mode < 8; ++mode) {
      if (mode != 3 || (version != 3 && version != 4)) {
        ASSERT_TRUE(client.SendTo(server->local(), Request(version, mode)));
        ++sent;
      }
    }
  }
  Bytes short_request = Request();
  short_request.pop_back();
  ASSERT_TRUE(client.SendTo(server->local(), short_request));
  ASSERT_TRUE(client.SendTo(server->local(), Bytes{}));
  // The first answer is the one to this request, so there was none to those before.
  Bytes last = Request();
  last[47] = 99;
  ASSERT_TRUE(client.SendTo(server->local(), last));
  const auto reply = client.Receive(kPatienceMs);
  ASSERT_TRUE(reply);
  EXPECT_EQ((*reply)[31], 99);
  EXPECT_FALSE(client.Receive(0));
  EXPECT_EQ(server->counts().ignored, sent + 2);
}

TEST(DemoServerTest, ALongerRequestGetsTheHeaderOnly) {
  const auto server = OpenDemoServer({});
  Bytes request = Request();
  request.resize(68);
  const Bytes reply = Ask(*server, request).reply;
  EXPECT_EQ(reply.size(), kPacketSize);
}

TEST(DemoServerTest, AServerThatLosesEverythingAnswersNothing) {
  const auto server = OpenDemoServer({.loss = 1});
  const LoopbackUdp client;
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(client.SendTo(server->local(), Request()));
  }
  // On the loopback interface an answer is there as soon as it is sent.
  ASSERT_TRUE(WaitUntil([&] { return server->counts().lost == 10; }));
  EXPECT_FALSE(client.Receive(0));
  EXPECT_EQ(server->counts().answered, 0u);
}

TEST(DemoServerTest, ASeedLosesTheSameRequestsAgain) {
  const auto answered = [](uint64_t seed) {
    const auto server = OpenDemoServer({.loss = 0.5, .seed = seed});
    const LoopbackUdp client;
    std::vector<uint64_t> answered_so_far;
    for (uint64_t sent = 1; sent <= 40; ++sent) {
      EXPECT_TRUE(client.SendTo(server->local(), Request()));
      EXPECT_TRUE(WaitUntil([&] { return server->counts().answered + server->counts().lost == sent; }));
      answered_so_far.push_back(server->counts().answered);
    }
    return answered_so_far;
  };
  const auto first = answered(7);
  EXPECT_EQ(answered(7), first);
  EXPECT_NE(answered(8), first);
  EXPECT_GT(first.back(), 5u);
  EXPECT_LT(first.back(), 35u);
}

TEST(DemoServerTest, HalfOfTheDelayPassesInEachDirection) {
  constexpr int64_t kDelayUs = 40'000;
  const auto server = OpenDemoServer({.delay_us = kDelayUs});
  const auto [before_us, reply, after_us] = Ask(*server);
  EXPECT_GE(ReadTimeSince1970Us(reply, 32) - before_us, kDelayUs / 2 - 1);
  EXPECT_GE(after_us - ReadTimeSince1970Us(reply, 40), kDelayUs / 2 - 1);
}

TEST(DemoServerTest, JitterMakesRoundTripsDiffer) {
  constexpr int64_t kJitterUs = 20'000;
  const auto server = OpenDemoServer({.jitter_us = kJitterUs});
  const LoopbackUdp client;
  int64_t least_us = INT64_MAX;
  int64_t most_us = 0;
  for (int i = 0; i < 20; ++i) {
    const int64_t before_ticks_us = base::GetSteadyTimeTicks();
    ASSERT_TRUE(client.SendTo(server->local(), Request()));
    ASSERT_TRUE(client.Receive(kPatienceMs));
    const int64_t took_us = base::GetSteadyTimeTicks() - before_ticks_us;
    least_us = std::min(least_us, took_us);
    most_us = std::max(most_us, took_us);
  }
  EXPECT_LT(least_us, kJitterUs);
  EXPECT_GT(most_us, kJitterUs / 2);
}

TEST(DemoServerTest, ARequestOverIPv6IsAnswered) {
  if (!LoopbackUdp(net::IPEndPoint::Family::kIPv6).is_open()) {
    GTEST_SKIP() << "this machine has no ::1";
  }
  const auto server = OpenDemoServer({.listen = Address("::1", 0)});
  const LoopbackUdp client(net::IPEndPoint::Family::kIPv6);
  ASSERT_TRUE(client.SendTo(server->local(), Request()));
  EXPECT_TRUE(client.Receive(kPatienceMs));
}

TEST(DemoServerTest, APortInUseIsRefusedWithTheReason) {
  const LoopbackUdp occupant;
  std::string error;
  EXPECT_EQ(DemoServer::Open({.listen = occupant.local()}, &error), nullptr);
  EXPECT_EQ(error, "Address already in use");
}

TEST(DemoServerTest, AServerEndsWithRepliesStillUnderWay) {
  const auto server = OpenDemoServer({.delay_us = 600'000'000});
  const LoopbackUdp client;
  ASSERT_TRUE(client.SendTo(server->local(), Request()));
  ASSERT_TRUE(WaitUntil([&] { return server->counts().received == 1; }));
  EXPECT_EQ(server->counts().answered, 0u);
}

}  // namespace
}  // namespace skorra
