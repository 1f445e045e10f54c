// SPDX-License-Identifier: Apache-2.0

// Why a sync ended as it did, with what the program says to do about it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "testing/loopback_ntp_server.h"
#include "tests/apps/program.h"

namespace skorra {
namespace {

using netmodel::Exchange;
using netmodel::ServerOptions;
using testing::HasSubstr;

constexpr int64_t kHourUs = int64_t{3600} * 1000000;

struct Row {
  const char* name;
  ServerOptions server;
  const char* reason;
  const char* status;
  const char* advice;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

ServerOptions WithScript(std::function<void(Exchange&)> script) {
  ServerOptions options;
  options.script = std::move(script);
  return options;
}

ServerOptions WithKiss(const char* code) {
  ServerOptions options;
  options.kiss_code = code;
  return options;
}

std::vector<Row> Rows() {
  return {
      {"TheFirstAnswerAnHourAhead",
       WithScript([](Exchange& exchange) { exchange.clock_error_us = exchange.index == 0 ? kHourUs : 0; }),
       "disagreeing", "conflicting", "cannot all be true, so no time is told. Choose another server."},
      {"EverySecondAnswerAnHourAhead", WithScript([](Exchange& exchange) {
         exchange.clock_error_us = exchange.index % 2 == 0 ? kHourUs : 0;
       }),
       "disagreeing", "conflicting", "cannot all be true, so no time is told. Choose another server."},
      // A busy machine sends a second request before the first refusal comes, which counts as repeated.
      {"AskedTooOften", WithKiss("RATE"), "limited", "unknown", "asks us to wait (kiss codes: rate 1"},
      {"AccessDenied", WithKiss("DENY"), "refused", "unknown",
       "does not serve this machine now (kiss codes: deny 1"},
      {"NotSynchronised", WithScript([](Exchange& exchange) { exchange.reply.leap_indicator = 3; }),
       "unusable", "unknown", "answered, but no answer was usable ("},
      {"TwoAnswers", WithScript([](Exchange& exchange) { exchange.is_answered = exchange.index < 2; }),
       "too_few_samples", "unknown", "Only 2 usable answers came from "},
  };
}

class SyncReasonsTest : public testing::TestWithParam<Row> {};

TEST_P(SyncReasonsTest, NoTimeIsToldAndTheReasonIs) {
  const LoopbackNtpServer server(GetParam().server);
  const ChildExit exit = RunProgram({"sync", server.endpoint().ToString(), "--json"});
  EXPECT_EQ(exit.status, 2);
  EXPECT_THAT(exit.err, HasSubstr(GetParam().advice));
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["result"], -1);
  EXPECT_EQ(json["reason"], GetParam().reason);
  EXPECT_EQ(json["status"], GetParam().status);
  for (const char* key :
       {"offset_us", "ntp_time_us", "error_bound_us", "error_estimate_us", "earliest_us", "latest_us"}) {
    EXPECT_TRUE(json[key].is_null()) << key;
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, SyncReasonsTest, testing::ValuesIn(Rows()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(SyncReasonsTextTest, AnswersThatContradictEachOtherHaveNoOffsetInTheTextEither) {
  const LoopbackNtpServer server(
      WithScript([](Exchange& exchange) { exchange.clock_error_us = exchange.index == 0 ? kHourUs : 0; }));
  const ChildExit exit = RunProgram({"sync", server.endpoint().ToString()});
  EXPECT_EQ(exit.status, 2);
  EXPECT_THAT(exit.out, testing::StartsWith("NTP time sync: the answers contradict each other (result -1)\n"
                                            "  reason       disagreeing\n"
                                            "  offset       none\n"
                                            "  server       " +
                                            server.endpoint().ToString() + "\n"));
}

// A server 50 ms from its reference, over a path of 200 ms: half of the path and the distance count.
TEST(SyncReasonsTextTest, TheLimitsAreNoNarrowerThanWhatTheServerSaysOfItself) {
  ServerOptions options;
  options.root_delay_us = 200000;
  options.root_dispersion_us = 50000;
  const LoopbackNtpServer server(options);
  const ChildExit exit = RunProgram({"sync", server.endpoint().ToString(), "--json"});
  EXPECT_EQ(exit.status, 0) << exit.err;
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_GE(json["error_bound_us"], 150000);
  EXPECT_LT(json["error_bound_us"], 160000);
}

}  // namespace
}  // namespace skorra
