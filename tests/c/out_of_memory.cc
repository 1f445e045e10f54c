// SPDX-License-Identifier: Apache-2.0

// Takes the memory away from each function of the C interface: its first allocation fails, then its second,
// and so on until it needs no more. Each time the function returns SKORRA_NTP_ERROR_NO_MEMORY, or has
// success, and afterwards the interface works as before: no lock is still held. Other things that are thrown
// are SKORRA_NTP_ERROR_INTERNAL. Ends with 1 and a message at the first check that fails.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "c/skorra_ntp.h"
#include "clock/ntp_clock.h"
#include "platform/base/log.h"
#include "sim/network.h"
#include "sim/world.h"
#include "testing/addresses.h"

namespace {

constexpr long kNever = -1;
long until_failure = kNever;  // allocations that still succeed
bool is_bad_alloc = true;
long failures = 0;

}  // namespace

void* operator new(size_t size) {
  if (until_failure == 0) {
    ++failures;
    if (is_bad_alloc) {
      throw std::bad_alloc();
    }
    throw 42;
  }
  if (until_failure > 0) {
    --until_failure;
  }
  if (void* const memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace {

void Expect(bool holds, const char* function, long allocation, int error) {
  if (!holds) {
    until_failure = kNever;
    std::fprintf(stderr, "%s without its allocation %ld: %s\n", function, allocation,
                 skorra_ntp_error_text(error));
    std::exit(1);
  }
}

// Calls `function` until none of its allocations fails. It must need `min_allocations` at least.
template <class Function>
void TakeMemoryFrom(const char* name, long min_allocations, const Function& function) {
  for (const bool is_memory : {false, true}) {
    is_bad_alloc = is_memory;
    const int expected = is_memory ? SKORRA_NTP_ERROR_NO_MEMORY : SKORRA_NTP_ERROR_INTERNAL;
    long allocation = 0;
    for (;; ++allocation) {
      failures = 0;
      until_failure = allocation;
      const int error = function();
      until_failure = kNever;
      if (failures == 0) {
        Expect(error == SKORRA_NTP_OK, name, allocation, error);
        break;
      }
      Expect(error == expected, name, allocation, error);
    }
    Expect(allocation >= min_allocations, name, allocation, SKORRA_NTP_OK);
    std::printf("%s: %ld allocations, each failed once as %s\n", name, allocation,
                is_memory ? "memory" : "something else");
  }
}

// What `function` returns, or no code at all where it failed and yet started or stopped the clock.
template <class Function>
int UnlessItIsHalfDone(const Function& function) {
  const bool was_running = skorra::NtpClock::IsRunning();
  const int error = function();
  return error == SKORRA_NTP_OK || skorra::NtpClock::IsRunning() == was_running ? error : -1;
}

void Ignore(void* /*user*/, const skorra_ntp_outcome* /*outcome*/, const skorra_ntp_reading* /*reading*/) {}
void IgnoreCounter(void* /*user*/, const char* /*name*/, uint64_t /*value*/) {}
void IgnoreKeyMetric(void* /*user*/, uint64_t /*key*/, uint64_t /*value*/) {}

void TakeMemoryFromAll(const skorra_ntp_options& options) {
  uint64_t value = 0;
  skorra_ntp_statistics statistics{};
  statistics.struct_size = sizeof statistics;
  skorra_ntp_reading reading{};
  reading.struct_size = sizeof reading;
  TakeMemoryFrom("start", 2, [&] { return UnlessItIsHalfDone([&] { return skorra_ntp_start(&options); }); });
  TakeMemoryFrom("add_servers", 2, [&] { return skorra_ntp_add_servers(options.servers, 1); });
  TakeMemoryFrom("sync", 1, [] { return skorra_ntp_sync(0, Ignore, nullptr); });
  TakeMemoryFrom("subscribe", 2, [] {
    skorra_ntp_subscription* subscription = nullptr;
    const int error = skorra_ntp_subscribe(Ignore, nullptr, &subscription);
    return error == SKORRA_NTP_OK ? skorra_ntp_unsubscribe(subscription) : error;
  });
  TakeMemoryFrom("wait_until_synced", 1, [] { return skorra_ntp_wait_until_synced(0); });
  TakeMemoryFrom("wait_until_bound", 1, [] { return skorra_ntp_wait_until_bound(INT64_MAX, 0); });
  TakeMemoryFrom("take_statistics", 0, [&] { return skorra_ntp_take_statistics(&statistics); });
  TakeMemoryFrom("counter", 0, [&] { return skorra_ntp_counter("clock.stuck", &value); });
  TakeMemoryFrom("key_metric", 0, [&] { return skorra_ntp_key_metric(1, &value); });
  TakeMemoryFrom("each_counter", 1, [] { return skorra_ntp_each_counter(IgnoreCounter, nullptr); });
  TakeMemoryFrom("each_key_metric", 1, [] { return skorra_ntp_each_key_metric(IgnoreKeyMetric, nullptr); });
  TakeMemoryFrom("read", 0, [&] { return skorra_ntp_read(&reading); });
  TakeMemoryFrom("now_us", 0,
                 [] { return skorra_ntp_now_us() > 0 ? SKORRA_NTP_OK : SKORRA_NTP_ERROR_TIMED_OUT; });
  TakeMemoryFrom("stop", 1, [] { return UnlessItIsHalfDone([] { return skorra_ntp_stop(); }); });
  TakeMemoryFrom("sync_and_wait", 1, [] { return skorra_ntp_sync_and_wait(0, nullptr, nullptr); });
}

}  // namespace

int main() {
  base::SetLogThreshold(base::kLogNothing);
  skorra::sim::World world;
  skorra::sim::Network network(world);
  network.AddServer(skorra::Address("203.0.113.1"), {});
  const char* const servers[] = {"203.0.113.1"};
  skorra_ntp_options options{};
  options.struct_size = sizeof options;
  options.servers = servers;
  options.server_count = 1;
  const auto has_time = [] { return skorra_ntp_now_us() != 0; };
  const auto minute = base::TimeDelta::FromSeconds(60);
  if (skorra_ntp_start(&options) != SKORRA_NTP_OK || !world.RunUntil(has_time, minute)) {
    std::fputs("no time\n", stderr);
    return 1;
  }
  TakeMemoryFromAll(options);
  world.RunFor(minute);
  // Nothing was left broken.
  TakeMemoryFromAll(options);
  world.RunFor(minute);
  return 0;
}
