// SPDX-License-Identifier: Apache-2.0
#include "platform/metrics/key_metrics.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>
#include <vector>

namespace base {
namespace {

// Counters live as long as the process, so each test uses keys and names of its own.

TEST(KeyMetricsTest, AKeyCountsWhatIsAdded) {
  EXPECT_EQ(KeyMetrics::GetPV(101), 0u);
  KeyMetrics::CountPV(101, 1);
  KeyMetrics::CountPV(101, 41);
  EXPECT_EQ(KeyMetrics::GetPV(101), 42u);
  EXPECT_EQ(KeyMetrics::GetPV(102), 0u);
}

TEST(KeyMetricsTest, AValueBelowOneAddsNothing) {
  KeyMetrics::CountPV(201, 5);
  KeyMetrics::CountPV(201, 0);
  KeyMetrics::CountPV(201, -3);
  KeyMetrics::CountPV(201, std::numeric_limits<int>::min());
  KeyMetrics::CountPV(202, 0);
  EXPECT_EQ(KeyMetrics::GetPV(201), 5u);
  EXPECT_EQ(KeyMetrics::GetAllPV().count(202), 0u);
}

TEST(KeyMetricsTest, AKeyHoldsMoreThan32Bits) {
  KeyMetrics::CountPV(301, std::numeric_limits<int>::max());
  KeyMetrics::CountPV(301, std::numeric_limits<int>::max());
  KeyMetrics::CountPV(301, std::numeric_limits<int>::max());
  EXPECT_EQ(KeyMetrics::GetPV(301), uint64_t{3} * 2147483647);
}

TEST(KeyMetricsTest, ANameCountsItsOccurrences) {
  EXPECT_EQ(KeyMetrics::GetCount("test.counted"), 0u);
  KeyMetrics::Count("test.counted");
  KeyMetrics::Count("test.counted");
  EXPECT_EQ(KeyMetrics::GetCount("test.counted"), 2u);
  EXPECT_EQ(KeyMetrics::GetCount("test.count"), 0u);
}

TEST(KeyMetricsTest, AllCountersCanBeListed) {
  KeyMetrics::CountPV(401, 3);
  KeyMetrics::Count("test.listed");
  EXPECT_EQ(KeyMetrics::GetAllPV().at(401), 3u);
  EXPECT_EQ(KeyMetrics::GetAllCounts().at("test.listed"), 1u);
}

TEST(KeyMetricsTest, NoCountOfManyThreadsIsLost) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < 1000; ++n) {
        KeyMetrics::CountPV(501, 2);
        KeyMetrics::Count("test.threads");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(KeyMetrics::GetPV(501), 8000u);
  EXPECT_EQ(KeyMetrics::GetCount("test.threads"), 4000u);
}

}  // namespace
}  // namespace base
