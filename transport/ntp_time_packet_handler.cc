#include "transport/ntp_time_packet_handler.h"

#include <optional>
#include <string>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/random.h"
#include "platform/metrics/key_metrics.h"

namespace skorra {
namespace {

void CountSendError(net::SocketError error) {
  base::KeyMetrics::Count(std::string("ntp.send_error.") + net::SocketErrorName(error));
}

void CountReceiveError(net::SocketError error) {
  base::KeyMetrics::Count(std::string("ntp.receive_error.") + net::SocketErrorName(error));
}

}  // namespace

NtpTimePacketHandler::NtpTimePacketHandler(Client* client, int64_t system_offset_from_steady_us)
    : client_(client), system_offset_from_steady_us_(system_offset_from_steady_us) {}

NtpTimePacketHandler::~NtpTimePacketHandler() = default;

void NtpTimePacketHandler::PrepareForSendPackets() {
  Clean();
  is_prepared_ = true;
  is_first_packet_reported_ = false;
}

void NtpTimePacketHandler::UpdateSystemTimeOffsetFromSteady(int64_t system_offset_from_steady_us) {
  system_offset_from_steady_us_ = system_offset_from_steady_us;
}

void NtpTimePacketHandler::SendPacket(const net::IPEndPoint& server) {
  if (!is_prepared_) {
    base::KeyMetrics::Count("ntp.send_skipped");
    return;
  }
  net::SocketError error = net::SocketError::kNone;
  net::DatagramSocket* const socket = GetSocket(server, &error);
  if (socket == nullptr) {
    CountSendError(error);
    return;
  }

  uint64_t nonce = 0;
  while (nonce == 0) {  // zero stands for "no time stamp"
    nonce = base::RandUint64();
  }
  const auto request = EncodePacket(MakeRequest(nonce));
  // Nothing may stand between this reading and the send: what does is measured as travel time.
  const int64_t send_ticks_us = base::GetSteadyTimeTicks();
  error = socket->Send(request);
  if (error != net::SocketError::kNone) {
    CountSendError(error);
    return;
  }
  outstanding_.emplace(nonce, Outstanding{server, send_ticks_us});
  base::KeyMetrics::Count("ntp.requests_sent");
}

void NtpTimePacketHandler::Clean() {
  is_prepared_ = false;
  outstanding_.clear();
  sockets_.clear();
}

net::DatagramSocket* NtpTimePacketHandler::GetSocket(const net::IPEndPoint& server, net::SocketError* error) {
  if (const auto found = sockets_.find(server); found != sockets_.end()) {
    return found->second.get();
  }
  auto socket = net::DatagramSocket::Connect(
      server,
      {.on_datagram = [this](const net::ReceivedDatagram& datagram) { OnDatagram(datagram); },
       .on_error = CountReceiveError},
      error);
  // A failure is not kept, so that the next send tries again.
  return socket == nullptr ? nullptr : sockets_.emplace(server, std::move(socket)).first->second.get();
}

void NtpTimePacketHandler::OnDatagram(const net::ReceivedDatagram& datagram) {
  NtpPacket reply;
  Outstanding request;
  if (const ReplyRejection rejection = AcceptReply(datagram, &reply, &request);
      rejection != ReplyRejection::kNone) {
    base::KeyMetrics::Count(std::string("ntp.rejected.") + ReplyRejectionName(rejection));
    return;
  }
  base::KeyMetrics::Count("ntp.samples_received");

  const int64_t receive_us = ToLocalTimestampUs(datagram.receive_ticks_us);
  const int64_t server_receive_us = NtpTimestampToUs(reply.receive_timestamp, receive_us);
  // The receive time stamp is the pivot of the transmit time stamp, so that both fall into the same era also
  // for a server that is half an era away.
  const NtpResultData sample =
      ComputeSample({.send_us = ToLocalTimestampUs(request.send_ticks_us),
                     .server_receive_us = server_receive_us,
                     .server_transmit_us = NtpTimestampToUs(reply.transmit_timestamp, server_receive_us),
                     .receive_us = receive_us});
  if (!is_first_packet_reported_) {
    is_first_packet_reported_ = true;
    client_->OnFirstPacketReceived(sample.offset_us);
  }
  client_->OnPacketReceived(sample, request.server);
}

// The nonce is given up last: whoever guesses at it, or answers on behalf of another server, must not be able
// to make the genuine reply be taken for a duplicate.
ReplyRejection NtpTimePacketHandler::AcceptReply(const net::ReceivedDatagram& datagram, NtpPacket* reply,
                                                 Outstanding* request) {
  const std::optional<NtpPacket> packet = DecodePacket(datagram.bytes);
  if (!packet) {
    return ReplyRejection::kShort;
  }
  const auto found = outstanding_.find(packet->origin_timestamp);
  if (found == outstanding_.end()) {
    return ReplyRejection::kUnknownNonce;
  }
  if (found->second.server != datagram.source) {
    return ReplyRejection::kWrongSource;
  }
  if (const ReplyRejection rejection = CheckReply(*packet); rejection != ReplyRejection::kNone) {
    return rejection;
  }
  *reply = *packet;
  *request = found->second;
  outstanding_.erase(found);
  return ReplyRejection::kNone;
}

// Modulo 2^64, as the time manager computes the local timestamps that the offset is added to.
int64_t NtpTimePacketHandler::ToLocalTimestampUs(int64_t ticks_us) const {
  return static_cast<int64_t>(static_cast<uint64_t>(ticks_us) +
                              static_cast<uint64_t>(system_offset_from_steady_us_));
}

}  // namespace skorra
