// SPDX-License-Identifier: Apache-2.0
#include "fuzz/handler_model.h"

#include <algorithm>
#include <utility>

#include "fuzz/check.h"
#include "fuzz/packet_reference.h"
#include "platform/base/int_math.h"
#include "platform/base/time.h"
#include "platform/metrics/key_metrics.h"

namespace skorra::fuzz {
namespace {

constexpr int64_t kSecondUs = base::kUsPerSecond;

}  // namespace

ExpectedCounters::ExpectedCounters() : counts_(base::KeyMetrics::GetAllCounts()) {}

void ExpectedCounters::Count(const std::string& name) {
  const auto entry = counts_.try_emplace(name, 0).first;
  ++entry->second;
  moved_.push_back(&entry->first);
}

void ExpectedCounters::CheckMoved() {
  for (const std::string* name : moved_) {
    SKORRA_FUZZ_CHECK_NAMED(base::KeyMetrics::GetCount(*name) == counts_[*name], name->c_str());
  }
  moved_.clear();
}

void ExpectedCounters::CheckAll() const {
  const auto real = base::KeyMetrics::GetAllCounts();
  for (const auto& [name, count] : real) {
    const auto expected = counts_.find(name);
    SKORRA_FUZZ_CHECK_NAMED(expected != counts_.end() && expected->second == count, name.c_str());
  }
  SKORRA_FUZZ_CHECK(real.size() == counts_.size());
}

void HandlerModel::Prepare(const Limits& limits) {
  Clean();
  limits_ = limits;
  is_prepared_ = true;
  is_first_reported_ = false;
}

void HandlerModel::Clean() {
  is_prepared_ = false;
  for (Peer& peer : peers_) {
    peer = Peer();
  }
  for (Request& request : requests_) {
    request.is_forgotten = true;
  }
}

bool HandlerModel::Call(size_t server, int64_t now_ticks_us) {
  if (!is_prepared_) {
    counters_->Count("ntp.send_skipped");
    return false;
  }
  for (Request& request : requests_) {
    request.is_forgotten = request.is_forgotten || now_ticks_us - request.send_ticks_us > 10 * kSecondUs;
  }
  const auto verdict = ledger_.Call(static_cast<int>(server), now_ticks_us, limits_.requests_per_burst);
  if (verdict.refusal != SendRefusal::kNone) {
    counters_->Count(std::string("ntp.send_withheld.") + SendRefusalName(verdict.refusal));
  } else if (!verdict.leaves) {
    counters_->Count("ntp.send_thinned");
  }
  return verdict.leaves;
}

uint64_t HandlerModel::NextNonce() {
  uint64_t nonce = 0;
  while (nonce == 0) {
    nonce = random_.Next();
  }
  return nonce;
}

void HandlerModel::OnSendError(net::SocketError error) {
  counters_->Count(std::string("ntp.send_error.") + net::SocketErrorName(error));
}

void HandlerModel::OnLeft(size_t server, const net::IPEndPoint& client, uint64_t nonce,
                          int64_t now_ticks_us) {
  Peer& peer = peers_[server];
  const bool is_port_known = std::any_of(requests_.begin(), requests_.end(),
                                         [&](const Request& request) { return request.client == client; });
  if (peer.send_count == 0) {
    SKORRA_FUZZ_CHECK(!is_port_known);  // each address has a socket of its own, in each attempt a new one
    peer.client = client;
  }
  SKORRA_FUZZ_CHECK(peer.client == client);
  requests_.push_back({.nonce = nonce,
                       .server = server,
                       .client = client,
                       .send_id = peer.send_count++,
                       .send_ticks_us = now_ticks_us,
                       .stamp_ticks_us = now_ticks_us});
  ledger_.Sent(static_cast<int>(server));
  counters_->Count("ntp.requests_sent");
}

void HandlerModel::OnSendStamp(Request& request, int64_t send_ticks_us) {
  if (!request.is_forgotten) {
    request.stamp_ticks_us = send_ticks_us;
    request.has_kernel_stamp = true;
  }
}

void HandlerModel::OnReceiveError(size_t server, net::SocketError error, int64_t now_ticks_us) {
  if (Peer& peer = peers_[server]; !peer.is_reading) {
    if (peer.unread.size() < 256) {
      peer.unread.push_back({{}, {}, 0, error});
    }
    return;
  }
  counters_->Count(std::string("ntp.receive_error.") + net::SocketErrorName(error));
  StopReadingIfDone(server, now_ticks_us);
}

std::optional<size_t> HandlerModel::FindSocket(const net::IPEndPoint& client) const {
  for (size_t server = 0; server < kServerCount; ++server) {
    if (peers_[server].send_count > 0 && peers_[server].client == client) {
      return server;
    }
  }
  return std::nullopt;
}

void HandlerModel::StopReadingIfDone(size_t server, int64_t ticks_us) {
  const bool is_done = std::none_of(requests_.begin(), requests_.end(), [&](const Request& request) {
    return request.server == server && !request.is_forgotten && !request.is_used_up &&
           ticks_us - request.stamp_ticks_us <= 3 * kSecondUs;
  });
  peers_[server].is_reading = peers_[server].is_reading && !is_done;
}

void HandlerModel::Reject(size_t server, ReplyRejection rejection, int64_t receive_ticks_us) {
  counters_->Count(std::string("ntp.rejected.") + ReplyRejectionName(rejection));
  StopReadingIfDone(server, receive_ticks_us);
}

void HandlerModel::ResumeReading(size_t server) {
  peers_[server].is_reading = true;
  for (Datagram& datagram : std::exchange(peers_[server].unread, {})) {
    resumed_.emplace_back(server, std::move(datagram));
  }
}

bool HandlerModel::ReadResumed(int64_t now_ticks_us) {
  if (resumed_.empty()) {
    return false;
  }
  const auto [server, datagram] = std::move(resumed_.front());
  resumed_.pop_front();
  if (datagram.error != net::SocketError::kNone) {
    OnReceiveError(server, datagram.error, now_ticks_us);
  } else {
    OnDatagram(server, datagram.source, datagram.bytes, datagram.receive_ticks_us, now_ticks_us);
  }
  return true;
}

ReplyRejection HandlerModel::FindRequest(size_t server, const net::IPEndPoint& source,
                                         std::span<const uint8_t> bytes, int64_t receive_ticks_us,
                                         Request** request) {
  if (source != servers_[server]) {
    return ReplyRejection::kWrongSource;
  }
  if (bytes.size() > net::kMaxDatagramBytes) {
    return ReplyRejection::kTruncated;
  }
  if (bytes.size() < 48) {
    return ReplyRejection::kShort;
  }
  if (!ExpectedExtensionFields(bytes.subspan(48))) {
    return ReplyRejection::kExtension;
  }
  if (const ReplyRejection rejection = ExpectedHeaderCheck(bytes); rejection != ReplyRejection::kNone) {
    return rejection;
  }
  const uint64_t nonce = NumberAt(bytes, 24, 8);
  if (nonce == 0) {
    return ReplyRejection::kZeroOrigin;
  }
  const auto found = std::find_if(requests_.begin(), requests_.end(), [&](const Request& candidate) {
    return candidate.nonce == nonce && !candidate.is_forgotten;
  });
  if (found == requests_.end()) {
    return ReplyRejection::kUnknownNonce;
  }
  if (found->server != server) {
    return ReplyRejection::kWrongSource;
  }
  if (found->is_used_up) {
    return ReplyRejection::kDuplicate;
  }
  if (receive_ticks_us - found->stamp_ticks_us > 3 * kSecondUs) {
    return ReplyRejection::kExpired;
  }
  *request = &*found;
  return ReplyRejection::kNone;
}

void HandlerModel::OnDatagram(size_t server, const net::IPEndPoint& source, std::span<const uint8_t> bytes,
                              int64_t receive_ticks_us, int64_t now_ticks_us) {
  if (Peer& peer = peers_[server]; !peer.is_reading) {
    if (peer.unread.size() < 256) {
      peer.unread.push_back(
          {source, {bytes.begin(), bytes.end()}, receive_ticks_us, net::SocketError::kNone});
    }
    return;
  }
  Request* request = nullptr;
  if (const auto rejection = FindRequest(server, source, bytes, receive_ticks_us, &request);
      rejection != ReplyRejection::kNone) {
    Reject(server, rejection, receive_ticks_us);
    return;
  }
  ledger_.Answered(static_cast<int>(server));
  if (const KissCode code = ExpectedKissCode(bytes); code != KissCode::kNone) {
    OnKissCode(code, *request, now_ticks_us);
  } else if (const auto rejection = ExpectedReplyCheck(bytes, limits_.max_root_distance_us);
             rejection != ReplyRejection::kNone) {
    Reject(server, rejection, receive_ticks_us);
  } else {
    Measure(bytes, *request, receive_ticks_us);
  }
}

void HandlerModel::OnKissCode(KissCode code, Request& request, int64_t now_ticks_us) {
  const bool is_rate = code == KissCode::kRate;
  bool is_repeated = false;
  if (is_rate || code == KissCode::kDeny || code == KissCode::kRstr) {
    request.is_used_up = true;
    is_repeated = !ledger_.Refused(static_cast<int>(request.server), is_rate, now_ticks_us, random_.Next());
  }
  counters_->Count(std::string("ntp.kiss.") + (is_repeated ? "repeated" : KissCodeName(code)));
}

void HandlerModel::Measure(std::span<const uint8_t> bytes, Request& request, int64_t receive_ticks_us) {
  ExchangeTimes times;
  times.send_local_us = LocalUs(request.stamp_ticks_us);
  times.receive_local_us = LocalUs(receive_ticks_us);
  const ServerTimes server = ExpectedServerTimes(NumberAt(bytes, 32, 8), NumberAt(bytes, 40, 8));
  times.server_receive_ntp_us = server.receive_ntp_us;
  times.server_transmit_ntp_us = server.transmit_ntp_us;
  const NtpResultData data = ExpectedSample(times);
  if (data.rtt_us < 0) {
    Reject(request.server, ReplyRejection::kNegativeRoundTrip, receive_ticks_us);
    return;
  }
  if (data.rtt_us > limits_.max_round_trip_us) {
    Reject(request.server, ReplyRejection::kLongRoundTrip, receive_ticks_us);
    return;
  }
  request.is_used_up = true;
  counters_->Count("ntp.samples_received");
  counters_->Count(request.has_kernel_stamp ? "ntp.send_stamp.kernel" : "ntp.send_stamp.user");
  counters_->Count("ntp.receive_stamp.kernel");
  // Rounded up: 2^-16 s are 15.26 us.
  const auto short_us = [&](size_t position) {
    const auto units = static_cast<int64_t>(NumberAt(bytes, position, 4));
    return units / 65536 * kSecondUs + (units % 65536 * kSecondUs + 65535) / 65536;
  };
  NtpExchange exchange;
  exchange.sample = data;
  exchange.send_local_us = times.send_local_us;
  exchange.server_receive_us = times.server_receive_ntp_us;
  exchange.server_transmit_us = times.server_transmit_ntp_us;
  exchange.receive_local_us = times.receive_local_us;
  exchange.system_offset_from_steady_us = clock_offset_us_;
  exchange.root_delay_us = short_us(4);
  exchange.root_dispersion_us = short_us(8);
  exchange.precision = static_cast<int8_t>(bytes[3]);
  exchange.stratum = bytes[1];
  exchange.leap_indicator = static_cast<uint8_t>(bytes[0] >> 6);
  exchange.reference_id = static_cast<uint32_t>(NumberAt(bytes, 12, 4));
  exchange.send_stamp = request.has_kernel_stamp ? NtpStampSource::kKernel : NtpStampSource::kUser;
  exchange.receive_stamp = NtpStampSource::kKernel;
  exchange.server = servers_[request.server];
  reports_.push_back({exchange, request.server, !is_first_reported_});
  is_first_reported_ = true;
}

int64_t HandlerModel::LocalUs(int64_t ticks_us) const {
  return base::WrappingAdd(ticks_us, clock_offset_us_);
}

void HandlerModel::CheckLedger() const {
  const auto counts = NtpAddressLedger::GetInstance()->GetCounts();
  for (size_t server = 0; server < kServerCount; ++server) {
    const auto found = counts.find(servers_[server]);
    const auto real = found == counts.end() ? NtpAddressLedger::Counts() : found->second;
    const auto expected = ledger_.Counts(static_cast<int>(server));
    SKORRA_FUZZ_CHECK(real.requests_sent == expected.requests_sent);
    SKORRA_FUZZ_CHECK(real.requests_withheld == expected.requests_withheld);
    SKORRA_FUZZ_CHECK(real.replies == expected.replies);
    SKORRA_FUZZ_CHECK(real.kiss_codes == expected.kiss_codes);
  }
}

}  // namespace skorra::fuzz
