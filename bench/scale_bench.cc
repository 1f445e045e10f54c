// SPDX-License-Identifier: Apache-2.0

// What the work costs as it grows: scale_bench [--tiny] [--json FILE]
//
// Samples in one evaluation, observers of one outcome, threads that read at the same time, domains in one
// attempt (many_domains.h). Each cost is the processor time of the least of several runs. Then the clock runs
// on real sockets until nothing is left to do, and the times that its threads wake up in a minute are counted
// (idle_minute.h). Exit status 1 when
//   - a cost grows faster than n log n: the slope of its logarithm over that of n, for the larger half of the
//     sizes, is above kMaxExponent;
//   - requests to one domain are not 10 ms apart within 20 %: their median distance, and the one that 95 %
//     stay below, must lie in 8 to 12 ms. Other programs on the machine delay requests, too: of five attempts
//     the best one counts, and up to fifteen are made until one is good;
//   - a thread woke up in the idle minute.
// --tiny measures the smallest sizes, and looks neither at distances nor at the minute: what else runs on the
// machine would decide.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/idle_minute.h"
#include "bench/many_domains.h"
#include "ntp/offset_estimation.h"
#include "platform/base/log.h"
#include "platform/base/time.h"
#include "testing/ntp_queue.h"
#include "testing/ntp_time_manager_peer.h"

namespace {

// From 1,000 to 100,000 the slope of n log n is 1.11; the rest is for caches and noise.
constexpr double kMaxExponent = 1.3;
// 10 ms within 20 %.
constexpr int64_t kMinDistanceUs = 8000;
constexpr int64_t kMaxDistanceUs = 12000;

double Ms(int64_t us) { return static_cast<double>(us) / 1000; }

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

int64_t CostOfObservers(int count) {
  skorra::NtpTimeManagerPeer& peer = skorra::MakeManager();
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
  skorra::NtpTimeManagerPeer& peer = skorra::MakeManager();
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

// Whether all requests came, 10 ms apart.
bool AreDistancesKept(int domains, const skorra::ManyDomainsRun& run) {
  return run.median_us >= kMinDistanceUs && run.high_us <= kMaxDistanceUs &&
         run.requests == uint64_t{20} * static_cast<uint64_t>(domains);
}

// The least processor time of all attempts, and the distances of the most regular one.
skorra::ManyDomainsRun BestAttempt(int domains) {
  skorra::ManyDomainsRun best;
  for (int i = 0; i < 5 || (i < 15 && !AreDistancesKept(domains, best)); ++i) {
    skorra::ManyDomainsRun run = skorra::AskManyDomains(domains);
    if (!run.has_ended) {
      std::fprintf(stderr, "scale_bench: an attempt with %d domains did not end as expected\n", domains);
      std::exit(1);
    }
    if (best.has_ended) {
      run.queue_ns = best.queue_ns = std::min(run.queue_ns, best.queue_ns);
    }
    if (!best.has_ended || run.high_us < best.high_us) {
      best = run;
    }
  }
  return best;
}

std::map<int, skorra::ManyDomainsRun> attempts;

int64_t CostOfDomains(int count) { return (attempts[count] = BestAttempt(count)).queue_ns; }

// Prints the distances between requests. Returns whether they are kept.
bool PrintDistances() {
  bool are_kept = true;
  for (const auto& [domains, run] : attempts) {
    const bool is_kept = AreDistancesKept(domains, run);
    are_kept = are_kept && is_kept;
    std::printf("%-10s %8d requests %5.2f ms apart: 5 %% below %5.2f, 5 %% above %5.2f; %llu of %d came%s\n",
                "distances", domains, Ms(run.median_us), Ms(run.low_us), Ms(run.high_us),
                static_cast<unsigned long long>(run.requests), 20 * domains, is_kept ? "" : "; NOT KEPT");
  }
  std::printf("%-10s median and 95 %% in %.0f to %.0f ms: %s\n\n", "distances", Ms(kMinDistanceUs),
              Ms(kMaxDistanceUs), are_kept ? "kept" : "NOT KEPT");
  return are_kept;
}

// By name: how many, and what they cost in microseconds.
struct Series {
  std::string name;
  std::vector<std::pair<int, double>> rows;
};
std::vector<Series> all_series;

// Prints a row for each size. Returns whether the cost grows slowly enough.
bool Measure(const char* name, std::vector<int> sizes, size_t rows, int64_t (*cost)(int)) {
  sizes.resize(std::min(sizes.size(), rows));
  Series series{.name = name, .rows = {}};
  for (const int size : sizes) {
    const double cost_us = static_cast<double>(cost(size)) / 1000;
    std::printf("%-10s %8d %14.1f us %10.1f ns each\n", name, size, cost_us, cost_us * 1000 / size);
    std::fflush(stdout);
    series.rows.emplace_back(size, cost_us);
  }
  const auto& [from_n, from_us] = series.rows[sizes.size() / 2 - (sizes.size() > 2 ? 1 : 0)];
  const auto& [last_n, last_us] = series.rows.back();
  const double exponent = std::log(last_us / from_us) / std::log(static_cast<double>(last_n) / from_n);
  std::printf("%-10s exponent %.2f, at most %.2f\n\n", name, exponent, kMaxExponent);
  all_series.push_back(series);
  return exponent <= kMaxExponent;
}

bool WriteJson(const char* path) {
  std::FILE* const file = std::fopen(path, "w");
  if (file == nullptr) {
    std::fprintf(stderr, "scale_bench: cannot write '%s'\n", path);
    return false;
  }
  std::fputs("{\"cost_us\": {\n", file);
  for (const Series& series : all_series) {
    std::fprintf(file, "\"%s\": [", series.name.c_str());
    for (const auto& [size, cost_us] : series.rows) {
      std::fprintf(file, "%s[%d, %.1f]", size == series.rows.front().first ? "" : ", ", size, cost_us);
    }
    std::fprintf(file, "]%s\n", &series == &all_series.back() ? "" : ",");
  }
  std::fputs("}}\n", file);
  return std::fclose(file) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool is_tiny = false;
  const char* json_path = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--tiny") == 0) {
      is_tiny = true;
    } else if (std::strcmp(argv[i], "--json") == 0 && i + 1 < argc) {
      json_path = argv[++i];
    } else {
      std::fprintf(stderr, "scale_bench: '%s' is no option, or lacks its value\n", argv[i]);
      return 64;
    }
  }
  const size_t rows = is_tiny ? 3 : 100;
  const std::vector<int> domains = {1, 3, 10, 30, 100, 300, 1000};
  if (!skorra::HasDescriptorsFor(domains[std::min(rows, domains.size()) - 1])) {
    return 1;
  }
  base::SetLogThreshold(base::kLogNothing);
  bool is_good = true;
  is_good = Measure("samples", {3, 30, 300, 3000, 30000, 100000}, rows, &CostOfSamples) && is_good;
  is_good = Measure("observers", {1, 10, 100, 1000, 10000}, rows, &CostOfObservers) && is_good;
  is_good = Measure("threads", {1, 2, 4, 8, 16, 32, 64}, rows, &CostOfThreads) && is_good;
  is_good = Measure("domains", domains, rows, &CostOfDomains) && is_good;
  is_good = (PrintDistances() || is_tiny) && is_good;
  is_good = (is_tiny || skorra::IsIdleMinuteQuiet()) && is_good;
  is_good = (json_path == nullptr || WriteJson(json_path)) && is_good;
  return is_good ? 0 : 1;
}
