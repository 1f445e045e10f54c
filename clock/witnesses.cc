// SPDX-License-Identifier: Apache-2.0
#include "clock/witnesses.h"

#include <algorithm>
#include <iterator>

#include "platform/base/clock.h"
#include "platform/base/int_math.h"
#include "platform/base/log.h"
#include "platform/config/base_cfg.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "transport/ntp_address_ledger.h"
#include "transport/ntp_burst.h"

namespace skorra {
namespace {

constexpr char kWitnessesPath[] = "clock/witnesses";

bool MayBeAsked(const net::IPEndPoint& address) {
  return NtpAddressLedger::GetInstance()->Check(address, base::GetSteadyTimeTicks()) == SendRefusal::kNone;
}

}  // namespace

Witnesses::Witnesses(const SharedClock& clock, Post post, OnJudged on_judged)
    : shared_(clock), post_(std::move(post)), on_judged_(std::move(on_judged)) {}

Witnesses::~Witnesses() = default;

void Witnesses::NoteBurst(const std::string& domain, const net::IPEndPoint& address) {
  const auto known =
      std::find_if(asked_.begin(), asked_.end(), [&](const auto& entry) { return entry.first == domain; });
  if (known != asked_.end()) {
    known->second = address;
  } else {
    asked_.emplace_back(domain, address);
  }
}

// --- One check.

void Witnesses::Begin(const CheckedResult& result, const Bursts& bursts, ClockSnapshot& snapshot) {
  End();
  const auto own = bursts.find(result.domain);
  if (asked_.size() < 2 || own == bursts.end() || own->second.empty() ||
      result.disruption_marker != shared_.disruption_marker()) {
    return;
  }
  const std::string mode = config::GetText(config::BaseCfg().ntp_witnesses);
  if (mode == "off") {
    return;
  }
  is_refusing_ = mode == "refuse";
  reading_error_ns_ = snapshot.reading_error_ns;
  Check& check = check_.emplace(Check{.result = result, .servers = {}});
  check.servers.push_back(
      {.domain = result.domain, .address = own->second.back().server, .exchanges = own->second});
  bool is_any_asked = false;
  for (const auto& [domain, address] : asked_) {
    if (Find(address) != nullptr || domain == result.domain) {
      continue;
    }
    Server& server =
        check.servers.emplace_back(Server{.domain = domain, .address = address, .exchanges = {}});
    if (const auto burst = bursts.find(domain); burst != bursts.end()) {
      std::copy_if(burst->second.begin(), burst->second.end(), std::back_inserter(server.exchanges),
                   [&](const NtpExchange& exchange) { return exchange.server == server.address; });
    }
    server.open_requests = MayBeAsked(address) ? kRequestsPerServer : 0;
    is_any_asked = is_any_asked || server.open_requests > 0;
  }
  const ClocksReading at = ReadClocksClosely();
  check.result.drift.Note(at);
  Tell(Judge(check, at).report, snapshot);
  ++check_number_;
  if (is_any_asked) {
    PostForCheck([this] { SendRound(0); }, 0);
  } else {
    PostForCheck([this] { End(); }, 0);
  }
}

void Witnesses::PostForCheck(std::function<void()> task, int64_t delay_us) {
  post_(
      [this, number = check_number_, task = std::move(task)] {
        if (check_ && number == check_number_) {
          task();
        }
      },
      delay_us);
}

void Witnesses::SendRound(int round) {
  if (handler_ == nullptr) {
    handler_ = std::make_unique<NtpTimePacketHandler>(
        static_cast<NtpTimePacketHandler::Client*>(this),
        check_->servers.front().exchanges.back().system_offset_from_steady_us,
        NtpTimePacketHandler::Requests::kSingle);
    handler_->PrepareForSendPackets();
  }
  for (Server& server : check_->servers) {
    if (server.open_requests > 0) {
      const bool may_be_asked = MayBeAsked(server.address);
      handler_->SendPacket(server.address);  // counts what is withheld
      server.open_requests = may_be_asked ? server.open_requests : 0;
    }
  }
  if (round + 1 < kRequestsPerServer) {
    PostForCheck([this, round] { SendRound(round + 1); }, kCallSpacingUs);
  } else {
    const auto limit_ms = config::GetNumber(config::BaseCfg().ntp_max_round_trip_ms);
    PostForCheck([this] { End(); }, static_cast<int64_t>(limit_ms) * 1000);
  }
  EndIfAllHaveAnswered();
}

Witnesses::Server* Witnesses::Find(const net::IPEndPoint& address) {
  const auto found = std::find_if(check_->servers.begin(), check_->servers.end(),
                                  [&](const Server& server) { return server.address == address; });
  return found == check_->servers.end() ? nullptr : &*found;
}

void Witnesses::OnExchange(const NtpExchange& exchange) {
  if (Server* const server = check_ ? Find(exchange.server) : nullptr; server != nullptr) {
    check_->result.drift.Note(ReadClocksClosely());
    server->exchanges.push_back(exchange);
    --server->open_requests;
    EndIfAllHaveAnswered();
  }
}

void Witnesses::OnReplyRejected(const net::IPEndPoint& address, const std::string& /*counter*/) {
  if (Server* const server = check_ ? Find(address) : nullptr; server != nullptr && !MayBeAsked(address)) {
    server->open_requests = 0;  // a refusal
    EndIfAllHaveAnswered();
  }
}

void Witnesses::EndIfAllHaveAnswered() {
  const bool is_any_open = std::any_of(check_->servers.begin(), check_->servers.end(),
                                       [](const Server& server) { return server.open_requests > 0; });
  if (!is_any_open && !std::exchange(check_->is_ending, true)) {
    PostForCheck([this] { End(); }, 0);  // this may be a callback of a socket
  }
}

void Witnesses::Drop() {
  check_.reset();
  handler_.reset();
}

void Witnesses::End() {
  if (!check_) {
    return;
  }
  if (check_->result.disruption_marker != shared_.disruption_marker()) {
    Drop();  // the exchanges belong to another machine's clocks
    return;
  }
  const ClocksReading at = ReadClocksClosely();
  check_->result.drift.Note(at);
  Judgement judgement = Judge(*check_, at);
  judgement.report.may_be_smear = MayBeSmear(judgement, at.clocks.boot_ns / 1000);
  const std::string domain = check_->result.domain;
  Drop();
  base::KeyMetrics::Count(std::string("clock.witnesses.") +
                          NtpClockAgreementName(judgement.report.agreement));
  for (int i = 0; i < judgement.contradictions; ++i) {
    base::KeyMetrics::Count("clock.witnesses.disagreeing");
  }
  LogChange(judgement, domain);
  on_judged_(judgement.report);
}

// --- Judgements.

Witnesses::Judgement Witnesses::Judge(const Check& check, const ClocksReading& at) {
  Judgement judgement;
  NtpWitnessReport& report = judgement.report;
  report.attempt = check.result.attempt;
  for (const Server& server : check.servers) {
    if (server.exchanges.empty()) {
      continue;
    }
    const ProvenBurst proven =
        Prove(server.exchanges, at, check.result.growth, check.result.drift.drift_us());
    // A server that says of itself that it may be wrong by any amount would agree with everybody.
    const bool says_nothing = proven.interval && (proven.interval->earliest_us <= -kMaxTimeUs ||
                                                  proven.interval->latest_us >= kMaxTimeUs);
    if (proven.interval && !says_nothing) {
      judgement.is_leap_announced = judgement.is_leap_announced || proven.leap != LeapWarning::kNone;
      judgement.intervals.push_back(*proven.interval);
      report.servers.push_back({.domain = server.domain, .server = server.address});
    } else if (&server == &check.servers.front()) {
      return judgement;  // without a result's own interval there is nothing to hold others against
    } else if (!says_nothing) {
      ++judgement.contradictions;
    }
  }
  const auto from_estimate_us = [&](int64_t offset_us) {
    return base::SaturatingSubtract(offset_us, check.result.estimate_us);
  };
  const WitnessVote vote = Vote(judgement.intervals);
  report.agreement = vote.agreement;
  for (size_t i = 0; i < report.servers.size(); ++i) {
    report.servers[i].earliest_us = from_estimate_us(judgement.intervals[i].earliest_us);
    report.servers[i].latest_us = from_estimate_us(judgement.intervals[i].latest_us);
    report.servers[i].agrees = vote.agrees[i];
    report.servers[i].is_outvoted = vote.is_outvoted[i];
  }
  report.has_majority = vote.majority.has_value();
  if (vote.majority) {
    report.majority_earliest_us = from_estimate_us(vote.majority->earliest_us);
    report.majority_latest_us = from_estimate_us(vote.majority->latest_us);
  }
  return judgement;
}

void Witnesses::Tell(const NtpWitnessReport& report, ClockSnapshot& snapshot) const {
  snapshot.agreement = report.agreement;
  const auto agreeing = std::count_if(report.servers.begin(), report.servers.end(),
                                      [](const NtpWitness& server) { return server.agrees; });
  const bool is_checked = report.servers.size() > 1;  // the first one is the result's own
  snapshot.witness_count = is_checked ? static_cast<uint32_t>(report.servers.size() - 1) : 0;
  snapshot.agreeing_count = is_checked ? static_cast<uint32_t>(agreeing - 1) : 0;
  const bool has_bound = !is_refusing_ || report.agreement != NtpClockAgreement::kOutvoted;
  snapshot.reading_error_ns = has_bound ? reading_error_ns_ : kMaxSpanNs;
}

bool Witnesses::MayBeSmear(const Judgement& judgement, int64_t ticks_us) {
  const std::vector<OffsetInterval>& intervals = judgement.intervals;
  bool may_be = DifferNearLeapSecond(intervals, ticks_us, judgement.is_leap_announced);
  // A server that does not answer breaks its run.
  std::map<std::string, SmearRun> runs;
  for (size_t i = 1; i < intervals.size(); ++i) {
    const std::string& domain = judgement.report.servers[i].domain;
    const SmearRun run = NextSmearRun(smear_runs_[domain], SmearLikeGapUs(intervals.front(), intervals[i]));
    may_be = may_be || run.count >= kSteadyChecks;
    runs[domain] = run;
  }
  smear_runs_ = std::move(runs);
  return may_be;
}

void Witnesses::LogChange(const Judgement& judgement, const std::string& domain) {
  const NtpWitnessReport& report = judgement.report;
  if (report.agreement == NtpClockAgreement::kUnchecked) {
    return;  // nothing is known: what was said before may still hold
  }
  if (std::exchange(logged_, {report.agreement, domain}) == std::pair(report.agreement, domain)) {
    return;
  }
  const char* const smear = report.may_be_smear ? "; some of them may smear a leap second" : "";
  if (report.agreement == NtpClockAgreement::kOutvoted) {
    base::LocalLog(base::kLogFailure, kWitnessesPath, __LINE__,
                   "server %s is outvoted: a majority of %zu servers has the time %+lld to %+lld us from its "
                   "own%s; find out why it differs, or leave it out",
                   domain.c_str(), report.servers.size(), static_cast<long long>(report.majority_earliest_us),
                   static_cast<long long>(report.majority_latest_us), smear);
  } else if (report.agreement == NtpClockAgreement::kConflict) {
    base::LocalLog(base::kLogFailure, kWitnessesPath, __LINE__,
                   "the %zu servers contradict each other, and no majority says which one is wrong%s; give "
                   "three servers or more",
                   report.servers.size(), smear);
  }
}

}  // namespace skorra
