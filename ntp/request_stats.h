// SPDX-License-Identifier: Apache-2.0
// The account of requests: what a request cost, what it adds to the record of its kind, and under which
// metrics it counts.
//
// Pure functions of their arguments: no clock, no log, no lock, no queue. Any thread.
#pragma once

#include <cstdint>

#include "ntp/ntp_sync_records.h"

namespace skorra {

// The kind of request, in the statistics, that is neither of the two NtpDomainCodes.
inline constexpr int kWholeAttempt = 2;

// Milliseconds from one local timestamp to another; truncated, and cut to what 32 bits hold. 0 when the
// second is not later.
uint32_t CostMs(int64_t start_us, int64_t now_us);

// A success, as the statistics and the metrics count it, is every result that has an offset: also one that
// may be inaccurate.
bool IsCountedAsSuccess(NtpResult result);

// Adds one finished request of this kind to the record of the kind. Counts and the sum wrap at 2^32.
void AddRequest(NtpFunctionRequestStats& stats, bool success, uint32_t cost_ms, int function_type);

// The two metrics of a kind of domain.
struct DomainMetricKeys {
  uint64_t finished;   // every finished request
  uint64_t succeeded;  // those that succeeded, in addition
};

// Null for a code that is none of the enumeration: nothing is counted then.
const DomainMetricKeys* MetricKeysOf(NtpDomainCode code);

// The value of the counter of starts after a report, and the number that a report gives when it finds
// `counted` there. The counter starts at 0 but is reset to 1, and reports subtract 1: the first report is one
// short, later ones are exact. This is intended; QualityReportTest (tests/ntp/quality_report_test.cc) holds
// it.
inline constexpr uint32_t kStartCountAfterReport = 1;
uint32_t ReportedStartCount(uint32_t counted);

}  // namespace skorra
