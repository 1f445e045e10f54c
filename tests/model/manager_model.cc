// SPDX-License-Identifier: Apache-2.0
#include "tests/model/manager_model.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/base/time.h"

namespace skorra::model {
namespace {

constexpr int64_t kUnixEpochUs = 11644473600000000;
constexpr int64_t kTenMinutesMs = 600000;
constexpr int64_t kMinuteUs = 60000000;

// The local timestamps wrap.
int64_t Plus(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
int64_t Minus(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

std::string TimeText(int64_t since_1970_us) {
  return (base::Time::UnixEpoch() + base::TimeDelta::FromMicroseconds(since_1970_us)).ToString();
}

uint32_t CostMs(int64_t from_us, int64_t to_us) {
  const double cost = static_cast<double>(Minus(to_us, from_us)) / 1000.0;
  if (cost <= 0) {
    return 0;
  }
  return cost >= 4294967295.0 ? 4294967295u : static_cast<uint32_t>(cost);
}

std::vector<net::IPEndPoint> EachOnce(const std::vector<net::IPEndPoint>& addresses) {
  std::vector<net::IPEndPoint> once;
  for (const net::IPEndPoint& address : addresses) {
    if (std::count(once.begin(), once.end(), address) == 0) {
      once.push_back(address);
    }
  }
  return once;
}

// A time to live is believed from a minute to a day.
int64_t Believed(int64_t ttl_us) { return std::max(kMinuteUs, std::min(ttl_us, 24 * 60 * kMinuteUs)); }

int Code(NtpResult result) { return static_cast<int>(result); }
long long Wide(int64_t value) { return value; }

}  // namespace

ManagerModel::ManagerModel(const Surroundings& surroundings, int64_t start_ticks_us, uint64_t seed)
    : now_ticks_us(start_ticks_us),
      system_offset_from_steady_us(surroundings.wall_offset_us),
      surroundings_(surroundings),
      random_(seed) {}

// --- Tasks and time.

void ManagerModel::Log(int level, const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  trace.log.push_back({level, text});
}

void ManagerModel::Add(Kind kind, int64_t delay_us, int64_t number, int index,
                       const net::IPEndPoint& address) {
  pending_.push({now_ticks_us + delay_us, next_sequence_++, kind, number, index, address});
}

void ManagerModel::Post(Kind kind, int64_t delay_us, int64_t number, int index,
                        const net::IPEndPoint& address) {
  trace.posted_delays_us.push_back(delay_us);
  Add(kind, delay_us, number, index, address);
}

bool ManagerModel::IsNextADelayedStopDecision() const {
  return !pending_.empty() && pending_.top().kind == Kind::kDelayStop;
}

void ManagerModel::RunNext() {
  const Pending task = pending_.top();
  pending_.pop();
  WaitUntil(task.due_ticks_us);
  switch (task.kind) {
    case Kind::kNotify:
      return RunNotify(static_cast<NtpResult>(task.number), task.address);
    case Kind::kStartSync:
      return RunStartSync();
    case Kind::kStopQueue:
      return RunStopQueue();
    case Kind::kDelayStop:
      return RunDelayStop();
    case Kind::kUpdate:
      return RunUpdate(updates_[static_cast<size_t>(task.index)]);
    case Kind::kSend:
      return RunSend(task.address);
    case Kind::kCheck:
      return RunCheck(task.number, task.index);
    case Kind::kArrival:
      return RunArrival(static_cast<size_t>(task.index));
    case Kind::kLookUp:
      return RunLookUp(static_cast<size_t>(task.index), static_cast<int>(task.number));
  }
}

int64_t ManagerModel::WallUs() const { return now_ticks_us + surroundings_.wall_offset_us; }
int64_t ManagerModel::WallMs() const { return WallUs() / 1000; }
int64_t ManagerModel::LocalNow() const { return Plus(now_ticks_us, system_offset_from_steady_us); }
int64_t ManagerModel::NtpNow() const { return Minus(Plus(LocalNow(), ntp_offset_us), kUnixEpochUs); }

Glimpse ManagerModel::Look() const {
  int64_t requesting = 0;
  for (const Domain& domain : domains) {
    requesting += domain.record.is_requesting ? 1 : 0;
  }
  return {is_started,
          is_sync_finished,
          ntp_offset_us,
          Code(last_result),
          is_rtt_reliable,
          is_reliable,
          system_offset_from_steady_us,
          last_sync_ntp_timestamp_us,
          last_sync_local_time_ms,
          last_request_cost_ms,
          total_retry_count,
          stats[2] ? stats[2]->request_count : 0,
          requesting,
          current_domain};
}

// --- Public operations.

int ManagerModel::Start() {
  ++start_count;
  if (is_started) {
    return -1;
  }
  const int64_t now = WallMs();
  const bool is_fresh = last_sync_local_time_ms != 0 && last_sync_local_time_ms < now && !NeedsUpdate() &&
                        now - last_sync_local_time_ms < kTenMinutesMs && ClocksAgree();
  if (!is_fresh) {
    return RequestAttempt();
  }
  Post(Kind::kNotify, 0, Code(last_result));
  return 0;
}

int ManagerModel::RequestAttempt() {
  if (is_started) {
    return -1;
  }
  is_started = true;
  Post(Kind::kStartSync, 0);
  return 0;
}

void ManagerModel::Stop() {
  if (surroundings_.is_queue_available) {
    Post(Kind::kStopQueue, 0);
  }
}

int64_t ManagerModel::GetNtpTimestampFrom1970() {
  const int64_t now = WallMs();
  const bool is_due = last_check_local_time_ms == 0 || now - last_check_local_time_ms >= kTenMinutesMs;
  const bool has_result = ntp_offset_us != kNoOffsetUs;
  if (is_due && (!has_result || NeedsUpdate() || !ClocksAgree())) {
    last_check_local_time_ms = now;
    RequestAttempt();
  }
  return has_result ? NtpNow() : 0;
}

void ManagerModel::UpdateNtpTimeDomain(const std::vector<std::string>& names) {
  updates_.push_back(names);
  Post(Kind::kUpdate, 0, 0, static_cast<int>(updates_.size()) - 1);
}

NtpTimeSyncStats ManagerModel::GetAndResetNtpQualityStats() {
  NtpTimeSyncStats report;
  for (size_t kind = 0; kind < stats.size(); ++kind) {
    if (stats[kind]) {
      report.function_request_stats[static_cast<int>(kind)] = *stats[kind];
      stats[kind].reset();
    }
  }
  report.start_count = start_count == 0 ? 0 : start_count - 1;
  start_count = 1;
  report.deviation_found = deviation_found;
  deviation_found = false;
  return report;
}

// --- Observers.

bool ManagerModel::IsAlive(int observer) const {
  const auto index = static_cast<size_t>(observer);
  return observer == held_observer_ || index >= is_released_.size() || !is_released_[index];
}

void ManagerModel::ReleaseObserver(int observer) {
  const auto index = static_cast<size_t>(observer);
  if (is_released_.size() <= index) {
    is_released_.resize(index + 1, false);
  }
  is_released_[index] = true;
}

// The place of the first entry that the scan finds to be `observer`, or -1. After each expired entry that it
// removes, the scan passes over two.
int ManagerModel::ScanForObserver(int observer) {
  int place = 0;
  while (place < static_cast<int>(observers.size())) {
    if (!IsAlive(observers[static_cast<size_t>(place)])) {
      observers.erase(observers.begin() + place);
      place += 2;
    } else if (observers[static_cast<size_t>(place)] == observer) {
      return place;
    } else {
      ++place;
    }
  }
  return -1;
}

void ManagerModel::AddObserver(int observer) {
  if (IsAlive(observer) && ScanForObserver(observer) < 0) {
    observers.push_back(observer);
  }
}

void ManagerModel::RemoveObserver(int observer) {
  if (!IsAlive(observer)) {
    return;
  }
  if (const int place = ScanForObserver(observer); place >= 0) {
    observers.erase(observers.begin() + place);
  }
}

void ManagerModel::RunNotify(NtpResult result, const net::IPEndPoint& server) {
  is_started = false;
  const std::vector<int> snapshot = observers;
  for (const int observer : snapshot) {
    if (!IsAlive(observer)) {
      continue;
    }
    held_observer_ = observer;
    trace.heard.push_back({observer, result, GetResultMessage(result), server, Look()});
    if (on_heard) {
      on_heard(*this, observer);
    }
    held_observer_ = -1;
  }
  Post(Kind::kDelayStop, 0);
}

// --- Lifecycle.

void ManagerModel::RunDelayStop() {
  if (is_sync_finished && surroundings_.is_queue_available) {
    Post(Kind::kStopQueue, 30000000);
  }
}

void ManagerModel::RunStopQueue() {
  is_started = false;
  if (has_handler) {
    CleanHandler();
  }
  ResetDomains();
  Log(0, "Stop ntp queue");
}

void ManagerModel::RunStartSync() {
  MakeHandler();
  PrepareHandler();
  Log(0, "Start NTP time sync");
  if (domains.empty() && !AddDefaultDomain()) {
    Log(1, "NTP time sync failed: no correct NTP server");
    RunStopQueue();
    return;
  }
  const bool is_disagreeing = last_sync_ntp_timestamp_us != 0 && !ClocksAgree();
  handler_offset_us = is_disagreeing ? surroundings_.wall_offset_us : system_offset_from_steady_us;
  is_sync_finished = false;
  StartIdleDomains();
}

// --- Domains.

// With the name looked up by now.
bool ManagerModel::AddDomain(const std::string& name, const Surroundings::Answer& answer, bool is_logged) {
  if (answer.addresses.empty()) {
    return false;
  }
  if (is_logged) {
    Log(0, "Add ntp service:%s", name.c_str());
  }
  Domain domain;
  domain.name = name;
  domain.addresses = EachOnce(answer.addresses);
  if (answer.ttl_us) {
    domain.expires_ticks_us = now_ticks_us + Believed(*answer.ttl_us);
  }
  BeginWithBest(domain);
  domains.push_back(std::move(domain));
  return true;
}

bool ManagerModel::AddDefaultDomain() {
  const std::string& name = surroundings_.default_domain;
  if (name.empty()) {
    return false;
  }
  const Surroundings::Answer answer = surroundings_.LookUp(name);
  now_ticks_us += answer.delay_us;
  return AddDomain(name, answer, false);
}

bool ManagerModel::IsFree(const net::IPEndPoint& address) const {
  return ledger_.Check(Surroundings::IndexOf(address), now_ticks_us) == SendRefusal::kNone;
}

// The place of the best of the free addresses that were not current yet, or -1: one that is not silent, and
// of several the next one round from `from`.
int ManagerModel::BestLeft(const Domain& domain, size_t from) const {
  const size_t size = domain.addresses.size();
  for (const bool may_be_silent : {false, true}) {
    for (size_t place = from; place < from + size; ++place) {
      const net::IPEndPoint& address = domain.addresses[place % size];
      if (domain.used.count(place % size) == 0 && IsFree(address) &&
          !ledger_.WasClosed(Surroundings::IndexOf(address), domain.reset_ticks_us) &&
          (may_be_silent || !ledger_.IsSilent(Surroundings::IndexOf(address), now_ticks_us))) {
        return static_cast<int>(place % size);
      }
    }
  }
  return -1;
}

void ManagerModel::BeginWithBest(Domain& domain) const {
  domain.used.clear();
  domain.reset_ticks_us = now_ticks_us;
  const int best = BestLeft(domain, 0);
  domain.current = best < 0 ? 0 : static_cast<size_t>(best);
  domain.used.insert(domain.current);
}

// A minute lies between two lookups; one that does not end counts as lost after ten.
void ManagerModel::Use(Domain& domain) {
  const int64_t newest_expires_ticks_us =
      domain.next_addresses ? domain.next_expires_ticks_us : domain.expires_ticks_us;
  if (now_ticks_us < domain.expires_ticks_us || now_ticks_us < newest_expires_ticks_us) {
    return;
  }
  const int64_t pause_us = domain.begun_count == domain.ended_count ? kMinuteUs : 10 * kMinuteUs;
  if (domain.begun_count > 0 && now_ticks_us < domain.begun_ticks_us + pause_us) {
    return;
  }
  ++domain.begun_count;
  domain.begun_ticks_us = now_ticks_us;
  if (surroundings_.is_queue_available) {
    look_ups_.emplace_back(&domain, surroundings_.LookUp(domain.name));
    Add(Kind::kLookUp, look_ups_.back().second.delay_us, domain.begun_count,
        static_cast<int>(look_ups_.size()) - 1, {});
  }
}

void ManagerModel::RunLookUp(size_t which, int number) {
  auto& [domain, answer] = look_ups_[which];
  if (number <= domain->ended_count) {
    return;
  }
  domain->ended_count = number;
  if (!answer.addresses.empty()) {
    domain->next_addresses = EachOnce(answer.addresses);
    domain->next_expires_ticks_us = now_ticks_us + Believed(*answer.ttl_us);
  }
}

void ManagerModel::RunUpdate(const std::vector<std::string>& names) {
  const auto is_known = [this](const std::string& name) {
    return std::any_of(domains.begin(), domains.end(),
                       [&](const Domain& domain) { return domain.name == name; });
  };
  // All lookups begin now; the slowest one sets the time.
  std::vector<Surroundings::Answer> answers;
  int64_t longest_us = 0;
  for (const std::string& name : names) {
    answers.push_back(surroundings_.LookUp(name));
    longest_us = std::max(longest_us, is_known(name) ? 0 : answers.back().delay_us);
  }
  now_ticks_us += longest_us;
  for (size_t i = 0; i < names.size(); ++i) {
    if (!is_known(names[i])) {
      AddDomain(names[i], answers[i], true);
    }
  }
  if (!is_started) {
    RunDelayStop();
    return;
  }
  if (!has_handler) {
    MakeHandler();
    PrepareHandler();
  }
  StartIdleDomains();
}

void ManagerModel::ResetDomains() {
  for (Domain& domain : domains) {
    if (domain.next_addresses) {
      domain.addresses = *std::exchange(domain.next_addresses, std::nullopt);
      domain.expires_ticks_us = domain.next_expires_ticks_us;
    }
    BeginWithBest(domain);
    domain.is_repeated = false;
    domain.samples.clear();
    domain.record = NtpDomainResult();
  }
  total_retry_count = 0;
}

void ManagerModel::StartIdleDomains() {
  for (size_t i = 0; i < domains.size(); ++i) {
    NtpDomainResult& record = domains[i].record;
    if (record.is_requesting) {
      continue;
    }
    Log(0, "Start request: %s", domains[i].name.c_str());
    record.is_requesting = true;
    record.request_start_time_us = LocalNow();
    SendBurst(static_cast<int>(i));
  }
}

void ManagerModel::SendBurst(int index) {
  Domain& domain = domains[static_cast<size_t>(index)];
  Use(domain);
  domain.record.last_request_start_time_us = LocalNow();
  for (int64_t delay_us = 0; delay_us < 200000; delay_us += 10000) {
    Post(Kind::kSend, delay_us, 0, 0, domain.addresses[domain.current]);
  }
  RunCheck(LocalNow(), index);
}

// --- Samples and their evaluation.

void ManagerModel::FirstPacket(int64_t offset_us) {
  if (ntp_offset_us == kNoOffsetUs) {
    ntp_offset_us = offset_us;
  }
}

void ManagerModel::Packet(NtpResultData sample, const net::IPEndPoint& server) {
  if (!is_started) {
    return;
  }
  for (Domain& domain : domains) {
    Use(domain);
    if (domain.addresses[domain.current] != server) {
      continue;
    }
    if (domain.record.is_requesting) {
      domain.samples.push_back(sample);
      domain.record.endpoint = server;
    }
    return;
  }
}

void ManagerModel::RunCheck(int64_t start_wall_us, int index) {
  Domain& domain = domains[static_cast<size_t>(index)];
  if (!is_started) {
    return;
  }
  if (LocalNow() - start_wall_us < 3000000 && domain.samples.size() <= 5) {
    Post(Kind::kCheck, 200000, start_wall_us, index);
    return;
  }
  if (Evaluate(domain) == NtpResult::kSuccess) {
    Succeed(index);
  } else if (IsAttemptOver(index)) {
    Fail(index);
  }
}

NtpResult ManagerModel::Evaluate(Domain& domain) {
  NtpDomainResult& record = domain.record;
  record.offset_us = kNoOffsetUs;
  record.result = NtpResult::kNoResult;
  std::vector<NtpResultData> samples;
  samples.swap(domain.samples);
  if (samples.size() < 3) {
    return record.result;
  }
  std::stable_sort(samples.begin(), samples.end(),
                   [](const auto& a, const auto& b) { return a.offset_us < b.offset_us; });
  const size_t quarter = samples.size() / 4;
  const size_t end = samples.size() - quarter;
  const auto is_tie = [&](size_t i) {
    return samples[i - 1].offset_us == samples[i].offset_us && samples[i - 1].rtt_us != samples[i].rtt_us;
  };
  if (quarter > 0 && (is_tie(quarter) || is_tie(end))) {
    is_ambiguous_ = true;
  }

  const auto count = static_cast<int64_t>(end - quarter);
  assert(count > 0);
  int64_t offset_sum = 0;
  double rtt_sum = 0;
  for (size_t i = quarter; i < end; ++i) {
    offset_sum += samples[i].offset_us;
    rtt_sum += static_cast<double>(samples[i].rtt_us) / 1000.0;
  }
  const int64_t mean = offset_sum / count;
  const double mean_rtt = rtt_sum / static_cast<double>(count);
  int64_t distance = 0;
  double squares = 0;
  for (size_t i = quarter; i < end; ++i) {
    distance = std::max<int64_t>(distance, std::llabs(samples[i].offset_us - mean));
    const double difference = static_cast<double>(samples[i].rtt_us) / 1000.0 - mean_rtt;
    squares += difference * difference;
  }
  const double deviation = std::sqrt(squares / static_cast<double>(count));
  const double limit = mean_rtt < 100.0 ? 15.0 : mean_rtt < 200.0 ? 20.0 : 30.0;

  record.is_rtt_reliable = deviation < limit;
  record.is_reliable = distance < 30000;
  record.offset_us = mean;
  record.sample_count = static_cast<uint32_t>(count);
  const bool is_good = record.is_rtt_reliable && record.is_reliable;
  if (!is_good) {
    Log(0, "Not reliable rtt stdev:%f, avg:%f, offset max_dev:%lld, avg:%lld", deviation, mean_rtt,
        Wide(distance), Wide(mean));
  }
  if (mean != kNoOffsetUs) {
    record.result = is_good ? NtpResult::kSuccess : NtpResult::kMaybeInaccurate;
  }
  return record.result;
}

// A domain with one address asks that once more, when it may and nothing has come back.
bool ManagerModel::TakeNextAddress(Domain& domain) {
  if (domain.addresses.size() == 1) {
    if (domain.is_repeated || !IsFree(domain.addresses[0]) ||
        ledger_.IsHeard(Surroundings::IndexOf(domain.addresses[0])) ||
        ledger_.WasClosed(Surroundings::IndexOf(domain.addresses[0]), domain.reset_ticks_us)) {
      return false;
    }
    return domain.is_repeated = true;
  }
  const int next = BestLeft(domain, domain.current + 1);
  if (next < 0) {
    return false;
  }
  domain.current = static_cast<size_t>(next);
  domain.used.insert(domain.current);
  return true;
}

// After an evaluation without success: a retry, or the domain's end, and with the last one the attempt's.
bool ManagerModel::IsAttemptOver(int index) {
  Domain& domain = domains[static_cast<size_t>(index)];
  if (!is_started) {
    return false;
  }
  if (domain.record.result == NtpResult::kNoResult && TakeNextAddress(domain)) {
    ++total_retry_count;
    SendBurst(index);
    return false;
  }
  Finish(domain, domain.record.result);
  if (current_domain < 0) {
    current_domain = index;
  }
  for (const Domain& other : domains) {
    if (other.record.is_requesting) {
      Log(0, "%s request not success [%d] and waiting other domain, total retry count: %u",
          domain.name.c_str(), Code(domain.record.result), total_retry_count);
      return false;
    }
  }
  return true;
}

// --- Outcome.

void ManagerModel::Succeed(int index) {
  Domain& domain = domains[static_cast<size_t>(index)];
  const NtpDomainResult& record = domain.record;
  Finish(domain, NtpResult::kSuccess);
  current_domain = index;
  KeepIfBetter(record);
  last_request_cost_ms = record.last_request_cost_ms;
  last_sync_ntp_timestamp_us = NtpNow();
  last_sync_local_time_ms = WallMs();
  Use(domain);
  Log(0,
      "NTP time sync successful, took(ms): %u, last request took(ms): %u, use sample count:%u, success "
      "offset(us): %lld, ntp time:%s, %s, IP:%s",
      record.cost_ms, record.last_request_cost_ms, record.sample_count, Wide(record.offset_us),
      TimeText(NtpNow()).c_str(), domain.name.c_str(), domain.addresses[domain.current].ToString().c_str());
  is_sync_finished = true;
  CountRequest(true, record.cost_ms, 2);
  RunNotify(NtpResult::kSuccess, net::IPEndPoint(record.endpoint));
  ResetDomains();
}

void ManagerModel::Fail(int index) {
  const NtpResult kept = domains[static_cast<size_t>(current_domain)].record.result;
  if (kept != NtpResult::kSuccess && Code(kept) < Code(domains[static_cast<size_t>(index)].record.result)) {
    current_domain = index;
  }
  Domain& domain = domains[static_cast<size_t>(current_domain)];
  const NtpDomainResult& record = domain.record;
  KeepIfBetter(record);
  Use(domain);
  const NtpResult code =
      last_result == NtpResult::kNoResult ? NtpResult::kNoResult : NtpResult::kMaybeInaccurate;
  const std::string address = domain.addresses[domain.current].ToString();
  if (code == NtpResult::kNoResult) {
    Log(0, "NTP time sync failed:%s, use sample count:%u, IP:%s", domain.name.c_str(), record.sample_count,
        address.c_str());
  } else {
    Log(0,
        "NTP time sync finished, but result maybe inaccurate, final offset:%lld, result:%s, use sample "
        "count:%u, IP:%s, offset:%lld, ntp time:%s",
        Wide(ntp_offset_us), domain.name.c_str(), record.sample_count, address.c_str(),
        Wide(record.offset_us), TimeText(NtpNow()).c_str());
  }
  is_sync_finished = true;
  CountRequest(code != NtpResult::kNoResult, record.cost_ms, 2);
  RunNotify(code, net::IPEndPoint(record.endpoint));
  ResetDomains();
}

void ManagerModel::KeepIfBetter(const NtpDomainResult& record) {
  const bool is_worse = record.result != NtpResult::kSuccess &&
                        (last_result == NtpResult::kSuccess || Code(record.result) < Code(last_result));
  if (is_worse) {
    Log(0, "Use last sync result:%d, offset:%lld, reliable:%d, rtt reliable:%d", Code(last_result),
        Wide(ntp_offset_us), is_reliable, is_rtt_reliable);
    return;
  }
  ntp_offset_us = record.offset_us;
  last_result = record.result;
  is_rtt_reliable = record.is_rtt_reliable;
  is_reliable = record.is_reliable;
  system_offset_from_steady_us = handler_offset_us;
}

// --- Statistics.

void ManagerModel::Finish(Domain& domain, NtpResult result) {
  NtpDomainResult& record = domain.record;
  record.is_requesting = false;
  record.cost_ms = CostMs(record.request_start_time_us, LocalNow());
  record.last_request_cost_ms = CostMs(record.last_request_start_time_us, LocalNow());
  if (record.cost_ms == 0) {
    return;
  }
  const bool is_default = domain.name == surroundings_.default_domain;
  const bool success = result != NtpResult::kNoResult;
  CountRequest(success, record.cost_ms, is_default ? 1 : 0);
  ++key_metrics[is_default ? 1 : 3];
  key_metrics[is_default ? 0 : 2] += success ? 1 : 0;
}

void ManagerModel::CountRequest(bool success, uint32_t cost_ms, size_t kind) {
  NtpFunctionRequestStats& kept = stats[kind] ? *stats[kind] : stats[kind].emplace();
  kept.function_type = static_cast<int32_t>(kind);
  kept.total_cost_ms += cost_ms;
  kept.request_count += 1;
  kept.success_count += success ? 1 : 0;
  kept.failure_count += success ? 0 : 1;
  kept.max_cost_ms = std::max(kept.max_cost_ms, cost_ms);
  kept.average_cost_ms = kept.total_cost_ms / kept.request_count;
}

// --- The two judgements about the kept result.

bool ManagerModel::ClocksAgree() {
  const int64_t before_ntp = last_sync_ntp_timestamp_us;
  if (before_ntp == 0) {
    return false;
  }
  const int64_t now_ntp = NtpNow();
  const int64_t now_local = WallMs();
  const int64_t d = (now_local - last_sync_local_time_ms) - (now_ntp - before_ntp) / 1000;
  const auto deviation = static_cast<uint32_t>(static_cast<uint64_t>(d < 0 ? -d : d));
  if (deviation <= 4) {
    return true;
  }
  Log(1, "Deviation found:%u, ntp:{ now:%s, before:%s}, local:{ now:%lld, before:%lld}", deviation,
      TimeText(now_ntp).c_str(), TimeText(before_ntp).c_str(), Wide(now_local),
      Wide(last_sync_local_time_ms));
  is_rtt_reliable = false;
  if (last_result == NtpResult::kSuccess) {
    last_result = NtpResult::kMaybeInaccurate;
  }
  deviation_found = deviation_found || deviation > 500;
  return false;
}

bool ManagerModel::NeedsUpdate() {
  if (is_started) {
    return false;
  }
  const int64_t before_ntp = last_sync_ntp_timestamp_us;
  const auto interval_s = static_cast<uint32_t>(surroundings_.sync_interval_s.value_or(3600));
  if (before_ntp > 0 && interval_s != 0) {
    const int64_t now_ntp = NtpNow();
    const int64_t elapsed_s = (now_ntp - before_ntp) / 1000000;
    if (elapsed_s > static_cast<int64_t>(interval_s)) {
      Log(0, "Periodic Sync:%lld, ntp:{ now:%s, before:%s}", Wide(elapsed_s), TimeText(now_ntp).c_str(),
          TimeText(before_ntp).c_str());
      return true;
    }
  }
  const bool is_good = last_result == NtpResult::kSuccess && ntp_offset_us != kNoOffsetUs &&
                       last_request_cost_ms >= 1 && last_request_cost_ms <= 799 && is_rtt_reliable &&
                       is_reliable;
  return !is_good;
}

}  // namespace skorra::model
