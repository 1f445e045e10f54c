// SPDX-License-Identifier: Apache-2.0
#include "clock/published_reading.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "gtest/gtest.h"

namespace skorra {
namespace {

// All members tell the same number.
ClockSnapshot Numbered(int64_t n) {
  ClockSnapshot snapshot;
  snapshot.status = static_cast<NtpClockStatus>(n % 6);
  snapshot.result = n % 2 == 0 ? NtpResult::kSuccess : NtpResult::kNoResult;
  snapshot.clocks = {.boot_ns = n, .raw_ns = n, .monotonic_ns = n};
  snapshot.reading_error_ns = n;
  snapshot.estimate_us = n;
  snapshot.earliest_us = -n;
  snapshot.latest_us = n;
  snapshot.error_estimate_us = n;
  snapshot.growth = n;
  snapshot.prior_growth = n;
  snapshot.rate = n;
  snapshot.middle_rate = n;
  snapshot.frequency = -n;
  snapshot.leap = static_cast<LeapWarning>(n % 3);
  snapshot.leap_us = n;
  snapshot.fresh_for_ns = n;
  snapshot.disruption_marker = n;
  snapshot.domain = n % 2 == 0 ? "even" : "odd";
  return snapshot;
}

bool IsSame(const ClockSnapshot& a, const ClockSnapshot& b) {
  return a.status == b.status && a.result == b.result && a.clocks.boot_ns == b.clocks.boot_ns &&
         a.clocks.raw_ns == b.clocks.raw_ns && a.clocks.monotonic_ns == b.clocks.monotonic_ns &&
         a.reading_error_ns == b.reading_error_ns && a.estimate_us == b.estimate_us &&
         a.earliest_us == b.earliest_us && a.latest_us == b.latest_us &&
         a.error_estimate_us == b.error_estimate_us && a.growth == b.growth &&
         a.prior_growth == b.prior_growth && a.rate == b.rate && a.middle_rate == b.middle_rate &&
         a.frequency == b.frequency && a.leap == b.leap && a.leap_us == b.leap_us &&
         a.fresh_for_ns == b.fresh_for_ns && a.disruption_marker == b.disruption_marker &&
         a.domain[0] == b.domain[0];
}

TEST(PublishedReadingTest, BeforeTheFirstPublicationThereIsNoTime) {
  const PublishedReading published;
  const ClockSnapshot snapshot = published.Read();
  EXPECT_EQ(snapshot.result, NtpResult::kNoResult);
  EXPECT_EQ(snapshot.status, NtpClockStatus::kUnknown);
  EXPECT_STREQ(snapshot.domain, "");
}

TEST(PublishedReadingTest, EveryMemberArrives) {
  PublishedReading published;
  for (int64_t n = 1; n < 100; ++n) {
    published.Publish(Numbered(n));
    ASSERT_TRUE(IsSame(published.Read(), Numbered(n))) << n;
    ASSERT_TRUE(IsSame(published.Read(), Numbered(n))) << n;
  }
}

TEST(PublishedReadingTest, ReadersSeeNoMixtureAndNeverAnOlderSnapshot) {
  constexpr int64_t kPublications = 200000;
  constexpr int kReaders = 3;
  PublishedReading published;
  published.Publish(Numbered(0));
  std::atomic<int> readers_ready{0};
  std::atomic<bool> is_over{false};
  std::atomic<int64_t> mixtures{0};
  std::atomic<int64_t> steps_back{0};
  std::atomic<int64_t> changes{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      int64_t last = 0;
      ++readers_ready;
      while (!is_over.load(std::memory_order_relaxed)) {
        const ClockSnapshot snapshot = published.Read();
        const int64_t n = snapshot.estimate_us;
        mixtures += IsSame(snapshot, Numbered(n)) ? 0 : 1;
        steps_back += n < last ? 1 : 0;
        changes += n != last ? 1 : 0;
        last = n;
      }
    });
  }
  while (readers_ready < kReaders) {
    std::this_thread::yield();
  }
  int64_t n = 0;
  // Where one core does it all, the readers have to get their turns.
  while (n < kPublications || changes < kReaders) {
    published.Publish(Numbered(++n));
  }
  is_over = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(mixtures, 0);
  EXPECT_EQ(steps_back, 0);
  EXPECT_TRUE(IsSame(published.Read(), Numbered(n)));
}

}  // namespace
}  // namespace skorra
