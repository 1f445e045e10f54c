// SPDX-License-Identifier: Apache-2.0
#include "c/skorra_ntp.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "clock/ntp_clock.h"
#include "ntp/ntp_time_manager.h"
#include "platform/metrics/key_metrics.h"
#include "platform/net/ip_endpoint.h"

// The numbers of the two interfaces are the same.
#define SAME(c, cpp) static_assert(static_cast<int>(c) == static_cast<int>(skorra::cpp))
SAME(SKORRA_NTP_STATUS_UNKNOWN, NtpClockStatus::kUnknown);
SAME(SKORRA_NTP_STATUS_PROVISIONAL, NtpClockStatus::kProvisional);
SAME(SKORRA_NTP_STATUS_SYNCHRONIZED, NtpClockStatus::kSynchronized);
SAME(SKORRA_NTP_STATUS_FREE_RUNNING, NtpClockStatus::kFreeRunning);
SAME(SKORRA_NTP_STATUS_DISRUPTED, NtpClockStatus::kDisrupted);
SAME(SKORRA_NTP_STATUS_CONFLICTING, NtpClockStatus::kConflicting);
SAME(SKORRA_NTP_RESULT_NONE, NtpResult::kNoResult);
SAME(SKORRA_NTP_RESULT_SUCCESS, NtpResult::kSuccess);
SAME(SKORRA_NTP_RESULT_MAYBE_INACCURATE, NtpResult::kMaybeInaccurate);
SAME(SKORRA_NTP_AGREEMENT_UNCHECKED, NtpClockAgreement::kUnchecked);
SAME(SKORRA_NTP_REASON_OK, NtpSyncReason::kOk);
SAME(SKORRA_NTP_REASON_INACCURATE, NtpSyncReason::kInaccurate);
SAME(SKORRA_NTP_REASON_NO_SERVER, NtpSyncReason::kNoServer);
SAME(SKORRA_NTP_REASON_NOT_RESOLVED, NtpSyncReason::kNotResolved);
SAME(SKORRA_NTP_REASON_REFUSED, NtpSyncReason::kRefused);
SAME(SKORRA_NTP_REASON_SILENT, NtpSyncReason::kSilent);
SAME(SKORRA_NTP_REASON_LIMITED, NtpSyncReason::kLimited);
SAME(SKORRA_NTP_REASON_UNUSABLE, NtpSyncReason::kUnusable);
SAME(SKORRA_NTP_REASON_TOO_FEW_SAMPLES, NtpSyncReason::kTooFewSamples);
SAME(SKORRA_NTP_REASON_DISAGREEING, NtpSyncReason::kDisagreeing);
SAME(SKORRA_NTP_REASON_STOPPED, NtpSyncReason::kStopped);
SAME(SKORRA_NTP_REASON_TIMED_OUT, NtpSyncReason::kTimedOut);
#undef SAME

namespace {

using skorra::NtpClock;
using skorra::NtpClockReading;
using skorra::NtpSyncOutcome;

// --- Sizes. The structs have no padding at their ends, on 32-bit and on 64-bit machines: a new member always
// makes a struct larger.

constexpr size_t kMinStructSize = 16;
constexpr size_t kMaxStructSize = 4096;
static_assert(sizeof(skorra_ntp_options) == 4 * sizeof(void*) + 16);
static_assert(sizeof(skorra_ntp_reading) == 2 * sizeof(void*) + 80);
static_assert(sizeof(skorra_ntp_outcome) == offsetof(skorra_ntp_outcome, attempt) + 8);
static_assert(sizeof(skorra_ntp_statistics) == sizeof(size_t) + 80);

template <class Struct>
int CheckSize(const Struct* given) {
  static_assert(std::is_trivially_copyable_v<Struct> && sizeof(Struct) >= kMinStructSize);
  if (given == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  const size_t size = given->struct_size;
  const bool is_size = size >= kMinStructSize && size <= kMaxStructSize && size % alignof(Struct) == 0;
  return is_size ? SKORRA_NTP_OK : SKORRA_NTP_ERROR_STRUCT_SIZE;
}

// Copies what both sides know of a struct that the caller gives.
template <class Struct>
int CopyIn(const Struct* given, Struct& ours) {
  if (const int error = CheckSize(given); error != SKORRA_NTP_OK) {
    return error;
  }
  const auto* const bytes = reinterpret_cast<const unsigned char*>(given);
  const size_t known = std::min(given->struct_size, sizeof(Struct));
  if (std::any_of(bytes + known, bytes + given->struct_size, [](unsigned char byte) { return byte != 0; })) {
    return SKORRA_NTP_ERROR_UNKNOWN_MEMBER;
  }
  std::memcpy(&ours, given, known);
  return SKORRA_NTP_OK;
}

// Fills in a struct of the caller's, whose size has been checked.
template <class Struct>
void CopyOut(Struct ours, Struct* taken) {
  const size_t size = taken->struct_size;
  const size_t known = std::min(size, sizeof(Struct));
  ours.struct_size = size;
  std::memcpy(taken, &ours, known);
  std::memset(reinterpret_cast<unsigned char*>(taken) + known, 0, size - known);
}

// --- Values.

skorra_ntp_reading ToC(const NtpClockReading& from) {
  skorra_ntp_reading reading{};
  reading.struct_size = sizeof reading;
  reading.status = static_cast<int32_t>(from.status);
  reading.result = static_cast<int32_t>(from.result);
  reading.agreement = static_cast<int32_t>(from.agreement);
  reading.has_time = from.has_time();
  reading.has_bound = from.has_bound();
  reading.domain = from.domain;
  reading.best_estimate_us = from.best_estimate_us;
  reading.earliest_us = from.earliest_us;
  reading.latest_us = from.latest_us;
  reading.error_estimate_us = from.error_estimate_us;
  reading.error_bound_us = from.error_bound_us;
  reading.age_us = from.age_us;
  reading.witness_count = from.witness_count;
  reading.agreeing_count = from.agreeing_count;
  reading.frequency_ppb = from.frequency_ppb;
  return reading;
}

skorra_ntp_outcome ToC(const NtpSyncOutcome& from) {
  skorra_ntp_outcome outcome{};
  outcome.struct_size = sizeof outcome;
  outcome.reason = static_cast<int32_t>(from.reason);
  outcome.attempt = from.attempt;
  return outcome;
}

// Zeros when there was no request of the kind. Takes no memory: the report cannot be had twice.
skorra_ntp_request_statistics OfKind(const skorra::NtpTimeSyncStats& report, int kind) {
  skorra_ntp_request_statistics stats{};
  const auto found = report.function_request_stats.find(kind);
  if (found == report.function_request_stats.end()) {
    return stats;
  }
  const skorra::NtpFunctionRequestStats& from = found->second;
  stats.request_count = from.request_count;
  stats.success_count = from.success_count;
  stats.failure_count = from.failure_count;
  stats.average_cost_ms = from.average_cost_ms;
  stats.max_cost_ms = from.max_cost_ms;
  stats.total_cost_ms = from.total_cost_ms;
  return stats;
}

int ReadServers(const char* const* servers, size_t count, std::vector<std::string>& read) {
  if (servers == nullptr && count > 0) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  for (size_t i = 0; i < count; ++i) {
    if (servers[i] == nullptr) {
      return SKORRA_NTP_ERROR_NULL_ARGUMENT;
    }
    constexpr uint16_t kAnyPort = 123;
    if (!net::ParseHostPort(servers[i], kAnyPort).value) {
      return SKORRA_NTP_ERROR_BAD_SERVER;
    }
    read.emplace_back(servers[i]);
  }
  return SKORRA_NTP_OK;
}

int ReadOptions(const skorra_ntp_options* given, skorra::NtpClockOptions& options) {
  skorra_ntp_options ours{};
  if (const int error = CopyIn(given, ours); error != SKORRA_NTP_OK) {
    return error;
  }
  constexpr uint32_t kMinIntervalS = 16;
  constexpr uint32_t kMaxFrequencyErrorPpm = 100000;
  if ((ours.interval_s != 0 && ours.interval_s < kMinIntervalS) ||
      ours.frequency_error_ppm > kMaxFrequencyErrorPpm || ours.max_error_us < 0) {
    return SKORRA_NTP_ERROR_OUT_OF_RANGE;
  }
  options.interval_s = ours.interval_s;
  if (ours.frequency_error_ppm != 0) {
    options.frequency_error_ppm = ours.frequency_error_ppm;
  }
  if (ours.max_error_us != 0) {
    options.max_error_us = ours.max_error_us;
  }
  if (ours.vmclock_path != nullptr) {
    options.vmclock_path = ours.vmclock_path;
  }
  return ReadServers(ours.servers, ours.server_count, options.servers);
}

// --- Calls.

// Runs the body of an entry point: whatever it throws becomes a code.
template <class Body>
int Guarded(const Body& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return SKORRA_NTP_ERROR_NO_MEMORY;
  } catch (...) {
    return SKORRA_NTP_ERROR_INTERNAL;
  }
}

// How many callbacks this thread is inside.
thread_local int callback_depth = 0;

// The function of C++ that calls one of C.
std::function<void(const NtpSyncOutcome&)> Wrap(skorra_ntp_outcome_function function, void* user) {
  return [function, user](const NtpSyncOutcome& from) {
    const skorra_ntp_outcome outcome = ToC(from);
    const skorra_ntp_reading reading = ToC(from.reading);
    ++callback_depth;
    function(user, &outcome, &reading);
    --callback_depth;
  };
}

NtpClock::duration Us(int64_t us) { return NtpClock::duration(us); }

int CheckWait(int64_t limit_us) {
  if (limit_us < 0) {
    return SKORRA_NTP_ERROR_OUT_OF_RANGE;
  }
  return callback_depth > 0 ? SKORRA_NTP_ERROR_IN_CALLBACK : SKORRA_NTP_OK;
}

int AfterWait(bool is_reached) {
  if (is_reached) {
    return SKORRA_NTP_OK;
  }
  return NtpClock::IsRunning() ? SKORRA_NTP_ERROR_TIMED_OUT : SKORRA_NTP_ERROR_NOT_RUNNING;
}

}  // namespace

// --- Codes and version.

const char* skorra_ntp_error_text(int error) {
  switch (error) {
    case SKORRA_NTP_OK:
      return "success";
    case SKORRA_NTP_ERROR_NULL_ARGUMENT:
      return "a pointer is null that must not be";
    case SKORRA_NTP_ERROR_STRUCT_SIZE:
      return "struct_size is not the size of the struct; set it to sizeof before the call";
    case SKORRA_NTP_ERROR_UNKNOWN_MEMBER:
      return "a member that this version of the library does not know is not 0";
    case SKORRA_NTP_ERROR_OUT_OF_RANGE:
      return "a number is out of its range";
    case SKORRA_NTP_ERROR_BAD_SERVER:
      return "a server is neither a host, a host with a port, nor an address";
    case SKORRA_NTP_ERROR_NO_MEMORY:
      return "memory ran out";
    case SKORRA_NTP_ERROR_TIMED_OUT:
      return "the limit of the wait has passed; the clock goes on trying";
    case SKORRA_NTP_ERROR_NOT_RUNNING:
      return "the clock does not run; start it";
    case SKORRA_NTP_ERROR_IN_CALLBACK:
      return "a callback cannot wait; wait on another thread";
    case SKORRA_NTP_ERROR_INTERNAL:
      return "something unexpected failed inside the library; please report it";
    default:
      return "unknown error";
  }
}

const char* skorra_ntp_status_name(int status) {
  return NtpClockStatusName(static_cast<skorra::NtpClockStatus>(status));
}

const char* skorra_ntp_result_name(int result) {
  switch (result) {
    case SKORRA_NTP_RESULT_NONE:
      return "none";
    case SKORRA_NTP_RESULT_SUCCESS:
      return "success";
    case SKORRA_NTP_RESULT_MAYBE_INACCURATE:
      return "maybe_inaccurate";
    default:
      return "unknown";
  }
}

const char* skorra_ntp_reason_name(int reason) {
  return NtpSyncReasonName(static_cast<skorra::NtpSyncReason>(reason));
}

const char* skorra_ntp_agreement_name(int agreement) {
  return NtpClockAgreementName(static_cast<skorra::NtpClockAgreement>(agreement));
}

#define TEXT_OF(number) #number
#define VERSION_TEXT(major, minor, patch) TEXT_OF(major) "." TEXT_OF(minor) "." TEXT_OF(patch)

const char* skorra_ntp_version(void) {
  return VERSION_TEXT(SKORRA_NTP_VERSION_MAJOR, SKORRA_NTP_VERSION_MINOR, SKORRA_NTP_VERSION_PATCH);
}

int skorra_ntp_version_numbers(uint32_t* major, uint32_t* minor, uint32_t* patch) {
  if (major == nullptr || minor == nullptr || patch == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  *major = SKORRA_NTP_VERSION_MAJOR;
  *minor = SKORRA_NTP_VERSION_MINOR;
  *patch = SKORRA_NTP_VERSION_PATCH;
  return SKORRA_NTP_OK;
}

// --- Start and stop.

int skorra_ntp_start(const skorra_ntp_options* options) {
  return Guarded([&] {
    skorra::NtpClockOptions read;
    const int error = ReadOptions(options, read);
    if (error == SKORRA_NTP_OK) {
      NtpClock::Start(read);
    }
    return error;
  });
}

int skorra_ntp_add_servers(const char* const* servers, size_t count) {
  return Guarded([&] {
    std::vector<std::string> read;
    const int error = ReadServers(servers, count, read);
    if (error == SKORRA_NTP_OK && !read.empty()) {
      NtpClock::AddServers(std::move(read));
    }
    return error;
  });
}

int skorra_ntp_stop(void) {
  return Guarded([] {
    NtpClock::Stop();
    return SKORRA_NTP_OK;
  });
}

// --- Reading.

int64_t skorra_ntp_now_us(void) { return NtpClock::now().time_since_epoch().count(); }

int skorra_ntp_read(skorra_ntp_reading* reading) {
  const int error = CheckSize(reading);
  if (error == SKORRA_NTP_OK) {
    CopyOut(ToC(NtpClock::Read()), reading);
  }
  return error;
}

int64_t skorra_ntp_manager_time_us(void) {
  int64_t time_us = 0;
  Guarded([&] {
    time_us = skorra::NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970();
    return SKORRA_NTP_OK;
  });
  return time_us;
}

// --- Syncing and waiting.

int skorra_ntp_sync(int64_t limit_us, skorra_ntp_outcome_function done, void* user) {
  if (done == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  if (limit_us < 0) {
    return SKORRA_NTP_ERROR_OUT_OF_RANGE;
  }
  return Guarded([&] {
    NtpClock::Sync(Us(limit_us), Wrap(done, user));
    return SKORRA_NTP_OK;
  });
}

int skorra_ntp_sync_and_wait(int64_t limit_us, skorra_ntp_outcome* outcome, skorra_ntp_reading* reading) {
  for (const int error : {outcome == nullptr ? SKORRA_NTP_OK : CheckSize(outcome),
                          reading == nullptr ? SKORRA_NTP_OK : CheckSize(reading), CheckWait(limit_us)}) {
    if (error != SKORRA_NTP_OK) {
      return error;
    }
  }
  return Guarded([&] {
    const NtpSyncOutcome from = NtpClock::Sync(Us(limit_us)).get();
    if (outcome != nullptr) {
      CopyOut(ToC(from), outcome);
    }
    if (reading != nullptr) {
      CopyOut(ToC(from.reading), reading);
    }
    return SKORRA_NTP_OK;
  });
}

int skorra_ntp_wait_until_synced(int64_t limit_us) {
  if (const int error = CheckWait(limit_us); error != SKORRA_NTP_OK) {
    return error;
  }
  return Guarded([&] { return AfterWait(NtpClock::WaitUntilSynced(Us(limit_us))); });
}

int skorra_ntp_wait_until_bound(int64_t max_error_us, int64_t limit_us) {
  if (max_error_us < 0) {
    return SKORRA_NTP_ERROR_OUT_OF_RANGE;
  }
  if (const int error = CheckWait(limit_us); error != SKORRA_NTP_OK) {
    return error;
  }
  return Guarded([&] { return AfterWait(NtpClock::WaitUntilBound(Us(max_error_us), Us(limit_us))); });
}

// --- Observing. The opaque struct is a NtpClockSubscription.

int skorra_ntp_subscribe(skorra_ntp_outcome_function observer, void* user,
                         skorra_ntp_subscription** subscription) {
  if (observer == nullptr || subscription == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  return Guarded([&] {
    auto made = std::make_unique<skorra::NtpClockSubscription>();
    *made = NtpClock::Observe(Wrap(observer, user));
    *subscription = reinterpret_cast<skorra_ntp_subscription*>(made.release());
    return SKORRA_NTP_OK;
  });
}

int skorra_ntp_unsubscribe(skorra_ntp_subscription* subscription) {
  if (subscription == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  return Guarded([&] {
    delete reinterpret_cast<skorra::NtpClockSubscription*>(subscription);
    return SKORRA_NTP_OK;
  });
}

// --- Statistics and counters.

int skorra_ntp_take_statistics(skorra_ntp_statistics* statistics) {
  if (const int error = CheckSize(statistics); error != SKORRA_NTP_OK) {
    return error;
  }
  return Guarded([&] {
    const skorra::NtpTimeSyncStats report =
        skorra::NtpTimeManager::GetInstance()->GetAndResetNtpQualityStats();
    skorra_ntp_statistics ours{};
    ours.start_count = report.start_count;
    ours.deviation_found = report.deviation_found ? 1 : 0;
    ours.other_domains = OfKind(report, 0);
    ours.default_domain = OfKind(report, 1);
    ours.attempts = OfKind(report, 2);
    CopyOut(ours, statistics);
    return SKORRA_NTP_OK;
  });
}

int skorra_ntp_counter(const char* name, uint64_t* value) {
  if (name == nullptr || value == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  return Guarded([&] {
    *value = base::KeyMetrics::GetCount(name);
    return SKORRA_NTP_OK;
  });
}

int skorra_ntp_key_metric(uint64_t key, uint64_t* value) {
  if (value == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  return Guarded([&] {
    *value = base::KeyMetrics::GetPV(key);
    return SKORRA_NTP_OK;
  });
}

int skorra_ntp_each_counter(skorra_ntp_counter_function function, void* user) {
  if (function == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  return Guarded([&] {
    for (const auto& [name, value] : base::KeyMetrics::GetAllCounts()) {
      function(user, name.c_str(), value);
    }
    return SKORRA_NTP_OK;
  });
}

int skorra_ntp_each_key_metric(skorra_ntp_key_metric_function function, void* user) {
  if (function == nullptr) {
    return SKORRA_NTP_ERROR_NULL_ARGUMENT;
  }
  return Guarded([&] {
    for (const auto& [key, value] : base::KeyMetrics::GetAllPV()) {
      function(user, key, value);
    }
    return SKORRA_NTP_OK;
  });
}
