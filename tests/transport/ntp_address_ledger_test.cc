// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_address_ledger.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/base/time.h"
#include "platform/metrics/key_metrics.h"
#include "testing/addresses.h"

namespace skorra {
namespace {

constexpr int64_t kSecond = base::kUsPerSecond;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kNow = 5000 * kSecond;

const net::IPEndPoint kServer = Address("192.0.2.10");
const net::IPEndPoint kOtherServer = Address("192.0.2.11");

class NtpAddressLedgerTest : public testing::Test {
 protected:
  // Makes the 20 calls of a burst at once; returns how many leave.
  uint32_t Burst(int64_t now_ticks_us, const net::IPEndPoint& server = kServer,
                 uint32_t requests_per_burst = 20) {
    refusal_ = ledger_.Check(server, now_ticks_us);
    uint32_t left = 0;
    for (int call = 0; call < 20; ++call) {
      left += ledger_.Admit(server, now_ticks_us, requests_per_burst) ? 1 : 0;
    }
    EXPECT_EQ(left == 0, refusal_ != SendRefusal::kNone);
    return left;
  }
  bool Call(int64_t now_ticks_us, uint32_t requests_per_burst = 20) {
    return ledger_.Admit(kServer, now_ticks_us, requests_per_burst);
  }
  // The whole burst is answered, the last request by RATE.
  bool Rate(int64_t now_ticks_us, uint64_t random = 0) {
    ledger_.OnReply(kServer);
    return ledger_.OnRefusal(kServer, KissCode::kRate, now_ticks_us, random);
  }
  SendRefusal Check(int64_t now_ticks_us) { return ledger_.Check(kServer, now_ticks_us); }

  static net::IPEndPoint NumberedAddress(size_t i) {
    return net::IPEndPoint::FromIPv4({198, 51, static_cast<uint8_t>(100 + i / 256), static_cast<uint8_t>(i)},
                                     kNtpPort);
  }
  // A burst to each of `count` addresses, a microsecond apart.
  void FillUp(size_t count) {
    for (size_t i = 0; i < count; ++i) {
      Burst(kNow + 1 + static_cast<int64_t>(i), NumberedAddress(i));
    }
  }

  NtpAddressLedger ledger_;
  SendRefusal refusal_ = SendRefusal::kNone;
};

// --- Bursts.

TEST_F(NtpAddressLedgerTest, AServerThatNeverRefusedIsAskedWithOneBurstAfterAnother) {
  EXPECT_EQ(Check(kNow), SendRefusal::kNone);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Burst(kNow + i * NtpAddressLedger::kFullBurstUs), 20u);
  }
}

TEST_F(NtpAddressLedgerTest, ABurstLastsForASecondOrFor195MillisecondsAndTwentyCalls) {
  const struct {
    const char* what;
    int calls;
    int64_t later_us;
    bool is_new_burst;
  } rows[] = {
      {"One call, and less than a second.", 1, kSecond - 1, false},
      {"One call, and a second.", 1, kSecond, true},
      {"19 calls, and less than a second.", 19, kSecond - 1, false},
      {"20 calls, and less than 195 ms.", 20, 194999, false},
      {"20 calls, and 195 ms.", 20, 195000, true},
      {"21 calls, and 195 ms.", 21, 195000, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    NtpAddressLedger ledger;
    for (int call = 0; call < row.calls; ++call) {
      EXPECT_EQ(ledger.Admit(kServer, kNow, 1), call == 0);
    }
    // The first call of a burst leaves; of one request in a burst, the others do not.
    EXPECT_EQ(ledger.Admit(kServer, kNow + row.later_us, 1), row.is_new_burst);
  }
}

TEST_F(NtpAddressLedgerTest, ABurstKeepsTheRequestCountItBeganWith) {
  EXPECT_TRUE(Call(kNow, 2));
  uint32_t left = 1;
  for (int call = 1; call < 20; ++call) {
    left += Call(kNow, 20) ? 1 : 0;
  }
  EXPECT_EQ(left, 2u);
}

TEST_F(NtpAddressLedgerTest, EachAddressHasItsOwnBursts) {
  EXPECT_EQ(Burst(kNow, kServer, 8), 8u);
  EXPECT_EQ(Burst(kNow, kOtherServer, 8), 8u);
}

TEST_F(NtpAddressLedgerTest, ARefusalEndsTheBurst) {
  EXPECT_TRUE(Call(kNow));
  EXPECT_TRUE(Rate(kNow));
  EXPECT_FALSE(Call(kNow));
  EXPECT_EQ(ledger_.GetCounts().at(kServer).requests_withheld, 1u);
}

TEST_F(NtpAddressLedgerTest, ABurstThatBeganWhileTheAddressWasHeldStaysWithheld) {
  Burst(kNow);
  Rate(kNow);
  const int64_t free_ticks_us = kNow + 2 * kMinute;
  EXPECT_FALSE(Call(free_ticks_us - 1));
  EXPECT_FALSE(Call(free_ticks_us));
  EXPECT_FALSE(Call(free_ticks_us + kSecond - 2));
  EXPECT_TRUE(Call(free_ticks_us + kSecond - 1));
}

TEST_F(NtpAddressLedgerTest, CallsThatDoNotLeaveAreCountedForTheirReason) {
  const auto counts = [] {
    const auto count = [](const char* name) { return base::KeyMetrics::GetCount(name); };
    return std::vector{count("ntp.send_thinned"), count("ntp.send_withheld.back_off"),
                       count("ntp.send_withheld.denied"), count("ntp.send_withheld.too_soon")};
  };
  std::vector<uint64_t> expected = counts();
  Burst(kNow, kServer, 8);
  expected[0] += 12;
  EXPECT_EQ(counts(), expected);
  Rate(kNow);
  Burst(kNow + kSecond);
  expected[1] += 20;
  EXPECT_EQ(counts(), expected);
  Burst(kNow + kHour, kServer, 8);
  expected[0] += 12;
  Burst(kNow + kHour + kMinute);
  expected[3] += 20;
  EXPECT_EQ(counts(), expected);
  ledger_.OnRefusal(kServer, KissCode::kDeny, kNow + kHour + kMinute, 0);
  Burst(kNow + 2 * kHour);
  expected[2] += 20;
  EXPECT_EQ(counts(), expected);
}

// --- Refusals.

TEST_F(NtpAddressLedgerTest, RateHoldsTheAddressForTwoMinutesToTheMicrosecond) {
  Burst(kNow);
  EXPECT_TRUE(Rate(kNow + 1));
  EXPECT_EQ(Burst(kNow + 2 * kMinute), 0u);
  EXPECT_EQ(refusal_, SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 1 + 2 * kMinute - 1), SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 1 + 2 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, AnotherAddressIsNotHeld) {
  Burst(kNow);
  Rate(kNow);
  EXPECT_EQ(Burst(kNow, kOtherServer), 20u);
}

TEST_F(NtpAddressLedgerTest, TheBackOffDoublesUpToTwoHours) {
  int64_t now_ticks_us = kNow;
  for (const int64_t minutes : {2, 4, 8, 16, 32, 64, 120, 120, 120, 120, 120, 120}) {
    SCOPED_TRACE(minutes);
    Burst(now_ticks_us);
    ASSERT_TRUE(Rate(now_ticks_us));
    EXPECT_EQ(Check(now_ticks_us + minutes * kMinute - 1), SendRefusal::kBackOff);
    now_ticks_us += minutes * kMinute;
    EXPECT_EQ(Check(now_ticks_us), SendRefusal::kNone);
  }
}

TEST_F(NtpAddressLedgerTest, TheJitterAddsUpToAQuarterButNotBeyondTheCap) {
  constexpr uint64_t kQuarter = 30 * kSecond;
  const struct {
    const char* what;
    int earlier_rates;
    uint64_t random;
    int64_t expected_us;
  } rows[] = {
      {"None.", 0, 0, 2 * kMinute},
      {"A little.", 0, 5, 2 * kMinute + 5},
      {"All of a quarter.", 0, kQuarter, 2 * kMinute + 30 * kSecond},
      {"More than that starts again at 0.", 0, kQuarter + 1, 2 * kMinute},
      {"At the cap it shortens.", 6, 7 * kMinute, 2 * kHour - 7 * kMinute},
      {"Where it would pass the cap.", 5, 16 * kMinute, 80 * kMinute},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    NtpAddressLedger ledger;
    int64_t now_ticks_us = kNow;
    for (int i = 0; i < row.earlier_rates; ++i) {
      ledger.Admit(kServer, now_ticks_us, 20);
      ledger.OnReply(kServer);
      ledger.OnRefusal(kServer, KissCode::kRate, now_ticks_us, 0);
      now_ticks_us += 3 * kHour;
    }
    ledger.Admit(kServer, now_ticks_us, 20);
    ledger.OnReply(kServer);
    EXPECT_TRUE(ledger.OnRefusal(kServer, KissCode::kRate, now_ticks_us, row.random));
    EXPECT_EQ(ledger.Check(kServer, now_ticks_us + row.expected_us - 1), SendRefusal::kBackOff);
    EXPECT_EQ(ledger.Check(kServer, now_ticks_us + row.expected_us), SendRefusal::kNone);
  }
}

TEST_F(NtpAddressLedgerTest, ABurstWithoutRateBringsTheFirstBackOffBack) {
  Burst(kNow);
  Rate(kNow);
  Burst(kNow + kHour);
  Rate(kNow + kHour);  // 4 minutes from here on
  Burst(kNow + 2 * kHour);
  ledger_.OnReply(kServer);
  Burst(kNow + 3 * kHour);
  Rate(kNow + 3 * kHour);
  EXPECT_EQ(Check(kNow + 3 * kHour + 2 * kMinute - 1), SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 3 * kHour + 2 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, ABurstWithoutAnyReplyKeepsTheLongBackOff) {
  Burst(kNow);
  Rate(kNow);
  Burst(kNow + kHour);  // nothing comes back
  Burst(kNow + 2 * kHour);
  Rate(kNow + 2 * kHour);
  EXPECT_EQ(Check(kNow + 2 * kHour + 4 * kMinute - 1), SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 2 * kHour + 4 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, ARateForAnEarlierRequestDoesNotCountAgain) {
  Burst(kNow);
  EXPECT_TRUE(Rate(kNow));
  EXPECT_FALSE(Rate(kNow + 20000));
  EXPECT_FALSE(Rate(kNow + kMinute));
  EXPECT_EQ(Check(kNow + 2 * kMinute), SendRefusal::kNone);
  // Nor did they double what follows.
  Burst(kNow + kHour);
  Rate(kNow + kHour);
  EXPECT_EQ(Check(kNow + kHour + 4 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, AServerThatLimitedUsOnceGetsSmallBurstsFarApart) {
  Burst(kNow);
  Rate(kNow);
  EXPECT_EQ(Burst(kNow + kHour), 8u);
  EXPECT_EQ(Burst(kNow + kHour + kMinute), 0u);
  EXPECT_EQ(Check(kNow + kHour + 2 * kMinute - 1), SendRefusal::kTooSoon);
  EXPECT_EQ(Burst(kNow + kHour + 2 * kMinute), 8u);
  EXPECT_EQ(Burst(kNow + 2 * kHour, kServer, 3), 3u);
}

TEST_F(NtpAddressLedgerTest, DeniedAddressesAreHeldForFourHours) {
  for (const KissCode code : {KissCode::kDeny, KissCode::kRstr}) {
    NtpAddressLedger ledger;
    ledger.Admit(kServer, kNow, 20);
    ledger.OnReply(kServer);
    EXPECT_TRUE(ledger.OnRefusal(kServer, code, kNow, 99));
    EXPECT_FALSE(ledger.OnRefusal(kServer, code, kNow + 1, 99));
    EXPECT_EQ(ledger.Check(kServer, kNow + 4 * kHour - 1), SendRefusal::kDenied);
    // The server did not say that it was asked too often.
    for (int call = 0; call < 20; ++call) {
      EXPECT_TRUE(ledger.Admit(kServer, kNow + 4 * kHour, 20));
    }
  }
}

TEST_F(NtpAddressLedgerTest, TheStrongerRefusalCounts) {
  Burst(kNow);
  Rate(kNow);
  EXPECT_TRUE(ledger_.OnRefusal(kServer, KissCode::kDeny, kNow + 1, 0));
  EXPECT_EQ(Check(kNow + kHour), SendRefusal::kDenied);
  EXPECT_FALSE(Rate(kNow + kHour));
  EXPECT_EQ(Check(kNow + 4 * kHour), SendRefusal::kDenied);
  EXPECT_EQ(Check(kNow + 4 * kHour + 1), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, AnAnswerCountsUntilTheNextBurstBegins) {
  EXPECT_FALSE(ledger_.HasAnswered(kServer));
  Burst(kNow);
  EXPECT_FALSE(ledger_.HasAnswered(kServer));
  ledger_.OnReply(kServer);
  EXPECT_TRUE(ledger_.HasAnswered(kServer));
  EXPECT_FALSE(ledger_.HasAnswered(kOtherServer));
  Burst(kNow + kSecond);
  EXPECT_FALSE(ledger_.HasAnswered(kServer));
}

TEST_F(NtpAddressLedgerTest, AnAddressIsSilentFromTwoSecondsAfterAnUnansweredBurstUntilAnHourAfterIt) {
  const auto is_silent = [this](int64_t ticks_us) { return ledger_.IsSilent(kServer, ticks_us); };
  EXPECT_FALSE(is_silent(kNow)) << "it was never asked";
  Burst(kNow);
  EXPECT_FALSE(is_silent(kNow + 2 * kSecond - 1));
  EXPECT_TRUE(is_silent(kNow + 2 * kSecond));
  EXPECT_TRUE(is_silent(kNow + kHour - 1));
  EXPECT_FALSE(is_silent(kNow + kHour));
  EXPECT_FALSE(ledger_.IsSilent(kOtherServer, kNow + 2 * kSecond));
  ledger_.OnReply(kServer);
  EXPECT_FALSE(is_silent(kNow + 2 * kSecond));
  // The last burst counts, whatever the one before brought.
  Burst(kNow + kMinute);
  EXPECT_TRUE(is_silent(kNow + kMinute + 2 * kSecond));
}

TEST_F(NtpAddressLedgerTest, AClosedPortCountsUntilAReplyComesOrTheNextBurstBegins) {
  ledger_.OnPortClosed(kServer, kNow);
  EXPECT_FALSE(ledger_.WasClosedSince(kServer, 0)) << "it was never asked";
  Burst(kNow);
  EXPECT_FALSE(ledger_.WasClosedSince(kServer, 0));
  ledger_.OnPortClosed(kServer, kNow + 5);
  EXPECT_TRUE(ledger_.WasClosedSince(kServer, kNow + 5));
  EXPECT_FALSE(ledger_.WasClosedSince(kServer, kNow + 6));
  EXPECT_FALSE(ledger_.WasClosedSince(kOtherServer, 0));
  ledger_.OnReply(kServer);
  EXPECT_FALSE(ledger_.WasClosedSince(kServer, 0)) << "somebody listens there";
  Burst(kNow + kSecond);
  ledger_.OnPortClosed(kServer, kNow + kSecond);
  ASSERT_TRUE(ledger_.WasClosedSince(kServer, 0));
  Burst(kNow + 2 * kSecond);
  EXPECT_FALSE(ledger_.WasClosedSince(kServer, 0));
}

TEST_F(NtpAddressLedgerTest, EachAddressHasItsNumbers) {
  Burst(kNow);
  ledger_.OnRequestSent(kServer);
  ledger_.OnRequestSent(kServer);
  ledger_.OnReply(kServer);
  Rate(kNow);
  Call(kNow);
  Burst(kNow, kOtherServer);
  const auto counts = ledger_.GetCounts();
  ASSERT_EQ(counts.size(), 2u);
  EXPECT_EQ(counts.at(kServer).requests_sent, 2u);
  EXPECT_EQ(counts.at(kServer).replies, 2u);
  EXPECT_EQ(counts.at(kServer).kiss_codes, 1u);
  EXPECT_EQ(counts.at(kServer).requests_withheld, 1u);
  EXPECT_EQ(counts.at(kOtherServer).requests_sent, 0u);
}

TEST_F(NtpAddressLedgerTest, NothingIsNotedOfAnAddressThatWasNeverAsked) {
  ledger_.OnRequestSent(kServer);
  ledger_.OnReply(kServer);
  EXPECT_TRUE(ledger_.GetCounts().empty());
}

TEST_F(NtpAddressLedgerTest, ARefusalCountsAlsoWhenTheAddressWasEvicted) {
  EXPECT_TRUE(ledger_.OnRefusal(kServer, KissCode::kDeny, kNow, 0));
  EXPECT_EQ(Check(kNow), SendRefusal::kDenied);
}

TEST_F(NtpAddressLedgerTest, ARateForAnEvictedAddressHoldsItForTheBackOffAlone) {
  EXPECT_TRUE(Rate(kNow));
  EXPECT_EQ(Check(kNow + NtpAddressLedger::kFirstBackOffUs - 1), SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + NtpAddressLedger::kFirstBackOffUs), SendRefusal::kNone)
      << "no burst is known that the next one must keep away from";
}

TEST_F(NtpAddressLedgerTest, ABurstThatEndedInADenialDoesNotBringTheFirstBackOffBack) {
  Burst(kNow);
  Rate(kNow);
  Burst(kNow + kHour);
  ledger_.OnReply(kServer);
  ledger_.OnRefusal(kServer, KissCode::kDeny, kNow + kHour, 0);
  Burst(kNow + 6 * kHour);
  Rate(kNow + 6 * kHour);
  EXPECT_EQ(Check(kNow + 6 * kHour + 4 * kMinute - 1), SendRefusal::kBackOff);
}

TEST_F(NtpAddressLedgerTest, TheAddressAskedLongestAgoIsEvictedButNotOneThatIsHeld) {
  Burst(kNow);
  Rate(kNow);
  FillUp(NtpAddressLedger::kMaxAddresses - 1);
  EXPECT_EQ(ledger_.GetCounts().size(), NtpAddressLedger::kMaxAddresses);
  Burst(kNow + 2 * kSecond, kOtherServer);
  const auto counts = ledger_.GetCounts();
  EXPECT_EQ(counts.size(), NtpAddressLedger::kMaxAddresses);
  EXPECT_TRUE(counts.contains(kServer));
  EXPECT_TRUE(counts.contains(kOtherServer));
  EXPECT_FALSE(counts.contains(NumberedAddress(0)));
  EXPECT_TRUE(counts.contains(NumberedAddress(1)));
}

TEST_F(NtpAddressLedgerTest, WhenAllAddressesAreHeldTheOneAskedLongestAgoIsEvicted) {
  FillUp(NtpAddressLedger::kMaxAddresses);
  for (size_t i = 0; i < NtpAddressLedger::kMaxAddresses; ++i) {
    ledger_.OnRefusal(NumberedAddress(i), KissCode::kDeny, kNow + kSecond, 0);
  }
  Burst(kNow + 2 * kSecond);
  const auto counts = ledger_.GetCounts();
  EXPECT_EQ(counts.size(), NtpAddressLedger::kMaxAddresses);
  EXPECT_FALSE(counts.contains(NumberedAddress(0)));
  EXPECT_TRUE(counts.contains(kServer));
}

TEST_F(NtpAddressLedgerTest, ABurstUnderWayDoesNotKeepAHeldAddressFromBeingEvicted) {
  FillUp(NtpAddressLedger::kMaxAddresses);
  for (size_t i = 0; i < NtpAddressLedger::kMaxAddresses; ++i) {
    ledger_.OnRefusal(NumberedAddress(i), KissCode::kDeny, kNow + 1000, 0);
  }
  Burst(kNow + 2000);
  const auto counts = ledger_.GetCounts();
  EXPECT_EQ(counts.size(), NtpAddressLedger::kMaxAddresses);
  EXPECT_FALSE(counts.contains(NumberedAddress(0)));
  EXPECT_TRUE(counts.contains(kServer));
}

TEST_F(NtpAddressLedgerTest, ARefusalOfAnEvictedAddressMakesRoomForItself) {
  FillUp(NtpAddressLedger::kMaxAddresses);
  EXPECT_TRUE(ledger_.OnRefusal(kServer, KissCode::kDeny, kNow + 2 * kSecond, 0));
  const auto counts = ledger_.GetCounts();
  EXPECT_EQ(counts.size(), NtpAddressLedger::kMaxAddresses);
  EXPECT_FALSE(counts.contains(NumberedAddress(0)));
  EXPECT_EQ(Check(kNow + 2 * kSecond), SendRefusal::kDenied);
}

// Such an account comes from a refusal that arrived after the address had been evicted.
TEST_F(NtpAddressLedgerTest, AnAddressWithoutABurstStaysWhileItIsHeldAndIsEvictedFirstAfterThat) {
  const int64_t free_ticks_us = kNow + 2 * kSecond;
  ledger_.OnRefusal(kServer, KissCode::kDeny, free_ticks_us - NtpAddressLedger::kDeniedUs, 0);
  FillUp(NtpAddressLedger::kMaxAddresses - 1);
  Burst(free_ticks_us - 1, kOtherServer);
  EXPECT_TRUE(ledger_.GetCounts().contains(kServer));
  EXPECT_FALSE(ledger_.GetCounts().contains(NumberedAddress(0)));
  Burst(free_ticks_us, NumberedAddress(0));
  EXPECT_EQ(ledger_.GetCounts().size(), NtpAddressLedger::kMaxAddresses);
  EXPECT_FALSE(ledger_.GetCounts().contains(kServer));
  EXPECT_TRUE(ledger_.GetCounts().contains(NumberedAddress(1)));
}

// Evicted, each of them would get one burst after another.
TEST_F(NtpAddressLedgerTest, AnAddressWhoseBurstIsUnderWayIsNotEvicted) {
  constexpr size_t kMany = NtpAddressLedger::kMaxAddresses + 10;
  for (int call = 0; call < 20; ++call) {
    for (size_t i = 0; i < kMany; ++i) {
      EXPECT_EQ(ledger_.Admit(NumberedAddress(i), kNow + call, 1), call == 0);
    }
  }
  EXPECT_EQ(ledger_.GetCounts().size(), kMany);
  ledger_.Admit(kOtherServer, kNow + NtpAddressLedger::kFullBurstUs - 1, 1);
  EXPECT_EQ(ledger_.GetCounts().size(), kMany + 1);
  // Once their bursts are over the next address evicts as many as are too many.
  ledger_.Admit(kServer, kNow + NtpAddressLedger::kFullBurstUs, 1);
  EXPECT_EQ(ledger_.GetCounts().size(), NtpAddressLedger::kMaxAddresses);
}

TEST_F(NtpAddressLedgerTest, ARefusalDuringTheBurstsOfAllMakesRoomAtOnce) {
  for (size_t i = 0; i < NtpAddressLedger::kMaxAddresses + 1; ++i) {
    ledger_.Admit(NumberedAddress(i), kNow, 20);
  }
  ASSERT_EQ(ledger_.GetCounts().size(), NtpAddressLedger::kMaxAddresses + 1);
  for (size_t i = 0; i < NtpAddressLedger::kMaxAddresses + 1; ++i) {
    ledger_.OnRefusal(NumberedAddress(i), KissCode::kDeny, kNow + 1, 0);
  }
  ledger_.Admit(kServer, kNow + 2, 20);
  EXPECT_EQ(ledger_.GetCounts().size(), NtpAddressLedger::kMaxAddresses);
}

// --- Single requests.

TEST_F(NtpAddressLedgerTest, ASingleRequestLeavesWhenABurstWouldAndBeginsNone) {
  EXPECT_TRUE(ledger_.AdmitSingle(kServer, kNow));
  EXPECT_TRUE(ledger_.GetCounts().empty()) << "an address without an account gets none";
  EXPECT_EQ(Burst(kNow), 20u);
  EXPECT_TRUE(ledger_.AdmitSingle(kServer, kNow)) << "the burst has had its calls, and this is none of them";
  EXPECT_TRUE(ledger_.AdmitSingle(kServer, kNow + 5 * kSecond));
  EXPECT_EQ(Burst(kNow + 5 * kSecond), 20u);
}

TEST_F(NtpAddressLedgerTest, SingleRequestsTakeNoCallOfABurstAndDoNotMakeItLonger) {
  for (int call = 0; call < 19; ++call) {
    EXPECT_TRUE(Call(kNow));
    EXPECT_TRUE(ledger_.AdmitSingle(kServer, kNow));
  }
  EXPECT_TRUE(Call(kNow)) << "the twentieth";
  EXPECT_FALSE(Call(kNow));
  EXPECT_TRUE(ledger_.AdmitSingle(kServer, kNow + NtpAddressLedger::kFullBurstUs - 1));
  EXPECT_EQ(Burst(kNow + NtpAddressLedger::kFullBurstUs), 20u);
}

TEST_F(NtpAddressLedgerTest, ASingleRequestIsWithheldAndCountedWhileTheAddressIsHeldAndTooSoonAfterItsBurst) {
  Burst(kNow);
  Rate(kNow);
  const uint64_t held = base::KeyMetrics::GetCount("ntp.send_withheld.back_off");
  EXPECT_FALSE(ledger_.AdmitSingle(kServer, kNow + 1));
  EXPECT_EQ(base::KeyMetrics::GetCount("ntp.send_withheld.back_off"), held + 1);
  EXPECT_EQ(ledger_.GetCounts().at(kServer).requests_withheld, 1u);
  const int64_t later = kNow + 3 * kMinute;
  EXPECT_TRUE(ledger_.AdmitSingle(kServer, later));
  EXPECT_EQ(Burst(later), NtpAddressLedger::kLimitedBurst);
  EXPECT_FALSE(ledger_.AdmitSingle(kServer, later + 1));
  EXPECT_EQ(ledger_.GetCounts().at(kServer).requests_withheld, 2u);
  EXPECT_TRUE(ledger_.AdmitSingle(kServer, later + NtpAddressLedger::kBurstSpacingUs));
  ledger_.OnRefusal(kServer, KissCode::kDeny, later + NtpAddressLedger::kBurstSpacingUs, 0);
  EXPECT_FALSE(ledger_.AdmitSingle(kServer, later + kHour));
}

TEST_F(NtpAddressLedgerTest, AReplyToASingleRequestIsCountedAndSaysNothingAboutTheBurst) {
  Burst(kNow);
  ledger_.OnPortClosed(kServer, kNow + 1);
  ledger_.OnSingleReply(kServer);
  EXPECT_EQ(ledger_.GetCounts().at(kServer).replies, 1u);
  EXPECT_FALSE(ledger_.HasAnswered(kServer));
  EXPECT_TRUE(ledger_.WasClosedSince(kServer, kNow));
  EXPECT_TRUE(ledger_.IsSilent(kServer, kNow + NtpAddressLedger::kSilentAfterUs));
}

TEST_F(NtpAddressLedgerTest, AClearedLedgerHoldsNoAddress) {
  Burst(kNow);
  Rate(kNow);
  ledger_.Clear();
  EXPECT_EQ(Check(kNow), SendRefusal::kNone);
  EXPECT_TRUE(ledger_.GetCounts().empty());
}

TEST_F(NtpAddressLedgerTest, EveryRefusalHasItsName) {
  EXPECT_STREQ(SendRefusalName(SendRefusal::kNone), "none");
  EXPECT_STREQ(SendRefusalName(SendRefusal::kBackOff), "back_off");
  EXPECT_STREQ(SendRefusalName(SendRefusal::kDenied), "denied");
  EXPECT_STREQ(SendRefusalName(SendRefusal::kTooSoon), "too_soon");
  EXPECT_STREQ(SendRefusalName(static_cast<SendRefusal>(99)), "unknown");
}

}  // namespace
}  // namespace skorra
