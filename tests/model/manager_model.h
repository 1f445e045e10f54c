// SPDX-License-Identifier: Apache-2.0

// A plain model of the time manager, of its packet handler and of the task queue between them: what must
// happen, written down once more in the simplest way, with data structures of its own.
//
// Single-threaded, in virtual time. `RunNext` runs the earliest pending task or arrival, exactly one of those
// that the world runs; the public operations run at once. Everything that can be observed is a member.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <queue>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "netmodel/random.h"
#include "ntp/ntp_sync_records.h"
#include "platform/net/ip_endpoint.h"
#include "tests/model/ledger_model.h"
#include "tests/model/side.h"
#include "tests/model/surroundings.h"

namespace skorra::model {

class ManagerModel final : public Side {
 public:
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
  struct Domain {
    std::string name;
    std::vector<net::IPEndPoint> addresses;
    std::set<size_t> used;  // places of the addresses that were current since the reset
    size_t current = 0;
    int64_t reset_ticks_us = 0;
    bool is_repeated = false;  // the only address was asked a second time
    std::vector<NtpResultData> samples;
    NtpDomainResult record;
    // The lookups after the first.
    int64_t expires_ticks_us = kNever;  // `addresses`; never: they are no name's
    int begun_count = 0;
    int ended_count = 0;  // the number of the last one that ended
    int64_t begun_ticks_us = 0;
    std::optional<std::vector<net::IPEndPoint>> next_addresses = std::nullopt;
    int64_t next_expires_ticks_us = 0;
  };

  ManagerModel(const Surroundings& surroundings, int64_t start_ticks_us, uint64_t seed);

  // Public operations.
  void AddObserver(int observer) override;
  void RemoveObserver(int observer) override;
  void ReleaseObserver(int observer) override;
  int Start() override;
  int RequestAttempt() override;
  void Stop() override;
  int64_t GetNtpTimestampFrom1970() override;
  void UpdateNtpTimeDomain(const std::vector<std::string>& domains) override;
  NtpTimeSyncStats GetAndResetNtpQualityStats() override;

  // The packet handler's calls.
  void FirstPacket(int64_t offset_us);
  void Packet(NtpResultData sample, const net::IPEndPoint& server);

  // Using a domain's address begins a lookup once the list is too old.
  void Use(Domain& domain);

  // Time.
  int64_t NextDue() const { return pending_.empty() ? kNever : pending_.top().due_ticks_us; }
  bool IsNextADelayedStopDecision() const;
  void RunNext();
  size_t pending_count() const { return pending_.size(); }
  void WaitUntil(int64_t ticks_us) { now_ticks_us = ticks_us > now_ticks_us ? ticks_us : now_ticks_us; }

  bool IsAlive(int observer) const;
  Glimpse Look() const;
  int64_t NtpNow() const;
  int64_t WallMs() const;
  // The sort left it open which samples were trimmed: from here on the model can tell nothing.
  bool is_ambiguous() const { return is_ambiguous_; }

  int64_t now_ticks_us;

  // The manager's state.
  std::deque<Domain> domains;
  std::vector<int> observers;
  uint32_t total_retry_count = 0;
  int current_domain = -1;
  int64_t ntp_offset_us = kNoOffsetUs;
  NtpResult last_result = NtpResult::kNoResult;
  bool is_rtt_reliable = false;
  bool is_reliable = false;
  int64_t system_offset_from_steady_us;
  int64_t last_sync_ntp_timestamp_us = 0;
  int64_t last_sync_local_time_ms = 0;
  uint32_t last_request_cost_ms = 0;
  bool is_started = false;
  bool is_sync_finished = true;
  int64_t last_check_local_time_ms = 0;
  std::array<std::optional<NtpFunctionRequestStats>, 3> stats;
  uint32_t start_count = 0;
  bool deviation_found = false;
  std::array<uint64_t, 4> key_metrics{};  // 37003 to 37006

  // The packet handler's state.
  bool has_handler = false;
  int64_t handler_offset_us = 0;
  std::vector<net::IPEndPoint> open_sockets;

 private:
  enum class Kind { kNotify, kStartSync, kStopQueue, kDelayStop, kUpdate, kSend, kCheck, kArrival, kLookUp };
  struct Pending {
    int64_t due_ticks_us;
    uint64_t sequence;
    Kind kind;
    int64_t number = 0;  // notify: the code; check: the start time; lookup: its number
    int index = 0;       // update: which list; check: which domain; arrival, lookup: which
    net::IPEndPoint address;

    friend bool operator>(const Pending& a, const Pending& b) {
      return a.due_ticks_us != b.due_ticks_us ? a.due_ticks_us > b.due_ticks_us : a.sequence > b.sequence;
    }
  };
  struct Request {
    int address;
    int64_t sent_ticks_us;
    Fate fate;
    int generation;
    bool is_open = true;
  };
  struct Arriving {
    size_t request;
    ArrivalKind kind;
    int64_t at_ticks_us;
  };

  void Log(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void Add(Kind kind, int64_t delay_us, int64_t number, int index, const net::IPEndPoint& address);
  void Post(Kind kind, int64_t delay_us, int64_t number = 0, int index = 0,
            const net::IPEndPoint& address = {});

  int64_t WallUs() const;
  int64_t LocalNow() const;
  bool NeedsUpdate();
  bool ClocksAgree();
  int ScanForObserver(int observer);

  void RunNotify(NtpResult result, const net::IPEndPoint& server);
  void RunStartSync();
  void RunStopQueue();
  void RunDelayStop();
  void RunUpdate(const std::vector<std::string>& names);
  void RunSend(const net::IPEndPoint& address);
  void RunCheck(int64_t start_wall_us, int domain);
  void RunArrival(size_t which);
  void RunLookUp(size_t which, int number);

  void MakeHandler();
  void PrepareHandler();
  void CleanHandler();
  bool TakeReply(Request& request, ArrivalKind kind, int64_t arrival_ticks_us);
  bool IsAnythingOpen(int address, int64_t arrival_ticks_us) const;
  bool AddDomain(const std::string& name, const Surroundings::Answer& answer, bool is_logged);
  bool AddDefaultDomain();
  bool IsFree(const net::IPEndPoint& address) const;
  int BestLeft(const Domain& domain, size_t from) const;
  void BeginWithBest(Domain& domain) const;
  bool TakeNextAddress(Domain& domain);
  void ResetDomains();
  void StartIdleDomains();
  void SendBurst(int domain);
  NtpResult Evaluate(Domain& domain);
  bool IsAttemptOver(int domain);
  void Succeed(int domain);
  void Fail(int domain);
  void Finish(Domain& domain, NtpResult result);
  void KeepIfBetter(const NtpDomainResult& record);
  void CountRequest(bool success, uint32_t cost_ms, size_t kind);

  const Surroundings& surroundings_;
  std::priority_queue<Pending, std::vector<Pending>, std::greater<>> pending_;
  uint64_t next_sequence_ = 0;
  std::vector<std::vector<std::string>> updates_;
  std::vector<Request> requests_;
  std::vector<Arriving> arrivals_;
  std::map<int, std::vector<size_t>> unread_;  // arrivals at the sockets that are not read, by address
  std::vector<std::pair<Domain*, Surroundings::Answer>> look_ups_;
  LedgerModel ledger_;
  // Draws the numbers that the manager's side draws: a nonce for each request, a jitter for each refusal.
  netmodel::Random random_;
  std::array<uint64_t, kAddressCount> request_counts_{};
  bool is_handler_prepared_ = false;
  bool is_first_packet_reported_ = false;
  int generation_ = 0;  // of sockets
  std::vector<bool> is_released_;
  int held_observer_ = -1;
  bool is_ambiguous_ = false;
};

}  // namespace skorra::model
