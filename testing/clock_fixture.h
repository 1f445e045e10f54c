// SPDX-License-Identifier: Apache-2.0

// A keeper of its own over a manager of its own in a simulated world, for the tests of clock/.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "clock/keeper.h"
#include "clock/shared_clock.h"
#include "ntp/ntp_sync_events.h"
#include "platform/base/log.h"
#include "sim/network.h"
#include "sim/world.h"
#include "testing/addresses.h"
#include "testing/config_scope.h"
#include "testing/fresh_ledger.h"
#include "testing/ntp_time_manager_peer.h"

namespace skorra {

// A world with one machine whose clock is kept. Destroy it before another one is made.
class KeptClock {
 public:
  static constexpr base::TimeDelta Us(int64_t us) { return base::TimeDelta::FromMicroseconds(us); }
  static constexpr base::TimeDelta Ms(int64_t ms) { return base::TimeDelta::FromMilliseconds(ms); }
  static constexpr base::TimeDelta S(int64_t s) { return base::TimeDelta::FromSeconds(s); }

  explicit KeptClock(uint64_t seed = 1) : world({.seed = seed}) {
    base::SetLogThreshold(base::kLogNothing);
    AddNtpSyncListener(keeper);
  }
  ~KeptClock() {
    RemoveNtpSyncListener(keeper.get());
    OnQueue([&] { keeper.reset(); });
  }
  KeptClock(const KeptClock&) = delete;
  KeptClock& operator=(const KeptClock&) = delete;

  void OnQueue(const std::function<void()>& function) {
    world.RunAsTask(core::BusinessID::kNtpTime, function);
  }
  void Start(NtpClockOptions options) {
    OnQueue([&] { keeper->Start(options); });
  }
  void StartWith(const std::vector<std::string>& servers) {
    NtpClockOptions options;
    options.servers = servers;
    Start(options);
  }
  // Asks for a sync, whose outcome comes into `synced`.
  void Sync(base::TimeDelta limit) {
    OnQueue([&] {
      keeper->Sync(limit.InMicroseconds(),
                   [this](const NtpSyncOutcome& outcome) { synced.push_back(outcome); });
    });
  }

  NtpClockReading Read() { return shared.Read(); }
  // Microseconds since 1970.
  int64_t TrueUs() { return world.true_us() - base::kWindowsToUnixEpochUs; }
  bool IsTruthInside() {
    const NtpClockReading reading = Read();
    return reading.earliest_us <= TrueUs() && TrueUs() <= reading.latest_us;
  }
  bool IsGraded() { return Read().has_time(); }
  std::vector<NtpSyncReason> Reasons() const {
    std::vector<NtpSyncReason> reasons;
    for (const NtpSyncOutcome& outcome : outcomes) {
      reasons.push_back(outcome.reason);
    }
    return reasons;
  }

  const FreshLedger fresh_ledger;
  ConfigScope config;
  sim::World world;
  sim::Network network{world};
  NtpTimeManagerPeer peer;
  SharedClock shared;
  std::vector<NtpSyncOutcome> outcomes;
  std::vector<NtpSyncOutcome> synced;
  std::vector<NtpWitnessReport> reports;
  std::shared_ptr<Keeper> keeper = std::make_shared<Keeper>(
      peer.manager(), shared,
      [this](const NtpSyncOutcome& outcome) {
        outcomes.push_back(outcome);
        if (on_outcome) {
          on_outcome(outcome);
        }
      },
      [this](const NtpWitnessReport& report) { reports.push_back(report); });
  std::function<void(const NtpSyncOutcome&)> on_outcome;
};

}  // namespace skorra
