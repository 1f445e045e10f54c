// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <vector>

namespace skorra {
namespace {

using testing::HasSubstr;
using testing::Not;

NtpClockReading Reading() {
  NtpClockReading reading;
  reading.status = NtpClockStatus::kSynchronized;
  reading.result = NtpResult::kSuccess;
  reading.best_estimate_us = 1704067202345678;
  reading.earliest_us = 1704067202335678;
  reading.latest_us = 1704067202355801;
  reading.error_bound_us = 10123;
  reading.error_estimate_us = 450;
  return reading;
}

SyncReport Success() {
  return {.reason = NtpSyncReason::kOk,
          .asked = "ntp.example.org",
          .timeout_s = 15,
          .result = NtpResult::kSuccess,
          .outcome_text = "success",
          .server = "192.0.2.1:123",
          .samples_used = 10,
          .reading = Reading(),
          .system_time_us = 1704067200000000,
          .took_ms = 203,
          .requests_sent = 20,
          .samples_received = 18};
}

SyncReport NoResult() {
  return {.reason = NtpSyncReason::kSilent,
          .asked = "192.0.2.1",
          .timeout_s = 15,
          .result = NtpResult::kNoResult,
          .outcome_text = "no usable result",
          .server = {},
          .samples_used = 0,
          .reading = {},
          .system_time_us = {},
          .took_ms = 3201,
          .requests_sent = 20,
          .samples_received = 0};
}

TEST(ReportTest, ASuccessShowsTheOffsetItsLimitsTheServerAndBothTimes) {
  EXPECT_EQ(ToText(Success()),
            "NTP time sync: success (result 0)\n"
            "  reason       ok\n"
            "  offset       +2.345678 s (the system clock is behind)\n"
            "  limits       +2.335678 s to +2.355801 s\n"
            "  error        at most 0.010123 s, probably 0.000450 s\n"
            "  server       192.0.2.1:123\n"
            "  requests     20 sent\n"
            "  samples      18 received, 10 used\n"
            "  took         203 ms\n"
            "  NTP time     2024-01-01T00:00:02.345678Z\n"
            "  system time  2024-01-01T00:00:00.000000Z\n");
  EXPECT_EQ(Advice(Success()), "");
}

TEST(ReportTest, WithoutAResultThereIsNoOffsetAndNoTime) {
  SyncReport report = NoResult();
  report.rejected = {{"mode", 2}, {"origin", 18}};
  report.kiss_codes = {{"init", 1}};
  report.withheld = {{"thinned", 12}};
  report.socket_errors = {{"network_unreachable", 1}};
  EXPECT_EQ(ToText(report),
            "NTP time sync: no usable result (result -1)\n"
            "  reason       silent\n"
            "  offset       none\n"
            "  server       none\n"
            "  requests     20 sent\n"
            "  samples      0 received, 0 used\n"
            "  rejected     mode 2, origin 18\n"
            "  kiss codes   init 1\n"
            "  withheld     thinned 12\n"
            "  errors       network_unreachable 1\n"
            "  took         3201 ms\n");
}

TEST(ReportTest, AnUnknownNumberOfUsedSamplesIsLeftOut) {
  SyncReport report = NoResult();
  report.samples_used.reset();
  EXPECT_THAT(ToText(report), HasSubstr("  samples      0 received\n"));
}

TEST(ReportTest, TheJsonOfASuccessHoldsEveryField) {
  SyncReport report = Success();
  report.rejected = {{"zero_origin", 1}};
  report.kiss_codes = {{"rate", 1}};
  report.withheld = {{"back_off", 3}, {"thinned", 12}};
  report.socket_errors = {{"refused", 2}};
  report.domain_errors = {{"not_found", 1}};
  report.send_stamps = {{"kernel", 18}};
  report.receive_stamps = {{"kernel", 17}, {"user", 1}};
  report.addresses = {
      {"192.0.2.1:123", {.requests_sent = 20, .requests_withheld = 3, .replies = 19, .kiss_codes = 1}}};
  const auto expected = nlohmann::json::parse(R"({
    "result": 0, "message": "success", "reason": "ok", "status": "synchronized", "offset_us": 2345678,
    "error_bound_us": 10123, "error_estimate_us": 450, "ntp_time_us": 1704067202345678,
    "earliest_us": 1704067202335678, "latest_us": 1704067202355801,
    "server": "192.0.2.1:123", "requests_sent": 20, "samples_received": 18, "samples_used": 10,
    "took_ms": 203, "rejected": {"zero_origin": 1}, "kiss_codes": {"rate": 1},
    "withheld": {"back_off": 3, "thinned": 12}, "socket_errors": {"refused": 2},
    "domain_errors": {"not_found": 1}, "send_stamps": {"kernel": 18},
    "receive_stamps": {"kernel": 17, "user": 1},
    "addresses": {"192.0.2.1:123": {"requests_sent": 20, "requests_withheld": 3, "replies": 19,
                                    "kiss_codes": 1}}})");
  EXPECT_EQ(nlohmann::json::parse(ToJson(report)), expected);
}

TEST(ReportTest, TheJsonOfAFailureHasNullForWhatDoesNotExist) {
  SyncReport report = NoResult();
  report.samples_used.reset();
  const auto expected = nlohmann::json::parse(R"({
    "result": -1, "message": "no usable result", "reason": "silent", "status": "unknown", "offset_us": null,
    "error_bound_us": null, "error_estimate_us": null, "ntp_time_us": null, "earliest_us": null, "latest_us": null,
    "server": null, "requests_sent": 20, "samples_received": 0, "samples_used": null,
    "took_ms": 3201, "rejected": {}, "kiss_codes": {}, "withheld": {}, "socket_errors": {},
    "domain_errors": {}, "send_stamps": {}, "receive_stamps": {}, "addresses": {}})");
  EXPECT_EQ(nlohmann::json::parse(ToJson(report)), expected);
}

// A virtual machine that was moved since the sync: there is a time, and nobody knows how wrong it is.
TEST(ReportTest, ATimeWithoutLimitsSaysSo) {
  SyncReport report = Success();
  report.reading = NtpClockReading();
  report.reading.status = NtpClockStatus::kDisrupted;
  report.reading.result = NtpResult::kSuccess;
  report.reading.best_estimate_us = 1704067202345678;
  EXPECT_THAT(ToText(report), HasSubstr("  offset       +2.345678 s (the system clock is behind)\n"
                                        "  error        without a limit (disrupted)\n"
                                        "  server "));
  const auto json = nlohmann::json::parse(ToJson(report));
  EXPECT_EQ(json["status"], "disrupted");
  EXPECT_EQ(json["offset_us"], 2345678);
  for (const char* key : {"error_bound_us", "error_estimate_us", "earliest_us", "latest_us"}) {
    EXPECT_TRUE(json[key].is_null()) << key;
  }
}

TEST(ReportTest, TheLimitsHoldWhenTheTruthLiesBetweenThem) {
  for (const int64_t true_offset_us : {2335678, 2345678, 2355801}) {
    EXPECT_TRUE(LimitsHold(Success(), true_offset_us)) << true_offset_us;
  }
  for (const int64_t true_offset_us : {2335677, 2355802, 0, -2345678}) {
    EXPECT_FALSE(LimitsHold(Success(), true_offset_us)) << true_offset_us;
  }
  EXPECT_FALSE(LimitsHold(NoResult(), 0)) << "there are no limits";
}

TEST(ReportTest, TheJsonIsValidEvenWhenATextIsNotUtf8) {
  SyncReport report = Success();
  report.outcome_text = "\xff";
  EXPECT_TRUE(nlohmann::json::accept(ToJson(report)));
}

TEST(ReportTest, TheJsonIsAsciiWithoutControlCharacters) {
  SyncReport report = Success();
  report.server = "fe80::1%a\x1b\x7f\xc2\x9b\xc3\xa9";
  EXPECT_THAT(ToJson(report), HasSubstr(R"("server": "fe80::1%a\u001b\u007f\u009b\u00e9")"));
}

TEST(ReportTest, OffsetsAreSignedSeconds) {
  EXPECT_EQ(FormatOffset(0), "+0.000000 s");
  EXPECT_EQ(FormatOffset(-1), "-0.000001 s");
  EXPECT_EQ(FormatOffset(-3'250'000), "-3.250000 s");
  EXPECT_EQ(FormatOffset(std::numeric_limits<int64_t>::min()), "-9223372036854.775808 s");
}

TEST(ReportTest, TheTextSaysWhichClockIsAhead) {
  struct Case {
    int64_t system_time_us;
    const char* line;
  };
  for (const Case& c : {Case{1704067202345679, "offset       -0.000001 s (the system clock is ahead)\n"},
                        Case{1704067202345677, "offset       +0.000001 s (the system clock is behind)\n"},
                        Case{1704067202345678, "offset       +0.000000 s\n"}}) {
    SyncReport report = Success();
    report.system_time_us = c.system_time_us;
    EXPECT_THAT(ToText(report), HasSubstr(c.line));
  }
}

// How an attempt may end.
struct End {
  const char* what;
  SyncReport report;
  int status;
  const char* message;
  const char* advice;
};

// `report` with a change.
template <class Change>
SyncReport With(SyncReport report, Change change) {
  change(report);
  return report;
}

std::vector<End> EndsByTheNetwork() {
  return {
      {"a success", Success(), 0, "success", ""},
      {"an offset from answers that differ",
       With(Success(),
            [](auto& r) {
              r.reason = NtpSyncReason::kInaccurate;
              r.result = NtpResult::kMaybeInaccurate;
              r.outcome_text = "the result may be inaccurate";
            }),
       1, "the result may be inaccurate", "choose a nearer server"},
      {"a server that keeps silent", NoResult(), 2, "no usable result",
       "No answer came from 192.0.2.1. Check the host, its port (NTP is 123/udp) and the firewalls"},
      {"a port on which nobody listens",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kRefused;
              r.socket_errors = {{"refused", 19}};
            }),
       2, "no usable result",
       "192.0.2.1 has no NTP server on that port: it is closed. Check the host and the port"},
      {"a server that denies service",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kRefused;
              r.kiss_codes = {{"deny", 1}};
              r.addresses = {{"192.0.2.1:123", {.requests_sent = 1, .replies = 1, .kiss_codes = 1}}};
            }),
       2, "no usable result",
       "192.0.2.1 does not serve this machine now (kiss codes: deny 1). Wait at least two minutes"},
      {"a server that was asked too often",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kLimited;
              r.kiss_codes = {{"rate", 1}};
              r.addresses = {{"192.0.2.1:123", {.requests_sent = 1, .replies = 1, .kiss_codes = 1}}};
            }),
       2, "no usable result",
       "192.0.2.1 asks us to wait (kiss codes: rate 1). Ask it again in two minutes or later, and less "
       "often"},
      {"no route",
       With(NoResult(),
            [](auto& r) {
              r.socket_errors = {{"network_unreachable", 20}};
            }),
       2, "no usable result",
       "No request reached 192.0.2.1 (network_unreachable 20). Check this machine's network"},
  };
}

std::vector<End> EndsByTheAnswers() {
  return {
      {"only answers that fail a check",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kUnusable;
              r.rejected = {{"kiss", 20}};
            }),
       2, "no usable result", "no answer was usable (kiss 20). Choose another server"},
      {"fewer answers than an evaluation needs",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kTooFewSamples;
              r.samples_received = 2;
            }),
       2, "no usable result", "Only 2 usable answers came from 192.0.2.1, and 3 are needed"},
      {"enough answers, but spread over bursts",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kTooFewSamples;
              r.samples_received = 4;
            }),
       2, "no usable result", "Too few usable answers came in one burst"},
      {"answers that contradict each other",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kDisagreeing;
              r.outcome_text = "success";
              r.server = "192.0.2.1:123";
              r.samples_received = 20;
            }),
       2, "the answers contradict each other",
       "The answers of 192.0.2.1:123 cannot all be true, so no time is told. Choose another server."},
      {"a time limit that passed in silence",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kTimedOut;
              r.timeout_s = 0.5;
            }),
       2, "no outcome within 0.5 s", "longer than 0.5 s and no answer came. No answer came from 192.0.2.1"},
      {"a time limit that cut a lively exchange off",
       With(NoResult(),
            [](auto& r) {
              r.reason = NtpSyncReason::kTimedOut;
              r.samples_received = 4;
            }),
       2, "no outcome within 15 s", "Allow more with --timeout"},
      {"names without an address", With(NoResult(), [](auto& r) { r.reason = NtpSyncReason::kNotResolved; }),
       2, "no server name could be resolved", "Check the spelling"},
      {"names that lost their address",
       With(NoResult(), [](auto& r) { r.reason = NtpSyncReason::kNoServer; }), 2, "no usable server",
       "had no address when the attempt began"},
      {"an attempt that the library closed",
       With(NoResult(), [](auto& r) { r.reason = NtpSyncReason::kStopped; }), 2,
       "the attempt was stopped before it had an outcome", "Ask fewer"},
  };
}

TEST(ReportTest, ATimerThatTheSystemDidNotSetIsNamedInsteadOfTheNetwork) {
  struct Case {
    const char* what;
    SyncReport report;
  };
  const Case cases[] = {
      {"nothing left and nothing came", NoResult()},
      {"the time passed in silence", With(NoResult(), [](auto& r) { r.reason = NtpSyncReason::kTimedOut; })},
      {"the time passed after some answers", With(NoResult(),
                                                  [](auto& r) {
                                                    r.reason = NtpSyncReason::kTimedOut;
                                                    r.samples_received = 2;
                                                  })},
      {"few answers", With(NoResult(), [](auto& r) { r.samples_received = 2; })},
      {"lookups did not end", With(NoResult(), [](auto& r) { r.reason = NtpSyncReason::kNotResolved; })},
      {"the attempt did not end", With(NoResult(), [](auto& r) { r.reason = NtpSyncReason::kStopped; })},
      {"a socket failed, too", With(NoResult(),
                                    [](auto& r) {
                                      r.socket_errors = {{"network_unreachable", 1}};
                                    })},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_THAT(Advice(c.report), Not(HasSubstr("timer")));
    const std::string advice = Advice(With(c.report, [](auto& r) { r.timers_failed = 1; }));
    EXPECT_THAT(advice, HasSubstr("does not let the program set a timer"));
    EXPECT_THAT(advice, HasSubstr("timerfd_settime?). Allow that system call."));
    EXPECT_THAT(advice, Not(HasSubstr("firewall")));
  }
  EXPECT_EQ(Advice(With(Success(), [](auto& r) { r.timers_failed = 1; })), "")
      << "the timer was set in the end";
}

TEST(ReportTest, EachEndHasItsStatusMessageAndRemedy) {
  std::vector<End> ends = EndsByTheNetwork();
  const std::vector<End> others = EndsByTheAnswers();
  ends.insert(ends.end(), others.begin(), others.end());
  for (const End& c : ends) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(nlohmann::json::parse(ToJson(c.report))["reason"], NtpSyncReasonName(c.report.reason));
    EXPECT_EQ(ExitStatus(c.report), c.status);
    EXPECT_EQ(Message(c.report), c.message);
    if (*c.advice == '\0') {
      EXPECT_EQ(Advice(c.report), "");
    } else {
      EXPECT_THAT(Advice(c.report), HasSubstr(c.advice));
    }
    EXPECT_EQ(nlohmann::json::parse(ToJson(c.report))["message"], c.message);
  }
}

}  // namespace
}  // namespace skorra
