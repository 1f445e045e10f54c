// SPDX-License-Identifier: Apache-2.0
#include "ntp/sync_reports.h"

#include "ntp/offset_estimation.h"

namespace skorra {

void ReportEvaluation(const std::string& domain, const NtpDomainResult& record,
                      const std::vector<NtpResultData>& burst) {
  NtpDomainEvaluated event;
  event.domain = domain;
  event.record = record;
  event.samples = burst;
  if (burst.size() >= kMinSamples) {
    SortByOffset(event.samples);
    event.first_kept = CountTrimmedAtEachEnd(burst.size());
    event.kept_count = burst.size() - 2 * event.first_kept;
  }
  ForEachSyncListener([&](NtpSyncListener& listener) { listener.OnDomainEvaluated(event); });
}

}  // namespace skorra
