// SPDX-License-Identifier: Apache-2.0
#include "ntp/sync_reports.h"

#include <utility>

#include "ntp/offset_estimation.h"

namespace skorra {

void ReportEvaluation(const std::string& domain, const NtpDomainResult& record,
                      std::vector<NtpResultData> burst) {
  NtpDomainEvaluated event;
  event.domain = domain;
  event.record = record;
  if (burst.size() >= kMinSamples) {
    SortByOffset(burst);
    event.first_kept = CountTrimmedAtEachEnd(burst.size());
    event.kept_count = burst.size() - 2 * event.first_kept;
  }
  event.samples = std::move(burst);
  ForEachSyncListener([&](NtpSyncListener& listener) { listener.OnDomainEvaluated(event); });
}

}  // namespace skorra
