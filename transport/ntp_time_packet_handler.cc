// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_time_packet_handler.h"

#include <algorithm>
#include <optional>
#include <string>

#include "platform/base/clock.h"
#include "platform/base/int_math.h"
#include "platform/base/random.h"
#include "platform/base/time.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

// As long as the time manager waits for a burst.
constexpr int64_t kNonceLifetimeUs = 3 * base::kUsPerSecond;
// Nonces are remembered this long, so that late and duplicate replies are not counted as unknown.
constexpr int64_t kRememberUs = 10 * base::kUsPerSecond;

static_assert(config::kBaseConfig.ntp_requests_per_burst.max == kCallsPerBurst);

// Returns the counter's name.
std::string CountUnder(const char* group, const char* name) {
  std::string counter = std::string("ntp.") + group + '.' + name;
  base::KeyMetrics::Count(counter);
  return counter;
}

// A configured limit in milliseconds.
int64_t LimitUs(const config::NumberEntry& entry) {
  return static_cast<int64_t>(config::GetNumber(entry)) * 1000;
}

}  // namespace

NtpTimePacketHandler::NtpTimePacketHandler(Client* client, int64_t system_offset_from_steady_us,
                                           Requests requests)
    : client_(client), kind_(requests), system_offset_from_steady_us_(system_offset_from_steady_us) {}

NtpTimePacketHandler::~NtpTimePacketHandler() = default;

void NtpTimePacketHandler::PrepareForSendPackets() {
  Clean();
  is_prepared_ = true;
  is_first_packet_reported_ = false;
  const config::BaseConfig& entries = config::BaseCfg();
  requests_per_burst_ = static_cast<uint32_t>(config::GetNumber(entries.ntp_requests_per_burst));
  max_root_distance_us_ = LimitUs(entries.ntp_max_root_distance_ms);
  max_round_trip_us_ = LimitUs(entries.ntp_max_round_trip_ms);
}

void NtpTimePacketHandler::UpdateSystemTimeOffsetFromSteady(int64_t system_offset_from_steady_us) {
  system_offset_from_steady_us_ = system_offset_from_steady_us;
}

void NtpTimePacketHandler::SendPacket(const net::IPEndPoint& server) {
  if (!is_prepared_) {
    base::KeyMetrics::Count("ntp.send_skipped");
    return;
  }
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  ForgetOldRequests(now_ticks_us);
  if (!Admit(server, now_ticks_us)) {
    return;
  }
  Peer& peer = peers_[server];
  net::SocketError error = OpenSocket(server, peer);
  if (error != net::SocketError::kNone) {
    OnSocketError("send_error", server, error);
    return;
  }

  Request request{.server = server};
  while (request.nonce == 0) {  // zero stands for "no time stamp"
    request.nonce = base::RandUint64();
  }
  const auto bytes = EncodePacket(MakeRequest(request.nonce));
  // Read the clock immediately before sending: anything in between counts as network delay unless a kernel
  // time stamp replaces it.
  request.send_ticks_us = base::GetSteadyTimeTicks();
  error = peer.socket->Send(bytes, &request.send_id);
  if (error != net::SocketError::kNone) {
    OnSocketError("send_error", server, error);
    return;
  }
  peer.requests.push_back(request);
  requests_[request.nonce] = &peer.requests.back();
  send_order_.emplace_back(request.send_ticks_us, &peer);
  NtpAddressLedger::GetInstance()->OnRequestSent(server);
  base::KeyMetrics::Count("ntp.requests_sent");
}

void NtpTimePacketHandler::Clean() {
  is_prepared_ = false;
  requests_.clear();
  send_order_.clear();
  peers_.clear();
}

net::SocketError NtpTimePacketHandler::OpenSocket(const net::IPEndPoint& server, Peer& peer) {
  net::SocketError error = net::SocketError::kNone;
  if (peer.socket == nullptr) {
    peer.socket = net::DatagramSocket::Connect(
        server,
        {.on_datagram = [this, server, &peer](
                            const net::ReceivedDatagram& datagram) { OnDatagram(server, peer, datagram); },
         .on_error =
             [this, server, &peer](net::SocketError what) {
               OnSocketError("receive_error", server, what);
               StopReadingIfDone(peer, base::GetSteadyTimeTicks());
             },
         .on_sent = [&peer](uint32_t send_id,
                            int64_t send_ticks_us) { OnSent(peer, send_id, send_ticks_us); }},
        &error);
  }
  return error;
}

bool NtpTimePacketHandler::Admit(const net::IPEndPoint& server, int64_t now_ticks_us) const {
  NtpAddressLedger* const ledger = NtpAddressLedger::GetInstance();
  return kind_ == Requests::kSingle ? ledger->AdmitSingle(server, now_ticks_us)
                                    : ledger->Admit(server, now_ticks_us, requests_per_burst_);
}

void NtpTimePacketHandler::OnSocketError(const char* group, const net::IPEndPoint& server,
                                         net::SocketError error) const {
  CountUnder(group, net::SocketErrorName(error));
  if (error == net::SocketError::kRefused && kind_ == Requests::kOfBursts) {
    NtpAddressLedger::GetInstance()->OnPortClosed(server, base::GetSteadyTimeTicks());
  }
}

void NtpTimePacketHandler::OnSent(Peer& peer, uint32_t send_id, int64_t send_ticks_us) {
  for (Request& request : peer.requests) {
    if (request.send_id == send_id) {
      request.send_ticks_us = send_ticks_us;
      request.has_kernel_stamp = true;
      return;
    }
  }
}

void NtpTimePacketHandler::StopReadingIfDone(Peer& peer, int64_t arrival_ticks_us) {
  const bool is_any_open =
      std::any_of(peer.requests.rbegin(), peer.requests.rend(), [&](const Request& request) {
        return !request.is_answered && arrival_ticks_us - request.send_ticks_us <= kNonceLifetimeUs;
      });
  if (!is_any_open) {
    peer.socket->StopReading();
  }
}

void NtpTimePacketHandler::OnDatagram(const net::IPEndPoint& server, Peer& peer,
                                      const net::ReceivedDatagram& datagram) {
  NtpPacket reply;
  Request* request = nullptr;
  NtpExchange exchange;
  ReplyRejection rejection = FindRequest(server, datagram, &reply, &request);
  if (rejection == ReplyRejection::kNone) {
    if (kind_ == Requests::kSingle) {
      NtpAddressLedger::GetInstance()->OnSingleReply(server);
    } else {
      NtpAddressLedger::GetInstance()->OnReply(server);
    }
    if (const KissCode code = ReadKissCode(reply); code != KissCode::kNone) {
      OnKissCode(code, *request);
      return;
    }
    rejection = Measure(reply, *request, datagram, &exchange);
  }
  if (rejection != ReplyRejection::kNone) {
    StopReadingIfDone(peer, datagram.receive_ticks_us);
    client_->OnReplyRejected(server, CountUnder("rejected", ReplyRejectionName(rejection)));
    return;
  }
  // Mark it answered last: a forged reply must not turn the genuine one into a duplicate.
  request->is_answered = true;
  base::KeyMetrics::Count("ntp.samples_received");
  CountUnder("send_stamp", request->has_kernel_stamp ? "kernel" : "user");
  CountUnder("receive_stamp", net::StampSourceName(datagram.stamp_source));
  if (!is_first_packet_reported_) {
    is_first_packet_reported_ = true;
    client_->OnFirstPacketReceived(exchange.sample.offset_us);
  }
  client_->OnExchange(exchange);
  client_->OnPacketReceived(exchange.sample, server);
}

// Checks the source first: a datagram from another address is not even decoded.
ReplyRejection NtpTimePacketHandler::FindRequest(const net::IPEndPoint& server,
                                                 const net::ReceivedDatagram& datagram, NtpPacket* reply,
                                                 Request** request) {
  if (datagram.source != server) {
    return ReplyRejection::kWrongSource;
  }
  if (datagram.is_truncated) {
    return ReplyRejection::kTruncated;
  }
  const std::optional<NtpPacket> packet = DecodePacket(datagram.bytes);
  if (!packet) {
    return ReplyRejection::kShort;
  }
  if (!AreExtensionFields(datagram.bytes.subspan(kNtpPacketSize))) {
    return ReplyRejection::kExtension;
  }
  if (const ReplyRejection rejection = CheckHeader(*packet); rejection != ReplyRejection::kNone) {
    return rejection;
  }
  if (packet->origin_timestamp == 0) {
    return ReplyRejection::kZeroOrigin;
  }
  const auto found = requests_.find(packet->origin_timestamp);
  if (found == requests_.end()) {
    return ReplyRejection::kUnknownNonce;
  }
  Request& asked = *found->second;
  if (asked.server != server) {
    return ReplyRejection::kWrongSource;
  }
  if (asked.is_answered) {
    return ReplyRejection::kDuplicate;
  }
  if (datagram.receive_ticks_us - asked.send_ticks_us > kNonceLifetimeUs) {
    return ReplyRejection::kExpired;
  }
  *reply = *packet;
  *request = &asked;
  return ReplyRejection::kNone;
}

void NtpTimePacketHandler::OnKissCode(KissCode code, Request& request) {
  const net::IPEndPoint server = request.server;  // a client that sends may forget the request
  if (code != KissCode::kRate && code != KissCode::kDeny && code != KissCode::kRstr) {
    // Not a refusal: a genuine reply may still follow.
    client_->OnReplyRejected(server, CountUnder("kiss", KissCodeName(code)));
    return;
  }
  request.is_answered = true;
  const bool is_news = NtpAddressLedger::GetInstance()->OnRefusal(
      request.server, code, base::GetSteadyTimeTicks(), base::RandUint64());
  client_->OnReplyRejected(server, CountUnder("kiss", is_news ? KissCodeName(code) : "repeated"));
}

ReplyRejection NtpTimePacketHandler::Measure(const NtpPacket& reply, const Request& request,
                                             const net::ReceivedDatagram& datagram,
                                             NtpExchange* exchange) const {
  if (const ReplyRejection rejection = CheckReply(reply, max_root_distance_us_);
      rejection != ReplyRejection::kNone) {
    return rejection;
  }
  ExchangeTimes times;
  times.send_local_us = ToLocalTimestampUs(request.send_ticks_us);
  times.receive_local_us = ToLocalTimestampUs(datagram.receive_ticks_us);
  const ServerTimes server = ReadServerTimes(reply);
  times.server_receive_ntp_us = server.receive_ntp_us;
  times.server_transmit_ntp_us = server.transmit_ntp_us;
  const NtpResultData sample = ComputeSample(times);
  if (sample.rtt_us < 0) {
    return ReplyRejection::kNegativeRoundTrip;
  }
  if (sample.rtt_us > max_round_trip_us_) {
    return ReplyRejection::kLongRoundTrip;
  }
  *exchange = {
      .sample = sample,
      .send_local_us = times.send_local_us,
      .server_receive_us = times.server_receive_ntp_us,
      .server_transmit_us = times.server_transmit_ntp_us,
      .receive_local_us = times.receive_local_us,
      .system_offset_from_steady_us = system_offset_from_steady_us_,
      .root_delay_us = NtpShortToUs(reply.root_delay),
      .root_dispersion_us = NtpShortToUs(reply.root_dispersion),
      .precision = reply.precision,
      .stratum = reply.stratum,
      .leap_indicator = reply.leap_indicator,
      .reference_id = reply.reference_id,
      .send_stamp = request.has_kernel_stamp ? NtpStampSource::kKernel : NtpStampSource::kUser,
      .receive_stamp = datagram.stamp_source == net::StampSource::kKernel ? NtpStampSource::kKernel
                                                                          : NtpStampSource::kUser,
      .server = request.server,
  };
  return ReplyRejection::kNone;
}

void NtpTimePacketHandler::ForgetOldRequests(int64_t now_ticks_us) {
  while (!send_order_.empty() && now_ticks_us - send_order_.front().first > kRememberUs) {
    std::deque<Request>& requests = send_order_.front().second->requests;
    requests_.erase(requests.front().nonce);
    requests.pop_front();
    send_order_.pop_front();
  }
}

int64_t NtpTimePacketHandler::ToLocalTimestampUs(int64_t steady_ticks_us) const {
  return base::WrappingAdd(steady_ticks_us, system_offset_from_steady_us_);
}

}  // namespace skorra
