// SPDX-License-Identifier: Apache-2.0

// The relay itself, between plain sockets.
#include "testing/impairing_relay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/base/clock.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kCount = 60;

// The datagrams, each one byte, that reach the server of `kCount` that a client sends in a row, as they come.
Bytes WhatArrives(const netmodel::LinkOptions& to_server, uint64_t seed) {
  const LoopbackUdp server;
  const LoopbackUdp client;
  ImpairingRelay::Options options;
  options.to_server = to_server;
  options.seed = seed;
  const ImpairingRelay relay(server.local(), options);
  for (uint8_t i = 0; i < kCount; ++i) {
    client.SendTo(relay.endpoint(), Bytes{i});
    // One at a time, so that the system has no chance to drop one.
    EXPECT_TRUE(WaitUntil([&] { return relay.to_server().received == i + 1u; }));
  }
  EXPECT_TRUE(WaitUntil([&] {
    const auto counts = relay.to_server();
    return counts.carried == counts.received - counts.lost + counts.duplicated;
  }));
  Bytes arrived;
  const auto carried = relay.to_server().carried;
  while (arrived.size() < carried) {
    const auto bytes = server.Receive(kPatienceMs);
    if (!bytes) {
      break;
    }
    arrived.push_back(bytes->at(0));
  }
  return arrived;
}

TEST(ImpairingRelayTest, EachClientGetsTheRepliesToItsOwnRequests) {
  const LoopbackUdp server;
  const LoopbackUdp first;
  const LoopbackUdp second;
  const ImpairingRelay relay(server.local(), {});
  first.SendTo(relay.endpoint(), Bytes{1});
  second.SendTo(relay.endpoint(), Bytes{2});
  for (int i = 0; i < 2; ++i) {
    net::IPEndPoint source;
    const auto request = server.Receive(kPatienceMs, &source);
    ASSERT_TRUE(request);
    EXPECT_NE(source, first.local());
    EXPECT_NE(source, second.local());
    server.SendTo(source, Bytes{static_cast<uint8_t>(request->at(0) + 10)});
  }
  net::IPEndPoint source;
  EXPECT_THAT(first.Receive(kPatienceMs, &source), Optional(ElementsAre(11)));
  EXPECT_EQ(source, relay.endpoint());
  EXPECT_THAT(second.Receive(kPatienceMs), Optional(ElementsAre(12)));
  EXPECT_EQ(relay.to_server().carried, 2u);
  EXPECT_EQ(relay.to_client().carried, 2u);
}

TEST(ImpairingRelayTest, TheSeedAloneDecidesWhatIsLostAndWhatIsDoubled) {
  const netmodel::LinkOptions bad{.delay_us = 0, .loss_permille = 400, .duplicate_permille = 400};
  const Bytes once = WhatArrives(bad, 7);
  EXPECT_EQ(WhatArrives(bad, 7), once);
  EXPECT_NE(WhatArrives(bad, 8), once);
  EXPECT_NE(WhatArrives({.delay_us = 0}, 7), once);
}

TEST(ImpairingRelayTest, ADatagramThatIsHeldBackIsOvertaken) {
  const Bytes arrived = WhatArrives({.delay_us = 0, .reorder_permille = 300, .reorder_us = 20000}, 7);
  EXPECT_EQ(arrived.size(), kCount);
  EXPECT_FALSE(std::is_sorted(arrived.begin(), arrived.end()));
}

TEST(ImpairingRelayTest, EachDirectionHasItsOwnDelayAndNothingComesBeforeIt) {
  const LoopbackUdp server;
  const LoopbackUdp client;
  const ImpairingRelay relay(server.local(),
                             {.to_server = {.delay_us = 3000}, .to_client = {.delay_us = 30000}});
  const int64_t begin_ticks_us = base::GetSteadyTimeTicks();
  client.SendTo(relay.endpoint(), Bytes{1});
  net::IPEndPoint source;
  ASSERT_TRUE(server.Receive(kPatienceMs, &source));
  const int64_t at_server_ticks_us = base::GetSteadyTimeTicks();
  EXPECT_GE(at_server_ticks_us - begin_ticks_us, 3000);
  server.SendTo(source, Bytes{2});
  ASSERT_TRUE(client.Receive(kPatienceMs));
  EXPECT_GE(base::GetSteadyTimeTicks() - at_server_ticks_us, 30000);
}

TEST(ImpairingRelayTest, ALinkThatLosesEverythingCarriesNothing) {
  EXPECT_THAT(WhatArrives({.delay_us = 0, .loss_permille = 1000}, 7), IsEmpty());
}

}  // namespace
}  // namespace skorra
