// SPDX-License-Identifier: Apache-2.0

// Which requests leave, and what the handler makes of answers other than a sample: bursts, kiss codes, the
// age of nonces, time stamps.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/config/base_cfg.h"
#include "testing/config_scope.h"
#include "testing/packet_handler_fixture.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

constexpr uint32_t kRate = 0x52415445;
constexpr uint32_t kDeny = 0x44454e59;
constexpr uint32_t kRstr = 0x52535452;
constexpr uint32_t kInit = 0x494e4954;
constexpr uint32_t kStep = 0x53544550;
constexpr uint32_t kDrop = 0x44524f50;

class PacketHandlerBurstsTest : public NtpTimePacketHandlerTest {
 protected:
  void Configure(const config::NumberEntry& entry, uint64_t value) {
    EXPECT_EQ(config_.Set(entry, value), "");
  }
  // Twenty calls 10 ms apart, as the time manager makes them; the numbers of those whose request left.
  std::vector<int> Burst(const net::IPEndPoint& server = kServer) {
    std::vector<int> left;
    for (int call = 0; call < 20; ++call) {
      const size_t before = sent_.size();
      Send(server);
      if (sent_.size() > before) {
        left.push_back(call);
      }
      world_.RunFor(TimeDelta::FromMilliseconds(10));
    }
    return left;
  }
  NtpPacket KissTo(const sim::SentDatagram& sent, uint32_t code) const {
    NtpPacket kiss = ReplyTo(sent);
    kiss.stratum = 0;
    kiss.leap_indicator = 3;
    kiss.reference_id = code;
    return kiss;
  }
  void Kiss(uint32_t code) {
    is_answering_ = false;
    Send();
    Deliver(sent_.back(), KissTo(sent_.back(), code));
    world_.RunFor(TimeDelta::FromMilliseconds(100));
  }
  static uint64_t RequestsTo(const net::IPEndPoint& server) {
    return NtpAddressLedger::GetInstance()->GetCounts()[server].requests_sent;
  }

  ConfigScope config_;
};

TEST_F(PacketHandlerBurstsTest, ABurstIsThinnedEvenlyToTheConfiguredNumber) {
  const struct {
    uint64_t requests;
    std::vector<int> expected;
  } rows[] = {
      {3, {0, 7, 14}},
      {8, {0, 3, 5, 8, 10, 13, 15, 18}},
      {19, {0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}},
      {20, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.requests);
    Configure(config::BaseCfg().ntp_requests_per_burst, row.requests);
    const uint64_t thinned_before = Count("send_thinned");
    const uint64_t ledger_before = RequestsTo(kServer);
    Prepare();
    EXPECT_EQ(Burst(), row.expected);
    EXPECT_EQ(Count("send_thinned"), thinned_before + 20 - row.requests);
    EXPECT_EQ(RequestsTo(kServer), ledger_before + row.requests);
  }
}

TEST_F(PacketHandlerBurstsTest, AnAttemptKeepsTheRequestsPerBurstItBeganWith) {
  Prepare();
  Configure(config::BaseCfg().ntp_requests_per_burst, 3);
  EXPECT_EQ(Burst().size(), 20u);
  Prepare();
  EXPECT_EQ(Burst().size(), 3u);
}

// Domains that are added before the first attempt runs on the queue begin its bursts before it does.
TEST_F(PacketHandlerBurstsTest, ABurstUnderWayStaysOneBurstWhenTheNextAttemptPrepares) {
  Configure(config::BaseCfg().ntp_requests_per_burst, 8);
  const uint64_t before = RequestsTo(kServer);
  Prepare();
  for (int call = 0; call < 20; ++call) {
    Send();
    if (call == 0) {
      Prepare();
    }
    world_.RunFor(TimeDelta::FromMilliseconds(10));
  }
  EXPECT_EQ(RequestsTo(kServer) - before, 8u);
  Prepare();
  EXPECT_EQ(Burst().size(), 8u);
}

TEST_F(PacketHandlerBurstsTest, EachBurstAndEachAddressIsThinnedByItself) {
  Configure(config::BaseCfg().ntp_requests_per_burst, 8);
  Prepare();
  Burst();
  EXPECT_EQ(Burst().size(), 8u);
  EXPECT_EQ(Burst(kOtherServer).size(), 8u);
  Send(kServer);  // the third burst's first call
  const size_t before = sent_.size();
  world_.RunFor(TimeDelta::FromMicroseconds(999999));
  Send(kServer);  // still its second
  EXPECT_EQ(sent_.size(), before);
  world_.RunFor(TimeDelta::FromMicroseconds(1));
  Send(kServer);
  EXPECT_EQ(sent_.size(), before + 1);
}

TEST_F(PacketHandlerBurstsTest, HoweverManyCallsFewLeaveWithinABurst) {
  const struct {
    const char* what;
    uint64_t limit;
    int callers;  // each makes twenty calls 10 ms apart
    size_t expected;
  } rows[] = {
      {"Three domains that share the address.", 8, 3, 8},
      {"The same without a limit: one burst.", 20, 3, 20},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Configure(config::BaseCfg().ntp_requests_per_burst, row.limit);
    sent_.clear();
    Prepare();
    for (int call = 0; call < 20; ++call) {
      for (int caller = 0; caller < row.callers; ++caller) {
        Send();
      }
      world_.RunFor(TimeDelta::FromMilliseconds(10));
    }
    EXPECT_EQ(sent_.size(), row.expected);
    Run();
  }
}

TEST_F(PacketHandlerBurstsTest, AttemptsThatAreStartedAllTheTimeShareTheBursts) {
  is_answering_ = false;
  for (int i = 0; i < 100; ++i) {  // for a second
    Prepare();
    for (int call = 0; call < 20; ++call) {
      Send();
    }
    world_.RunFor(TimeDelta::FromMilliseconds(10));
  }
  EXPECT_EQ(sent_.size(), 100u);  // five bursts, 200 ms apart as there is a call every 10 ms
}

TEST_F(PacketHandlerBurstsTest, RateEndsTheBurstAndHoldsTheAddressButNoOther) {
  Prepare();
  const uint64_t rate_before = Count("kiss.rate");
  const uint64_t withheld_before = Count("send_withheld.back_off");
  Kiss(kRate);
  EXPECT_EQ(Count("kiss.rate"), rate_before + 1);
  for (int i = 0; i < 19; ++i) {
    Send();
  }
  EXPECT_EQ(sent_.size(), 1u);
  EXPECT_EQ(Count("send_withheld.back_off"), withheld_before + 19);
  EXPECT_EQ(NtpAddressLedger::GetInstance()->GetCounts()[kServer].requests_withheld, 19u);

  Prepare();  // the next attempt
  EXPECT_TRUE(Burst().empty());
  EXPECT_EQ(Burst(kOtherServer).size(), 20u);
  EXPECT_TRUE(client_.calls.empty());

  world_.RunFor(TimeDelta::FromSeconds(150));  // two minutes and their jitter
  Prepare();
  EXPECT_EQ(Burst().size(), 8u);
  world_.RunFor(TimeDelta::FromSeconds(10));
  const uint64_t too_soon_before = Count("send_withheld.too_soon");
  EXPECT_TRUE(Burst().empty());
  EXPECT_EQ(Count("send_withheld.too_soon"), too_soon_before + 20);
}

TEST_F(PacketHandlerBurstsTest, RateForRequestsUnderWayIsCountedAsRepeated) {
  is_answering_ = false;
  Prepare();
  for (int i = 0; i < 5; ++i) {
    Send();
  }
  const uint64_t rate_before = Count("kiss.rate");
  const uint64_t repeated_before = Count("kiss.repeated");
  for (const auto& sent : sent_) {
    Deliver(sent, KissTo(sent, kRate));
  }
  Run();
  EXPECT_EQ(Count("kiss.rate"), rate_before + 1);
  EXPECT_EQ(Count("kiss.repeated"), repeated_before + 4);
}

TEST_F(PacketHandlerBurstsTest, DenialHoldsTheAddressForHours) {
  const struct {
    const char* what;
    uint32_t code;
    const char* name;
    const net::IPEndPoint server;
  } rows[] = {
      {"Denied.", kDeny, "deny", Address("192.0.2.20")},
      {"Restricted.", kRstr, "rstr", Address("192.0.2.21")},
  };
  is_answering_ = false;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const uint64_t before = Count(std::string("kiss.") + row.name);
    const uint64_t withheld_before = Count("send_withheld.denied");
    Prepare();
    Send(row.server);
    Deliver(sent_.back(), KissTo(sent_.back(), row.code));
    world_.RunFor(TimeDelta::FromMilliseconds(100));
    EXPECT_EQ(Count(std::string("kiss.") + row.name), before + 1);
    world_.RunFor(TimeDelta::FromSeconds(4 * 3600 - 1));
    Prepare();
    EXPECT_TRUE(Burst(row.server).empty());
    EXPECT_EQ(Count("send_withheld.denied"), withheld_before + 20);
    world_.RunFor(TimeDelta::FromSeconds(1));
    EXPECT_EQ(Burst(row.server).size(), 20u);
  }
}

TEST_F(PacketHandlerBurstsTest, RateAfterADenialDoesNotShortenIt) {
  is_answering_ = false;
  Prepare();
  Send();
  Send();
  Deliver(sent_[0], KissTo(sent_[0], kDeny));
  Deliver(sent_[1], KissTo(sent_[1], kRate));
  world_.RunFor(TimeDelta::FromMilliseconds(100));
  const uint64_t before = Count("send_withheld.denied");
  Send();
  EXPECT_EQ(Count("send_withheld.denied"), before + 1);
}

TEST_F(PacketHandlerBurstsTest, AKissCodeThatIsNoRefusalLeavesRequestAndAddressAlone) {
  const struct {
    const char* what;
    uint32_t code;
    const char* name;
  } rows[] = {
      {"Not synchronised yet.", kInit, "init"},
      {"Not synchronised again.", kStep, "step"},
      {"A code of another meaning.", kDrop, "unknown"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const uint64_t before = Count(std::string("kiss.") + row.name);
    client_.calls.clear();
    Prepare();
    Kiss(row.code);
    EXPECT_EQ(Count(std::string("kiss.") + row.name), before + 1);
    EXPECT_TRUE(client_.calls.empty());
    Deliver(sent_.back(), ReplyTo(sent_.back()));  // the genuine reply, a little late
    is_answering_ = true;
    for (int i = 0; i < 19; ++i) {
      Send();
    }
    Run();
    EXPECT_EQ(client_.Samples().size(), 20u);
  }
}

TEST_F(PacketHandlerBurstsTest, AReplyAfterARefusalIsADuplicate) {
  Prepare();
  Kiss(kRate);
  const uint64_t before = Count("rejected.duplicate");
  Deliver(sent_.back(), ReplyTo(sent_.back()));
  Run();
  EXPECT_EQ(Count("rejected.duplicate"), before + 1);
  EXPECT_TRUE(client_.calls.empty());
}

TEST_F(PacketHandlerBurstsTest, ANonceExpiresThreeSecondsAfterItsRequest) {
  const struct {
    const char* what;
    int64_t age_us;
    const char* counter;
  } rows[] = {
      // The server claims all of the time but a second for itself, so that the round trip is in order.
      {"To the microsecond.", 3000000, "samples_received"},
      {"A microsecond later.", 3000001, "rejected.expired"},
      {"Before it is forgotten.", 9999999, "rejected.expired"},
  };
  is_answering_ = false;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Prepare();
    Send();
    NtpPacket reply = ReplyTo(sent_.back());
    const int64_t received_us = world_.true_us() + link_.out_us + link_.server_ahead_us;
    reply.transmit_timestamp = NtpTimestampFromUs(received_us + row.age_us - 1000000);
    const auto bytes = EncodePacket(reply);
    const uint64_t before = Count(row.counter);
    world_.Deliver(kServer, sent_.back().client, {bytes.begin(), bytes.end()},
                   TimeDelta::FromMicroseconds(row.age_us));
    world_.RunFor(TimeDelta::FromSeconds(10));
    EXPECT_EQ(Count(row.counter), before + 1);
  }
}

TEST_F(PacketHandlerBurstsTest, ANonceIsForgottenTenSecondsAfterItsRequest) {
  is_answering_ = false;
  Prepare();
  Send();
  const sim::SentDatagram first = sent_[0];
  world_.RunFor(TimeDelta::FromMicroseconds(10000000));
  Send();
  const uint64_t expired_before = Count("rejected.expired");
  Deliver(first, ReplyTo(first));
  Run();
  EXPECT_EQ(Count("rejected.expired"), expired_before + 1);
  Send();  // makes room
  const uint64_t unknown_before = Count("rejected.unknown_nonce");
  Deliver(first, ReplyTo(first));
  Run();
  EXPECT_EQ(Count("rejected.unknown_nonce"), unknown_before + 1);
}

TEST_F(PacketHandlerBurstsTest, EveryGenuineReplyIsTakenHoweverManyServersAreAsked) {
  constexpr int kServers = 500;
  Prepare();
  const uint64_t unknown_before = Count("rejected.unknown_nonce");
  for (int call = 0; call < 20; ++call) {
    for (int i = 0; i < kServers; ++i) {
      Send(net::IPEndPoint::FromIPv4({198, 51, 100, 7}, static_cast<uint16_t>(1 + i)));
    }
  }
  Run();
  EXPECT_EQ(Count("rejected.unknown_nonce"), unknown_before);
  EXPECT_EQ(client_.Samples().size(), size_t{kServers} * 20);
}

// --- When nothing can be accepted any more.

class StopReadingTest : public PacketHandlerBurstsTest {
 protected:
  // A thousand datagrams that answer nothing; how many of them were read.
  uint64_t ReadOfFlood() {
    const uint64_t before = Count("rejected.unknown_nonce");
    NtpPacket forged = ReplyTo(sent_.back());
    ++forged.origin_timestamp;
    for (int i = 0; i < 1000; ++i) {
      Deliver(sent_.back(), forged);
    }
    Run();
    return Count("rejected.unknown_nonce") - before;
  }
};

TEST_F(StopReadingTest, AFloodIsReadWhileARequestIsOpen) {
  is_answering_ = false;
  Prepare();
  Send();
  EXPECT_EQ(ReadOfFlood(), 1000u);
}

TEST_F(StopReadingTest, OneDatagramOfAFloodIsReadOnceEveryRequestIsAnswered) {
  Prepare();
  Burst();
  Run();
  ASSERT_EQ(client_.Samples().size(), 20u);
  EXPECT_EQ(ReadOfFlood(), 1u);
  EXPECT_EQ(ReadOfFlood(), 0u);
}

TEST_F(StopReadingTest, OneDatagramOfAFloodIsReadOnceEveryRequestHasExpired) {
  is_answering_ = false;
  Prepare();
  Send();
  world_.RunFor(TimeDelta::FromMilliseconds(2900));
  Send();
  world_.RunFor(TimeDelta::FromMilliseconds(2900));
  EXPECT_EQ(ReadOfFlood(), 1000u);
  EXPECT_EQ(ReadOfFlood(), 1u);
}

TEST_F(StopReadingTest, AnErrorOfTheNetworkIsTheLastThingReadOnceEveryRequestIsAnswered) {
  const uint64_t before = Count("receive_error.host_unreachable");
  const auto report_errors = [this] {
    for (int i = 0; i < 100; ++i) {
      world_.ReportError(sent_.back().client, net::SocketError::kHostUnreachable);
    }
  };
  Prepare();
  Send();
  report_errors();
  EXPECT_EQ(Count("receive_error.host_unreachable"), before + 100) << "a request is open";
  Run();
  ASSERT_EQ(client_.Samples().size(), 1u);
  report_errors();
  EXPECT_EQ(Count("receive_error.host_unreachable"), before + 101);
  EXPECT_EQ(ReadOfFlood(), 0u);
}

TEST_F(StopReadingTest, AnAnsweredRequestDoesNotHideAnOpenOne) {
  is_answering_ = false;
  Prepare();
  Send();
  Send();
  Answer(sent_[1]);
  world_.RunFor(TimeDelta::FromMilliseconds(30));
  EXPECT_EQ(ReadOfFlood(), 1000u);
  Answer(sent_[0]);
  Run();
  EXPECT_EQ(client_.Samples().size(), 2u);
}

TEST_F(StopReadingTest, TheNextRequestReadsWhatWaitsAndTakesItsReply) {
  Prepare();
  Send();
  Run();
  ASSERT_EQ(ReadOfFlood(), 1u);
  const uint64_t unknown_before = Count("rejected.unknown_nonce");
  Send();
  Run();
  // As many as fit into the receive buffer.
  EXPECT_EQ(Count("rejected.unknown_nonce"), unknown_before + 256);
  EXPECT_EQ(client_.Samples().size(), 2u);
}

TEST_F(StopReadingTest, AnotherServerIsReadOn) {
  Prepare();
  Send();
  Run();
  ASSERT_EQ(ReadOfFlood(), 1u);
  Send(kOtherServer);
  Run();
  EXPECT_EQ(client_.Samples().size(), 2u);
}

// --- The limits of a reply.

TEST_F(PacketHandlerBurstsTest, ARoundTripUpToTheLimitIsUsed) {
  const struct {
    const char* what;
    uint64_t limit_ms;  // 0: not configured
    int64_t round_trip_us;
    const char* counter;
  } rows[] = {
      {"The default limit.", 0, 1500000, "samples_received"},
      {"Beyond it.", 0, 1500001, "rejected.long_round_trip"},
      {"A configured limit.", 100, 100000, "samples_received"},
      {"Beyond that.", 100, 100001, "rejected.long_round_trip"},
      {"No time at all.", 0, 0, "samples_received"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    if (row.limit_ms != 0) {
      Configure(config::BaseCfg().ntp_max_round_trip_ms, row.limit_ms);
    }
    link_ = {.out_us = row.round_trip_us / 2, .home_us = row.round_trip_us - row.round_trip_us / 2};
    const uint64_t before = Count(row.counter);
    Prepare();
    Send();
    world_.RunFor(TimeDelta::FromSeconds(2));
    EXPECT_EQ(Count(row.counter), before + 1);
  }
}

TEST_F(PacketHandlerBurstsTest, TheLimitOfTheRootDistanceCanBeConfigured) {
  Configure(config::BaseCfg().ntp_max_root_distance_ms, 500);
  is_answering_ = false;
  Prepare();
  for (const uint32_t root_dispersion : {0x8000u, 0x8001u}) {
    Send();
    NtpPacket reply = ReplyTo(sent_.back());
    reply.root_dispersion = root_dispersion;
    const uint64_t before = Count("rejected.root_distance");
    Deliver(sent_.back(), reply);
    Run();
    EXPECT_EQ(Count("rejected.root_distance"), before + (root_dispersion > 0x8000 ? 1 : 0));
  }
  EXPECT_EQ(client_.Samples().size(), 1u);
}

TEST_F(PacketHandlerBurstsTest, AnOverlongDatagramIsTruncatedAndLeavesTheNonceToTheGenuineReply) {
  is_answering_ = false;
  Prepare();
  Send();
  const NtpPacket genuine = ReplyTo(sent_[0]);
  const auto bytes = EncodePacket(genuine);
  ExpectDroppedAndThenTheGenuineOneTaken(
      "truncated",
      [&] {
        std::vector<uint8_t> overlong(bytes.begin(), bytes.end());
        overlong.resize(net::kMaxDatagramBytes + 1);
        world_.Deliver(kServer, sent_[0].client, overlong, TimeDelta());
      },
      genuine);
}

TEST_F(PacketHandlerBurstsTest, OnlyExtensionFieldsMayFollowTheHeader) {
  is_answering_ = false;
  Prepare();
  Send();
  const NtpPacket genuine = ReplyTo(sent_[0]);
  const auto bytes = EncodePacket(genuine);
  std::vector<uint8_t> longer(bytes.begin(), bytes.end());
  longer.resize(kNtpPacketSize + 28);
  ExpectDroppedAndThenTheGenuineOneTaken(
      "extension", [&] { world_.Deliver(kServer, sent_[0].client, longer, TimeDelta()); }, genuine);

  Send();
  const auto next = EncodePacket(ReplyTo(sent_[1]));
  std::copy(next.begin(), next.end(), longer.begin());
  longer[kNtpPacketSize + 3] = 28;
  world_.Deliver(kServer, sent_[1].client, longer, TimeDelta::FromMilliseconds(20));
  Run();
  EXPECT_EQ(client_.Samples().size(), 2u);
}

TEST_F(PacketHandlerBurstsTest, TheKernelsSendStampReplacesOurs) {
  is_answering_ = false;
  Prepare();
  Send(kOtherServer);
  Send();
  Send();
  const uint64_t kernel_before = Count("send_stamp.kernel");
  const uint64_t user_before = Count("send_stamp.user");
  const uint64_t received_before = Count("receive_stamp.kernel");
  // Each socket counts for itself.
  world_.ReportSent(sent_[2].client, 1, sent_[2].sent_ticks_us + 700);
  world_.ReportSent(sent_[2].client, 2, sent_[2].sent_ticks_us + 900);  // no such datagram
  for (const auto& sent : sent_) {
    Answer(sent);
  }
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 3u);
  const NtpResultData plain{link_.ExpectedOffsetUs(), link_.ExpectedRttUs()};
  EXPECT_EQ(samples[0].data, plain);
  EXPECT_EQ(samples[1].data, plain);
  EXPECT_EQ(samples[2].data, (NtpResultData{plain.offset_us - 350, plain.rtt_us - 700}));
  EXPECT_EQ(Count("send_stamp.kernel"), kernel_before + 1);
  EXPECT_EQ(Count("send_stamp.user"), user_before + 2);
  EXPECT_EQ(Count("receive_stamp.kernel"), received_before + 3);
}

}  // namespace
}  // namespace skorra
