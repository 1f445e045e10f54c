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
          .manager_offset_us = 2345987,
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
            "  agreement    unchecked (no other server was asked)\n"
            "  rate         not known yet (needs three syncs over half an hour)\n"
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
    "manager_offset_us": 2345987, "frequency_ppm": null, "error_bound_us": 10123, "error_estimate_us": 450, "ntp_time_us": 1704067202345678,
    "earliest_us": 1704067202335678, "latest_us": 1704067202355801,
    "server": "192.0.2.1:123", "requests_sent": 20, "samples_received": 18, "samples_used": 10,
    "took_ms": 203, "rejected": {"zero_origin": 1}, "kiss_codes": {"rate": 1},
    "withheld": {"back_off": 3, "thinned": 12}, "socket_errors": {"refused": 2},
    "domain_errors": {"not_found": 1}, "send_stamps": {"kernel": 18},
    "receive_stamps": {"kernel": 17, "user": 1},
    "addresses": {"192.0.2.1:123": {"requests_sent": 20, "requests_withheld": 3, "replies": 19,
                                    "kiss_codes": 1}},
    "agreement": "unchecked", "witnesses": 0, "agreeing": 0, "outvoted": [], "majority_earliest_us": null,
    "majority_latest_us": null, "may_be_smear": false, "servers": []})");
  EXPECT_EQ(nlohmann::json::parse(ToJson(report)), expected);
}

TEST(ReportTest, TheJsonOfAFailureHasNullForWhatDoesNotExist) {
  SyncReport report = NoResult();
  report.samples_used.reset();
  const auto expected = nlohmann::json::parse(R"({
    "result": -1, "message": "no usable result", "reason": "silent", "status": "unknown", "offset_us": null,
    "manager_offset_us": null, "frequency_ppm": null, "error_bound_us": null, "error_estimate_us": null, "ntp_time_us": null, "earliest_us": null, "latest_us": null,
    "server": null, "requests_sent": 20, "samples_received": 0, "samples_used": null,
    "took_ms": 3201, "rejected": {}, "kiss_codes": {}, "withheld": {}, "socket_errors": {},
    "domain_errors": {}, "send_stamps": {}, "receive_stamps": {}, "addresses": {},
    "agreement": "unchecked", "witnesses": 0, "agreeing": 0, "outvoted": [], "majority_earliest_us": null,
    "majority_latest_us": null, "may_be_smear": false, "servers": []})");
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

// --- What other servers say.

NtpWitness Witness(const char* domain, int64_t earliest_us, int64_t latest_us, bool agrees,
                   bool is_outvoted = false) {
  return {.domain = domain,
          .server = *net::IPEndPoint::FromLiteral("192.0.2.9", 123),
          .earliest_us = earliest_us,
          .latest_us = latest_us,
          .agrees = agrees,
          .is_outvoted = is_outvoted};
}

// A success against A, with what the others say of it.
SyncReport Checked(NtpClockAgreement agreement, std::vector<NtpWitness> others, bool is_outvoted = false) {
  SyncReport report = Success();
  report.reading.agreement = agreement;
  report.reading.domain = "A";
  report.reading.witness_count = static_cast<uint32_t>(others.size());
  NtpWitnessReport witnesses;
  witnesses.agreement = agreement;
  witnesses.servers = {Witness("A", -10000, 10123, true, is_outvoted)};
  for (const NtpWitness& other : others) {
    report.reading.agreeing_count += other.agrees ? 1 : 0;
    witnesses.servers.push_back(other);
  }
  report.witnesses = witnesses;
  return report;
}

SyncReport Outvoted() {
  SyncReport report =
      Checked(NtpClockAgreement::kOutvoted,
              {Witness("B", 2990000, 3010000, false), Witness("C", 2999000, 3001000, false)}, true);
  report.witnesses->has_majority = true;
  report.witnesses->majority_earliest_us = 2999000;
  report.witnesses->majority_latest_us = 3001000;
  return report;
}

TEST(ReportTest, TheTextTellsWhatOtherServersSay) {
  struct Case {
    const char* what;
    SyncReport report;
    const char* lines;
  };
  const NtpWitness b = Witness("B", -9000, 9000, true);
  const NtpWitness later = Witness("B", 2999000, 3001000, false);
  const NtpWitness earlier = Witness("C", -3001000, -2999000, false, true);
  const Case cases[] = {
      {"one other agrees", Checked(NtpClockAgreement::kAgrees, {b}), "agreement    agrees (1 of 1 other)\n"},
      {"all others agree", Checked(NtpClockAgreement::kAgrees, {b, b}),
       "agreement    agrees (2 of 2 others)\n"},
      {"one of the others is wrong", Checked(NtpClockAgreement::kAgrees, {b, earlier}),
       "agreement    agrees (1 of 2 others)\n"
       "  outvoted     C says 2.999000 s to 3.001000 s earlier\n"},
      {"two that differ", Checked(NtpClockAgreement::kConflict, {later}),
       "agreement    conflict: B says 2.999000 s to 3.001000 s later\n"},
      {"halves that differ",
       Checked(NtpClockAgreement::kConflict, {b, later, Witness("D", 5000000, 6000000, false)}),
       "agreement    conflict: B says 2.999000 s to 3.001000 s later; D says 5.000000 s to 6.000000 s "
       "later\n"},
      {"a majority against it", Outvoted(),
       "agreement    outvoted: A is wrong by 2.999000 s to 3.001000 s (behind), say B and C\n"},
      {"a majority of three against it, which says earlier",
       With(Checked(NtpClockAgreement::kOutvoted, {earlier, earlier, earlier}, true),
            [](auto& r) {
              for (size_t i = 1; i < r.witnesses->servers.size(); ++i) {
                r.witnesses->servers[i].is_outvoted = false;
              }
              r.witnesses->majority_earliest_us = -3001000;
              r.witnesses->majority_latest_us = -2999000;
            }),
       "agreement    outvoted: A is wrong by 2.999000 s to 3.001000 s (ahead), say C, C and C\n"},
      {"a majority on both sides of it",
       With(Outvoted(), [](auto& r) { r.witnesses->majority_earliest_us = -5; }),
       "agreement    outvoted: A is wrong by -0.000005 s to +3.001000 s, say B and C\n"},
      {"what a leap second does",
       With(Checked(NtpClockAgreement::kConflict, {Witness("B", 490000, 500000, false)}),
            [](auto& r) { r.witnesses->may_be_smear = true; }),
       "agreement    conflict: B says 0.490000 s to 0.500000 s later\n"
       "  smear?       the servers differ as they do when some of them smear a leap second\n"},
      {"no report within the limit",
       With(Checked(NtpClockAgreement::kConflict, {later}), [](auto& r) { r.witnesses.reset(); }),
       "agreement    conflict (0 of 1 other)\n"},
      {"a setting", With(Success(), [](auto& r) { r.why_unchecked = "ntp.witnesses is off"; }),
       "agreement    unchecked (ntp.witnesses is off)\n"},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(ToText(c.report), HasSubstr(std::string("  ") + c.lines + "  rate  ")) << c.what;
  }
}

TEST(ReportTest, AContradictedResultIsNoSuccess) {
  const SyncReport conflict = Checked(NtpClockAgreement::kConflict, {Witness("B", 490000, 500000, false)});
  EXPECT_EQ(ExitStatus(conflict), 1);
  EXPECT_THAT(ToText(conflict),
              testing::StartsWith("NTP time sync: the servers contradict each other (result "));
  EXPECT_EQ(Advice(conflict), "Nothing tells which of them is right. Ask more servers: a majority tells.");
  EXPECT_EQ(ExitStatus(Outvoted()), 1);
  EXPECT_THAT(ToText(Outvoted()),
              testing::StartsWith("NTP time sync: most servers contradict the result (result "));
  EXPECT_EQ(Advice(Outvoted()), "Do not rely on this time. Ask without A.");
  EXPECT_THAT(Advice(With(conflict, [](auto& r) { r.witnesses->may_be_smear = true; })),
              HasSubstr(" If some of them smear leap seconds, ask only those, or only the others."));
  const SyncReport agrees = Checked(NtpClockAgreement::kAgrees,
                                    {Witness("B", 0, 1, true), Witness("C", 490000, 500000, false, true)});
  EXPECT_EQ(ExitStatus(agrees), 0) << "the liar is another one";
  EXPECT_EQ(Message(agrees), "success");
  EXPECT_EQ(Advice(agrees), "");
}

TEST(ReportTest, TheJsonTellsWhatOtherServersSayAsTimes) {
  const auto json = nlohmann::json::parse(ToJson(Outvoted()));
  EXPECT_EQ(json["agreement"], "outvoted");
  EXPECT_EQ(json["witnesses"], 2);
  EXPECT_EQ(json["agreeing"], 0);
  EXPECT_EQ(json["outvoted"], nlohmann::json::parse(R"(["A"])"));
  EXPECT_EQ(json["majority_earliest_us"], 1704067202345678 + 2999000);
  EXPECT_EQ(json["majority_latest_us"], 1704067202345678 + 3001000);
  EXPECT_EQ(json["may_be_smear"], false);
  ASSERT_EQ(json["servers"].size(), 3u);
  EXPECT_EQ(json["servers"][2], nlohmann::json::parse(R"({
    "domain": "C", "address": "192.0.2.9:123", "earliest_us": 1704067205344678, "latest_us": 1704067205346678,
    "agrees": false, "outvoted": false})"));
  EXPECT_EQ(json["servers"][0]["outvoted"], true);
  const auto smear = With(Outvoted(), [](auto& r) { r.witnesses->may_be_smear = true; });
  EXPECT_EQ(nlohmann::json::parse(ToJson(smear))["may_be_smear"], true);
}

TEST(ReportTest, AnOutvotedTimeMayHaveNoLimits) {
  SyncReport report = Outvoted();
  report.reading.error_bound_us = NtpClockReading::kNoBound;
  EXPECT_THAT(ToText(report), HasSubstr("  error        without a limit (outvoted)\n"));
}

TEST(ReportTest, TheRateIsToldInPartsPerMillion) {
  struct Case {
    int64_t ppb;
    const char* text;
    double ppm;
  };
  for (const Case& c : {Case{19873, "+19.873 ppm", 19.873}, Case{-7, "-0.007 ppm", -0.007},
                        Case{0, "+0.000 ppm", 0.0}, Case{-100000, "-100.000 ppm", -100.0}}) {
    SyncReport report = Success();
    report.reading.frequency_ppb = c.ppb;
    EXPECT_THAT(ToText(report), HasSubstr(std::string("  rate         ") + c.text + "\n"));
    EXPECT_DOUBLE_EQ(nlohmann::json::parse(ToJson(report))["frequency_ppm"].get<double>(), c.ppm);
  }
}

}  // namespace
}  // namespace skorra
