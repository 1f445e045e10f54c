// SPDX-License-Identifier: Apache-2.0

// The tests' and benchmarks' view of the time manager's inside.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ntp/ntp_time_manager_impl.h"
#include "platform/base/no_destructor.h"

namespace skorra {

// Makes managers that are not the process's one, and reaches members and private functions by their names.
// The members that a lock guards are reached without it: only while no other thread works with the manager.
class NtpTimeManagerPeer {
 public:
  using Impl = NtpTimeManagerImpl;
  using DomainPtr = std::shared_ptr<NtpTimeDomainInfo>;

  NtpTimeManagerPeer() : owned_(new Impl), m_(*owned_) {}
  // Of the process's manager.
  explicit NtpTimeManagerPeer(NtpTimeManager& manager) : m_(static_cast<Impl&>(manager)) {}

  Impl& manager() { return m_; }

  auto& packet_handler() { return m_.packet_handler_; }
  auto& domain_results() { return m_.domain_results_; }
  auto& domain_infos() { return m_.domain_infos_; }
  auto& observers() SKORRA_NO_THREAD_SAFETY_ANALYSIS { return m_.observers_; }
  auto& stats_lock() { return m_.stats_lock_; }
  auto& total_retry_count() { return m_.total_retry_count_; }
  auto& current_domain_info() { return m_.current_domain_info_; }
  auto& ntp_offset_us() { return m_.ntp_offset_us_; }
  auto& last_result() { return m_.last_result_; }
  auto& is_rtt_reliable() { return m_.is_rtt_reliable_; }
  auto& is_reliable() { return m_.is_reliable_; }
  auto& system_offset_from_steady_us() { return m_.system_offset_from_steady_us_; }
  auto& last_sync_ntp_timestamp_us() { return m_.last_sync_ntp_timestamp_us_; }
  auto& last_sync_local_time_ms() { return m_.last_sync_local_time_ms_; }
  auto& last_request_cost_ms() { return m_.last_request_cost_ms_; }
  auto& is_started() { return m_.is_started_; }
  auto& is_sync_finished() { return m_.is_sync_finished_; }
  auto& last_check_local_time_ms() { return m_.last_check_local_time_ms_; }
  auto& function_request_stats() SKORRA_NO_THREAD_SAFETY_ANALYSIS { return m_.function_request_stats_; }
  auto& start_count() { return m_.start_count_; }
  auto& deviation_found() { return m_.deviation_found_; }

  void Notify(NtpResult result, const net::IPEndPoint& server) { m_.Notify(result, server); }
  void StopNtpQueue() { m_.StopNtpQueue(); }
  void DelayStopNtpQueueIfNeeded() { m_.DelayStopNtpQueueIfNeeded(); }
  void DoUpdateNtpTimeDomain(const std::vector<std::string>& domains) { m_.DoUpdateNtpTimeDomain(domains); }
  NtpDomainResult* QueryDomainResult(const std::string& domain) { return m_.QueryDomainResult(domain); }
  void ResetServerDomainList() { m_.ResetServerDomainList(); }
  DomainPtr SelectBetterDomainInfo(DomainPtr candidate) {
    return m_.SelectBetterDomainInfo(std::move(candidate));
  }
  void DoStartSyncTime() { m_.DoStartSyncTime(); }
  void StartRequest() { m_.StartRequest(m_.domain_infos_); }
  void SendPacketToServer(DomainPtr domain) { m_.SendPacketToServer(std::move(domain)); }
  bool IsAllDomainRequestsFinished() { return m_.IsAllDomainRequestsFinished(); }
  bool RetryDomainRequestIfNeeded(DomainPtr domain) {
    return m_.RetryDomainRequestIfNeeded(std::move(domain));
  }
  bool CheckAndRetryDomainRequestIfPending(DomainPtr domain) {
    return m_.CheckAndRetryDomainRequestIfPending(std::move(domain));
  }
  void CheckServerResult(int64_t start_time_us, DomainPtr domain) {
    m_.CheckServerResult(start_time_us, std::move(domain));
  }
  void HandleServerNtpResult(DomainPtr domain) { m_.HandleServerNtpResult(std::move(domain)); }
  void SortAndSplitResultData(std::vector<NtpResultData>& data) { m_.SortAndSplitResultData(data); }
  int64_t CalculateResultReliableAndGetOffset(std::vector<NtpResultData>& data, bool& is_rtt_reliable,
                                              bool& is_reliable) {
    return m_.CalculateResultReliableAndGetOffset(data, is_rtt_reliable, is_reliable);
  }
  NtpResult CalculateServerResult(DomainPtr domain) { return m_.CalculateServerResult(std::move(domain)); }
  void HandleServerNtpSuccessResult(DomainPtr domain) { m_.HandleServerNtpSuccessResult(std::move(domain)); }
  void HandleServerNtpErrorResult(DomainPtr domain) { m_.HandleServerNtpErrorResult(std::move(domain)); }
  void UpdateNtpResultIfBetter(NtpDomainResult* result, int64_t system_offset_from_steady_us) {
    m_.UpdateNtpResultIfBetter(result, system_offset_from_steady_us);
  }
  int64_t GetNtpTimestampFrom1970Internal() { return m_.GetNtpTimestampFrom1970Internal(); }
  int64_t GetNowSystemTimestampUs() { return m_.GetNowSystemTimestampUs(); }
  base::Time NtpTimestampToTime(int64_t ntp_us) { return m_.NtpTimestampToTime(ntp_us); }
  bool CheckElapsedTimeDeviation() { return m_.CheckElapsedTimeDeviation(); }
  bool NeedToUpdateResult() { return m_.NeedToUpdateResult(); }
  void FinishAndUpdateRequestStats(NtpResult result, DomainPtr domain) {
    m_.FinishAndUpdateRequestStats(result, std::move(domain));
  }
  void CalculateStatsResult(bool success, uint32_t cost_ms, int function_type) {
    m_.CalculateStatsResult(success, cost_ms, function_type);
  }
  void ReportDomainToKeyMetrics(bool success, NtpDomainCode code) {
    m_.ReportDomainToKeyMetrics(success, code);
  }

  // Puts a good result into the manager, as a success of this moment would.
  void KeepGoodResult(int64_t offset_us) {
    m_.ntp_offset_us_ = offset_us;
    m_.last_result_ = NtpResult::kSuccess;
    m_.is_rtt_reliable_ = true;
    m_.is_reliable_ = true;
    m_.last_request_cost_ms_ = 200;
    m_.last_sync_ntp_timestamp_us_ = m_.GetNtpTimestampFrom1970Internal();
    m_.last_sync_local_time_ms_ = base::Time::Now().ToDeltaSinceWindowsEpoch().InMilliseconds();
  }

 private:
  std::unique_ptr<Impl> owned_;
  Impl& m_;
};

// A fresh manager that is never destroyed, like the process's own: tasks that it has posted keep its address,
// some for half a minute.
inline NtpTimeManagerPeer& MakeManager() {
  static base::NoDestructor<std::vector<std::unique_ptr<NtpTimeManagerPeer>>> managers;
  return *managers->emplace_back(std::make_unique<NtpTimeManagerPeer>());
}

}  // namespace skorra
