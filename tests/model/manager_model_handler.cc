// SPDX-License-Identifier: Apache-2.0

// The model's packet handler.
#include <algorithm>
#include <vector>

#include "tests/model/manager_model.h"

namespace skorra::model {

void ManagerModel::MakeHandler() {
  if (!has_handler) {
    has_handler = true;
    handler_offset_us = system_offset_from_steady_us;
  }
}

void ManagerModel::CleanHandler() {
  is_handler_prepared_ = false;
  ++generation_;
  open_sockets.clear();
  unread_.clear();
}

void ManagerModel::PrepareHandler() {
  CleanHandler();
  is_handler_prepared_ = true;
  is_first_packet_reported_ = false;
}

void ManagerModel::RunSend(const net::IPEndPoint& address) {
  const int index = Surroundings::IndexOf(address);
  if (!is_handler_prepared_ || !ledger_.Call(index, now_ticks_us).leaves) {
    return;
  }
  while (random_.Next() == 0) {  // the nonce
  }
  if (std::find(open_sockets.begin(), open_sockets.end(), address) == open_sockets.end()) {
    open_sockets.push_back(address);
  }
  // Sending, the socket reads again: first what waits there.
  if (const auto unread = unread_.extract(index)) {
    for (const size_t which : unread.mapped()) {
      Add(Kind::kArrival, 0, 0, static_cast<int>(which), {});
    }
  }
  const Fate fate = surroundings_.FateOf(index, request_counts_[static_cast<size_t>(index)]++);
  trace.sent.push_back({address, now_ticks_us});
  requests_.push_back({index, now_ticks_us, fate, generation_});
  for (size_t i = 0; i < fate.arrival_count; ++i) {
    const auto [kind, delay_us] = fate.arrivals[i];
    arrivals_.push_back({requests_.size() - 1, kind, now_ticks_us + delay_us});
    Add(Kind::kArrival, delay_us, 0, static_cast<int>(arrivals_.size()) - 1, {});
  }
}

// Whether a reply that arrives then could be the first to a request.
bool ManagerModel::IsAnythingOpen(int address, int64_t arrival_ticks_us) const {
  return std::any_of(requests_.begin(), requests_.end(), [&](const Request& request) {
    return request.address == address && request.generation == generation_ && request.is_open &&
           arrival_ticks_us <= request.sent_ticks_us + 3000000;
  });
}

void ManagerModel::RunArrival(size_t which) {
  constexpr size_t kReceiveBuffer = 256;
  const Arriving& arriving = arrivals_[which];
  Request& request = requests_[arriving.request];
  if (request.generation != generation_ || arriving.kind == ArrivalKind::kOtherSource) {
    return;
  }
  if (const auto unread = unread_.find(request.address); unread != unread_.end()) {
    if (unread->second.size() < kReceiveBuffer) {
      unread->second.push_back(which);
    }
    return;
  }
  const bool is_error = arriving.kind == ArrivalKind::kPortClosed;
  if (is_error) {
    ledger_.Closed(request.address, now_ticks_us);
  }
  if ((is_error || !TakeReply(request, arriving.kind, arriving.at_ticks_us)) &&
      !IsAnythingOpen(request.address, is_error ? now_ticks_us : arriving.at_ticks_us)) {
    unread_[request.address];
  }
}

// RFC 5905, section 8. False when the reply is rejected.
bool ManagerModel::TakeReply(Request& request, ArrivalKind kind, int64_t arrival_ticks_us) {
  if (kind == ArrivalKind::kSpoofedAsOther || !request.is_open ||
      arrival_ticks_us > request.sent_ticks_us + 3000000) {
    return false;
  }
  ledger_.Answered(request.address);
  if (kind == ArrivalKind::kRate || kind == ArrivalKind::kDeny) {
    request.is_open = false;
    ledger_.Refused(request.address, kind == ArrivalKind::kRate, now_ticks_us, random_.Next());
  }
  if (kind != ArrivalKind::kGenuine) {
    return true;
  }
  const int64_t t1 = request.sent_ticks_us + handler_offset_us;
  const int64_t t2 = request.sent_ticks_us + surroundings_.true_offset_us + request.fate.server_receive_us;
  const int64_t t3 = request.sent_ticks_us + surroundings_.true_offset_us + request.fate.server_transmit_us;
  const int64_t t4 = arrival_ticks_us + handler_offset_us;
  const NtpResultData sample{((t2 - t1) + (t3 - t4)) / 2, (t4 - t1) - (t3 - t2)};
  if (sample.rtt_us < 0 || sample.rtt_us > 1500000) {
    return false;
  }
  request.is_open = false;
  const net::IPEndPoint server = Surroundings::Address(request.address);
  if (!is_first_packet_reported_) {
    is_first_packet_reported_ = true;
    FirstPacket(sample.offset_us);
  }
  Packet(sample, server);
  return true;
}

}  // namespace skorra::model
