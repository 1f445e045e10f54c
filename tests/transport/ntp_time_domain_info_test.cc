// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_time_domain_info.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/base/time.h"
#include "platform/config/base_cfg.h"
#include "platform/metrics/key_metrics.h"
#include "sim/world.h"
#include "testing/addresses.h"
#include "testing/config_scope.h"
#include "testing/fresh_ledger.h"
#include "transport/name_addresses.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

uint64_t Count(const std::string& reason) { return base::KeyMetrics::GetCount("ntp.domain." + reason); }

class NtpTimeDomainInfoTest : public testing::Test {
 protected:
  NtpTimeDomainInfoTest() {
    world_.SetHost("one.test", {{Address("192.0.2.1", 0)}});
    world_.SetHost("three.test",
                   {{Address("192.0.2.1", 0), Address("2001:db8::2", 0), Address("192.0.2.3", 0)}});
  }

  void SetResolveTimeout(uint64_t timeout_ms) {
    EXPECT_EQ(config_.Set(config::BaseCfg().ntp_resolve_timeout_ms, timeout_ms), "");
  }

  FreshLedger ledger_;
  ConfigScope config_;
  sim::World world_;
};

TEST_F(NtpTimeDomainInfoTest, EveryWayToWriteAServerGivesItsAddressAndPort) {
  const struct {
    const char* what;
    const char* domain;
    net::IPEndPoint expected;
  } rows[] = {
      {"A name alone has the port of NTP.", "one.test", Address("192.0.2.1")},
      {"A name with a port.", "one.test:11123", Address("192.0.2.1", 11123)},
      {"An IPv4 address.", "192.0.2.7", Address("192.0.2.7")},
      {"An IPv4 address with the largest port.", "192.0.2.7:65535", Address("192.0.2.7", 65535)},
      {"A bare IPv6 address, whose colons are none of a port.", "2001:db8::7", Address("2001:db8::7")},
      {"An IPv6 address in brackets.", "[2001:db8::7]", Address("2001:db8::7")},
      {"An IPv6 address with the smallest port.", "[2001:db8::7]:1", Address("2001:db8::7", 1)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const NtpTimeDomainInfo info(row.domain);
    EXPECT_EQ(info.domain(), row.domain);
    EXPECT_EQ(info.addresses(), std::vector<net::IPEndPoint>{row.expected});
    EXPECT_EQ(info.GetCurrentIPAddress(), row.expected);
  }
}

TEST_F(NtpTimeDomainInfoTest, AMalformedNameHasNoAddressAndIsCountedAsBad) {
  const struct {
    const char* what;
    std::string domain;
  } rows[] = {
      {"Nothing at all.", ""},
      {"A port without a host.", ":123"},
      {"The port 0.", "one.test:0"},
      {"A port beyond the largest.", "one.test:65536"},
      {"A port that is no number.", "one.test:ntp"},
      {"A colon without a port.", "one.test:"},
      {"A space in the name.", "one test"},
      {"A zero byte in the name; a resolver ignores everything after it.",
       std::string("one.test\0.evil", 14)},
      {"Three quarters of an IPv4 address.", "192.0.2"},
      {"A bracket that is not closed.", "[2001:db8::7"},
      {"A name longer than names can be.", std::string(254, 'a')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const uint64_t before = Count("bad_name");
    const NtpTimeDomainInfo info(row.domain);
    EXPECT_EQ(info.domain(), row.domain);
    EXPECT_TRUE(info.addresses().empty());
    EXPECT_TRUE(info.GetCurrentIPAddress().address_empty());
    EXPECT_EQ(Count("bad_name"), before + 1);
  }
}

TEST_F(NtpTimeDomainInfoTest, ANameThatDoesNotExistIsCountedAsNotFound) {
  const uint64_t before = Count("not_found");
  const NtpTimeDomainInfo info("nobody.test");
  EXPECT_TRUE(info.addresses().empty());
  EXPECT_EQ(Count("not_found"), before + 1);
}

TEST_F(NtpTimeDomainInfoTest, TwoSecondsAreAllowedForANameUnlessConfigured) {
  world_.SetHost("slow.test", {{Address("192.0.2.1", 0)}, 2000000});
  world_.SetHost("slower.test", {{Address("192.0.2.1", 0)}, 2000001});
  const uint64_t before = Count("timed_out");
  EXPECT_FALSE(NtpTimeDomainInfo("slow.test").addresses().empty());
  EXPECT_EQ(Count("timed_out"), before);

  const int64_t start_ticks_us = world_.steady_ticks_us();
  EXPECT_TRUE(NtpTimeDomainInfo("slower.test").addresses().empty());
  EXPECT_EQ(world_.steady_ticks_us() - start_ticks_us, 2000000);
  EXPECT_EQ(Count("timed_out"), before + 1);
}

TEST_F(NtpTimeDomainInfoTest, TheConfiguredLimitHoldsForTheNextName) {
  world_.SetHost("slow.test", {{Address("192.0.2.1", 0)}, 150000});
  SetResolveTimeout(100);
  const int64_t start_ticks_us = world_.steady_ticks_us();
  EXPECT_TRUE(NtpTimeDomainInfo("slow.test").addresses().empty());
  EXPECT_EQ(world_.steady_ticks_us() - start_ticks_us, 100000);
  SetResolveTimeout(150);
  EXPECT_FALSE(NtpTimeDomainInfo("slow.test").addresses().empty());
}

TEST_F(NtpTimeDomainInfoTest, RetriesWalkTheAddressesInOrderAndAreCounted) {
  NtpTimeDomainInfo info("three.test:99");
  uint32_t total_retry_count = 7;
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.1", 99));
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("2001:db8::2", 99));
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.3", 99));
  EXPECT_EQ(total_retry_count, 9u);
}

TEST_F(NtpTimeDomainInfoTest, NoRetryIsGrantedBeyondTheLastAddress) {
  NtpTimeDomainInfo info("three.test");
  uint32_t total_retry_count = 0;
  ASSERT_TRUE(info.Retry(total_retry_count));
  ASSERT_TRUE(info.Retry(total_retry_count));
  EXPECT_FALSE(info.Retry(total_retry_count));
  EXPECT_FALSE(info.Retry(total_retry_count));
  EXPECT_EQ(total_retry_count, 2u);
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.3"));

  NtpTimeDomainInfo nobody("nobody.test");
  EXPECT_FALSE(nobody.Retry(total_retry_count));
  EXPECT_EQ(total_retry_count, 2u);
}

TEST_F(NtpTimeDomainInfoTest, ResetGoesBackToTheFirstAddressAndDropsTheSamples) {
  NtpTimeDomainInfo info("three.test");
  uint32_t total_retry_count = 0;
  ASSERT_TRUE(info.Retry(total_retry_count));
  info.samples().push_back({.offset_us = 1, .rtt_us = 2});
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.1"));
  EXPECT_TRUE(info.samples().empty());
  EXPECT_EQ(info.addresses().size(), 3u);
  EXPECT_EQ(info.domain(), "three.test");
  EXPECT_TRUE(info.Retry(total_retry_count));
}

TEST_F(NtpTimeDomainInfoTest, ACopyGoesItsOwnWay) {
  NtpTimeDomainInfo info("three.test");
  uint32_t total_retry_count = 0;
  ASSERT_TRUE(info.Retry(total_retry_count));
  info.samples().push_back({.offset_us = 1, .rtt_us = 2});

  NtpTimeDomainInfo copy(info);
  EXPECT_EQ(copy.domain(), info.domain());
  EXPECT_EQ(copy.addresses(), info.addresses());
  EXPECT_EQ(copy.samples(), info.samples());
  EXPECT_EQ(copy.GetCurrentIPAddress(), info.GetCurrentIPAddress());

  copy.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("2001:db8::2"));
  EXPECT_EQ(info.samples().size(), 1u);
}

// --- The order of the addresses.

TEST_F(NtpTimeDomainInfoTest, TheFamiliesTakeTurns) {
  const struct {
    const char* what;
    std::vector<const char*> resolved;
    std::vector<const char*> expected;
  } rows[] = {
      {"One family alone keeps its order.",
       {"192.0.2.3", "192.0.2.1", "192.0.2.2"},
       {"192.0.2.3", "192.0.2.1", "192.0.2.2"}},
      {"The first address says which family begins: here IPv6.",
       {"2001:db8::1", "2001:db8::2", "192.0.2.1", "192.0.2.2"},
       {"2001:db8::1", "192.0.2.1", "2001:db8::2", "192.0.2.2"}},
      {"And here IPv4.",
       {"192.0.2.1", "192.0.2.2", "2001:db8::1", "2001:db8::2"},
       {"192.0.2.1", "2001:db8::1", "192.0.2.2", "2001:db8::2"}},
      {"The surplus addresses of one family come at the end.",
       {"192.0.2.1", "192.0.2.2", "192.0.2.3", "2001:db8::1"},
       {"192.0.2.1", "2001:db8::1", "192.0.2.2", "192.0.2.3"}},
      {"An address that comes twice counts once, where it stood first.",
       {"192.0.2.1", "192.0.2.2", "192.0.2.1", "2001:db8::1", "2001:db8::1", "192.0.2.2"},
       {"192.0.2.1", "2001:db8::1", "192.0.2.2"}},
      {"Eight are exactly as many as may be.",
       {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5", "192.0.2.6", "192.0.2.7",
        "192.0.2.8"},
       {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5", "192.0.2.6", "192.0.2.7",
        "192.0.2.8"}},
      {"The ninth is left out, once the families have taken turns: the only IPv6 address, last of all, "
       "stays.",
       {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5", "192.0.2.6", "192.0.2.7",
        "192.0.2.8", "2001:db8::1"},
       {"192.0.2.1", "2001:db8::1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5", "192.0.2.6",
        "192.0.2.7"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    sim::HostEntry entry;
    for (const char* const address : row.resolved) {
      entry.addresses.push_back(Address(address, 0));
    }
    std::vector<net::IPEndPoint> expected;
    for (const char* const address : row.expected) {
      expected.push_back(Address(address));
    }
    world_.SetHost("many.test", entry);
    const NtpTimeDomainInfo info("many.test");
    EXPECT_EQ(info.addresses(), expected);
    EXPECT_EQ(info.GetCurrentIPAddress(), expected.front());
  }
}

// --- The list follows the name.

class RefreshTest : public NtpTimeDomainInfoTest {
 protected:
  RefreshTest() { SetAddresses({"192.0.2.1"}); }

  void SetAddresses(const std::vector<const char*>& addresses, base::TimeDelta ttl = kTtl,
                    int64_t delay_us = 1000) {
    sim::HostEntry entry{.addresses = {}, .delay_us = delay_us, .ttl = ttl};
    for (const char* const address : addresses) {
      entry.addresses.push_back(Address(address, 0));
    }
    world_.SetHost("moving.test", entry);
  }
  void RunFor(int64_t duration_us) { world_.RunFor(base::TimeDelta::FromMicroseconds(duration_us)); }
  // A lookup that has been started waits in the world as its only event.
  bool IsLookingUp() const { return world_.pending_count() > 0; }

  static constexpr base::TimeDelta kTtl = base::TimeDelta::FromSeconds(300);
  static constexpr int64_t kTtlUs = 300000000;
  static constexpr int64_t kSecondUs = base::kUsPerSecond;
};

TEST_F(RefreshTest, TheNewListComesWithTheResetAndNotBefore) {
  SetAddresses({"192.0.2.1", "192.0.2.2"});
  NtpTimeDomainInfo info("moving.test:99");
  SetAddresses({"2001:db8::5", "2001:db8::5", "192.0.2.5"});
  RunFor(kTtlUs);
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.1", 99));
  ASSERT_TRUE(IsLookingUp());
  RunFor(kSecondUs);
  ASSERT_FALSE(IsLookingUp());
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.1", 99));
  uint32_t total_retry_count = 0;
  ASSERT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.2", 99));
  EXPECT_FALSE(info.Retry(total_retry_count));

  info.Reset();
  EXPECT_EQ(info.addresses(), (std::vector{Address("2001:db8::5", 99), Address("192.0.2.5", 99)}));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("2001:db8::5", 99));
  EXPECT_FALSE(IsLookingUp());
}

TEST_F(RefreshTest, AUseDoesNotWaitForTheLookupThatItStarts) {
  NtpTimeDomainInfo info("moving.test");
  SetAddresses({"192.0.2.5"});
  RunFor(kTtlUs);
  const int64_t before_ticks_us = world_.steady_ticks_us();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.1"));
  EXPECT_EQ(world_.steady_ticks_us(), before_ticks_us);
  EXPECT_TRUE(IsLookingUp());
  RunFor(kSecondUs);
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.5"));
}

TEST_F(RefreshTest, AskingWhetherAnAddressIsTheOneInUseIsAUseToo) {
  SetAddresses({"192.0.2.1", "192.0.2.2"});
  NtpTimeDomainInfo info("moving.test:99");
  EXPECT_TRUE(info.IsCurrentIPAddress(Address("192.0.2.1", 99)));
  EXPECT_FALSE(info.IsCurrentIPAddress(Address("192.0.2.2", 99)));
  EXPECT_FALSE(info.IsCurrentIPAddress(Address("192.0.2.1", 98)));
  EXPECT_FALSE(IsLookingUp());
  RunFor(kTtlUs);
  EXPECT_TRUE(info.IsCurrentIPAddress(Address("192.0.2.1", 99)));
  EXPECT_TRUE(IsLookingUp());
  EXPECT_FALSE(NtpTimeDomainInfo("nowhere.test").IsCurrentIPAddress(Address("192.0.2.1", 99)));
}

// The time manager resets its domains while it holds a lock.
TEST_F(RefreshTest, AResetStartsNoLookup) {
  NtpTimeDomainInfo info("moving.test");
  RunFor(kTtlUs);
  info.Reset();
  EXPECT_FALSE(IsLookingUp());
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.1"));
  EXPECT_TRUE(IsLookingUp());
}

TEST_F(RefreshTest, AFreshListThatWaitsForTheResetIsNotLookedUpAgainBeforeItExpires) {
  const NtpTimeDomainInfo info("moving.test");
  RunFor(kTtlUs);
  info.GetCurrentIPAddress();
  ASSERT_TRUE(IsLookingUp());
  world_.RunOne();
  RunFor(kTtlUs - 1);
  info.GetCurrentIPAddress();
  EXPECT_FALSE(IsLookingUp());
  RunFor(1);
  info.GetCurrentIPAddress();
  EXPECT_TRUE(IsLookingUp());
}

TEST_F(RefreshTest, AShorterListTakesThePlaceOfALongerOneInUse) {
  SetAddresses({"192.0.2.1", "192.0.2.2", "192.0.2.3"});
  NtpTimeDomainInfo info("moving.test");
  uint32_t total_retry_count = 0;
  ASSERT_TRUE(info.Retry(total_retry_count));
  ASSERT_TRUE(info.Retry(total_retry_count));
  SetAddresses({"192.0.2.5"});
  RunFor(kTtlUs);
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.3"));
  RunFor(kSecondUs);
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.3"));
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.5"));
}

TEST_F(RefreshTest, TheTimeToLiveCountsBetweenAMinuteAndADay) {
  constexpr int64_t kDayS = 86400;
  const struct {
    const char* what;
    base::TimeDelta ttl;
    int64_t expected_s;
  } rows[] = {
      {"No time at all.", base::TimeDelta(), 60},
      {"Just below the least.", base::TimeDelta::FromSeconds(59), 60},
      {"The least.", base::TimeDelta::FromSeconds(60), 60},
      {"Just above it.", base::TimeDelta::FromSeconds(61), 61},
      {"The most.", base::TimeDelta::FromSeconds(kDayS), kDayS},
      {"Just above it.", base::TimeDelta::FromSeconds(kDayS + 1), kDayS},
      {"Nobody said how long.", base::TimeDelta::Max(), kDayS},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    SetAddresses({"192.0.2.1"}, row.ttl);
    NtpTimeDomainInfo info("moving.test");
    for (const char* const list : {"the first", "one that was adopted"}) {
      SCOPED_TRACE(list);
      RunFor(row.expected_s * kSecondUs - 1);
      info.GetCurrentIPAddress();
      info.Reset();
      EXPECT_FALSE(IsLookingUp());
      RunFor(1);
      info.GetCurrentIPAddress();
      EXPECT_TRUE(IsLookingUp());
      world_.RunOne();
      info.Reset();
    }
  }
}

TEST_F(RefreshTest, OneLookupAtATimeHoweverOftenTheDomainIsUsed) {
  NtpTimeDomainInfo info("moving.test");
  SetAddresses({"192.0.2.5"}, base::TimeDelta(), 1500000);
  RunFor(kTtlUs);
  for (int i = 0; i < 100; ++i) {
    info.GetCurrentIPAddress();
    info.Reset();
    EXPECT_EQ(world_.pending_count(), 1u);
    RunFor(10000);
  }
}

TEST_F(RefreshTest, AFailedLookupKeepsTheListAndIsRepeatedAMinuteAfterItsBeginning) {
  const struct {
    const char* reason;
    sim::HostEntry entry;
  } rows[] = {
      {"not_found", {}},
      {"timed_out", {.addresses = {Address("192.0.2.66", 0)}, .delay_us = 2000001}},
      {"failed", {.addresses = {}, .error = net::ResolveError::kFailed}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    SetAddresses({"192.0.2.1", "192.0.2.2"});
    NtpTimeDomainInfo info("moving.test");
    const std::vector<net::IPEndPoint> list = info.addresses();
    world_.SetHost("moving.test", row.entry);
    RunFor(kTtlUs);
    for (int i = 1; i <= 3; ++i) {
      const uint64_t all_before = Count("refresh_failed");
      const uint64_t before = Count(std::string("refresh_failed.") + row.reason);
      const uint64_t without_address_before = Count(row.reason);
      info.GetCurrentIPAddress();
      ASSERT_TRUE(IsLookingUp());
      RunFor(NameAddresses::kMinRefreshUs - 1);
      EXPECT_EQ(Count("refresh_failed"), all_before + 1);
      EXPECT_EQ(Count(std::string("refresh_failed.") + row.reason), before + 1);
      EXPECT_EQ(Count(row.reason), without_address_before);
      info.Reset();
      info.GetCurrentIPAddress();
      EXPECT_FALSE(IsLookingUp());
      EXPECT_EQ(info.addresses(), list);
      RunFor(1);
    }
    SetAddresses({"192.0.2.5"});
    info.GetCurrentIPAddress();
    RunFor(kSecondUs);
    info.Reset();
    EXPECT_EQ(info.addresses(), std::vector{Address("192.0.2.5")});
  }
}

TEST_F(RefreshTest, ALookupThatNeverReportsIsTakenForLostAfterTenMinutes) {
  NtpTimeDomainInfo info("moving.test");
  SetAddresses({"192.0.2.5"});
  RunFor(kTtlUs);
  world_.SetQueueAvailable(false);
  info.GetCurrentIPAddress();
  ASSERT_FALSE(IsLookingUp());
  world_.SetQueueAvailable(true);

  const uint64_t before = Count("refresh_failed.lost");
  const uint64_t all_before = Count("refresh_failed");
  RunFor(NameAddresses::kLostAfterUs - 1);
  info.GetCurrentIPAddress();
  info.Reset();
  EXPECT_FALSE(IsLookingUp());
  EXPECT_EQ(Count("refresh_failed.lost"), before);
  RunFor(1);
  info.GetCurrentIPAddress();
  EXPECT_TRUE(IsLookingUp());
  EXPECT_EQ(Count("refresh_failed.lost"), before + 1);
  EXPECT_EQ(Count("refresh_failed"), all_before + 1);
  RunFor(kSecondUs);
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.5"));
}

// A name that is looked up twice in the background: the first lookup is lost, and reports after the second.
class LateReportTest : public RefreshTest {
 protected:
  void LookUpTwice(NtpTimeDomainInfo& info, const std::vector<const char*>& first,
                   const std::vector<const char*>& second) {
    SetAddresses(first);
    RunFor(kTtlUs);
    info.GetCurrentIPAddress();
    ASSERT_TRUE(IsLookingUp());
    // The log hears of an answer before the lookup reports it: there the first lookup is held up until it
    // counts as lost and a second one has reported.
    int lookups = 0;
    world_.SetEventLog([&](const std::string&) {
      if (++lookups == 1) {
        SetAddresses(second);
        world_.Block(base::TimeDelta::FromMicroseconds(NameAddresses::kLostAfterUs));
        info.GetCurrentIPAddress();
        ASSERT_TRUE(world_.RunOne());
      }
    });
    ASSERT_TRUE(world_.RunOne());
    world_.SetEventLog(nullptr);
    ASSERT_EQ(lookups, 2);
  }
};

TEST_F(LateReportTest, ALateFailureOfALostLookupIsNotCountedAgain) {
  NtpTimeDomainInfo info("moving.test");
  const uint64_t lost_before = Count("refresh_failed.lost");
  const uint64_t all_before = Count("refresh_failed");
  LookUpTwice(info, {}, {"192.0.2.6"});
  EXPECT_EQ(Count("refresh_failed.lost"), lost_before + 1);
  EXPECT_EQ(Count("refresh_failed"), all_before + 1);
}

TEST_F(LateReportTest, ALateReportOfALostLookupDoesNotReplaceANewerList) {
  NtpTimeDomainInfo info("moving.test");
  LookUpTwice(info, {"192.0.2.5"}, {"192.0.2.6"});
  info.Reset();
  EXPECT_EQ(info.addresses(), std::vector{Address("192.0.2.6")});

  // Nor does the late report make the second lookup look as if it were under way.
  RunFor(kTtlUs);
  info.GetCurrentIPAddress();
  EXPECT_TRUE(IsLookingUp());
}

TEST_F(RefreshTest, ALookupMayOutliveItsDomain) {
  SetAddresses({"192.0.2.1"}, base::TimeDelta());
  {
    const NtpTimeDomainInfo info("moving.test");
    RunFor(NameAddresses::kMinRefreshUs);
    info.GetCurrentIPAddress();
  }
  ASSERT_TRUE(IsLookingUp());
  RunFor(kSecondUs);
  EXPECT_FALSE(IsLookingUp());
}

TEST_F(RefreshTest, CopiesShareALookupAndAdoptItEachInItsOwnReset) {
  NtpTimeDomainInfo info("moving.test");
  NtpTimeDomainInfo copy(info);
  SetAddresses({"192.0.2.5"});
  RunFor(kTtlUs);
  info.GetCurrentIPAddress();
  copy.GetCurrentIPAddress();
  EXPECT_EQ(world_.pending_count(), 1u);
  RunFor(kSecondUs);
  copy.Reset();
  EXPECT_EQ(copy.GetCurrentIPAddress(), Address("192.0.2.5"));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.1"));
  // The list that waits for the original is fresh: there is nothing to look up.
  EXPECT_FALSE(IsLookingUp());
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("192.0.2.5"));
}

TEST_F(RefreshTest, ALiteralOrANameWithoutAddressIsNeverLookedUpAgain) {
  for (const char* const domain : {"192.0.2.1", "[2001:db8::1]:99", "nobody.test", "bad name", ""}) {
    SCOPED_TRACE(domain);
    NtpTimeDomainInfo info(domain);
    const std::vector<net::IPEndPoint> list = info.addresses();
    RunFor(3 * NameAddresses::kMaxRefreshUs);
    info.GetCurrentIPAddress();
    info.Reset();
    EXPECT_FALSE(IsLookingUp());
    EXPECT_EQ(info.addresses(), list);
  }
}

// --- Which address is asked.

// The ledger lives as long as the process: each test has addresses of its own.
class HeldAddressTest : public NtpTimeDomainInfoTest {
 protected:
  // Asked once, the server sends `code`.
  void Hold(const char* address, KissCode code) {
    const net::IPEndPoint server = Address(address);
    Ask(server);
    NtpAddressLedger::GetInstance()->OnReply(server);
    NtpAddressLedger::GetInstance()->OnRefusal(server, code, world_.steady_ticks_us(), 0);
    ASSERT_NE(NtpAddressLedger::GetInstance()->Check(server, world_.steady_ticks_us()), SendRefusal::kNone);
  }
  void Ask(const net::IPEndPoint& server) {
    // The burst before, whatever it was, is over.
    world_.RunFor(base::TimeDelta::FromMicroseconds(NtpAddressLedger::kIdleBurstUs));
    ASSERT_TRUE(NtpAddressLedger::GetInstance()->Admit(server, world_.steady_ticks_us(), 20));
  }
  void SetHost(const std::vector<const char*>& addresses) {
    sim::HostEntry entry;
    for (const char* const address : addresses) {
      entry.addresses.push_back(Address(address, 0));
    }
    world_.SetHost("held.test", entry);
  }
};

TEST_F(HeldAddressTest, AHeldAddressIsPassedOver) {
  SetHost({"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4"});
  Hold("198.51.100.1", KissCode::kRate);
  Hold("198.51.100.3", KissCode::kDeny);
  NtpTimeDomainInfo info("held.test");
  EXPECT_EQ(info.addresses().size(), 4u);
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.2"));
  uint32_t total_retry_count = 0;
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.4"));
  EXPECT_EQ(total_retry_count, 1u);
  EXPECT_FALSE(info.Retry(total_retry_count));

  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.2"));
  Hold("198.51.100.4", KissCode::kRstr);
  EXPECT_FALSE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.2"));
  EXPECT_EQ(total_retry_count, 1u);

  // Four hours later all have been served.
  world_.RunFor(base::TimeDelta::FromMicroseconds(NtpAddressLedger::kDeniedUs));
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.1"));
}

TEST_F(HeldAddressTest, AnAddressPassedOverAtTheBeginningIsTriedAtTheEndWhenItIsFreeByThen) {
  SetHost({"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4"});
  Hold("198.51.100.1", KissCode::kRate);
  Hold("198.51.100.2", KissCode::kDeny);
  NtpTimeDomainInfo info("held.test");
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.3"));
  world_.RunFor(base::TimeDelta::FromSeconds(3600));  // the next attempt
  uint32_t total_retry_count = 0;
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.4"));
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.1"));
  EXPECT_FALSE(info.Retry(total_retry_count));
  EXPECT_EQ(total_retry_count, 2u);
}

TEST_F(HeldAddressTest, TheAddressInUseStaysAlsoWhenItComesToBeHeld) {
  SetHost({"198.51.100.11", "198.51.100.12"});
  NtpTimeDomainInfo info("held.test");
  Hold("198.51.100.11", KissCode::kRate);
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.11"));
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.12"));
  // And when it is held no longer: the retry went on from there.
  Hold("198.51.100.12", KissCode::kDeny);
  world_.RunFor(base::TimeDelta::FromMicroseconds(NtpAddressLedger::kDeniedUs));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.12"));
}

TEST_F(HeldAddressTest, WhenAllAreHeldTheFirstIsStillHandedOut) {
  SetHost({"198.51.100.21", "198.51.100.22"});
  Hold("198.51.100.21", KissCode::kDeny);
  Hold("198.51.100.22", KissCode::kRate);
  NtpTimeDomainInfo info("held.test");
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.21"));
  uint32_t total_retry_count = 0;
  EXPECT_FALSE(info.Retry(total_retry_count));
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.21"));
}

TEST_F(HeldAddressTest, AnOnlyAddressIsAskedTwiceWhenNothingComesBack) {
  SetHost({"198.51.100.31"});
  NtpTimeDomainInfo info("held.test");
  uint32_t total_retry_count = 7;
  for (const char* const attempt : {"the first attempt", "after a reset"}) {
    SCOPED_TRACE(attempt);
    Ask(info.GetCurrentIPAddress());
    EXPECT_TRUE(info.Retry(total_retry_count));
    EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.31"));
    EXPECT_FALSE(info.Retry(total_retry_count));
    info.Reset();
  }
  EXPECT_EQ(total_retry_count, 9u);
}

TEST_F(HeldAddressTest, AnOnlyAddressThatAnsweredAtAllIsNotAskedTwice) {
  SetHost({"198.51.100.41"});
  NtpTimeDomainInfo info("held.test");
  uint32_t total_retry_count = 0;
  Ask(info.GetCurrentIPAddress());
  NtpAddressLedger::GetInstance()->OnReply(info.GetCurrentIPAddress());
  EXPECT_FALSE(info.Retry(total_retry_count));
  // The next attempt's burst begins afresh.
  info.Reset();
  Ask(info.GetCurrentIPAddress());
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(total_retry_count, 1u);
}

TEST_F(HeldAddressTest, AnOnlyAddressThatIsHeldIsNotAskedTwice) {
  SetHost({"198.51.100.51"});
  Hold("198.51.100.51", KissCode::kRate);
  NtpTimeDomainInfo info("held.test");
  uint32_t total_retry_count = 0;
  EXPECT_FALSE(info.Retry(total_retry_count));
  // The back-off is over and the next burst meets silence, but a server that has limited us wants space
  // between.
  world_.RunFor(base::TimeDelta::FromMicroseconds(NtpAddressLedger::kFirstBackOffUs));
  Ask(info.GetCurrentIPAddress());
  world_.RunFor(base::TimeDelta::FromMicroseconds(NtpAddressLedger::kBurstSpacingUs - 1));
  ASSERT_FALSE(NtpAddressLedger::GetInstance()->HasAnswered(info.GetCurrentIPAddress()));
  EXPECT_FALSE(info.Retry(total_retry_count));
  EXPECT_EQ(total_retry_count, 0u);
  world_.RunFor(base::TimeDelta::FromMicroseconds(1));
  EXPECT_TRUE(info.Retry(total_retry_count));
}

// --- Silent addresses and closed ports.

class SilentAddressTest : public HeldAddressTest {
 protected:
  void BeSilent(const char* address) {
    Ask(Address(address));
    RunFor(NtpAddressLedger::kSilentAfterUs);
    ASSERT_TRUE(NtpAddressLedger::GetInstance()->IsSilent(Address(address), world_.steady_ticks_us()));
  }
  void Answer(const char* address) {
    Ask(Address(address));
    NtpAddressLedger::GetInstance()->OnReply(Address(address));
  }
  void CloseThePort(const char* address) {
    NtpAddressLedger::GetInstance()->OnPortClosed(Address(address), world_.steady_ticks_us());
  }
  void RunFor(int64_t duration_us) { world_.RunFor(base::TimeDelta::FromMicroseconds(duration_us)); }
  // The addresses in the order in which an attempt that begins now asks them.
  std::vector<net::IPEndPoint> Order(NtpTimeDomainInfo& info) {
    info.Reset();
    std::vector<net::IPEndPoint> order = {info.GetCurrentIPAddress()};
    uint32_t total_retry_count = 0;
    while (info.Retry(total_retry_count)) {
      order.push_back(info.GetCurrentIPAddress());
    }
    EXPECT_EQ(total_retry_count + 1, order.size());
    return order;
  }
};

TEST_F(SilentAddressTest, AnAddressThatDidNotAnswerIsAskedAfterThoseThatDidOrWereNeverAsked) {
  SetHost({"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4"});
  NtpTimeDomainInfo info("held.test");
  Answer("198.51.100.4");
  BeSilent("198.51.100.1");
  EXPECT_EQ(Order(info), (std::vector{Address("198.51.100.2"), Address("198.51.100.3"),
                                      Address("198.51.100.4"), Address("198.51.100.1")}));
  BeSilent("198.51.100.3");
  EXPECT_EQ(Order(info), (std::vector{Address("198.51.100.2"), Address("198.51.100.4"),
                                      Address("198.51.100.1"), Address("198.51.100.3")}));
}

TEST_F(SilentAddressTest, WhenAllAreSilentTheirOrderStays) {
  SetHost({"198.51.100.1", "198.51.100.2"});
  NtpTimeDomainInfo info("held.test");
  BeSilent("198.51.100.2");
  BeSilent("198.51.100.1");
  EXPECT_EQ(Order(info), (std::vector{Address("198.51.100.1"), Address("198.51.100.2")}));
}

TEST_F(SilentAddressTest, SilenceIsForgottenAfterAnHourAndWithTheNextReply) {
  SetHost({"198.51.100.1", "198.51.100.2"});
  NtpTimeDomainInfo info("held.test");
  const std::vector in_order = {Address("198.51.100.1"), Address("198.51.100.2")};
  BeSilent("198.51.100.1");
  ASSERT_NE(Order(info), in_order);
  RunFor(NtpAddressLedger::kForgetSilenceUs);
  EXPECT_EQ(Order(info), in_order);
  BeSilent("198.51.100.1");
  ASSERT_NE(Order(info), in_order);
  NtpAddressLedger::GetInstance()->OnReply(Address("198.51.100.1"));
  EXPECT_EQ(Order(info), in_order);
}

TEST_F(SilentAddressTest, ADomainAddedLaterKnowsWhichAddressesAreSilent) {
  SetHost({"198.51.100.1", "198.51.100.2"});
  BeSilent("198.51.100.1");
  const NtpTimeDomainInfo info("held.test");
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.2"));
}

TEST_F(SilentAddressTest, ASilentAddressThatIsFreeComesBeforeAHeldOne) {
  SetHost({"198.51.100.1", "198.51.100.2"});
  NtpTimeDomainInfo info("held.test");
  BeSilent("198.51.100.2");
  Hold("198.51.100.1", KissCode::kDeny);
  EXPECT_EQ(Order(info), std::vector{Address("198.51.100.2")});
}

TEST_F(SilentAddressTest, AnOnlyAddressWhosePortIsClosedIsNotAskedTwice) {
  SetHost({"198.51.100.1"});
  NtpTimeDomainInfo info("held.test");
  Ask(info.GetCurrentIPAddress());
  CloseThePort("198.51.100.1");
  uint32_t total_retry_count = 0;
  EXPECT_FALSE(info.Retry(total_retry_count));
  EXPECT_EQ(total_retry_count, 0u);
}

TEST_F(SilentAddressTest, APortThatAnotherDomainFoundClosedIsPassedOverUntilTheReset) {
  SetHost({"198.51.100.1", "198.51.100.2", "198.51.100.3"});
  NtpTimeDomainInfo info("held.test");
  Ask(Address("198.51.100.2"));
  CloseThePort("198.51.100.2");
  uint32_t total_retry_count = 0;
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), Address("198.51.100.3"));
  EXPECT_FALSE(info.Retry(total_retry_count));
}

TEST_F(SilentAddressTest, AClosedPortIsAskedAgainInTheNextAttempt) {
  SetHost({"198.51.100.1", "198.51.100.2"});
  NtpTimeDomainInfo info("held.test");
  Ask(Address("198.51.100.2"));
  CloseThePort("198.51.100.2");
  RunFor(1);
  EXPECT_EQ(Order(info), (std::vector{Address("198.51.100.1"), Address("198.51.100.2")}));
  // As one that did not answer, it is asked last.
  Ask(Address("198.51.100.1"));
  CloseThePort("198.51.100.1");
  Answer("198.51.100.2");
  RunFor(NtpAddressLedger::kSilentAfterUs);
  EXPECT_EQ(Order(info), (std::vector{Address("198.51.100.2"), Address("198.51.100.1")}));
}

}  // namespace
}  // namespace skorra
