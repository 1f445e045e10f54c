// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/report.h"

#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "apps/skorra-ntp/exit_status.h"
#include "platform/base/time.h"

namespace skorra {
namespace {

std::string TimeText(int64_t since_1970_us) {
  return (base::Time::UnixEpoch() + base::TimeDelta::FromMicroseconds(since_1970_us)).ToString();
}

std::string ListReasons(const ReasonCounts& counts) {
  std::string text;
  for (const auto& [reason, count] : counts) {
    text += (text.empty() ? "" : ", ") + reason + " " + std::to_string(count);
  }
  return text;
}

std::string SecondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", seconds);
  return text;
}

uint64_t Refusals(const SyncReport& report) {
  uint64_t refusals = 0;
  for (const auto& [address, counts] : report.addresses) {
    refusals += counts.kiss_codes;
  }
  return refusals;
}

// Why an attempt gave no result, as far as the counters tell.
std::string AdviceWithoutResult(const SyncReport& report) {
  // Without its timer the library neither sends nor waits as it should: what the network did tells nothing.
  if (report.timers_failed > 0) {
    return "This system does not let the program set a timer, and requests leave by it (a sandbox that "
           "forbids "
           "timerfd_settime?). Allow that system call.";
  }
  // Kiss codes come first: they carried our nonce, while errors of the network may be forged.
  if (report.samples_received == 0 && report.reason == NtpSyncReason::kLimited) {
    return report.asked + " asks us to wait (kiss codes: " + ListReasons(report.kiss_codes) +
           "). Ask it again in two minutes or later, and less often, or choose another server.";
  }
  if (report.samples_received == 0 && Refusals(report) > 0) {
    return report.asked + " does not serve this machine now (kiss codes: " + ListReasons(report.kiss_codes) +
           "). Wait at least two minutes before asking it again, or choose another server.";
  }
  if (report.samples_received == 0 && !report.rejected.empty()) {
    return report.asked + " answered, but no answer was usable (" + ListReasons(report.rejected) +
           "). Choose another server.";
  }
  if (report.samples_received == 0 && report.socket_errors.contains("refused")) {
    return report.asked + " has no NTP server on that port: it is closed. Check the host and the port.";
  }
  if (report.samples_received == 0 && !report.socket_errors.empty()) {
    return "No request reached " + report.asked + " (" + ListReasons(report.socket_errors) +
           "). Check this machine's network and routes.";
  }
  if (report.samples_received == 0) {
    return "No answer came from " + report.asked +
           ". Check the host, its port (NTP is 123/udp) and the firewalls on the way.";
  }
  if (report.samples_received < kMinSamples) {
    return "Only " + std::to_string(report.samples_received) + " usable answers came from " + report.asked +
           ", and " + std::to_string(kMinSamples) + " are needed. Try again, or choose a nearer server.";
  }
  return "Too few usable answers came in one burst from " + report.asked + ". Try again.";
}

// The magnitude of the smallest number has no signed form.
uint64_t Magnitude(int64_t number) {
  return number < 0 ? 0 - static_cast<uint64_t>(number) : static_cast<uint64_t>(number);
}

// "B", "B and C", "B, C and D".
std::string Enumerate(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < names.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
  }
  return text;
}

// An interval around a difference, with `positive` or `negative` after it: "2.999000 s to 3.001000 s later".
std::string SpanText(int64_t earliest_us, int64_t latest_us, const char* positive, const char* negative) {
  if (earliest_us > 0) {
    return FormatSpan(earliest_us) + " to " + FormatSpan(latest_us) + positive;
  }
  if (latest_us < 0) {
    return FormatSpan(latest_us) + " to " + FormatSpan(earliest_us) + negative;
  }
  return FormatOffset(earliest_us) + " to " + FormatOffset(latest_us);
}

std::string WitnessText(const NtpWitness& witness) {
  return witness.domain + " says " + SpanText(witness.earliest_us, witness.latest_us, " later", " earlier");
}

std::string ConflictText(const NtpWitnessReport& report) {
  std::string text;
  for (size_t i = 1; i < report.servers.size(); ++i) {
    if (!report.servers[i].agrees) {
      text += (text.empty() ? "" : "; ") + WitnessText(report.servers[i]);
    }
  }
  return text;
}

std::string OutvotedText(const NtpWitnessReport& report) {
  std::vector<std::string> voters;
  for (const NtpWitness& server : report.servers) {
    if (!server.is_outvoted) {
      voters.push_back(server.domain);
    }
  }
  // A true time that is later than the server's: its clock is behind.
  return (report.servers.empty() ? std::string("the server") : report.servers[0].domain) + " is wrong by " +
         SpanText(report.majority_earliest_us, report.majority_latest_us, " (behind)", " (ahead)") +
         (voters.size() == 1 ? ", says " : ", say ") + Enumerate(voters);
}

std::string AgreementText(const SyncReport& report) {
  const NtpClockReading& reading = report.reading;
  std::string name = NtpClockAgreementName(reading.agreement);
  const std::string count = " (" + std::to_string(reading.agreeing_count) + " of " +
                            std::to_string(reading.witness_count) +
                            (reading.witness_count == 1 ? " other)" : " others)");
  switch (reading.agreement) {
    case NtpClockAgreement::kUnchecked:
      return name + " (" + report.why_unchecked + ")";
    case NtpClockAgreement::kAgrees:
      return name + count;
    case NtpClockAgreement::kConflict:
      return name + (report.witnesses ? ": " + ConflictText(*report.witnesses) : count);
    case NtpClockAgreement::kOutvoted:
      return name + (report.witnesses ? ": " + OutvotedText(*report.witnesses) : count);
  }
  return name;
}

std::string RateText(const NtpClockReading& reading) {
  if (!reading.has_frequency()) {
    return "not known yet (needs three syncs over half an hour)";
  }
  const uint64_t magnitude = Magnitude(reading.frequency_ppb);
  char text[64];
  std::snprintf(text, sizeof text, "%c%" PRIu64 ".%03" PRIu64 " ppm", reading.frequency_ppb < 0 ? '-' : '+',
                magnitude / 1000, magnitude % 1000);
  return text;
}

template <class Line>
void AddAgreementLines(const SyncReport& report, const Line& line) {
  line("agreement", AgreementText(report));
  if (!report.witnesses) {
    return;
  }
  // The result's own server stands in the line before.
  for (size_t i = 1; i < report.witnesses->servers.size(); ++i) {
    if (report.witnesses->servers[i].is_outvoted) {
      line("outvoted", WitnessText(report.witnesses->servers[i]));
    }
  }
  if (report.witnesses->may_be_smear) {
    line("smear?", "the servers differ as they do when some of them smear a leap second");
  }
}

std::string AdviceWhenContradicted(const SyncReport& report) {
  std::string advice =
      report.reading.agreement == NtpClockAgreement::kOutvoted
          ? "Do not rely on this time. Ask without " + std::string(report.reading.domain) + "."
          : "Nothing tells which of them is right. Ask more servers: a majority tells.";
  if (report.witnesses && report.witnesses->may_be_smear) {
    advice += " If some of them smear leap seconds, ask only those, or only the others.";
  }
  return advice;
}

template <class T>
nlohmann::ordered_json OrNull(const std::optional<T>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json NumberIf(bool is_there, int64_t number) {
  return is_there ? nlohmann::ordered_json(number) : nlohmann::ordered_json(nullptr);
}

// What the other servers say. The limits are times, of the moment of `ntp_time_us`.
void AddAgreement(nlohmann::ordered_json& json, const SyncReport& report) {
  const NtpClockReading& reading = report.reading;
  const NtpWitnessReport none;
  const NtpWitnessReport& witnesses = report.witnesses ? *report.witnesses : none;
  json["agreement"] = NtpClockAgreementName(reading.agreement);
  json["witnesses"] = reading.witness_count;
  json["agreeing"] = reading.agreeing_count;
  auto outvoted = nlohmann::ordered_json::array();
  auto servers = nlohmann::ordered_json::array();
  for (const NtpWitness& server : witnesses.servers) {
    if (server.is_outvoted) {
      outvoted.push_back(server.domain);
    }
    servers.push_back({{"domain", server.domain},
                       {"address", server.server.ToString()},
                       {"earliest_us", reading.best_estimate_us + server.earliest_us},
                       {"latest_us", reading.best_estimate_us + server.latest_us},
                       {"agrees", server.agrees},
                       {"outvoted", server.is_outvoted}});
  }
  json["outvoted"] = outvoted;
  json["majority_earliest_us"] =
      NumberIf(witnesses.has_majority, reading.best_estimate_us + witnesses.majority_earliest_us);
  json["majority_latest_us"] =
      NumberIf(witnesses.has_majority, reading.best_estimate_us + witnesses.majority_latest_us);
  json["may_be_smear"] = witnesses.may_be_smear;
  json["servers"] = servers;
}

}  // namespace

bool IsContradicted(const SyncReport& report) {
  return report.reading.agreement == NtpClockAgreement::kConflict ||
         report.reading.agreement == NtpClockAgreement::kOutvoted;
}

std::optional<int64_t> OffsetUs(const SyncReport& report) {
  if (!report.reading.has_time() || !report.system_time_us) {
    return std::nullopt;
  }
  return report.reading.best_estimate_us - *report.system_time_us;
}

bool LimitsHold(const SyncReport& report, int64_t true_offset_us) {
  if (!report.reading.has_bound() || !report.system_time_us) {
    return false;
  }
  const int64_t true_us = *report.system_time_us + true_offset_us;
  return report.reading.earliest_us <= true_us && true_us <= report.reading.latest_us;
}

std::string Message(const SyncReport& report) {
  if (IsContradicted(report)) {
    return report.reading.agreement == NtpClockAgreement::kOutvoted ? "most servers contradict the result"
                                                                    : "the servers contradict each other";
  }
  switch (report.reason) {
    case NtpSyncReason::kTimedOut:
      return "no outcome within " + SecondsText(report.timeout_s);
    case NtpSyncReason::kNotResolved:
      return "no server name could be resolved";
    case NtpSyncReason::kNoServer:
      return "no usable server";
    case NtpSyncReason::kStopped:
      return "the attempt was stopped before it had an outcome";
    case NtpSyncReason::kDisagreeing:
      return "the answers contradict each other";
    default:
      return report.outcome_text;
  }
}

std::string Advice(const SyncReport& report) {
  if (report.timers_failed > 0 && report.result == NtpResult::kNoResult) {
    return AdviceWithoutResult(report);
  }
  if (IsContradicted(report)) {
    return AdviceWhenContradicted(report);
  }
  switch (report.reason) {
    case NtpSyncReason::kOk:
      return "";
    case NtpSyncReason::kInaccurate:
      return "The answers differed too much from each other. Try again, or choose a nearer server.";
    case NtpSyncReason::kDisagreeing:
      return "The answers of " + report.server.value_or(report.asked) +
             " cannot all be true, so no time is told. Choose another server.";
    case NtpSyncReason::kTimedOut:
      return "The attempt took longer than " + SecondsText(report.timeout_s) +
             (report.samples_received == 0 ? " and no answer came. " + AdviceWithoutResult(report)
                                           : ". Allow more with --timeout.");
    case NtpSyncReason::kNotResolved:
      return "Check the spelling of the names and this machine's name service, or give IP addresses.";
    case NtpSyncReason::kNoServer:
      return "The names had no address when the attempt began. Try again, or give IP addresses.";
    case NtpSyncReason::kStopped:
      return "The servers took too long one after another. Ask fewer of them.";
    default:
      return AdviceWithoutResult(report);
  }
}

std::string FormatOffset(int64_t offset_us) {
  const uint64_t magnitude = Magnitude(offset_us);
  char text[48];
  std::snprintf(text, sizeof text, "%c%" PRIu64 ".%06" PRIu64 " s", offset_us < 0 ? '-' : '+',
                magnitude / base::kUsPerSecond, magnitude % base::kUsPerSecond);
  return text;
}

std::string FormatSpan(int64_t span_us) { return FormatOffset(span_us).substr(1); }

std::string ToText(const SyncReport& report) {
  std::string text;
  const auto line = [&text](std::string_view label, const std::string& value) {
    std::string padded(label);
    padded.resize(13, ' ');
    text += "  " + padded + value + "\n";
  };
  text += "NTP time sync: " + Message(report) + " (result " +
          std::to_string(static_cast<int>(report.result)) + ")\n";
  line("reason", NtpSyncReasonName(report.reason));
  if (const auto offset_us = OffsetUs(report)) {
    line("offset", FormatOffset(*offset_us) + (*offset_us < 0   ? " (the system clock is ahead)"
                                               : *offset_us > 0 ? " (the system clock is behind)"
                                                                : ""));
  } else {
    line("offset", "none");
  }
  if (report.reading.has_bound() && report.system_time_us) {
    line("limits", FormatOffset(report.reading.earliest_us - *report.system_time_us) + " to " +
                       FormatOffset(report.reading.latest_us - *report.system_time_us));
    line("error", "at most " + FormatSpan(report.reading.error_bound_us) + ", probably " +
                      FormatSpan(report.reading.error_estimate_us));
  } else if (report.reading.has_time()) {
    const bool is_outvoted = report.reading.agreement == NtpClockAgreement::kOutvoted;
    line("error", "without a limit (" +
                      std::string(is_outvoted ? "outvoted" : NtpClockStatusName(report.reading.status)) +
                      ")");
  }
  line("server", report.server.value_or("none"));
  if (report.reading.has_time()) {
    AddAgreementLines(report, line);
    line("rate", RateText(report.reading));
  }
  line("requests", std::to_string(report.requests_sent) + " sent");
  line("samples", std::to_string(report.samples_received) + " received" +
                      (report.samples_used ? ", " + std::to_string(*report.samples_used) + " used" : ""));
  if (!report.rejected.empty()) {
    line("rejected", ListReasons(report.rejected));
  }
  if (!report.kiss_codes.empty()) {
    line("kiss codes", ListReasons(report.kiss_codes));
  }
  if (!report.withheld.empty()) {
    line("withheld", ListReasons(report.withheld));
  }
  if (!report.socket_errors.empty()) {
    line("errors", ListReasons(report.socket_errors));
  }
  line("took", std::to_string(report.took_ms) + " ms");
  if (report.reading.has_time() && report.system_time_us) {
    line("NTP time", TimeText(report.reading.best_estimate_us));
    line("system time", TimeText(*report.system_time_us));
  }
  return text;
}

std::string ToJson(const SyncReport& report) {
  auto addresses = nlohmann::ordered_json::object();
  for (const auto& [address, counts] : report.addresses) {
    addresses[address] = {{"requests_sent", counts.requests_sent},
                          {"requests_withheld", counts.requests_withheld},
                          {"replies", counts.replies},
                          {"kiss_codes", counts.kiss_codes}};
  }
  const NtpClockReading& reading = report.reading;
  nlohmann::ordered_json json = {
      {"result", static_cast<int>(report.result)},
      {"message", Message(report)},
      {"reason", NtpSyncReasonName(report.reason)},
      {"status", NtpClockStatusName(reading.status)},
      {"offset_us", OrNull(OffsetUs(report))},
      {"manager_offset_us", OrNull(report.manager_offset_us)},
      {"error_bound_us", NumberIf(reading.has_bound(), reading.error_bound_us)},
      {"error_estimate_us", NumberIf(reading.has_bound(), reading.error_estimate_us)},
      {"ntp_time_us", NumberIf(reading.has_time(), reading.best_estimate_us)},
      {"earliest_us", NumberIf(reading.has_bound(), reading.earliest_us)},
      {"latest_us", NumberIf(reading.has_bound(), reading.latest_us)},
      {"frequency_ppm", reading.has_frequency()
                            ? nlohmann::ordered_json(static_cast<double>(reading.frequency_ppb) / 1000)
                            : nlohmann::ordered_json(nullptr)},
      {"server", OrNull(report.server)},
      {"requests_sent", report.requests_sent},
      {"samples_received", report.samples_received},
      {"samples_used", OrNull(report.samples_used)},
      {"took_ms", report.took_ms},
      {"rejected", report.rejected},
      {"kiss_codes", report.kiss_codes},
      {"withheld", report.withheld},
      {"socket_errors", report.socket_errors},
      {"domain_errors", report.domain_errors},
      {"send_stamps", report.send_stamps},
      {"receive_stamps", report.receive_stamps},
      {"addresses", addresses},
  };
  AddAgreement(json, report);
  return json.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

int ExitStatus(const SyncReport& report) {
  switch (report.result) {
    case NtpResult::kSuccess:
      return IsContradicted(report) ? kExitMaybeInaccurate : kExitSuccess;
    case NtpResult::kMaybeInaccurate:
      return kExitMaybeInaccurate;
    case NtpResult::kNoResult:
      break;
  }
  return kExitNoResult;
}

}  // namespace skorra
