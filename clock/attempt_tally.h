// SPDX-License-Identifier: Apache-2.0
// What is noted of an attempt to name the reason when it brings no result. Pure.
#pragma once

#include <cstddef>
#include <string_view>

#include "clock/ntp_clock.h"

namespace skorra {

struct AttemptTally {
  size_t samples = 0;       // accepted, of all servers together
  size_t rejected = 0;      // replies that failed a check, and kiss codes that refuse nothing
  size_t denied = 0;        // kiss codes DENY and RSTR
  size_t limited = 0;       // kiss code RATE
  size_t closed_ports = 0;  // servers whose port was reported closed
  size_t held_denied = 0;   // servers that are not asked since they denied access
  size_t held_limited = 0;  // servers that are not asked since they sent RATE
};

// Counts a reply without a sample under `counter`, the name of NtpReplyRejected.
constexpr void CountRejection(AttemptTally& tally, std::string_view counter) {
  if (counter == "ntp.kiss.deny" || counter == "ntp.kiss.rstr") {
    ++tally.denied;
  } else if (counter == "ntp.kiss.rate") {
    ++tally.limited;
  } else if (counter != "ntp.kiss.repeated") {
    ++tally.rejected;
  }
}

// Why an attempt without a result has none. What carried our nonce comes first: errors of the network may be
// forged.
constexpr NtpSyncReason ReasonWithoutResult(const AttemptTally& tally) {
  if (tally.samples > 0) {
    return NtpSyncReason::kTooFewSamples;
  }
  if (tally.limited + tally.held_limited > 0) {
    return NtpSyncReason::kLimited;
  }
  if (tally.denied + tally.held_denied > 0) {
    return NtpSyncReason::kRefused;
  }
  if (tally.rejected > 0) {
    return NtpSyncReason::kUnusable;
  }
  return tally.closed_ports > 0 ? NtpSyncReason::kRefused : NtpSyncReason::kSilent;
}

}  // namespace skorra
