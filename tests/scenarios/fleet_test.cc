// SPDX-License-Identifier: Apache-2.0

// A slice of the fleet: 20 processes for four hours, the third of them without an answer.
#include "tests/scenarios/fleet.h"

#include <cstdint>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace skorra {
namespace {

constexpr int kProcesses = 20;
constexpr int64_t kHourS = 3600;
constexpr FleetOptions kSlice = {.processes = kProcesses,
                                 .seed = 1,
                                 .duration_s = 4 * kHourS,
                                 .outage_from_s = 2 * kHourS,
                                 .outage_to_s = 3 * kHourS};
// Of one sync, by the defaults.
constexpr int kRequests = 20;

FleetLoad Play(const std::string& name, const FleetOptions& options = kSlice) {
  for (const FleetKind& kind : AllFleetKinds()) {
    if (kind.name == name) {
      return PlayFleet(kind, options);
    }
  }
  ADD_FAILURE() << "no kind is called " << name;
  return FleetLoad(static_cast<size_t>(options.duration_s));
}

// Requests from one second to another.
uint64_t Count(const FleetLoad& load, int64_t from_s, int64_t to_s) {
  uint64_t count = 0;
  for (int64_t second = from_s; second < to_s; ++second) {
    count += load.at(static_cast<size_t>(second));
  }
  return count;
}

// From the first to the last second with a request.
int64_t SpreadS(const FleetLoad& load, int64_t from_s, int64_t to_s) {
  int64_t first_s = -1;
  int64_t last_s = -1;
  for (int64_t second = from_s; second < to_s; ++second) {
    if (load.at(static_cast<size_t>(second)) > 0) {
      first_s = first_s < 0 ? second : first_s;
      last_s = second;
    }
  }
  return last_s - first_s;
}

TEST(FleetTest, OneSyncCostsTwentyRequestsOf48BytesToEachServer) {
  const std::vector<AttemptCost> costs = MeasureAttempts();
  ASSERT_EQ(costs.size(), 7u);
  const size_t requests[] = {20, 8, 80, 32, 40, 2, 2};
  const size_t replies[] = {20, 8, 80, 32, 0, 2, 2};
  for (size_t i = 0; i < costs.size(); ++i) {
    SCOPED_TRACE(costs[i].name);
    EXPECT_EQ(costs[i].requests, requests[i]);
    EXPECT_EQ(costs[i].replies, replies[i]);
    EXPECT_EQ(costs[i].request_bytes, 48u);
  }
}

TEST(FleetTest, ProcessesThatBeganTogetherStayTogether) {
  // The manager goes by the reads, which come every 10 s.
  const struct {
    const char* kind;
    int64_t max_spread_s;
  } cases[] = {{"manager", 60 + 10}, {"keeper", 60 + 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.kind);
    const FleetLoad load = Play(c.kind);
    EXPECT_EQ(Count(load, 0, 120), uint64_t{kProcesses * kRequests});
    EXPECT_EQ(Count(load, 120, kHourS), 0u);
    EXPECT_EQ(Count(load, kHourS, kSlice.outage_from_s), uint64_t{kProcesses * kRequests});
    EXPECT_LE(SpreadS(load, kHourS, kSlice.outage_from_s), c.max_spread_s);
  }
}

TEST(FleetTest, IntervalsOfTheirOwnSpreadThemOverAQuarterOfAnHour) {
  for (const char* kind : {"manager, own intervals", "keeper, own intervals"}) {
    SCOPED_TRACE(kind);
    const FleetLoad load = Play(kind);
    EXPECT_EQ(Count(load, 120, kHourS + 120), uint64_t{kProcesses * kRequests});
    EXPECT_GE(SpreadS(load, 120, kHourS + 120), 600);
  }
}

TEST(FleetTest, TheKeepersComeBackWithinAQuarterOfAnHourAndApart) {
  const FleetLoad load = Play("keeper");
  // About 15 silent attempts, farther and farther apart, with two bursts each.
  EXPECT_GE(Count(load, kSlice.outage_from_s, kSlice.outage_to_s), uint64_t{kProcesses * 14 * 2 * kRequests});
  EXPECT_LE(Count(load, kSlice.outage_from_s, kSlice.outage_to_s), uint64_t{kProcesses * 16 * 2 * kRequests});
  EXPECT_EQ(Count(load, kSlice.outage_to_s, kSlice.outage_to_s + 920), uint64_t{kProcesses * kRequests});
  EXPECT_GE(SpreadS(load, kSlice.outage_to_s, kSlice.outage_to_s + 920), 400);
}

TEST(FleetTest, TheManagersComeBackWithinElevenMinutesAndTogether) {
  const FleetLoad load = Play("manager");
  // An attempt every 10 minutes, as long as the process reads.
  EXPECT_EQ(Count(load, kSlice.outage_to_s, kSlice.outage_to_s + 660), uint64_t{kProcesses * kRequests});
  EXPECT_LE(SpreadS(load, kSlice.outage_to_s, kSlice.outage_to_s + 660), 120);
}

TEST(FleetTest, ASeedRepeatsADay) {
  FleetOptions options = kSlice;
  options.processes = 3;
  const FleetLoad load = Play("keeper", options);
  EXPECT_EQ(load, Play("keeper", options));
  options.seed = 2;
  EXPECT_NE(load, Play("keeper", options));
}

TEST(FleetTest, TheFiguresOfALoadAreCounted) {
  FleetLoad load(180);
  load[59] = 6;
  load[60] = 30;
  load[119] = 30;
  load[120] = 54;
  const LoadFigures figures = FiguresOf(load, 0, 180);
  EXPECT_DOUBLE_EQ(figures.mean, 120.0 / 180);
  EXPECT_EQ(figures.busiest_second, 54u);
  EXPECT_DOUBLE_EQ(figures.busiest_minute, 1.0);
  EXPECT_EQ(figures.busy_seconds, 4u);
}

}  // namespace
}  // namespace skorra
