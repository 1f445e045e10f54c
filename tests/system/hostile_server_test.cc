// SPDX-License-Identifier: Apache-2.0

// An attacker sees every request to a genuine server and sends a bogus reply to each: before the genuine
// reply, between two of them, or after it. Each bogus reply is dropped and counted under its reason, and the
// time that the manager tells never moves.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/metrics/key_metrics.h"
#include "testing/manager_fixture.h"
#include "transport/ntp_address_ledger.h"
#include "transport/ntp_packet.h"

namespace skorra {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int64_t kOneWayUs = 10000;
constexpr int64_t kLieUs = int64_t{3600} * 1000000;
constexpr uint64_t kRequests = 20;
const char* const kDuplicate = "rejected.duplicate";

enum class Moment { kBefore, kBetween, kAfter };

const char* Name(Moment moment) {
  switch (moment) {
    case Moment::kBefore:
      return "Before";
    case Moment::kBetween:
      return "Between";
    case Moment::kAfter:
      return "After";
  }
  return "";
}

struct Hostility {
  const char* name;
  const char* counter;
  // Whether the nonce is good, so that after the genuine reply the bogus one is first of all a duplicate.
  bool has_good_nonce;
  std::function<void(NtpPacket&)> change = [](NtpPacket&) {};
  std::function<void(Bytes&)> change_bytes = [](Bytes&) {};
  const char* source = "192.0.2.10";
  uint16_t port = kNtpPort;

  friend void PrintTo(const Hostility& hostility, std::ostream* out) { *out << hostility.name; }
};

uint32_t Code(const char* letters) {
  uint32_t code = 0;
  for (int i = 0; i < 4; ++i) {
    code = code << 8 | static_cast<uint8_t>(letters[i]);
  }
  return code;
}

void MakeKiss(NtpPacket& reply, const char* code) {
  reply.stratum = 0;
  reply.leap_indicator = 3;
  reply.reference_id = Code(code);
}

std::vector<Hostility> Hostilities() {
  const auto resize = [](size_t size) { return [size](Bytes& bytes) { bytes.resize(size); }; };
  const auto none = [](NtpPacket&) {};
  return {
      {"AnotherAddress", "rejected.wrong_source", false, none, resize(48), "192.0.2.66"},
      {"AnotherPort", "rejected.wrong_source", false, none, resize(48), "192.0.2.10", 124},
      {"LongerThanAnyReply", "rejected.truncated", false, none, resize(1025)},
      {"Empty", "rejected.short", false, none, resize(0)},
      {"OneByteShort", "rejected.short", false, none, resize(47)},
      {"OneByteMore", "rejected.extension", false, none, resize(49)},
      {"WithAMac", "rejected.extension", false, none, resize(68)},
      {"AnExtensionFieldBeyondTheEnd", "rejected.extension", false, none,
       [](Bytes& bytes) {
         bytes.resize(76);
         bytes[51] = 32;
       }},
      {"OurOwnRequestReflected", "rejected.mode", false, [](NtpPacket& reply) { reply.mode = 3; }},
      {"ABroadcast", "rejected.mode", false, [](NtpPacket& reply) { reply.mode = 5; }},
      {"VersionTwo", "rejected.version", false, [](NtpPacket& reply) { reply.version = 2; }},
      {"VersionFive", "rejected.version", false, [](NtpPacket& reply) { reply.version = 5; }},
      {"NoOrigin", "rejected.zero_origin", false, [](NtpPacket& reply) { reply.origin_timestamp = 0; }},
      {"AGuessedNonce", "rejected.unknown_nonce", false,
       [](NtpPacket& reply) { reply.origin_timestamp = ~reply.origin_timestamp; }},
      {"ANonceOneOff", "rejected.unknown_nonce", false, [](NtpPacket& reply) { ++reply.origin_timestamp; }},
      {"RateWithAGuessedNonce", "rejected.unknown_nonce", false,
       [](NtpPacket& reply) {
         MakeKiss(reply, "RATE");
         reply.origin_timestamp ^= 1;
       }},
      {"DenyWithoutOrigin", "rejected.zero_origin", false,
       [](NtpPacket& reply) {
         MakeKiss(reply, "DENY");
         reply.origin_timestamp = 0;
       }},
      {"StratumZeroWithoutACode", "rejected.stratum_zero", true, [](NtpPacket& reply) { reply.stratum = 0; }},
      {"NotSynchronisedYet", "kiss.init", true, [](NtpPacket& reply) { MakeKiss(reply, "INIT"); }},
      {"AnUnknownKissCode", "kiss.unknown", true, [](NtpPacket& reply) { MakeKiss(reply, "QQQQ"); }},
      {"LeapThree", "rejected.leap", true, [](NtpPacket& reply) { reply.leap_indicator = 3; }},
      {"StratumSixteen", "rejected.stratum", true, [](NtpPacket& reply) { reply.stratum = 16; }},
      {"NoReceiveStamp", "rejected.zero_receive", true,
       [](NtpPacket& reply) { reply.receive_timestamp = 0; }},
      {"NoTransmitStamp", "rejected.zero_transmit", true,
       [](NtpPacket& reply) { reply.transmit_timestamp = 0; }},
      {"TransmittedBeforeReceived", "rejected.transmit_before_receive", true,
       [](NtpPacket& reply) { reply.transmit_timestamp = reply.receive_timestamp - 1; }},
      {"FarFromItsReferenceClock", "rejected.root_distance", true,
       [](NtpPacket& reply) { reply.root_delay = 0xa0001; }},
      {"ANegativeRoundTrip", "rejected.negative_round_trip", true,
       [](NtpPacket& reply) { reply.transmit_timestamp += uint64_t{1} << 32; }},
  };
}

class HostileServerTest : public ManagerTest {
 protected:
  HostileServerTest() {
    world.SetHost("ntp.test", {{Address("192.0.2.10")}});
    counts_before_ = base::KeyMetrics::GetAllCounts();
  }

  void AddServer(std::function<void(netmodel::Exchange&)> script = nullptr) {
    network.AddServer(Address("192.0.2.10"), {.to_server = {.delay_us = kOneWayUs},
                                              .to_client = {.delay_us = kOneWayUs},
                                              .script = std::move(script)});
  }

  // A reply to `sent` by a clock an hour ahead, received when the genuine server does.
  static NtpPacket LyingReply(const sim::World& world, const sim::SentDatagram& sent) {
    const int64_t server_us = world.true_us() + kOneWayUs + kLieUs;
    return {.version = 4,
            .mode = 4,
            .stratum = 1,
            .origin_timestamp = DecodePacket(sent.bytes)->transmit_timestamp,
            .receive_timestamp = NtpTimestampFromUs(server_us),
            .transmit_timestamp = NtpTimestampFromUs(server_us)};
  }

  // One attempt; then nothing until every reply has come. The time is read every millisecond.
  void SyncAndWatchTheTime() {
    AddDomains({"ntp.test"});
    manager().AddObserver(observer);
    ASSERT_EQ(manager().Start(), 0);
    for (int i = 0; i < 5000; ++i) {
      world.RunFor(Ms(1));
      if (const int64_t time_us = manager().GetNtpTimestampFrom1970(); time_us != 0) {
        ASSERT_LE(std::llabs(time_us + base::kWindowsToUnixEpochUs - world.true_us()), 1) << "after " << i;
      }
    }
    ASSERT_EQ(observer->outcomes.size(), 1u);
    EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  }

  // The counts since the beginning under the names that begin with "ntp." and this prefix.
  std::map<std::string, uint64_t> Counted(const std::string& prefix) const {
    std::map<std::string, uint64_t> counted;
    for (const auto& [name, count] : base::KeyMetrics::GetAllCounts()) {
      const auto before = counts_before_.find(name);
      const uint64_t grown = count - (before == counts_before_.end() ? 0 : before->second);
      if (name.starts_with("ntp." + prefix) && grown > 0) {
        counted[name.substr(4)] = grown;
      }
    }
    return counted;
  }

  std::map<std::string, uint64_t> counts_before_;
};

class EveryHostilityTest : public HostileServerTest,
                           public testing::WithParamInterface<std::tuple<Hostility, Moment>> {};

TEST_P(EveryHostilityTest, AHostileReplyIsCountedForWhatItIsAndMovesNothing) {
  const auto& [hostility, moment] = GetParam();
  AddServer();
  // Replies come 10 ms apart, and 20 ms after their requests.
  const int64_t after_us = 2 * kOneWayUs + (moment == Moment::kBefore    ? -1000
                                            : moment == Moment::kBetween ? -5000
                                                                         : 1000);
  network.AddListener([&, h = hostility](const sim::SentDatagram& sent) {
    NtpPacket reply = LyingReply(world, sent);
    h.change(reply);
    const auto encoded = EncodePacket(reply);
    Bytes bytes(encoded.begin(), encoded.end());
    h.change_bytes(bytes);
    world.DeliverFromAnywhere(Address(h.source, h.port), sent.client, bytes, Us(after_us));
  });
  SyncAndWatchTheTime();

  const bool is_late = moment == Moment::kAfter && hostility.has_good_nonce;
  const std::map<std::string, uint64_t> expected = {{is_late ? kDuplicate : hostility.counter, kRequests}};
  std::map<std::string, uint64_t> counted = Counted("rejected.");
  counted.merge(Counted("kiss."));
  EXPECT_EQ(counted, expected);
  EXPECT_EQ(Counted("samples_received"), (std::map<std::string, uint64_t>{{"samples_received", kRequests}}));
}

INSTANTIATE_TEST_SUITE_P(, EveryHostilityTest,
                         testing::Combine(testing::ValuesIn(Hostilities()),
                                          testing::Values(Moment::kBefore, Moment::kBetween, Moment::kAfter)),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param).name) + Name(std::get<1>(row.param));
                         });

TEST_F(HostileServerTest, AReplyFromElsewhereNeverEvenReachesTheHandler) {
  AddServer();
  network.AddListener([&](const sim::SentDatagram& sent) {
    const auto bytes = EncodePacket(LyingReply(world, sent));
    world.Deliver(Address("192.0.2.66"), sent.client, {bytes.begin(), bytes.end()}, Us(kOneWayUs));
  });
  SyncAndWatchTheTime();
  EXPECT_TRUE(Counted("rejected.").empty());
}

TEST_F(HostileServerTest, TheGenuineReplyDoubledCountsOnce) {
  network.AddServer(Address("192.0.2.10"),
                    {.to_server = {.delay_us = kOneWayUs},
                     .to_client = {.delay_us = kOneWayUs, .duplicate_permille = 1000}});
  SyncAndWatchTheTime();
  EXPECT_EQ(Counted("rejected."), (std::map<std::string, uint64_t>{{kDuplicate, kRequests}}));
  EXPECT_EQ(Counted("samples_received"), (std::map<std::string, uint64_t>{{"samples_received", kRequests}}));
}

// A refusal that names a request is obeyed, also when an attacker who reads the requests sent it. The samples
// measured so far stay as they are.
struct Refusal {
  const char* name;
  const char* code;
  const char* counter;
  const char* withheld;
};

class RefusalAmongRepliesTest : public HostileServerTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusalAmongRepliesTest, ARefusalEndsTheBurstAndLeavesTheGenuineRepliesAlone) {
  AddServer();
  uint64_t request = 0;
  network.AddListener([&](const sim::SentDatagram& sent) {
    if (++request != 12) {
      return;
    }
    NtpPacket kiss = LyingReply(world, sent);
    MakeKiss(kiss, GetParam().code);
    const auto bytes = EncodePacket(kiss);
    world.Deliver(sent.server, sent.client, {bytes.begin(), bytes.end()}, Us(kOneWayUs / 2));
  });
  SyncAndWatchTheTime();
  EXPECT_EQ(Counted("kiss."), (std::map<std::string, uint64_t>{{GetParam().counter, 1}}));
  // Its own request has had its answer; the eleven before are answered as ever, and none follows.
  EXPECT_EQ(Counted("rejected."), (std::map<std::string, uint64_t>{{kDuplicate, 1}}));
  EXPECT_EQ(Counted("samples_received"), (std::map<std::string, uint64_t>{{"samples_received", 11}}));
  EXPECT_EQ(Counted("send_withheld."), (std::map<std::string, uint64_t>{{GetParam().withheld, 8}}));
}

TEST_P(RefusalAmongRepliesTest, ARefusalAfterTheGenuineReplyIsADuplicate) {
  AddServer();
  network.AddListener([&](const sim::SentDatagram& sent) {
    NtpPacket kiss = LyingReply(world, sent);
    MakeKiss(kiss, GetParam().code);
    const auto bytes = EncodePacket(kiss);
    world.Deliver(sent.server, sent.client, {bytes.begin(), bytes.end()}, Us(2 * kOneWayUs + 1));
  });
  SyncAndWatchTheTime();
  EXPECT_TRUE(Counted("kiss.").empty());
  EXPECT_EQ(Counted("rejected."), (std::map<std::string, uint64_t>{{kDuplicate, kRequests}}));
  EXPECT_EQ(Counted("samples_received"), (std::map<std::string, uint64_t>{{"samples_received", kRequests}}));
}

INSTANTIATE_TEST_SUITE_P(, RefusalAmongRepliesTest,
                         testing::Values(Refusal{"Rate", "RATE", "kiss.rate", "send_withheld.back_off"},
                                         Refusal{"Deny", "DENY", "kiss.deny", "send_withheld.denied"},
                                         Refusal{"Rstr", "RSTR", "kiss.rstr", "send_withheld.denied"}),
                         [](const auto& row) { return std::string(row.param.name); });

// Of every second request the genuine reply is lost, and only a bogus one comes.
struct Late {
  const char* name;
  const char* counter;
  int64_t after_us;
  int64_t claimed_work_us;
};

class LateReplyTest : public HostileServerTest, public testing::WithParamInterface<Late> {};

TEST_P(LateReplyTest, ALateReplyIsCountedForWhatItIsAndMovesNothing) {
  const Late& late = GetParam();
  AddServer([](netmodel::Exchange& exchange) { exchange.is_answered = exchange.index % 2 == 0; });
  uint64_t request = 0;
  network.AddListener([&](const sim::SentDatagram& sent) {
    if (request++ % 2 == 0) {
      return;
    }
    NtpPacket reply = LyingReply(world, sent);
    reply.transmit_timestamp =
        NtpTimestampFromUs(world.true_us() + kOneWayUs + kLieUs + late.claimed_work_us);
    const auto bytes = EncodePacket(reply);
    world.Deliver(sent.server, sent.client, {bytes.begin(), bytes.end()}, Us(late.after_us));
  });
  SyncAndWatchTheTime();
  EXPECT_EQ(Counted("rejected."), (std::map<std::string, uint64_t>{{late.counter, kRequests / 2}}));
}

INSTANTIATE_TEST_SUITE_P(, LateReplyTest,
                         testing::Values(Late{"HeldBackOnTheWay", "rejected.long_round_trip", 1500001, 0},
                                         Late{"HeldBackBehindAClaimOfWork", "rejected.expired", 3000001,
                                              2900000}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace skorra
