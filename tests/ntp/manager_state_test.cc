// SPDX-License-Identifier: Apache-2.0

// The manager's face and its state when nothing has happened yet, and the records.
#include <atomic>
#include <thread>
#include <type_traits>

#include "ntp/ntp_sync_events.h"
#include "platform/base/clock.h"
#include "testing/manager_fixture.h"

namespace skorra {
namespace {

TEST_F(ManagerTest, TwoThreadsThatAskFirstAtTheSameTimeGetTheSameManager) {
  std::atomic<int> ready{0};
  NtpTimeManager* seen[2] = {nullptr, nullptr};
  const auto ask = [&](int i) {
    ++ready;
    while (ready.load() < 2) {
    }
    seen[i] = NtpTimeManager::GetInstance();
  };
  std::thread first(ask, 0);
  std::thread second(ask, 1);
  first.join();
  second.join();
  EXPECT_NE(seen[0], nullptr);
  EXPECT_EQ(seen[0], seen[1]);
  EXPECT_EQ(NtpTimeManager::GetInstance(), seen[0]);
}

TEST_F(ManagerTest, AFreshManagerHoldsNothing) {
  EXPECT_EQ(peer.packet_handler(), nullptr);
  EXPECT_TRUE(peer.domain_results().empty());
  EXPECT_TRUE(peer.domain_infos().empty());
  EXPECT_TRUE(peer.observers().empty());
  EXPECT_EQ(peer.total_retry_count(), 0u);
  EXPECT_EQ(peer.current_domain_info(), nullptr);
  EXPECT_EQ(peer.ntp_offset_us(), INT64_MAX);
  EXPECT_EQ(peer.last_result(), NtpResult::kNoResult);
  EXPECT_FALSE(peer.is_rtt_reliable());
  EXPECT_FALSE(peer.is_reliable());
  EXPECT_EQ(peer.system_offset_from_steady_us(), base::GetSystemTimeOffsetFromSteady());
  EXPECT_EQ(peer.last_sync_ntp_timestamp_us(), 0);
  EXPECT_EQ(peer.last_sync_local_time_ms(), 0);
  EXPECT_EQ(peer.last_request_cost_ms(), 0u);
  EXPECT_FALSE(peer.is_started());
  EXPECT_TRUE(peer.is_sync_finished());
  EXPECT_EQ(peer.last_check_local_time_ms(), 0);
  EXPECT_TRUE(peer.function_request_stats().empty());
  EXPECT_EQ(peer.start_count(), 0u);
  EXPECT_FALSE(peer.deviation_found());
}

TEST_F(ManagerTest, MakingAManagerPostsNothingAndLogsNothing) {
  EXPECT_TRUE(world.posted().empty());
  EXPECT_TRUE(log.empty());
}

TEST_F(ManagerTest, TheSystemOffsetIsThatOfTheMomentOfConstruction) {
  world.StepWall(S(100));
  NtpTimeManagerPeer later;
  EXPECT_EQ(later.system_offset_from_steady_us() - peer.system_offset_from_steady_us(), 100000000);
}

TEST_F(ManagerTest, ACallThroughTheClientBaseReachesTheSameObject) {
  NtpTimePacketHandler::Client* const client = &peer.manager();
  client->OnFirstPacketReceived(4321);
  EXPECT_EQ(peer.ntp_offset_us(), 4321);
  EXPECT_EQ(manager().GetNtpTimestampFrom1970(), world.wall_us() + 4321 - base::kWindowsToUnixEpochUs);
}

TEST(SyncRecordsTest, AFreshDomainRecordHoldsNoResultAndNoOpenRequest) {
  const NtpDomainResult record;
  EXPECT_EQ(record.offset_us, INT64_MAX);
  EXPECT_EQ(record.result, NtpResult::kNoResult);
  EXPECT_FALSE(record.is_rtt_reliable);
  EXPECT_FALSE(record.is_reliable);
  EXPECT_EQ(record.sample_count, 0u);
  EXPECT_EQ(record.cost_ms, 0u);
  EXPECT_EQ(record.last_request_cost_ms, 0u);
  EXPECT_EQ(record.request_start_time_us, 0);
  EXPECT_EQ(record.last_request_start_time_us, 0);
  EXPECT_FALSE(record.is_requesting);
  EXPECT_TRUE(record.endpoint.address_empty());
}

TEST(SyncRecordsTest, FreshRequestStatisticsAreOfTypeOneAndOtherwiseZero) {
  const NtpFunctionRequestStats stats;
  EXPECT_EQ(stats.function_type, 1);
  EXPECT_EQ(stats.average_cost_ms, 0u);
  EXPECT_EQ(stats.max_cost_ms, 0u);
  EXPECT_EQ(stats.request_count, 0u);
  EXPECT_EQ(stats.success_count, 0u);
  EXPECT_EQ(stats.failure_count, 0u);
  EXPECT_EQ(stats.total_cost_ms, 0u);
}

TEST(SyncRecordsTest, RecordsAreEqualWhenNoFieldDiffers) {
  NtpDomainResult asked;
  EXPECT_TRUE(asked == NtpDomainResult());
  EXPECT_FALSE(asked != NtpDomainResult());
  asked.is_requesting = true;
  EXPECT_FALSE(asked == NtpDomainResult());
  EXPECT_TRUE(asked != NtpDomainResult());

  NtpFunctionRequestStats counted;
  EXPECT_TRUE(counted == NtpFunctionRequestStats());
  EXPECT_FALSE(counted != NtpFunctionRequestStats());
  counted.total_cost_ms = 1;
  EXPECT_FALSE(counted == NtpFunctionRequestStats());
  EXPECT_TRUE(counted != NtpFunctionRequestStats());
}

TEST(SyncRecordsTest, ExchangesAreEqualWhenNoFieldDiffers) {
  using Change = void (*)(NtpExchange&);
  const Change changes[] = {
      [](NtpExchange& e) { e.sample.offset_us = 1; },
      [](NtpExchange& e) { e.sample.rtt_us = 1; },
      [](NtpExchange& e) { e.send_local_us = 1; },
      [](NtpExchange& e) { e.server_receive_us = 1; },
      [](NtpExchange& e) { e.server_transmit_us = 1; },
      [](NtpExchange& e) { e.receive_local_us = 1; },
      [](NtpExchange& e) { e.system_offset_from_steady_us = 1; },
      [](NtpExchange& e) { e.root_delay_us = 1; },
      [](NtpExchange& e) { e.root_dispersion_us = 1; },
      [](NtpExchange& e) { e.precision = 1; },
      [](NtpExchange& e) { e.stratum = 1; },
      [](NtpExchange& e) { e.leap_indicator = 1; },
      [](NtpExchange& e) { e.reference_id = 1; },
      [](NtpExchange& e) { e.send_stamp = NtpStampSource::kKernel; },
      [](NtpExchange& e) { e.receive_stamp = NtpStampSource::kKernel; },
      [](NtpExchange& e) { e.server = Address("192.0.2.1"); },
      [](NtpExchange& e) { e.domain = "one.test"; },
  };
  EXPECT_TRUE(NtpExchange() == NtpExchange());
  EXPECT_FALSE(NtpExchange() != NtpExchange());
  for (const Change& change : changes) {
    SCOPED_TRACE(&change - changes);
    NtpExchange changed;
    change(changed);
    EXPECT_FALSE(changed == NtpExchange());
    EXPECT_TRUE(changed != NtpExchange());
  }
}

TEST(SyncRecordsTest, AFreshReportHoldsNothing) {
  const NtpTimeSyncStats report;
  EXPECT_TRUE(report.function_request_stats.empty());
  EXPECT_EQ(report.start_count, 0u);
  EXPECT_FALSE(report.deviation_found);
}

TEST(SyncRecordsTest, FreshEventsHoldNothing) {
  const NtpDomainEvaluated evaluated;
  EXPECT_EQ(evaluated.first_kept, 0u);
  EXPECT_EQ(evaluated.kept_count, 0u);
  EXPECT_TRUE(evaluated.record == NtpDomainResult());
  const NtpAttemptEnded ended;
  EXPECT_EQ(ended.end, NtpAttemptEnd::kOutcome);
  EXPECT_EQ(ended.result, NtpResult::kNoResult);
  EXPECT_TRUE(ended.record == NtpDomainResult());
  EXPECT_FALSE(ended.is_kept);
  EXPECT_TRUE(NtpSampleAccepted().exchange == NtpExchange());
}

TEST(SyncRecordsTest, ResultCodesAreMinusOneZeroAndOneWithATextEach) {
  static_assert(std::is_same_v<std::underlying_type_t<NtpResult>, int32_t>);
  EXPECT_EQ(static_cast<int>(NtpResult::kNoResult), -1);
  EXPECT_EQ(static_cast<int>(NtpResult::kSuccess), 0);
  EXPECT_EQ(static_cast<int>(NtpResult::kMaybeInaccurate), 1);
  EXPECT_EQ(GetResultMessage(NtpResult::kNoResult), "no usable result");
  EXPECT_EQ(GetResultMessage(NtpResult::kSuccess), "success");
  EXPECT_EQ(GetResultMessage(NtpResult::kMaybeInaccurate), "the result may be inaccurate");
  EXPECT_EQ(GetResultMessage(static_cast<NtpResult>(2)), "unknown result");
}

TEST_F(ManagerTest, TheStatisticsAreEmptyRightAfterAReport) {
  peer.CalculateStatsResult(true, 100, 2);
  ASSERT_EQ(peer.function_request_stats().size(), 1u);
  EXPECT_EQ(manager().GetAndResetNtpQualityStats().function_request_stats.size(), 1u);
  EXPECT_TRUE(peer.function_request_stats().empty());
}

}  // namespace
}  // namespace skorra
