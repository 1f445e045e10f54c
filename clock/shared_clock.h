// SPDX-License-Identifier: Apache-2.0
// What the keeper publishes and every thread reads.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

#include "clock/clocks_reading.h"
#include "clock/published_reading.h"
#include "platform/base/vm_clock.h"

namespace skorra {

struct SharedClock {
  // From these steady ticks on a read finds work to do: the manager's own checks, or a keeper of a child.
  std::atomic<int64_t> work_ticks_us{std::numeric_limits<int64_t>::max()};
  PublishedReading snapshot;
  // The virtual machine's clock page, or null. Objects are never destroyed once they stood here.
  std::atomic<const base::VmClock*> vm_clock{nullptr};
  // A reading whose bound passes this asks for a sync.
  std::atomic<int64_t> max_error_us{NtpClockReading::kNoBound};

  int64_t disruption_marker() const {
    const base::VmClock* const page = vm_clock.load(std::memory_order_acquire);
    return page == nullptr ? 0 : static_cast<int64_t>(page->disruption_marker());
  }

  // Any thread. The best estimate alone, at the steady time `ticks_us`; 0 while there is none.
  int64_t EstimateUs(int64_t ticks_us) const {
    int64_t estimate_us = 0;
    snapshot.LookAt([&](const auto& at) {
      estimate_us = at.result == NtpResult::kNoResult ? 0 : EstimateAtUs(at, ticks_us);
    });
    return estimate_us;
  }

  // Any thread. Writes the steady ticks of the reading, unless null.
  NtpClockReading Read(int64_t* now_ticks_us = nullptr) const {
    // The clocks first: the processor reads the snapshot while it waits for them. A snapshot that was
    // published in between is younger than this reading, which is then taken again.
    NtpClockReading reading;
    const base::MachineClocks now = base::ReadMachineClocks();
    bool is_doubtful = false;
    bool is_again = false;
    snapshot.LookAt([&](const auto& at) {
      if (is_again) [[unlikely]] {
        reading = NtpClockReading();
      }
      is_again = true;
      const ClockSpans spans(at, now);
      is_doubtful = spans.is_doubtful();
      EvaluateInto(reading, at, spans, now.boot_ns, disruption_marker(), 0);
    });
    if (is_doubtful && reading.result != NtpResult::kNoResult) [[unlikely]] {
      return ReadClosely(now_ticks_us);
    }
    if (now_ticks_us != nullptr) {
      *now_ticks_us = now.boot_ns / 1000;
    }
    return reading;
  }

 private:
  [[gnu::noinline]] NtpClockReading ReadClosely(int64_t* now_ticks_us) const {
    const ClockSnapshot at = snapshot.Read();
    const ClocksReading now = ReadClocksClosely();
    if (now_ticks_us != nullptr) {
      *now_ticks_us = now.clocks.boot_ns / 1000;
    }
    return Evaluate(at, now.clocks, disruption_marker(), now.error_ns);
  }
};

namespace internal {
// What NtpClock reads. For tests and benchmarks that publish by themselves.
SharedClock& ProcessClock();
}  // namespace internal

}  // namespace skorra
