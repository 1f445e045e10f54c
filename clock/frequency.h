// SPDX-License-Identifier: Apache-2.0
// How fast the true time runs against the oscillator of this machine, as the syncs with one server tell.
//
// Every frequency here is the true time's, against the raw clock with the kernel's correction applied, in
// parts per billion: positive means that the oscillator is slow. Two syncs tell two things of it. Their
// intervals prove limits of its average between them: the truth went from somewhere in the first to somewhere
// in the second. And their estimates say what it probably was: the slope of a straight line (least squares).
//
// Only the raw clock takes part: the steady clock is slewed, and measures a sleep as well as it can. A sleep
// separates the points before it from those after it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "clock/clocks_reading.h"
#include "clock/interval.h"
#include "platform/base/time.h"
#include "platform/net/ip_endpoint.h"

namespace skorra {

// As many syncs as count, and how many over how long tell anything.
inline constexpr size_t kFrequencyPoints = 4;
inline constexpr size_t kMinFrequencyPoints = 3;
inline constexpr int64_t kMinFrequencySpanNs = int64_t{30} * 60 * 1000 * base::kUsPerSecond;
// How far the frequency may wander from its average between two of these syncs. An oscillator that is allowed
// to be wrong by more than usual may also wander more: a fifth of that.
inline constexpr int64_t kWanderPpb = 10000;
inline constexpr int64_t kWanderPart = 5;
// What no measurement of a few hours says of the hours after it.
inline constexpr int64_t kFrequencyNoisePpb = 50;
// A kernel's correction that changed by more than this makes what was before worthless: something slews.
inline constexpr int64_t kFrequencyStepPpb = 1000;

// One sync.
struct FrequencyPoint {
  ClocksReading at;
  int64_t kernel_ppb = 0;      // the kernel's correction
  OffsetInterval proven;       // network time minus steady ticks at that moment
  int64_t estimate_us = 0;     // of the same difference
  int64_t uncertainty_us = 0;  // how far the estimate probably is from the truth
};

struct FrequencyEstimate {
  int64_t ppb = 0;  // the best guess, within the limits
  // What it is until the next sync, if the oscillator wanders no more than allowed.
  int64_t lowest_ppb = 0;
  int64_t highest_ppb = 0;
};

// `points` in the order of time, with no sleep between them; `error_ppb` is what the oscillator may be wrong
// by, whatever the points say. The limits are those that every pair of points proves, each widened by the
// wander, and never beyond `error_ppb`. Where they leave nothing, or two pairs are further apart than the
// wander, the server, the clocks or the oscillator break a promise: then the limits are those of `error_ppb`.
//
// The guess is the line's slope times s^2 / (s^2 + 4 u^2), s being the slope and u its uncertainty: what may
// be chance alone is not followed, since the next hour would show it as an error. Nothing: too few points, or
// too close together.
std::optional<FrequencyEstimate> EstimateFrequency(const std::vector<FrequencyPoint>& points,
                                                   int64_t error_ppb);

// What must stay as it is for points to be compared.
struct MachineState {
  ClocksReading at;
  int64_t kernel_ppb = 0;
  int64_t disruption_marker = 0;
  uint64_t clock_source = 0;  // 0: not known
};

// The last points of each server. Pure apart from what it keeps; one thread at a time.
class FrequencyHistory {
 public:
  // Call it at the begin and at the end of each attempt. Forgets everything, and returns false, when the
  // machine slept since the last call, was moved or restored, changed its clock source, or corrects its
  // oscillator otherwise by more than kFrequencyStepPpb.
  bool Continue(const MachineState& now);
  // Servers are told apart by their addresses: another one has points of its own. Points of another month are
  // forgotten: there may have been a leap second between.
  void Add(const net::IPEndPoint& server, const FrequencyPoint& point);
  // Call it after the points of an attempt. Forgets servers that brought none in the last attempts.
  void EndAttempt();
  // EstimateFrequency of the server's points.
  std::optional<FrequencyEstimate> Estimate(const net::IPEndPoint& server, int64_t error_ppb) const;
  bool empty() const { return servers_.empty(); }

 private:
  struct Server {
    std::vector<FrequencyPoint> points;
    size_t attempts_without = 0;
  };
  std::optional<MachineState> last_;
  std::map<net::IPEndPoint, Server> servers_;
};

}  // namespace skorra
