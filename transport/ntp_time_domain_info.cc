#include "transport/ntp_time_domain_info.h"

#include "platform/base/time.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "platform/net/host_resolver.h"

namespace skorra {
namespace {

constexpr uint64_t kDefaultResolveTimeoutMs = 2000;

base::TimeDelta ResolveTimeout() {
  const auto timeout_ms = config::ConfigCenterImpl::GetInstance()->GetValueWithPriority(
      config::BaseCfg().ntp_resolve_timeout_ms, kDefaultResolveTimeoutMs);
  return base::TimeDelta::FromMilliseconds(
      static_cast<int64_t>(timeout_ms.value_or(kDefaultResolveTimeoutMs)));
}

void CountFailure(const std::string& reason) { base::KeyMetrics::Count("ntp.domain." + reason); }

std::vector<net::IPEndPoint> ResolveDomain(const std::string& domain) {
  const net::HostPortResult name = net::ParseHostPort(domain, kNtpPort);
  if (!name.value) {
    CountFailure("bad_name");
    return {};
  }
  net::ResolveResult resolved = net::ResolveHost(name.value->host, name.value->port, ResolveTimeout());
  if (resolved.error != net::ResolveError::kNone) {
    CountFailure(net::ResolveErrorName(resolved.error));
    return {};
  }
  return std::move(resolved.addresses);
}

}  // namespace

NtpTimeDomainInfo::NtpTimeDomainInfo(const std::string& domain)
    : domain_(domain), addresses_(ResolveDomain(domain)) {}

net::IPEndPoint NtpTimeDomainInfo::GetCurrentIPAddress() const {
  return addresses_.empty() ? net::IPEndPoint() : addresses_[current_address_];
}

void NtpTimeDomainInfo::Reset() {
  current_address_ = 0;
  samples_.clear();
}

bool NtpTimeDomainInfo::Retry(uint32_t& total_retry_count) {
  if (current_address_ + 1 >= addresses_.size()) {
    return false;
  }
  ++current_address_;
  ++total_retry_count;
  return true;
}

}  // namespace skorra
