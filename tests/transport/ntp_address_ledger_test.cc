#include "transport/ntp_address_ledger.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/base/time.h"

namespace skorra {
namespace {

constexpr int64_t kSecond = base::kUsPerSecond;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kNow = 5000 * kSecond;

const net::IPEndPoint kServer = net::IPEndPoint::FromLiteral("192.0.2.10", 123).value();
const net::IPEndPoint kOtherServer = net::IPEndPoint::FromLiteral("192.0.2.11", 123).value();

class NtpAddressLedgerTest : public testing::Test {
 protected:
  // What a burst of 20 to the server may send.
  uint32_t Begin(int64_t now_us, const net::IPEndPoint& server = kServer) {
    uint32_t request_count = 20;
    refusal_ = ledger_.BeginBurst(server, now_us, &request_count);
    EXPECT_EQ(refusal_, refusal_ == SendRefusal::kNone ? SendRefusal::kNone : ledger_.Check(server, now_us));
    EXPECT_EQ(request_count == 0, refusal_ != SendRefusal::kNone);
    return request_count;
  }
  // The whole burst is answered, the last request by RATE.
  bool Rate(int64_t now_us, uint64_t random = 0) {
    ledger_.OnReply(kServer);
    return ledger_.OnRefusal(kServer, KissCode::kRate, now_us, random);
  }
  SendRefusal Check(int64_t now_us) { return ledger_.Check(kServer, now_us); }

  NtpAddressLedger ledger_;
  SendRefusal refusal_ = SendRefusal::kNone;
};

TEST_F(NtpAddressLedgerTest, WhoNeverRefusedIsAskedAtAnyTime) {
  EXPECT_EQ(Check(kNow), SendRefusal::kNone);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Begin(kNow + i), 20u);
  }
}

TEST_F(NtpAddressLedgerTest, RateHoldsTheAddressForTwoMinutesToTheMicrosecond) {
  Begin(kNow);
  EXPECT_TRUE(Rate(kNow + 1));
  EXPECT_EQ(Begin(kNow + 2 * kMinute), 0u);
  EXPECT_EQ(refusal_, SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 1 + 2 * kMinute - 1), SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 1 + 2 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, AnotherAddressIsNotHeld) {
  Begin(kNow);
  Rate(kNow);
  EXPECT_EQ(Begin(kNow, kOtherServer), 20u);
}

TEST_F(NtpAddressLedgerTest, TheBackOffDoublesUpToTwoHours) {
  int64_t now_us = kNow;
  for (const int64_t minutes : {2, 4, 8, 16, 32, 64, 120, 120, 120, 120, 120, 120}) {
    SCOPED_TRACE(minutes);
    Begin(now_us);
    ASSERT_TRUE(Rate(now_us));
    EXPECT_EQ(Check(now_us + minutes * kMinute - 1), SendRefusal::kBackOff);
    now_us += minutes * kMinute;
    EXPECT_EQ(Check(now_us), SendRefusal::kNone);
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
      {"More than that begins anew.", 0, kQuarter + 1, 2 * kMinute},
      {"At the cap it shortens.", 6, 7 * kMinute, 2 * kHour - 7 * kMinute},
      {"Where it would pass the cap.", 5, 16 * kMinute, 80 * kMinute},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    NtpAddressLedger ledger;
    int64_t now_us = kNow;
    uint32_t request_count = 20;
    for (int i = 0; i < row.earlier_rates; ++i) {
      ledger.BeginBurst(kServer, now_us, &request_count);
      ledger.OnReply(kServer);
      ledger.OnRefusal(kServer, KissCode::kRate, now_us, 0);
      now_us += 3 * kHour;
    }
    ledger.BeginBurst(kServer, now_us, &request_count);
    ledger.OnReply(kServer);
    EXPECT_TRUE(ledger.OnRefusal(kServer, KissCode::kRate, now_us, row.random));
    EXPECT_EQ(ledger.Check(kServer, now_us + row.expected_us - 1), SendRefusal::kBackOff);
    EXPECT_EQ(ledger.Check(kServer, now_us + row.expected_us), SendRefusal::kNone);
  }
}

TEST_F(NtpAddressLedgerTest, ABurstWithoutRateBringsTheFirstBackOffBack) {
  Begin(kNow);
  Rate(kNow);
  Begin(kNow + kHour);
  Rate(kNow + kHour);  // 4 minutes from here on
  Begin(kNow + 2 * kHour);
  ledger_.OnReply(kServer);
  Begin(kNow + 3 * kHour);
  Rate(kNow + 3 * kHour);
  EXPECT_EQ(Check(kNow + 3 * kHour + 2 * kMinute - 1), SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 3 * kHour + 2 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, ABurstWithoutAnyReplyDoesNot) {
  Begin(kNow);
  Rate(kNow);
  Begin(kNow + kHour);  // nothing comes back
  Begin(kNow + 2 * kHour);
  Rate(kNow + 2 * kHour);
  EXPECT_EQ(Check(kNow + 2 * kHour + 4 * kMinute - 1), SendRefusal::kBackOff);
  EXPECT_EQ(Check(kNow + 2 * kHour + 4 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, RateForRequestsThatLeftBeforeTheFirstOneIsNoNews) {
  Begin(kNow);
  EXPECT_TRUE(Rate(kNow));
  EXPECT_FALSE(Rate(kNow + 20000));
  EXPECT_FALSE(Rate(kNow + kMinute));
  EXPECT_EQ(Check(kNow + 2 * kMinute), SendRefusal::kNone);
  // Nor did they double what follows.
  Begin(kNow + kHour);
  Rate(kNow + kHour);
  EXPECT_EQ(Check(kNow + kHour + 4 * kMinute), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, WhoLimitedUsOnceGetsSmallBurstsFarApart) {
  Begin(kNow);
  Rate(kNow);
  EXPECT_EQ(Begin(kNow + kHour), 8u);
  EXPECT_EQ(Begin(kNow + kHour + 2 * kMinute - 1), 0u);
  EXPECT_EQ(refusal_, SendRefusal::kSpacing);
  EXPECT_EQ(Begin(kNow + kHour + 2 * kMinute), 8u);
  uint32_t fewer = 3;
  EXPECT_EQ(ledger_.BeginBurst(kServer, kNow + 2 * kHour, &fewer), SendRefusal::kNone);
  EXPECT_EQ(fewer, 3u);
}

TEST_F(NtpAddressLedgerTest, DeniedAddressesAreParkedForFourHours) {
  for (const KissCode code : {KissCode::kDeny, KissCode::kRstr}) {
    NtpAddressLedger ledger;
    uint32_t request_count = 20;
    ledger.BeginBurst(kServer, kNow, &request_count);
    ledger.OnReply(kServer);
    EXPECT_TRUE(ledger.OnRefusal(kServer, code, kNow, 99));
    EXPECT_FALSE(ledger.OnRefusal(kServer, code, kNow + 1, 99));
    EXPECT_EQ(ledger.Check(kServer, kNow + 4 * kHour - 1), SendRefusal::kParked);
    // The server did not say that it was asked too often.
    EXPECT_EQ(ledger.BeginBurst(kServer, kNow + 4 * kHour, &request_count), SendRefusal::kNone);
    EXPECT_EQ(request_count, 20u);
  }
}

TEST_F(NtpAddressLedgerTest, TheStrongerRefusalCounts) {
  Begin(kNow);
  Rate(kNow);
  EXPECT_TRUE(ledger_.OnRefusal(kServer, KissCode::kDeny, kNow + 1, 0));
  EXPECT_EQ(Check(kNow + kHour), SendRefusal::kParked);
  EXPECT_FALSE(Rate(kNow + kHour));
  EXPECT_EQ(Check(kNow + 4 * kHour), SendRefusal::kParked);
  EXPECT_EQ(Check(kNow + 4 * kHour + 1), SendRefusal::kNone);
}

TEST_F(NtpAddressLedgerTest, AnAnswerCountsUntilTheNextBurstBegins) {
  EXPECT_FALSE(ledger_.HasAnswered(kServer));
  Begin(kNow);
  EXPECT_FALSE(ledger_.HasAnswered(kServer));
  ledger_.OnReply(kServer);
  EXPECT_TRUE(ledger_.HasAnswered(kServer));
  EXPECT_FALSE(ledger_.HasAnswered(kOtherServer));
  Begin(kNow + kSecond);
  EXPECT_FALSE(ledger_.HasAnswered(kServer));
}

TEST_F(NtpAddressLedgerTest, EachAddressHasItsNumbers) {
  Begin(kNow);
  ledger_.OnRequestSent(kServer);
  ledger_.OnRequestSent(kServer);
  ledger_.OnReply(kServer);
  Rate(kNow);
  ledger_.OnRequestRefused(kServer);
  Begin(kNow, kOtherServer);
  const auto counts = ledger_.GetCounts();
  ASSERT_EQ(counts.size(), 2u);
  EXPECT_EQ(counts.at(kServer).requests_sent, 2u);
  EXPECT_EQ(counts.at(kServer).replies, 2u);
  EXPECT_EQ(counts.at(kServer).kisses, 1u);
  EXPECT_EQ(counts.at(kServer).requests_refused, 1u);
  EXPECT_EQ(counts.at(kOtherServer).requests_sent, 0u);
}

TEST_F(NtpAddressLedgerTest, NothingIsNotedOfAnAddressThatWasNeverAsked) {
  ledger_.OnRequestSent(kServer);
  ledger_.OnRequestRefused(kServer);
  ledger_.OnReply(kServer);
  EXPECT_TRUE(ledger_.GetCounts().empty());
}

TEST_F(NtpAddressLedgerTest, ARefusalCountsAlsoWhenTheAddressHadToMakeRoomMeanwhile) {
  EXPECT_TRUE(ledger_.OnRefusal(kServer, KissCode::kDeny, kNow, 0));
  EXPECT_EQ(Check(kNow), SendRefusal::kParked);
}

TEST_F(NtpAddressLedgerTest, ABurstThatEndedInADenialDoesNotBringTheFirstBackOffBack) {
  Begin(kNow);
  Rate(kNow);
  Begin(kNow + kHour);
  ledger_.OnReply(kServer);
  ledger_.OnRefusal(kServer, KissCode::kDeny, kNow + kHour, 0);
  Begin(kNow + 6 * kHour);
  Rate(kNow + 6 * kHour);
  EXPECT_EQ(Check(kNow + 6 * kHour + 4 * kMinute - 1), SendRefusal::kBackOff);
}

TEST_F(NtpAddressLedgerTest, TheAddressUsedLongestAgoMakesRoomButNotOneThatIsHeld) {
  Begin(kNow);
  Rate(kNow);
  const auto address = [](size_t i) {
    return net::IPEndPoint::FromIPv4({198, 51, 100, static_cast<uint8_t>(i)}, 123);
  };
  for (size_t i = 0; i + 1 < NtpAddressLedger::kMaxAddresses; ++i) {
    Begin(kNow + 1 + static_cast<int64_t>(i), address(i));
  }
  EXPECT_EQ(ledger_.GetCounts().size(), NtpAddressLedger::kMaxAddresses);
  Begin(kNow + kSecond, kOtherServer);
  const auto counts = ledger_.GetCounts();
  EXPECT_EQ(counts.size(), NtpAddressLedger::kMaxAddresses);
  EXPECT_TRUE(counts.contains(kServer));
  EXPECT_TRUE(counts.contains(kOtherServer));
  EXPECT_FALSE(counts.contains(address(0)));
  EXPECT_TRUE(counts.contains(address(1)));
}

TEST_F(NtpAddressLedgerTest, AClearedLedgerOwesNothing) {
  Begin(kNow);
  Rate(kNow);
  ledger_.Clear();
  EXPECT_EQ(Check(kNow), SendRefusal::kNone);
  EXPECT_TRUE(ledger_.GetCounts().empty());
}

TEST_F(NtpAddressLedgerTest, EveryRefusalHasItsName) {
  EXPECT_STREQ(SendRefusalName(SendRefusal::kNone), "none");
  EXPECT_STREQ(SendRefusalName(SendRefusal::kBackOff), "back_off");
  EXPECT_STREQ(SendRefusalName(SendRefusal::kParked), "parked");
  EXPECT_STREQ(SendRefusalName(SendRefusal::kSpacing), "spacing");
}

}  // namespace
}  // namespace skorra
