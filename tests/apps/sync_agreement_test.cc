// SPDX-License-Identifier: Apache-2.0

// What `skorra-ntp sync` tells of several servers that agree, contradict each other, or are not asked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "testing/loopback_udp.h"
#include "tests/apps/program.h"

namespace skorra {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// A result comes after 0.2 s, and what the others say soon after it. With this setting, who waits in vain for
// the others waits until the limit of the whole sync, 15 s.
constexpr char kPatient[] = "SKORRA_NTP_MAX_ROUND_TRIP_MS=60000";
constexpr int64_t kSoonMs = 8000;

// The time that is true by the report, which was made while the system clock showed it.
int64_t SystemTimeUs(const nlohmann::json& json) {
  return json["ntp_time_us"].get<int64_t>() - json["offset_us"].get<int64_t>();
}

TEST(SyncAgreementTest, ServersWithTheSameTimeAgree) {
  Server a;
  Server b;
  const ChildExit exit = RunProgram({"sync", "--json", a.name(), b.name()}, {kPatient});
  EXPECT_EQ(exit.status, 0) << exit.err;
  EXPECT_THAT(exit.err, IsEmpty());
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["agreement"], "agrees");
  EXPECT_EQ(json["witnesses"], 1);
  EXPECT_EQ(json["agreeing"], 1);
  EXPECT_THAT(json["outvoted"], IsEmpty());
  ASSERT_EQ(json["servers"].size(), 2u);
  EXPECT_EQ(json["servers"][0]["domain"], a.name());
  EXPECT_EQ(json["servers"][1]["domain"], b.name());
  EXPECT_EQ(json["servers"][1]["address"], b.name());
  for (const auto& server : json["servers"]) {
    EXPECT_LE(server["earliest_us"].get<int64_t>(), SystemTimeUs(json));
    EXPECT_GE(server["latest_us"].get<int64_t>(), SystemTimeUs(json));
    EXPECT_EQ(server["agrees"], true);
  }
  EXPECT_LT(json["took_ms"], kSoonMs);
  EXPECT_TRUE(json["frequency_ppm"].is_null());
  EXPECT_NEAR(json["manager_offset_us"].get<double>(), 0, 5000);
}

TEST(SyncAgreementTest, TwoServersThatDifferAreNoSuccessAndNeitherIsBlamed) {
  Server a;
  Server b({"--offset", "3"});
  const ChildExit exit = RunProgram({"sync", a.name(), b.name()});
  EXPECT_EQ(exit.status, 1);
  EXPECT_THAT(exit.out, StartsWith("NTP time sync: the servers contradict each other (result 0)\n"));
  EXPECT_THAT(exit.out, testing::ContainsRegex("  agreement    conflict: " + b.name() +
                                               " says (2\\.99|3\\.00)[0-9]* s to 3\\.0[0-9]* s later\n"));
  EXPECT_THAT(exit.err, HasSubstr("Ask more servers"));
  EXPECT_THAT(exit.out, testing::Not(HasSubstr("outvoted")));
}

TEST(SyncAgreementTest, ALiarThatAnswersFirstIsNamedByTheOthers) {
  Server liar({"--offset", "-3"});
  Server b({"--delay", "30"});
  Server c({"--delay", "40"});
  const ChildExit exit = RunProgram({"sync", "--json", liar.name(), b.name(), c.name()});
  EXPECT_EQ(exit.status, 1);
  EXPECT_THAT(exit.err, HasSubstr("Do not rely on this time. Ask without " + liar.name() + "."));
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["server"], liar.name());
  EXPECT_EQ(json["result"], 0) << "what the manager says of the liar";
  EXPECT_EQ(json["message"], "most servers contradict the result");
  EXPECT_EQ(json["agreement"], "outvoted");
  EXPECT_EQ(json["outvoted"], nlohmann::json::array({liar.name()}));
  EXPECT_EQ(json["witnesses"], 2);
  EXPECT_EQ(json["agreeing"], 0);
  EXPECT_LE(json["majority_earliest_us"].get<int64_t>(), SystemTimeUs(json));
  EXPECT_GE(json["majority_latest_us"].get<int64_t>(), SystemTimeUs(json));
  EXPECT_THAT(
      RunProgram({"sync", liar.name(), b.name(), c.name()}).out,
      testing::ContainsRegex("  agreement    outvoted: " + liar.name() +
                             " is wrong by (2\\.9|3\\.0)[0-9]* s to 3\\.0[0-9]* s \\(behind\\), say " +
                             b.name() + " and " + c.name() + "\n"));
}

TEST(SyncAgreementTest, ALiarThatDoesNotWinIsNamedAndTheTimeIsGood) {
  Server a;
  Server b;
  Server liar({"--offset", "3"});
  const ChildExit exit = RunProgram({"sync", a.name(), b.name(), liar.name()});
  EXPECT_EQ(exit.status, 0) << exit.out << exit.err;
  EXPECT_THAT(exit.out,
              HasSubstr("  agreement    agrees (1 of 2 others)\n  outvoted     " + liar.name() + " says "));
}

TEST(SyncAgreementTest, OneServerIsUncheckedAtOnce) {
  Server a;
  const auto json = nlohmann::json::parse(RunProgram({"sync", "--json", a.name()}, {kPatient}).out);
  EXPECT_EQ(json["agreement"], "unchecked");
  EXPECT_THAT(json["servers"], IsEmpty());
  EXPECT_LT(json["took_ms"], kSoonMs);
  EXPECT_THAT(RunProgram({"sync", a.name()}).out,
              HasSubstr("  agreement    unchecked (no other server was asked)\n"));
}

TEST(SyncAgreementTest, AServerThatIsNamedTwiceIsNoWitnessOfItself) {
  Server a;
  const std::string by_name = "localhost" + a.name().substr(a.name().find(':'));
  const auto json = nlohmann::json::parse(RunProgram({"sync", a.name(), by_name, "--json"}, {kPatient}).out);
  EXPECT_EQ(json["agreement"], "unchecked");
  EXPECT_LT(json["took_ms"], kSoonMs);
}

TEST(SyncAgreementTest, WithTheSettingOffNobodyIsAskedOrWaitedFor) {
  Server a;
  Server b({"--offset", "3"});
  const ChildExit exit = RunProgram({"sync", a.name(), b.name()}, {"SKORRA_NTP_WITNESSES=off"});
  EXPECT_EQ(exit.status, 0);
  EXPECT_THAT(exit.out, HasSubstr("  agreement    unchecked (ntp.witnesses is off)\n"));
  const ChildExit json_exit =
      RunProgram({"sync", "--json", a.name(), b.name()}, {"SKORRA_NTP_WITNESSES=off", kPatient});
  EXPECT_LT(nlohmann::json::parse(json_exit.out)["took_ms"], kSoonMs);
}

TEST(SyncAgreementTest, WithTheSettingRefuseAnOutvotedTimeHasNoLimits) {
  Server liar({"--offset", "-3"});
  Server b({"--delay", "30"});
  Server c({"--delay", "40"});
  const ChildExit exit =
      RunProgram({"sync", liar.name(), b.name(), c.name()}, {"SKORRA_NTP_WITNESSES=refuse"});
  EXPECT_EQ(exit.status, 1);
  EXPECT_THAT(exit.out, HasSubstr("  error        without a limit (outvoted)\n"));
  EXPECT_THAT(exit.out, testing::Not(HasSubstr("  limits  ")));
}

TEST(SyncAgreementTest, ASilentServerChecksNothingAndHoldsUpNoLongerThanItsRoundTripMay) {
  Server a;
  const LoopbackUdp silent;
  const ChildExit exit = RunProgram({"sync", a.name(), silent.local().ToString(), "--json"});
  EXPECT_EQ(exit.status, 0) << exit.err;
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["agreement"], "unchecked");
  EXPECT_LT(json["took_ms"], kSoonMs);
  const ChildExit text = RunProgram({"sync", a.name(), silent.local().ToString()});
  EXPECT_THAT(text.out, HasSubstr("  agreement    unchecked (no other server answered)\n"));
}

TEST(SyncAgreementTest, TheTimeLimitEndsTheWaitForOthersAndTheResultStays) {
  Server a;
  const LoopbackUdp silent;
  const ChildExit exit =
      RunProgram({"sync", a.name(), silent.local().ToString(), "--json", "--timeout", "2"}, {kPatient});
  EXPECT_EQ(exit.status, 0) << exit.err;
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["reason"], "ok");
  EXPECT_LT(json["took_ms"], kSoonMs);
}

}  // namespace
}  // namespace skorra
