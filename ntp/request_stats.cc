// SPDX-License-Identifier: Apache-2.0
#include "ntp/request_stats.h"

#include <algorithm>
#include <limits>

#include "platform/base/int_math.h"

namespace skorra {

uint32_t CostMs(int64_t start_us, int64_t now_us) {
  const double cost_ms = static_cast<double>(base::WrappingSubtract(now_us, start_us)) / 1000.0;
  if (cost_ms <= 0.0) {
    return 0;
  }
  constexpr auto kMax = std::numeric_limits<uint32_t>::max();
  return cost_ms >= static_cast<double>(kMax) ? kMax : static_cast<uint32_t>(cost_ms);
}

bool IsCountedAsSuccess(NtpResult result) { return result != NtpResult::kNoResult; }

void AddRequest(NtpFunctionRequestStats& stats, bool success, uint32_t cost_ms, int function_type) {
  stats.total_cost_ms += cost_ms;
  stats.request_count += 1;
  stats.success_count += success ? 1 : 0;
  stats.failure_count += success ? 0 : 1;
  stats.max_cost_ms = std::max(stats.max_cost_ms, cost_ms);
  // The count wraps; only then is it 0.
  stats.average_cost_ms = stats.request_count == 0 ? 0 : stats.total_cost_ms / stats.request_count;
  stats.function_type = function_type;
}

const DomainMetricKeys* MetricKeysOf(NtpDomainCode code) {
  static constexpr DomainMetricKeys kDefaultDomain{.finished = 37004, .succeeded = 37003};
  static constexpr DomainMetricKeys kOtherDomain{.finished = 37006, .succeeded = 37005};
  switch (code) {
    case NtpDomainCode::kDefault:
      return &kDefaultDomain;
    case NtpDomainCode::kOther:
      return &kOtherDomain;
  }
  return nullptr;
}

uint32_t ReportedStartCount(uint32_t counted) { return counted == 0 ? 0 : counted - 1; }

}  // namespace skorra
