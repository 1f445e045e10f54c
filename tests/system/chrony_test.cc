// SPDX-License-Identifier: Apache-2.0

// Syncs against a real NTP server that somebody else wrote, which serves the machine's own clock: the offset
// is zero.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>

#include "ntp/ntp_time_manager.h"
#include "platform/base/lock.h"
#include "platform/base/thread_annotations.h"
#include "platform/base/time.h"
#include "platform/core/thread_manager.h"
#include "testing/child_process.h"
#include "testing/chronyd.h"
#include "testing/clock_reading.h"
#include "testing/ntp_queue.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

using Family = net::IPEndPoint::Family;

struct Outcome {
  NtpResult result;
  std::string message;
  net::IPEndPoint server;
  bool was_on_queue;
};

class Recorder : public NtpTimeManager::Observer {
 public:
  void OnNtpResult(NtpResult result, const std::string& message, const net::IPEndPoint& server) override {
    const base::AutoLock guard(lock_);
    outcomes_.push_back({result, message, server, NtpQueue()->IsCurrent()});
  }

  std::vector<Outcome> outcomes() const {
    const base::AutoLock guard(lock_);
    return outcomes_;
  }

 private:
  mutable base::Lock lock_;
  std::vector<Outcome> outcomes_ SKORRA_GUARDED_BY(lock_);
};

// Between NTP time and the system clock. Of several pairs of readings the closest, since the thread may be
// put aside between the two.
int64_t SmallestDifferenceUs() {
  int64_t smallest_us = std::numeric_limits<int64_t>::max();
  for (int i = 0; i < 10; ++i) {
    const ClockReading reading;
    smallest_us = std::min<int64_t>(smallest_us, std::llabs(reading.ntp_us - reading.wall_after_us));
  }
  return smallest_us;
}

class ChronyTest : public testing::TestWithParam<Family> {
 protected:
  void SetUp() override {
    if (const std::string reason = Chronyd::WhyNotHere(GetParam()); !reason.empty()) {
      GTEST_SKIP() << reason;
    }
  }
};

// The manager keeps its result for the life of the process, so each family needs a process of its own.
TEST_P(ChronyTest, TheManagerSyncsAndTellsItsObserverOnce) {
  const Chronyd server(GetParam());
  ASSERT_TRUE(server.IsUp());
  const auto recorder = std::make_shared<Recorder>();
  auto* const manager = NtpTimeManager::GetInstance();
  manager->AddObserver(recorder);
  manager->UpdateNtpTimeDomain({server.endpoint().ToString()});
  ASSERT_EQ(manager->Start(), 0);
  ASSERT_TRUE(WaitUntil([&] { return !recorder->outcomes().empty(); }));
  ASSERT_TRUE(DrainNtpQueue());

  const auto outcomes = recorder->outcomes();
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0].result, NtpResult::kSuccess);
  EXPECT_EQ(outcomes[0].message, "success");
  EXPECT_EQ(outcomes[0].server, server.endpoint());
  EXPECT_TRUE(outcomes[0].was_on_queue);
  EXPECT_FALSE(NtpQueue()->IsCurrent());

  const int64_t difference_us = SmallestDifferenceUs();
  EXPECT_LT(difference_us, 5000);
  RecordProperty("offset_us", std::to_string(difference_us));
}

TEST_P(ChronyTest, TheProgramSyncsWithinMilliseconds) {
  const Chronyd server(GetParam());
  ASSERT_TRUE(server.IsUp());
  const ChildExit exit = RunChild({SKORRA_NTP_PROGRAM, "sync", server.endpoint().ToString(), "--json"});
  ASSERT_EQ(exit.status, 0) << exit.out << exit.err;
  const auto json = nlohmann::json::parse(exit.out);
  EXPECT_EQ(json["result"], 0);
  EXPECT_EQ(json["server"], server.endpoint().ToString());
  EXPECT_LT(std::llabs(json["offset_us"].get<int64_t>()), 2000);
  // A fifth of a second is usual; the library's own limit for one burst is 3 s.
  EXPECT_LT(json["took_ms"], 3000);
  RecordProperty("took_ms", json["took_ms"].dump());
  RecordProperty("offset_us", json["offset_us"].dump());
}

INSTANTIATE_TEST_SUITE_P(Families, ChronyTest, testing::Values(Family::kIPv4, Family::kIPv6),
                         [](const auto& family) {
                           return std::string(family.param == Family::kIPv4 ? "IPv4" : "IPv6");
                         });

}  // namespace
}  // namespace skorra
