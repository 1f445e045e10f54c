// SPDX-License-Identifier: Apache-2.0

// Everything at once on real threads, against servers on loopback. SKORRA_STRESS_SECONDS sets how long (3 by
// default); the thread sanitizer is its natural companion.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "ntp/ntp_time_manager.h"
#include "platform/base/lock.h"
#include "platform/base/random.h"
#include "platform/base/thread_annotations.h"
#include "platform/config/base_cfg.h"
#include "testing/clock_reading.h"
#include "testing/config_scope.h"
#include "testing/counting_observer.h"
#include "testing/environment_number.h"
#include "testing/loopback_demo_server.h"
#include "testing/ntp_queue.h"

namespace skorra {
namespace {

constexpr int64_t kClockErrorUs = 7000000;
constexpr int kWholeAttempt = 2;
constexpr uint64_t kMaxStressSeconds = 86400;

int StressSeconds() {
  return static_cast<int>(EnvironmentNumber("SKORRA_STRESS_SECONDS", 1, kMaxStressSeconds).value_or(3));
}

// Leaves and joins the list from inside its callback.
class Rejoiner : public NtpTimeManager::Observer, public std::enable_shared_from_this<Rejoiner> {
 public:
  void OnNtpResult(NtpResult, const std::string&, const net::IPEndPoint&) override {
    NtpTimeManager::GetInstance()->RemoveObserver(weak_from_this());
    NtpTimeManager::GetInstance()->AddObserver(weak_from_this());
  }
};

// Owners whose observers give themselves up during delivery.
class Leavers {
 public:
  void Join() {
    const auto leaver = std::make_shared<Leaver>(this);
    {
      const base::AutoLock guard(lock_);
      owned_ = leaver;
    }
    NtpTimeManager::GetInstance()->AddObserver(leaver);
  }

 private:
  class Leaver : public NtpTimeManager::Observer {
   public:
    explicit Leaver(Leavers* owner) : owner_(owner) {}
    void OnNtpResult(NtpResult, const std::string&, const net::IPEndPoint&) override { owner_->Release(); }

   private:
    Leavers* const owner_;
  };

  void Release() {
    const base::AutoLock guard(lock_);
    owned_ = nullptr;
  }

  base::Lock lock_;
  std::shared_ptr<NtpTimeManager::Observer> owned_ SKORRA_GUARDED_BY(lock_);
};

class ThreadStressTest : public testing::Test {
 protected:
  // Calls `step` again and again until the time is up, up to `max_pause_ms` apart.
  void Run(int count, int max_pause_ms, const std::function<void()>& step) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, max_pause_ms, step] {
        while (!is_over_.load()) {
          step();
          if (max_pause_ms > 0) {
            const auto pause = base::RandUint64() % static_cast<uint64_t>(max_pause_ms);
            std::this_thread::sleep_for(std::chrono::milliseconds(pause));
          }
        }
      });
    }
  }

  void FinishAfter(int seconds) {
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    is_over_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }

  std::atomic<bool> is_over_{false};
  std::vector<std::thread> threads_;
};

// What the reports said, added up.
struct Totals {
  void Add(const NtpTimeSyncStats& report) {
    const base::AutoLock guard(lock);
    starts += report.start_count;
    if (const auto found = report.function_request_stats.find(kWholeAttempt);
        found != report.function_request_stats.end()) {
      attempts += found->second.request_count;
      EXPECT_EQ(found->second.request_count, found->second.success_count + found->second.failure_count);
    }
  }

  base::Lock lock;
  uint32_t starts SKORRA_GUARDED_BY(lock) = 0;
  uint32_t attempts SKORRA_GUARDED_BY(lock) = 0;
};

TEST_F(ThreadStressTest, NothingIsLostAndNoReadIsWrong) {
  const auto first = OpenDemoServer({.clock_error_us = kClockErrorUs});
  const auto second = OpenDemoServer({.clock_error_us = kClockErrorUs});
  // A result is old after more than a second, so that attempts follow each other.
  ConfigScope config;
  config.Set(config::BaseCfg().ntp_sync_interval, 1);

  NtpTimeManager* const manager = NtpTimeManager::GetInstance();
  const auto counter = std::make_shared<CountingObserver>();
  manager->AddObserver(counter);
  std::vector<std::shared_ptr<Rejoiner>> rejoiners{std::make_shared<Rejoiner>(),
                                                   std::make_shared<Rejoiner>()};
  for (const auto& rejoiner : rejoiners) {
    manager->AddObserver(rejoiner);
  }
  Leavers leavers;
  Totals totals;
  std::atomic<uint32_t> start_calls{1};
  std::atomic<uint64_t> good_reads{0};
  std::atomic<uint64_t> wrong_reads{0};

  manager->UpdateNtpTimeDomain({first->local().ToString()});
  manager->Start();

  Run(8, 0, [&] {
    const ClockReading reading;
    if (reading.has_result()) {
      (reading.Shows(kClockErrorUs) ? good_reads : wrong_reads).fetch_add(1, std::memory_order_relaxed);
    }
  });
  Run(2, 100, [&] {
    manager->Start();
    start_calls.fetch_add(1);
  });
  Run(2, 2000, [&] { manager->Stop(); });
  Run(1, 50, [&] { leavers.Join(); });
  Run(1, 200, [&] {
    manager->UpdateNtpTimeDomain({first->local().ToString(), second->local().ToString(), "nosuch.invalid"});
  });
  Run(1, 100, [&] { totals.Add(manager->GetAndResetNtpQualityStats()); });
  FinishAfter(StressSeconds());

  // The stop cuts off an attempt that still runs; an outcome that is under way is delivered first.
  manager->Stop();
  ASSERT_TRUE(DrainNtpQueue());
  totals.Add(manager->GetAndResetNtpQualityStats());

  EXPECT_EQ(wrong_reads, 0u);
  EXPECT_GT(good_reads, 0u);
  const base::AutoLock guard(totals.lock);
  EXPECT_GT(totals.attempts, 0u);
  EXPECT_EQ(totals.attempts, counter->finished());
  EXPECT_EQ(totals.starts + 1, start_calls);  // the first report counts one start fewer
  std::printf("%llu reads, %u starts, %u attempts finished, %u results announced again\n",
              static_cast<unsigned long long>(good_reads.load()), start_calls.load(), counter->finished(),
              counter->repeats.load());
}

}  // namespace
}  // namespace skorra
