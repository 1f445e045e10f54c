// SPDX-License-Identifier: Apache-2.0
#include "clock/interval.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <ostream>
#include <vector>

#include "clock/proven_burst.h"
#include "platform/base/time.h"
#include "testing/wide.h"
#include "tests/clock/random_burst.h"

namespace skorra {

void PrintTo(const OffsetInterval& interval, std::ostream* out) {
  *out << "[" << interval.earliest_us << ", " << interval.latest_us << "]";
}

namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kEpochUs = base::kWindowsToUnixEpochUs;

template <class T>
T AnyBits() {
  return static_cast<T>(*rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<T>())));
}

// Any bits, and the numbers at which sums overflow more often than others.
int64_t AnyNumber() {
  return *rc::gen::oneOf(rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<int64_t>())),
                         rc::gen::elementOf(std::vector<int64_t>{kMin, kMin + 1, -1, 0, 1, kMax - 1, kMax}),
                         rc::gen::inRange<int64_t>(-1000000, 1000000));
}

int64_t InRange(int64_t first, int64_t last) { return *rc::gen::inRange<int64_t>(first, last + 1); }

int64_t Either(const std::vector<int64_t>& values) { return *rc::gen::elementOf(values); }

NtpExchange AnyExchange() {
  NtpExchange exchange;
  exchange.sample = {AnyNumber(), AnyNumber()};
  exchange.send_local_us = AnyNumber();
  exchange.server_receive_us = AnyNumber();
  exchange.server_transmit_us = AnyNumber();
  exchange.receive_local_us = AnyNumber();
  exchange.system_offset_from_steady_us = AnyNumber();
  exchange.root_delay_us = AnyNumber();
  exchange.root_dispersion_us = AnyNumber();
  exchange.precision = AnyBits<int8_t>();
  exchange.leap_indicator = AnyBits<uint8_t>();
  exchange.send_stamp = *rc::gen::element(NtpStampSource::kKernel, NtpStampSource::kUser);
  exchange.receive_stamp = *rc::gen::element(NtpStampSource::kKernel, NtpStampSource::kUser);
  return exchange;
}

// One exchange at steady ticks 1000000, where the local clock is the steady one plus 7 s: sent, 300 us on the
// way, 40 us at the server, 200 us on the way back. The server's clock is 5 s ahead of the steady one.
NtpExchange PlainExchange() {
  NtpExchange exchange;
  exchange.system_offset_from_steady_us = kEpochUs + 7000000;
  exchange.send_local_us = kEpochUs + 8000000;
  exchange.server_receive_us = kEpochUs + 6000300;
  exchange.server_transmit_us = kEpochUs + 6000340;
  exchange.receive_local_us = kEpochUs + 8000540;
  exchange.sample = {-2000000 + 50, 500};
  exchange.precision = -20;
  return exchange;
}

struct Row {
  const char* what;
  void (*change)(NtpExchange& exchange);
  int64_t drift_us;
  OffsetInterval interval;
};

TEST(IntervalTest, WhatOneExchangeProves) {
  // The offset is 5 s. The way there makes it 300 us more at most and the way back 200 us less. To both ends
  // come 1 us of precision, 1 of tolerance, 1 of the server's rounding and 1 of our own stamps.
  const Row rows[] = {
      {"nothing but the ways", [](NtpExchange&) {}, 0, {4999796, 5000304}},
      {"half the root delay, rounded up",
       [](NtpExchange& e) { e.root_delay_us = 11; },
       0,
       {4999790, 5000310}},
      {"the root dispersion", [](NtpExchange& e) { e.root_dispersion_us = 11; }, 0, {4999785, 5000315}},
      {"a server that says less than nothing of its error says nothing",
       [](NtpExchange& e) { e.root_delay_us = e.root_dispersion_us = kMin; },
       0,
       {4999796, 5000304}},
      {"a precision of a sixteenth of a second",
       [](NtpExchange& e) { e.precision = -4; },
       0,
       {4999796 - 62499, 5000304 + 62499}},
      {"a precision of 2 s",
       [](NtpExchange& e) { e.precision = 1; },
       0,
       {4999796 - 1999999, 5000304 + 1999999}},
      {"the finest precision", [](NtpExchange& e) { e.precision = -128; }, 0, {4999796, 5000304}},
      {"a stamp of the kernel for the request widens the end that it belongs to",
       [](NtpExchange& e) { e.send_stamp = NtpStampSource::kKernel; },
       0,
       {4999796, 5000313}},
      {"and one for the reply the other end",
       [](NtpExchange& e) { e.receive_stamp = NtpStampSource::kKernel; },
       0,
       {4999787, 5000304}},
      {"15 millionths of a round trip of a second are 15 us",
       [](NtpExchange& e) { e.sample.rtt_us = 1000000; },
       0,
       {4999782, 5000318}},
      {"what our clock may have gained or lost", [](NtpExchange&) {}, 100, {4999696, 5000404}},
      {"a drift below nothing is none", [](NtpExchange&) {}, -100, {4999796, 5000304}},
      {"a precision that says nothing proves nothing",
       [](NtpExchange& e) { e.precision = 40; },
       0,
       {kMin, kMax}},
      {"an endless drift proves nothing", [](NtpExchange&) {}, kMax, {kMin, kMax}},
      {"only the end that does not fit is lost",
       [](NtpExchange& e) { e.server_receive_us = kMin; },
       0,
       {4999796, kMax}},
  };
  for (const Row& row : rows) {
    NtpExchange exchange = PlainExchange();
    row.change(exchange);
    EXPECT_EQ(ProvenInterval(exchange, row.drift_us), row.interval) << row.what;
  }
}

TEST(IntervalTest, TheIntersectionIsWhatAllSay) {
  EXPECT_EQ(Intersect({{1, 9}}), (OffsetInterval{1, 9}));
  EXPECT_EQ(Intersect({{1, 9}, {-5, 3}, {2, 20}}), (OffsetInterval{2, 3}));
  EXPECT_EQ(Intersect({{1, 5}, {5, 9}}), (OffsetInterval{5, 5}));
  EXPECT_EQ(Intersect({{1, 5}, {6, 9}}), std::nullopt);
  EXPECT_EQ(Intersect({{kMin, kMax}, {kMin, 0}}), (OffsetInterval{kMin, 0}));
}

RC_GTEST_PROP(IntervalPropertyTest, NoInputOverflowsOrMakesAnIntervalNarrower, ()) {
  const NtpExchange e = AnyExchange();
  const int64_t drift_us = AnyNumber();
  const OffsetInterval interval = ProvenInterval(e, drift_us);
  const auto least = [](int64_t value) { return Wide{std::max<int64_t>(value, 0)}; };
  Wide error_us = (least(e.root_delay_us) + 1) / 2 + least(e.root_dispersion_us) + least(drift_us) +
                  (least(e.sample.rtt_us) * 15 + 999999) / 1000000;
  error_us += e.precision >= 0 ? Wide{1000000} << std::min<int>(e.precision, 70)
                               : ((Wide{1000000} << 20) >> std::min<int>(-e.precision, 60)) >> 20;
  const Wide offset_us = e.system_offset_from_steady_us;
  const Wide earliest_us =
      Wide{e.server_transmit_us} - kEpochUs - (e.receive_local_us - offset_us) - error_us;
  const Wide latest_us = Wide{e.server_receive_us} - kEpochUs - (e.send_local_us - offset_us) + error_us;
  // The largest and the smallest number stand for no end at all.
  RC_ASSERT(interval.earliest_us == kMin || interval.earliest_us <= earliest_us);
  RC_ASSERT(interval.latest_us == kMax || interval.latest_us >= latest_us);
}

RC_GTEST_PROP(IntervalPropertyTest, NoBurstOverflowsInItsJudgement, ()) {
  std::vector<NtpExchange> burst;
  std::vector<NtpResultData> samples;
  for (int64_t i = InRange(1, 20); i > 0; --i) {
    burst.push_back(AnyExchange());
    samples.push_back(burst.back().sample);
  }
  const ClocksReading at{{AnyNumber(), AnyNumber(), AnyNumber()}, AnyNumber()};
  MachineDrift drift;
  drift.Begin({{AnyNumber(), AnyNumber(), AnyNumber()}, InRange(0, kMax - 1)}, AnyNumber());
  drift.Note({{AnyNumber(), AnyNumber(), AnyNumber()}, InRange(0, kMax - 1)});
  RC_ASSERT(drift.drift_us() >= 1);
  RC_ASSERT(ScatterUs(samples.data(), samples.size()) >= 0);
  const ProvenBurst proven = Prove(burst, at, GrowthFromPpb(AnyNumber()), drift.drift_us());
  RC_ASSERT(!proven.interval || proven.interval->earliest_us <= proven.interval->latest_us);
}

// Rounded to the nearest, of any sign.
int64_t NearestUs(int64_t ns) { return (ns >= 0 ? ns + 500 : ns - 499) / 1000; }
int64_t FloorUs(int64_t ns) { return ns >= 0 ? ns / 1000 : -((999 - ns) / 1000); }

// A machine and an honest server. All in nanoseconds of the machine's oscillator, on which the steady clock
// is slewed at one rate and the truth runs at another.
struct Truth {
  int64_t slew_ppb = 0;        // of the steady clock
  int64_t slew_until_ns = 0;   // since 0
  int64_t oscillator_ppb = 0;  // of the truth against the oscillator
  int64_t offset_ns = 0;       // of the truth at 0, since 1970

  static int64_t Part(int64_t ns, int64_t ppb) { return static_cast<int64_t>(Wide{ns} * ppb / 1000000000); }
  int64_t Steady(int64_t at_ns) const { return at_ns + Part(std::min(at_ns, slew_until_ns), slew_ppb); }
  int64_t True(int64_t at_ns) const { return offset_ns + at_ns + Part(at_ns, oscillator_ppb); }
  int64_t OffsetAt(int64_t at_ns) const { return True(at_ns) - Steady(at_ns); }
  base::MachineClocks Clocks(int64_t at_ns) const { return {Steady(at_ns), at_ns, Steady(at_ns)}; }
};

constexpr int64_t kMsNs = 1000000;

// One that begins at `sent_ns`; `ended_ns` becomes when the reply is there. All delays and errors are random.
NtpExchange HonestExchange(const Truth& truth, int64_t sent_ns, int64_t max_delay_ns, int64_t* ended_ns) {
  NtpExchange e;
  e.system_offset_from_steady_us = InRange(-1000000000, 1000000000000000);
  e.root_delay_us = InRange(0, 5000);
  e.root_dispersion_us = InRange(0, 5000);
  e.precision = static_cast<int8_t>(InRange(-24, -18));
  e.send_stamp = *rc::gen::element(NtpStampSource::kKernel, NtpStampSource::kUser);
  e.receive_stamp = *rc::gen::element(NtpStampSource::kKernel, NtpStampSource::kUser);
  // The server's clock is wrong by anything up to what it says, at each end another amount.
  const int64_t server_error_ns = (e.root_delay_us * 500) + e.root_dispersion_us * 1000;
  const auto server_us = [&](int64_t at_ns) {
    return NearestUs(truth.True(at_ns) + InRange(-server_error_ns, server_error_ns)) + kEpochUs;
  };
  const int64_t received_ns = sent_ns + Either({0, 1, InRange(0, max_delay_ns)});
  const int64_t answered_ns = received_ns + Either({0, InRange(0, kMsNs)});
  *ended_ns = answered_ns + Either({0, 1, InRange(0, max_delay_ns)});
  e.server_receive_us = server_us(received_ns);
  e.server_transmit_us = server_us(answered_ns);
  // A request's own stamp is early by any delay, and late by at most the error of its kind; a reply's the
  // other way round. Ticks are cut to microseconds.
  const auto stamp_error_ns = [](NtpStampSource source) {
    return source == NtpStampSource::kKernel ? InRange(0, kKernelStampErrorUs * 1000 - 1000) : 0;
  };
  const int64_t early_ns = Either({0, InRange(0, kMsNs)});
  const int64_t late_ns = Either({0, InRange(0, kMsNs)});
  e.send_local_us = FloorUs(truth.Steady(sent_ns) - early_ns + stamp_error_ns(e.send_stamp)) +
                    e.system_offset_from_steady_us;
  e.receive_local_us = FloorUs(truth.Steady(*ended_ns) + late_ns - stamp_error_ns(e.receive_stamp)) +
                       e.system_offset_from_steady_us;
  e.sample.rtt_us = std::max<int64_t>(
      (e.receive_local_us - e.send_local_us) - (e.server_transmit_us - e.server_receive_us), 0);
  e.sample.offset_us =
      ((e.server_receive_us - e.send_local_us) + (e.server_transmit_us - e.receive_local_us)) / 2;
  return e;
}

bool Contains(const OffsetInterval& interval, int64_t offset_ns) {
  return Wide{interval.earliest_us} * 1000 <= offset_ns && offset_ns <= Wide{interval.latest_us} * 1000;
}

RC_GTEST_PROP(IntervalPropertyTest, AnHonestExchangeProvesAnIntervalWithTheTruthInside, ()) {
  Truth truth;
  truth.offset_ns = InRange(-2000000000000000000, 2000000000000000000);
  int64_t ended_ns = 0;
  const NtpExchange e = HonestExchange(truth, InRange(0, 1000000000000000), 1000 * kMsNs, &ended_ns);
  RC_ASSERT(Contains(ProvenInterval(e, 0), truth.OffsetAt(0)));
}

RC_GTEST_PROP(IntervalPropertyTest, AnHonestBurstOnASlewedClockHasTheTruthInside, ()) {
  Truth truth;
  truth.offset_ns = InRange(0, 2000000000000000000);
  truth.slew_ppb = Either({0, InRange(-83333000, 83333000)});
  truth.slew_until_ns = InRange(0, 20000 * kMsNs);
  truth.oscillator_ppb = Either({-50000, 0, 50000});
  const int64_t max_delay_ns = Either({100 * 1000, kMsNs, 80 * kMsNs});
  int64_t now_ns = InRange(0, 1000 * kMsNs);
  MachineDrift drift;
  drift.Begin({truth.Clocks(now_ns), 0}, 0);
  std::vector<NtpExchange> burst;
  for (int64_t i = InRange(1, 20); i > 0; --i) {
    burst.push_back(HonestExchange(truth, now_ns, max_delay_ns, &now_ns));
    drift.Note({truth.Clocks(now_ns), 0});
    now_ns += InRange(0, 300 * kMsNs);
  }
  const ClocksReading at{truth.Clocks(now_ns), 0};
  drift.Note(at);
  const ProvenBurst proven = Prove(burst, at, GrowthFromPpb(50000), drift.drift_us());
  // Random delays may look like a ramp or an opposition; then nothing is proved, which is no error.
  if (!proven.interval) {
    RC_ASSERT(IsRamp(burst, drift.drift_us()) || AreWaysOpposed(burst, drift.drift_us()));
    return;
  }
  RC_ASSERT(Contains(*proven.interval, truth.OffsetAt(now_ns)));
}

NtpExchange ExchangeAt(int64_t ticks_us, int64_t offset_us, int64_t there_us, int64_t back_us) {
  NtpExchange e;
  e.precision = -20;
  e.send_local_us = ticks_us;
  e.server_receive_us = ticks_us + there_us + offset_us;
  e.server_transmit_us = e.server_receive_us;
  e.receive_local_us = ticks_us + there_us + back_us;
  e.sample = {offset_us + (there_us - back_us) / 2, there_us + back_us};
  return e;
}

TEST(IntervalTest, AServerWhoseClockRunsAwayDuringTheBurstIsARamp) {
  std::vector<NtpExchange> ramp;
  std::vector<NtpExchange> queue;
  std::vector<NtpExchange> jitter;
  for (int64_t i = 0; i < 20; ++i) {
    const int64_t wobble_us = i * 7919 % 1000;
    ramp.push_back(ExchangeAt(i * 150000, i * 2000, 5000 + wobble_us, 5000));
    queue.push_back(ExchangeAt(i * 150000, 0, 5000 + i * 4000, 5000));
    jitter.push_back(ExchangeAt(i * 150000, 0, 5000 + 5 * wobble_us, 5000 + i * 6007 % 5000));
  }
  EXPECT_TRUE(IsRamp(ramp, 100));
  EXPECT_FALSE(IsRamp(ramp, 30000)) << "our own clock drifted as much";
  EXPECT_FALSE(IsRamp(queue, 100)) << "a queue that builds up explains its offsets";
  EXPECT_FALSE(IsRamp(jitter, 100));
  ramp.resize(5);
  EXPECT_FALSE(IsRamp(ramp, 100)) << "too few to say so";
  EXPECT_FALSE(IsRamp(std::vector<NtpExchange>(20, ramp[0]), 100)) << "all at the same moment";
}

TEST(IntervalTest, ABurstThatContradictsItselfProvesNothing) {
  const ClocksReading at{{.boot_ns = 200000000, .raw_ns = 0, .monotonic_ns = 0}, 0};
  const ProvenBurst honest =
      Prove({ExchangeAt(0, 1000, 500, 500), ExchangeAt(100000, 1000, 500, 100)}, at, GrowthFromPpb(50000), 1);
  ASSERT_TRUE(honest.interval);
  EXPECT_FALSE(
      Prove({ExchangeAt(0, 1000, 500, 500), ExchangeAt(100000, 9000, 500, 100)}, at, GrowthFromPpb(50000), 1)
          .interval);
}

TEST(IntervalTest, AnExchangeAgesUntilTheReading) {
  const NtpExchange exchange = ExchangeAt(0, 1000, 500, 500);
  const auto width_us = [&](int64_t boot_ns) {
    const auto interval = Prove({exchange}, {{boot_ns, 0, 0}, 0}, GrowthFromPpb(50000), 1).interval;
    return interval->latest_us - interval->earliest_us;
  };
  // 50 ppm of 200 s at both ends.
  EXPECT_NEAR(static_cast<double>(width_us(200000000000) - width_us(0)), 20000, 4);
}

TEST(IntervalTest, TheMedianHalfWidthOverTwoWaysOf10MsWithQueuesOf5MsIs11MsAtMost) {
  netmodel::Random random(1);
  std::vector<int64_t> widths_us;
  for (int i = 0; i < 1001; ++i) {
    const RandomBurst burst = MakeBurst(random, BurstKind::kSymmetric);
    const ClocksReading at{{burst.end_ticks_us * 1000, 0, 0}, 0};
    const auto interval = Prove(burst.exchanges, at, GrowthFromPpb(50000), 1).interval;
    if (interval) {
      ASSERT_TRUE(Contains(*interval, burst.offset_us * 1000));
      widths_us.push_back(interval->latest_us - interval->earliest_us);
    }
  }
  ASSERT_GT(widths_us.size(), 990u);
  std::sort(widths_us.begin(), widths_us.end());
  EXPECT_LE(widths_us[widths_us.size() / 2], 2 * 11000);
}

TEST(IntervalTest, ALeapSecondThatAnyReplyAnnouncesIsNoted) {
  std::vector<NtpExchange> burst(3, ExchangeAt(0, 0, 10, 10));
  EXPECT_EQ(Prove(burst, {}, 0, 0).leap, LeapWarning::kNone);
  burst[1].leap_indicator = 1;
  EXPECT_EQ(Prove(burst, {}, 0, 0).leap, LeapWarning::kInsert);
  burst[2].leap_indicator = 2;
  EXPECT_EQ(Prove(burst, {}, 0, 0).leap, LeapWarning::kDelete);
}

TEST(MachineDriftTest, ItIsTheRangeOfWhatTheSteadyClockGained) {
  constexpr int64_t kSecondNs = 1000000000;
  MachineDrift drift;
  drift.Begin({{kSecondNs, kSecondNs, kSecondNs}, 0}, 0);
  EXPECT_EQ(drift.drift_us(), 1);
  drift.Note({{2 * kSecondNs + 5000, 2 * kSecondNs, 2 * kSecondNs + 5000}, 0});
  drift.Note({{3 * kSecondNs - 2000, 3 * kSecondNs, 3 * kSecondNs - 2000}, 0});
  EXPECT_EQ(drift.drift_us(), 8);
  // The machine sleeps for an hour: by a second it may have been longer or shorter.
  drift.Note({{3604 * kSecondNs, 4 * kSecondNs, 4 * kSecondNs}, 0});
  EXPECT_EQ(drift.drift_us(), 1000008);
  drift.Begin({{kSecondNs, kSecondNs, kSecondNs}, 0}, 100000);
  EXPECT_EQ(drift.drift_us(), 1);
  // The kernel's correction of 100 ppm is no slew.
  drift.Note({{2 * kSecondNs + 100000, 2 * kSecondNs, 2 * kSecondNs + 100000}, 0});
  EXPECT_EQ(drift.drift_us(), 1);
}

TEST(MachineDriftTest, ADelayBetweenTheClocksDoesNotHideASlew) {
  constexpr int64_t kSecondNs = 1000000000;
  MachineDrift drift;
  drift.Begin({{0, 0, 0}, 0}, 0);
  // The clock lost 3 ms, and the reader was put aside for 3 ms between the raw clock and the monotonic one.
  drift.Note({{kSecondNs - 3000000, kSecondNs, kSecondNs}, 3000000});
  EXPECT_GE(drift.drift_us(), 3000);
}

TEST(ScatterTest, ItIsTheRootOfTheMeanSquare) {
  const NtpResultData samples[] = {{100, 1}, {104, 2}, {100, 3}, {104, 4}};
  EXPECT_EQ(ScatterUs(samples, 4), 2);
  EXPECT_EQ(ScatterUs(samples, 1), 0);
  EXPECT_EQ(ScatterUs(samples, 0), 0);
  const NtpResultData extremes[] = {{kMin, 1}, {kMax, 2}};
  EXPECT_EQ(ScatterUs(extremes, 2), kMaxTimeUs);
}

}  // namespace
}  // namespace skorra
