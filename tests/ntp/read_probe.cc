// SPDX-License-Identifier: Apache-2.0

// What one read of the clock costs in calls: runs reads in both healthy states of a manager, and those of
// NtpClock, and counts the allocations, the lock operations and the clock readings that they make. Ends with
// status 1 when there is any allocation or lock, or another number of clock readings than two (quiet) and
// five (due), three for NtpClock's Read, IsAfter and IsBefore, and one for its now,
// and the same for the two reads in C.
//
//   read_probe [READS]
//
// Run it under `strace -c -f` with two numbers of reads: the system calls must be the same.
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "c/skorra_ntp.h"
#include "clock/ntp_clock.h"
#include "testing/ntp_time_manager_peer.h"
#include "testing/process_clock.h"
#include "testing/time_call_names.h"

namespace {

std::atomic<long> allocations{0};
std::atomic<long> locks{0};
std::atomic<long> clock_readings{0};

}  // namespace

// The program is linked with --wrap for these, so every call of the library comes through here.
extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  locks.fetch_add(1, std::memory_order_relaxed);
  return __real_pthread_mutex_lock(mutex);
}
int __real_clock_gettime(clockid_t clock, timespec* time) asm("__real_" SKORRA_CLOCK_GETTIME);
int __wrap_clock_gettime(clockid_t clock, timespec* time) asm("__wrap_" SKORRA_CLOCK_GETTIME);
int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  clock_readings.fetch_add(1, std::memory_order_relaxed);
  return __real_clock_gettime(clock, time);
}
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return __real_malloc(size);
}
}

void* operator new(size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = __real_malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace {

struct Expected {
  long each;      // clock readings of a read
  long once = 0;  // and of the first one besides
};

// Calls `read`, which returns a time in microseconds, `count` times and prints what that took. True when it
// took nothing but the expected readings.
template <class Function>
bool Probe(const char* state, long count, Expected expected, const Function& read) {
  allocations = 0;
  locks = 0;
  clock_readings = 0;
  int64_t last_us = 0;
  bool is_monotonic = true;
  for (long i = 0; i < count; ++i) {
    const int64_t now_us = read();
    is_monotonic = is_monotonic && now_us >= last_us && now_us > 0;
    last_us = now_us;
  }
  std::printf("%s: %ld reads, %ld allocations, %ld locks, %ld clock readings\n", state, count,
              allocations.load(), locks.load(), clock_readings.load());
  // A reader that was put aside between its three clocks takes 18 more readings, which is seldom.
  const long more = clock_readings - count * expected.each - expected.once;
  const bool is_expected =
      more == 0 || (expected.each == 3 && more % 18 == 0 && more > 0 && more / 18 < count / 100);
  return is_monotonic && allocations == 0 && locks == 0 && is_expected;
}

bool ProbeManager(const char* state, skorra::NtpTimeManager& manager, long count, long expected_readings) {
  return Probe(state, count, {expected_readings}, [&] { return manager.GetNtpTimestampFrom1970(); });
}

bool ProbeClock(long count) {
  using skorra::NtpClock;
  skorra::NtpTimeManagerPeer peer(*skorra::NtpTimeManager::GetInstance());
  skorra::PublishTimeInProcess(peer);
  NtpClock::Read();  // the first that finds work builds what does it
  const NtpClock::time_point never = NtpClock::time_point::max();
  bool is_clean = Probe("NtpClock::Read", count, {3}, [] { return NtpClock::Read().best_estimate_us; });
  is_clean = Probe("NtpClock::now", count, {1},
                   [] { return static_cast<int64_t>(NtpClock::now().time_since_epoch().count()); }) &&
             is_clean;
  is_clean =
      Probe("NtpClock::IsAfter", count, {3}, [&] { return NtpClock::IsAfter(never) ? 0 : 1; }) && is_clean;
  is_clean =
      Probe("NtpClock::IsBefore", count, {3}, [&] { return NtpClock::IsBefore(never) ? 1 : 0; }) && is_clean;
  is_clean = Probe("skorra_ntp_now_us", count, {1}, [] { return skorra_ntp_now_us(); }) && is_clean;
  skorra_ntp_reading reading{};
  reading.struct_size = sizeof reading;
  is_clean =
      Probe("skorra_ntp_read", count, {3},
            [&] { return skorra_ntp_read(&reading) == SKORRA_NTP_OK ? reading.best_estimate_us : 0; }) &&
      is_clean;
  // What is due is handed to the manager once, which makes its own five readings.
  skorra::PublishTimeInProcess(peer);
  is_clean = Probe("NtpClock::Read, due", count, {3, 5}, [] { return NtpClock::Read().best_estimate_us; }) &&
             is_clean;
  skorra::PublishTimeInProcess(peer);
  is_clean = Probe("NtpClock::now, due", count, {1, 5},
                   [] { return static_cast<int64_t>(NtpClock::now().time_since_epoch().count()); }) &&
             is_clean;
  return is_clean;
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc > 1 ? std::atol(argv[1]) : 1000;
  // A counter that counts nothing would prove nothing.
  {
    const std::unique_ptr<int> probe(new int(0));
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
    if (count < 1 || allocations == 0 || locks == 0) {
      std::fputs("the counters do not count, or READS is not a positive number\n", stderr);
      return 1;
    }
  }
  skorra::NtpTimeManagerPeer peer;
  peer.KeepGoodResult(2500);
  // The first read of a process that looks at the configuration builds the configuration centre.
  peer.manager().GetNtpTimestampFrom1970();
  const bool is_due_clean = ProbeManager("due", peer.manager(), count, 5);
  peer.last_check_local_time_ms() = base::Time::Now().ToDeltaSinceWindowsEpoch().InMilliseconds();
  const bool is_quiet_clean = ProbeManager("quiet", peer.manager(), count, 2);
  return ProbeClock(count) && is_due_clean && is_quiet_clean ? 0 : 1;
}
