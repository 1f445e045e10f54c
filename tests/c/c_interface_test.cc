// SPDX-License-Identifier: Apache-2.0

// The C interface, function by function, in the simulated world. tests/c/c_program.c waits on real threads,
// and tests/c/out_of_memory.cc takes the memory away.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "c/skorra_ntp.h"
#include "clock/ntp_clock.h"
#include "clock/shared_clock.h"
#include "gmock/gmock.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/log.h"
#include "platform/metrics/key_metrics.h"
#include "sim/network.h"
#include "sim/world.h"
#include "testing/addresses.h"
#include "testing/temp_dir.h"
#include "testing/vm_clock_page.h"

namespace skorra {
namespace {

constexpr char kA[] = "203.0.113.1";
constexpr char kB[] = "203.0.113.2";
constexpr int64_t kSecondUs = 1000000;
constexpr size_t kSmallest = 16;
constexpr size_t kLargest = 4096;

template <class Struct>
Struct Sized() {
  Struct made{};
  made.struct_size = sizeof made;
  return made;
}

// A struct of `size` bytes as another version's caller has it, with guards on both sides.
template <class Struct>
class Room {
 public:
  explicit Room(size_t size, unsigned char filler = 0) : size_(size) {
    std::memset(bytes_, kGuard, sizeof bytes_);
    std::memset(bytes_ + kFront, filler, size);
    std::memcpy(bytes_ + kFront, &size, sizeof size);
  }
  Struct* get() { return reinterpret_cast<Struct*>(bytes_ + kFront); }
  unsigned char byte(size_t i) const { return bytes_[kFront + i]; }
  void SetByte(size_t i, unsigned char value) { bytes_[kFront + i] = value; }
  // The struct as this version's caller sees it, zeros where the other one has nothing.
  Struct Seen() const {
    Struct seen{};
    std::memcpy(&seen, bytes_ + kFront, std::min(size_, sizeof seen));
    return seen;
  }
  bool AreGuardsWhole() const {
    for (size_t i = 0; i < sizeof bytes_; ++i) {
      if ((i < kFront || i >= kFront + size_) && bytes_[i] != kGuard) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr size_t kFront = 64;
  static constexpr unsigned char kGuard = 0xa5;
  const size_t size_;
  alignas(std::max_align_t) unsigned char bytes_[kLargest + 256];
};

class CInterfaceTest : public ::testing::Test {
 protected:
  struct Heard {
    skorra_ntp_outcome outcome;
    skorra_ntp_reading reading;
  };
  // What a callback is given as `user`.
  struct Ear {
    std::vector<Heard> heard;
    std::function<void()> during;
    static void Hear(void* user, const skorra_ntp_outcome* outcome, const skorra_ntp_reading* reading) {
      auto* const ear = static_cast<Ear*>(user);
      ear->heard.push_back({*outcome, *reading});
      if (ear->during) {
        ear->during();
      }
    }
  };

  CInterfaceTest() { base::SetLogThreshold(base::kLogNothing); }
  ~CInterfaceTest() override {
    skorra_ntp_stop();
    world.RunFor(base::TimeDelta::FromSeconds(60));  // sockets are closed before their world ends
  }

  int StartWith(const std::vector<const char*>& servers) {
    auto options = Sized<skorra_ntp_options>();
    options.servers = servers.data();
    options.server_count = servers.size();
    return skorra_ntp_start(&options);
  }
  void RunS(int64_t s) { world.RunFor(base::TimeDelta::FromSeconds(s)); }
  void SyncOnce() {
    network.AddServer(Address(kA), {.clock_error_us = 7});
    ASSERT_EQ(StartWith({kA}), SKORRA_NTP_OK);
    RunS(5);
    ASSERT_TRUE(NtpClock::Read().has_time());
  }
  int64_t TrueUs() { return world.true_us() - base::kWindowsToUnixEpochUs; }
  sim::World world;
  sim::Network network{world};
};

// --- Codes.

TEST_F(CInterfaceTest, EachErrorHasATextOfItsOwn) {
  std::set<std::string> texts;
  for (int error = SKORRA_NTP_OK; error <= SKORRA_NTP_ERROR_INTERNAL; ++error) {
    const std::string text = skorra_ntp_error_text(error);
    EXPECT_NE(text, "unknown error") << error;
    EXPECT_TRUE(texts.insert(text).second) << text;
  }
  EXPECT_STREQ(skorra_ntp_error_text(-1), "unknown error");
  EXPECT_STREQ(skorra_ntp_error_text(SKORRA_NTP_ERROR_INTERNAL + 1), "unknown error");
  EXPECT_STREQ(skorra_ntp_error_text(INT32_MAX), "unknown error");
}

TEST_F(CInterfaceTest, TheNumbersOfTheErrorsStay) {
  const std::vector<int> numbers = {SKORRA_NTP_OK,
                                    SKORRA_NTP_ERROR_NULL_ARGUMENT,
                                    SKORRA_NTP_ERROR_STRUCT_SIZE,
                                    SKORRA_NTP_ERROR_UNKNOWN_MEMBER,
                                    SKORRA_NTP_ERROR_OUT_OF_RANGE,
                                    SKORRA_NTP_ERROR_BAD_SERVER,
                                    SKORRA_NTP_ERROR_NO_MEMORY,
                                    SKORRA_NTP_ERROR_TIMED_OUT,
                                    SKORRA_NTP_ERROR_NOT_RUNNING,
                                    SKORRA_NTP_ERROR_IN_CALLBACK,
                                    SKORRA_NTP_ERROR_INTERNAL};
  EXPECT_THAT(numbers, testing::ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
}

TEST_F(CInterfaceTest, CodesHaveTheNamesOfTheClock) {
  for (int i = -1; i <= 13; ++i) {
    EXPECT_STREQ(skorra_ntp_status_name(i), NtpClockStatusName(static_cast<NtpClockStatus>(i)));
    EXPECT_STREQ(skorra_ntp_reason_name(i), NtpSyncReasonName(static_cast<NtpSyncReason>(i)));
    EXPECT_STREQ(skorra_ntp_agreement_name(i), NtpClockAgreementName(static_cast<NtpClockAgreement>(i)));
  }
  EXPECT_STREQ(skorra_ntp_agreement_name(SKORRA_NTP_AGREEMENT_UNCHECKED), "unchecked");
  EXPECT_STREQ(skorra_ntp_agreement_name(SKORRA_NTP_AGREEMENT_AGREES), "agrees");
  EXPECT_STREQ(skorra_ntp_agreement_name(SKORRA_NTP_AGREEMENT_CONFLICT), "conflict");
  EXPECT_STREQ(skorra_ntp_agreement_name(SKORRA_NTP_AGREEMENT_OUTVOTED), "outvoted");
  EXPECT_STREQ(skorra_ntp_agreement_name(SKORRA_NTP_AGREEMENT_OUTVOTED + 1), "unknown");
  EXPECT_STREQ(skorra_ntp_status_name(SKORRA_NTP_STATUS_FREE_RUNNING), "free_running");
  EXPECT_STREQ(skorra_ntp_reason_name(SKORRA_NTP_REASON_TOO_FEW_SAMPLES), "too_few_samples");
  EXPECT_STREQ(skorra_ntp_result_name(SKORRA_NTP_RESULT_NONE), "none");
  EXPECT_STREQ(skorra_ntp_result_name(SKORRA_NTP_RESULT_SUCCESS), "success");
  EXPECT_STREQ(skorra_ntp_result_name(SKORRA_NTP_RESULT_MAYBE_INACCURATE), "maybe_inaccurate");
  EXPECT_STREQ(skorra_ntp_result_name(2), "unknown");
}

TEST_F(CInterfaceTest, TheVersionIsThatOfTheProject) {
  EXPECT_STREQ(skorra_ntp_version(), SKORRA_VERSION);
  uint32_t major = 99;
  uint32_t minor = 99;
  uint32_t patch = 99;
  EXPECT_EQ(skorra_ntp_version_numbers(&major, &minor, &patch), SKORRA_NTP_OK);
  EXPECT_EQ(std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch),
            SKORRA_VERSION);
  EXPECT_EQ(skorra_ntp_version_numbers(nullptr, &minor, &patch), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_version_numbers(&major, nullptr, &patch), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_version_numbers(&major, &minor, nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
}

// --- Sizes.

TEST_F(CInterfaceTest, ASizeThatNoStructHasIsAnErrorAndChangesNothing) {
  for (const size_t size :
       {size_t{0}, size_t{1}, kSmallest - 1, kSmallest + 1, kLargest + 8, SIZE_MAX, SIZE_MAX - 7}) {
    Room<skorra_ntp_reading> room(kLargest);
    room.get()->struct_size = size;
    const Room<skorra_ntp_reading> before = room;
    EXPECT_EQ(skorra_ntp_read(room.get()), SKORRA_NTP_ERROR_STRUCT_SIZE) << size;
    EXPECT_EQ(std::memcmp(&room, &before, sizeof room), 0) << size;
    auto options = Sized<skorra_ntp_options>();
    options.struct_size = size;
    EXPECT_EQ(skorra_ntp_start(&options), SKORRA_NTP_ERROR_STRUCT_SIZE) << size;
    auto outcome = Sized<skorra_ntp_outcome>();
    outcome.struct_size = size;
    auto reading = Sized<skorra_ntp_reading>();
    EXPECT_EQ(skorra_ntp_sync_and_wait(0, &outcome, &reading), SKORRA_NTP_ERROR_STRUCT_SIZE) << size;
    outcome = Sized<skorra_ntp_outcome>();
    reading.struct_size = size;
    EXPECT_EQ(skorra_ntp_sync_and_wait(0, &outcome, &reading), SKORRA_NTP_ERROR_STRUCT_SIZE) << size;
    auto statistics = Sized<skorra_ntp_statistics>();
    statistics.struct_size = size;
    EXPECT_EQ(skorra_ntp_take_statistics(&statistics), SKORRA_NTP_ERROR_STRUCT_SIZE) << size;
  }
  EXPECT_FALSE(NtpClock::IsRunning());
}

TEST_F(CInterfaceTest, AReadingOfAnySizeHoldsWhatFitsAndZerosBeyondWhatIsKnown) {
  SyncOnce();
  const NtpClockReading now = NtpClock::Read();
  for (size_t size = kSmallest; size <= kLargest; size += alignof(skorra_ntp_reading)) {
    Room<skorra_ntp_reading> room(size, 0x77);
    ASSERT_EQ(skorra_ntp_read(room.get()), SKORRA_NTP_OK) << size;
    ASSERT_TRUE(room.AreGuardsWhole()) << size;
    ASSERT_EQ(room.get()->struct_size, size);
    const skorra_ntp_reading seen = room.Seen();
    ASSERT_EQ(seen.status, SKORRA_NTP_STATUS_SYNCHRONIZED);
    const auto holds = [&](size_t offset) { return offset < size; };
    ASSERT_EQ(seen.best_estimate_us,
              holds(offsetof(skorra_ntp_reading, best_estimate_us)) ? now.best_estimate_us : 0);
    ASSERT_EQ(seen.age_us, holds(offsetof(skorra_ntp_reading, age_us)) ? now.age_us : 0);
    for (size_t i = sizeof(skorra_ntp_reading); i < size; ++i) {
      ASSERT_EQ(room.byte(i), 0) << size;
    }
  }
}

TEST_F(CInterfaceTest, TheOptionsOfAnOlderCallerEndWhereItsStructEnds) {
  network.AddServer(Address(kA), {});
  // What follows in memory is no option: as one it would be out of range.
  Room<skorra_ntp_options> room(offsetof(skorra_ntp_options, interval_s));
  const char* const servers[] = {kA};
  room.get()->servers = servers;
  room.get()->server_count = 1;
  EXPECT_EQ(skorra_ntp_start(room.get()), SKORRA_NTP_OK);
  RunS(5);
  EXPECT_STREQ(NtpClock::Read().domain, kA);
}

TEST_F(CInterfaceTest, TheOptionsOfANewerCallerMustNotAskForWhatIsUnknown) {
  network.AddServer(Address(kA), {});
  const char* const servers[] = {kA};
  for (const size_t size : {sizeof(skorra_ntp_options) + 8, kLargest}) {
    for (const size_t place : {sizeof(skorra_ntp_options), size - 1}) {
      Room<skorra_ntp_options> room(size);
      room.get()->servers = servers;
      room.get()->server_count = 1;
      room.SetByte(place, 1);
      EXPECT_EQ(skorra_ntp_start(room.get()), SKORRA_NTP_ERROR_UNKNOWN_MEMBER) << size << " " << place;
      EXPECT_FALSE(NtpClock::IsRunning());
    }
  }
  Room<skorra_ntp_options> room(kLargest);
  room.get()->servers = servers;
  room.get()->server_count = 1;
  EXPECT_EQ(skorra_ntp_start(room.get()), SKORRA_NTP_OK);
  RunS(5);
  EXPECT_TRUE(NtpClock::Read().has_time());
}

TEST_F(CInterfaceTest, OutcomesAndStatisticsOfOtherSizesHoldWhatFits) {
  for (const size_t size : {kSmallest, sizeof(skorra_ntp_outcome), sizeof(skorra_ntp_outcome) + 64}) {
    Room<skorra_ntp_outcome> outcome(size, 0x77);
    Room<skorra_ntp_reading> reading(size + 32, 0x77);
    EXPECT_EQ(skorra_ntp_sync_and_wait(0, outcome.get(), reading.get()), SKORRA_NTP_OK);
    EXPECT_TRUE(outcome.AreGuardsWhole());
    EXPECT_TRUE(reading.AreGuardsWhole());
    EXPECT_EQ(outcome.Seen().reason, SKORRA_NTP_REASON_STOPPED);
    EXPECT_EQ(outcome.Seen().attempt, 0u);
    EXPECT_EQ(reading.Seen().status, SKORRA_NTP_STATUS_UNKNOWN);
  }
  for (const size_t size : {kSmallest, sizeof(skorra_ntp_statistics) + 64}) {
    NtpTimeManager::GetInstance()->Start();
    NtpTimeManager::GetInstance()->Start();
    Room<skorra_ntp_statistics> statistics(size, 0x77);
    EXPECT_EQ(skorra_ntp_take_statistics(statistics.get()), SKORRA_NTP_OK);
    EXPECT_TRUE(statistics.AreGuardsWhole());
    EXPECT_GT(statistics.Seen().start_count, 0u);
    EXPECT_EQ(statistics.Seen().attempts.request_count, 0u);
    RunS(1);
  }
}

// --- Starting.

TEST_F(CInterfaceTest, OptionsThatAreWrongStartNothing) {
  const char* const with_null[] = {kA, nullptr};
  const char* const malformed[] = {kA, "not a name"};
  const char* const empty[] = {""};
  struct Case {
    int error;
    std::function<void(skorra_ntp_options&)> set;
  };
  const Case cases[] = {
      {SKORRA_NTP_ERROR_NULL_ARGUMENT, [&](auto& o) { o.server_count = 1; }},
      {SKORRA_NTP_ERROR_NULL_ARGUMENT, [&](auto& o) { o.servers = with_null, o.server_count = 2; }},
      {SKORRA_NTP_ERROR_BAD_SERVER, [&](auto& o) { o.servers = malformed, o.server_count = 2; }},
      {SKORRA_NTP_ERROR_BAD_SERVER, [&](auto& o) { o.servers = empty, o.server_count = 1; }},
      {SKORRA_NTP_ERROR_OUT_OF_RANGE, [&](auto& o) { o.interval_s = 15; }},
      {SKORRA_NTP_ERROR_OUT_OF_RANGE, [&](auto& o) { o.interval_s = 1; }},
      {SKORRA_NTP_ERROR_OUT_OF_RANGE, [&](auto& o) { o.frequency_error_ppm = 100001; }},
      {SKORRA_NTP_ERROR_OUT_OF_RANGE, [&](auto& o) { o.max_error_us = -1; }},
  };
  EXPECT_EQ(skorra_ntp_start(nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  for (const Case& row : cases) {
    auto options = Sized<skorra_ntp_options>();
    row.set(options);
    EXPECT_EQ(skorra_ntp_start(&options), row.error) << &row - cases;
    EXPECT_FALSE(NtpClock::IsRunning());
  }
  EXPECT_TRUE(world.posted().empty());
}

TEST_F(CInterfaceTest, TheEndsOfEachRangeAreOptions) {
  for (const int end : {0, 1}) {
    auto options = Sized<skorra_ntp_options>();
    options.interval_s = end == 0 ? 16 : UINT32_MAX;
    options.frequency_error_ppm = end == 0 ? 1 : 100000;
    options.max_error_us = end == 0 ? 1 : INT64_MAX;
    options.vmclock_path = end == 0 ? "" : "/nonexistent";
    EXPECT_EQ(skorra_ntp_start(&options), SKORRA_NTP_OK);
    EXPECT_TRUE(NtpClock::IsRunning());
    EXPECT_EQ(skorra_ntp_stop(), SKORRA_NTP_OK);
    EXPECT_FALSE(NtpClock::IsRunning());
  }
}

// The bound of a reading grows as the options say: 50 ppm are the default of the clock.
TEST_F(CInterfaceTest, OptionsReachTheClock) {
  network.AddServer(Address(kA), {});
  const char* const servers[] = {kA};
  int64_t growth_us[2] = {};
  for (int i = 0; i < 2; ++i) {
    auto options = Sized<skorra_ntp_options>();
    options.servers = servers;
    options.server_count = 1;
    options.interval_s = 3600;
    options.frequency_error_ppm = i == 0 ? 0 : 500;
    ASSERT_EQ(skorra_ntp_start(&options), SKORRA_NTP_OK);
    RunS(60);
    const int64_t before_us = NtpClock::Read().error_bound_us;
    RunS(100);
    growth_us[i] = NtpClock::Read().error_bound_us - before_us;
  }
  EXPECT_NEAR(static_cast<double>(growth_us[0]), 5000.0, 100.0);
  EXPECT_NEAR(static_cast<double>(growth_us[1]), 50000.0, 1000.0);
}

TEST_F(CInterfaceTest, TheTextsOfTheOptionsMayBeGoneAfterTheCall) {
  network.AddServer(Address(kA), {});
  std::string server = kA;
  ASSERT_EQ(StartWith({server.data()}), SKORRA_NTP_OK);
  server.assign(server.size(), 'x');
  RunS(5);
  EXPECT_STREQ(NtpClock::Read().domain, kA);
}

TEST_F(CInterfaceTest, ServersAreAddedToAClockThatRuns) {
  ASSERT_EQ(StartWith({}), SKORRA_NTP_OK);
  RunS(5);
  network.AddServer(Address(kA), {});
  const char* const servers[] = {kA};
  EXPECT_EQ(skorra_ntp_add_servers(servers, 1), SKORRA_NTP_OK);
  RunS(5);
  EXPECT_TRUE(NtpClock::Read().has_time());
  EXPECT_EQ(skorra_ntp_add_servers(nullptr, 0), SKORRA_NTP_OK);
}

TEST_F(CInterfaceTest, ServersAreNotedBeforeAStart) {
  network.AddServer(Address(kA), {});
  const char* const servers[] = {kA};
  EXPECT_EQ(skorra_ntp_add_servers(servers, 1), SKORRA_NTP_OK);
  RunS(5);
  EXPECT_FALSE(NtpClock::IsRunning());
  EXPECT_FALSE(NtpClock::Read().has_time());
  ASSERT_EQ(StartWith({}), SKORRA_NTP_OK);
  RunS(5);
  EXPECT_TRUE(NtpClock::Read().has_time());
}

TEST_F(CInterfaceTest, ANameThatIsAddedIsTriedUntilItHasAnAddress) {
  ASSERT_EQ(StartWith({}), SKORRA_NTP_OK);
  RunS(5);
  const char* const servers[] = {"late.test"};
  EXPECT_EQ(skorra_ntp_add_servers(servers, 1), SKORRA_NTP_OK);
  RunS(30);
  EXPECT_FALSE(NtpClock::Read().has_time());
  network.AddServer(Address(kA), {});
  world.SetHost("late.test", {{Address(kA)}});
  RunS(400);
  EXPECT_TRUE(NtpClock::Read().has_time());
}

TEST_F(CInterfaceTest, OfAListWithAMistakeNoServerIsAdded) {
  network.AddServer(Address(kA), {});
  network.AddServer(Address(kB), {});
  const char* const malformed[] = {kA, "host:99999", kB};
  const char* const with_null[] = {kA, nullptr};
  EXPECT_EQ(skorra_ntp_add_servers(malformed, 3), SKORRA_NTP_ERROR_BAD_SERVER);
  EXPECT_EQ(skorra_ntp_add_servers(with_null, 2), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_add_servers(nullptr, 1), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  ASSERT_EQ(StartWith({}), SKORRA_NTP_OK);
  RunS(60);
  EXPECT_FALSE(NtpClock::Read().has_time());
}

TEST_F(CInterfaceTest, AfterAStopReadingsGoOn) {
  SyncOnce();
  EXPECT_EQ(skorra_ntp_stop(), SKORRA_NTP_OK);
  EXPECT_EQ(skorra_ntp_stop(), SKORRA_NTP_OK);
  RunS(10);
  EXPECT_EQ(skorra_ntp_now_us(), TrueUs() + 7);
  auto reading = Sized<skorra_ntp_reading>();
  EXPECT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
  EXPECT_TRUE(reading.has_bound);
}

// --- Reading.

TEST_F(CInterfaceTest, WithoutATimeAReadingSaysSo) {
  EXPECT_EQ(skorra_ntp_now_us(), 0);
  EXPECT_EQ(skorra_ntp_read(nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  auto reading = Sized<skorra_ntp_reading>();
  std::memset(&reading.status, 0x77, sizeof reading - offsetof(skorra_ntp_reading, status));
  ASSERT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
  EXPECT_EQ(reading.status, SKORRA_NTP_STATUS_UNKNOWN);
  EXPECT_EQ(reading.result, SKORRA_NTP_RESULT_NONE);
  EXPECT_EQ(reading.agreement, SKORRA_NTP_AGREEMENT_UNCHECKED);
  EXPECT_FALSE(reading.has_time);
  EXPECT_FALSE(reading.has_bound);
  EXPECT_STREQ(reading.domain, "");
  EXPECT_EQ(reading.best_estimate_us, 0);
  EXPECT_EQ(reading.earliest_us, INT64_MIN);
  EXPECT_EQ(reading.latest_us, INT64_MAX);
  EXPECT_EQ(reading.error_estimate_us, INT64_MAX);
  EXPECT_EQ(reading.error_bound_us, INT64_MAX);
  EXPECT_EQ(reading.age_us, 0);
  EXPECT_EQ(reading.witness_count, 0u);
  EXPECT_EQ(reading.agreeing_count, 0u);
  EXPECT_EQ(reading.frequency_ppb, INT64_MIN);
}

TEST_F(CInterfaceTest, AReadingIsThatOfTheClockMemberByMember) {
  SyncOnce();
  const NtpClockReading expected = NtpClock::Read();
  auto reading = Sized<skorra_ntp_reading>();
  ASSERT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
  EXPECT_EQ(reading.struct_size, sizeof reading);
  EXPECT_EQ(reading.status, SKORRA_NTP_STATUS_SYNCHRONIZED);
  EXPECT_EQ(reading.result, SKORRA_NTP_RESULT_SUCCESS);
  EXPECT_TRUE(reading.has_time);
  EXPECT_TRUE(reading.has_bound);
  EXPECT_STREQ(reading.domain, kA);
  EXPECT_EQ(reading.domain, expected.domain);
  EXPECT_EQ(reading.best_estimate_us, expected.best_estimate_us);
  EXPECT_EQ(reading.earliest_us, expected.earliest_us);
  EXPECT_EQ(reading.latest_us, expected.latest_us);
  EXPECT_EQ(reading.error_estimate_us, expected.error_estimate_us);
  EXPECT_EQ(reading.error_bound_us, expected.error_bound_us);
  EXPECT_EQ(reading.age_us, expected.age_us);
  EXPECT_GT(reading.age_us, 0);
  // The server's clock is 7 us ahead of the truth, and the truth lies between the limits.
  EXPECT_EQ(reading.best_estimate_us, TrueUs() + 7);
  EXPECT_EQ(skorra_ntp_now_us(), TrueUs() + 7);
  EXPECT_LE(reading.earliest_us, TrueUs());
  EXPECT_GE(reading.latest_us, TrueUs());
}

TEST_F(CInterfaceTest, AReadingTellsTheRateAndWhatTheOtherServersSay) {
  SyncOnce();
  auto reading = Sized<skorra_ntp_reading>();
  ASSERT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
  EXPECT_EQ(reading.agreement, SKORRA_NTP_AGREEMENT_UNCHECKED) << "there is one server";
  EXPECT_EQ(reading.frequency_ppb, INT64_MIN) << "there was one sync";
  ClockSnapshot snapshot = internal::ProcessClock().snapshot.Read();
  snapshot.agreement = NtpClockAgreement::kOutvoted;
  snapshot.witness_count = 5;
  snapshot.agreeing_count = 2;
  snapshot.frequency_ppb = -19873;
  internal::ProcessClock().snapshot.Publish(snapshot);
  ASSERT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
  EXPECT_EQ(reading.agreement, SKORRA_NTP_AGREEMENT_OUTVOTED);
  EXPECT_EQ(reading.witness_count, 5u);
  EXPECT_EQ(reading.agreeing_count, 2u);
  EXPECT_EQ(reading.frequency_ppb, -19873);
}

// A caller that was compiled before these members were there, and one from later.
TEST_F(CInterfaceTest, AnOlderReadingEndsBeforeTheRate) {
  SyncOnce();
  Room<skorra_ntp_reading> room(offsetof(skorra_ntp_reading, witness_count), 0x77);
  ASSERT_EQ(skorra_ntp_read(room.get()), SKORRA_NTP_OK);
  EXPECT_TRUE(room.AreGuardsWhole());
  EXPECT_GT(room.Seen().age_us, 0);
  EXPECT_EQ(room.Seen().frequency_ppb, 0) << "nothing was written";
}

TEST_F(CInterfaceTest, AMachineThatWasMovedHasATimeAndNoBound) {
  const TempDir dir;
  const std::string path = dir / "vmclock";
  WriteFile(path, VmClockPage(7));
  network.AddServer(Address(kA), {});
  const char* const servers[] = {kA};
  auto options = Sized<skorra_ntp_options>();
  options.servers = servers;
  options.server_count = 1;
  options.vmclock_path = path.c_str();
  ASSERT_EQ(skorra_ntp_start(&options), SKORRA_NTP_OK);
  RunS(5);
  auto reading = Sized<skorra_ntp_reading>();
  ASSERT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
  EXPECT_TRUE(reading.has_bound);
  SetVmClockMarker(path, 8);
  ASSERT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
  EXPECT_EQ(reading.status, SKORRA_NTP_STATUS_DISRUPTED);
  EXPECT_TRUE(reading.has_time);
  EXPECT_FALSE(reading.has_bound);
  EXPECT_EQ(reading.error_bound_us, INT64_MAX);
}

TEST_F(CInterfaceTest, TheManagersReadingIsItsOwn) {
  EXPECT_EQ(skorra_ntp_manager_time_us(), 0);
  RunS(60);
  SyncOnce();
  EXPECT_EQ(skorra_ntp_manager_time_us(), NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970());
  EXPECT_EQ(skorra_ntp_manager_time_us(), TrueUs() + 7);
}

// --- Syncing and waiting.

TEST_F(CInterfaceTest, ASyncHasOneOutcomeWithTheReadingAfterIt) {
  network.AddServer(Address(kA), {});
  ASSERT_EQ(StartWith({kA}), SKORRA_NTP_OK);
  Ear ear;
  EXPECT_EQ(skorra_ntp_sync(30 * kSecondUs, Ear::Hear, &ear), SKORRA_NTP_OK);
  EXPECT_TRUE(ear.heard.empty()) << "it comes on the library's thread";
  RunS(60);
  ASSERT_EQ(ear.heard.size(), 1u);
  EXPECT_EQ(ear.heard[0].outcome.struct_size, sizeof(skorra_ntp_outcome));
  EXPECT_EQ(ear.heard[0].outcome.reason, SKORRA_NTP_REASON_OK);
  EXPECT_EQ(ear.heard[0].outcome.attempt, 1u);
  EXPECT_EQ(ear.heard[0].reading.struct_size, sizeof(skorra_ntp_reading));
  EXPECT_TRUE(ear.heard[0].reading.has_bound);
  EXPECT_STREQ(ear.heard[0].reading.domain, kA);
}

TEST_F(CInterfaceTest, ASyncThatBringsNothingTellsWhy) {
  ASSERT_EQ(StartWith({kA}), SKORRA_NTP_OK);  // it is silent
  Ear slow;
  Ear patient;
  EXPECT_EQ(skorra_ntp_sync(kSecondUs, Ear::Hear, &slow), SKORRA_NTP_OK);
  EXPECT_EQ(skorra_ntp_sync(INT64_MAX, Ear::Hear, &patient), SKORRA_NTP_OK);
  RunS(60);
  ASSERT_EQ(slow.heard.size(), 1u);
  EXPECT_EQ(slow.heard[0].outcome.reason, SKORRA_NTP_REASON_TIMED_OUT);
  ASSERT_EQ(patient.heard.size(), 1u);
  EXPECT_EQ(patient.heard[0].outcome.reason, SKORRA_NTP_REASON_SILENT);
  EXPECT_FALSE(patient.heard[0].reading.has_time);
}

TEST_F(CInterfaceTest, WithoutARunningClockASyncEndsAtOnce) {
  Ear ear;
  EXPECT_EQ(skorra_ntp_sync(30 * kSecondUs, Ear::Hear, &ear), SKORRA_NTP_OK);
  ASSERT_EQ(ear.heard.size(), 1u);
  EXPECT_EQ(ear.heard[0].outcome.reason, SKORRA_NTP_REASON_STOPPED);
  EXPECT_EQ(ear.heard[0].outcome.attempt, 0u);
  auto outcome = Sized<skorra_ntp_outcome>();
  auto reading = Sized<skorra_ntp_reading>();
  EXPECT_EQ(skorra_ntp_sync_and_wait(0, &outcome, &reading), SKORRA_NTP_OK);
  EXPECT_EQ(outcome.reason, SKORRA_NTP_REASON_STOPPED);
  EXPECT_EQ(reading.status, SKORRA_NTP_STATUS_UNKNOWN);
  EXPECT_EQ(skorra_ntp_sync_and_wait(0, nullptr, nullptr), SKORRA_NTP_OK);
}

TEST_F(CInterfaceTest, ASyncThatCannotBeAskedForIsAnError) {
  ASSERT_EQ(StartWith({kA}), SKORRA_NTP_OK);
  Ear ear;
  EXPECT_EQ(skorra_ntp_sync(0, nullptr, &ear), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_sync(-1, Ear::Hear, &ear), SKORRA_NTP_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(skorra_ntp_sync_and_wait(-1, nullptr, nullptr), SKORRA_NTP_ERROR_OUT_OF_RANGE);
  RunS(60);
  EXPECT_TRUE(ear.heard.empty());
}

TEST_F(CInterfaceTest, AWaitTellsWhyItEnded) {
  EXPECT_EQ(skorra_ntp_wait_until_synced(0), SKORRA_NTP_ERROR_NOT_RUNNING);
  EXPECT_EQ(skorra_ntp_wait_until_bound(1, 0), SKORRA_NTP_ERROR_NOT_RUNNING);
  ASSERT_EQ(StartWith({kA}), SKORRA_NTP_OK);
  EXPECT_EQ(skorra_ntp_wait_until_synced(0), SKORRA_NTP_ERROR_TIMED_OUT);
  EXPECT_EQ(skorra_ntp_wait_until_bound(1, 0), SKORRA_NTP_ERROR_TIMED_OUT);
  SyncOnce();
  EXPECT_EQ(skorra_ntp_wait_until_synced(0), SKORRA_NTP_OK);
  EXPECT_EQ(skorra_ntp_wait_until_bound(kSecondUs, 0), SKORRA_NTP_OK);
  EXPECT_EQ(skorra_ntp_wait_until_bound(0, 0), SKORRA_NTP_ERROR_TIMED_OUT);
  EXPECT_EQ(skorra_ntp_stop(), SKORRA_NTP_OK);
  EXPECT_EQ(skorra_ntp_wait_until_synced(0), SKORRA_NTP_OK) << "there is a time all the same";
  EXPECT_EQ(skorra_ntp_wait_until_bound(0, 0), SKORRA_NTP_ERROR_NOT_RUNNING);
}

TEST_F(CInterfaceTest, AWaitWithANegativeNumberIsAnError) {
  EXPECT_EQ(skorra_ntp_wait_until_synced(-1), SKORRA_NTP_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(skorra_ntp_wait_until_bound(-1, 0), SKORRA_NTP_ERROR_OUT_OF_RANGE);
  EXPECT_EQ(skorra_ntp_wait_until_bound(0, INT64_MIN), SKORRA_NTP_ERROR_OUT_OF_RANGE);
}

TEST_F(CInterfaceTest, ACallbackCannotWaitAndMayDoAllElse) {
  network.AddServer(Address(kA), {});
  ASSERT_EQ(StartWith({kA}), SKORRA_NTP_OK);
  Ear ear;
  ear.during = [] {
    EXPECT_EQ(skorra_ntp_sync_and_wait(0, nullptr, nullptr), SKORRA_NTP_ERROR_IN_CALLBACK);
    EXPECT_EQ(skorra_ntp_wait_until_synced(0), SKORRA_NTP_ERROR_IN_CALLBACK);
    EXPECT_EQ(skorra_ntp_wait_until_bound(0, 0), SKORRA_NTP_ERROR_IN_CALLBACK);
    auto reading = Sized<skorra_ntp_reading>();
    EXPECT_EQ(skorra_ntp_read(&reading), SKORRA_NTP_OK);
    EXPECT_TRUE(reading.has_time);
    EXPECT_EQ(skorra_ntp_stop(), SKORRA_NTP_OK);
  };
  EXPECT_EQ(skorra_ntp_sync(30 * kSecondUs, Ear::Hear, &ear), SKORRA_NTP_OK);
  RunS(60);
  EXPECT_EQ(ear.heard.size(), 1u);
  EXPECT_FALSE(NtpClock::IsRunning());
  EXPECT_EQ(skorra_ntp_wait_until_synced(0), SKORRA_NTP_OK) << "outside the callback it may wait";
}

// --- Observing.

TEST_F(CInterfaceTest, AnObserverHearsEachAttemptUntilItIsUnsubscribed) {
  Ear ear;
  Ear other;
  skorra_ntp_subscription* subscription = nullptr;
  skorra_ntp_subscription* second = nullptr;
  ASSERT_EQ(skorra_ntp_subscribe(Ear::Hear, &ear, &subscription), SKORRA_NTP_OK);
  ASSERT_EQ(skorra_ntp_subscribe(Ear::Hear, &other, &second), SKORRA_NTP_OK);
  ASSERT_NE(subscription, nullptr);
  SyncOnce();
  ASSERT_EQ(ear.heard.size(), 1u);
  EXPECT_EQ(ear.heard[0].outcome.reason, SKORRA_NTP_REASON_OK);
  EXPECT_EQ(ear.heard[0].outcome.attempt, 1u);
  EXPECT_STREQ(ear.heard[0].reading.domain, kA);
  EXPECT_EQ(skorra_ntp_unsubscribe(subscription), SKORRA_NTP_OK);
  RunS(2 * 3600);
  EXPECT_EQ(ear.heard.size(), 1u);
  EXPECT_GT(other.heard.size(), 1u);
  EXPECT_EQ(skorra_ntp_unsubscribe(second), SKORRA_NTP_OK);
}

TEST_F(CInterfaceTest, AnObserverMayUnsubscribeItself) {
  Ear ear;
  skorra_ntp_subscription* subscription = nullptr;
  ASSERT_EQ(skorra_ntp_subscribe(Ear::Hear, &ear, &subscription), SKORRA_NTP_OK);
  ear.during = [&] { EXPECT_EQ(skorra_ntp_unsubscribe(subscription), SKORRA_NTP_OK); };
  SyncOnce();
  RunS(2 * 3600);
  EXPECT_EQ(ear.heard.size(), 1u);
}

TEST_F(CInterfaceTest, ObserversWithoutAFunctionOrAPlaceAreErrors) {
  Ear ear;
  skorra_ntp_subscription* subscription = nullptr;
  EXPECT_EQ(skorra_ntp_subscribe(nullptr, &ear, &subscription), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(subscription, nullptr);
  EXPECT_EQ(skorra_ntp_subscribe(Ear::Hear, &ear, nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_unsubscribe(nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  SyncOnce();
  EXPECT_TRUE(ear.heard.empty());
}

// --- Statistics and counters.

TEST_F(CInterfaceTest, StatisticsAreThoseOfTheManagerSinceTheReportBefore) {
  SyncOnce();
  EXPECT_EQ(skorra_ntp_take_statistics(nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  auto statistics = Sized<skorra_ntp_statistics>();
  statistics.struct_size = 1;
  EXPECT_EQ(skorra_ntp_take_statistics(&statistics), SKORRA_NTP_ERROR_STRUCT_SIZE);
  statistics.struct_size = sizeof statistics;
  ASSERT_EQ(skorra_ntp_take_statistics(&statistics), SKORRA_NTP_OK) << "an error ended the period";
  EXPECT_EQ(statistics.attempts.request_count, 1u);
  EXPECT_EQ(statistics.attempts.success_count, 1u);
  EXPECT_EQ(statistics.attempts.failure_count, 0u);
  EXPECT_GT(statistics.attempts.max_cost_ms, 0u);
  EXPECT_EQ(statistics.attempts.average_cost_ms, statistics.attempts.max_cost_ms);
  EXPECT_EQ(statistics.attempts.total_cost_ms, statistics.attempts.max_cost_ms);
  EXPECT_EQ(statistics.other_domains.request_count, 1u);
  EXPECT_EQ(statistics.default_domain.request_count, 0u);
  EXPECT_EQ(statistics.deviation_found, 0u);
  ASSERT_EQ(skorra_ntp_take_statistics(&statistics), SKORRA_NTP_OK);
  EXPECT_EQ(statistics.attempts.request_count, 0u);
}

struct Counts {
  std::map<std::string, uint64_t> by_name;
  std::map<uint64_t, uint64_t> by_key;
};

void NoteCounter(void* user, const char* name, uint64_t value) {
  static_cast<Counts*>(user)->by_name[name] = value;
}

void NoteKeyMetric(void* user, uint64_t key, uint64_t value) {
  static_cast<Counts*>(user)->by_key[key] = value;
}

TEST_F(CInterfaceTest, CountersAreThoseOfTheProcess) {
  base::KeyMetrics::Count("test.of_c");
  base::KeyMetrics::Count("test.of_c");
  base::KeyMetrics::CountPV(12345678901, 3);
  uint64_t value = 99;
  EXPECT_EQ(skorra_ntp_counter("test.of_c", &value), SKORRA_NTP_OK);
  EXPECT_EQ(value, 2u);
  EXPECT_EQ(skorra_ntp_counter("test.never", &value), SKORRA_NTP_OK);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(skorra_ntp_key_metric(12345678901, &value), SKORRA_NTP_OK);
  EXPECT_EQ(value, 3u);
  Counts counts;
  EXPECT_EQ(skorra_ntp_each_counter(NoteCounter, &counts), SKORRA_NTP_OK);
  EXPECT_EQ(skorra_ntp_each_key_metric(NoteKeyMetric, &counts), SKORRA_NTP_OK);
  EXPECT_EQ(counts.by_name, base::KeyMetrics::GetAllCounts());
  EXPECT_EQ(counts.by_name.at("test.of_c"), 2u);
  EXPECT_EQ(counts.by_key, base::KeyMetrics::GetAllPV());
  EXPECT_EQ(counts.by_key.at(12345678901), 3u);
}

TEST_F(CInterfaceTest, CountersWithoutANameOrAPlaceAreErrors) {
  uint64_t value = 99;
  EXPECT_EQ(skorra_ntp_counter(nullptr, &value), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_counter("test.of_c", nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_key_metric(1, nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_each_counter(nullptr, nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(skorra_ntp_each_key_metric(nullptr, nullptr), SKORRA_NTP_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(value, 99u);
}

}  // namespace
}  // namespace skorra
