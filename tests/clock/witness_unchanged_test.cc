// SPDX-License-Identifier: Apache-2.0

// Witnesses change nothing but what a reading says of them: the same world is played with them and without,
// and the manager's events, its kept results and the packets to the servers that win are the same.
//
// The nonces of the witnesses' requests move the world's random numbers on. So delays are constant, nonces
// are left out of what is compared over many attempts, and compared in a first attempt, before any witness is
// asked.
#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "ntp/ntp_sync_events.h"
#include "tests/clock/witness_world.h"

namespace skorra {
namespace {

using ::testing::IsEmpty;

constexpr size_t kNonceAt = 40;  // in a request's 48 bytes

std::string Hex(const std::vector<uint8_t>& bytes) {
  std::string text;
  for (const uint8_t byte : bytes) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", byte);
    text += pair;
  }
  return text;
}

// What is heard of the manager, line by line with the steady time.
class Recorder : public NtpSyncListener, public NtpTimeManager::Observer {
 public:
  Recorder(sim::World& world, NtpTimeManagerPeer& peer) : world_(world), peer_(peer) {}

  void OnNtpResult(NtpResult result, const std::string& message, const net::IPEndPoint& server) override {
    Line("observer %d %s %s", static_cast<int>(result), message.c_str(), server.ToString().c_str());
  }
  void OnAttemptBegun() override { Line("begun"); }
  void OnBurstBegun(const NtpBurstBegun& e) override {
    Line("burst %s %s", e.domain.c_str(), e.server.ToString().c_str());
  }
  void OnSampleAccepted(const NtpSampleAccepted& e) override {
    Line("sample %s %lld %lld", e.domain.c_str(), static_cast<long long>(e.sample.offset_us),
         static_cast<long long>(e.sample.rtt_us));
  }
  void OnDomainEvaluated(const NtpDomainEvaluated& e) override {
    Line("evaluated %s %d %lld", e.domain.c_str(), static_cast<int>(e.record.result),
         static_cast<long long>(e.record.offset_us));
  }
  void OnAttemptEnded(const NtpAttemptEnded& e) override {
    Line("ended %s %d %s %d %lld, kept %lld %d", NtpAttemptEndName(e.end), static_cast<int>(e.result),
         e.domain.c_str(), e.is_kept ? 1 : 0, static_cast<long long>(e.record.offset_us),
         static_cast<long long>(peer_.ntp_offset_us().load()), static_cast<int>(peer_.last_result().load()));
  }
  void OnQueueStopped() override { Line("stopped"); }

  __attribute__((format(printf, 2, 3))) void Line(const char* format, ...) {
    char text[300];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    lines.push_back(std::to_string(world_.steady_ticks_us()) + ' ' + text);
  }

  std::vector<std::string> lines;

 private:
  sim::World& world_;
  NtpTimeManagerPeer& peer_;
};

struct Story {
  std::vector<std::string> lines;    // of the manager, and of the clock's outcomes
  std::vector<std::string> packets;  // to the servers that win
  size_t attempts = 0;
  size_t reports = 0;
  size_t packets_to_others = 0;
};

constexpr size_t kFirst = 0;   // wins, but not while it is silent
constexpr size_t kSecond = 1;  // wins then

// Seven domains: two that win by turns, and others that are silent, refuse, lie or share an address.
Story Play(const char* mode, uint64_t seed, size_t attempts, bool with_nonces) {
  WitnessWorld w(mode, seed);
  Story story;
  const auto recorder = std::make_shared<Recorder>(w.world, w.peer);
  AddNtpSyncListener(recorder);
  w.peer.manager().AddObserver(recorder);
  w.network.AddListener([&](const sim::SentDatagram& sent) {
    std::vector<uint8_t> bytes = sent.bytes;
    if (!with_nonces) {
      bytes.resize(kNonceAt);
    }
    if (sent.server == Address(w.Name(kFirst)) || sent.server == Address(w.Name(kSecond))) {
      story.packets.push_back(std::to_string(sent.sent_ticks_us) + ' ' + sent.server.ToString() + ' ' +
                              Hex(bytes));
    } else {
      ++story.packets_to_others;
    }
  });
  netmodel::ServerOptions first = w.Near(0, 3000);
  first.script = [&](netmodel::Exchange& e) { e.is_answered = w.outcomes.size() % 5 != 3; };
  w.Add(std::move(first));
  w.Add(w.Near(500, 4000));
  netmodel::ServerOptions silent = w.Near();
  silent.is_silent = true;
  w.Add(std::move(silent));
  for (const char* code : {"RATE", "DENY"}) {
    netmodel::ServerOptions refusing = w.Near();
    refusing.kiss_code = code;
    w.Add(std::move(refusing));
  }
  w.Add(w.Near(3600 * base::kUsPerSecond, 90000));
  w.world.SetHost("shared.test", {.addresses = {Address(w.Name(kFirst))}});
  w.names.push_back("shared.test");
  w.on_outcome = [&](const NtpSyncOutcome& o) {
    const NtpClockReading& r = o.reading;
    recorder->Line("outcome %s %llu: %s %lld %lld %lld %lld %lld %s", NtpSyncReasonName(o.reason),
                   static_cast<unsigned long long>(o.attempt), NtpClockStatusName(r.status),
                   static_cast<long long>(r.best_estimate_us), static_cast<long long>(r.earliest_us),
                   static_cast<long long>(r.latest_us), static_cast<long long>(r.error_estimate_us),
                   static_cast<long long>(r.error_bound_us), r.domain);
  };
  w.StartAll(64);
  while (story.attempts < attempts && w.RunToOutcome()) {
    ++story.attempts;
  }
  w.world.RunFor(KeptClock::S(5));
  RemoveNtpSyncListener(recorder.get());
  story.lines = recorder->lines;
  story.reports = w.reports.size();
  return story;
}

TEST(WitnessUnchangedTest, HundredsOfAttemptsAreTheSameWithWitnessesAndWithout) {
  constexpr size_t kAttempts = 300;
  for (const uint64_t seed : {1u, 2u, 3u}) {
    const Story off = Play("off", seed, kAttempts, false);
    const Story report = Play("report", seed, kAttempts, false);
    EXPECT_EQ(off.attempts, kAttempts);
    EXPECT_EQ(off.reports, 0u);
    EXPECT_GT(report.reports, kAttempts - 2);
    EXPECT_GT(report.packets_to_others, off.packets_to_others);
    EXPECT_EQ(report.lines, off.lines);
    // The same packets in the same order. Those that come between them go to the one that did not win.
    auto place = report.packets.begin();
    for (const std::string& packet : off.packets) {
      place = std::find(place, report.packets.end(), packet);
      ASSERT_NE(place, report.packets.end()) << packet;
      ++place;
    }
    EXPECT_EQ(report.packets.size(), off.packets.size() + 2 * report.reports);
  }
}

TEST(WitnessUnchangedTest, ThePacketsToTheWinnerAreTheSameByteForByte) {
  for (uint64_t seed = 1; seed <= 30; ++seed) {
    const Story off = Play("off", seed, 1, true);
    const Story report = Play("report", seed, 1, true);
    EXPECT_EQ(report.lines, off.lines);
    ASSERT_GE(off.packets.size(), 40u);  // 20 to each
    ASSERT_GE(report.packets.size(), off.packets.size());
    EXPECT_TRUE(std::equal(off.packets.begin(), off.packets.end(), report.packets.begin()));
    EXPECT_EQ(report.packets.size(), off.packets.size() + 2) << "two to the second server, which did not win";
  }
}

}  // namespace
}  // namespace skorra
