// SPDX-License-Identifier: Apache-2.0
#include "tests/model/side_by_side.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/base/log.h"
#include "platform/config/base_cfg.h"
#include "platform/metrics/key_metrics.h"
#include "transport/ntp_address_ledger.h"
#include "transport/ntp_packet.h"

namespace skorra::model {
namespace {

constexpr std::array<uint64_t, 4> kKeys = {37003, 37004, 37005, 37006};

// The four letters of a reply that tells no time; 0 for one that does.
uint32_t KissCodeOf(ArrivalKind kind) {
  switch (kind) {
    case ArrivalKind::kKiss:
      return 0x494e4954;  // INIT
    case ArrivalKind::kRate:
      return 0x52415445;
    case ArrivalKind::kDeny:
      return 0x44454e59;
    default:
      return 0;
  }
}

std::string Text(bool value) { return value ? "true" : "false"; }
std::string Text(int value) { return std::to_string(value); }
std::string Text(uint32_t value) { return std::to_string(value); }
std::string Text(int64_t value) { return std::to_string(value); }
std::string Text(uint64_t value) { return std::to_string(value); }
std::string Text(NtpResult value) { return Text(static_cast<int>(value)); }
std::string Text(const std::string& value) { return "\"" + value + "\""; }
std::string Text(const net::IPEndPoint& value) { return value.address_empty() ? "none" : value.ToString(); }
std::string Text(const NtpResultData& value) { return Text(value.offset_us) + "/" + Text(value.rtt_us); }
std::string Text(const Line& value) { return Text(value.level) + " " + value.text; }
std::string Text(const Sent& value) { return Text(value.server) + " at " + Text(value.ticks_us); }
template <class T>
std::string Text(const std::vector<T>& values);
std::string Text(const Heard& value) {
  std::vector<int64_t> seen(value.glimpse.begin(), value.glimpse.end());
  return "observer " + Text(value.observer) + ": " + Text(value.result) + " " + Text(value.message) + " " +
         Text(value.server) + " seeing " + Text(seen);
}
std::string Text(const NtpDomainResult& value) {
  return "offset " + Text(value.offset_us) + " result " + Text(value.result) + " rtt reliable " +
         Text(value.is_rtt_reliable) + " reliable " + Text(value.is_reliable) + " samples " +
         Text(value.sample_count) + " cost " + Text(value.cost_ms) + " last cost " +
         Text(value.last_request_cost_ms) + " start " + Text(value.request_start_time_us) + " last start " +
         Text(value.last_request_start_time_us) + " requesting " + Text(value.is_requesting) + " end point " +
         Text(value.endpoint);
}
std::string Text(const std::optional<NtpFunctionRequestStats>& value) {
  if (!value) {
    return "none";
  }
  return "average " + Text(value->average_cost_ms) + " max " + Text(value->max_cost_ms) + " requests " +
         Text(value->request_count) + " good " + Text(value->success_count) + " bad " +
         Text(value->failure_count) + " type " + Text(value->function_type) + " total " +
         Text(value->total_cost_ms);
}
template <class T>
std::string Text(const std::vector<T>& values) {
  std::string text = "[";
  for (const T& value : values) {
    text += (text.size() == 1 ? "" : "; ") + Text(value);
  }
  return text + "]";
}

}  // namespace

// --- The manager's side.

class ManagerSide::WatchingObserver : public NtpTimeManager::Observer {
 public:
  WatchingObserver(ManagerSide& side, int number) : side_(side), number_(number) {}

  void OnNtpResult(NtpResult result, const std::string& message, const net::IPEndPoint& server) override {
    side_.trace.heard.push_back({number_, result, message, server, side_.Look()});
    if (side_.on_heard) {
      side_.on_heard(side_, number_);
    }
  }
  int number() const { return number_; }

 private:
  ManagerSide& side_;
  const int number_;
};

ManagerSide::ManagerSide() = default;
ManagerSide::~ManagerSide() = default;

const std::weak_ptr<ManagerSide::WatchingObserver>& ManagerSide::Weak(int observer) {
  while (weak_.size() <= static_cast<size_t>(observer)) {
    owned_.push_back(std::make_shared<WatchingObserver>(*this, static_cast<int>(weak_.size())));
    weak_.push_back(owned_.back());
  }
  return weak_[static_cast<size_t>(observer)];
}

void ManagerSide::AddObserver(int observer) { peer.manager().AddObserver(Weak(observer)); }
void ManagerSide::RemoveObserver(int observer) { peer.manager().RemoveObserver(Weak(observer)); }
void ManagerSide::ReleaseObserver(int observer) {
  Weak(observer);
  // The last reference may end here while the vector is being looked at: let go of it outside.
  const auto released = std::move(owned_[static_cast<size_t>(observer)]);
}

int ManagerSide::NumberOf(const std::weak_ptr<NtpTimeManager::Observer>& entry) const {
  const auto observer = entry.lock();
  return observer == nullptr ? -1 : static_cast<const WatchingObserver&>(*observer).number();
}

int ManagerSide::CurrentDomain() {
  const auto& infos = peer.domain_infos();
  const auto found = std::find(infos.begin(), infos.end(), peer.current_domain_info());
  if (found != infos.end()) {
    return static_cast<int>(found - infos.begin());
  }
  return peer.current_domain_info() == nullptr ? -1 : -2;
}

Glimpse ManagerSide::Look() {
  int64_t requesting = 0;
  for (const auto& [name, record] : peer.domain_results()) {
    requesting += record.is_requesting ? 1 : 0;
  }
  const auto& stats = peer.function_request_stats();
  const auto attempts = stats.find(2);
  return {peer.is_started(),
          peer.is_sync_finished(),
          peer.ntp_offset_us(),
          static_cast<int64_t>(peer.last_result().load()),
          peer.is_rtt_reliable(),
          peer.is_reliable(),
          peer.system_offset_from_steady_us(),
          peer.last_sync_ntp_timestamp_us(),
          peer.last_sync_local_time_ms(),
          peer.last_request_cost_ms(),
          peer.total_retry_count(),
          attempts == stats.end() ? 0 : attempts->second.request_count,
          requesting,
          CurrentDomain()};
}

// --- Both.

SideBySide::SideBySide(uint64_t seed)
    : world({.seed = seed}),
      surroundings(seed, world.wall_us() - world.steady_ticks_us()),
      model(surroundings, world.steady_ticks_us(), seed) {
  base::SetLogThreshold(base::kLogProgress);
  base::SetLogSink([this](const base::LogLine& line) {
    const bool is_ours = std::string_view(line.file) == "ntp/ntp_time_manager_impl" && line.line > 0;
    real.trace.log.push_back({line.level, is_ours ? line.text : "from elsewhere: " + line.text});
  });
  world.SetNetwork([this](const sim::SentDatagram& sent) { OnSent(sent); });
  for (int host = 0; host < kHostCount; ++host) {
    world.SetHost(surroundings.host(host).name, surroundings.EntryOf(host));
  }
  SetSyncInterval(std::nullopt);
  SetDefaultDomain("");
  for (size_t i = 0; i < kKeys.size(); ++i) {
    key_metrics_before_[i] = base::KeyMetrics::GetPV(kKeys[i]);
  }
  if (seed % 2 == 1) {
    AddNtpSyncListener(listener_);
  }
}

SideBySide::~SideBySide() {
  RemoveNtpSyncListener(listener_.get());
  base::SetLogSink(nullptr);
}

bool SideBySide::Both(const std::function<int64_t(Side&)>& operation) {
  for (Side* side : {static_cast<Side*>(&model), static_cast<Side*>(&real)}) {
    side->trace.returned.push_back(operation(*side));
  }
  return Compare();
}

bool SideBySide::Step() {
  ++step_count_;
  model.RunNext();
  world.RunOne();
  return Compare();
}

bool SideBySide::PassUntil(int64_t ticks_us) {
  while (model.NextDue() <= ticks_us) {
    if (!Step()) {
      return false;
    }
  }
  if (ticks_us > world.steady_ticks_us()) {
    world.RunFor(base::TimeDelta::FromMicroseconds(ticks_us - world.steady_ticks_us()));
  }
  model.WaitUntil(ticks_us);
  return Compare();
}

bool SideBySide::StepWall(int64_t by_us) {
  surroundings.wall_offset_us += by_us;
  world.StepWall(base::TimeDelta::FromMicroseconds(by_us));
  return Compare();
}

bool SideBySide::Receive(const std::vector<NtpResultData>& samples, const net::IPEndPoint& server) {
  NtpTimePacketHandler::Client& client = real.peer.manager();
  for (const NtpResultData& sample : samples) {
    model.Packet(sample, server);
    world.RunAsTask(core::BusinessID::kNtpTime, [&] { client.OnPacketReceived(sample, server); });
  }
  return Compare();
}

bool SideBySide::ReceiveFirst(int64_t offset_us) {
  NtpTimePacketHandler::Client& client = real.peer.manager();
  model.FirstPacket(offset_us);
  world.RunAsTask(core::BusinessID::kNtpTime, [&] { client.OnFirstPacketReceived(offset_us); });
  return Compare();
}

void SideBySide::SetQueueAvailable(bool is_available) {
  surroundings.is_queue_available = is_available;
  world.SetQueueAvailable(is_available);
}

void SideBySide::SetSyncInterval(std::optional<uint64_t> seconds) {
  surroundings.sync_interval_s = seconds;
  config_.Set(config::BaseCfg().ntp_sync_interval, seconds);
}

void SideBySide::SetDefaultDomain(const std::string& name) {
  surroundings.default_domain = name;
  config_.Set(config::BaseCfg().ntp_default_domain, name.empty() ? std::nullopt : std::optional(name));
}

void SideBySide::SetHost(int host, uint64_t choice, int64_t delay_us, int64_t ttl_us) {
  surroundings.SetHost(host, choice, delay_us, ttl_us);
  world.SetHost(surroundings.host(host).name, surroundings.EntryOf(host));
}

void SideBySide::OnSent(const sim::SentDatagram& sent) {
  real.trace.sent.push_back({sent.server, sent.sent_ticks_us});
  const int index = Surroundings::IndexOf(sent.server);
  const std::optional<NtpPacket> request = DecodePacket(sent.bytes);
  if (index < 0 || !request) {
    return;
  }
  const Fate fate = surroundings.FateOf(index, request_counts_[static_cast<size_t>(index)]++);
  const int64_t true_us = sent.sent_ticks_us + surroundings.true_offset_us;
  for (size_t i = 0; i < fate.arrival_count; ++i) {
    const ArrivalKind kind = fate.arrivals[i].kind;
    const uint32_t code = KissCodeOf(kind);
    const NtpPacket reply{.version = kNtpVersion,
                          .mode = kNtpModeServer,
                          .stratum = static_cast<uint8_t>(code != 0 ? 0 : 2),
                          .reference_id = code,
                          .origin_timestamp = request->transmit_timestamp,
                          .receive_timestamp = NtpTimestampFromUs(true_us + fate.server_receive_us),
                          .transmit_timestamp = NtpTimestampFromUs(true_us + fate.server_transmit_us)};
    const auto bytes = EncodePacket(reply);
    const auto delay = base::TimeDelta::FromMicroseconds(fate.arrivals[i].delay_us);
    if (kind == ArrivalKind::kPortClosed) {
      world.Schedule(delay,
                     [this, client = sent.client] { world.ReportError(client, net::SocketError::kRefused); });
      continue;
    }
    const net::IPEndPoint& other = Surroundings::Address((index + 1) % kAddressCount);
    const net::IPEndPoint& source =
        kind == ArrivalKind::kOtherSource || kind == ArrivalKind::kSpoofedAsOther ? other : sent.server;
    if (kind == ArrivalKind::kSpoofedAsOther) {
      world.DeliverFromAnywhere(source, sent.client, {bytes.begin(), bytes.end()}, delay);
    } else {
      world.Deliver(source, sent.client, {bytes.begin(), bytes.end()}, delay);
    }
  }
}

// --- The comparison.

template <class T>
void SideBySide::Check(const char* what, const T& manager, const T& expected) {
  if (!(manager == expected)) [[unlikely]] {
    difference_ += std::string("  ") + what + "\n    manager: " + Text(manager) +
                   "\n    model:   " + Text(expected) + "\n";
  }
}

bool SideBySide::Compare() {
  UseAddresses();
  CompareTraces();
  CompareMembers();
  CompareDomains();
  CompareStats();
  return difference_.empty();
}

// Looking at a domain's address is using it, which may begin a lookup of its name: on both sides, then.
void SideBySide::UseAddresses() {
  for (const auto& info : real.peer.domain_infos()) {
    info->GetCurrentIPAddress();
  }
  for (ManagerModel::Domain& domain : model.domains) {
    model.Use(domain);
  }
}

void SideBySide::CompareTraces() {
  const auto& posted = world.posted();
  for (; posted_seen_ < posted.size(); ++posted_seen_) {
    real.trace.posted_delays_us.push_back(posted[posted_seen_].delay_us);
  }
  Check("log lines", real.trace.log, model.trace.log);
  Check("delays of the tasks posted", real.trace.posted_delays_us, model.trace.posted_delays_us);
  Check("observers called", real.trace.heard, model.trace.heard);
  Check("requests sent", real.trace.sent, model.trace.sent);
  Check("values returned", real.trace.returned, model.trace.returned);
  real.trace.Clear();
  model.trace.Clear();
}

void SideBySide::CompareMembers() {
  NtpTimeManagerPeer& peer = real.peer;
  Check("steady ticks", world.steady_ticks_us(), model.now_ticks_us);
  Check("pending tasks and arrivals", world.pending_count(), model.pending_count());
  Check("next due", world.NextEventTicks().value_or(ManagerModel::kNever), model.NextDue());
  Check("is_started", peer.is_started().load(), model.is_started);
  Check("is_sync_finished", peer.is_sync_finished(), model.is_sync_finished);
  Check("ntp_offset_us", peer.ntp_offset_us().load(), model.ntp_offset_us);
  Check("last_result", peer.last_result().load(), model.last_result);
  Check("is_rtt_reliable", peer.is_rtt_reliable().load(), model.is_rtt_reliable);
  Check("is_reliable", peer.is_reliable().load(), model.is_reliable);
  Check("system_offset_from_steady_us", peer.system_offset_from_steady_us().load(),
        model.system_offset_from_steady_us);
  Check("last_sync_ntp_timestamp_us", peer.last_sync_ntp_timestamp_us().load(),
        model.last_sync_ntp_timestamp_us);
  Check("last_sync_local_time_ms", peer.last_sync_local_time_ms().load(), model.last_sync_local_time_ms);
  Check("last_request_cost_ms", peer.last_request_cost_ms().load(), model.last_request_cost_ms);
  Check("last_check_local_time_ms", peer.last_check_local_time_ms().load(), model.last_check_local_time_ms);
  Check("total_retry_count", peer.total_retry_count(), model.total_retry_count);
  Check("start_count", peer.start_count().load(), model.start_count);
  Check("deviation_found", peer.deviation_found().load(), model.deviation_found);

  const bool has_handler = peer.packet_handler() != nullptr;
  Check("packet handler made", has_handler, model.has_handler);
  if (has_handler && model.has_handler) {
    Check("packet handler's system offset", peer.packet_handler()->GetSystemTimeOffsetFromSteady(),
          model.handler_offset_us);
  }
  Check("open sockets", world.open_socket_count(), model.open_sockets.size());

  Check("observers listed", peer.observers().size(), model.observers.size());
  for (size_t i = 0; i < std::min(peer.observers().size(), model.observers.size()); ++i) {
    const int expected = model.IsAlive(model.observers[i]) ? model.observers[i] : -1;
    Check("an observer of the list (-1: expired)", real.NumberOf(peer.observers()[i]), expected);
  }
}

void SideBySide::CompareDomains() {
  NtpTimeManagerPeer& peer = real.peer;
  Check("domains", peer.domain_infos().size(), model.domains.size());
  Check("records", peer.domain_results().size(), model.domains.size());
  Check("current domain", real.CurrentDomain(), model.current_domain);
  for (size_t i = 0; i < std::min(peer.domain_infos().size(), model.domains.size()); ++i) {
    NtpTimeDomainInfo& info = *peer.domain_infos()[i];
    const ManagerModel::Domain& domain = model.domains[i];
    Check("domain name", info.domain(), domain.name);
    Check("addresses", info.addresses(), domain.addresses);
    Check("current address", info.GetCurrentIPAddress(), domain.addresses[domain.current]);
    if (info.samples() != domain.samples) [[unlikely]] {
      Check("samples", info.samples(), domain.samples);
    }
    const auto record = peer.domain_results().find(domain.name);
    if (record == peer.domain_results().end()) {
      Check("record kept", false, true);
    } else {
      Check("record", record->second, domain.record);
    }
  }
}

void SideBySide::CompareStats() {
  const auto& stats = real.peer.function_request_stats();
  size_t expected_size = 0;
  for (size_t kind = 0; kind < model.stats.size(); ++kind) {
    const auto found = stats.find(static_cast<int>(kind));
    const auto kept = found == stats.end() ? std::nullopt : std::optional(found->second);
    Check("statistics", kept, model.stats[kind]);
    expected_size += model.stats[kind] ? 1 : 0;
  }
  Check("kinds of statistics", stats.size(), expected_size);
  for (size_t i = 0; i < kKeys.size(); ++i) {
    Check("key metric", base::KeyMetrics::GetPV(kKeys[i]) - key_metrics_before_[i], model.key_metrics[i]);
  }
}

}  // namespace skorra::model
