// SPDX-License-Identifier: Apache-2.0

// A walk: a list of events drawn from a seed, what happens to the manager and around it. Events are plain
// values, each of which makes sense whatever came before it, so that any of them can be left out.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/model/side_by_side.h"

namespace skorra::model {

enum class EventKind {
  kAddObserver,     // a: which slot; b: what the observer will do when it is called
  kRemoveObserver,  // a: which slot
  kReleaseObserver,
  kStart,
  kStop,
  kStopWithoutQueue,
  kRead,
  kReport,
  kUpdate,            // a: up to three names, 4 bits each from the lowest; b: how many
  kSetInterval,       // a: which of the table
  kSetDefault,        // a: which name
  kSetHost,           // a: which host; b: its addresses
  kSetServer,         // a: which address; b: behaviour and clock error
  kStep,              // a: how many tasks and arrivals
  kStepWithoutQueue,  // the next decision about a delayed stop is taken without a queue
  kPass,              // a: microseconds
  kPassToLimit,       // a: which time limit; b: microseconds beyond it; then a read or a start
  kStepWall,          // a: microseconds
  kStepToDeviation,   // a: the deviation in milliseconds that the clocks shall show
  kReceive,           // a: whose samples; b: which samples
  kReceiveFirst,      // a: the offset
  kMeasure,  // the same as kReceive, in an attempt in which no other samples come; then their evaluation
  kRequestAttempt,
  kCount,
};

struct Event {
  EventKind kind;
  int64_t a = 0;
  int64_t b = 0;
};

std::string Describe(const Event& event);

// At least 200 events.
std::vector<Event> DrawWalk(uint64_t seed);

struct WalkResult {
  std::string difference;   // empty: none was found
  size_t event_count = 0;   // how many events were run; with a difference, the last of them showed it
  uint64_t step_count = 0;  // tasks and arrivals
  // The walk ended early: samples with equal offsets were trimmed, which has no one right answer.
  bool is_ambiguous = false;
};

// Runs before each event; for tests of the comparison itself.
using Tamper = std::function<void(size_t event, NtpTimeManagerPeer& manager)>;

WalkResult RunWalk(uint64_t seed, const std::vector<Event>& events, const Tamper& tamper = nullptr);

// A part of `events` that still shows a difference; at most `max_runs` walks are tried on the way.
std::vector<Event> ShrinkWalk(uint64_t seed, std::vector<Event> events, int max_runs,
                              const Tamper& tamper = nullptr);

}  // namespace skorra::model
