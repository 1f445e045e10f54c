// SPDX-License-Identifier: Apache-2.0
#include "tests/model/walk.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <optional>
#include <utility>

#include "platform/base/time.h"

namespace skorra::model {
namespace {

constexpr int kSlotCount = 5;
constexpr int64_t kMs = 1000;
constexpr int64_t kS = base::kUsPerSecond;

constexpr std::array<std::optional<uint64_t>, 7> kIntervals = {
    0, 1, 60, 3600, uint64_t{1} << 32, (uint64_t{1} << 32) + 60, std::nullopt};
constexpr std::array<int64_t, 18> kPasses = {
    1,      kMs,        10 * kMs,   30 * kMs,    199 * kMs, 200 * kMs, 201 * kMs, kS,        3 * kS - 1,
    3 * kS, 3400 * kMs, 3400 * kMs, 30 * kS - 1, 30 * kS,   31 * kS,   600 * kS,  3600 * kS, 3601 * kS};
constexpr std::array<int64_t, 17> kWallSteps = {
    kMs,        -kMs,   4 * kMs, -4 * kMs,  5 * kMs,    -5 * kMs, 500 * kMs,     -500 * kMs,    501 * kMs,
    -501 * kMs, 2 * kS, -2 * kS, 3600 * kS, -3600 * kS, 600 * kS, 4294967296000, -4294967296000};
constexpr std::array<int64_t, 12> kDeviations = {0,    4,   -4,   5,          -5,         500,
                                                 -500, 501, -501, 4294967300, 4294967301, 60000};
// The slow ones reach to both sides of the limits for a request's duration and for a lookup's.
constexpr std::array<int64_t, 8> kHostDelays = {0, 0, 0, 0, 799 * kMs, 800 * kMs, 200 * kMs, 2500 * kMs};
// The time to live is also tried below and above the limits of what is believed of it.
constexpr std::array<int64_t, 4> kTimesToLive = {0, 300 * kS, 3600 * kS, 200000 * kS};
constexpr std::array<int64_t, 6> kClockErrors = {0, 2500, -40000, 3600 * kS, -2 * kS, 25};

// What an observer does when it is called.
enum class Reaction {
  kNone,
  kRemoveSelf,
  kReleaseSelf,
  kAddSelf,
  kAddNext,  // the next slot's observer
  kReleaseNext,
  kStart,
  kStop,
  kRead,
  kReport,
  kUpdate,
  kRequestAttempt,
  kCount,
};

class Draws {
 public:
  explicit Draws(uint64_t seed) : state_(seed) {}
  uint64_t Next() { return Mix(state_ += 0x9E3779B97F4A7C15u); }
  int64_t Below(int64_t limit) {
    assert(limit > 0);
    return static_cast<int64_t>(Next() % static_cast<uint64_t>(limit));
  }
  template <class Table>
  auto Of(const Table& table) {
    return table[static_cast<size_t>(Below(static_cast<int64_t>(std::size(table))))];
  }

 private:
  uint64_t state_;
};

// How often each kind is drawn, in the order of the enumeration.
constexpr std::array<int, static_cast<size_t>(EventKind::kCount)> kWeights = {
    30, 10, 10, 55, 14, 2, 45, 8, 22, 8, 8, 10, 22, 150, 3, 85, 40, 18, 16, 40, 4, 35, 12};

EventKind DrawKind(Draws& draws) {
  int total = 0;
  for (const int weight : kWeights) {
    total += weight;
  }
  auto rest = static_cast<int>(draws.Below(total));
  size_t kind = 0;
  while (rest >= kWeights[kind]) {
    rest -= kWeights[kind++];
  }
  return static_cast<EventKind>(kind);
}

Event DrawEvent(Draws& draws) {
  const EventKind kind = DrawKind(draws);
  switch (kind) {
    case EventKind::kAddObserver:
      return {kind, draws.Below(kSlotCount), draws.Below(64)};
    case EventKind::kRemoveObserver:
    case EventKind::kReleaseObserver:
      return {kind, draws.Below(kSlotCount)};
    case EventKind::kUpdate:
      return {kind, draws.Below(4096), draws.Below(4)};
    case EventKind::kSetInterval:
      return {kind, draws.Below(kIntervals.size())};
    case EventKind::kSetDefault:
      return {kind, draws.Below(kNameCount)};
    case EventKind::kSetHost:
      return {kind, draws.Below(kHostCount), draws.Below(1024)};
    case EventKind::kSetServer:
      return {kind, draws.Below(kAddressCount), draws.Below(1024)};
    case EventKind::kStep:
      return {kind, 1 + (draws.Below(4) == 0 ? draws.Below(40) : draws.Below(3))};
    case EventKind::kPass:
      return {kind, draws.Of(kPasses)};
    case EventKind::kPassToLimit:
      return {kind, draws.Below(3), draws.Below(4)};
    case EventKind::kStepWall:
      return {kind, draws.Of(kWallSteps)};
    case EventKind::kStepToDeviation:
      return {kind, draws.Of(kDeviations)};
    case EventKind::kReceive:
    case EventKind::kMeasure:
      return {kind, draws.Below(32), draws.Below(1 << 30)};
    case EventKind::kReceiveFirst:
      return {kind, draws.Of(kClockErrors)};
    default:
      return {kind};
  }
}

// Samples with offsets around a centre, some of which sit exactly on the limits of the two tests. The
// trimming leaves the inner ones.
std::vector<NtpResultData> MakeSamples(uint64_t bits) {
  constexpr std::array<int64_t, 5> kCentres = {0, -5, 1234567, -3600 * kS, 77};
  constexpr std::array<int64_t, 4> kSpreads = {40, 29999, 30000, 70000};
  constexpr std::array<int64_t, 6> kMeanRtts = {20000, 90000, 99999, 100000, 200000, 199999};
  constexpr std::array<int64_t, 7> kRttSpreads = {0, 0, 14999, 15000, 20000, 30000, 29999};
  const auto take = [&bits](size_t limit) {
    const auto drawn = static_cast<size_t>(bits % limit);
    bits /= limit;
    return drawn;
  };
  const size_t count = 1 + take(10);
  const int64_t centre = kCentres[take(kCentres.size())];
  const int64_t spread = kSpreads[take(kSpreads.size())];
  const int64_t mean_rtt = kMeanRtts[take(kMeanRtts.size())];
  const int64_t rtt_spread = kRttSpreads[take(kRttSpreads.size())];
  const bool is_skewed = take(2) == 1;
  // Two sets of samples in one list shall seldom have an offset in common.
  const auto shift = static_cast<int64_t>(bits);
  const size_t quarter = count / 4;
  std::vector<NtpResultData> samples;
  for (size_t i = 0; i < count; ++i) {
    // The place counted from the middle: the kept ones are spread evenly on both sides of it.
    int64_t offset = (2 * static_cast<int64_t>(i) - static_cast<int64_t>(count - 1)) * 7;
    if (i == quarter || i + 1 == count - quarter) {
      offset = i == quarter ? -spread : spread;
    } else if (i < quarter || i >= count - quarter) {
      offset *= 20000;
    }
    const int64_t rtt = mean_rtt + (i % 2 == 0 ? rtt_spread : -rtt_spread);
    samples.push_back({centre + (centre < 0 ? -shift : shift) + offset + (is_skewed && i == quarter ? 1 : 0),
                       std::max<int64_t>(rtt, 0)});
  }
  return samples;
}

// Notes the report's values among those returned.
int64_t TakeReport(Side& side) {
  const NtpTimeSyncStats report = side.GetAndResetNtpQualityStats();
  auto& returned = side.trace.returned;
  for (const auto& [kind, stats] : report.function_request_stats) {
    returned.insert(returned.end(),
                    {kind, stats.average_cost_ms, stats.max_cost_ms, stats.request_count, stats.success_count,
                     stats.function_type, stats.failure_count, stats.total_cost_ms});
  }
  returned.push_back(report.start_count);
  return report.deviation_found ? 1 : 0;
}

class Walker {
 public:
  explicit Walker(uint64_t seed) : sides_(seed) {
    for (Side* side : {static_cast<Side*>(&sides_.model), static_cast<Side*>(&sides_.real)}) {
      side->on_heard = [this](Side& called, int observer) { React(called, observer); };
    }
  }

  // False when the two sides differ.
  bool Run(const Event& event);
  SideBySide& sides() { return sides_; }

 private:
  struct Observer {
    int slot;
    Reaction reaction;
    // Each side's own count: two observers that start again at each call would never come to an end.
    std::array<int, 2> reactions_left = {2, 2};
  };

  int ObserverOf(int64_t slot) { return slots_[static_cast<size_t>(slot)]; }
  int NewObserver(int64_t slot, int64_t reaction);
  void React(Side& side, int observer);
  bool AddObserver(const Event& event);
  bool Update(int64_t names, int64_t count);
  bool StepWithoutQueue();
  bool PassToLimit(int64_t limit, int64_t variant);
  bool StepToDeviation(int64_t deviation_ms);
  bool Receive(int64_t whose, int64_t which);
  bool Measure(int64_t whose, int64_t which);
  void SetServer(int64_t address, int64_t choice);
  bool Read() {
    return sides_.Both([](Side& side) { return side.GetNtpTimestampFrom1970(); });
  }
  bool Start() {
    return sides_.Both([](Side& side) { return side.Start(); });
  }

  std::array<int, kSlotCount> slots_ = {-1, -1, -1, -1, -1};
  std::vector<Observer> observers_;
  SideBySide sides_;
};

int Walker::NewObserver(int64_t slot, int64_t reaction) {
  // Half of them only listen.
  const auto count = static_cast<int64_t>(Reaction::kCount);
  observers_.push_back({static_cast<int>(slot), static_cast<Reaction>(reaction < count ? reaction : 0)});
  return slots_[static_cast<size_t>(slot)] = static_cast<int>(observers_.size()) - 1;
}

void Walker::React(Side& side, int number) {
  Observer& observer = observers_[static_cast<size_t>(number)];
  if (observer.reactions_left[&side == &sides_.model ? 0 : 1]-- <= 0) {
    return;
  }
  const int next = ObserverOf((observer.slot + 1) % kSlotCount);
  switch (observer.reaction) {
    case Reaction::kRemoveSelf:
      return side.RemoveObserver(number);
    case Reaction::kReleaseSelf:
      return side.ReleaseObserver(number);
    case Reaction::kAddSelf:
      return side.AddObserver(number);
    case Reaction::kAddNext:
      return next < 0 ? void() : side.AddObserver(next);
    case Reaction::kReleaseNext:
      return next < 0 ? void() : side.ReleaseObserver(next);
    case Reaction::kStart:
      return side.trace.returned.push_back(side.Start());
    case Reaction::kStop:
      return side.Stop();
    case Reaction::kRead:
      return side.trace.returned.push_back(side.GetNtpTimestampFrom1970());
    case Reaction::kReport:
      return side.trace.returned.push_back(TakeReport(side));
    case Reaction::kUpdate:
      return side.UpdateNtpTimeDomain({Surroundings::Name(observer.slot)});
    case Reaction::kRequestAttempt:
      return side.trace.returned.push_back(side.RequestAttempt());
    default:
      return;
  }
}

bool Walker::AddObserver(const Event& event) {
  int number = ObserverOf(event.a);
  // A released observer is sometimes added all the same.
  if (number < 0 || (!sides_.model.IsAlive(number) && event.b % 4 != 0)) {
    number = NewObserver(event.a, event.b / 2);
  }
  return sides_.Both([number](Side& side) {
    side.AddObserver(number);
    return 0;
  });
}

bool Walker::Update(int64_t names, int64_t count) {
  std::vector<std::string> list;
  for (int64_t i = 0; i < count; ++i) {
    list.push_back(Surroundings::Name(static_cast<int>((names >> (4 * i)) % kNameCount)));
  }
  return sides_.Both([&](Side& side) {
    side.UpdateNtpTimeDomain(list);
    return 0;
  });
}

bool Walker::StepWithoutQueue() {
  if (!sides_.model.IsNextADelayedStopDecision()) {
    return true;
  }
  sides_.SetQueueAvailable(false);
  const bool is_same = sides_.Step();
  sides_.SetQueueAvailable(true);
  return is_same;
}

bool Walker::PassToLimit(int64_t limit, int64_t variant) {
  ManagerModel& model = sides_.model;
  const int64_t wall_us = model.now_ticks_us + sides_.surroundings.wall_offset_us;
  int64_t wait_us = 0;
  switch (limit) {
    case 0:
      wait_us = (model.last_check_local_time_ms + 600000) * kMs - wall_us;
      break;
    case 1:
      wait_us = (model.last_sync_local_time_ms + 600000) * kMs - wall_us;
      break;
    default: {
      const auto interval_s = static_cast<uint32_t>(sides_.surroundings.sync_interval_s.value_or(3600));
      wait_us = (int64_t{interval_s} + 1) * kS - (model.NtpNow() - model.last_sync_ntp_timestamp_us);
      break;
    }
  }
  wait_us -= variant % 2;
  if (wait_us > 0 && wait_us < 7200 * kS && !sides_.PassUntil(model.now_ticks_us + wait_us)) {
    return false;
  }
  return variant / 2 == 0 ? Read() : Start();
}

bool Walker::StepToDeviation(int64_t deviation_ms) {
  const ManagerModel& model = sides_.model;
  if (model.last_sync_ntp_timestamp_us == 0) {
    return true;
  }
  const int64_t ntp_ms = (model.NtpNow() - model.last_sync_ntp_timestamp_us) / 1000;
  const int64_t now_ms = model.WallMs() - model.last_sync_local_time_ms;
  return sides_.StepWall((deviation_ms - (now_ms - ntp_ms)) * kMs);
}

bool Walker::Receive(int64_t whose, int64_t which) {
  const ManagerModel& model = sides_.model;
  net::IPEndPoint server = Surroundings::Address(static_cast<int>(whose % kAddressCount));
  if (whose < 24 && !model.domains.empty()) {
    const auto& domain = model.domains[static_cast<size_t>(whose) % model.domains.size()];
    server = domain.addresses[domain.current];
  }
  return sides_.Receive(MakeSamples(static_cast<uint64_t>(which)), server);
}

bool Walker::Measure(int64_t whose, int64_t which) {
  const auto servers = sides_.surroundings.servers;
  sides_.surroundings.servers.fill({.behaviour = Behaviour::kSilent});
  // Six samples are evaluated at the next check, fewer at the end of the time limit.
  const int64_t wait_us = MakeSamples(static_cast<uint64_t>(which)).size() > 5 ? 200 * kMs : 3000 * kMs;
  const ManagerModel& model = sides_.model;
  const bool is_same = Start() && sides_.PassUntil(model.now_ticks_us) && Receive(whose, which) &&
                       sides_.PassUntil(model.now_ticks_us + wait_us);
  sides_.surroundings.servers = servers;
  return is_same;
}

void Walker::SetServer(int64_t address, int64_t choice) {
  Server& server = sides_.surroundings.servers[static_cast<size_t>(address)];
  constexpr auto kBehaviours = static_cast<int64_t>(Behaviour::kCount);
  server.behaviour = static_cast<Behaviour>(choice % kBehaviours);
  server.clock_error_us = kClockErrors[static_cast<size_t>(choice / kBehaviours) % kClockErrors.size()];
}

bool Walker::Run(const Event& event) {
  switch (event.kind) {
    case EventKind::kAddObserver:
      return AddObserver(event);
    case EventKind::kRemoveObserver:
    case EventKind::kReleaseObserver: {
      const int number = ObserverOf(event.a);
      return number < 0 || sides_.Both([&](Side& side) {
        event.kind == EventKind::kRemoveObserver ? side.RemoveObserver(number) : side.ReleaseObserver(number);
        return 0;
      });
    }
    case EventKind::kStart:
      return Start();
    case EventKind::kStop:
    case EventKind::kStopWithoutQueue: {
      sides_.SetQueueAvailable(event.kind == EventKind::kStop);
      const bool is_same = sides_.Both([](Side& side) { return side.Stop(), 0; });
      sides_.SetQueueAvailable(true);
      return is_same;
    }
    case EventKind::kRead:
      return Read();
    case EventKind::kReport:
      return sides_.Both(TakeReport);
    case EventKind::kUpdate:
      return Update(event.a, event.b);
    case EventKind::kSetInterval:
      sides_.SetSyncInterval(kIntervals[static_cast<size_t>(event.a)]);
      return true;
    case EventKind::kSetDefault:
      sides_.SetDefaultDomain(Surroundings::Name(static_cast<int>(event.a)));
      return true;
    case EventKind::kSetHost:
      sides_.SetHost(static_cast<int>(event.a), static_cast<uint64_t>(event.b),
                     kHostDelays[static_cast<size_t>(event.b / 4) % kHostDelays.size()],
                     kTimesToLive[static_cast<size_t>(event.b / 32) % kTimesToLive.size()]);
      return true;
    case EventKind::kSetServer:
      SetServer(event.a, event.b);
      return true;
    case EventKind::kStep:
      for (int64_t i = 0; i < event.a && sides_.model.pending_count() > 0; ++i) {
        if (!sides_.Step()) {
          return false;
        }
      }
      return true;
    case EventKind::kStepWithoutQueue:
      return StepWithoutQueue();
    case EventKind::kPass:
      return sides_.PassUntil(sides_.model.now_ticks_us + event.a);
    case EventKind::kPassToLimit:
      return PassToLimit(event.a, event.b);
    case EventKind::kStepWall:
      return sides_.StepWall(event.a);
    case EventKind::kStepToDeviation:
      return StepToDeviation(event.a);
    case EventKind::kReceive:
      return Receive(event.a, event.b);
    case EventKind::kReceiveFirst:
      return sides_.ReceiveFirst(event.a);
    case EventKind::kMeasure:
      return Measure(event.a, event.b);
    case EventKind::kRequestAttempt:
      return sides_.Both([](Side& side) { return side.RequestAttempt(); });
    case EventKind::kCount:
      break;
  }
  return true;
}

}  // namespace

std::string Describe(const Event& event) {
  static constexpr std::array<const char*, static_cast<size_t>(EventKind::kCount)> kNames = {
      "add observer",
      "remove observer",
      "release observer",
      "start",
      "stop",
      "stop without queue",
      "read",
      "report",
      "update domains",
      "set interval",
      "set default domain",
      "set host",
      "set server",
      "step",
      "step without queue",
      "pass",
      "pass to limit",
      "step wall clock",
      "step to deviation",
      "receive samples",
      "receive first offset",
      "measure",
      "request attempt"};
  return std::string(kNames[static_cast<size_t>(event.kind)]) + " " + std::to_string(event.a) + " " +
         std::to_string(event.b);
}

std::vector<Event> DrawWalk(uint64_t seed) {
  Draws draws(seed);
  const auto count = static_cast<size_t>(200 + draws.Below(41));
  std::vector<Event> events;
  while (events.size() < count) {
    events.push_back(DrawEvent(draws));
  }
  return events;
}

WalkResult RunWalk(uint64_t seed, const std::vector<Event>& events, const Tamper& tamper) {
  Walker walker(seed);
  WalkResult result;
  for (const Event& event : events) {
    if (tamper) {
      tamper(result.event_count, walker.sides().real.peer);
    }
    ++result.event_count;
    const bool is_same = walker.Run(event);
    result.is_ambiguous = walker.sides().model.is_ambiguous();
    if (result.is_ambiguous) {
      break;
    }
    if (!is_same) {
      result.difference = walker.sides().difference();
      break;
    }
  }
  result.step_count = walker.sides().step_count();
  return result;
}

// Leaves out ever smaller pieces, as long as what remains still shows a difference.
std::vector<Event> ShrinkWalk(uint64_t seed, std::vector<Event> events, int max_runs, const Tamper& tamper) {
  int runs = 0;
  for (size_t piece = std::max<size_t>(events.size() / 2, 1); piece > 0; piece /= 2) {
    bool has_shrunk = true;
    while (has_shrunk) {
      has_shrunk = false;
      for (size_t from = 0; from < events.size() && runs < max_runs;) {
        std::vector<Event> shorter(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(from));
        shorter.insert(shorter.end(),
                       events.begin() + static_cast<std::ptrdiff_t>(std::min(from + piece, events.size())),
                       events.end());
        ++runs;
        if (const WalkResult result = RunWalk(seed, shorter, tamper); !result.difference.empty()) {
          shorter.resize(result.event_count);
          events = std::move(shorter);
          has_shrunk = piece == 1;
        } else {
          from += piece;
        }
      }
    }
  }
  return events;
}

}  // namespace skorra::model
