// SPDX-License-Identifier: Apache-2.0

// The manager and its model side by side: a slice of random walks, and proof that the comparison sees a wrong
// step.
//
// ctest sets SKORRA_SEED from the commit. A run of the program by itself draws a fresh seed unless it is set.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "ntp/ntp_sync_records.h"
#include "testing/environment_number.h"
#include "tests/model/walk.h"
#include "tests/model/walks.h"

namespace skorra::model {
namespace {

// The coverage preset sets it, too.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKORRA_SLOW_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SKORRA_SLOW_BUILD 1
#endif
#endif

#if defined(SKORRA_SLOW_BUILD)
constexpr long kWalks = 300;
#elif defined(NDEBUG)
constexpr long kWalks = 3000;
#else
constexpr long kWalks = 1500;
#endif

uint64_t SeedOfThisRun() {
  const auto given = EnvironmentNumber("SKORRA_SEED");
  return given ? *given : FreshWalkSeed();
}

TEST(ModelTest, TheManagerAndItsModelAgreeOnASliceOfRandomWalks) {
  EXPECT_EQ(RunWalks(kWalks, SeedOfThisRun()), 0) << "replay with SKORRA_SEED and the seed printed above";
}

TEST(ModelTest, TheSameSeedGivesTheSameWalk) {
  const WalkResult first = RunWalk(5, DrawWalk(5));
  const WalkResult second = RunWalk(5, DrawWalk(5));
  EXPECT_EQ(first.event_count, second.event_count);
  EXPECT_EQ(first.step_count, second.step_count);
  EXPECT_GE(DrawWalk(5).size(), 200u);
}

struct TamperCase {
  const char* name;
  const char* reported;  // the first member that must be named
  void (*tamper)(NtpTimeManagerPeer& manager);
};

class TamperTest : public ::testing::TestWithParam<TamperCase> {};

TEST_P(TamperTest, AChangeBehindTheModelsBackIsReported) {
  constexpr uint64_t kSeed = 11;
  constexpr size_t kTamperedEvent = 60;
  const std::vector<Event> events = DrawWalk(kSeed);
  const auto tamper = [](size_t event, NtpTimeManagerPeer& manager) {
    if (event == kTamperedEvent) {
      GetParam().tamper(manager);
    }
  };
  ASSERT_EQ(RunWalk(kSeed, events).difference, "");
  const WalkResult result = RunWalk(kSeed, events, tamper);
  EXPECT_NE(result.difference.find(GetParam().reported), std::string::npos) << result.difference;
  EXPECT_GT(result.event_count, kTamperedEvent);
  EXPECT_LT(result.event_count, kTamperedEvent + 10);
}

INSTANTIATE_TEST_SUITE_P(
    Members, TamperTest,
    ::testing::Values(
        TamperCase{"ARetryMore", "total_retry_count", [](auto& manager) { ++manager.total_retry_count(); }},
        TamperCase{"AStartMore", "start_count", [](auto& manager) { ++manager.start_count(); }},
        TamperCase{"AnOffsetOneMicrosecondOff", "ntp_offset_us",
                   [](auto& manager) { --manager.ntp_offset_us(); }},
        TamperCase{"ACheckOneMillisecondLater", "last_check_local_time_ms",
                   [](auto& manager) { ++manager.last_check_local_time_ms(); }},
        TamperCase{"ADeviationThatNobodyFound", "deviation_found",
                   [](auto& manager) { manager.deviation_found() = !manager.deviation_found(); }},
        TamperCase{"AFlagTurned", "is_sync_finished",
                   [](auto& manager) { manager.is_sync_finished() = !manager.is_sync_finished(); }},
        TamperCase{"AnAttemptCounted", "statistics",
                   [](auto& manager) { ++manager.function_request_stats()[2].success_count; }},
        TamperCase{"ARecordWithoutItsDomain", "records",
                   [](auto& manager) { manager.domain_results()["nobody.test"] = NtpDomainResult(); }},
        TamperCase{"AnObserverMore", "observers listed",
                   [](auto& manager) { manager.observers().emplace_back(); }},
        TamperCase{"ATaskMore", "delays of the tasks posted",
                   [](auto& manager) { manager.manager().Stop(); }}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(ModelTest, AFailingWalkShrinksToTheEventsThatMatter) {
  constexpr uint64_t kSeed = 23;
  // A manager that counts one retry too many as soon as its first domain is known.
  const auto tamper = [](size_t, NtpTimeManagerPeer& manager) {
    if (!manager.domain_infos().empty()) {
      manager.total_retry_count() = 99;
    }
  };
  const std::vector<Event> events = DrawWalk(kSeed);
  ASSERT_NE(RunWalk(kSeed, events, tamper).difference, "");
  const std::vector<Event> shrunk = ShrinkWalk(kSeed, events, 2000, tamper);
  // A domain list, something that lets its task run, and the event that compares.
  EXPECT_LE(shrunk.size(), 4u);
  EXPECT_NE(RunWalk(kSeed, shrunk, tamper).difference, "");
}

TEST(ModelTest, ShrinkingStopsAtItsLimitOfRuns) {
  constexpr uint64_t kSeed = 29;
  int runs = 0;
  const auto tamper = [&runs](size_t event, NtpTimeManagerPeer& manager) {
    runs += event == 0 ? 1 : 0;
    manager.total_retry_count() = 99;
  };
  ShrinkWalk(kSeed, DrawWalk(kSeed), 3, tamper);
  EXPECT_LE(runs, 3);
}

}  // namespace
}  // namespace skorra::model
