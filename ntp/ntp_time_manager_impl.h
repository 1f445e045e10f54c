// SPDX-License-Identifier: Apache-2.0

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
#include <optional>
#include <string>
#include <vector>

#include "ntp/kept_result.h"
#include "ntp/ntp_attempt_control.h"
#include "ntp/ntp_sync_events.h"
#include "ntp/ntp_sync_records.h"
#include "ntp/ntp_time_manager.h"
#include "ntp/observer_list.h"
#include "platform/base/lock.h"
#include "platform/base/no_destructor.h"
#include "platform/base/thread_annotations.h"
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
  void OnExchange(const NtpExchange& exchange) override;
  void OnReplyRejected(const net::IPEndPoint& server, const std::string& counter) override;

 private:
  friend class base::NoDestructor<NtpTimeManagerImpl>;
  friend class NtpTimeManagerPeer;  // the tests' and benchmarks' view
  friend int internal::RequestNtpAttempt(NtpTimeManager& manager);
  friend bool internal::IsNtpAttemptRequested(const NtpTimeManager& manager);

  // [queue] runs on the manager's queue, [any] on any thread. A debug build checks this in most [queue]
  // functions.

  NtpTimeManagerImpl();

  // --- Queue and lifecycle.

  // [any] The queue of the manager's business, asked for on every use; null when there is none.
  std::shared_ptr<core::TaskQueue> GetNtpQueue();
  // [any] Sets is_started_ and posts DoStartSyncTime. Returns 0, or -1 with nothing changed when is_started_
  // is set already. Two threads at once may both get 0: their attempts then run one after the other.
  int StartInNtpQueue();
  // [queue] Posts StopNtpQueue for 30 s later, unless an attempt is in flight or there is no queue.
  void DelayStopNtpQueueIfNeeded();
  // [queue] Clears is_started_, then cleans under stats_lock_. It leaves is_sync_finished_ and the kept
  // result. Then, without the lock, reports the end of an open attempt and that the queue has stopped.
  void StopNtpQueue();
  // [queue] Closes the handler's sockets, where a handler exists, and resets the domains.
  void Clean();
  // [any] Stops a debug build when the caller is not on the queue.
  void CheckOnQueue();

  // --- Observers.

  // [queue] Clears is_started_, tells each live observer the code, its text and the server, without a lock,
  // and posts DelayStopNtpQueueIfNeeded.
  void Notify(NtpResult result, const net::IPEndPoint& server);

  // --- Domains.

  // [queue] Looks up the names that are new, all at the same time, and appends those that have an address,
  // each with a fresh record. Then, while is_started_ is set, starts every domain that is not being asked;
  // otherwise schedules the stop.
  void DoUpdateNtpTimeDomain(const std::vector<std::string>& domains);
  // [queue] Whether the list has the domain.
  bool IsKnown(const std::string& domain) const;
  // [queue] The record of the name, or null, which is logged. Valid as long as the manager; never makes one.
  NtpDomainResult* QueryDomainResult(const std::string& domain);
  // [queue] Every domain as before any request, every record fresh, no retries. The list stays, and so does
  // current_domain_info_.
  void ResetServerDomainList();
  // [queue] The candidate, or current_domain_info_, which must not be null: that one also stays where a
  // record is missing. Changes nothing.
  std::shared_ptr<NtpTimeDomainInfo> SelectBetterDomainInfo(std::shared_ptr<NtpTimeDomainInfo> candidate);

  // --- Attempt and requests.

  // [queue] Makes packet_handler_ when there is none, and lets it begin an attempt.
  void PreparePacketHandler();
  // [queue] Appends the environment's default domain, for a list that is empty. False, with nothing changed,
  // when there is none, or when it has no address.
  bool AddDefaultDomain();
  // [queue] Begins an attempt: clears is_sync_finished_ and starts every domain. Without any usable domain it
  // stops the queue, and no observer hears of it.
  void DoStartSyncTime();
  // [queue] Opens the request of every domain whose request is not open, and sends its first burst.
  void StartRequest(std::vector<std::shared_ptr<NtpTimeDomainInfo>>& domains);
  // [queue] Posts one burst to the domain's current address and makes the burst's first check at once.
  // Without an address it does nothing.
  void SendPacketToServer(std::shared_ptr<NtpTimeDomainInfo> domain);
  // [queue] True when no domain's request is open. A domain without a record counts as finished.
  bool IsAllDomainRequestsFinished();
  // [queue] True when the domain had no result, a retry was granted and its burst is under way.
  bool RetryDomainRequestIfNeeded(std::shared_ptr<NtpTimeDomainInfo> domain);
  // [queue] Retries the domain or closes its request. True when it was the last one open: the attempt has
  // ended without a success. Sets current_domain_info_ when that is null. Without is_started_: false, and
  // nothing happens.
  bool CheckAndRetryDomainRequestIfPending(std::shared_ptr<NtpTimeDomainInfo> domain);

  // --- Samples and outcome.

  // [queue] Hands the domain to its evaluation once it has enough samples or its burst, begun at
  // `start_time_us` by GetNowSystemTimestampUs, is old enough; posts itself again until then. Without
  // is_started_ it ends.
  void CheckServerResult(int64_t start_time_us, std::shared_ptr<NtpTimeDomainInfo> domain);
  // [queue] Evaluates the domain. A success ends the attempt, whatever the other domains do.
  void HandleServerNtpResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  // [any] SortAndTrim (offset_estimation.h), in place.
  void SortAndSplitResultData(std::vector<NtpResultData>& data);
  // [any] The mean offset of `data`, which must not be empty. Writes both flags, and logs the measures when
  // one of them is false.
  int64_t CalculateResultReliableAndGetOffset(std::vector<NtpResultData>& data, bool& is_rtt_reliable,
                                              bool& is_reliable);
  // [queue] Writes offset, code, flags and sample count into the domain's record, empties its samples and
  // returns the code. Too few samples leave flags and count; a missing record leaves everything.
  NtpResult CalculateServerResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  // [queue] Ends the attempt with the domain's result: keeps it, stamps both clocks, counts, tells observers,
  // resets the domains. Without the domain's record the attempt stays open.
  void HandleServerNtpSuccessResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  // [queue] Ends the attempt with the better of `domain` and current_domain_info_. It announces the code of
  // what is kept then, but never success, and stamps no clock. Without the record the attempt stays open.
  void HandleServerNtpErrorResult(std::shared_ptr<NtpTimeDomainInfo> domain);
  // [queue] Keeps `result`, with the offset between the clocks that its samples were measured against, or
  // logs that the kept one stays.
  void UpdateNtpResultIfBetter(NtpDomainResult* result, int64_t system_offset_from_steady_us);

  // [queue] Closes the attempt for the listeners of ntp_sync_events.h, and tells them. Result, domain and
  // record are those of an outcome.
  void ReportAttemptEnd(NtpAttemptEnd end, NtpResult result = NtpResult::kNoResult,
                        const std::string& domain = {}, const NtpDomainResult& record = {});

  // --- Clock.

  // [any] A read that is due: checks the kept result, if there is one, and starts a sync when it should be
  // renewed. Returns what the read gives. Not inlined: the hot path would save registers for it.
  [[gnu::noinline]] int64_t CheckAndReadNtpTimestamp(base::Time now, bool has_result);
  // [any] NTP time in microseconds since 1970; without meaning while there is no offset.
  int64_t GetNtpTimestampFrom1970Internal();
  // [any] The local timestamp in microseconds since 1601. It follows the steady clock.
  int64_t GetNowSystemTimestampUs();
  // [any] For log lines: saturates at the ends of base::Time.
  base::Time NtpTimestampToTime(int64_t ntp_us);
  // [any] True when both clocks have advanced alike since the last success. False without a success, and when
  // they have not: then it logs, clears is_rtt_reliable_, makes a kept success "may be inaccurate", and sets
  // deviation_found_ when the difference is large.
  bool CheckElapsedTimeDeviation();
  // [any] What CheckElapsedTimeDeviation does about a deviation. Not inlined, like LogPeriodicSync: a read
  // that passes the checks would save registers for it.
  [[gnu::noinline]] void RecordDeviation(uint32_t deviation_ms, ClockPair before, ClockPair now);
  // [any] True when the kept result should be renewed: its period is over, which is logged, or it is not good
  // enough. False while is_started_ is set. Writes nothing.
  bool NeedToUpdateResult();
  // [any] The log line of NeedToUpdateResult.
  [[gnu::noinline]] void LogPeriodicSync(int64_t elapsed_s, int64_t now_ntp_us, int64_t before_ntp_us);

  // --- Statistics.

  // [queue] Closes the domain's request: clears is_requesting, writes both costs, and counts the request
  // unless it cost 0 ms. Without a record nothing happens.
  void FinishAndUpdateRequestStats(NtpResult result, std::shared_ptr<NtpTimeDomainInfo> domain);
  // [any] Adds one request to the record of its kind, under stats_lock_.
  void CalculateStatsResult(bool success, uint32_t cost_ms, int function_type);
  // [any] Counts one request to a domain of this kind; a code of no kind counts nothing.
  void ReportDomainToKeyMetrics(bool success, NtpDomainCode code);

  // The order of the members is that of their construction and, reversed, of their release. Each names who
  // may touch it: [queue] tasks of the manager's queue; [any] any thread; [observer_lock_], [stats_lock_]
  // the holder of that lock. The two locks are never held together.

  std::unique_ptr<NtpTimePacketHandler> packet_handler_;          // [queue] made once, kept
  std::map<std::string, NtpDomainResult> domain_results_;         // [queue] by domain name; keys stay
  std::vector<std::shared_ptr<NtpTimeDomainInfo>> domain_infos_;  // [queue] only ever appended to
  base::Lock observer_lock_;
  ObserverList observers_ SKORRA_GUARDED_BY(observer_lock_);  // [observer_lock_] in registration order
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
  // [any] Wall clock since 1601 when a read last asked for a sync; 0 never.
  std::atomic<int64_t> last_check_local_time_ms_{0};
  // [stats_lock_] by kind of request
  std::map<int, NtpFunctionRequestStats> function_request_stats_ SKORRA_GUARDED_BY(stats_lock_);
  std::atomic<uint32_t> start_count_{0};      // [any] calls of Start
  std::atomic<bool> deviation_found_{false};  // [any] clocks apart by more than 500 ms
  // These three are for the reports to listeners only.
  // [queue] How the attempt that has begun ends when a stop cuts it off; nothing once its end is reported.
  std::optional<NtpAttemptEnd> end_if_stopped_;
  bool is_record_kept_ = false;  // [queue] the outcome that is reported next took the kept result's place
  NtpExchange exchange_;         // [queue] of the sample that is reported next
};

}  // namespace skorra
