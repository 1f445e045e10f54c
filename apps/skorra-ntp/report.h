// SPDX-License-Identifier: Apache-2.0

// The result of one sync, and its texts: pure functions of a record.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "ntp/ntp_time_manager.h"

namespace skorra {

// How the attempt ended.
enum class SyncEnd {
  kOutcome,      // the library announced one
  kTimedOut,     // none came within the time allowed
  kNotResolved,  // no server name had an address
  kNoServer,     // the library found no usable server
  kStopped,      // the library closed the attempt without an outcome
};

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
  SyncEnd end = SyncEnd::kTimedOut;
  std::string asked;  // the servers as the user wrote them, for messages
  double timeout_s = 0;
  // What is wrong with a server as it was written: nothing was asked then.
  std::optional<std::string> bad_server = {};

  // Taken from the outcome. Without one they keep these values.
  NtpResult result = NtpResult::kNoResult;
  std::string outcome_text;
  std::optional<std::string> server;  // the address that answered
  std::optional<uint64_t> samples_used;
  std::optional<int64_t> ntp_time_us;     // since 1970
  std::optional<int64_t> system_time_us;  // since 1970, read together with the NTP time

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

}  // namespace skorra
