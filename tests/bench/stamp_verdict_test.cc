// SPDX-License-Identifier: Apache-2.0
#include "bench/stamp_verdict.h"

#include <gtest/gtest.h>

#include <vector>

namespace skorra {
namespace {

// `count` exchanges of the same kind.
struct Kind {
  size_t count;
  StampSample sample;
};

struct Row {
  const char* what;
  std::vector<Kind> kinds;
  StampJudgement expected;
};

StampJudgement Judge(const std::vector<Kind>& kinds) {
  std::vector<StampSample> samples;
  for (const Kind& kind : kinds) {
    samples.insert(samples.end(), kind.count, kind.sample);
  }
  return JudgeStamps(samples);
}

TEST(StampVerdictTest, TheVerdictIsTheShareOfDisturbedExchangesThatTheKernelMends) {
  const Row rows[] = {
      {"nothing was measured", {}, {0, 0, StampVerdict::kTooFewDisturbed}},
      {"nothing was disturbed", {{6000, {1, 199}}}, {0, 0, StampVerdict::kTooFewDisturbed}},
      {"one short of a verdict", {{19, {0, 200}}}, {19, 19, StampVerdict::kTooFewDisturbed}},
      {"enough, and all mended", {{20, {0, 200}}}, {20, 20, StampVerdict::kGood}},
      {"a sign is no size", {{20, {-20, -200}}}, {20, 20, StampVerdict::kGood}},
      {"a tenth is mended, more is not", {{80, {20, 200}}, {20, {21, 200}}}, {100, 80, StampVerdict::kGood}},
      {"one below the target", {{79, {20, 200}}, {21, {21, 200}}}, {100, 79, StampVerdict::kBad}},
      {"the kernel alone is wrong", {{20, {200, 0}}}, {20, 0, StampVerdict::kBad}},
      {"both are wrong alike", {{20, {5000, 5000}}}, {20, 0, StampVerdict::kBad}},
      {"one terrible exchange of the kernel decides nothing",
       {{50, {3, 2000}}, {1, {9000, 9000}}, {6000, {1, 2}}},
       {51, 50, StampVerdict::kGood}},
      {"one terrible exchange of user space decides nothing either",
       {{50, {500, 2000}}, {1, {3, 900000}}, {6000, {1, 2}}},
       {51, 1, StampVerdict::kBad}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const StampJudgement judgement = Judge(row.kinds);
    EXPECT_EQ(judgement.disturbed, row.expected.disturbed);
    EXPECT_EQ(judgement.mended, row.expected.mended);
    EXPECT_EQ(judgement.verdict, row.expected.verdict);
  }
}

}  // namespace
}  // namespace skorra
