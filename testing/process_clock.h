// SPDX-License-Identifier: Apache-2.0

// Gives the process's NtpClock a time without a network, for tests and benchmarks of its read path.
#pragma once

#include <cstdint>

#include "clock/clocks_reading.h"
#include "clock/shared_clock.h"
#include "testing/ntp_time_manager_peer.h"

namespace skorra {

// As a sync of this moment would leave it: the time is known to 5 ms. The process's manager has a good result
// too, and both its checks are due, as in 50 of the 60 minutes between two syncs.
inline void PublishTimeInProcess(NtpTimeManagerPeer& peer_of_process) {
  peer_of_process.KeepGoodResult(2500);
  peer_of_process.last_check_local_time_ms() = 0;
  const ClocksReading now = ReadClocksClosely();
  ClockSnapshot snapshot;
  snapshot.status = NtpClockStatus::kSynchronized;
  snapshot.result = NtpResult::kSuccess;
  snapshot.clocks = now.clocks;
  snapshot.reading_error_ns = now.error_ns;
  snapshot.estimate_us = base::Time::Now().ToDeltaSinceWindowsEpoch().InMicroseconds() -
                         base::kWindowsToUnixEpochUs - now.clocks.boot_ns / 1000;
  snapshot.earliest_us = snapshot.estimate_us - 5000;
  snapshot.latest_us = snapshot.estimate_us + 5000;
  snapshot.error_estimate_us = 100;
  snapshot.growth = GrowthFromPpb(50000);
  snapshot.prior_growth = snapshot.growth;
  snapshot.frequency = RateFromPpb(base::GetKernelFrequencyPpb());
  snapshot.fresh_for_ns = 3600 * base::kUsPerSecond * 1000;
  snapshot.domain = "example.org";
  SharedClock& clock = internal::ProcessClock();
  clock.max_error_us = 500000;
  clock.snapshot.Publish(snapshot);
  clock.work_ticks_us = 0;  // due: the next read hands the checks to the manager
}

}  // namespace skorra
