// SPDX-License-Identifier: Apache-2.0
#include "ntp/ntp_time_manager_impl.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

#include "ntp/kept_result.h"
#include "ntp/offset_estimation.h"
#include "ntp/request_stats.h"
#include "ntp/sync_reports.h"
#include "platform/base/callback.h"
#include "platform/base/clock.h"
#include "platform/base/int_math.h"
#include "platform/base/location.h"
#include "platform/base/log.h"
#include "platform/base/optional.h"
#include "platform/config/base_cfg.h"
#include "platform/config/config_center.h"
#include "platform/config/vorq_env_config.h"
#include "platform/core/thread_manager.h"
#include "platform/metrics/key_metrics.h"
#include "transport/ntp_burst.h"

namespace skorra {
namespace {

static_assert(std::atomic<int64_t>::is_always_lock_free, "a read of the clock must not take a lock");
static_assert(config::kBaseConfig.ntp_requests_per_burst.min == kMinSamples, "fewer have no result");

using base::kLogFailure;
using base::kLogProgress;
using base::kUsPerSecond;
using base::LocalLog;
using base::Location;
using base::TimeDelta;
// Clock arithmetic wraps: kNoOffsetUs takes part in some of these sums.
using base::WrappingAdd;
using base::WrappingSubtract;

constexpr char kSourcePath[] = "ntp/ntp_time_manager_impl";

// A domain is evaluated once it has this many samples, or once its burst is this old.
constexpr size_t kEnoughSamples = 6;
constexpr int64_t kRequestTimeLimitUs = 3000000;
constexpr TimeDelta kCheckInterval = TimeDelta::FromMicroseconds(200000);
constexpr TimeDelta kStopDelay = TimeDelta::FromMicroseconds(30000000);

int64_t NowLocalMs() { return base::Time::Now().ToDeltaSinceWindowsEpoch().InMilliseconds(); }

}  // namespace

// --- The one manager.

NtpTimeManager* NtpTimeManager::GetInstance() {
  static base::NoDestructor<NtpTimeManagerImpl> instance;
  return instance.get();
}

NtpTimeManagerImpl::NtpTimeManagerImpl() {
  system_offset_from_steady_us_.store(base::GetSystemTimeOffsetFromSteady(), std::memory_order_relaxed);
}

NtpTimeManagerImpl::~NtpTimeManagerImpl() = default;

// --- Queue and lifecycle.

std::shared_ptr<core::TaskQueue> NtpTimeManagerImpl::GetNtpQueue() {
  return core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1,
                                           base::Optional<core::ThreadOption>());
}

void NtpTimeManagerImpl::CheckOnQueue() {
#ifndef NDEBUG
  const auto queue = GetNtpQueue();
  assert(queue == nullptr || queue->IsCurrent());
#endif
}

int NtpTimeManagerImpl::Start() {
  start_count_.fetch_add(1, std::memory_order_relaxed);
  if (is_started_.load(std::memory_order_relaxed)) {
    return -1;
  }
  const int64_t last_ms = last_sync_local_time_ms_.load(std::memory_order_relaxed);
  const int64_t now_ms = NowLocalMs();
  // In this order, each asked only when all before it let the kept result stand: the drift check demotes it.
  const bool is_fresh = IsAfterSuccess(last_ms, now_ms) && !NeedToUpdateResult() &&
                        IsWithinQuietPeriod(last_ms, now_ms) && CheckElapsedTimeDeviation();
  if (!is_fresh) {
    return StartInNtpQueue();
  }
  const NtpResult last_result = last_result_.load(std::memory_order_relaxed);
  GetNtpQueue()->PostTask(
      Location::CreateFromHere(kSourcePath, __LINE__),
      base::BindOnce(&NtpTimeManagerImpl::Notify, base::Unretained(this), last_result, net::IPEndPoint()));
  return 0;
}

int NtpTimeManagerImpl::StartInNtpQueue() {
  if (is_started_.load(std::memory_order_relaxed)) {
    return -1;
  }
  is_started_.store(true, std::memory_order_relaxed);
  GetNtpQueue()->PostTask(Location::CreateFromHere(kSourcePath, __LINE__),
                          base::BindOnce(&NtpTimeManagerImpl::DoStartSyncTime, base::Unretained(this)));
  return 0;
}

void NtpTimeManagerImpl::Stop() {
  if (const auto queue = GetNtpQueue(); queue != nullptr) {
    queue->PostTask(Location::CreateFromHere(kSourcePath, __LINE__),
                    base::BindOnce(&NtpTimeManagerImpl::StopNtpQueue, base::Unretained(this)));
  }
}

void NtpTimeManagerImpl::DelayStopNtpQueueIfNeeded() {
  CheckOnQueue();
  const auto queue = GetNtpQueue();
  if (!is_sync_finished_ || queue == nullptr) {
    return;
  }
  // Nothing takes this stop back, and it asks nothing when it runs: an attempt that begins within the delay
  // is cut off by it. This is intended; LifecycleTest (tests/ntp/lifecycle_test.cc) holds it.
  queue->PostDelayedTask(Location::CreateFromHere(kSourcePath, __LINE__),
                         base::BindOnce(&NtpTimeManagerImpl::StopNtpQueue, base::Unretained(this)),
                         kStopDelay);
}

void NtpTimeManagerImpl::StopNtpQueue() {
  CheckOnQueue();
  is_started_.store(false, std::memory_order_relaxed);
  {
    const base::AutoLock lock(stats_lock_);
    Clean();
    LocalLog(kLogProgress, kSourcePath, __LINE__, "Stop ntp queue");
  }
  if (end_if_stopped_) {
    ReportAttemptEnd(*end_if_stopped_);
  }
  ForEachSyncListener([](NtpSyncListener& listener) { listener.OnQueueStopped(); });
}

void NtpTimeManagerImpl::Clean() {
  if (packet_handler_ != nullptr) {
    packet_handler_->Clean();
  }
  ResetServerDomainList();
}

// --- Observers.

void NtpTimeManagerImpl::AddObserver(std::weak_ptr<Observer> observer) {
  const std::shared_ptr<Observer> alive = observer.lock();
  if (alive == nullptr) {
    return;
  }
  const base::AutoLock lock(observer_lock_);
  if (const auto entry = FindObserver(observers_, alive.get()); entry == observers_.end()) {
    observers_.push_back(observer);
  }
}

void NtpTimeManagerImpl::RemoveObserver(std::weak_ptr<Observer> observer) {
  const std::shared_ptr<Observer> alive = observer.lock();
  if (alive == nullptr) {
    return;
  }
  const base::AutoLock lock(observer_lock_);
  if (const auto entry = FindObserver(observers_, alive.get()); entry != observers_.end()) {
    observers_.erase(entry);
  }
}

void NtpTimeManagerImpl::Notify(NtpResult result, const net::IPEndPoint& server) {
  is_started_.store(false, std::memory_order_relaxed);
  const std::string message = GetResultMessage(result);
  ObserverList snapshot;
  {
    const base::AutoLock lock(observer_lock_);
    snapshot = observers_;
  }
  for (const std::weak_ptr<Observer>& entry : snapshot) {
    if (const std::shared_ptr<Observer> observer = entry.lock(); observer != nullptr) {
      observer->OnNtpResult(result, message, server);
    }
  }
  GetNtpQueue()->PostTask(
      Location::CreateFromHere(kSourcePath, __LINE__),
      base::BindOnce(&NtpTimeManagerImpl::DelayStopNtpQueueIfNeeded, base::Unretained(this)));
}

// --- Domains.

void NtpTimeManagerImpl::UpdateNtpTimeDomain(const std::vector<std::string>& domains) {
  GetNtpQueue()->PostTask(
      Location::CreateFromHere(kSourcePath, __LINE__),
      base::BindOnce(&NtpTimeManagerImpl::DoUpdateNtpTimeDomain, base::Unretained(this), domains));
}

void NtpTimeManagerImpl::DoUpdateNtpTimeDomain(const std::vector<std::string>& domains) {
  CheckOnQueue();
  const bool is_heard = HasSyncListeners();
  NtpDomainsUpdated update;
  std::vector<std::string> unknown;
  std::copy_if(domains.begin(), domains.end(), std::back_inserter(unknown),
               [this](const std::string& name) { return !IsKnown(name); });
  const std::map<std::string, NameLookup> lookups = LookUpNames(unknown);
  for (const std::string& name : unknown) {
    // An earlier occurrence in this call may have added it.
    if (IsKnown(name)) {
      continue;
    }
    const NtpTimeDomainInfo info(name, lookups.find(name)->second);
    if (info.addresses().empty()) {
      if (is_heard) {
        update.without_address.push_back({name, info.failure().reason, info.failure().detail});
      }
      continue;
    }
    LocalLog(kLogProgress, kSourcePath, __LINE__, "Add ntp service:%s", name.c_str());
    domain_infos_.push_back(std::make_shared<NtpTimeDomainInfo>(info));
    domain_results_[name] = NtpDomainResult();
    if (is_heard) {
      update.added.push_back(name);
    }
  }
  if (is_heard) {
    ForEachSyncListener([&](NtpSyncListener& listener) { listener.OnDomainsUpdated(update); });
  }
  if (is_started_.load(std::memory_order_relaxed)) {
    // Before the very first attempt has reached the queue there is no handler to send the bursts with.
    if (packet_handler_ == nullptr) {
      PreparePacketHandler();
    }
    StartRequest(domain_infos_);
  } else {
    DelayStopNtpQueueIfNeeded();
  }
}

bool NtpTimeManagerImpl::IsKnown(const std::string& domain) const {
  return std::any_of(domain_infos_.begin(), domain_infos_.end(),
                     [&](const auto& info) { return info->domain() == domain; });
}

NtpDomainResult* NtpTimeManagerImpl::QueryDomainResult(const std::string& domain) {
  CheckOnQueue();
  const auto found = domain_results_.find(domain);
  if (found == domain_results_.end()) {
    LocalLog(kLogFailure, kSourcePath, __LINE__, "Not query domain:%s", domain.c_str());
    return nullptr;
  }
  return &found->second;
}

void NtpTimeManagerImpl::ResetServerDomainList() {
  CheckOnQueue();
  for (const auto& info : domain_infos_) {
    info->Reset();
  }
  for (auto& [name, record] : domain_results_) {
    record = NtpDomainResult();
  }
  total_retry_count_ = 0;
}

std::shared_ptr<NtpTimeDomainInfo> NtpTimeManagerImpl::SelectBetterDomainInfo(
    std::shared_ptr<NtpTimeDomainInfo> candidate) {
  const NtpDomainResult* const current_record = QueryDomainResult(current_domain_info_->domain());
  const NtpDomainResult* const candidate_record = QueryDomainResult(candidate->domain());
  if (current_record == nullptr || candidate_record == nullptr ||
      !TakesOverAsReported(candidate_record->result, current_record->result)) {
    return current_domain_info_;
  }
  return candidate;
}

// --- Attempt and requests.

void NtpTimeManagerImpl::PreparePacketHandler() {
  if (packet_handler_ == nullptr) {
    packet_handler_ = std::make_unique<NtpTimePacketHandler>(
        this, system_offset_from_steady_us_.load(std::memory_order_relaxed));
  }
  packet_handler_->PrepareForSendPackets();
}

bool NtpTimeManagerImpl::AddDefaultDomain() {
  const std::string name = config::VorqEnvConfig::GetInstance()->GetDefaultNtpDomain();
  if (name.empty()) {
    return false;
  }
  const NtpTimeDomainInfo info(name);
  if (info.addresses().empty()) {
    return false;
  }
  domain_infos_.push_back(std::make_shared<NtpTimeDomainInfo>(info));
  domain_results_[config::VorqEnvConfig::GetInstance()->GetDefaultNtpDomain()] = NtpDomainResult();
  return true;
}

void NtpTimeManagerImpl::DoStartSyncTime() {
  CheckOnQueue();
  PreparePacketHandler();
  LocalLog(kLogProgress, kSourcePath, __LINE__, "Start NTP time sync");
  ForEachSyncListener([](NtpSyncListener& listener) { listener.OnAttemptBegun(); });
  if (domain_infos_.empty() && !AddDefaultDomain()) {
    LocalLog(kLogFailure, kSourcePath, __LINE__, "NTP time sync failed: no correct NTP server");
    end_if_stopped_ = NtpAttemptEnd::kNoServer;
    StopNtpQueue();
    return;
  }
  end_if_stopped_ = NtpAttemptEnd::kStopped;
  // While the clocks agree, keep the system-minus-steady offset that the kept NTP offset was computed with.
  const bool is_deviation_found =
      last_sync_ntp_timestamp_us_.load(std::memory_order_relaxed) != 0 && !CheckElapsedTimeDeviation();
  packet_handler_->UpdateSystemTimeOffsetFromSteady(
      is_deviation_found ? base::GetSystemTimeOffsetFromSteady()
                         : system_offset_from_steady_us_.load(std::memory_order_relaxed));
  is_sync_finished_ = false;
  StartRequest(domain_infos_);
}

void NtpTimeManagerImpl::StartRequest(std::vector<std::shared_ptr<NtpTimeDomainInfo>>& domains) {
  CheckOnQueue();
  for (const std::shared_ptr<NtpTimeDomainInfo>& domain : domains) {
    NtpDomainResult* const record = QueryDomainResult(domain->domain());
    if (record == nullptr || record->is_requesting) {
      continue;
    }
    LocalLog(kLogProgress, kSourcePath, __LINE__, "Start request: %s", domain->domain().c_str());
    record->is_requesting = true;
    record->request_start_time_us = GetNowSystemTimestampUs();
    SendPacketToServer(domain);
  }
}

void NtpTimeManagerImpl::SendPacketToServer(std::shared_ptr<NtpTimeDomainInfo> domain) {
  CheckOnQueue();
  const net::IPEndPoint server = domain->GetCurrentIPAddress();
  if (server.address_empty()) {
    // No check is armed either, so the request stays open until another domain succeeds or a stop comes.
    // This is intended; SyncAttemptTest (tests/ntp/sync_attempt_test.cc) holds it.
    return;
  }
  if (NtpDomainResult* const record = QueryDomainResult(domain->domain()); record != nullptr) {
    record->last_request_start_time_us = GetNowSystemTimestampUs();
  }
  ForEachSyncListener([&](NtpSyncListener& listener) { listener.OnBurstBegun({domain->domain(), server}); });
  for (uint32_t call = 0; call < kCallsPerBurst; ++call) {
    GetNtpQueue()->PostDelayedTask(
        Location::CreateFromHere(kSourcePath, __LINE__),
        base::BindOnce(&NtpTimePacketHandler::SendPacket, packet_handler_->GetWeakPtr(),
                       domain->GetCurrentIPAddress()),
        TimeDelta::FromMicroseconds(call * kCallSpacingUs));
  }
  CheckServerResult(GetNowSystemTimestampUs(), domain);
}

bool NtpTimeManagerImpl::IsAllDomainRequestsFinished() {
  CheckOnQueue();
  return std::none_of(domain_infos_.begin(), domain_infos_.end(), [this](const auto& info) {
    const NtpDomainResult* const record = QueryDomainResult(info->domain());
    return record != nullptr && record->is_requesting;
  });
}

bool NtpTimeManagerImpl::RetryDomainRequestIfNeeded(std::shared_ptr<NtpTimeDomainInfo> domain) {
  CheckOnQueue();
  const NtpDomainResult* const record = QueryDomainResult(domain->domain());
  if (record == nullptr || record->result != NtpResult::kNoResult || !domain->Retry(total_retry_count_)) {
    return false;
  }
  SendPacketToServer(domain);
  return true;
}

bool NtpTimeManagerImpl::CheckAndRetryDomainRequestIfPending(std::shared_ptr<NtpTimeDomainInfo> domain) {
  CheckOnQueue();
  if (!is_started_.load(std::memory_order_relaxed)) {
    return false;
  }
  const NtpDomainResult* const record = QueryDomainResult(domain->domain());
  if (record == nullptr || RetryDomainRequestIfNeeded(domain)) {
    return false;
  }
  FinishAndUpdateRequestStats(record->result, domain);
  if (current_domain_info_ == nullptr) {
    current_domain_info_ = domain;
  }
  if (IsAllDomainRequestsFinished()) {
    return true;
  }
  LocalLog(kLogProgress, kSourcePath, __LINE__,
           "%s request not success [%d] and waiting other domain, total retry count: %u",
           domain->domain().c_str(), static_cast<int>(record->result), total_retry_count_);
  return false;
}

// --- Samples.

void NtpTimeManagerImpl::OnFirstPacketReceived(int64_t offset_us) {
  if (ntp_offset_us_.load(std::memory_order_relaxed) != kNoOffsetUs) {
    return;
  }
  ntp_offset_us_.store(offset_us, std::memory_order_relaxed);
}

void NtpTimeManagerImpl::OnPacketReceived(NtpResultData data, const net::IPEndPoint& server) {
  CheckOnQueue();
  if (!is_started_.load(std::memory_order_relaxed)) {
    return;
  }
  const auto domain = std::find_if(domain_infos_.begin(), domain_infos_.end(),
                                   [&](const auto& info) { return info->IsCurrentIPAddress(server); });
  if (domain == domain_infos_.end()) {
    return;
  }
  NtpDomainResult* const record = QueryDomainResult((*domain)->domain());
  if (record == nullptr || !record->is_requesting) {
    return;
  }
  (*domain)->samples().push_back(data);
  if (record->endpoint != server) {
    record->endpoint = server;
  }
  ForEachSyncListener([&](NtpSyncListener& listener) {
    exchange_.domain = (*domain)->domain();
    listener.OnSampleAccepted({exchange_.domain, server, data, exchange_});
  });
}

void NtpTimeManagerImpl::OnExchange(const NtpExchange& exchange) { exchange_ = exchange; }

void NtpTimeManagerImpl::OnReplyRejected(const net::IPEndPoint& server, const std::string& counter) {
  ForEachSyncListener([&](NtpSyncListener& listener) { listener.OnReplyRejected({server, counter}); });
}

void NtpTimeManagerImpl::CheckServerResult(int64_t start_time_us, std::shared_ptr<NtpTimeDomainInfo> domain) {
  CheckOnQueue();
  if (!is_started_.load(std::memory_order_relaxed)) {
    return;
  }
  const int64_t now_us = GetNowSystemTimestampUs();
  const bool is_time_up = WrappingAdd(start_time_us, kRequestTimeLimitUs) <= now_us;
  if (!is_time_up && domain->samples().size() < kEnoughSamples) {
    GetNtpQueue()->PostDelayedTask(
        Location::CreateFromHere(kSourcePath, __LINE__),
        base::BindOnce(&NtpTimeManagerImpl::CheckServerResult, base::Unretained(this), start_time_us, domain),
        kCheckInterval);
    return;
  }
  HandleServerNtpResult(domain);
}

void NtpTimeManagerImpl::HandleServerNtpResult(std::shared_ptr<NtpTimeDomainInfo> domain) {
  if (CalculateServerResult(domain) == NtpResult::kSuccess) {
    HandleServerNtpSuccessResult(domain);
  } else if (CheckAndRetryDomainRequestIfPending(domain)) {
    HandleServerNtpErrorResult(domain);
  }
}

void NtpTimeManagerImpl::SortAndSplitResultData(std::vector<NtpResultData>& data) { SortAndTrim(data); }

int64_t NtpTimeManagerImpl::CalculateResultReliableAndGetOffset(std::vector<NtpResultData>& data,
                                                                bool& is_rtt_reliable, bool& is_reliable) {
  const OffsetEstimate estimate = EstimateOffset(data);
  is_rtt_reliable = estimate.is_rtt_reliable;
  is_reliable = estimate.is_reliable;
  if (!is_rtt_reliable || !is_reliable) {
    LocalLog(kLogProgress, kSourcePath, __LINE__,
             "Not reliable rtt stdev:%f, avg:%f, offset max_dev:%lld, avg:%lld", estimate.rtt_stdev_ms,
             estimate.mean_rtt_ms, static_cast<long long>(estimate.max_deviation_us),
             static_cast<long long>(estimate.mean_offset_us));
  }
  return estimate.mean_offset_us;
}

NtpResult NtpTimeManagerImpl::CalculateServerResult(std::shared_ptr<NtpTimeDomainInfo> domain) {
  CheckOnQueue();
  NtpDomainResult* const record = QueryDomainResult(domain->domain());
  if (record == nullptr) {
    return NtpResult::kNoResult;
  }
  std::vector<NtpResultData>& samples = domain->samples();
  const bool is_heard = HasSyncListeners();
  std::vector<NtpResultData> burst = is_heard ? samples : std::vector<NtpResultData>();
  record->offset_us = kNoOffsetUs;
  if (samples.size() < kMinSamples) {
    record->result = NtpResult::kNoResult;
  } else {
    SortAndSplitResultData(samples);
    bool is_rtt_reliable = false;
    bool is_reliable = false;
    record->offset_us = CalculateResultReliableAndGetOffset(samples, is_rtt_reliable, is_reliable);
    record->is_rtt_reliable = is_rtt_reliable;
    record->is_reliable = is_reliable;
    record->sample_count = static_cast<uint32_t>(samples.size());
    record->result = GradeOffset(record->offset_us, is_rtt_reliable, is_reliable);
  }
  samples.clear();
  if (is_heard) {
    ReportEvaluation(domain->domain(), *record, std::move(burst));
  }
  return record->result;
}

// --- Outcome.

void NtpTimeManagerImpl::UpdateNtpResultIfBetter(NtpDomainResult* result,
                                                 int64_t system_offset_from_steady_us) {
  const NtpResult last = last_result_.load(std::memory_order_relaxed);
  is_record_kept_ = ReplacesKeptResult(result->result, last);
  if (!is_record_kept_) {
    LocalLog(kLogProgress, kSourcePath, __LINE__,
             "Use last sync result:%d, offset:%lld, reliable:%d, rtt reliable:%d", static_cast<int>(last),
             static_cast<long long>(ntp_offset_us_.load(std::memory_order_relaxed)),
             is_reliable_.load(std::memory_order_relaxed), is_rtt_reliable_.load(std::memory_order_relaxed));
    return;
  }
  ntp_offset_us_.store(result->offset_us, std::memory_order_relaxed);
  last_result_.store(result->result, std::memory_order_relaxed);
  is_rtt_reliable_.store(result->is_rtt_reliable, std::memory_order_relaxed);
  is_reliable_.store(result->is_reliable, std::memory_order_relaxed);
  system_offset_from_steady_us_.store(system_offset_from_steady_us, std::memory_order_relaxed);
}

void NtpTimeManagerImpl::HandleServerNtpSuccessResult(std::shared_ptr<NtpTimeDomainInfo> domain) {
  FinishAndUpdateRequestStats(NtpResult::kSuccess, domain);
  current_domain_info_ = domain;
  NtpDomainResult* const record = QueryDomainResult(domain->domain());
  if (record == nullptr) {
    return;
  }
  UpdateNtpResultIfBetter(record, packet_handler_->GetSystemTimeOffsetFromSteady());
  last_request_cost_ms_.store(record->last_request_cost_ms, std::memory_order_relaxed);
  last_sync_ntp_timestamp_us_.store(GetNtpTimestampFrom1970Internal(), std::memory_order_relaxed);
  last_sync_local_time_ms_.store(NowLocalMs(), std::memory_order_relaxed);
  LocalLog(kLogProgress, kSourcePath, __LINE__,
           "NTP time sync successful, took(ms): %u, last request took(ms): %u, use sample count:%zu, "
           "success offset(us): %lld, ntp time:%s, %s, IP:%s",
           record->cost_ms, record->last_request_cost_ms, static_cast<size_t>(record->sample_count),
           static_cast<long long>(record->offset_us),
           NtpTimestampToTime(GetNtpTimestampFrom1970Internal()).ToString().c_str(), domain->domain().c_str(),
           domain->GetCurrentIPAddress().ToString().c_str());
  is_sync_finished_ = true;
  CalculateStatsResult(true, record->cost_ms, kWholeAttempt);
  Notify(NtpResult::kSuccess, record->endpoint);
  ReportAttemptEnd(NtpAttemptEnd::kOutcome, NtpResult::kSuccess, domain->domain(), *record);
  ResetServerDomainList();
}

void NtpTimeManagerImpl::HandleServerNtpErrorResult(std::shared_ptr<NtpTimeDomainInfo> domain) {
  current_domain_info_ = SelectBetterDomainInfo(std::move(domain));
  NtpDomainResult* const record = QueryDomainResult(current_domain_info_->domain());
  if (record == nullptr) {
    return;
  }
  UpdateNtpResultIfBetter(record, packet_handler_->GetSystemTimeOffsetFromSteady());
  const NtpResult code = AnnouncedWithoutSuccess(last_result_.load(std::memory_order_relaxed));
  const std::string& name = current_domain_info_->domain();
  const std::string address = current_domain_info_->GetCurrentIPAddress().ToString();
  if (code == NtpResult::kNoResult) {
    LocalLog(kLogProgress, kSourcePath, __LINE__, "NTP time sync failed:%s, use sample count:%zu, IP:%s",
             name.c_str(), static_cast<size_t>(record->sample_count), address.c_str());
  } else {
    // The domain's name stands where a code's text might be expected. This is intended; SyncOutcomeTest
    // (tests/ntp/sync_outcome_test.cc) holds it.
    LocalLog(kLogProgress, kSourcePath, __LINE__,
             "NTP time sync finished, but result maybe inaccurate, final offset:%lld, result:%s, "
             "use sample count:%zu, IP:%s, offset:%lld, ntp time:%s",
             static_cast<long long>(ntp_offset_us_.load(std::memory_order_relaxed)), name.c_str(),
             static_cast<size_t>(record->sample_count), address.c_str(),
             static_cast<long long>(record->offset_us),
             NtpTimestampToTime(GetNtpTimestampFrom1970Internal()).ToString().c_str());
  }
  is_sync_finished_ = true;
  CalculateStatsResult(IsCountedAsSuccess(code), record->cost_ms, kWholeAttempt);
  Notify(code, record->endpoint);
  ReportAttemptEnd(NtpAttemptEnd::kOutcome, code, name, *record);
  ResetServerDomainList();
}

void NtpTimeManagerImpl::ReportAttemptEnd(NtpAttemptEnd end, NtpResult result, const std::string& domain,
                                          const NtpDomainResult& record) {
  end_if_stopped_.reset();
  const bool is_kept = std::exchange(is_record_kept_, false);
  ForEachSyncListener([&](NtpSyncListener& listener) {
    listener.OnAttemptEnded({end, result, domain, record, is_kept});
  });
}

// --- Clock.

// Read in separate statements: C++ leaves the order in which arguments are evaluated open.
int64_t NtpTimeManagerImpl::GetNowSystemTimestampUs() {
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  return WrappingAdd(now_ticks_us, system_offset_from_steady_us_.load(std::memory_order_relaxed));
}

int64_t NtpTimeManagerImpl::GetNtpTimestampFrom1970Internal() {
  const int64_t now_us = GetNowSystemTimestampUs();
  const int64_t offset_us = ntp_offset_us_.load(std::memory_order_relaxed);
  return WrappingSubtract(WrappingAdd(now_us, offset_us), base::kWindowsToUnixEpochUs);
}

base::Time NtpTimeManagerImpl::NtpTimestampToTime(int64_t ntp_us) {
  return base::Time::UnixEpoch() + TimeDelta::FromMicroseconds(ntp_us);
}

// The hot path. Two clock readings dominate this function, and work after the first delays the second. So it
// scales the limit instead of dividing the reading (ReadCheckTime says where that differs from the rule), and
// the checks of a read that is due stand in a function of their own.
int64_t NtpTimeManagerImpl::GetNtpTimestampFrom1970() {
  const base::Time now = base::Time::Now();
  const int64_t last_check_ms = last_check_local_time_ms_.load(std::memory_order_relaxed);
  const bool is_due = last_check_ms == 0 || now >= ReadCheckTime(last_check_ms);
  const bool has_result = ntp_offset_us_.load(std::memory_order_relaxed) != kNoOffsetUs;
  if (is_due) {
    return CheckAndReadNtpTimestamp(now, has_result);
  }
  return has_result ? GetNtpTimestampFrom1970Internal() : 0;
}

// Checks that pass do not begin a new quiet period, so every later read makes them again; only a sync that is
// started does. This is intended; NtpClockTest (tests/ntp/ntp_clock_test.cc) holds it.
int64_t NtpTimeManagerImpl::CheckAndReadNtpTimestamp(base::Time now, bool has_result) {
  if (!has_result || NeedToUpdateResult() || !CheckElapsedTimeDeviation()) {
    last_check_local_time_ms_.store(now.ToDeltaSinceWindowsEpoch().InMilliseconds(),
                                    std::memory_order_relaxed);
    StartInNtpQueue();
  }
  return has_result ? GetNtpTimestampFrom1970Internal() : 0;
}

bool NtpTimeManagerImpl::CheckElapsedTimeDeviation() {
  const int64_t before_ntp_us = last_sync_ntp_timestamp_us_.load(std::memory_order_relaxed);
  if (before_ntp_us == 0) {
    return false;
  }
  // The NTP clock is read before the wall clock.
  const int64_t now_ntp_us = GetNtpTimestampFrom1970Internal();
  const int64_t before_local_ms = last_sync_local_time_ms_.load(std::memory_order_relaxed);
  const int64_t now_local_ms = NowLocalMs();
  const ClockPair before{.ntp_us = before_ntp_us, .local_ms = before_local_ms};
  const ClockPair now{.ntp_us = now_ntp_us, .local_ms = now_local_ms};
  const uint32_t deviation_ms = DeviationMs(before, now);
  if (deviation_ms <= kToleratedDeviationMs) {
    return true;
  }
  RecordDeviation(deviation_ms, before, now);
  return false;
}

void NtpTimeManagerImpl::RecordDeviation(uint32_t deviation_ms, ClockPair before, ClockPair now) {
  LocalLog(kLogFailure, kSourcePath, __LINE__,
           "Deviation found:%u, ntp:{ now:%s, before:%s}, local:{ now:%lld, before:%lld}", deviation_ms,
           NtpTimestampToTime(now.ntp_us).ToString().c_str(),
           NtpTimestampToTime(before.ntp_us).ToString().c_str(), static_cast<long long>(now.local_ms),
           static_cast<long long>(before.local_ms));
  is_rtt_reliable_.store(false, std::memory_order_relaxed);
  if (last_result_.load(std::memory_order_relaxed) == NtpResult::kSuccess) {
    last_result_.store(NtpResult::kMaybeInaccurate, std::memory_order_relaxed);
  }
  if (deviation_ms > kLargeDeviationMs) {
    deviation_found_.store(true, std::memory_order_relaxed);
  }
}

bool NtpTimeManagerImpl::NeedToUpdateResult() {
  if (is_started_.load(std::memory_order_relaxed)) {
    return false;
  }
  const int64_t before_ntp_us = last_sync_ntp_timestamp_us_.load(std::memory_order_relaxed);
  if (before_ntp_us > 0) {
    const int64_t now_ntp_us = GetNtpTimestampFrom1970Internal();
    const uint64_t default_s = config::BaseCfg().ntp_sync_interval.default_value;
    const auto interval_s = static_cast<uint32_t>(
        config::ConfigCenterImpl::GetInstance()
            ->GetValueWithPriority(config::BaseCfg().ntp_sync_interval, base::Optional<uint64_t>(default_s))
            .value_or(default_s));
    const int64_t elapsed_s = WrappingSubtract(now_ntp_us, before_ntp_us) / kUsPerSecond;
    if (IsPeriodicSyncDue(elapsed_s, interval_s)) {
      LogPeriodicSync(elapsed_s, now_ntp_us, before_ntp_us);
      return true;
    }
  }
  return !IsGoodEnough({.result = last_result_.load(std::memory_order_relaxed),
                        .offset_us = ntp_offset_us_.load(std::memory_order_relaxed),
                        .last_request_cost_ms = last_request_cost_ms_.load(std::memory_order_relaxed),
                        .is_rtt_reliable = is_rtt_reliable_.load(std::memory_order_relaxed),
                        .is_reliable = is_reliable_.load(std::memory_order_relaxed)});
}

void NtpTimeManagerImpl::LogPeriodicSync(int64_t elapsed_s, int64_t now_ntp_us, int64_t before_ntp_us) {
  LocalLog(kLogProgress, kSourcePath, __LINE__, "Periodic Sync:%lld, ntp:{ now:%s, before:%s}",
           static_cast<long long>(elapsed_s), NtpTimestampToTime(now_ntp_us).ToString().c_str(),
           NtpTimestampToTime(before_ntp_us).ToString().c_str());
}

// --- Statistics.

void NtpTimeManagerImpl::FinishAndUpdateRequestStats(NtpResult result,
                                                     std::shared_ptr<NtpTimeDomainInfo> domain) {
  NtpDomainResult* const record = QueryDomainResult(domain->domain());
  if (record == nullptr) {
    return;
  }
  record->is_requesting = false;
  const int64_t now_us = GetNowSystemTimestampUs();
  record->cost_ms = CostMs(record->request_start_time_us, now_us);
  record->last_request_cost_ms = CostMs(record->last_request_start_time_us, now_us);
  if (record->cost_ms == 0) {
    // A request that ended within its first millisecond is not counted anywhere. This is intended;
    // QualityReportTest (tests/ntp/quality_report_test.cc) holds it.
    return;
  }
  const bool is_default = domain->domain() == config::VorqEnvConfig::GetInstance()->GetDefaultNtpDomain();
  const NtpDomainCode code = is_default ? NtpDomainCode::kDefault : NtpDomainCode::kOther;
  const bool success = IsCountedAsSuccess(result);
  CalculateStatsResult(success, record->cost_ms, static_cast<int>(code));
  ReportDomainToKeyMetrics(success, code);
}

void NtpTimeManagerImpl::CalculateStatsResult(bool success, uint32_t cost_ms, int function_type) {
  const base::AutoLock lock(stats_lock_);
  AddRequest(function_request_stats_[function_type], success, cost_ms, function_type);
}

void NtpTimeManagerImpl::ReportDomainToKeyMetrics(bool success, NtpDomainCode code) {
  const DomainMetricKeys* const keys = MetricKeysOf(code);
  if (keys == nullptr) {
    return;
  }
  base::KeyMetrics::CountPV(keys->finished, 1);
  if (success) {
    base::KeyMetrics::CountPV(keys->succeeded, 1);
  }
}

NtpTimeSyncStats NtpTimeManagerImpl::GetAndResetNtpQualityStats() {
  NtpTimeSyncStats report;
  {
    const base::AutoLock lock(stats_lock_);
    report.function_request_stats.swap(function_request_stats_);
  }
  report.start_count =
      ReportedStartCount(start_count_.exchange(kStartCountAfterReport, std::memory_order_relaxed));
  report.deviation_found = deviation_found_.exchange(false, std::memory_order_relaxed);
  return report;
}

}  // namespace skorra
