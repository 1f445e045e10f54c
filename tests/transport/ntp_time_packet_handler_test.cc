// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_time_packet_handler.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "platform/base/callback.h"
#include "platform/base/clock.h"
#include "platform/core/thread_manager.h"
#include "testing/packet_handler_fixture.h"
#include "transport/ntp_address_ledger.h"
#include "transport/ntp_packet.h"

namespace skorra {
namespace {

constexpr net::SocketError kSocketErrors[] = {
    net::SocketError::kRefused,     net::SocketError::kHostUnreachable, net::SocketError::kNetworkUnreachable,
    net::SocketError::kNetworkDown, net::SocketError::kNoAddress,       net::SocketError::kNoBuffers,
    net::SocketError::kWouldBlock,  net::SocketError::kNoDescriptors,   net::SocketError::kInterrupted,
    net::SocketError::kDenied,      net::SocketError::kUnsupported,     net::SocketError::kOther};

TEST_F(NtpTimePacketHandlerTest, ARequestTellsNothingButVersionModeAndNonce) {
  Prepare();
  Send();
  ASSERT_EQ(sent_.size(), 1u);
  EXPECT_EQ(sent_[0].server, kServer);
  std::vector<uint8_t> bytes = sent_[0].bytes;
  ASSERT_EQ(bytes.size(), 48u);
  EXPECT_NE(std::vector<uint8_t>(bytes.begin() + 40, bytes.end()), std::vector<uint8_t>(8, 0));
  std::fill(bytes.begin() + 40, bytes.end(), uint8_t{0});
  std::vector<uint8_t> expected(48, 0);
  expected[0] = 0x23;
  EXPECT_EQ(bytes, expected);
}

TEST_F(NtpTimePacketHandlerTest, EveryRequestHasANonceOfItsOwn) {
  Prepare();
  for (int i = 0; i < 100; ++i) {
    Send(kServer);
    Send(kOtherServer);
    world_.RunFor(TimeDelta::FromMilliseconds(10));
  }
  std::set<uint64_t> nonces;
  for (const sim::SentDatagram& sent : sent_) {
    nonces.insert(DecodePacket(sent.bytes).value().transmit_timestamp);
  }
  EXPECT_EQ(nonces.size(), 200u);
  EXPECT_FALSE(nonces.contains(0));
}

TEST_F(NtpTimePacketHandlerTest, AGenuineReplyGivesTheExactOffsetAndRoundTripTime) {
  const struct {
    const char* what;
    Link link;
  } rows[] = {
      {"Equal ways, clocks that agree, an instant answer.", {10000, 10000, 0, 0}},
      {"The server is ahead, its way out is the slower one.", {12000, 8000, 250000, 300}},
      {"The server is behind, its way home is the slower one.", {1000, 90000, -250000, 300}},
      {"The server works for longer than the ways take.", {1000, 1000, 0, 700000}},
      {"The clocks are sixty years apart.", {1000, 1000, 60 * int64_t{31556952} * 1000000, 10}},
      {"Nothing takes any time at all.", {0, 0, 1, 0}},
  };
  Prepare();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    client_.calls.clear();
    link_ = row.link;
    const uint64_t sent_before = Count("requests_sent");
    const uint64_t samples_before = Count("samples_received");
    Send();
    Run();
    const auto samples = client_.Samples();
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0].data.offset_us, link_.ExpectedOffsetUs());
    EXPECT_EQ(samples[0].data.rtt_us, link_.ExpectedRttUs());
    EXPECT_EQ(samples[0].server, kServer);
    EXPECT_EQ(Count("requests_sent"), sent_before + 1);
    EXPECT_EQ(Count("samples_received"), samples_before + 1);
  }
  EXPECT_TRUE(client_.is_on_queue);
}

TEST_F(NtpTimePacketHandlerTest, AnExchangeHasEverythingThatIsKnownOfIt) {
  is_answering_ = false;
  Prepare();
  const int64_t base_us = base::GetSystemTimeOffsetFromSteady() + 3000000;
  world_.RunAsTask(core::BusinessID::kNtpTime, [&] { handler_->UpdateSystemTimeOffsetFromSteady(base_us); });
  Send(kOtherServer);
  Send();
  world_.ReportSent(sent_[1].client, 0, sent_[1].sent_ticks_us + 700);
  NtpPacket replies[2] = {ReplyTo(sent_[0]), ReplyTo(sent_[1])};
  // 15.26 us, and 1 s with as much: rounded up.
  replies[0].root_delay = 0x1;
  replies[0].root_dispersion = 0x10001;
  replies[0].precision = -23;
  replies[0].stratum = 15;
  replies[0].leap_indicator = 1;
  replies[0].reference_id = 0xc0000205;
  for (size_t i = 0; i < 2; ++i) {
    Deliver(sent_[i], replies[i]);
  }
  Run();

  NtpExchange first;
  first.sample = {link_.ExpectedOffsetUs() - 3000000, link_.ExpectedRttUs()};
  first.send_local_us = sent_[0].sent_ticks_us + base_us;
  first.server_receive_us = NtpTimestampToUs(replies[0].receive_timestamp);
  first.server_transmit_us = first.server_receive_us + link_.work_us;
  first.receive_local_us = first.send_local_us + link_.ExpectedRttUs() + link_.work_us;
  first.system_offset_from_steady_us = base_us;
  first.root_delay_us = 16;
  first.root_dispersion_us = 1000016;
  first.precision = -23;
  first.stratum = 15;
  first.leap_indicator = 1;
  first.reference_id = 0xc0000205;
  first.send_stamp = NtpStampSource::kUser;
  first.receive_stamp = NtpStampSource::kKernel;
  first.server = kOtherServer;
  NtpExchange second;
  second.sample = {first.sample.offset_us - 350, first.sample.rtt_us - 700};
  second.send_local_us = first.send_local_us + 700;
  second.server_receive_us = first.server_receive_us;
  second.server_transmit_us = first.server_transmit_us;
  second.receive_local_us = first.receive_local_us;
  second.system_offset_from_steady_us = base_us;
  second.stratum = 2;
  second.send_stamp = NtpStampSource::kKernel;
  second.receive_stamp = NtpStampSource::kKernel;
  second.server = kServer;
  EXPECT_EQ(client_.exchanges, (std::vector<NtpExchange>{first, second}));
}

TEST_F(NtpTimePacketHandlerTest, AReplyWithoutASampleIsNoExchange) {
  is_answering_ = false;
  Prepare();
  Send();
  NtpPacket kiss = ReplyTo(sent_[0]);
  kiss.stratum = 0;
  kiss.reference_id = 0x494e4954;  // INIT
  NtpPacket late = ReplyTo(sent_[0]);
  late.transmit_timestamp += uint64_t{1} << 32;
  Deliver(sent_[0], kiss);
  Deliver(sent_[0], late);
  Run();
  EXPECT_TRUE(client_.exchanges.empty());
}

TEST_F(NtpTimePacketHandlerTest, AReplyReadLateIsTimedByItsArrival) {
  Prepare();
  Send();
  // Something keeps the queue busy while the reply arrives.
  world_.Schedule(TimeDelta::FromMilliseconds(1), [this] { world_.Block(TimeDelta::FromMilliseconds(500)); });
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].data.offset_us, link_.ExpectedOffsetUs());
  EXPECT_EQ(samples[0].data.rtt_us, link_.ExpectedRttUs());
}

TEST_F(NtpTimePacketHandlerTest, TheFirstReplyIsAnnouncedOncePerAttemptBeforeItsSample) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    SCOPED_TRACE(attempt);
    client_.calls.clear();
    Prepare();
    Send(kServer);
    Send(kServer);
    Send(kOtherServer);
    Run();
    ASSERT_EQ(client_.calls.size(), 4u);
    EXPECT_TRUE(client_.calls[0].is_first);
    EXPECT_EQ(client_.calls[0].data.offset_us, link_.ExpectedOffsetUs());
    EXPECT_EQ(client_.Samples().size(), 3u);
    EXPECT_EQ(client_.calls[3].server, kOtherServer);
  }
}

TEST_F(NtpTimePacketHandlerTest, RepliesMayOvertakeEachOther) {
  is_answering_ = false;
  Prepare();
  Send();
  const NtpPacket first_reply = ReplyTo(sent_[0]);
  world_.RunFor(TimeDelta::FromMilliseconds(10));
  Send();
  Answer(sent_[1]);
  Run();
  Deliver(sent_[0], first_reply);
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 2u);
  EXPECT_EQ(samples[0].data, (NtpResultData{link_.ExpectedOffsetUs(), link_.ExpectedRttUs()}));
  // The first reply was on its way home for 1.01 s longer than its request was on its way out.
  EXPECT_EQ(samples[1].data,
            (NtpResultData{link_.ExpectedOffsetUs() - 505000, link_.ExpectedRttUs() + 1010000}));
}

// A bogus reply made of the genuine one.
struct Bogus {
  const char* what;
  const char* reason;
  std::function<void(NtpPacket&)> change;
};

const Bogus kBogusReplies[] = {
    {"The request itself, reflected with its nonce.", "mode", [](NtpPacket& reply) { reply.mode = 3; }},
    {"A version not spoken.", "version", [](NtpPacket& reply) { reply.version = 5; }},
    {"A server not synchronised.", "leap", [](NtpPacket& reply) { reply.leap_indicator = 3; }},
    {"Stratum 0 without a kiss code.", "stratum_zero", [](NtpPacket& reply) { reply.stratum = 0; }},
    {"A stratum beyond the largest.", "stratum", [](NtpPacket& reply) { reply.stratum = 16; }},
    {"No receive time stamp.", "zero_receive", [](NtpPacket& reply) { reply.receive_timestamp = 0; }},
    {"No transmit time stamp.", "zero_transmit", [](NtpPacket& reply) { reply.transmit_timestamp = 0; }},
    {"Answered before asked.", "transmit_before_receive",
     [](NtpPacket& reply) { reply.transmit_timestamp = reply.receive_timestamp - 1; }},
    {"A nonce one off.", "unknown_nonce", [](NtpPacket& reply) { ++reply.origin_timestamp; }},
    {"No nonce.", "zero_origin", [](NtpPacket& reply) { reply.origin_timestamp = 0; }},
    {"A kiss code with a wrong nonce.", "unknown_nonce",
     [](NtpPacket& reply) {
       ++reply.origin_timestamp;
       reply.stratum = 0;
       reply.reference_id = 0x52415445;  // RATE
     }},
    {"A kiss code in a packet that is no server's.", "mode",
     [](NtpPacket& reply) {
       reply.mode = 5;
       reply.stratum = 0;
       reply.reference_id = 0x52415445;
     }},
    {"More than five seconds from its reference clock.", "root_distance",
     [](NtpPacket& reply) { reply.root_dispersion = 0x50001; }},
    {"A server that claims to have worked for longer than the exchange took.", "negative_round_trip",
     [](NtpPacket& reply) { reply.transmit_timestamp += uint64_t{1} << 32; }},
};

TEST_F(NtpTimePacketHandlerTest, ABogusReplyIsCountedAndLeavesTheNonceToTheGenuineOne) {
  is_answering_ = false;
  for (const Bogus& bogus : kBogusReplies) {
    SCOPED_TRACE(bogus.what);
    client_.calls.clear();
    sent_.clear();
    Prepare();
    Send();
    ASSERT_EQ(sent_.size(), 1u);
    const NtpPacket genuine = ReplyTo(sent_[0]);
    NtpPacket forged = genuine;
    bogus.change(forged);

    ExpectDroppedAndThenTheGenuineOneTaken(
        bogus.reason, [&] { Deliver(sent_[0], forged); }, genuine);
  }
}

TEST_F(NtpTimePacketHandlerTest, ACutReplyIsCountedAndLeavesTheNonceToTheGenuineOne) {
  is_answering_ = false;
  Prepare();
  Send();
  const NtpPacket genuine = ReplyTo(sent_[0]);
  const auto bytes = EncodePacket(genuine);
  ExpectDroppedAndThenTheGenuineOneTaken(
      "short",
      [&] {
        world_.Deliver(kServer, sent_[0].client, {bytes.begin(), bytes.end() - 1}, TimeDelta());
      },
      genuine);
}

TEST_F(NtpTimePacketHandlerTest, AnAnswerOnBehalfOfAnotherServerIsCountedAndLeavesTheNonceToTheGenuineOne) {
  is_answering_ = false;
  Prepare();
  Send(kServer);
  Send(kOtherServer);
  const NtpPacket genuine = ReplyTo(sent_[0]);
  ExpectDroppedAndThenTheGenuineOneTaken(
      "wrong_source", [&] { DeliverFrom(kOtherServer, sent_[1].client, genuine); }, genuine);
}

TEST_F(NtpTimePacketHandlerTest, AnAnswerFromAnotherPortOfTheServerIsFromTheWrongSource) {
  is_answering_ = false;
  Prepare();
  Send();
  const NtpPacket genuine = ReplyTo(sent_[0]);
  const net::IPEndPoint other_port = net::IPEndPoint::FromLiteral("192.0.2.10", 124).value();
  ExpectDroppedAndThenTheGenuineOneTaken(
      "wrong_source", [&] { DeliverFrom(other_port, sent_[0].client, genuine); }, genuine);
}

TEST_F(NtpTimePacketHandlerTest, ADuplicateIsCountedAndGivesNoSecondSample) {
  is_answering_ = false;
  Prepare();
  Send();
  const NtpPacket reply = ReplyTo(sent_[0]);
  const uint64_t before = Count("rejected.duplicate");
  Deliver(sent_[0], reply);
  Deliver(sent_[0], reply);
  Run();
  EXPECT_EQ(client_.Samples().size(), 1u);
  EXPECT_EQ(Count("rejected.duplicate"), before + 1);
}

TEST_F(NtpTimePacketHandlerTest, AReplyAfterCleanIsLost) {
  Prepare();
  Send();
  EXPECT_EQ(world_.open_socket_count(), 1u);
  Clean();
  EXPECT_EQ(world_.open_socket_count(), 0u);
  Run();
  EXPECT_TRUE(client_.calls.empty());
}

TEST_F(NtpTimePacketHandlerTest, SendsOutsideAnAttemptAreSkippedAndCounted) {
  const uint64_t before = Count("send_skipped");
  Send();
  EXPECT_EQ(Count("send_skipped"), before + 1);
  Prepare();
  Send();
  EXPECT_EQ(Count("send_skipped"), before + 1);
  Clean();
  Send();
  EXPECT_EQ(Count("send_skipped"), before + 2);
  EXPECT_EQ(sent_.size(), 1u);
  EXPECT_EQ(world_.open_socket_count(), 0u);
}

TEST_F(NtpTimePacketHandlerTest, EachServerHasOneSocketPerAttempt) {
  Prepare();
  Send(kServer);
  Send(kServer);
  Send(kOtherServer);
  EXPECT_EQ(world_.open_socket_count(), 2u);
  EXPECT_EQ(sent_[0].client, sent_[1].client);
  EXPECT_NE(sent_[0].client, sent_[2].client);
}

TEST_F(NtpTimePacketHandlerTest, ANewAttemptUsesFreshSocketsAndForgetsTheEarlierRequests) {
  is_answering_ = false;
  Prepare();
  Send();
  Prepare();
  EXPECT_EQ(world_.open_socket_count(), 0u);
  Send();
  EXPECT_NE(sent_[0].client, sent_[1].client);

  const uint64_t before = Count("rejected.unknown_nonce");
  Deliver(sent_[0], ReplyTo(sent_[0]));
  DeliverFrom(kServer, sent_[1].client, ReplyTo(sent_[0]));
  Run();
  EXPECT_TRUE(client_.calls.empty());
  EXPECT_EQ(Count("rejected.unknown_nonce"), before + 1);
}

TEST_F(NtpTimePacketHandlerTest, TheSystemOffsetIsTheBaseOfTheNextSample) {
  const int64_t base_us = base::GetSystemTimeOffsetFromSteady();
  EXPECT_EQ(handler_->GetSystemTimeOffsetFromSteady(), base_us);
  Prepare();
  Send();
  Run();
  // The wall clock alone is not looked at.
  world_.StepWall(TimeDelta::FromSeconds(5));
  Send();
  Run();
  world_.RunAsTask(core::BusinessID::kNtpTime,
                   [&] { handler_->UpdateSystemTimeOffsetFromSteady(base_us + 5000000); });
  EXPECT_EQ(handler_->GetSystemTimeOffsetFromSteady(), base_us + 5000000);
  Send();
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 3u);
  EXPECT_EQ(samples[0].data.offset_us, link_.ExpectedOffsetUs());
  EXPECT_EQ(samples[1].data.offset_us, link_.ExpectedOffsetUs());
  EXPECT_EQ(samples[2].data, (NtpResultData{link_.ExpectedOffsetUs() - 5000000, link_.ExpectedRttUs()}));
}

TEST_F(NtpTimePacketHandlerTest, ARequestUnderWayIsMeasuredAgainstTheNewSystemOffsetAtBothEnds) {
  Prepare();
  Send();
  world_.RunAsTask(core::BusinessID::kNtpTime, [this] {
    handler_->UpdateSystemTimeOffsetFromSteady(handler_->GetSystemTimeOffsetFromSteady() - 3000000);
  });
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].data, (NtpResultData{link_.ExpectedOffsetUs() + 3000000, link_.ExpectedRttUs()}));
}

TEST_F(NtpTimePacketHandlerTest, AnySystemOffsetIsSurvived) {
  Prepare();
  for (const int64_t offset_us : {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
    world_.RunAsTask(core::BusinessID::kNtpTime,
                     [&] { handler_->UpdateSystemTimeOffsetFromSteady(offset_us); });
    Send();
    Run();
  }
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 2u);
  EXPECT_EQ(samples[0].data.rtt_us, link_.ExpectedRttUs());
  EXPECT_EQ(samples[1].data.rtt_us, link_.ExpectedRttUs());
}

TEST_F(NtpTimePacketHandlerTest, AFailedSendIsCountedUnderItsReasonAndTheNextOneWorks) {
  Prepare();
  for (const net::SocketError error : kSocketErrors) {
    SCOPED_TRACE(net::SocketErrorName(error));
    const uint64_t errors_before = Count(std::string("send_error.") + net::SocketErrorName(error));
    const uint64_t sent_before = Count("requests_sent");
    const size_t samples_before = client_.Samples().size();
    world_.SetSendError(kServer, error);
    Send();
    EXPECT_EQ(Count(std::string("send_error.") + net::SocketErrorName(error)), errors_before + 1);
    EXPECT_EQ(Count("requests_sent"), sent_before);
    world_.SetSendError(kServer, net::SocketError::kNone);
    Send();
    Run();
    EXPECT_EQ(Count("requests_sent"), sent_before + 1);
    EXPECT_EQ(client_.Samples().size(), samples_before + 1);
  }
}

TEST_F(NtpTimePacketHandlerTest, ASocketThatCannotBeHadIsCountedAndTriedAgainAtTheNextSend) {
  Prepare();
  for (const net::SocketError error : kSocketErrors) {
    SCOPED_TRACE(net::SocketErrorName(error));
    const uint64_t before = Count(std::string("send_error.") + net::SocketErrorName(error));
    world_.SetConnectError(kServer, error);
    Send();
    Send();
    EXPECT_EQ(Count(std::string("send_error.") + net::SocketErrorName(error)), before + 2);
    EXPECT_EQ(world_.open_socket_count(), 0u);
    Run();
  }
  world_.SetConnectError(kServer, net::SocketError::kNone);
  Send();
  Run();
  EXPECT_EQ(client_.Samples().size(), 1u);
}

TEST_F(NtpTimePacketHandlerTest, AnErrorBetweenSendsIsCountedAndHarmsNoRequest) {
  Prepare();
  Send();
  for (const net::SocketError error : kSocketErrors) {
    const uint64_t before = Count(std::string("receive_error.") + net::SocketErrorName(error));
    world_.ReportError(sent_[0].client, error);
    EXPECT_EQ(Count(std::string("receive_error.") + net::SocketErrorName(error)), before + 1);
  }
  Run();
  EXPECT_EQ(client_.Samples().size(), 1u);
}

TEST_F(NtpTimePacketHandlerTest, AClosedPortIsRememberedWhereverItIsReported) {
  const auto is_closed = [](const net::IPEndPoint& server) {
    return NtpAddressLedger::GetInstance()->WasClosedSince(server, 0);
  };
  is_answering_ = false;
  Prepare();
  Send();
  Send(kOtherServer);
  for (const net::SocketError error : kSocketErrors) {
    if (error != net::SocketError::kRefused) {
      world_.ReportError(sent_[0].client, error);
    }
  }
  EXPECT_FALSE(is_closed(kServer));
  world_.ReportError(sent_[0].client, net::SocketError::kRefused);
  EXPECT_TRUE(is_closed(kServer));
  EXPECT_FALSE(is_closed(kOtherServer));
  world_.SetSendError(kOtherServer, net::SocketError::kRefused);
  Send(kOtherServer);
  EXPECT_TRUE(is_closed(kOtherServer));
}

TEST_F(NtpTimePacketHandlerTest, AClientMaySendFromItsCallback) {
  Prepare();
  client_.on_sample = [this] {
    client_.on_sample = nullptr;
    for (int i = 0; i < 19; ++i) {
      handler_->SendPacket(kServer);
      handler_->SendPacket(kOtherServer);
    }
  };
  Send();
  Run();
  EXPECT_EQ(client_.Samples().size(), 39u);
}

TEST_F(NtpTimePacketHandlerTest, AWeakPointerIsNullOnceTheHandlerIsGone) {
  const base::WeakPtr<NtpTimePacketHandler> weak = handler_->GetWeakPtr();
  EXPECT_EQ(weak.get(), &*handler_);
  handler_.reset();
  EXPECT_EQ(weak.get(), nullptr);
}

TEST_F(NtpTimePacketHandlerTest, APostedSendIsDroppedOnceTheHandlerIsGone) {
  Prepare();
  const auto queue = core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1, std::nullopt);
  const auto post = [&](int64_t delay_ms) {
    queue->PostDelayedTask(base::Location::CreateFromHere(__FILE__, __LINE__),
                           base::BindOnce(&NtpTimePacketHandler::SendPacket, handler_->GetWeakPtr(), kServer),
                           TimeDelta::FromMilliseconds(delay_ms));
  };
  post(1);
  post(20);
  world_.RunFor(TimeDelta::FromMilliseconds(10));
  EXPECT_EQ(sent_.size(), 1u);
  handler_.reset();
  EXPECT_EQ(world_.open_socket_count(), 0u);
  Run();
  EXPECT_EQ(sent_.size(), 1u);
  EXPECT_TRUE(client_.calls.empty());
}

TEST_F(NtpTimePacketHandlerTest, TheNonceOfAFailedSendIsForgotten) {
  Prepare();
  is_answering_ = false;
  Send();
  world_.SetSendError(kServer, net::SocketError::kNetworkUnreachable);
  Send();
  NtpPacket reply = ReplyTo(sent_.at(0));
  ASSERT_EQ(reply.origin_timestamp, numbers_.at(0));
  reply.origin_timestamp = numbers_.at(1);
  const uint64_t before = Count("rejected.unknown_nonce");
  Deliver(sent_[0], reply);
  Run();
  EXPECT_EQ(Count("rejected.unknown_nonce"), before + 1);
  EXPECT_TRUE(client_.calls.empty());
}

// The generator's first number under this seed is zero.
class ZeroNonceTest : public NtpTimePacketHandlerTest {
 protected:
  ZeroNonceTest() : NtpTimePacketHandlerTest({.seed = 0 - uint64_t{0x9E3779B97F4A7C15}}) {}
};

TEST_F(ZeroNonceTest, AZeroIsNeverUsedAsANonce) {
  ASSERT_EQ(numbers_.at(0), 0u);
  Prepare();
  Send();
  EXPECT_EQ(DecodePacket(sent_.at(0).bytes).value().transmit_timestamp, numbers_.at(1));
}

class WokenIn1970Test : public NtpTimePacketHandlerTest {
 protected:
  WokenIn1970Test() : NtpTimePacketHandlerTest({.wall_us = base::kWindowsToUnixEpochUs}) {}
};

TEST_F(WokenIn1970Test, TheMachineIsSetRightInEitherEra) {
  constexpr int64_t kUnixSecondsIn2026 = 1767225600;
  constexpr int64_t kUnixSecondsIn2040 = 2208988800;
  Prepare();
  for (const int64_t unix_seconds : {kUnixSecondsIn2026, kUnixSecondsIn2040}) {
    client_.calls.clear();
    link_.server_ahead_us = unix_seconds * 1000000;
    Send();
    Run();
    const auto samples = client_.Samples();
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0].data, (NtpResultData{link_.ExpectedOffsetUs(), link_.ExpectedRttUs()}));
  }
}

struct EraChange {
  const char* name;  // where the change of era falls
  Link link;
  friend void PrintTo(const EraChange& row, std::ostream* out) { *out << row.name; }
};

// The request leaves 3 ms before the change of era.
class EraChangeTest : public NtpTimePacketHandlerTest, public testing::WithParamInterface<EraChange> {
 protected:
  EraChangeTest()
      : NtpTimePacketHandlerTest(
            {.wall_us = base::kWindowsToUnixEpochUs + int64_t{2085978496} * 1000000 - 3000}) {}
};

TEST_P(EraChangeTest, AnExchangeAcrossTheEraChangeGivesTheExactSample) {
  link_ = GetParam().link;
  Prepare();
  Send();
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].data, (NtpResultData{link_.ExpectedOffsetUs(), link_.ExpectedRttUs()}));
}

INSTANTIATE_TEST_SUITE_P(, EraChangeTest,
                         testing::Values(EraChange{"OnTheWayOut", {5000, 1000, 0, 100}},
                                         EraChange{"IntoTheServersWork", {1000, 1000, 0, 5000}},
                                         EraChange{"OnTheWayHome", {1000, 5000, 0, 100}},
                                         EraChange{"BetweenAServerAheadOfItAndUs", {100, 100, 10000000, 10}},
                                         EraChange{"BetweenUsAheadOfItAndTheServer",
                                                   {5000, 5000, -10000000, 10}}),
                         [](const auto& row) { return std::string(row.param.name); });

// The local clock, and the year that it shows.
struct LocalClock {
  int year;
  int64_t unix_s;
  friend void PrintTo(const LocalClock& row, std::ostream* out) { *out << row.year; }
};

class LocalClockTest : public NtpTimePacketHandlerTest, public testing::WithParamInterface<LocalClock> {
 protected:
  static constexpr int64_t kIn2026 = base::kWindowsToUnixEpochUs + int64_t{1767225600} * 1000000;

  LocalClockTest() : NtpTimePacketHandlerTest({.wall_us = WallUs()}) {}

  static int64_t WallUs() { return base::kWindowsToUnixEpochUs + GetParam().unix_s * 1000000; }
};

TEST_P(LocalClockTest, ARightServerIsBelievedWhateverTheLocalClockSays) {
  link_ = {.out_us = 10000, .home_us = 10000, .server_ahead_us = kIn2026 - WallUs(), .work_us = 200};
  Prepare();
  Send();
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].data, (NtpResultData{kIn2026 - WallUs(), 20000}));
}

INSTANTIATE_TEST_SUITE_P(, LocalClockTest,
                         testing::Values(LocalClock{1970, 0}, LocalClock{1980, 315532800},
                                         LocalClock{1999, 946684799}, LocalClock{2024, 1704067200},
                                         LocalClock{2026, 1767225600}, LocalClock{2036, 2085978496},
                                         LocalClock{2038, 2147483648}, LocalClock{2069, 3124224000},
                                         LocalClock{2094, 3944592000}, LocalClock{2095, 3976128000},
                                         LocalClock{2104, 4233462144}, LocalClock{2106, 4294967296},
                                         LocalClock{2116, 4610500096}, LocalClock{2137, 5270054400}),
                         [](const auto& row) { return std::to_string(row.param.year); });

class SingleRequestsTest : public NtpTimePacketHandlerTest {
 protected:
  SingleRequestsTest() {
    handler_.emplace(&client_, base::GetSystemTimeOffsetFromSteady(),
                     NtpTimePacketHandler::Requests::kSingle);
    Prepare();
    // The account of a burst that nobody answered.
    NtpAddressLedger::GetInstance()->Admit(kServer, world_.steady_ticks_us(), 20);
  }
  NtpAddressLedger::Counts Counts() { return NtpAddressLedger::GetInstance()->GetCounts().at(kServer); }
};

TEST_F(SingleRequestsTest, TheyLeaveWhateverTheirNumberAndAreNoCallsOfTheBurst) {
  for (int i = 0; i < 30; ++i) {
    Send();
  }
  EXPECT_EQ(sent_.size(), 30u);
  EXPECT_EQ(Counts().requests_sent, 30u);
  for (int call = 1; call < 20; ++call) {
    EXPECT_TRUE(NtpAddressLedger::GetInstance()->Admit(kServer, world_.steady_ticks_us(), 20));
  }
}

TEST_F(SingleRequestsTest, TheirRepliesAreSamplesThatSayNothingAboutTheBurst) {
  Send();
  Run();
  EXPECT_EQ(client_.Samples().size(), 1u);
  EXPECT_EQ(Counts().replies, 1u);
  EXPECT_FALSE(NtpAddressLedger::GetInstance()->HasAnswered(kServer));
}

TEST_F(SingleRequestsTest, AClosedPortIsCountedAndSaysNothingAboutTheBurst) {
  is_answering_ = false;
  Send();
  const uint64_t before = Count("receive_error.refused");
  world_.ReportError(sent_[0].client, net::SocketError::kRefused);
  EXPECT_EQ(Count("receive_error.refused"), before + 1);
  EXPECT_FALSE(NtpAddressLedger::GetInstance()->WasClosedSince(kServer, 0));
}

TEST_F(SingleRequestsTest, ARefusalBindsAndNoSingleRequestLeavesUntilItIsOver) {
  is_answering_ = false;
  Send();
  NtpPacket refusal = ReplyTo(sent_[0]);
  refusal.stratum = 0;
  refusal.reference_id = 0x44454e59;  // "DENY"
  Deliver(sent_[0], refusal);
  Run();
  const uint64_t before = Count("send_withheld.denied");
  Send();
  EXPECT_EQ(sent_.size(), 1u);
  EXPECT_EQ(Count("send_withheld.denied"), before + 1);
  EXPECT_EQ(Counts().requests_withheld, 1u);
}

class LaboratoryTest : public NtpTimePacketHandlerTest {
 protected:
  LaboratoryTest()
      : NtpTimePacketHandlerTest({.wall_us = base::kWindowsToUnixEpochUs + int64_t{1704067200} * 1000000}) {}
};

TEST_F(LaboratoryTest, ClocksAndServerThatAllSay2024AreTakenAtTheirWord) {
  link_ = {.out_us = 10000, .home_us = 10000, .server_ahead_us = 1500, .work_us = 200};
  Prepare();
  Send();
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].data, (NtpResultData{1500, 20000}));
}

class WindowsEndTest : public NtpTimePacketHandlerTest {
 protected:
  WindowsEndTest() : NtpTimePacketHandlerTest({.wall_us = kTimeWindowBeginUs + kNtpEraUs - 10000}) {}
};

TEST_F(WindowsEndTest, BothTimeStampsOfAReplyStandOnTheSameSideOfIt) {
  // Received 5 ms before the end, transmitted 15 ms after it.
  link_ = {.out_us = 5000, .home_us = 5000, .server_ahead_us = 0, .work_us = 20000};
  Prepare();
  Send();
  Run();
  const auto samples = client_.Samples();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].data, (NtpResultData{0, 10000}));
}

}  // namespace
}  // namespace skorra
