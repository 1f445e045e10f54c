// SPDX-License-Identifier: Apache-2.0
#include "clock/attempt_tally.h"

#include <ostream>
#include <string>

#include "gtest/gtest.h"

namespace skorra {
namespace {

struct Row {
  const char* what;
  AttemptTally tally;
  NtpSyncReason reason;
};
std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.what; }

class AttemptTallyTest : public ::testing::TestWithParam<Row> {};

TEST_P(AttemptTallyTest, NamesTheReason) {
  EXPECT_STREQ(NtpSyncReasonName(ReasonWithoutResult(GetParam().tally)),
               NtpSyncReasonName(GetParam().reason));
}

const Row kRows[] = {
    {"no reply at all", {}, NtpSyncReason::kSilent},
    {"a sample, too few of them", {.samples = 1}, NtpSyncReason::kTooFewSamples},
    {"a sample comes before all refusals",
     {.samples = 1,
      .rejected = 1,
      .denied = 1,
      .limited = 1,
      .closed_ports = 1,
      .held_denied = 1,
      .held_limited = 1},
     NtpSyncReason::kTooFewSamples},
    {"replies that failed a check", {.rejected = 3}, NtpSyncReason::kUnusable},
    {"a refused server and a useless one", {.rejected = 3, .denied = 1}, NtpSyncReason::kRefused},
    {"the servers deny access", {.denied = 1}, NtpSyncReason::kRefused},
    {"they denied it at an earlier attempt", {.held_denied = 1}, NtpSyncReason::kRefused},
    {"the servers ask us to wait", {.limited = 1}, NtpSyncReason::kLimited},
    {"they asked for it at an earlier attempt", {.held_limited = 1}, NtpSyncReason::kLimited},
    {"one server denies access, another one will answer later",
     {.denied = 1, .held_limited = 1},
     NtpSyncReason::kLimited},
    {"all ports are closed", {.closed_ports = 2}, NtpSyncReason::kRefused},
    {"an error of the network may be forged, a reply is not",
     {.rejected = 1, .closed_ports = 1},
     NtpSyncReason::kUnusable},
};
INSTANTIATE_TEST_SUITE_P(Rows, AttemptTallyTest, ::testing::ValuesIn(kRows));

TEST(AttemptTallyCountTest, EachCounterGoesToItsPlace) {
  AttemptTally tally;
  CountRejection(tally, "ntp.kiss.deny");
  CountRejection(tally, "ntp.kiss.rstr");
  CountRejection(tally, "ntp.kiss.rate");
  CountRejection(tally, "ntp.kiss.repeated");
  CountRejection(tally, "ntp.kiss.step");
  CountRejection(tally, "ntp.reply.unsynchronized");
  CountRejection(tally, "");
  EXPECT_EQ(tally.denied, 2u);
  EXPECT_EQ(tally.limited, 1u);
  EXPECT_EQ(tally.rejected, 3u);
  EXPECT_EQ(tally.samples, 0u);
}

}  // namespace
}  // namespace skorra
