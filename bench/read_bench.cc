// SPDX-License-Identifier: Apache-2.0

// What a read of the network clock costs, as a ratio to bare clock readings in the same run.
//
//   read_bench [--json FILE] [--tiny]
//   read_bench --reads NAME COUNT
//
// --reads makes so many reads of one row and nothing else, for a tool that counts instructions.
//
// States: `read_quiet` has a result and is not due; `read_due` has a result and is due, and both checks pass,
// as in 50 of the 60 minutes between two syncs. `bounded_read` is NtpClock::Read and `ntp_clock_now` is
// NtpClock::now, in a process whose manager is due as well. Floors: one, two and five calls of clock_gettime.
// The repetitions of all of them are interleaved at random, and the ratios are those of the medians.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "clock/ntp_clock.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "testing/ntp_time_manager_peer.h"
#include "testing/process_clock.h"

namespace {

using skorra::NtpTimeManagerPeer;

void Read(benchmark::State& state, NtpTimeManagerPeer& peer) {
  skorra::NtpTimeManager* const manager = &peer.manager();
  for (auto _ : state) {
    benchmark::DoNotOptimize(manager->GetNtpTimestampFrom1970());
  }
}

NtpTimeManagerPeer& Peer() {
  static base::NoDestructor<NtpTimeManagerPeer> peer;
  return *peer;
}

int64_t NowMs() { return base::Time::Now().ToDeltaSinceWindowsEpoch().InMilliseconds(); }

// Before each repetition: a good result of this moment.
void BeQuiet() {
  Peer().KeepGoodResult(2500);
  Peer().last_check_local_time_ms() = NowMs();
}

void BeDue() {
  Peer().KeepGoodResult(2500);
  Peer().last_check_local_time_ms() = 0;
}

void MakeQuiet(const benchmark::State& /*state*/) { BeQuiet(); }
void MakeDue(const benchmark::State& /*state*/) { BeDue(); }

void ReadQuiet(benchmark::State& state) { Read(state, Peer()); }

void ReadDue(benchmark::State& state) {
  Read(state, Peer());
  // A thread that is put aside for 5 ms between its two clock readings sees the clocks run apart, starts a
  // sync and turns the state into the quiet one: such a repetition does not count.
  state.counters["interrupted"] = Peer().last_check_local_time_ms() != 0;
}

NtpTimeManagerPeer& PeerOfProcess() {
  static base::NoDestructor<NtpTimeManagerPeer> peer(*skorra::NtpTimeManager::GetInstance());
  return *peer;
}

void MakeClockDue(const benchmark::State& /*state*/) { skorra::PublishTimeInProcess(PeerOfProcess()); }

void BoundedRead(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(skorra::NtpClock::Read());
  }
  const skorra::NtpClockReading reading = skorra::NtpClock::Read();
  state.counters["interrupted"] =
      reading.status != skorra::NtpClockStatus::kSynchronized || reading.error_bound_us > 50000;
}

void NtpClockNow(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(skorra::NtpClock::now());
  }
}

template <int kReadings>
void Floor(benchmark::State& state) {
  timespec time{};
  for (auto _ : state) {
    for (int i = 0; i < kReadings; ++i) {
      clock_gettime(i % 2 == 0 ? CLOCK_REALTIME : CLOCK_BOOTTIME, &time);
      benchmark::DoNotOptimize(time);
    }
  }
}

BENCHMARK(ReadQuiet)->Name("read_quiet")->Setup(MakeQuiet)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(ReadDue)->Name("read_due")->Setup(MakeDue)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BoundedRead)->Name("bounded_read")->Setup(MakeClockDue)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(NtpClockNow)->Name("ntp_clock_now")->Setup(MakeClockDue)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(Floor<1>)->Name("floor_one_clock_read")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(Floor<2>)->Name("floor_two_clock_reads")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(Floor<5>)->Name("floor_five_clock_reads")->Threads(1)->Threads(2)->UseRealTime();

// Collects the repetitions, in nanoseconds per read, by name and number of threads.
class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto interrupted = run.counters.find("interrupted");
      const bool counts = interrupted == run.counters.end() || interrupted->second.value == 0;
      if (run.run_type == Run::RT_Iteration && counts) {
        const double ns = run.real_accumulated_time / static_cast<double>(run.iterations) * 1e9;
        repetitions_ns_[run.run_name.function_name][static_cast<int>(run.threads)].push_back(ns);
      }
    }
  }

  // The median, or 0 when no repetition counted.
  double MedianNs(const std::string& name, int threads) {
    std::vector<double>& repetitions = repetitions_ns_[name][threads];
    if (repetitions.empty()) {
      return 0;
    }
    std::sort(repetitions.begin(), repetitions.end());
    return repetitions[repetitions.size() / 2];
  }

 private:
  std::map<std::string, std::map<int, std::vector<double>>> repetitions_ns_;
};

struct Row {
  const char* name;
  double target;  // the largest ratio to one clock reading that is good enough; 0: none
};
constexpr Row kRows[] = {{"read_quiet", 2.1},          {"read_due", 5.6},
                         {"bounded_read", 3.3},        {"ntp_clock_now", 1.3},
                         {"floor_one_clock_read", 0},  {"floor_two_clock_reads", 0},
                         {"floor_five_clock_reads", 0}};

void PrintTable(Collector& collector, int threads) {
  const double floor_ns = collector.MedianNs("floor_one_clock_read", threads);
  std::printf("\n%d thread%s\n%-24s %10s %8s %8s\n", threads, threads == 1 ? "" : "s", "", "ns/read", "ratio",
              "target");
  for (const Row& row : kRows) {
    const double ns = collector.MedianNs(row.name, threads);
    std::printf("%-24s %10.2f %8.2f", row.name, ns, ns / floor_ns);
    if (row.target > 0) {
      std::printf(" %8.1f", row.target);
    }
    std::printf("\n");
  }
}

bool WriteJson(Collector& collector, const std::string& path) {
  std::FILE* const file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    std::fprintf(stderr, "cannot write %s: check that its folder exists and may be written\n", path.c_str());
    return false;
  }
  std::fputs("[\n", file);
  const char* separator = "";
  for (const int threads : {1, 2}) {
    const double floor_ns = collector.MedianNs("floor_one_clock_read", threads);
    for (const Row& row : kRows) {
      const double ns = collector.MedianNs(row.name, threads);
      std::fprintf(file, "%s  {\"name\": \"%s\", \"threads\": %d, \"ns_per_read\": %.3f, \"ratio\": %.3f}",
                   separator, row.name, threads, ns, ns / floor_ns);
      separator = ",\n";
    }
  }
  std::fputs("\n]\n", file);
  return std::fclose(file) == 0;
}

template <class Function>
bool Repeat(int64_t count, const Function& read) {
  for (int64_t i = 0; i < count; ++i) {
    read();
  }
  return true;
}

// Returns false if there is no row of this name that can be counted.
bool MakeReads(const std::string& name, int64_t count) {
  if (name == "floor_one_clock_read") {
    timespec time{};
    return Repeat(count, [&time] {
      clock_gettime(CLOCK_BOOTTIME, &time);
      benchmark::DoNotOptimize(time);
    });
  }
  if (name == "read_quiet" || name == "read_due") {
    name == "read_due" ? BeDue() : BeQuiet();
    skorra::NtpTimeManager* const manager = &Peer().manager();
    return Repeat(count, [manager] { benchmark::DoNotOptimize(manager->GetNtpTimestampFrom1970()); });
  }
  skorra::PublishTimeInProcess(PeerOfProcess());
  if (name == "bounded_read") {
    return Repeat(count, [] { benchmark::DoNotOptimize(skorra::NtpClock::Read()); });
  }
  return name == "ntp_clock_now" && Repeat(count, [] { benchmark::DoNotOptimize(skorra::NtpClock::now()); });
}

}  // namespace

int main(int argc, char** argv) {
  std::string json_path;
  bool is_tiny = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0 && i + 1 < argc) {
      json_path = argv[++i];
    } else if (std::strcmp(argv[i], "--tiny") == 0) {
      is_tiny = true;
    } else if (argc == 4 && std::strcmp(argv[1], "--reads") == 0) {
      return MakeReads(argv[2], std::atoll(argv[3])) ? 0 : 64;
    } else {
      std::fputs("usage: read_bench [--json FILE] [--tiny] | --reads NAME COUNT\n", stderr);
      return 64;
    }
  }
  std::vector<std::string> arguments{argv[0], "--benchmark_enable_random_interleaving=true",
                                     is_tiny ? "--benchmark_repetitions=2" : "--benchmark_repetitions=15",
                                     is_tiny ? "--benchmark_min_time=0.001" : "--benchmark_min_time=0.1"};
  std::vector<char*> pointers;
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  int count = static_cast<int>(pointers.size());
  base::SetLogThreshold(base::kLogNothing);
  benchmark::Initialize(&count, pointers.data());
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  for (const int threads : {1, 2}) {
    PrintTable(collector, threads);
  }
  for (const Row& row : kRows) {
    if (collector.MedianNs(row.name, 1) == 0 || collector.MedianNs(row.name, 2) == 0) {
      std::fprintf(stderr, "%s: no repetition went through undisturbed; run again on a quieter machine\n",
                   row.name);
      return 1;
    }
  }
  return json_path.empty() || WriteJson(collector, json_path) ? 0 : 1;
}
