#include "transport/ntp_time_domain_info.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "sim/world.h"

namespace skorra {
namespace {

net::IPEndPoint EndPoint(std::string_view address, uint16_t port) {
  return net::IPEndPoint::FromLiteral(address, port).value();
}

uint64_t Count(const std::string& reason) { return base::KeyMetrics::GetCount("ntp.domain." + reason); }

class NtpTimeDomainInfoTest : public testing::Test {
 protected:
  NtpTimeDomainInfoTest() {
    world_.SetHost("one.test", {{EndPoint("192.0.2.1", 0)}});
    world_.SetHost("three.test",
                   {{EndPoint("192.0.2.1", 0), EndPoint("2001:db8::2", 0), EndPoint("192.0.2.3", 0)}});
  }
  ~NtpTimeDomainInfoTest() override { SetResolveTimeout(std::nullopt); }

  void SetResolveTimeout(base::Optional<uint64_t> timeout_ms) {
    EXPECT_EQ(
        config::ConfigCenterImpl::GetInstance()->Set(config::BaseCfg().ntp_resolve_timeout_ms, timeout_ms),
        "");
  }

  sim::World world_;
};

TEST_F(NtpTimeDomainInfoTest, EveryWayToWriteAServerGivesItsAddressAndPort) {
  const struct {
    const char* what;
    const char* domain;
    net::IPEndPoint expected;
  } rows[] = {
      {"A name alone has the port of NTP.", "one.test", EndPoint("192.0.2.1", 123)},
      {"A name with a port.", "one.test:11123", EndPoint("192.0.2.1", 11123)},
      {"An IPv4 address.", "192.0.2.7", EndPoint("192.0.2.7", 123)},
      {"An IPv4 address with the largest port.", "192.0.2.7:65535", EndPoint("192.0.2.7", 65535)},
      {"A bare IPv6 address, whose colons are none of a port.", "2001:db8::7", EndPoint("2001:db8::7", 123)},
      {"An IPv6 address in brackets.", "[2001:db8::7]", EndPoint("2001:db8::7", 123)},
      {"An IPv6 address with the smallest port.", "[2001:db8::7]:1", EndPoint("2001:db8::7", 1)},
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
      {"A zero byte in the name, behind which a resolver would not look.",
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
  world_.SetHost("slow.test", {{EndPoint("192.0.2.1", 0)}, 2000000});
  world_.SetHost("slower.test", {{EndPoint("192.0.2.1", 0)}, 2000001});
  const uint64_t before = Count("timed_out");
  EXPECT_FALSE(NtpTimeDomainInfo("slow.test").addresses().empty());
  EXPECT_EQ(Count("timed_out"), before);

  const int64_t start_us = world_.steady_us();
  EXPECT_TRUE(NtpTimeDomainInfo("slower.test").addresses().empty());
  EXPECT_EQ(world_.steady_us() - start_us, 2000000);
  EXPECT_EQ(Count("timed_out"), before + 1);
}

TEST_F(NtpTimeDomainInfoTest, TheConfiguredLimitHoldsForTheNextName) {
  world_.SetHost("slow.test", {{EndPoint("192.0.2.1", 0)}, 150000});
  SetResolveTimeout(100);
  const int64_t start_us = world_.steady_us();
  EXPECT_TRUE(NtpTimeDomainInfo("slow.test").addresses().empty());
  EXPECT_EQ(world_.steady_us() - start_us, 100000);
  SetResolveTimeout(150);
  EXPECT_FALSE(NtpTimeDomainInfo("slow.test").addresses().empty());
}

TEST_F(NtpTimeDomainInfoTest, RetriesWalkTheAddressesInOrderAndAreCounted) {
  NtpTimeDomainInfo info("three.test:99");
  uint32_t total_retry_count = 7;
  EXPECT_EQ(info.GetCurrentIPAddress(), EndPoint("192.0.2.1", 99));
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), EndPoint("2001:db8::2", 99));
  EXPECT_TRUE(info.Retry(total_retry_count));
  EXPECT_EQ(info.GetCurrentIPAddress(), EndPoint("192.0.2.3", 99));
  EXPECT_EQ(total_retry_count, 9u);
}

TEST_F(NtpTimeDomainInfoTest, NoRetryIsGrantedBeyondTheLastAddress) {
  for (const char* domain : {"one.test", "nobody.test"}) {
    SCOPED_TRACE(domain);
    NtpTimeDomainInfo info(domain);
    const net::IPEndPoint address = info.GetCurrentIPAddress();
    uint32_t total_retry_count = 7;
    EXPECT_FALSE(info.Retry(total_retry_count));
    EXPECT_FALSE(info.Retry(total_retry_count));
    EXPECT_EQ(total_retry_count, 7u);
    EXPECT_EQ(info.GetCurrentIPAddress(), address);
  }
}

TEST_F(NtpTimeDomainInfoTest, ResetGoesBackToTheFirstAddressAndDropsTheSamples) {
  NtpTimeDomainInfo info("three.test");
  uint32_t total_retry_count = 0;
  ASSERT_TRUE(info.Retry(total_retry_count));
  info.samples().push_back({.offset_us = 1, .rtt_us = 2});
  info.Reset();
  EXPECT_EQ(info.GetCurrentIPAddress(), EndPoint("192.0.2.1", 123));
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
  EXPECT_EQ(info.GetCurrentIPAddress(), EndPoint("2001:db8::2", 123));
  EXPECT_EQ(info.samples().size(), 1u);
}

}  // namespace
}  // namespace skorra
