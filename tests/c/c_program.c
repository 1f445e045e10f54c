// SPDX-License-Identifier: Apache-2.0
// Every function of the C interface from C, on real threads: c_program SERVER
//
// Prints how far network time is from the system clock; ends with 1 and a message at the first check that
// fails.
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "c/skorra_ntp.h"

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      exit(1);                                                                \
    }                                                                         \
  } while (0)

static const int64_t kSecondUs = 1000000;

static int64_t SystemTimeUs(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

// --- An observer that is inside its call while another thread unsubscribes it.

struct Slow {
  atomic_int entered;
  atomic_int unsubscribing;
  atomic_int left;
};

static void BeSlow(void* user, const skorra_ntp_outcome* outcome, const skorra_ntp_reading* reading) {
  struct Slow* slow = user;
  CHECK(outcome->struct_size == sizeof *outcome && reading->struct_size == sizeof *reading);
  CHECK(skorra_ntp_wait_until_synced(kSecondUs) == SKORRA_NTP_ERROR_IN_CALLBACK);
  CHECK(skorra_ntp_sync_and_wait(kSecondUs, NULL, NULL) == SKORRA_NTP_ERROR_IN_CALLBACK);
  atomic_store(&slow->entered, 1);
  while (!atomic_load(&slow->unsubscribing)) {
    sched_yield();
  }
  for (int i = 0; i < 100000; ++i) {
    sched_yield();  // time for the other thread to return, were it not to wait
  }
  atomic_fetch_add(&slow->left, 1);
}

static void UnsubscribingWaitsForACallUnderWay(struct Slow* slow, skorra_ntp_subscription* subscription) {
  while (!atomic_load(&slow->entered)) {
    sched_yield();
  }
  atomic_store(&slow->unsubscribing, 1);
  CHECK(skorra_ntp_unsubscribe(subscription) == SKORRA_NTP_OK);
  CHECK(atomic_load(&slow->left) == 1);
}

// --- What hears outcomes and counters.

struct Heard {
  atomic_int count;
  atomic_int reason;
};

static void Hear(void* user, const skorra_ntp_outcome* outcome, const skorra_ntp_reading* reading) {
  struct Heard* heard = user;
  printf("attempt %" PRIu64 ": %s, %s\n", outcome->attempt, skorra_ntp_reason_name(outcome->reason),
         skorra_ntp_status_name(reading->status));
  atomic_store(&heard->reason, outcome->reason);
  atomic_fetch_add(&heard->count, 1);
}

static void FindReads(void* user, const char* name, uint64_t value) {
  CHECK(value > 0 && strlen(name) > 0);
  ++*(int*)user;
}

static void FindKey(void* user, uint64_t key, uint64_t value) {
  CHECK(value > 0 && key > 0);
  ++*(int*)user;
}

static void BeforeTheStart(void) {
  uint32_t major = 0, minor = 0, patch = 0;
  char version[64];
  CHECK(skorra_ntp_version_numbers(&major, &minor, &patch) == SKORRA_NTP_OK);
  snprintf(version, sizeof version, "%" PRIu32 ".%" PRIu32 ".%" PRIu32, major, minor, patch);
  CHECK(strcmp(version, skorra_ntp_version()) == 0);
  CHECK(major == SKORRA_NTP_VERSION_MAJOR && minor == SKORRA_NTP_VERSION_MINOR &&
        patch == SKORRA_NTP_VERSION_PATCH);
  CHECK(skorra_ntp_now_us() == 0);
  CHECK(skorra_ntp_start(NULL) == SKORRA_NTP_ERROR_NULL_ARGUMENT);
  skorra_ntp_options unset = {0};
  CHECK(skorra_ntp_start(&unset) == SKORRA_NTP_ERROR_STRUCT_SIZE);
  const char* const bad[] = {"not a name"};
  CHECK(skorra_ntp_add_servers(bad, 1) == SKORRA_NTP_ERROR_BAD_SERVER);
  CHECK(skorra_ntp_wait_until_synced(kSecondUs) == SKORRA_NTP_ERROR_NOT_RUNNING);
  CHECK(strcmp(skorra_ntp_result_name(SKORRA_NTP_RESULT_SUCCESS), "success") == 0);
}

static void Synced(void) {
  skorra_ntp_outcome outcome = {.struct_size = sizeof outcome};
  skorra_ntp_reading reading = {.struct_size = sizeof reading};
  CHECK(skorra_ntp_sync_and_wait(30 * kSecondUs, &outcome, &reading) == SKORRA_NTP_OK);
  CHECK(outcome.reason == SKORRA_NTP_REASON_OK && outcome.attempt > 1);
  CHECK(reading.has_time && reading.has_bound && reading.result == SKORRA_NTP_RESULT_SUCCESS);
  CHECK(skorra_ntp_wait_until_bound(kSecondUs, 30 * kSecondUs) == SKORRA_NTP_OK);
  CHECK(skorra_ntp_wait_until_bound(0, 1) == SKORRA_NTP_ERROR_TIMED_OUT);
  // The reading belongs to a moment between the two of the system's clock.
  const int64_t before_us = SystemTimeUs();
  CHECK(skorra_ntp_read(&reading) == SKORRA_NTP_OK);
  const int64_t after_us = SystemTimeUs();
  printf("offset %" PRId64 " us\n", reading.best_estimate_us - before_us);
  printf("at least %" PRId64 " us, at most %" PRId64 " us\n", reading.earliest_us - after_us,
         reading.latest_us - before_us);
  CHECK(llabs(skorra_ntp_now_us() - reading.best_estimate_us) < kSecondUs);
  CHECK(llabs(skorra_ntp_manager_time_us() - reading.best_estimate_us) < kSecondUs);
}

static void StatisticsAndCounters(void) {
  skorra_ntp_statistics statistics = {.struct_size = sizeof statistics};
  CHECK(skorra_ntp_take_statistics(&statistics) == SKORRA_NTP_OK);
  CHECK(statistics.attempts.request_count >= 2 && statistics.attempts.success_count >= 1);
  uint64_t value = 0;
  CHECK(skorra_ntp_counter("clock.disagreeing", &value) == SKORRA_NTP_OK && value >= 1);
  CHECK(skorra_ntp_key_metric(0, &value) == SKORRA_NTP_OK && value == 0);
  int names = 0, keys = 0;
  CHECK(skorra_ntp_each_counter(FindReads, &names) == SKORRA_NTP_OK && names > 0);
  CHECK(skorra_ntp_each_key_metric(FindKey, &keys) == SKORRA_NTP_OK && keys > 0);
}

int main(int argc, char** argv) {
  CHECK(argc == 2);
  BeforeTheStart();
  struct Slow slow;
  memset(&slow, 0, sizeof slow);
  struct Heard heard, synced;
  memset(&heard, 0, sizeof heard);
  memset(&synced, 0, sizeof synced);
  skorra_ntp_subscription *first = NULL, *second = NULL;
  CHECK(skorra_ntp_subscribe(BeSlow, &slow, &first) == SKORRA_NTP_OK);
  CHECK(skorra_ntp_subscribe(Hear, &heard, &second) == SKORRA_NTP_OK);
  const char* const servers[] = {argv[1]};
  const skorra_ntp_options options = {.struct_size = sizeof options, .servers = servers, .server_count = 1};
  CHECK(skorra_ntp_start(&options) == SKORRA_NTP_OK);
  UnsubscribingWaitsForACallUnderWay(&slow, first);
  const int error = skorra_ntp_wait_until_synced(30 * kSecondUs);
  if (error != SKORRA_NTP_OK) {
    fprintf(stderr, "no time: %s\n", skorra_ntp_error_text(error));
    return 1;
  }
  CHECK(skorra_ntp_add_servers(servers, 1) == SKORRA_NTP_OK);
  Synced();
  CHECK(skorra_ntp_sync(30 * kSecondUs, Hear, &synced) == SKORRA_NTP_OK);
  while (!atomic_load(&synced.count)) {
    sched_yield();
  }
  CHECK(atomic_load(&synced.reason) == SKORRA_NTP_REASON_OK);
  StatisticsAndCounters();
  CHECK(skorra_ntp_unsubscribe(second) == SKORRA_NTP_OK);
  CHECK(atomic_load(&heard.count) >= 2 && atomic_load(&slow.left) == 1);
  CHECK(skorra_ntp_stop() == SKORRA_NTP_OK);
  skorra_ntp_outcome outcome = {.struct_size = sizeof outcome};
  CHECK(skorra_ntp_sync_and_wait(kSecondUs, &outcome, NULL) == SKORRA_NTP_OK);
  CHECK(outcome.reason == SKORRA_NTP_REASON_STOPPED);
  CHECK(skorra_ntp_wait_until_bound(0, kSecondUs) == SKORRA_NTP_ERROR_NOT_RUNNING);
  puts("every check held");
  return 0;
}
