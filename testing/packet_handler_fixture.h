// SPDX-License-Identifier: Apache-2.0

// A packet handler in the simulated world, a client that records what it reports, and a server that answers
// by hand or by itself.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/clock.h"
#include "platform/core/thread_manager.h"
#include "platform/metrics/key_metrics.h"
#include "sim/world.h"
#include "testing/addresses.h"
#include "testing/fresh_ledger.h"
#include "transport/ntp_packet.h"
#include "transport/ntp_time_packet_handler.h"

namespace skorra {

using base::TimeDelta;

inline const net::IPEndPoint kServer = Address("192.0.2.10");
inline const net::IPEndPoint kOtherServer = Address("2001:db8::10", 11123);

inline uint64_t Count(const std::string& name) { return base::KeyMetrics::GetCount("ntp." + name); }

// A server and the way to it and back.
struct Link {
  int64_t out_us = 12000;
  int64_t home_us = 8000;
  int64_t server_ahead_us = 250000;  // of the true time
  int64_t work_us = 300;

  int64_t ExpectedOffsetUs() const { return server_ahead_us + (out_us - home_us) / 2; }
  int64_t ExpectedRttUs() const { return out_us + home_us; }
};

struct Call {
  bool is_first = false;  // OnFirstPacketReceived, of which only the offset is known
  NtpResultData data;
  net::IPEndPoint server;
};

class RecordingClient : public NtpTimePacketHandler::Client {
 public:
  void OnFirstPacketReceived(int64_t offset_us) override {
    calls.push_back({true, {.offset_us = offset_us}, net::IPEndPoint()});
    EXPECT_EQ(exchanges.size(), sample_count_) << "an exchange comes after its attempt's first offset";
    is_on_queue &= IsOnQueue();
  }
  void OnExchange(const NtpExchange& exchange) override { exchanges.push_back(exchange); }
  void OnPacketReceived(NtpResultData data, const net::IPEndPoint& server) override {
    calls.push_back({false, data, server});
    ++sample_count_;
    // Each sample's exchange has been reported directly before it.
    ASSERT_EQ(exchanges.size(), sample_count_);
    EXPECT_EQ(exchanges.back().sample, data);
    EXPECT_EQ(exchanges.back().server, server);
    is_on_queue &= IsOnQueue();
    if (on_sample) {
      on_sample();
    }
  }

  std::vector<Call> Samples() const {
    std::vector<Call> samples;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(samples),
                 [](const Call& call) { return !call.is_first; });
    return samples;
  }

  std::vector<Call> calls;
  std::vector<NtpExchange> exchanges;  // since the beginning
  std::function<void()> on_sample;
  bool is_on_queue = true;

 private:
  size_t sample_count_ = 0;  // since the beginning
  static bool IsOnQueue() {
    return core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1, std::nullopt)->IsCurrent();
  }
};

// The first two numbers that a world with this seed draws.
inline std::vector<uint64_t> NumbersOf(uint64_t seed) {
  sim::World world({.seed = seed});
  const uint64_t first = world.NextRandom();
  return {first, world.NextRandom()};
}

class NtpTimePacketHandlerTest : public testing::Test {
 protected:
  explicit NtpTimePacketHandlerTest(const sim::World::Options& options = {})
      : numbers_(NumbersOf(options.seed)), world_(options) {
    world_.SetNetwork([this](const sim::SentDatagram& sent) {
      sent_.push_back(sent);
      if (is_answering_) {
        Answer(sent);
      }
    });
    handler_.emplace(&client_, base::GetSystemTimeOffsetFromSteady());
  }

  void Prepare() {
    world_.RunAsTask(core::BusinessID::kNtpTime, [this] { handler_->PrepareForSendPackets(); });
  }
  void Clean() {
    world_.RunAsTask(core::BusinessID::kNtpTime, [this] { handler_->Clean(); });
  }
  void Send(const net::IPEndPoint& server = kServer) {
    world_.RunAsTask(core::BusinessID::kNtpTime, [&] { handler_->SendPacket(server); });
  }
  void Run() { world_.RunFor(TimeDelta::FromSeconds(1)); }

  // The answer of an honest server to a datagram sent now.
  NtpPacket ReplyTo(const sim::SentDatagram& sent) const {
    NtpPacket reply;
    reply.version = 4;
    reply.mode = 4;
    reply.stratum = 2;
    reply.origin_timestamp = DecodePacket(sent.bytes).value().transmit_timestamp;
    const int64_t arrival_us = world_.true_us() + link_.out_us + link_.server_ahead_us;
    reply.receive_timestamp = NtpTimestampFromUs(arrival_us);
    reply.transmit_timestamp = NtpTimestampFromUs(arrival_us + link_.work_us);
    return reply;
  }
  void Deliver(const sim::SentDatagram& sent, const NtpPacket& reply) {
    DeliverFrom(sent.server, sent.client, reply);
  }
  void DeliverFrom(const net::IPEndPoint& source, const net::IPEndPoint& client, const NtpPacket& reply) {
    const auto bytes = EncodePacket(reply);
    world_.DeliverFromAnywhere(source, client, {bytes.begin(), bytes.end()},
                               TimeDelta::FromMicroseconds(link_.out_us + link_.work_us + link_.home_us));
  }
  void Answer(const sim::SentDatagram& sent) { Deliver(sent, ReplyTo(sent)); }

  // `deliver` sends a bogus reply on its way. It is counted under `reason` and nothing else comes of it; the
  // genuine reply to the first request, sent right after it, is accepted.
  void ExpectDroppedAndThenTheGenuineOneTaken(const std::string& reason, const std::function<void()>& deliver,
                                              const NtpPacket& genuine) {
    const std::string counter = "rejected." + reason;
    const uint64_t before = Count(counter);
    deliver();
    Deliver(sent_[0], genuine);
    EXPECT_TRUE(world_.RunUntil([&] { return Count(counter) > before; }, TimeDelta::FromSeconds(1)));
    EXPECT_TRUE(client_.calls.empty());
    Run();
    EXPECT_EQ(Count(counter), before + 1);
    const auto samples = client_.Samples();
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(samples[0].data, (NtpResultData{link_.ExpectedOffsetUs(), link_.ExpectedRttUs()}));
  }

  FreshLedger ledger_;
  const std::vector<uint64_t> numbers_;
  sim::World world_;
  Link link_;
  bool is_answering_ = true;
  std::vector<sim::SentDatagram> sent_;
  RecordingClient client_;
  std::optional<NtpTimePacketHandler> handler_;
};

}  // namespace skorra
