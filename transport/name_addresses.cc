// SPDX-License-Identifier: Apache-2.0
#include "transport/name_addresses.h"

#include <algorithm>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/base/thread_annotations.h"
#include "platform/base/time.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "transport/ntp_packet.h"

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

int64_t ExpiryTicksUs(base::TimeDelta ttl) {
  return base::GetSteadyTimeTicks() +
         std::clamp(ttl.InMicroseconds(), NameAddresses::kMinRefreshUs, NameAddresses::kMaxRefreshUs);
}

// The families take turns, so that one that does not work here costs no more than every other try (RFC 8305,
// section 4). Within each family the resolver's order stays.
std::vector<net::IPEndPoint> InterleaveFamilies(const std::vector<net::IPEndPoint>& resolved) {
  std::vector<net::IPEndPoint> families[2];  // that of the first address, the other
  for (const net::IPEndPoint& address : resolved) {
    auto& family = families[address.family() == resolved.front().family() ? 0 : 1];
    if (std::find(family.begin(), family.end(), address) == family.end()) {
      family.push_back(address);
    }
  }
  std::vector<net::IPEndPoint> interleaved;
  for (size_t i = 0; i < std::max(families[0].size(), families[1].size()); ++i) {
    for (const auto& family : families) {
      if (i < family.size() && interleaved.size() < NameAddresses::kMaxAddresses) {
        interleaved.push_back(family[i]);
      }
    }
  }
  return interleaved;
}

}  // namespace

// The lookups after a name's first. Shared with those under way, which may outlive the name's user.
struct NameAddresses::Lookups {
  Lookups(net::HostPort server, int64_t first_expires_ticks_us)
      : name(std::move(server)), expires_ticks_us(first_expires_ticks_us) {}

  // Returns the number of the lookup that begins now, or 0 when none may.
  uint64_t Begin(int64_t now_ticks_us);
  // On the resolver's thread.
  void OnReport(uint64_t number, const net::ResolveResult& result);

  const net::HostPort name;

  base::Lock lock;
  // The number of the last lookup that began, and of the last one that reported; less than `started`: one is
  // under way, or lost.
  uint64_t started SKORRA_GUARDED_BY(lock) = 0;
  uint64_t reported SKORRA_GUARDED_BY(lock) = 0;
  int64_t started_ticks_us SKORRA_GUARDED_BY(lock) = 0;
  uint64_t list_generation SKORRA_GUARDED_BY(lock) = 0;            // grows with each list
  std::vector<net::IPEndPoint> addresses SKORRA_GUARDED_BY(lock);  // the newest list
  int64_t expires_ticks_us SKORRA_GUARDED_BY(lock);
};

uint64_t NameAddresses::Lookups::Begin(int64_t now_ticks_us) {
  const base::AutoLock guard(lock);
  const bool is_under_way = reported != started;
  const int64_t pause_us = is_under_way ? kLostAfterUs : kMinRefreshUs;
  if (now_ticks_us < expires_ticks_us || (started > 0 && now_ticks_us - started_ticks_us < pause_us)) {
    return 0;
  }
  if (is_under_way) {
    CountRefreshFailure("lost");
  }
  started_ticks_us = now_ticks_us;
  return ++started;
}

void NameAddresses::Lookups::OnReport(uint64_t number, const net::ResolveResult& result) {
  const base::AutoLock guard(lock);
  const bool was_counted_as_lost = number != started;
  if (result.error != net::ResolveError::kNone && !was_counted_as_lost) {
    CountRefreshFailure(net::ResolveErrorName(result.error));
  }
  if (number < reported) {
    return;  // a later one has reported
  }
  reported = number;
  if (result.error == net::ResolveError::kNone) {
    ++list_generation;
    addresses = InterleaveFamilies(result.addresses);
    expires_ticks_us = ExpiryTicksUs(result.ttl);
  }
}

std::map<std::string, NameLookup> LookUpNames(const std::vector<std::string>& names) {
  std::map<std::string, NameLookup> lookups;
  std::vector<net::HostPort> servers;
  std::vector<net::ResolveResult*> results;
  for (const std::string& name : names) {
    const auto [entry, is_new] = lookups.try_emplace(name);
    NameLookup& lookup = entry->second;
    if (!is_new) {
      continue;
    }
    lookup.server = net::ParseHostPort(name, kNtpPort);
    if (lookup.server.value) {
      servers.push_back(*lookup.server.value);
      results.push_back(&lookup.result);
    }
  }
  std::vector<net::ResolveResult> resolved = net::ResolveHosts(servers, ResolveTimeout());
  for (size_t i = 0; i < resolved.size(); ++i) {
    *results[i] = std::move(resolved[i]);
  }
  return lookups;
}

NameAddresses::NameAddresses(const std::string& name) : NameAddresses(LookUpNames({name}).at(name)) {}

NameAddresses::NameAddresses(const NameLookup& first) {
  if (!first.server.value) {
    failure_ = {"bad_name", first.server.error};
    CountFailure(failure_.reason);
    return;
  }
  const net::HostPort& server = *first.server.value;
  const net::ResolveResult& resolved = first.result;
  if (resolved.error != net::ResolveError::kNone) {
    failure_ = {net::ResolveErrorName(resolved.error), resolved.detail};
    CountFailure(failure_.reason);
    return;
  }
  list_ = InterleaveFamilies(resolved.addresses);
  if (!net::IPEndPoint::FromLiteral(server.host, server.port)) {
    expires_ticks_us_ = ExpiryTicksUs(resolved.ttl);
    lookups_ = std::make_shared<Lookups>(server, expires_ticks_us_);
  }
}

void NameAddresses::RefreshIfExpired() const {
  if (lookups_ == nullptr) {
    return;
  }
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  if (now_ticks_us < expires_ticks_us_) {
    return;
  }
  const uint64_t number = lookups_->Begin(now_ticks_us);
  if (number == 0) {
    return;
  }
  net::ResolveHostInBackground(
      lookups_->name.host, lookups_->name.port, ResolveTimeout(),
      [lookups = lookups_, number](const net::ResolveResult& result) { lookups->OnReport(number, result); });
}

void NameAddresses::AdoptNewest() {
  if (lookups_ == nullptr) {
    return;
  }
  const base::AutoLock guard(lookups_->lock);
  if (list_generation_ != lookups_->list_generation) {
    list_generation_ = lookups_->list_generation;
    list_ = lookups_->addresses;
    expires_ticks_us_ = lookups_->expires_ticks_us;
  }
}

}  // namespace skorra
