// SPDX-License-Identifier: Apache-2.0
// Prints how far network time is from the system clock, and by how much that may be wrong: c_clock SERVER...
//
// It shows each attempt, and waits until one has brought a time.
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <stdio.h>
#include <time.h>

#include "c/skorra_ntp.h"

enum { kLimitUs = 10 * 1000000 };

// Runs on the library's thread. Adds to the count that `user` points to, and no other thread looks at that
// until it has unsubscribed.
static void ShowAttempt(void* user, const skorra_ntp_outcome* outcome, const skorra_ntp_reading* reading) {
  printf("attempt: %s (%s)\n", skorra_ntp_reason_name(outcome->reason),
         skorra_ntp_status_name(reading->status));
  ++*(int*)user;
}

static int64_t SystemTimeUs(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

static int Fail(int error) {
  fprintf(stderr, "c_clock: %s\n", skorra_ntp_error_text(error));
  return 1;
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: c_clock SERVER...\n");
    return 2;
  }
  int attempts = 0;
  skorra_ntp_subscription* subscription = NULL;
  int error = skorra_ntp_subscribe(ShowAttempt, &attempts, &subscription);
  if (error != SKORRA_NTP_OK) {
    return Fail(error);
  }
  const skorra_ntp_options options = {.struct_size = sizeof options,
                                      .servers = (const char* const*)(argv + 1),
                                      .server_count = (size_t)argc - 1};
  error = skorra_ntp_start(&options);
  if (error == SKORRA_NTP_OK) {
    error = skorra_ntp_wait_until_synced(kLimitUs);
  }
  // From here on no attempt is shown, and `attempts` is this thread's alone.
  skorra_ntp_unsubscribe(subscription);
  if (error != SKORRA_NTP_OK) {
    return Fail(error);
  }
  skorra_ntp_reading reading = {.struct_size = sizeof reading};
  error = skorra_ntp_read(&reading);
  if (error != SKORRA_NTP_OK) {
    return Fail(error);
  }
  const int64_t system_time_us = SystemTimeUs();
  printf("%d attempts with %s, library %s\n", attempts, reading.domain, skorra_ntp_version());
  printf("offset %" PRId64 " us\n", reading.best_estimate_us - system_time_us);
  printf("at least %" PRId64 " us, at most %" PRId64 " us\n", reading.earliest_us - system_time_us,
         reading.latest_us - system_time_us);
  return 0;
}
