#include "fuzz/handler_model.h"

#include <algorithm>

#include "fuzz/check.h"
#include "fuzz/packet_reference.h"
#include "platform/base/int_math.h"
#include "platform/base/time.h"
#include "platform/metrics/key_metrics.h"

namespace skorra::fuzz {
namespace {

constexpr int64_t kSecondUs = base::kUsPerSecond;
constexpr int64_t kMinuteUs = 60 * kSecondUs;
constexpr int64_t kHourUs = 60 * kMinuteUs;

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
    peer = Peer{.burst = peer.burst};
  }
  for (Request& request : requests_) {
    request.is_forgotten = true;
  }
}

HandlerModel::SendVerdict HandlerModel::BeginSend(size_t server, int64_t now_us) {
  if (!is_prepared_) {
    counters_->Count("ntp.send_skipped");
    return SendVerdict::kSkipped;
  }
  for (Request& request : requests_) {
    request.is_forgotten = request.is_forgotten || now_us - request.sent_us > 10 * kSecondUs;
  }
  std::optional<CallRow>& burst = peers_[server].burst;
  Account& account = accounts_[server];
  // A row of 20 calls, 190 ms long as a rule; what comes before the next row may begin is too much.
  if (!burst || now_us - burst->begin_us >= (burst->calls < 20 ? kSecondUs : 195000)) {
    burst =
        CallRow{.begin_us = now_us, .limit = limits_.requests_per_burst, .refusal = Refusal(account, now_us)};
    if (burst->refusal == SendRefusal::kNone) {
      account.bursts.push_back({.begin_us = now_us});
      burst->limit = account.was_limited ? std::min<uint32_t>(burst->limit, 8) : burst->limit;
    }
  }
  ++burst->calls;
  if (burst->refusal != SendRefusal::kNone) {
    ++account.counts.requests_refused;
    counters_->Count(std::string("ntp.send_refused.") + SendRefusalName(burst->refusal));
    return SendVerdict::kRefused;
  }
  return SendVerdict::kMayLeave;
}

// After every call as many were chosen as an even spread allows, to within one; after 20, exactly the limit.
void HandlerModel::OnThinned(size_t server) {
  counters_->Count("ntp.send_thinned");
  const CallRow& burst = *peers_[server].burst;
  SKORRA_FUZZ_CHECK(burst.chosen * 20 + 20 > std::min<uint32_t>(burst.calls, 20) * burst.limit);
}

void HandlerModel::OnChosen(size_t server) {
  CallRow& burst = *peers_[server].burst;
  ++burst.chosen;
  SKORRA_FUZZ_CHECK(burst.chosen * 20 < burst.calls * burst.limit + 20);
  SKORRA_FUZZ_CHECK(burst.calls <= 20 && burst.chosen <= burst.limit);
}

void HandlerModel::OnSendError(net::SocketError error) {
  counters_->Count(std::string("ntp.send_error.") + net::SocketErrorName(error));
}

void HandlerModel::OnLeft(size_t server, const net::IPEndPoint& client, uint64_t nonce, int64_t now_us) {
  Peer& peer = peers_[server];
  const bool is_port_known = std::any_of(requests_.begin(), requests_.end(),
                                         [&](const Request& request) { return request.client == client; });
  if (peer.send_count == 0) {
    SKORRA_FUZZ_CHECK(!is_port_known);  // each address has a socket of its own, in each attempt a new one
    peer.client = client;
  }
  SKORRA_FUZZ_CHECK(peer.client == client);
  SKORRA_FUZZ_CHECK(nonce != 0 && std::none_of(requests_.begin(), requests_.end(),
                                               [&](const Request& r) { return r.nonce == nonce; }));
  requests_.push_back({.nonce = nonce,
                       .server = server,
                       .client = client,
                       .send_id = peer.send_count++,
                       .sent_us = now_us,
                       .send_stamp_us = now_us});
  ++accounts_[server].counts.requests_sent;
  counters_->Count("ntp.requests_sent");
}

void HandlerModel::OnSendStamp(Request& request, int64_t send_ticks_us) {
  if (!request.is_forgotten) {
    request.send_stamp_us = send_ticks_us;
    request.has_kernel_stamp = true;
  }
}

void HandlerModel::OnReceiveError(net::SocketError error) {
  counters_->Count(std::string("ntp.receive_error.") + net::SocketErrorName(error));
}

std::optional<size_t> HandlerModel::FindSocket(const net::IPEndPoint& client) const {
  for (size_t server = 0; server < kServerCount; ++server) {
    if (peers_[server].send_count > 0 && peers_[server].client == client) {
      return server;
    }
  }
  return std::nullopt;
}

void HandlerModel::Reject(ReplyRejection rejection) {
  counters_->Count(std::string("ntp.rejected.") + ReplyRejectionName(rejection));
}

ReplyRejection HandlerModel::FindRequest(size_t server, const net::IPEndPoint& source,
                                         std::span<const uint8_t> bytes, int64_t receive_us,
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
  if (receive_us - found->send_stamp_us > 3 * kSecondUs) {
    return ReplyRejection::kExpired;
  }
  *request = &*found;
  return ReplyRejection::kNone;
}

void HandlerModel::OnDatagram(size_t server, const net::IPEndPoint& source, std::span<const uint8_t> bytes,
                              int64_t receive_us, int64_t now_us) {
  Request* request = nullptr;
  if (const auto rejection = FindRequest(server, source, bytes, receive_us, &request);
      rejection != ReplyRejection::kNone) {
    Reject(rejection);
    return;
  }
  Account& account = accounts_[server];
  ++account.counts.replies;
  account.bursts.back().is_answered = true;
  if (const KissCode code = ExpectedKissCode(bytes); code != KissCode::kNone) {
    OnKiss(code, *request, now_us);
  } else if (const auto rejection = ExpectedReplyCheck(bytes, limits_.max_root_distance_us);
             rejection != ReplyRejection::kNone) {
    Reject(rejection);
  } else {
    Measure(bytes, *request, receive_us);
  }
}

void HandlerModel::OnKiss(KissCode code, Request& request, int64_t now_us) {
  Account& account = accounts_[request.server];
  const bool is_rate = code == KissCode::kRate;
  bool is_repeated = false;
  if (is_rate || code == KissCode::kDeny || code == KissCode::kRstr) {
    ++account.counts.kisses;
    request.is_used_up = true;
    is_repeated = !Hold(account, request.server, is_rate, now_us);
    peers_[request.server].burst->refusal = account.held_for;
  }
  counters_->Count(std::string("ntp.kiss.") + (is_repeated ? "repeated" : KissCodeName(code)));
}

// False when the address was held already.
bool HandlerModel::Hold(Account& account, size_t server, bool is_rate, int64_t now_us) {
  if (now_us < account.held_until_us && (is_rate || account.held_for == SendRefusal::kParked)) {
    return false;
  }
  if (!is_rate) {
    account.bursts.back().is_denied = true;
    account.held_for = SendRefusal::kParked;
    account.held_until_us = now_us + 4 * kHourUs;
    return true;
  }
  // Earlier bursts in a row that ended so; those that nobody answered say nothing.
  int64_t length_us = 2 * kMinuteUs;
  for (auto burst = account.bursts.rbegin() + 1; burst != account.bursts.rend(); ++burst) {
    if (burst->is_limited) {
      length_us *= 2;
    } else if (burst->is_answered && !burst->is_denied) {
      break;
    }
    if (length_us >= 2 * kHourUs) {
      break;
    }
  }
  account.was_limited = true;
  account.bursts.back().is_limited = true;
  account.held_for = SendRefusal::kBackOff;
  const bool is_capped = length_us >= 2 * kHourUs;
  new_back_off_ = NewBackOff{.server = server,
                             .from_us = now_us,
                             .shortest_us = is_capped ? 2 * kHourUs / 4 * 3 : length_us,
                             .longest_us = is_capped ? 2 * kHourUs : length_us / 4 * 5};
  return true;
}

void HandlerModel::LearnBackOff() {
  if (!new_back_off_) {
    return;
  }
  const NtpAddressLedger& ledger = *NtpAddressLedger::GetInstance();
  const auto is_held = [&](int64_t at_us) {
    return ledger.Check(servers_[new_back_off_->server], at_us) == SendRefusal::kBackOff;
  };
  // The first moment at which it is over.
  int64_t held_us = new_back_off_->from_us + new_back_off_->shortest_us - 1;
  int64_t over_us = new_back_off_->from_us + new_back_off_->longest_us;
  SKORRA_FUZZ_CHECK(is_held(new_back_off_->from_us) && is_held(held_us) && !is_held(over_us));
  while (over_us - held_us > 1) {
    const int64_t middle_us = held_us + (over_us - held_us) / 2;
    (is_held(middle_us) ? held_us : over_us) = middle_us;
  }
  accounts_[new_back_off_->server].held_until_us = over_us;
  new_back_off_.reset();
}

void HandlerModel::Measure(std::span<const uint8_t> bytes, Request& request, int64_t receive_us) {
  ExchangeTimes times{};
  times.send_us = LocalUs(request.send_stamp_us);
  times.receive_us = LocalUs(receive_us);
  times.server_receive_us = ExpectedTimestampToUs(NumberAt(bytes, 32, 8), times.receive_us);
  times.server_transmit_us = ExpectedTimestampToUs(NumberAt(bytes, 40, 8), times.server_receive_us);
  const NtpResultData data = ExpectedSample(times);
  if (data.rtt_us < 0) {
    Reject(ReplyRejection::kNegativeRoundTrip);
    return;
  }
  if (data.rtt_us > limits_.max_round_trip_us) {
    Reject(ReplyRejection::kLongRoundTrip);
    return;
  }
  request.is_used_up = true;
  counters_->Count("ntp.samples_received");
  counters_->Count(request.has_kernel_stamp ? "ntp.send_stamp.kernel" : "ntp.send_stamp.user");
  counters_->Count("ntp.receive_stamp.kernel");
  reports_.push_back({data, request.server, !is_first_reported_});
  is_first_reported_ = true;
}

SendRefusal HandlerModel::Refusal(const Account& account, int64_t now_us) const {
  if (now_us < account.held_until_us) {
    return account.held_for;
  }
  const bool is_close = !account.bursts.empty() && now_us < account.bursts.back().begin_us + 2 * kMinuteUs;
  return account.was_limited && is_close ? SendRefusal::kSpacing : SendRefusal::kNone;
}

int64_t HandlerModel::LocalUs(int64_t ticks_us) const {
  return base::WrappingAdd(ticks_us, clock_offset_us_);
}

void HandlerModel::CheckLedger() const {
  const auto counts = NtpAddressLedger::GetInstance()->GetCounts();
  for (size_t server = 0; server < kServerCount; ++server) {
    const auto found = counts.find(servers_[server]);
    const auto real = found == counts.end() ? NtpAddressLedger::Counts() : found->second;
    const auto& expected = accounts_[server].counts;
    SKORRA_FUZZ_CHECK(real.requests_sent == expected.requests_sent);
    SKORRA_FUZZ_CHECK(real.requests_refused == expected.requests_refused);
    SKORRA_FUZZ_CHECK(real.replies == expected.replies);
    SKORRA_FUZZ_CHECK(real.kisses == expected.kisses);
  }
}

}  // namespace skorra::fuzz
