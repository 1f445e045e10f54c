#include "transport/ntp_time_packet_handler.h"

#include <optional>
#include <string>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/int_math.h"
#include "platform/base/random.h"
#include "platform/base/time.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "transport/ntp_burst.h"

namespace skorra {
namespace {

// From a burst's first call until after its last, half a call later.
constexpr int64_t kBurstUs = kCallsPerBurst * kCallSpacingUs - kCallSpacingUs / 2;
constexpr int64_t kBurstGapUs = base::kUsPerSecond;
// As long as the time manager waits for a burst.
constexpr int64_t kNonceLifetimeUs = 3 * base::kUsPerSecond;
// Until then a late or doubled reply is told from one that answers nothing.
constexpr int64_t kRememberUs = 10 * base::kUsPerSecond;
constexpr size_t kMaxRequests = 4096;

static_assert(config::kBaseConfig.ntp_requests_per_burst.max == kCallsPerBurst);

void CountUnder(const char* group, const char* name) {
  base::KeyMetrics::Count(std::string("ntp.") + group + '.' + name);
}

void CountSendError(net::SocketError error) { CountUnder("send_error", net::SocketErrorName(error)); }

void CountReceiveError(net::SocketError error) { CountUnder("receive_error", net::SocketErrorName(error)); }

// A configured limit in milliseconds.
int64_t LimitUs(const config::NumberEntry& entry) {
  return static_cast<int64_t>(config::GetNumber(entry)) * 1000;
}

// Spreads `limit` requests evenly over the burst's calls, the first one among them.
bool IsChosen(uint32_t call, uint32_t limit) {
  return call < kCallsPerBurst && call * limit % kCallsPerBurst < limit;
}

}  // namespace

NtpTimePacketHandler::NtpTimePacketHandler(Client* client, int64_t system_offset_from_steady_us)
    : client_(client), system_offset_from_steady_us_(system_offset_from_steady_us) {}

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
  const int64_t now_us = base::GetSteadyTimeTicks();
  ForgetOldRequests(now_us);
  Peer& peer = peers_[server];
  if (!MayLeave(server, peer, now_us)) {
    return;
  }
  net::SocketError error = net::SocketError::kNone;
  if (!OpenSocket(server, peer, &error)) {
    CountSendError(error);
    return;
  }

  uint64_t nonce = 0;
  while (nonce == 0) {  // zero stands for "no time stamp"
    nonce = base::RandUint64();
  }
  const auto bytes = EncodePacket(MakeRequest(nonce));
  Request request{.server = server};
  // Nothing may stand between this reading and the send: what does is measured as travel time, unless the
  // kernel tells better.
  request.send_ticks_us = base::GetSteadyTimeTicks();
  error = peer.socket->Send(bytes, &request.send_id);
  if (error != net::SocketError::kNone) {
    CountSendError(error);
    return;
  }
  requests_.insert_or_assign(nonce, request);
  by_age_.emplace_back(request.send_ticks_us, nonce);
  NtpAddressLedger::GetInstance()->OnRequestSent(server);
  base::KeyMetrics::Count("ntp.requests_sent");
}

void NtpTimePacketHandler::Clean() {
  is_prepared_ = false;
  requests_.clear();
  by_age_.clear();
  for (auto& [server, peer] : peers_) {
    peer.socket = nullptr;
  }
  // A burst under way stays one burst, whatever attempts its calls belong to: begun anew, it would send more
  // than it may.
  const int64_t now_us = base::GetSteadyTimeTicks();
  std::erase_if(peers_, [now_us](const auto& entry) {
    return !entry.second.burst_us || now_us - *entry.second.burst_us >= kBurstGapUs;
  });
}

bool NtpTimePacketHandler::MayLeave(const net::IPEndPoint& server, Peer& peer, int64_t now_us) {
  NtpAddressLedger* const ledger = NtpAddressLedger::GetInstance();
  const int64_t age_us = peer.burst_us ? now_us - *peer.burst_us : kBurstGapUs;
  // However many domains and attempts call meanwhile, what one burst may take is shared among them.
  if (age_us >= (peer.call_count >= kCallsPerBurst ? kBurstUs : kBurstGapUs)) {
    peer.burst_us = now_us;
    peer.call_count = 0;
    peer.request_limit = requests_per_burst_;
    peer.refusal = ledger->BeginBurst(server, now_us, &peer.request_limit);
  }
  const uint32_t call = peer.call_count++;
  if (peer.refusal != SendRefusal::kNone) {
    ledger->OnRequestRefused(server);
    CountUnder("send_refused", SendRefusalName(peer.refusal));
    return false;
  }
  if (!IsChosen(call, peer.request_limit)) {
    base::KeyMetrics::Count("ntp.send_thinned");
    return false;
  }
  return true;
}

bool NtpTimePacketHandler::OpenSocket(const net::IPEndPoint& server, Peer& peer, net::SocketError* error) {
  if (peer.socket != nullptr) {
    return true;
  }
  // A failure is not kept, so that the next send tries again.
  peer.socket = net::DatagramSocket::Connect(
      server,
      {.on_datagram = [this, server](const net::ReceivedDatagram& datagram) { OnDatagram(server, datagram); },
       .on_error = CountReceiveError,
       .on_sent = [this, server](uint32_t send_id,
                                 int64_t send_ticks_us) { OnSent(server, send_id, send_ticks_us); }},
      error);
  return peer.socket != nullptr;
}

void NtpTimePacketHandler::OnSent(const net::IPEndPoint& server, uint32_t send_id, int64_t send_ticks_us) {
  for (auto& [nonce, request] : requests_) {
    if (request.send_id == send_id && request.server == server) {
      request.send_ticks_us = send_ticks_us;
      request.has_kernel_stamp = true;
      return;
    }
  }
}

void NtpTimePacketHandler::OnDatagram(const net::IPEndPoint& server, const net::ReceivedDatagram& datagram) {
  NtpPacket reply;
  Request* request = nullptr;
  NtpResultData sample;
  ReplyRejection rejection = FindRequest(server, datagram, &reply, &request);
  if (rejection == ReplyRejection::kNone) {
    NtpAddressLedger::GetInstance()->OnReply(server);
    if (const KissCode code = ReadKissCode(reply); code != KissCode::kNone) {
      OnKiss(code, *request);
      return;
    }
    rejection = Measure(reply, *request, datagram.receive_ticks_us, &sample);
  }
  if (rejection != ReplyRejection::kNone) {
    CountUnder("rejected", ReplyRejectionName(rejection));
    return;
  }
  // The nonce is given up last: whoever guesses at it, or answers on behalf of another server, must not be
  // able to make the genuine reply be taken for a duplicate.
  request->is_answered = true;
  base::KeyMetrics::Count("ntp.samples_received");
  CountUnder("send_stamp", request->has_kernel_stamp ? "kernel" : "user");
  CountUnder("receive_stamp", net::StampSourceName(datagram.stamp_source));
  if (!is_first_packet_reported_) {
    is_first_packet_reported_ = true;
    client_->OnFirstPacketReceived(sample.offset_us);
  }
  client_->OnPacketReceived(sample, server);
}

// The source comes first: what another address sends is not even decoded.
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
  if (found->second.server != server) {
    return ReplyRejection::kWrongSource;
  }
  if (found->second.is_answered) {
    return ReplyRejection::kDuplicate;
  }
  if (datagram.receive_ticks_us - found->second.send_ticks_us > kNonceLifetimeUs) {
    return ReplyRejection::kExpired;
  }
  *reply = *packet;
  *request = &found->second;
  return ReplyRejection::kNone;
}

void NtpTimePacketHandler::OnKiss(KissCode code, Request& request) {
  if (code != KissCode::kRate && code != KissCode::kDeny && code != KissCode::kRstr) {
    // No refusal: a genuine reply may still follow.
    CountUnder("kiss", KissCodeName(code));
    return;
  }
  request.is_answered = true;
  NtpAddressLedger* const ledger = NtpAddressLedger::GetInstance();
  const int64_t now_us = base::GetSteadyTimeTicks();
  const bool is_news = ledger->OnRefusal(request.server, code, now_us, base::RandUint64());
  // As the ledger has it: RATE behind DENY does not make the refusal a milder one.
  peers_[request.server].refusal = ledger->Check(request.server, now_us);
  CountUnder("kiss", is_news ? KissCodeName(code) : "repeated");
}

ReplyRejection NtpTimePacketHandler::Measure(const NtpPacket& reply, const Request& request,
                                             int64_t receive_ticks_us, NtpResultData* sample) const {
  if (const ReplyRejection rejection = CheckReply(reply, max_root_distance_us_);
      rejection != ReplyRejection::kNone) {
    return rejection;
  }
  const int64_t receive_us = ToLocalTimestampUs(receive_ticks_us);
  const int64_t server_receive_us = NtpTimestampToUs(reply.receive_timestamp, receive_us);
  // The receive time stamp is the pivot of the transmit time stamp, so that both fall into the same era also
  // for a server that is half an era away.
  *sample =
      ComputeSample({.send_us = ToLocalTimestampUs(request.send_ticks_us),
                     .server_receive_us = server_receive_us,
                     .server_transmit_us = NtpTimestampToUs(reply.transmit_timestamp, server_receive_us),
                     .receive_us = receive_us});
  if (sample->rtt_us < 0) {
    return ReplyRejection::kNegativeRoundTrip;
  }
  return sample->rtt_us > max_round_trip_us_ ? ReplyRejection::kLongRoundTrip : ReplyRejection::kNone;
}

void NtpTimePacketHandler::ForgetOldRequests(int64_t now_us) {
  while (!by_age_.empty() &&
         (now_us - by_age_.front().first > kRememberUs || by_age_.size() >= kMaxRequests)) {
    requests_.erase(by_age_.front().second);
    by_age_.pop_front();
  }
}

// Modulo 2^64, as the time manager computes the local timestamps that the offset is added to.
int64_t NtpTimePacketHandler::ToLocalTimestampUs(int64_t ticks_us) const {
  return base::WrappingAdd(ticks_us, system_offset_from_steady_us_);
}

}  // namespace skorra
