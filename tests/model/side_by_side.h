// SPDX-License-Identifier: Apache-2.0

// The manager in a simulated world and its model, fed with the same events and compared after every one.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "clock/keeper.h"
#include "clock/shared_clock.h"
#include "ntp/ntp_attempt_control.h"
#include "ntp/ntp_sync_events.h"
#include "sim/world.h"
#include "testing/config_scope.h"
#include "testing/fresh_ledger.h"
#include "testing/ntp_time_manager_peer.h"
#include "tests/model/manager_model.h"
#include "tests/model/side.h"
#include "tests/model/surroundings.h"

namespace skorra::model {

// The manager, its observers and their calls.
class ManagerSide final : public Side {
 public:
  ManagerSide();
  ~ManagerSide() override;

  void AddObserver(int observer) override;
  void RemoveObserver(int observer) override;
  void ReleaseObserver(int observer) override;
  int Start() override { return peer.manager().Start(); }
  int RequestAttempt() override { return internal::RequestNtpAttempt(peer.manager()); }
  void Stop() override { peer.manager().Stop(); }
  int64_t GetNtpTimestampFrom1970() override { return peer.manager().GetNtpTimestampFrom1970(); }
  void UpdateNtpTimeDomain(const std::vector<std::string>& domains) override {
    peer.manager().UpdateNtpTimeDomain(domains);
  }
  NtpTimeSyncStats GetAndResetNtpQualityStats() override {
    return peer.manager().GetAndResetNtpQualityStats();
  }

  // The number of the observer behind an entry of the manager's list; -1 when it has expired.
  int NumberOf(const std::weak_ptr<NtpTimeManager::Observer>& entry) const;
  Glimpse Look();
  int CurrentDomain();

  NtpTimeManagerPeer peer;

 private:
  class WatchingObserver;

  const std::weak_ptr<WatchingObserver>& Weak(int observer);

  std::vector<std::shared_ptr<WatchingObserver>> owned_;
  std::vector<std::weak_ptr<WatchingObserver>> weak_;
};

class SideBySide {
 public:
  explicit SideBySide(uint64_t seed);
  ~SideBySide();
  SideBySide(const SideBySide&) = delete;
  SideBySide& operator=(const SideBySide&) = delete;

  // Each does the same on both sides and compares; false once they differ.
  bool Both(const std::function<int64_t(Side&)>& operation);
  bool Step();
  bool PassUntil(int64_t ticks_us);
  bool StepWall(int64_t by_us);
  bool Receive(const std::vector<NtpResultData>& samples, const net::IPEndPoint& server);
  bool ReceiveFirst(int64_t offset_us);

  void SetQueueAvailable(bool is_available);
  void SetSyncInterval(std::optional<uint64_t> seconds);
  void SetDefaultDomain(const std::string& name);
  void SetHost(int host, uint64_t choice, int64_t delay_us, int64_t ttl_us);

  bool Compare();

  // What was found to differ, one line each: the manager's value, then the model's.
  const std::string& difference() const { return difference_; }
  uint64_t step_count() const { return step_count_; }

  const FreshLedger fresh_ledger;
  sim::World world;
  Surroundings surroundings;
  ManagerSide real;
  ManagerModel model;

 private:
  void OnSent(const sim::SentDatagram& sent);
  void UseAddresses();
  void CompareTraces();
  void CompareMembers();
  void CompareDomains();
  void CompareStats();
  template <class T>
  void Check(const char* what, const T& manager, const T& expected);

  ConfigScope config_;
  std::array<uint64_t, kAddressCount> request_counts_{};
  std::array<uint64_t, 4> key_metrics_before_{};
  // A clock hears and judges every attempt in every second walk, which must make no difference.
  SharedClock shared_clock_;
  const std::shared_ptr<NtpSyncListener> listener_ =
      std::make_shared<Keeper>(real.peer.manager(), shared_clock_, [](const NtpSyncOutcome&) {});
  size_t posted_seen_ = 0;
  uint64_t step_count_ = 0;
  std::string difference_;
};

}  // namespace skorra::model
