// SPDX-License-Identifier: Apache-2.0
// Checks the result of an attempt against the other servers of the same attempt.
//
// The first success ends an attempt, so a server that lies and answers first has its way. The witnesses are
// the other servers that were asked: what their bursts brought before the end, and two requests more to each,
// 10 ms apart, from ports of their own. What each of them proves is held against the others at one moment
// (witness_vote.h): once right at the result, and finally when all have answered, or the longest round trip
// that is used has passed, or something else begins.
//
// An address is asked at most once for each result, and not while the ledger holds it; two domains on one
// address count as one server, the first of them. Without other servers nothing is done: no task, no reading
// of a clock, no random number, no packet.
//
// Threads: everything runs on the manager's queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "clock/clocks_reading.h"
#include "clock/interval.h"
#include "clock/ntp_clock.h"
#include "clock/proven_burst.h"
#include "clock/reading.h"
#include "clock/shared_clock.h"
#include "clock/witness_vote.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_time_packet_handler.h"

namespace skorra {

// A result that was just published, and the attempt that it comes from.
struct CheckedResult {
  uint64_t attempt = 0;
  std::string domain;
  int64_t estimate_us = 0;  // network time minus steady ticks
  MachineDrift drift;
  ClockRate growth = 0;
  int64_t disruption_marker = 0;  // when the bursts began
};

class Witnesses final : private NtpTimePacketHandler::Client {
 public:
  // By domain: the exchanges of its last burst.
  using Bursts = std::map<std::string, std::vector<NtpExchange>>;
  // Runs a task on the queue after a delay in microseconds, unless the owner is gone by then.
  using Post = std::function<void(std::function<void()>, int64_t)>;
  using OnJudged = std::function<void(const NtpWitnessReport&)>;

  // `on_judged` hears every final judgement, as a task of its own or inside `End`.
  Witnesses(const SharedClock& clock, Post post, OnJudged on_judged);
  ~Witnesses() override;

  // A burst to `address` begins. Of each domain the last address counts.
  void NoteBurst(const std::string& domain, const net::IPEndPoint& address);
  // The attempt is over: its bursts count no more.
  void ForgetBursts() { asked_.clear(); }

  // Judges what was heard until now, writes that into `snapshot`, and asks the other servers. `bursts` has
  // exchanges of the result's domain. Ends the check before, if it goes on.
  void Begin(const CheckedResult& result, const Bursts& bursts, ClockSnapshot& snapshot);
  // Judges finally with what was heard, unless the machine was moved or restored meanwhile. Not to be called
  // from a callback of a socket.
  void End();
  // Forgets the check: nobody hears of it.
  void Drop();

  // Writes a judgement of the last check into `snapshot`, which is that of its result.
  void Tell(const NtpWitnessReport& report, ClockSnapshot& snapshot) const;

 private:
  static constexpr int kRequestsPerServer = 2;

  struct Server {
    std::string domain;
    net::IPEndPoint address;
    std::vector<NtpExchange> exchanges;
    int open_requests = 0;  // that are not answered yet, or not sent
  };
  struct Check {
    CheckedResult result;
    std::vector<Server> servers;  // the result's first
    bool is_ending = false;
  };
  struct Judgement {
    NtpWitnessReport report;
    std::vector<OffsetInterval> intervals;  // of the report's servers
    bool is_leap_announced = false;
    int contradictions = 0;  // servers whose exchanges contradict each other: they have not answered
  };

  void OnFirstPacketReceived(int64_t /*offset_us*/) override {}
  void OnPacketReceived(NtpResultData /*data*/, const net::IPEndPoint& /*server*/) override {}
  void OnExchange(const NtpExchange& exchange) override;
  void OnReplyRejected(const net::IPEndPoint& server, const std::string& counter) override;

  Server* Find(const net::IPEndPoint& address);
  void PostForCheck(std::function<void()> task, int64_t delay_us);
  void SendRound(int round);
  void EndIfAllHaveAnswered();
  static Judgement Judge(const Check& check, const ClocksReading& at);
  bool MayBeSmear(const Judgement& judgement, int64_t ticks_us);
  void LogChange(const Judgement& judgement, const std::string& domain);

  const SharedClock& shared_;
  const Post post_;
  const OnJudged on_judged_;
  std::vector<std::pair<std::string, net::IPEndPoint>> asked_;  // of this attempt, by their first bursts
  std::unique_ptr<NtpTimePacketHandler> handler_;
  std::optional<Check> check_;
  uint64_t check_number_ = 0;  // tasks of an earlier check do nothing
  bool is_refusing_ = false;   // an outvoted reading has no bound
  int64_t reading_error_ns_ = 0;
  std::map<std::string, SmearRun> smear_runs_;        // by domain
  std::pair<NtpClockAgreement, std::string> logged_;  // the last agreement that was found, and of whom
};

// Whether the reading has no bound for the only reason that other servers outvote it: a sync would not help.
inline bool IsBoundRefused(const NtpClockReading& reading) {
  return !reading.has_bound() && reading.agreement == NtpClockAgreement::kOutvoted;
}

}  // namespace skorra
