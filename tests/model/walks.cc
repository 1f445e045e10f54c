// SPDX-License-Identifier: Apache-2.0
#include "tests/model/walks.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <new>
#include <vector>

#include "tests/model/walk.h"
#include "tests/scenarios/table.h"

namespace skorra {
namespace {

constexpr int kProcesses = 2;
constexpr int kMaxShrinkRuns = 600;

// In memory that the processes share.
struct Progress {
  std::atomic<long> walks{0};
  std::atomic<long> events{0};
  std::atomic<long> steps{0};
  std::atomic<long> ambiguous{0};
};

uint64_t WalkSeed(uint64_t seed, long walk) {
  return model::Mix(seed ^ model::Mix(static_cast<uint64_t>(walk)));
}

double MonotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void PrintDifference(uint64_t seed, const model::WalkResult& result, std::vector<model::Event> events) {
  events.resize(result.event_count);
  std::printf("walk seed %llu differs after event %zu:\n%s", static_cast<unsigned long long>(seed),
              result.event_count, Broken(result.difference, 6).c_str());
  const std::vector<model::Event> shrunk = model::ShrinkWalk(seed, events, kMaxShrinkRuns);
  std::printf("shrunk to %zu events:\n", shrunk.size());
  for (const model::Event& event : shrunk) {
    std::fputs(Broken("  " + model::Describe(event), 6).c_str(), stdout);
  }
  std::printf("after which:\n%s", Broken(model::RunWalk(seed, shrunk).difference, 6).c_str());
  std::fflush(stdout);
}

// Runs the walk drawn from `walk_seed`; false when it shows a difference. A walk that a tie ends early is
// made good by another one.
bool RunWholeWalk(uint64_t walk_seed, Progress& progress) {
  while (true) {
    const std::vector<model::Event> events = model::DrawWalk(walk_seed);
    const model::WalkResult result = model::RunWalk(walk_seed, events);
    progress.events.fetch_add(static_cast<long>(result.event_count), std::memory_order_relaxed);
    progress.steps.fetch_add(static_cast<long>(result.step_count), std::memory_order_relaxed);
    if (!result.difference.empty()) {
      PrintDifference(walk_seed, result, events);
      return false;
    }
    if (!result.is_ambiguous) {
      progress.walks.fetch_add(1, std::memory_order_relaxed);
      return true;
    }
    progress.ambiguous.fetch_add(1, std::memory_order_relaxed);
    walk_seed = model::Mix(walk_seed);
  }
}

// The walks first, first + kProcesses, ... Returns 0, or 1 at the first difference.
int RunShare(long first, long count, uint64_t seed, Progress& progress) {
  for (long walk = first; walk < count; walk += kProcesses) {
    if (!RunWholeWalk(WalkSeed(seed, walk), progress)) {
      return 1;
    }
  }
  return 0;
}

// True once all are done; with `*status` set to 1 when one of them failed.
bool ReapAll(std::array<pid_t, kProcesses>& children, int* status) {
  bool is_done = true;
  for (pid_t& child : children) {
    int child_status = 0;
    if (child > 0 && waitpid(child, &child_status, WNOHANG) == child) {
      child = 0;
      if (!WIFEXITED(child_status) || WEXITSTATUS(child_status) != 0) {
        *status = 1;
      }
    }
    is_done = is_done && child == 0;
  }
  return is_done;
}

void PrintProgress(const Progress& progress, long count, double seconds, char end) {
  std::printf("%ld of %ld walks, %ld events, %ld steps, %ld ties, %.1f s%c", progress.walks.load(), count,
              progress.events.load(), progress.steps.load(), progress.ambiguous.load(), seconds, end);
  std::fflush(stdout);
}

}  // namespace

uint64_t FreshWalkSeed() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  // Short enough to be typed.
  return model::Mix(static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec)) >>
         32;
}

int RunWalks(long count, uint64_t seed) {
  std::printf("%ld walks, seed %llu\n", count, static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  void* const shared =
      mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    std::perror("mmap");
    return 1;
  }
  auto* const progress = new (shared) Progress;
  const double start_s = MonotonicSeconds();
  std::array<pid_t, kProcesses> children{};
  int status = 0;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      // Not through exit: what the parent registered is the parent's to run.
      _exit(RunShare(i, count, seed, *progress));
    }
    if (child < 0) {
      std::perror("fork");
      status = 1;
    }
    children[static_cast<size_t>(i)] = std::max<pid_t>(child, 0);
  }
  const bool is_terminal = isatty(STDOUT_FILENO) != 0;
  double next_print_s = start_s;
  while (!ReapAll(children, &status)) {
    const timespec pause{0, 50000000};
    nanosleep(&pause, nullptr);
    if (MonotonicSeconds() >= next_print_s) {
      next_print_s = MonotonicSeconds() + (is_terminal ? 0.5 : 30);
      PrintProgress(*progress, count, MonotonicSeconds() - start_s, is_terminal ? '\r' : '\n');
    }
  }
  PrintProgress(*progress, count, MonotonicSeconds() - start_s, '\n');
  if (progress->walks.load() != count && status == 0) {
    std::printf("some walks were not run\n");
    status = 1;
  }
  std::printf(status == 0 ? "no difference\n" : "DIFFERENT\n");
  munmap(shared, sizeof(Progress));
  return status;
}

int RunOneWalk(uint64_t walk_seed) {
  const std::vector<model::Event> events = model::DrawWalk(walk_seed);
  const model::WalkResult result = model::RunWalk(walk_seed, events);
  if (result.difference.empty()) {
    std::printf("walk seed %llu: no difference\n", static_cast<unsigned long long>(walk_seed));
    return 0;
  }
  PrintDifference(walk_seed, result, events);
  return 1;
}

}  // namespace skorra
