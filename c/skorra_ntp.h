// SPDX-License-Identifier: Apache-2.0

// The clock for programs in C, and for languages that call C: C11, also C++17.
//
//   const char* const servers[] = {"ntp.example.org", "192.0.2.1:123"};
//   skorra_ntp_options options = {.struct_size = sizeof options, .servers = servers, .server_count = 2};
//   int error = skorra_ntp_start(&options);
//   if (error == SKORRA_NTP_OK) error = skorra_ntp_wait_until_synced(30 * 1000000);
//   skorra_ntp_reading reading = {.struct_size = sizeof reading};
//   if (error == SKORRA_NTP_OK) error = skorra_ntp_read(&reading);
//   if (error != SKORRA_NTP_OK) fprintf(stderr, "%s\n", skorra_ntp_error_text(error));
//   ...  // reading.earliest_us <= the true time <= reading.latest_us, while has_bound
//
// It is the clock of clock/ntp_clock.h: one in a process, which keeps itself going once it is started. A
// program may use both interfaces at the same time. docs/c.md is the introduction, docs/clock.md says what a
// reading is worth.
//
// Errors: a function that can fail returns a code of `skorra_ntp_error` as an int, 0 for success. It then has
// done nothing and has written nothing through its pointers. Every such function returns
// SKORRA_NTP_ERROR_NULL_ARGUMENT where a pointer is null that must not be, and may return
// SKORRA_NTP_ERROR_NO_MEMORY and SKORRA_NTP_ERROR_INTERNAL; further codes stand at each function, and the
// remedy for each at its name. No function throws. Memory that runs out on the library's own threads ends the
// process, and so does memory that runs out when a read posts its task.
//
// Sizes: the first member of each struct is `struct_size`. Set it to the size of the struct as your compiler
// sees it, before the call. Structs grow at their end in later versions, and the sizes need not be equal:
//
// - A struct that the library reads: members which your struct does not have yet count as 0, their default.
//   Members which the library does not know must be 0; otherwise the call fails with
//   SKORRA_NTP_ERROR_UNKNOWN_MEMBER, so that nothing you ask for is passed over in silence.
// - A struct that the library fills in: it writes `struct_size` bytes at most and leaves `struct_size` as it
//   is. Members which it does not know become 0.
// - A struct that a callback is given has the library's `struct_size`: members beyond it are not there.
// - A size that is less than 16, more than 4096 or no multiple of the struct's alignment can only be a
//   mistake (a struct that was never set up): SKORRA_NTP_ERROR_STRUCT_SIZE.
//
// Threads: every function may be called from any thread, also from several at once. `skorra_ntp_now_us` and
// `skorra_ntp_read` take no lock, allocate nothing and make no system call, except for one call in 16 s at
// most that finds work to do and posts a task. Callbacks of `skorra_ntp_subscribe` and `skorra_ntp_sync` run
// on the library's own thread, one after the other: return soon. They must not throw.
//
// Ownership: the library copies what it is given before the call returns. Texts that it returns are never
// freed: they are valid until the process ends, unless it says otherwise. `user` pointers are yours: the
// library hands them on and never looks at what they point to.
//
// Forks: a forked child reads on, with the bound growing. Its first call that finds work to do starts a
// keeper of its own. A child that was forked inside a callback can only read.
//
// Times are in microseconds; network time counts from 1970-01-01 UTC.
#pragma once

#ifndef __cplusplus
#include <stdbool.h>
#endif
#include <stddef.h>
#include <stdint.h>

#include "../platform/base/export.h"

// The version of this header. `skorra_ntp_version_numbers` tells that of the library.
#define SKORRA_NTP_VERSION_MAJOR 0
#define SKORRA_NTP_VERSION_MINOR 1
#define SKORRA_NTP_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

// --- Codes. Their numbers never change; later versions may add some.

enum skorra_ntp_error {
  SKORRA_NTP_OK = 0,
  // A pointer is null. Give one; a list of servers may be null only when it has no entry.
  SKORRA_NTP_ERROR_NULL_ARGUMENT = 1,
  // `struct_size` is not the size of a struct. Set it to sizeof before the call.
  SKORRA_NTP_ERROR_STRUCT_SIZE = 2,
  // A member that this library does not know yet is not 0. Leave it 0, or use a later library.
  SKORRA_NTP_ERROR_UNKNOWN_MEMBER = 3,
  // A number is out of its range, which stands at its name. Correct it.
  SKORRA_NTP_ERROR_OUT_OF_RANGE = 4,
  // A server is neither "host", "host:port" nor an address. Correct it. None of the list was added.
  SKORRA_NTP_ERROR_BAD_SERVER = 5,
  // Memory ran out. Free some and call again.
  SKORRA_NTP_ERROR_NO_MEMORY = 6,
  // The limit of a wait has passed. Wait again, or go on with the system clock: the clock goes on trying.
  SKORRA_NTP_ERROR_TIMED_OUT = 7,
  // The clock does not run, or was stopped during a wait. Call `skorra_ntp_start`.
  SKORRA_NTP_ERROR_NOT_RUNNING = 8,
  // A wait inside a callback would wait for the very thread that it runs on. Wait on another one.
  SKORRA_NTP_ERROR_IN_CALLBACK = 9,
  // Something else failed inside the library: a defect. Please report it; other functions may still work.
  SKORRA_NTP_ERROR_INTERNAL = 10
};

// What a reading is worth. docs/clock.md has a table.
enum skorra_ntp_status {
  SKORRA_NTP_STATUS_UNKNOWN = 0,       // no sync has brought a result yet: no time
  SKORRA_NTP_STATUS_PROVISIONAL = 1,   // the same, and replies have come that are not judged yet: no time
  SKORRA_NTP_STATUS_SYNCHRONIZED = 2,  // the last sync is recent
  SKORRA_NTP_STATUS_FREE_RUNNING = 3,  // it is not, or the machine slept since: the bound still holds
  SKORRA_NTP_STATUS_DISRUPTED = 4,     // the machine was moved or restored: a time without a bound
  // The last replies contradict each other: the reading before them goes on, if there is one.
  SKORRA_NTP_STATUS_CONFLICTING = 5
};

// How the manager grades a result.
enum skorra_ntp_result {
  SKORRA_NTP_RESULT_NONE = -1,
  SKORRA_NTP_RESULT_SUCCESS = 0,
  SKORRA_NTP_RESULT_MAYBE_INACCURATE = 1  // round-trip times or offsets scatter; a nearer server may help
};

// What other servers say about the reading's server.
enum skorra_ntp_agreement {
  SKORRA_NTP_AGREEMENT_UNCHECKED = 0,  // no other server has answered
  SKORRA_NTP_AGREEMENT_AGREES = 1,     // a majority of all that answered has a time in common with it
  SKORRA_NTP_AGREEMENT_CONFLICT = 2,   // the servers contradict each other, and no majority says who is wrong
  SKORRA_NTP_AGREEMENT_OUTVOTED = 3    // a majority contradicts it: the time is probably wrong
};

// How one sync ended.
enum skorra_ntp_reason {
  SKORRA_NTP_REASON_OK = 0,               // a graded result, published
  SKORRA_NTP_REASON_INACCURATE = 1,       // one that may be inaccurate: choose a nearer server
  SKORRA_NTP_REASON_NO_SERVER = 2,        // there is no server to ask: give one
  SKORRA_NTP_REASON_NOT_RESOLVED = 3,     // no name has an address yet; they are tried again
  SKORRA_NTP_REASON_REFUSED = 4,          // the servers deny access, or their ports are closed
  SKORRA_NTP_REASON_SILENT = 5,           // no reply came: check the network and the firewalls on the way
  SKORRA_NTP_REASON_LIMITED = 6,          // the servers ask us to wait; that is done
  SKORRA_NTP_REASON_UNUSABLE = 7,         // replies came, and none could be used: choose another server
  SKORRA_NTP_REASON_TOO_FEW_SAMPLES = 8,  // fewer replies than a result needs: choose a nearer server
  SKORRA_NTP_REASON_DISAGREEING = 9,      // the replies contradict each other: choose another server
  SKORRA_NTP_REASON_STOPPED = 10,         // the clock does not run: call `skorra_ntp_start`
  SKORRA_NTP_REASON_TIMED_OUT = 11        // nothing was settled within the limit; the clock goes on trying
};

// What an error code means, in words for people; "unknown error" for any other number. Valid until the
// process ends.
SKORRA_EXPORT const char* skorra_ntp_error_text(int error);

// The stable names of codes, for logs and for programs: "synchronized", "maybe_inaccurate",
// "too_few_samples". "unknown" for any other number. Valid until the process ends.
SKORRA_EXPORT const char* skorra_ntp_status_name(int status);
SKORRA_EXPORT const char* skorra_ntp_result_name(int result);
SKORRA_EXPORT const char* skorra_ntp_reason_name(int reason);
SKORRA_EXPORT const char* skorra_ntp_agreement_name(int agreement);

// --- Version.

// The version of the library: "0.1.0". Valid until the process ends.
SKORRA_EXPORT const char* skorra_ntp_version(void);
// The same as numbers.
SKORRA_EXPORT int skorra_ntp_version_numbers(uint32_t* major, uint32_t* minor, uint32_t* patch);

// --- Start and stop.

// 0 and null mean the default of each member.
typedef struct skorra_ntp_options {
  size_t struct_size;
  // `server_count` texts: "host", "host:port", "192.0.2.1", "[2001:db8::1]:123". None: the servers that are
  // known already, or the configured default one.
  const char* const* servers;
  size_t server_count;
  // The virtual machine's clock device, which tells that the machine was moved or restored from a snapshot;
  // by default "/dev/vmclock0". Where there is none, nothing is told.
  const char* vmclock_path;
  // Seconds from one sync to the next, at least 16; by default the configured one (ntp.sync_interval).
  uint32_t interval_s;
  // How far the oscillator may be from its nominal frequency, in parts per million: 1 to 100000, by
  // default 50.
  uint32_t frequency_error_ppm;
  // A sync comes sooner when the bound would pass this; by default 500000. Not negative.
  int64_t max_error_us;
} skorra_ntp_options;

// Starts the clock, or gives a running one new options: servers are added, none is removed. Returns at once.
// SKORRA_NTP_ERROR_STRUCT_SIZE, _UNKNOWN_MEMBER, _OUT_OF_RANGE, _BAD_SERVER.
SKORRA_EXPORT int skorra_ntp_start(const skorra_ntp_options* options);

// Adds servers to those known already; the other options stay. A name that has no address yet is tried again
// while the clock runs. Before `skorra_ntp_start` it only notes them. SKORRA_NTP_ERROR_BAD_SERVER.
SKORRA_EXPORT int skorra_ntp_add_servers(const char* const* servers, size_t count);

// Ends the clock's work: syncs that wait end as SKORRA_NTP_REASON_STOPPED, waits end, and readings go on with
// a growing bound. Servers stay known. Observers stay subscribed. A clock that does not run stays so.
SKORRA_EXPORT int skorra_ntp_stop(void);

// --- Reading.

// One consistent reading: everything in it belongs to the same moment and to the same sync.
typedef struct skorra_ntp_reading {
  size_t struct_size;
  int32_t status;     // skorra_ntp_status
  int32_t result;     // skorra_ntp_result of the sync that the reading stands on
  int32_t agreement;  // skorra_ntp_agreement
  bool has_time;      // whether `best_estimate_us` is a time
  bool has_bound;     // whether the true time lies between the limits (docs/clock.md has the assumptions)
  uint8_t reserved[2];
  // The server's name, as it was given. Empty without a time; never null. Valid until the process ends.
  const char* domain;
  int64_t best_estimate_us;   // without a time 0
  int64_t earliest_us;        // without a bound INT64_MIN
  int64_t latest_us;          // without a bound INT64_MAX
  int64_t error_estimate_us;  // what the error probably is, no promise; INT64_MAX when nothing is known
  int64_t error_bound_us;     // what the error is at most; INT64_MAX without a bound
  int64_t age_us;             // since the sync
  uint32_t witness_count;     // how many other servers have answered
  uint32_t agreeing_count;    // how many of them agree with the reading's
  // How much faster the true time runs than the machine's steady clock, in parts per billion; INT64_MIN while
  // the syncs do not tell yet.
  int64_t frequency_ppb;
} skorra_ntp_reading;

// The best estimate of the time, or 0 while there is none: wait until synced first. From then on it is never
// 0 again. It is not steady: each sync may correct it, in either direction.
SKORRA_EXPORT int64_t skorra_ntp_now_us(void);

// The whole reading of this moment. SKORRA_NTP_ERROR_STRUCT_SIZE.
SKORRA_EXPORT int skorra_ntp_read(skorra_ntp_reading* reading);

// The manager's own reading (ntp/ntp_time_manager.h), or 0 while nothing is known: graded, without a bound,
// and provisional until the first outcome. For programs that compare; a new one takes `skorra_ntp_now_us`. A
// read without a result, or with one that has grown old, starts a sync by itself, at most once in ten
// minutes.
SKORRA_EXPORT int64_t skorra_ntp_manager_time_us(void);

// --- Syncing and waiting.

typedef struct skorra_ntp_outcome {
  size_t struct_size;
  int32_t reason;    // skorra_ntp_reason
  uint64_t attempt;  // the number of the attempt in this process, from 1; 0: there was none
} skorra_ntp_outcome;

// Hears an outcome, with the reading after it. Both structs are valid during the call only, unlike the text
// `domain`. It may call every function here; those that wait fail with SKORRA_NTP_ERROR_IN_CALLBACK.
typedef void (*skorra_ntp_outcome_function)(void* user, const skorra_ntp_outcome* outcome,
                                            const skorra_ntp_reading* reading);

// Syncs now, and calls `done` exactly once: at the latest when `limit_us` (0 or more) has passed. A result
// that is less than 16 s old is the outcome itself, and attempts are 16 s apart on average, three of them at
// once at most: asking in a loop does not burden the servers. `done` runs on the library's thread; without a
// running clock it runs at once, on this thread, with SKORRA_NTP_REASON_STOPPED. It cannot be taken back:
// keep what `user` points to until it has run. In a forked child the parent's syncs end as
// SKORRA_NTP_REASON_STOPPED. SKORRA_NTP_ERROR_OUT_OF_RANGE: `limit_us` is negative.
SKORRA_EXPORT int skorra_ntp_sync(int64_t limit_us, skorra_ntp_outcome_function done, void* user);

// The same for a waiting thread. `outcome` and `reading` are filled in; either may be null. Returns
// SKORRA_NTP_OK whenever there is an outcome, also one without a result: look at its reason. Without a
// running clock the reason is SKORRA_NTP_REASON_STOPPED. Not in a simulated world, where waiting would stop
// the time. SKORRA_NTP_ERROR_STRUCT_SIZE, _OUT_OF_RANGE, _IN_CALLBACK.
SKORRA_EXPORT int skorra_ntp_sync_and_wait(int64_t limit_us, skorra_ntp_outcome* outcome,
                                           skorra_ntp_reading* reading);

// Waits until there is a time, or until its bound is `max_error_us` at most, however many attempts it takes;
// asks for a sync when it is not so. SKORRA_NTP_OK when it is so. Both numbers are 0 or more.
// SKORRA_NTP_ERROR_OUT_OF_RANGE, _TIMED_OUT, _NOT_RUNNING, _IN_CALLBACK.
SKORRA_EXPORT int skorra_ntp_wait_until_synced(int64_t limit_us);
SKORRA_EXPORT int skorra_ntp_wait_until_bound(int64_t max_error_us, int64_t limit_us);

// --- Observing.

// Stands for one observer, from `skorra_ntp_subscribe` to `skorra_ntp_unsubscribe`.
typedef struct skorra_ntp_subscription skorra_ntp_subscription;

// Calls `observer` with the outcome of each attempt that the clock follows, also those that others started.
// It may be called before the clock is started, and stays subscribed when it is stopped.
SKORRA_EXPORT int skorra_ntp_subscribe(skorra_ntp_outcome_function observer, void* user,
                                       skorra_ntp_subscription** subscription);

// Ends it, and frees `subscription`, once. After the return no call of the observer is running and none will
// come: what `user` points to may be freed. So hold no lock that the observer takes. Inside a call of the
// same observer it returns at once, and that call is the last.
SKORRA_EXPORT int skorra_ntp_unsubscribe(skorra_ntp_subscription* subscription);

// --- Statistics and counters.

// Statistics of one kind of request. Sums and counts wrap at 2^32. This struct never grows.
typedef struct skorra_ntp_request_statistics {
  uint32_t request_count;
  uint32_t success_count;
  uint32_t failure_count;
  uint32_t average_cost_ms;  // total_cost_ms / request_count, truncated
  uint32_t max_cost_ms;
  uint32_t total_cost_ms;
} skorra_ntp_request_statistics;

// The manager's quality report: what happened since the previous report.
typedef struct skorra_ntp_statistics {
  size_t struct_size;
  uint32_t start_count;      // calls of the manager's start; the first report counts one fewer
  uint32_t deviation_found;  // 1 when the clocks ran apart by more than 500 ms, otherwise 0
  skorra_ntp_request_statistics other_domains;  // requests to domains that are not the configured default one
  skorra_ntp_request_statistics default_domain;  // requests to the configured default one
  skorra_ntp_request_statistics attempts;        // whole sync attempts
} skorra_ntp_statistics;

// Hands over the statistics since the previous report and begins a new period.
// SKORRA_NTP_ERROR_STRUCT_SIZE: the period goes on.
SKORRA_EXPORT int skorra_ntp_take_statistics(skorra_ntp_statistics* statistics);

// Counters of the process: they only grow, and wrap at 2^64. docs/counters.md lists the names. What was never
// counted is 0.
SKORRA_EXPORT int skorra_ntp_counter(const char* name, uint64_t* value);
// The key metrics, which have numbers instead of names.
SKORRA_EXPORT int skorra_ntp_key_metric(uint64_t key, uint64_t* value);

// Calls `function` on this thread for each counter that is not 0, in the order of the names or numbers.
// `name` is valid during the call only.
typedef void (*skorra_ntp_counter_function)(void* user, const char* name, uint64_t value);
SKORRA_EXPORT int skorra_ntp_each_counter(skorra_ntp_counter_function function, void* user);
typedef void (*skorra_ntp_key_metric_function)(void* user, uint64_t key, uint64_t value);
SKORRA_EXPORT int skorra_ntp_each_key_metric(skorra_ntp_key_metric_function function, void* user);

#ifdef __cplusplus
}
#endif
