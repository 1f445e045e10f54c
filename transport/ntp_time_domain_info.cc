#include "transport/ntp_time_domain_info.h"

#include <algorithm>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/base/time.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "platform/net/host_resolver.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

base::TimeDelta ResolveTimeout() {
  return base::TimeDelta::FromMilliseconds(
      static_cast<int64_t>(config::GetNumber(config::BaseCfg().ntp_resolve_timeout_ms)));
}

void CountFailure(const std::string& reason) { base::KeyMetrics::Count("ntp.domain." + reason); }

void CountRefreshFailure(const std::string& reason) {
  CountFailure("refresh_failed");
  CountFailure("refresh_failed." + reason);
}

int64_t ExpiryOf(base::TimeDelta ttl) {
  return base::GetSteadyTimeTicks() +
         std::clamp(ttl.InMicroseconds(), NtpTimeDomainInfo::kMinRefreshUs, NtpTimeDomainInfo::kMaxRefreshUs);
}

bool IsHeld(const net::IPEndPoint& address) {
  return NtpAddressLedger::GetInstance()->Check(address, base::GetSteadyTimeTicks()) != SendRefusal::kNone;
}

// The families take turns, so that one that does not work here costs no more than every other try (RFC 8305,
// section 4). Within each the resolver's order stays.
std::vector<net::IPEndPoint> Arrange(const std::vector<net::IPEndPoint>& resolved) {
  std::vector<net::IPEndPoint> families[2];  // that of the first address, the other
  for (const net::IPEndPoint& address : resolved) {
    auto& family = families[address.family() == resolved.front().family() ? 0 : 1];
    if (std::find(family.begin(), family.end(), address) == family.end()) {
      family.push_back(address);
    }
  }
  std::vector<net::IPEndPoint> arranged;
  for (size_t i = 0; i < std::max(families[0].size(), families[1].size()); ++i) {
    for (const auto& family : families) {
      if (i < family.size() && arranged.size() < NtpTimeDomainInfo::kMaxAddresses) {
        arranged.push_back(family[i]);
      }
    }
  }
  return arranged;
}

}  // namespace

// The look-ups of a name after its first. Shared with those under way, which may outlive the domain.
struct NtpTimeDomainInfo::Refresh {
  Refresh(net::HostPort server, int64_t first_expires_us)
      : name(std::move(server)), expires_us(first_expires_us) {}

  // On the resolver's thread.
  void OnReport(uint64_t number, const net::ResolveResult& result);

  const net::HostPort name;

  base::Lock lock;
  // The following are under `lock`.
  uint64_t started = 0;   // the number of the look-up that began last
  uint64_t reported = 0;  // of the one whose result came last; less than `started`: one is under way, or lost
  int64_t started_us = 0;
  uint64_t list_number = 0;                // grows with each list
  std::vector<net::IPEndPoint> addresses;  // the newest list
  int64_t expires_us;
};

void NtpTimeDomainInfo::Refresh::OnReport(uint64_t number, const net::ResolveResult& result) {
  if (result.error != net::ResolveError::kNone) {
    CountRefreshFailure(net::ResolveErrorName(result.error));
  }
  const base::AutoLock guard(lock);
  if (number < reported) {
    return;  // taken for lost, and overtaken
  }
  reported = number;
  if (result.error == net::ResolveError::kNone) {
    ++list_number;
    addresses = Arrange(result.addresses);
    expires_us = ExpiryOf(result.ttl);
  }
}

NtpTimeDomainInfo::NtpTimeDomainInfo(const std::string& domain) : domain_(domain) {
  const net::HostPortResult name = net::ParseHostPort(domain, kNtpPort);
  if (!name.value) {
    CountFailure("bad_name");
    return;
  }
  const net::HostPort& server = *name.value;
  const net::ResolveResult resolved = net::ResolveHost(server.host, server.port, ResolveTimeout());
  if (resolved.error != net::ResolveError::kNone) {
    CountFailure(net::ResolveErrorName(resolved.error));
    return;
  }
  addresses_ = Arrange(resolved.addresses);
  ChooseFirstAddress();
  if (!net::IPEndPoint::FromLiteral(server.host, server.port)) {
    expires_us_ = ExpiryOf(resolved.ttl);
    refresh_ = std::make_shared<Refresh>(server, expires_us_);
  }
}

net::IPEndPoint NtpTimeDomainInfo::GetCurrentIPAddress() const {
  if (addresses_.empty()) {
    return {};
  }
  RefreshIfExpired();
  return addresses_[(first_address_ + steps_) % addresses_.size()];
}

void NtpTimeDomainInfo::Reset() {
  samples_.clear();
  has_repeated_ = false;
  AdoptNewestList();
  RefreshIfExpired();
  ChooseFirstAddress();
}

bool NtpTimeDomainInfo::Retry(uint32_t& total_retry_count) {
  if (addresses_.size() == 1) {
    // Usual servers answer one burst and punish a second: only one that the first did not reach is repeated.
    if (has_repeated_ || IsHeld(addresses_.front()) ||
        NtpAddressLedger::GetInstance()->HasAnswered(addresses_.front())) {
      return false;
    }
    has_repeated_ = true;
    ++total_retry_count;
    return true;
  }
  // In a circle: an address that was held when the attempt's first one was chosen may be free by now.
  for (size_t step = steps_ + 1; step < addresses_.size(); ++step) {
    if (!IsHeld(addresses_[(first_address_ + step) % addresses_.size()])) {
      steps_ = step;
      ++total_retry_count;
      return true;
    }
  }
  return false;
}

void NtpTimeDomainInfo::AdoptNewestList() {
  if (refresh_ == nullptr) {
    return;
  }
  const base::AutoLock guard(refresh_->lock);
  if (list_number_ != refresh_->list_number) {
    list_number_ = refresh_->list_number;
    addresses_ = refresh_->addresses;
    expires_us_ = refresh_->expires_us;
  }
}

void NtpTimeDomainInfo::RefreshIfExpired() const {
  if (refresh_ == nullptr) {
    return;
  }
  const int64_t now_us = base::GetSteadyTimeTicks();
  if (now_us < expires_us_) {
    return;
  }
  uint64_t number = 0;
  {
    const base::AutoLock guard(refresh_->lock);
    const bool is_under_way = refresh_->reported != refresh_->started;
    const int64_t pause_us = is_under_way ? kLostAfterUs : kMinRefreshUs;
    if (now_us < refresh_->expires_us ||
        (refresh_->started > 0 && now_us - refresh_->started_us < pause_us)) {
      return;
    }
    if (is_under_way) {
      CountRefreshFailure("lost");
    }
    number = ++refresh_->started;
    refresh_->started_us = now_us;
  }
  net::ResolveHostInBackground(
      refresh_->name.host, refresh_->name.port, ResolveTimeout(),
      [refresh = refresh_, number](const net::ResolveResult& result) { refresh->OnReport(number, result); });
}

void NtpTimeDomainInfo::ChooseFirstAddress() {
  const auto free = std::find_if_not(addresses_.begin(), addresses_.end(), IsHeld);
  first_address_ = free == addresses_.end() ? 0 : static_cast<size_t>(free - addresses_.begin());
  steps_ = 0;
}

}  // namespace skorra
