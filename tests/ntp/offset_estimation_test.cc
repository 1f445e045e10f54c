// SPDX-License-Identifier: Apache-2.0

// From samples to one offset: trimming, averaging and grading.
#include "testing/manager_fixture.h"
#include "testing/samples.h"

namespace skorra {
namespace {

const std::string kName = "192.0.2.11";

class OffsetEstimationTest : public ManagerTest {
 protected:
  struct Estimate {
    int64_t offset_us;
    bool is_rtt_reliable;
    bool is_reliable;
  };

  static std::vector<int64_t> Offsets(const Samples& samples) {
    std::vector<int64_t> offsets_us;
    for (const NtpResultData& sample : samples) {
      offsets_us.push_back(sample.offset_us);
    }
    return offsets_us;
  }

  // `flags_before` is what both flags hold when the call is made.
  Estimate EstimateFrom(Samples samples, bool flags_before = false) {
    Estimate estimate{0, flags_before, flags_before};
    world.RunAsTask(core::BusinessID::kNtpTime, [&] {
      estimate.offset_us =
          peer.CalculateResultReliableAndGetOffset(samples, estimate.is_rtt_reliable, estimate.is_reliable);
    });
    return estimate;
  }

  Samples Trim(Samples samples) {
    world.RunAsTask(core::BusinessID::kNtpTime, [&] { peer.SortAndSplitResultData(samples); });
    return samples;
  }

  // Evaluates the domain with these samples.
  NtpResult Evaluate(const Samples& samples) {
    if (peer.domain_infos().empty()) {
      AddDomains({kName});
      log.clear();
    }
    Domain(0)->samples() = samples;
    NtpResult result = NtpResult::kNoResult;
    world.RunAsTask(core::BusinessID::kNtpTime, [&] { result = peer.CalculateServerResult(Domain(0)); });
    return result;
  }
  NtpDomainResult& record() { return Record(kName); }
};

// --- Trimming.

TEST_F(OffsetEstimationTest, AQuarterRoundedDownIsCutOffAtEachEnd) {
  struct Case {
    size_t before;
    size_t kept;
  };
  const Case cases[] = {{0, 0},  {1, 1},  {2, 2},   {3, 3},   {4, 2},   {5, 3},     {6, 4},
                        {7, 5},  {8, 4},  {9, 5},   {10, 6},  {11, 7},  {12, 6},    {15, 9},
                        {16, 8}, {17, 9}, {19, 11}, {20, 10}, {21, 11}, {400, 200}, {403, 203}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.before);
    std::vector<int64_t> offsets_us;
    for (size_t i = 0; i < c.before; ++i) {
      offsets_us.push_back(static_cast<int64_t>(i));
    }
    const std::vector<int64_t> kept = Offsets(Trim(FromOffsets(offsets_us)));
    ASSERT_EQ(kept.size(), c.kept);
    for (size_t i = 0; i < kept.size(); ++i) {
      EXPECT_EQ(kept[i], static_cast<int64_t>(c.before / 4 + i)) << "the two ends are cut alike";
    }
  }
}

TEST_F(OffsetEstimationTest, SamplesAreSortedBySignedOffset) {
  EXPECT_THAT(Offsets(Trim(FromOffsets({3, -1, 2}))), ::testing::ElementsAre(-1, 2, 3));
  EXPECT_THAT(Offsets(Trim(FromOffsets({INT64_MAX, 0, INT64_MIN}))),
              ::testing::ElementsAre(INT64_MIN, 0, INT64_MAX));
  EXPECT_THAT(Offsets(Trim(FromOffsets({INT64_MIN, 0, INT64_MAX}))),
              ::testing::ElementsAre(INT64_MIN, 0, INT64_MAX));
  EXPECT_THAT(Offsets(Trim(FromOffsets({90, -90, 10, -10}))), ::testing::ElementsAre(-10, 10));
}

TEST_F(OffsetEstimationTest, RoundTripTimesTakeNoPartInTheOrder) {
  EXPECT_EQ(Trim({{1, 900}, {4, 1}, {2, 5}, {3, 7000}}), (Samples{{2, 5}, {3, 7000}}));
}

TEST_F(OffsetEstimationTest, SamplesWithEqualOffsetsAllCount) {
  EXPECT_EQ(Trim({{5, 1}, {5, 1}, {5, 1}, {5, 1}, {5, 1}}), (Samples{{5, 1}, {5, 1}, {5, 1}}));
}

// --- The mean offset.

TEST_F(OffsetEstimationTest, TheMeanIsTruncatedTowardZero) {
  struct Case {
    const char* what;
    std::vector<int64_t> offsets_us;
    int64_t mean_us;
  };
  const Case cases[] = {
      {"a negative mean goes up", {-3, -4}, -3},
      {"a positive mean goes down", {3, 4}, 3},
      {"just above zero", {0, 0, 1}, 0},
      {"just below zero", {-1, 0, 0}, 0},
      {"two thirds", {1, 1, 0}, 0},
      {"minus five thirds", {-2, -2, -1}, -1},
      {"nothing to truncate", {1000, 2000, 3000}, 2000},
      {"one sample", {-77}, -77},
      {"a hundred years", {3155760000000000, 3155760000000001, 3155760000000002}, 3155760000000001},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(EstimateFrom(FromOffsets(c.offsets_us)).offset_us, c.mean_us);
  }
}

TEST_F(OffsetEstimationTest, ASumOfOffsetsBeyondTheRangeWraps) {
  EXPECT_EQ(EstimateFrom(FromOffsets({INT64_MAX, INT64_MAX})).offset_us, -1);
}

TEST_F(OffsetEstimationTest, TheMeanIsReturnedWhetherOrNotTheTestsPass) {
  const Estimate estimate = EstimateFrom({{-500000, 10000}, {0, 900000}, {500003, 10000}});
  EXPECT_EQ(estimate.offset_us, 1);
  EXPECT_FALSE(estimate.is_rtt_reliable);
  EXPECT_FALSE(estimate.is_reliable);
}

// --- The spread of the offsets.

TEST_F(OffsetEstimationTest, AnOffset30MsFromTheMeanIsTooFar) {
  struct Case {
    const char* what;
    std::vector<int64_t> offsets_us;
    bool is_reliable;
  };
  const Case cases[] = {
      {"all alike", {7, 7, 7}, true},
      {"29999 us to both sides", {-29999, 0, 29999}, true},
      {"30000 us to both sides", {-30000, 0, 30000}, false},
      {"30001 us to both sides", {-30001, 0, 30001}, false},
      {"29999 us, the low side alone", {-29999, 14999, 15000}, true},
      {"30000 us, the low side alone", {-30000, 15000, 15000}, false},
      {"29999 us, the high side alone", {-15000, -14999, 29999}, true},
      {"30000 us, the high side alone", {-15000, -15000, 30000}, false},
      {"the mean is far from zero", {1000000000, 1000000000, 1000059998}, false},
      {"the farthest offset comes first", {-44998, 15000, 15000, 14998}, false},
      {"it is the largest distance, not the mean one", {-29999, 29999, 0, 0, 0, 0}, true},
      {"the distance to the truncated mean is 29999", {0, 59999}, false},
      {"29999 to the truncated mean on both sides", {0, 59998}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    for (const bool before : {false, true}) {
      const Estimate estimate = EstimateFrom(FromOffsets(c.offsets_us), before);
      EXPECT_EQ(estimate.is_reliable, c.is_reliable);
      EXPECT_TRUE(estimate.is_rtt_reliable);
    }
  }
}

// --- The spread of the round-trip times.

TEST_F(OffsetEstimationTest, TheLimitOnTheDeviationOfRoundTripTimesGrowsWithTheirMean) {
  struct Case {
    const char* what;
    std::vector<int64_t> rtts_us;
    bool is_rtt_reliable;
  };
  const Case cases[] = {
      {"identical times deviate by 0", {20000, 20000, 20000}, true},
      {"identical times of zero", {0, 0, 0}, true},
      {"short path, 15 ms", {35000, 65000}, false},
      {"short path, just below 15 ms", {35001, 65000}, true},
      {"short path, just above 15 ms", {34999, 65000}, false},
      {"mean just below 100 ms still has the short path's limit", {84000, 115999}, false},
      {"mean exactly 100 ms has the medium path's limit", {84000, 116000}, true},
      {"medium path, 20 ms", {80000, 120000}, false},
      {"medium path, just below 20 ms", {80001, 120000}, true},
      {"medium path, just above 20 ms", {130000, 170001}, false},
      {"mean just below 200 ms still has the medium path's limit", {174000, 225999}, false},
      {"mean exactly 200 ms has the long path's limit", {174000, 226000}, true},
      {"both borders at once: mean 200 ms, 30 ms", {170000, 230000}, false},
      {"... and mean 200 ms, just below 30 ms", {170001, 229999}, true},
      {"long path, 30 ms", {220000, 280000}, false},
      {"long path, just below 30 ms", {220001, 280000}, true},
      {"long path, just above 30 ms", {219999, 280000}, false},
      {"a very long path has no larger limit", {1970000, 2030000}, false},
      {"the divisor is the number of samples: 14 ms, not 16", {36000, 36000, 64000, 64000}, true},
      {"... and with three samples 14.14 ms, not 17.3", {20000, 20000, 50000}, true},
      {"one outlier among steady times", {20000, 20000, 20000, 20000, 20000, 80000}, false},
      {"negative times have the short path's limit", {-65000, -35000}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    for (const bool before : {false, true}) {
      const Estimate estimate = EstimateFrom(FromRtts(c.rtts_us), before);
      EXPECT_EQ(estimate.is_rtt_reliable, c.is_rtt_reliable);
      EXPECT_TRUE(estimate.is_reliable);
    }
  }
}

// --- The line about an unreliable result.

TEST_F(OffsetEstimationTest, AReliableResultIsNotLogged) {
  EstimateFrom({{1, 20000}, {2, 21000}, {3, 22000}});
  EXPECT_TRUE(log.empty());
}

TEST_F(OffsetEstimationTest, AResultWithUnsteadyRoundTripTimesIsLoggedWithItsFourMeasures) {
  EstimateFrom({{-10, 35000}, {-14, 65000}});
  EXPECT_THAT(log, ::testing::ElementsAre(Line{
                       0, "Not reliable rtt stdev:15.000000, avg:50.000000, offset max_dev:2, avg:-12"}));
}

TEST_F(OffsetEstimationTest, EqualOffsetsDeviateBy0) {
  EstimateFrom({{7, 35000}, {7, 65000}});
  EXPECT_THAT(log, ::testing::ElementsAre(
                       Line{0, "Not reliable rtt stdev:15.000000, avg:50.000000, offset max_dev:0, avg:7"}));
}

TEST_F(OffsetEstimationTest, AResultWithScatteredOffsetsIsLoggedWithItsFourMeasures) {
  EstimateFrom({{-30000, 20000}, {90000, 21000}});
  EXPECT_THAT(log, ::testing::ElementsAre(Line{0,
                                               "Not reliable rtt stdev:0.500000, avg:20.500000, offset "
                                               "max_dev:60000, avg:30000"}));
}

TEST_F(OffsetEstimationTest, AResultThatFailsBothTestsIsLoggedOnce) {
  EstimateFrom({{0, 100}, {3000000000000, 200000100}});
  EXPECT_THAT(log, ::testing::ElementsAre(Line{0,
                                               "Not reliable rtt stdev:100000.000000, avg:100000.100000, "
                                               "offset max_dev:1500000000000, avg:1500000000000"}));
}

// --- Evaluating a domain.

TEST_F(OffsetEstimationTest, TooFewSamplesGiveNoResultAndLeaveTheGradesOfTheRecord) {
  for (size_t count = 0; count <= 2; ++count) {
    for (const bool flag : {false, true}) {
      SCOPED_TRACE(count);
      Evaluate({});
      record().offset_us = 4242;
      record().result = NtpResult::kMaybeInaccurate;
      record().is_rtt_reliable = flag;
      record().is_reliable = !flag;
      record().sample_count = 9;
      EXPECT_EQ(Evaluate(Samples(count, NtpResultData{1, 20000})), NtpResult::kNoResult);
      EXPECT_EQ(record().offset_us, INT64_MAX);
      EXPECT_EQ(record().result, NtpResult::kNoResult);
      EXPECT_EQ(record().is_rtt_reliable, flag);
      EXPECT_EQ(record().is_reliable, !flag);
      EXPECT_EQ(record().sample_count, 9u);
      EXPECT_TRUE(Domain(0)->samples().empty());
      EXPECT_TRUE(log.empty());
    }
  }
}

TEST_F(OffsetEstimationTest, ThreeSamplesAreUsedAsTheyAre) {
  EXPECT_EQ(Evaluate(FromOffsets({29000, -20000, 0})), NtpResult::kSuccess);
  EXPECT_EQ(record().offset_us, 3000);
  EXPECT_EQ(record().sample_count, 3u);
}

TEST_F(OffsetEstimationTest, OfFourSamplesTheTwoInTheMiddleAreUsed) {
  EXPECT_EQ(Evaluate(FromOffsets({9000000, 40, -9000000, 20})), NtpResult::kSuccess);
  EXPECT_EQ(record().offset_us, 30);
  EXPECT_EQ(record().sample_count, 2u);
}

TEST_F(OffsetEstimationTest, OfSixSamplesTheFourInTheMiddleAreUsed) {
  EXPECT_EQ(Evaluate(FromOffsets({10, 9000000, 20, -9000000, 30, 41})), NtpResult::kSuccess);
  EXPECT_EQ(record().offset_us, 25);
  EXPECT_EQ(record().sample_count, 4u);
}

TEST_F(OffsetEstimationTest, TheCodeIsThatOfTheTwoTests) {
  struct Case {
    const char* what;
    Samples samples;
    bool is_rtt_reliable;
    bool is_reliable;
    NtpResult result;
  };
  const Case cases[] = {
      {"both pass", {{100, 20000}, {200, 20000}, {300, 20000}}, true, true, NtpResult::kSuccess},
      {"one outlying round-trip time among steady ones",
       {{100, 20000}, {200, 90000}, {300, 20000}},
       false,
       true,
       NtpResult::kMaybeInaccurate},
      {"scattered offsets",
       {{-99800, 20000}, {200, 20000}, {100200, 20000}},
       true,
       false,
       NtpResult::kMaybeInaccurate},
      {"both fail",
       {{-99800, 20000}, {200, 90000}, {100200, 20000}},
       false,
       false,
       NtpResult::kMaybeInaccurate},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Evaluate(c.samples), c.result);
    EXPECT_EQ(record().result, c.result);
    EXPECT_EQ(record().is_rtt_reliable, c.is_rtt_reliable);
    EXPECT_EQ(record().is_reliable, c.is_reliable);
    EXPECT_EQ(record().offset_us, 200);
    EXPECT_EQ(record().sample_count, 3u);
    EXPECT_TRUE(Domain(0)->samples().empty());
  }
}

TEST_F(OffsetEstimationTest, AnExtremeRoundTripTimeWithAMiddlingOffsetIsNotCutOff) {
  const Samples samples = {{100, 20000}, {200, 20000}, {300, 900000}, {400, 20000}, {500, 20000}};
  EXPECT_EQ(Evaluate(samples), NtpResult::kMaybeInaccurate);
  EXPECT_FALSE(record().is_rtt_reliable);
  EXPECT_TRUE(record().is_reliable);
  EXPECT_EQ(record().offset_us, 300);
}

TEST_F(OffsetEstimationTest, AnExtremeRoundTripTimeWithAnExtremeOffsetIsCutOff) {
  const Samples samples = {{100, 900000}, {200, 20000}, {300, 20000}, {400, 20000}, {90500, 900000}};
  EXPECT_EQ(Evaluate(samples), NtpResult::kSuccess);
  EXPECT_EQ(record().offset_us, 300);
  EXPECT_TRUE(log.empty());
}

TEST_F(OffsetEstimationTest, AnEvaluationChangesNothingElseInTheRecord) {
  Evaluate({});
  NtpDomainResult expected;
  expected.cost_ms = 5;
  expected.last_request_cost_ms = 6;
  expected.request_start_time_us = 7;
  expected.last_request_start_time_us = 8;
  expected.is_requesting = true;
  expected.endpoint = Address(kName);
  record() = expected;
  EXPECT_EQ(Evaluate(FromOffsets({50, 50, 50})), NtpResult::kSuccess);
  expected.offset_us = 50;
  expected.result = NtpResult::kSuccess;
  expected.is_rtt_reliable = true;
  expected.is_reliable = true;
  expected.sample_count = 3;
  EXPECT_EQ(record(), expected);
}

TEST_F(OffsetEstimationTest, ADomainWithoutARecordHasNoResultAndKeepsItsSamples) {
  Evaluate({});
  peer.domain_results().clear();
  const Samples samples = FromOffsets({3, 2, 1, 0});
  EXPECT_EQ(Evaluate(samples), NtpResult::kNoResult);
  EXPECT_EQ(Domain(0)->samples(), samples);
  EXPECT_TRUE(peer.domain_results().empty());
  EXPECT_THAT(log, ::testing::ElementsAre(Line{1, "Not query domain:192.0.2.11"}));
}

TEST_F(OffsetEstimationTest, ARetrySeesOnlyTheSamplesOfItsOwnBurst) {
  world.SetHost("two.test", {{Address("192.0.2.21"), Address("192.0.2.22")}});
  BeginAttempt({"two.test"});
  Receive(Address("192.0.2.21"), FromOffsets({1000000, 1000000}));
  world.RunFor(S(3));
  Receive(Address("192.0.2.22"), FromOffsets({10, 20, 30}));
  world.RunFor(S(3));
  ASSERT_EQ(observer->outcomes.size(), 1u);
  EXPECT_EQ(observer->outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(peer.ntp_offset_us(), 20);
}

TEST_F(OffsetEstimationTest, TheClockErrorOfASteadyServerIsFoundToTheMicrosecond) {
  network.AddServer(
      Address(kName),
      {.clock_error_us = -123457, .to_server = {.delay_us = 7000}, .to_client = {.delay_us = 7000}});
  AddDomains({kName});
  Sync();
  ASSERT_EQ(observer->outcomes.at(0).result, NtpResult::kSuccess);
  EXPECT_EQ(peer.ntp_offset_us(), -123457);
  EXPECT_EQ(manager().GetNtpTimestampFrom1970(), world.true_us() - 123457 - base::kWindowsToUnixEpochUs);
}

TEST_F(OffsetEstimationTest, AFewLyingRepliesDoNotMoveTheResult) {
  network.AddServer(Address(kName), {.clock_error_us = 2000, .script = [](netmodel::Exchange& exchange) {
                                       if (exchange.index % 5 == 0) {
                                         exchange.clock_error_us += 3600000000;
                                       }
                                     }});
  AddDomains({kName});
  Sync();
  ASSERT_EQ(observer->outcomes.at(0).result, NtpResult::kSuccess);
  EXPECT_EQ(peer.ntp_offset_us(), 2000);
}

}  // namespace
}  // namespace skorra
