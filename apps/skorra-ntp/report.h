// SPDX-License-Identifier: Apache-2.0

// The result of one sync, and its texts: pure functions of a record.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "clock/ntp_clock.h"
#include "ntp/ntp_time_manager.h"

namespace skorra {

// Occurrences by reason.
using ReasonCounts = std::map<std::string, uint64_t>;

// What passed between this process and one server address.
struct AddressReport {
  uint64_t requests_sent = 0;
  uint64_t requests_withheld = 0;  // not sent, because the server had asked us to wait
  uint64_t replies = 0;            // to our requests, used or not
  uint64_t kiss_codes = 0;         // replies among them that carried RATE, DENY or RSTR
};

struct SyncReport {
  NtpSyncReason reason = NtpSyncReason::kTimedOut;
  std::string asked;  // the servers as the user wrote them, for messages
  double timeout_s = 0;

  // Taken from the outcome. Without one they keep these values.
  NtpResult result = NtpResult::kNoResult;  // none, too, when the outcome is not told: its replies disagree
  std::string outcome_text;
  std::optional<std::string> server;  // the address that answered
  std::optional<uint64_t> samples_used;
  NtpClockReading reading = {};           // the time with its limits; without a result only the status
  std::optional<int64_t> system_time_us;  // since 1970, at the moment of the reading
  std::optional<int64_t> manager_offset_us = {};  // the manager's mean offset, as it was evaluated

  // What the other servers say. Without a report only the reading tells of it.
  std::optional<NtpWitnessReport> witnesses = {};
  std::string why_unchecked = "no other server was asked";

  int64_t took_ms = 0;
  uint64_t requests_sent = 0;
  uint64_t samples_received = 0;
  ReasonCounts rejected = {};       // replies that failed a check
  ReasonCounts kiss_codes = {};     // sent by servers instead of the time
  ReasonCounts withheld = {};       // requests that the library did not send
  ReasonCounts socket_errors = {};  // of sending and receiving
  ReasonCounts domain_errors = {};  // of names
  uint64_t timers_failed = 0;       // times that the system did not set the event loop's timer
  ReasonCounts send_stamps = {};    // source of each sample's send time stamp
  ReasonCounts receive_stamps = {};
  std::map<std::string, AddressReport> addresses = {};
};

// NTP time minus system time in microseconds.
std::optional<int64_t> OffsetUs(const SyncReport& report);

// Whether there are limits and the true time, which is ahead of system time by this much, lies between them.
bool LimitsHold(const SyncReport& report, int64_t true_offset_us);

// Whether other servers contradict the result, so that it may be wrong though it was measured well.
bool IsContradicted(const SyncReport& report);

// The end of the attempt in a few words.
std::string Message(const SyncReport& report);

// What went wrong and what to do about it; empty after a success.
std::string Advice(const SyncReport& report);

// The summary for people, several lines.
std::string ToText(const SyncReport& report);

// The summary for programs: one JSON object in several lines, null for what does not exist. It is ASCII, so
// that it steers no terminal.
std::string ToJson(const SyncReport& report);

// 0, 1 or 2 (exit_status.h).
int ExitStatus(const SyncReport& report);

// Microseconds as signed seconds, "+2.345678 s".
std::string FormatOffset(int64_t offset_us);

// A magnitude in microseconds, from 0, as seconds without a sign, "2.345678 s".
std::string FormatSpan(int64_t span_us);

}  // namespace skorra
