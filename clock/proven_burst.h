// SPDX-License-Identifier: Apache-2.0
// What a burst of one domain proves, gathered while it runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "clock/clocks_reading.h"
#include "clock/interval.h"
#include "clock/reading.h"
#include "transport/ntp_exchange.h"

namespace skorra {

// What the host's clock did while bursts ran: by how much it was slewed at most between any two of the
// readings, and whether the machine slept.
class MachineDrift {
 public:
  // Forgets what was, and begins with this reading. `frequency_ppb` is the kernel's correction.
  void Begin(const ClocksReading& now, int64_t frequency_ppb);
  void Note(const ClocksReading& now);

  // What the steady clock may have gained or lost between two moments since `Begin`, beyond what the
  // oscillator may be wrong by.
  int64_t drift_us() const;
  ClockRate frequency() const { return begin_.frequency; }

 private:
  ClockSnapshot begin_;
  // What the monotonic clock has gained over the oscillator since `Begin`, as far as the readings tell.
  int64_t lowest_ns_ = 0;
  int64_t highest_ns_ = 0;
  bool has_slept_ = false;
};

// A burst that was judged.
struct ProvenBurst {
  ClocksReading at;                        // when
  net::IPEndPoint server;                  // of the last exchange
  std::optional<OffsetInterval> interval;  // at that moment; nothing: the replies contradict each other
  int64_t estimate_us = 0;                 // within the interval, where there is one (EstimateUs)
  LeapWarning leap = LeapWarning::kNone;
  int64_t leap_seen_us = 0;  // when the server first announced it, since 1970 by its own clock
  int64_t scatter_us = 0;    // of the samples that the result is the mean of
};

// What `exchanges`, at least one, prove at the reading `at`: the intersection of their intervals, each with a
// drift of drift_us + growth * (age_us + drift_us), age_us being the time since its request was sent (0 at
// least). The product is rounded up: down and 1 added. `growth` is what the oscillator may be wrong by,
// `drift_us` MachineDrift's.
ProvenBurst Prove(const std::vector<NtpExchange>& exchanges, const ClocksReading& at, ClockRate growth,
                  int64_t drift_us);

// The root of the mean square of the samples' distances to their mean.
int64_t ScatterUs(const NtpResultData* samples, size_t count);

}  // namespace skorra
