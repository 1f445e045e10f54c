// The time manager's one implementation. Users include ntp_time_manager.h.
//
// Sync attempt: Start posts DoStartSyncTime; each domain gets a burst of requests and a check that runs until
// it has enough samples or its time is up; the samples are trimmed, averaged and graded; the first good
// result, or the end of all retries, closes the attempt, keeps the better of the new and the kept result and
// tells the observers.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ntp/ntp_sync_records.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/lock.h"
#include "platform/base/no_destructor.h"
#include "platform/base/time.h"
#include "platform/core/task_queue.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_time_domain_info.h"
#include "transport/ntp_time_packet_handler.h"

namespace skorra {

class NtpTimeManagerImpl : public NtpTimeManager, public NtpTimePacketHandler::Client {
 public:
  ~NtpTimeManagerImpl() override;
  NtpTimeManagerImpl(const NtpTimeManagerImpl&) = delete;
  NtpTimeManagerImpl& operator=(const NtpTimeManagerImpl&) = delete;

  void AddObserver(std::weak_ptr<Observer> observer) override;
  void RemoveObserver(std::weak_ptr<Observer> observer) override;
  int Start() override;
  void Stop() override;
  int64_t GetNtpTimestampFrom1970() override;
  void UpdateNtpTimeDomain(const std::vector<std::string>& domains) override;
  NtpTimeSyncStats GetAndResetNtpQualityStats() override;

  void OnFirstPacketReceived(int64_t offset_us) override;
  void OnPacketReceived(NtpResultData data, const net::IPEndPoint& server) override;

 private:
  friend class base::NoDestructor<NtpTimeManagerImpl>;
  friend class NtpTimeManagerPeer;  // the tests' and benchmarks' view

  using ObserverList = std::vector<std::weak_ptr<NtpTimeManager::Observer>>;

  NtpTimeManagerImpl();

  // Queue and lifecycle.
  std::shared_ptr<core::TaskQueue> GetNtpQueue();
  int StartInNtpQueue();
  void DelayStopNtpQueueIfNeeded();
  void StopNtpQueue();
  void Clean();
  void CheckOnQueue();

  // Observers.
  ObserverList::iterator FindObserver(const Observer* observer);
  void Notify(NtpResult result, const net::IPEndPoint& server);

  // Domains.
  void DoUpdateNtpTimeDomain(const std::vector<std::string>& domains);
  NtpDomainResult* QueryDomainResult(const std::string& domain);
  void ResetServerDomainList();
  std::shared_ptr<NtpTimeDomainInfo> SelectBetterDomainInfo(std::shared_ptr<NtpTimeDomainInfo> candidate);

  // Attempt and requests.
  void PreparePacketHandler();
  bool AddDefaultDomain();
  void DoStartSyncTime();
  void StartRequest(std::vector<std::shared_ptr<NtpTimeDomainInfo>>& domains);
  void SendPacketToServer(std::shared_ptr<NtpTimeDomainInfo> domain);
  bool IsAllDomainRequestsFinished();
  bool RetryDomainRequestIfNeeded(std::shared_ptr<NtpTimeDomainInfo> domain);
  bool CheckAndRetryDomainRequestIfPending(std::shared_ptr<NtpTimeDomainInfo> domain);

  // Samples and outcome.
  void CheckServerResult(int64_t start_time_us, std::shared_ptr<NtpTimeDomainInfo> domain);
  void HandleServerNtpResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  void SortAndSplitResultData(std::vector<NtpResultData>& data);
  int64_t CalculateResultReliableAndGetOffset(std::vector<NtpResultData>& data, bool& is_rtt_reliable,
                                              bool& is_reliable);
  NtpResult CalculateServerResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  void HandleServerNtpSuccessResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  void HandleServerNtpErrorResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  void UpdateNtpResultIfBetter(NtpDomainResult* result, int64_t system_offset_from_steady_us);

  // Clock.
  // Not inlined: the hot path would save registers for it.
  [[gnu::noinline]] int64_t CheckAndReadNtpTimestamp(base::Time now, bool has_result);
  int64_t GetNtpTimestampFrom1970Internal();
  int64_t GetNowSystemTimestampUs();
  base::Time NtpTimestampToTime(int64_t ntp_us);
  bool CheckElapsedTimeDeviation();
  bool NeedToUpdateResult();

  // Statistics.
  void FinishAndUpdateRequestStats(NtpResult result, std::shared_ptr<NtpTimeDomainInfo> domain);
  void CalculateStatsResult(bool success, uint32_t cost_ms, int function_type);
  void ReportDomainToKeyMetrics(bool success, NtpDomainCode code);

  // The order of the members is that of their construction and, reversed, of their release. Each names who
  // may touch it: [queue] tasks of the manager's queue; [any] any thread; [observer_lock_], [stats_lock_]
  // whoever holds that lock. The two locks are never held together.

  std::unique_ptr<NtpTimePacketHandler> packet_handler_;          // [queue] made once, kept
  std::map<std::string, NtpDomainResult> domain_results_;         // [queue] by domain name; keys stay
  std::vector<std::shared_ptr<NtpTimeDomainInfo>> domain_infos_;  // [queue] only ever appended to
  base::Lock observer_lock_;
  ObserverList observers_;  // [observer_lock_] in registration order
  // Also held while the queue stops, so that no report is taken while the domains are being cleaned.
  base::Lock stats_lock_;
  uint32_t total_retry_count_ = 0;  // [queue] retries of this attempt, all domains together
  // [queue] The domain of the best result so far; never cleared between attempts.
  std::shared_ptr<NtpTimeDomainInfo> current_domain_info_;
  // [any] NTP time minus the local system timestamp; kNoOffsetUs while there is no result.
  std::atomic<int64_t> ntp_offset_us_{kNoOffsetUs};
  std::atomic<NtpResult> last_result_{NtpResult::kNoResult};  // [any] code of the kept result
  std::atomic<bool> is_rtt_reliable_{false};                  // [any] of the kept result
  std::atomic<bool> is_reliable_{false};                      // [any] of the kept result
  // [any] System clock minus steady clock that the kept offset was measured against.
  std::atomic<int64_t> system_offset_from_steady_us_{0};
  std::atomic<int64_t> last_sync_ntp_timestamp_us_{0};  // [any] NTP time since 1970 at the last success
  std::atomic<int64_t> last_sync_local_time_ms_{0};     // [any] wall clock since 1601 at the last success
  std::atomic<uint32_t> last_request_cost_ms_{0};       // [any] last request of the winning domain
  // [any] An attempt has been requested and its outcome is not delivered yet.
  std::atomic<bool> is_started_{false};
  bool is_sync_finished_ = true;  // [queue] no attempt is in flight
  // [any] Wall clock since 1601 when a read last started a sync; 0 never.
  std::atomic<int64_t> last_check_local_time_ms_{0};
  std::map<int, NtpFunctionRequestStats> function_request_stats_;  // [stats_lock_] by kind of request
  std::atomic<uint32_t> start_count_{0};                           // [any] calls of Start
  std::atomic<bool> deviation_found_{false};                       // [any] clocks apart by more than 500 ms
};

}  // namespace skorra
