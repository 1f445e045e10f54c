#include "apps/skorra-ntp/sync.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/base/clock.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/base/time.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "platform/net/host_resolver.h"
#include "transport/ntp_address_ledger.h"
#include "transport/ntp_time_domain_info.h"

namespace skorra {
namespace {

constexpr int64_t kProgressIntervalUs = 100'000;

// What the library tells about the attempt: the outcome through the observer, the rest through its log,
// which is the only place where the number of samples used and an attempt without servers show up.
//
// Written on the library's queue, read by the waiting thread; lives until the process ends, because the
// library may still call while the process exits.
class Watch final : public NtpTimeManager::Observer {
 public:
  Watch() : shows_progress_(isatty(STDERR_FILENO) != 0) {}

  void OnNtpResult(NtpResult result, const std::string& message, const net::IPEndPoint& server) override {
    const std::lock_guard guard(mutex_);
    if (end_) {
      return;
    }
    end_ = SyncEnd::kOutcome;
    result_ = result;
    outcome_text_ = message;
    server_ = server.ToString();
    ended_.notify_one();
  }

  void OnLogLine(const base::LogLine& line, int log_level) {
    const std::lock_guard guard(mutex_);
    if (end_) {
      return;
    }
    if (line.level >= log_level) {
      std::fprintf(stderr, "%s%s\n", shows_progress_ ? "\r\x1b[K" : "", base::FormatLogLine(line).c_str());
    }
    ReadSampleCount(line.text);
    if (line.text.starts_with("NTP time sync failed: no correct NTP server")) {
      end_ = SyncEnd::kNoServer;
    } else if (line.text == "Stop ntp queue") {
      end_ = SyncEnd::kStopped;
    }
    if (end_) {
      ended_.notify_one();
    }
  }

  // Waits for the end, showing the progress, until `deadline_ticks_us` at the longest. After the return
  // nothing that the library reports changes the watch.
  void Wait(int64_t start_ticks_us, int64_t deadline_ticks_us) {
    std::unique_lock lock(mutex_);
    while (!end_) {
      const int64_t now_us = base::GetSteadyTimeTicks();
      if (now_us >= deadline_ticks_us) {
        end_ = SyncEnd::kTimedOut;
        break;
      }
      ShowProgress(now_us - start_ticks_us);
      const int64_t wait_us = std::min(deadline_ticks_us - now_us, kProgressIntervalUs);
      ended_.wait_for(lock, std::chrono::microseconds(wait_us));
    }
    if (shows_progress_) {
      std::fputs("\r\x1b[K", stderr);
    }
  }

  void FillIn(SyncReport& report) {
    const std::lock_guard guard(mutex_);
    report.end = end_.value_or(SyncEnd::kTimedOut);
    report.result = result_;
    report.outcome_text = outcome_text_;
    if (!server_.empty()) {
      report.server = server_;
    }
    report.samples_used = samples_used_;
  }

 private:
  void ReadSampleCount(std::string_view text) {
    constexpr std::string_view kLabel = "use sample count:";
    const size_t at = text.find(kLabel);
    if (at == std::string_view::npos) {
      return;
    }
    const char* const begin = text.data() + at + kLabel.size();
    uint64_t count = 0;
    if (std::from_chars(begin, text.data() + text.size(), count).ec == std::errc()) {
      samples_used_ = count;
    }
  }

  void ShowProgress(int64_t elapsed_us) const {
    if (!shows_progress_) {
      return;
    }
    const auto count = [](std::string_view name) {
      return static_cast<unsigned long long>(base::KeyMetrics::GetCount(name));
    };
    std::fprintf(stderr, "\r\x1b[K%.1f s: %llu requests sent, %llu answers",
                 static_cast<double>(elapsed_us) / base::kUsPerSecond, count("ntp.requests_sent"),
                 count("ntp.samples_received"));
    std::fflush(stderr);
  }

  const bool shows_progress_;
  std::mutex mutex_;
  std::condition_variable ended_;
  // Under mutex_.
  std::optional<SyncEnd> end_;
  NtpResult result_ = NtpResult::kNoResult;
  std::string outcome_text_;
  std::string server_;
  std::optional<uint64_t> samples_used_;
};

std::shared_ptr<Watch> GetWatch() {
  static base::NoDestructor<std::shared_ptr<Watch>> watch(std::make_shared<Watch>());
  return *watch;
}

void Warn(const std::string& text) { std::fprintf(stderr, "skorra-ntp: %s\n", text.c_str()); }

std::string JoinNames(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

// The servers that have an address. The library skips the others without a word, so they are told here.
std::vector<std::string> KeepResolvable(const std::vector<std::string>& servers, int64_t deadline_ticks_us) {
  const auto limit_ms = static_cast<int64_t>(config::GetNumber(config::BaseCfg().ntp_resolve_timeout_ms));
  std::vector<std::string> kept;
  for (const auto& server : servers) {
    const auto parsed = net::ParseHostPort(server, kNtpPort);
    if (!parsed.value) {
      continue;
    }
    const int64_t left_us = std::max<int64_t>(deadline_ticks_us - base::GetSteadyTimeTicks(), 1000);
    const auto found =
        net::ResolveHost(parsed.value->host, parsed.value->port,
                         base::TimeDelta::FromMicroseconds(std::min(left_us, limit_ms * 1000)));
    if (found.error == net::ResolveError::kNone) {
      kept.push_back(server);
    } else {
      Warn("cannot resolve " + server + ": " + found.detail);
    }
  }
  return kept;
}

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
  for (const auto& [address, account] : NtpAddressLedger::GetInstance()->GetCounts()) {
    report.addresses[address.ToString()] = {.requests_sent = account.requests_sent,
                                            .requests_withheld = account.requests_withheld,
                                            .replies = account.replies,
                                            .kiss_codes = account.kiss_codes};
  }
}

// Both clocks, read back to back.
void FillInClocks(SyncReport& report) {
  auto* const manager = NtpTimeManager::GetInstance();
  // The first read may look at the configuration and the elapsed times; the second finds all of it in the
  // cache, so that little time passes between the two clocks.
  if (manager->GetNtpTimestampFrom1970() == 0) {
    return;
  }
  report.ntp_time_us = manager->GetNtpTimestampFrom1970();
  report.system_time_us = (base::Time::Now() - base::Time::UnixEpoch()).InMicroseconds();
}

}  // namespace

SyncReport RunAttempt(const SyncOptions& options) {
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  const int64_t deadline_ticks_us =
      start_ticks_us + static_cast<int64_t>(options.timeout_s * base::kUsPerSecond);
  SyncReport report;
  report.timeout_s = options.timeout_s;

  const auto servers = KeepResolvable(options.servers, deadline_ticks_us);
  if (servers.empty()) {
    report.end = SyncEnd::kNotResolved;
  } else {
    report.asked = JoinNames(servers);
    const auto watch = GetWatch();
    base::SetLogThreshold(base::kLogProgress);
    base::SetLogSink([watch = watch.get(), level = options.log_level](const base::LogLine& line) {
      watch->OnLogLine(line, level);
    });
    // Asked for these servers, a configured default server is not to answer in their place.
    config::ConfigCenterImpl::GetInstance()->Set(config::BaseCfg().ntp_default_domain, std::string());
    auto* const manager = NtpTimeManager::GetInstance();
    manager->AddObserver(watch);
    manager->UpdateNtpTimeDomain(servers);
    manager->Start();
    watch->Wait(start_ticks_us, deadline_ticks_us);
    watch->FillIn(report);
  }
  report.took_ms = (base::GetSteadyTimeTicks() - start_ticks_us) / 1000;
  FillInCounters(report);
  if (report.end == SyncEnd::kOutcome && report.result != NtpResult::kNoResult) {
    FillInClocks(report);
  }
  return report;
}

int RunSync(const SyncOptions& options, bool as_json) {
  for (const auto& server : options.servers) {
    if (const auto parsed = net::ParseHostPort(server, kNtpPort); !parsed.value) {
      Warn("bad SERVER " + parsed.error +
           "\nGive a host name or an address, with a port if it is not 123: ntp.example.org, 192.0.2.1:123,"
           " [2001:db8::1]:123");
      return kExitUsage;
    }
  }
  const SyncReport report = RunAttempt(options);
  std::fputs((as_json ? ToJson(report) : ToText(report)).c_str(), stdout);
  std::fflush(stdout);
  if (const std::string advice = Advice(report); !advice.empty()) {
    Warn(advice);
  }
  return ExitStatus(report);
}

}  // namespace skorra
