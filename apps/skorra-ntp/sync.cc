// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/sync.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>

#include "apps/skorra-ntp/exit_status.h"
#include "apps/skorra-ntp/terminal.h"
#include "clock/ntp_clock.h"
#include "ntp/ntp_sync_events.h"
#include "platform/base/clock.h"
#include "platform/base/event.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/base/thread_annotations.h"
#include "platform/base/time.h"
#include "platform/config/base_cfg.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_address_ledger.h"
#include "transport/ntp_packet.h"

namespace skorra {
namespace {

constexpr int64_t kProgressIntervalUs = 100'000;
// What the other servers say comes this much later than their longest round trip at most.
constexpr int64_t kWitnessSlackUs = 250'000;
constexpr const char* kClearLine = "\r\x1b[K";

std::string JoinNames(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

bool IsResult(NtpSyncReason reason) {
  return reason == NtpSyncReason::kOk || reason == NtpSyncReason::kInaccurate;
}

// What the library reports about the first attempt. It begins once the names have been looked up.
//
// Written on the library's queue, read by the waiting thread.
class Watch final : public NtpSyncListener {
 public:
  Watch() : shows_progress_(isatty(STDERR_FILENO) != 0) {}

  void OnDomainsUpdated(const NtpDomainsUpdated& event) override {
    const base::AutoLock lock(lock_);
    if (is_over_) {
      return;
    }
    for (const auto& [name, reason, detail] : event.without_address) {
      // The clock asks for them again and again.
      if (without_address_.insert(name).second) {
        std::string line = "skorra-ntp: cannot resolve ";
        line.append(name).append(": ").append(detail);
        PrintLine(line);
      }
    }
    asked_.insert(asked_.end(), event.added.begin(), event.added.end());
  }

  void OnBurstBegun(const NtpBurstBegun& event) override {
    const base::AutoLock lock(lock_);
    if (!is_over_) {
      servers_[event.domain] = event.server;
    }
  }

  void OnAttemptEnded(const NtpAttemptEnded& event) override {
    const base::AutoLock lock(lock_);
    if (is_over_) {
      return;
    }
    if (event.end == NtpAttemptEnd::kOutcome) {
      ended_attempt_ = event;
    } else if (event.end == NtpAttemptEnd::kStopped) {
      // The clock would begin another one.
      End({.reason = NtpSyncReason::kStopped, .attempt = 0, .reading = {}});
    }
  }

  // Of the clock, after `OnAttemptEnded` of the same attempt.
  void OnOutcome(const NtpSyncOutcome& outcome) {
    const base::AutoLock lock(lock_);
    if (!is_over_) {
      End(outcome);
    }
  }

  // Of the clock, after `OnOutcome` of the same attempt.
  void OnWitnesses(const NtpWitnessReport& report) {
    const base::AutoLock lock(lock_);
    if (is_over_ && !witnesses_ && outcome_.attempt == report.attempt) {
      witnesses_ = report;
      witnessed_.Set();
    }
  }

  // Shows a line of the library's log, in place of the progress.
  void PrintLogLine(const base::LogLine& line) { PrintLine(base::FormatLogLine(line)); }

  // Waits for the end, showing the progress, until `deadline_ticks_us` at the longest. After the return
  // nothing that the library reports changes the watch, but for what the other servers say.
  void Wait(int64_t start_ticks_us, int64_t deadline_ticks_us) {
    if (!WaitFor(ended_, start_ticks_us, deadline_ticks_us)) {
      GiveUp();
    }
  }

  // The same for what the other servers say of the result, if any other was asked.
  void WaitForWitnesses(int64_t start_ticks_us, int64_t deadline_ticks_us) {
    const int64_t longest_us =
        static_cast<int64_t>(config::GetNumber(config::BaseCfg().ntp_max_round_trip_ms)) * 1000 +
        kWitnessSlackUs;
    if (HasResult() && AskedOthers()) {
      WaitFor(witnessed_, start_ticks_us,
              std::min(deadline_ticks_us, base::GetSteadyTimeTicks() + longest_us));
    }
  }

  // Whether servers with different addresses were asked.
  bool AskedOthers() {
    const base::AutoLock lock(lock_);
    std::set<net::IPEndPoint> addresses;
    for (const auto& [domain, address] : servers_) {
      addresses.insert(address);
    }
    return addresses.size() > 1;
  }

  void FillIn(SyncReport& report) {
    const base::AutoLock lock(lock_);
    report.reason = outcome_.reason;
    report.reading = outcome_.reading;
    report.witnesses = witnesses_;
    if (!asked_.empty()) {
      report.asked = JoinNames(asked_);
    }
    if (ended_attempt_) {
      report.outcome_text = GetResultMessage(ended_attempt_->result);
      report.samples_used = ended_attempt_->record.sample_count;
      if (const std::string server = ended_attempt_->record.endpoint.ToString(); !server.empty()) {
        report.server = server;
      }
      if (IsResult(outcome_.reason)) {
        report.result = ended_attempt_->result;
        report.manager_offset_us = ended_attempt_->record.offset_us;
      }
    }
  }

 private:
  // At most once: whatever comes later finds it over.
  void End(const NtpSyncOutcome& outcome) SKORRA_REQUIRES(lock_) {
    is_over_ = true;
    outcome_ = outcome;
    ended_.Set();
  }

  bool WaitFor(base::Event& event, int64_t start_ticks_us, int64_t deadline_ticks_us) {
    bool is_set = false;
    while (!is_set) {
      const int64_t now_ticks_us = base::GetSteadyTimeTicks();
      if (now_ticks_us >= deadline_ticks_us) {
        break;
      }
      ShowProgress(now_ticks_us - start_ticks_us);
      const int64_t left_us = deadline_ticks_us - now_ticks_us;
      is_set = event.WaitFor(shows_progress_ ? std::min(left_us, kProgressIntervalUs) : left_us);
    }
    if (shows_progress_) {
      WriteError(kClearLine);
    }
    return is_set;
  }

  bool HasResult() {
    const base::AutoLock lock(lock_);
    return IsResult(outcome_.reason);
  }

  void GiveUp() {
    const base::AutoLock lock(lock_);
    if (!is_over_) {
      is_over_ = true;
      outcome_ = {.reason = NtpSyncReason::kTimedOut, .attempt = 0, .reading = {}};
    }
  }

  void PrintLine(const std::string& line) const { PrintErrorLine(line, shows_progress_ ? kClearLine : ""); }

  void ShowProgress(int64_t elapsed_us) const {
    if (!shows_progress_) {
      return;
    }
    const auto count = [](std::string_view name) {
      return static_cast<unsigned long long>(base::KeyMetrics::GetCount(name));
    };
    char text[96];
    std::snprintf(text, sizeof text, "%s%.1f s: %llu requests sent, %llu answers", kClearLine,
                  static_cast<double>(elapsed_us) / base::kUsPerSecond, count("ntp.requests_sent"),
                  count("ntp.samples_received"));
    WriteError(text);
  }

  const bool shows_progress_;
  base::Event ended_;
  base::Event witnessed_;
  base::Lock lock_;
  bool is_over_ SKORRA_GUARDED_BY(lock_) = false;
  NtpSyncOutcome outcome_ SKORRA_GUARDED_BY(lock_);
  std::map<std::string, net::IPEndPoint> servers_ SKORRA_GUARDED_BY(lock_);  // by domain: whom it asked last
  std::optional<NtpWitnessReport> witnesses_ SKORRA_GUARDED_BY(lock_);
  std::vector<std::string> asked_ SKORRA_GUARDED_BY(lock_);
  std::set<std::string> without_address_ SKORRA_GUARDED_BY(lock_);
  std::optional<NtpAttemptEnded> ended_attempt_ SKORRA_GUARDED_BY(lock_);
};

bool AreWitnessesOn() { return config::GetText(config::BaseCfg().ntp_witnesses) != "off"; }

// The library's counters since the process began, which are those of this attempt.
void FillInCounters(SyncReport& report) {
  const auto counts = base::KeyMetrics::GetAllCounts();
  const auto count_of = [&counts](const char* name) {
    const auto found = counts.find(name);
    return found == counts.end() ? 0 : found->second;
  };
  report.requests_sent = count_of("ntp.requests_sent");
  report.samples_received = count_of("ntp.samples_received");
  const auto collect = [&counts](std::string_view prefix, ReasonCounts& into) {
    for (const auto& [name, count] : counts) {
      if (name.starts_with(prefix)) {
        into[name.substr(prefix.size())] += count;
      }
    }
  };
  collect("ntp.rejected.", report.rejected);
  collect("ntp.kiss.", report.kiss_codes);
  collect("ntp.send_withheld.", report.withheld);
  if (const uint64_t thinned = count_of("ntp.send_thinned"); thinned > 0) {
    report.withheld["thinned"] = thinned;
  }
  if (const uint64_t skipped = count_of("ntp.send_skipped"); skipped > 0) {
    report.withheld["skipped"] = skipped;
  }
  collect("ntp.domain.", report.domain_errors);
  collect("ntp.send_stamp.", report.send_stamps);
  collect("ntp.receive_stamp.", report.receive_stamps);
  collect("ntp.send_error.", report.socket_errors);
  collect("ntp.receive_error.", report.socket_errors);
  report.timers_failed = count_of("core.queue.timer_failed");
  for (const auto& [address, account] : NtpAddressLedger::GetInstance()->GetCounts()) {
    report.addresses[address.ToString()] = {.requests_sent = account.requests_sent,
                                            .requests_withheld = account.requests_withheld,
                                            .replies = account.replies,
                                            .kiss_codes = account.kiss_codes};
  }
}

int64_t SystemTimeUs() { return (base::Time::Now() - base::Time::UnixEpoch()).InMicroseconds(); }

// Both clocks at the same moment: the system clock is read before and after the other, and what took least is
// taken, since this thread may be put aside in between.
void FillInClocks(SyncReport& report) {
  constexpr int kTries = 5;
  int64_t shortest_us = std::numeric_limits<int64_t>::max();
  for (int i = 0; i < kTries; ++i) {
    const int64_t before_us = SystemTimeUs();
    const NtpClockReading reading = NtpClock::Read();
    const int64_t took_us = SystemTimeUs() - before_us;
    if (std::llabs(took_us) < shortest_us) {
      shortest_us = std::llabs(took_us);
      report.reading = reading;
      report.system_time_us = before_us + took_us / 2;
    }
  }
}

}  // namespace

SyncReport RunAttempt(const SyncOptions& options) {
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  const int64_t deadline_ticks_us =
      start_ticks_us + static_cast<int64_t>(options.timeout_s * base::kUsPerSecond);
  SyncReport report;
  report.timeout_s = options.timeout_s;

  report.asked = JoinNames(options.servers);
  // The library keeps it until the process ends, and may still call it while the process exits.
  const auto watch = std::make_shared<Watch>();
  base::SetLogThreshold(options.log_level);
  base::SetLogSink([watch](const base::LogLine& line) { watch->PrintLogLine(line); });
  // Before the clock, which listens, too: it tells an outcome when the watch knows the attempt's end.
  AddNtpSyncListener(watch);
  const NtpClockSubscription subscription =
      NtpClock::Observe([watch](const NtpSyncOutcome& outcome) { watch->OnOutcome(outcome); });
  // With one server there is nobody to contradict it.
  const bool hears_witnesses = options.servers.size() > 1 && AreWitnessesOn();
  const NtpClockSubscription witnesses =
      hears_witnesses
          ? NtpClock::ObserveWitnesses([watch](const NtpWitnessReport& heard) { watch->OnWitnesses(heard); })
          : NtpClockSubscription();
  NtpClockOptions clock_options;
  clock_options.servers = options.servers;
  NtpClock::Start(clock_options);
  watch->Wait(start_ticks_us, deadline_ticks_us);
  if (hears_witnesses) {
    watch->WaitForWitnesses(start_ticks_us, deadline_ticks_us);
  }
  base::SetLogThreshold(base::kLogNothing);
  watch->FillIn(report);
  if (!AreWitnessesOn()) {
    report.why_unchecked = "ntp.witnesses is off";
  } else if (watch->AskedOthers()) {
    report.why_unchecked = "no other server answered";
  }
  report.took_ms = (base::GetSteadyTimeTicks() - start_ticks_us) / 1000;
  FillInCounters(report);
  if (report.result != NtpResult::kNoResult) {
    FillInClocks(report);
  }
  return report;
}

int RunSync(const SyncOptions& options, bool as_json) {
  for (const std::string& server : options.servers) {
    // The command line's parser takes "-4" for a number, and what follows "--" for a server.
    if (server.starts_with('-')) {
      PrintProblem("there is no option '" + server + "', and no server's name begins with '-'",
                   "Run 'skorra-ntp sync --help' to see what it takes.");
      return kExitUsage;
    }
    if (const auto parsed = net::ParseHostPort(server, kNtpPort); !parsed.value) {
      PrintProblem("bad SERVER " + parsed.error,
                   "Give a host name or an address, with a port if it is not 123: ntp.example.org, "
                   "192.0.2.1:123, [2001:db8::1]:123");
      return kExitUsage;
    }
  }
  const SyncReport report = RunAttempt(options);
  const bool is_printed = as_json ? PrintJson(ToJson(report)) : PrintText(ToText(report));
  if (const std::string advice = Advice(report); !advice.empty()) {
    PrintProblem(advice);
  }
  return is_printed ? ExitStatus(report) : kExitOutput;
}

}  // namespace skorra
