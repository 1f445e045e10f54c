// SPDX-License-Identifier: Apache-2.0
// What a sync attempt does, step by step, as typed reports: for programs that show it, and for whatever
// judges the servers. The log is for people; code listens here.
//
//   class Progress : public skorra::NtpSyncListener {
//     void OnAttemptEnded(const skorra::NtpAttemptEnded& event) override { ... }
//   };
//   auto progress = std::make_shared<Progress>();
//   skorra::AddNtpSyncListener(progress);
//   manager->Start();
//
// Threads: every report comes on the manager's queue, in the order in which things happen. Return soon, and
// post longer work elsewhere. Adding and removing may happen on any thread, also inside a report.
//
// Ownership: the library shares a listener from its addition to its removal, and keeps it alive during a
// report. A listener that is never removed lives until the process ends.
//
// Course: listening changes nothing of what the manager does. It costs no clock reading, no task and no log
// line, and without listeners one load of an atomic for each report. The time that a listener takes counts
// into the costs of the requests under way, since their replies wait for it. A listener may call the
// manager's operations: a start takes effect at once, a stop and new domains when their tasks run.
//
// Observers (ntp_time_manager.h) hear an outcome, and a kept result that is announced again, which is no
// attempt and has no report here. They hear nothing of an attempt that ends without an outcome: only
// OnAttemptEnded reports that there was no server (kNoServer), or that a stop cut the attempt off (kStopped).
// A program that starts again after a stop waits for OnQueueStopped: a start that comes before the stop has
// run is cut off with the rest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../ntp/ntp_sync_records.h"
#include "../platform/base/export.h"
#include "../platform/net/ip_endpoint.h"

namespace skorra {

// A name that was given and is not asked, since it stands for no address.
struct NtpNameWithoutAddress {
  std::string name;
  std::string reason;  // as in the counter ntp.domain.<reason>
  std::string detail;  // the reason in words, for people
};

// A list of names that `UpdateNtpTimeDomain` was given has been looked up. Names that were known before are
// in neither list.
struct NtpDomainsUpdated {
  std::vector<std::string> added;
  std::vector<NtpNameWithoutAddress> without_address;
};

// A domain is asked: its first burst of the attempt, or a retry.
struct NtpBurstBegun {
  std::string domain;
  net::IPEndPoint server;  // the address that the burst goes to
};

// A reply passed every check and was filed under the domain that asks its address.
struct NtpSampleAccepted {
  std::string domain;
  net::IPEndPoint server;
  NtpResultData sample;
  NtpExchange exchange;  // that the sample comes from, with the domain
};

// A reply brought no sample.
struct NtpReplyRejected {
  net::IPEndPoint server;  // that was asked
  // The counter that the reply was counted under: ntp.rejected.<reason>, or ntp.kiss.<code>.
  std::string counter;
};

// A domain's burst is over, and its samples are judged.
struct NtpDomainEvaluated {
  std::string domain;
  // Its costs are not known yet: they are written when the request ends (see NtpAttemptEnded).
  NtpDomainResult record;
  // All samples of the burst. Where there were enough to be judged, in the order of their offsets.
  std::vector<NtpResultData> samples;
  // Those that the result was computed from: `kept_count` from `first_kept` on. The others were trimmed off.
  size_t first_kept = 0;
  size_t kept_count = 0;
};

// How an attempt ended.
enum class NtpAttemptEnd : int32_t {
  kOutcome = 0,   // it has an outcome, which the observers have heard
  kNoServer = 1,  // no domain was known that stands for an address, and no default one
  kStopped = 2,   // a stop cut it off
};

// The stable name of an end: "outcome", "no_server", "stopped".
SKORRA_EXPORT const char* NtpAttemptEndName(NtpAttemptEnd end);

struct NtpAttemptEnded {
  NtpAttemptEnd end = NtpAttemptEnd::kOutcome;
  // The following are those of an outcome; after another end they have these values.
  NtpResult result = NtpResult::kNoResult;  // the code that the observers heard
  std::string domain;                       // the one that the outcome is reported for
  // The domain's record, with its sample count, its costs and the end point that answered. Its own code and
  // offset are not the kept ones when an earlier result was better.
  NtpDomainResult record;
  // Whether the record took the kept result's place: from now on the manager's clock follows it. Also true of
  // a record without a result that took the place of none.
  bool is_kept = false;
};

// Each report does nothing unless it is overridden. None may throw.
class NtpSyncListener {
 public:
  virtual ~NtpSyncListener() = default;

  virtual void OnDomainsUpdated(const NtpDomainsUpdated& /*event*/) {}
  // Two starts at the same moment may begin an attempt twice. An attempt that was requested and stopped
  // before it began has no end of its own; it begins all the same, and ends with the next stop.
  virtual void OnAttemptBegun() {}
  // A domain that is added between a start and its beginning is asked at once, so that its first burst may
  // come before `OnAttemptBegun`.
  virtual void OnBurstBegun(const NtpBurstBegun& /*event*/) {}
  virtual void OnSampleAccepted(const NtpSampleAccepted& /*event*/) {}
  virtual void OnReplyRejected(const NtpReplyRejected& /*event*/) {}
  virtual void OnDomainEvaluated(const NtpDomainEvaluated& /*event*/) {}
  virtual void OnAttemptEnded(const NtpAttemptEnded& /*event*/) {}
  // A stop is done, whether or not it cut an attempt off: one that the program asked for, the one 30 s after
  // an outcome or an update of the domains, or that of an attempt without a server. The attempt that it ended
  // has reported its end before. No domain is being asked; an attempt that was requested before the stop and
  // has not begun yet begins after it, as `OnAttemptBegun` says. A start inside this report takes effect.
  virtual void OnQueueStopped() {}
};

// Reports go to the listener from now on. One that is listening already is not added again, and null is not
// added. Any thread.
SKORRA_EXPORT void AddNtpSyncListener(std::shared_ptr<NtpSyncListener> listener);

// The listener hears no report that begins after this. It may still hear one that has begun: on another
// thread, or at the listener that removes it. The library keeps it alive until then.
SKORRA_EXPORT void RemoveNtpSyncListener(const NtpSyncListener* listener);

}  // namespace skorra
