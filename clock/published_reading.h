// SPDX-License-Identifier: Apache-2.0
// The snapshot as all threads see it: one writer, any number of readers, no lock.
//
// A sequence lock over two slots. The writer fills the slot that nobody is sent to, and then counts the
// sequence up, whose last bit names the slot to read; a reader that finds the sequence changed afterwards may
// have read a mixture and tries again. A reader never waits for a writer: a child that was forked in the
// middle of a publication, and a reader of a higher priority than the writer, read the snapshot before it.
// All words are relaxed atomics, so there is no data race; the fences order them (H.-J. Boehm, "Can seqlocks
// get along with programming language memory models?", 2012).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "clock/reading.h"

namespace skorra {

template <class Value>
class AtomicWord {
  static_assert(std::atomic<Value>::is_always_lock_free, "a read of the clock must not take a lock");

 public:
  constexpr AtomicWord(Value value = Value()) : value_(value) {}
  AtomicWord& operator=(Value value) {
    value_.store(value, std::memory_order_relaxed);
    return *this;
  }
  operator Value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<Value> value_;
};

class PublishedReading {
 public:
  // One thread at a time.
  void Publish(const ClockSnapshot& snapshot) {
    const uint32_t next = sequence_.load(std::memory_order_relaxed) + 1;
    // A reader that sees a word of these sees at least the sequence before.
    std::atomic_thread_fence(std::memory_order_release);
    Copy(snapshot, slots_[next % 2]);
    sequence_.store(next, std::memory_order_release);
  }

  // Calls `look` with what is published, as something that has the members of a ClockSnapshot, until it saw
  // no mixture. `look` takes any values of the members. Any thread; before the first publication the snapshot
  // has no time.
  template <class Look>
  void LookAt(const Look& look) const {
    uint32_t sequence = 0;
    do {
      sequence = sequence_.load(std::memory_order_acquire);
      look(slots_[sequence % 2]);
      std::atomic_thread_fence(std::memory_order_acquire);
    } while (sequence_.load(std::memory_order_relaxed) != sequence);
  }

  ClockSnapshot Read() const {
    ClockSnapshot snapshot;
    LookAt([&](const auto& slot) { Copy(slot, snapshot); });
    return snapshot;
  }

 private:
  struct Slot {
    AtomicWord<NtpClockStatus> status;
    AtomicWord<NtpResult> result = NtpResult::kNoResult;
    struct {
      AtomicWord<int64_t> boot_ns;
      AtomicWord<int64_t> raw_ns;
      AtomicWord<int64_t> monotonic_ns;
    } clocks;
    AtomicWord<int64_t> reading_error_ns;
    AtomicWord<int64_t> estimate_us;
    AtomicWord<int64_t> earliest_us;
    AtomicWord<int64_t> latest_us;
    AtomicWord<int64_t> error_estimate_us;
    AtomicWord<ClockRate> growth;
    AtomicWord<ClockRate> prior_growth;
    AtomicWord<ClockRate> rate;
    AtomicWord<ClockRate> middle_rate;
    AtomicWord<ClockRate> frequency;
    AtomicWord<LeapWarning> leap;
    AtomicWord<int64_t> leap_us;
    AtomicWord<int64_t> fresh_for_ns;
    AtomicWord<int64_t> disruption_marker;
    AtomicWord<int64_t> slept_ns;
    AtomicWord<int64_t> sleep_error_us;
    AtomicWord<const char*> domain = "";
    AtomicWord<NtpClockAgreement> agreement;
    AtomicWord<uint32_t> witness_count;
    AtomicWord<uint32_t> agreeing_count;
    AtomicWord<int64_t> frequency_ppb = NtpClockReading::kNoFrequency;
  };

  template <class From, class To>
  static void Copy(const From& from, To& to) {
    to.status = from.status;
    to.result = from.result;
    to.clocks.boot_ns = from.clocks.boot_ns;
    to.clocks.raw_ns = from.clocks.raw_ns;
    to.clocks.monotonic_ns = from.clocks.monotonic_ns;
    to.reading_error_ns = from.reading_error_ns;
    to.estimate_us = from.estimate_us;
    to.earliest_us = from.earliest_us;
    to.latest_us = from.latest_us;
    to.error_estimate_us = from.error_estimate_us;
    to.growth = from.growth;
    to.prior_growth = from.prior_growth;
    to.rate = from.rate;
    to.middle_rate = from.middle_rate;
    to.frequency = from.frequency;
    to.leap = from.leap;
    to.leap_us = from.leap_us;
    to.fresh_for_ns = from.fresh_for_ns;
    to.disruption_marker = from.disruption_marker;
    to.slept_ns = from.slept_ns;
    to.sleep_error_us = from.sleep_error_us;
    to.domain = from.domain;
    to.agreement = from.agreement;
    to.witness_count = from.witness_count;
    to.agreeing_count = from.agreeing_count;
    to.frequency_ppb = from.frequency_ppb;
  }

  std::atomic<uint32_t> sequence_{0};
  std::array<Slot, 2> slots_{};
};

}  // namespace skorra
