// SPDX-License-Identifier: Apache-2.0

// What the work costs as it grows: scale_bench [--tiny]
//
// Samples in one evaluation, observers of one outcome, threads that read at the same time. Each cost is the
// processor time of the least of several runs. Exit status 1 when one grows faster than n log n: the slope of
// its logarithm over that of n, for the larger half of the sizes, is above kMaxExponent.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ntp/offset_estimation.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/base/time.h"
#include "testing/ntp_queue.h"
#include "testing/ntp_time_manager_peer.h"

namespace {

// From 1,000 to 100,000 the slope of n log n is 1.11; the rest is for caches and noise.
constexpr double kMaxExponent = 1.3;

int64_t UsedNs(clockid_t clock) {
  timespec used{};
  clock_gettime(clock, &used);
  return int64_t{used.tv_sec} * 1'000'000'000 + used.tv_nsec;
}

// The processor time of the whole process for `work`, in ns: the least of five.
int64_t Cost(const std::function<void()>& prepare, const std::function<void()>& work) {
  int64_t least_ns = INT64_MAX;
  for (int i = 0; i < 5; ++i) {
    prepare();
    const int64_t before_ns = UsedNs(CLOCK_PROCESS_CPUTIME_ID);
    work();
    least_ns = std::min(least_ns, UsedNs(CLOCK_PROCESS_CPUTIME_ID) - before_ns);
  }
  return least_ns;
}

int64_t CostOfSamples(int count) {
  std::vector<skorra::NtpResultData> samples;
  // Other samples in each run: the processor learns the order of a few hundred by heart.
  uint64_t state = 1;
  const auto fill = [&] {
    samples.assign(static_cast<size_t>(count), {});
    for (auto& sample : samples) {
      state = state * 6364136223846793005 + 1442695040888963407;
      sample.offset_us = static_cast<int64_t>(state >> 44);
    }
  };
  volatile int64_t kept = 0;
  return Cost(fill, [&] {
    skorra::SortAndTrim(samples);
    kept = skorra::EstimateOffset(samples).mean_offset_us;
  });
}

class Counter : public skorra::NtpTimeManager::Observer {
 public:
  void OnNtpResult(skorra::NtpResult, const std::string&, const net::IPEndPoint&) override { ++count; }
  int count = 0;
};

// One that is never destroyed: its queue may still be at work.
skorra::NtpTimeManagerPeer& NewManager() {
  static base::NoDestructor<std::deque<skorra::NtpTimeManagerPeer>> managers;
  return managers->emplace_back();
}

int64_t CostOfObservers(int count) {
  skorra::NtpTimeManagerPeer& peer = NewManager();
  std::vector<std::shared_ptr<Counter>> observers;
  for (int i = 0; i < count; ++i) {
    observers.push_back(std::make_shared<Counter>());
    peer.observers().push_back(observers.back());
  }
  const int64_t cost_ns =
      Cost([] {}, [&] { skorra::RunOnNtpQueue([&] { peer.Notify(skorra::NtpResult::kSuccess, {}); }); });
  for (const auto& observer : observers) {
    if (observer->count != 5) {
      std::fprintf(stderr, "scale_bench: an observer heard %d of 5 outcomes\n", observer->count);
      std::exit(1);
    }
  }
  return cost_ns;
}

int64_t CostOfThreads(int count) {
  skorra::NtpTimeManagerPeer& peer = NewManager();
  peer.KeepGoodResult(2500);
  peer.last_check_local_time_ms() = base::Time::Now().ToDeltaSinceWindowsEpoch().InMilliseconds();
  return Cost([] {},
              [&] {
                std::vector<std::thread> threads;
                for (int i = 0; i < count; ++i) {
                  threads.emplace_back([&] {
                    for (int read = 0; read < 20000; ++read) {
                      peer.manager().GetNtpTimestampFrom1970();
                    }
                  });
                }
                for (std::thread& thread : threads) {
                  thread.join();
                }
              });
}

// Prints a row for each size. Returns whether the cost grows slowly enough.
bool Measure(const char* name, std::vector<int> sizes, size_t rows, int64_t (*cost)(int)) {
  sizes.resize(std::min(sizes.size(), rows));
  std::vector<double> x;
  std::vector<double> y;
  for (const int size : sizes) {
    const int64_t cost_ns = cost(size);
    std::printf("%-10s %8d %14.1f us %10.1f ns each\n", name, size, static_cast<double>(cost_ns) / 1000,
                static_cast<double>(cost_ns) / size);
    x.push_back(std::log(size));
    y.push_back(std::log(static_cast<double>(cost_ns)));
  }
  const size_t from = x.size() / 2 - (x.size() > 2 ? 1 : 0);
  const double exponent = (y.back() - y[from]) / (x.back() - x[from]);
  std::printf("%-10s exponent %.2f, at most %.2f\n\n", name, exponent, kMaxExponent);
  return exponent <= kMaxExponent;
}

}  // namespace

int main(int argc, char** argv) {
  const bool is_tiny = argc > 1 && std::strcmp(argv[1], "--tiny") == 0;
  const size_t rows = is_tiny ? 3 : 100;
  base::SetLogThreshold(base::kLogNothing);
  const bool is_good[] = {Measure("samples", {3, 30, 300, 3000, 30000, 100000}, rows, &CostOfSamples),
                          Measure("observers", {1, 10, 100, 1000, 10000}, rows, &CostOfObservers),
                          Measure("threads", {1, 2, 4, 8, 16, 32, 64}, rows, &CostOfThreads)};
  return std::all_of(std::begin(is_good), std::end(is_good), [](bool good) { return good; }) ? 0 : 1;
}
