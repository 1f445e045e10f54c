// SPDX-License-Identifier: Apache-2.0

// The records that the time manager exchanges with the packet handler, with the per-domain request state
// and with the users of the quality report. All are plain values; each copy belongs to its holder.
//
// Units are in the names. Offsets are server clock minus local clock: positive means that the server is
// ahead, and adding the offset to a local timestamp gives NTP time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>

#include "../platform/net/ip_endpoint.h"
#include "../transport/ntp_exchange.h"

namespace skorra {

// A domain with fewer samples has no result.
inline constexpr size_t kMinSamples = 3;

// The outcome of one domain's request and of a whole sync attempt.
enum class NtpResult : int32_t {
  kNoResult = -1,        // no usable result
  kSuccess = 0,          // an offset, with stable round-trip times and consistent offsets
  kMaybeInaccurate = 1,  // an offset, but at least one of the two reliability tests failed
};

// The text of a code, as observers get it. Any thread.
inline std::string GetResultMessage(const NtpResult& result) {
  switch (result) {
    case NtpResult::kNoResult:
      return "no usable result";
    case NtpResult::kSuccess:
      return "success";
    case NtpResult::kMaybeInaccurate:
      return "the result may be inaccurate";
  }
  return "unknown result";
}

// The outcome of the current sync attempt for one server domain. A fresh record holds no result and no
// open request.
struct NtpDomainResult {
  int64_t offset_us = kNoOffsetUs;  // mean offset of the samples that were kept, or kNoOffsetUs
  NtpResult result = NtpResult::kNoResult;
  bool is_rtt_reliable = false;       // round-trip times judged stable
  bool is_reliable = false;           // offsets judged consistent
  uint32_t sample_count = 0;          // samples used, after trimming
  uint32_t cost_ms = 0;               // duration of the domain's whole request
  uint32_t last_request_cost_ms = 0;  // duration since the last burst to the domain
  // Local timestamps in microseconds since 1601: when the request started, and when its last burst did.
  int64_t request_start_time_us = 0;
  int64_t last_request_start_time_us = 0;
  bool is_requesting = false;  // the request is open; samples are only taken while it is
  net::IPEndPoint endpoint;    // the server address that answered last

  friend bool operator==(const NtpDomainResult& a, const NtpDomainResult& b) {
    const auto members = [](const NtpDomainResult& r) {
      return std::tie(r.offset_us, r.result, r.is_rtt_reliable, r.is_reliable, r.sample_count, r.cost_ms,
                      r.last_request_cost_ms, r.request_start_time_us, r.last_request_start_time_us,
                      r.is_requesting, r.endpoint);
    };
    return members(a) == members(b);
  }
  friend bool operator!=(const NtpDomainResult& a, const NtpDomainResult& b) { return !(a == b); }
};

// Statistics of one kind of request. Sums and counts wrap at 2^32.
struct NtpFunctionRequestStats {
  uint32_t average_cost_ms = 0;  // total_cost_ms / request_count, truncated
  uint32_t max_cost_ms = 0;
  uint32_t request_count = 0;
  uint32_t success_count = 0;
  // The kind: 0 a request to a domain that is not the environment's default one, 1 a request to the default
  // domain, 2 a whole sync attempt.
  int32_t function_type = 1;
  uint32_t failure_count = 0;
  uint32_t total_cost_ms = 0;

  friend bool operator==(const NtpFunctionRequestStats& a, const NtpFunctionRequestStats& b) {
    const auto members = [](const NtpFunctionRequestStats& s) {
      return std::tie(s.average_cost_ms, s.max_cost_ms, s.request_count, s.success_count, s.function_type,
                      s.failure_count, s.total_cost_ms);
    };
    return members(a) == members(b);
  }
  friend bool operator!=(const NtpFunctionRequestStats& a, const NtpFunctionRequestStats& b) {
    return !(a == b);
  }
};

// The quality report: what happened since the previous report.
struct NtpTimeSyncStats {
  std::map<int, NtpFunctionRequestStats> function_request_stats;  // by kind
  uint32_t start_count = 0;      // calls of `Start`; the first report counts one fewer
  bool deviation_found = false;  // the clocks ran apart by more than 500 ms
};

// Which kind of domain a finished request belonged to.
enum class NtpDomainCode : int32_t {
  kOther = 0,
  kDefault = 1,  // the environment's default NTP domain
};

}  // namespace skorra
