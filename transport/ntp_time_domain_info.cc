// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_time_domain_info.h"

#include "platform/base/clock.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

bool IsHeld(const net::IPEndPoint& address, int64_t now_ticks_us) {
  return NtpAddressLedger::GetInstance()->Check(address, now_ticks_us) != SendRefusal::kNone;
}

}  // namespace

NtpTimeDomainInfo::NtpTimeDomainInfo(const std::string& domain) : domain_(domain), addresses_(domain) {
  ChooseFirstAddress();
}

NtpTimeDomainInfo::NtpTimeDomainInfo(const std::string& domain, const NameLookup& first)
    : domain_(domain), addresses_(first) {
  ChooseFirstAddress();
}

net::IPEndPoint NtpTimeDomainInfo::GetCurrentIPAddress() const {
  if (addresses().empty()) {
    return {};
  }
  addresses_.RefreshIfExpired();
  return addresses()[position_];
}

bool NtpTimeDomainInfo::IsCurrentIPAddress(const net::IPEndPoint& server) const {
  if (addresses().empty()) {
    return false;
  }
  addresses_.RefreshIfExpired();
  return addresses()[position_] == server;
}

void NtpTimeDomainInfo::Reset() {
  samples_.clear();
  is_only_address_retried_ = false;
  addresses_.AdoptNewest();
  ChooseFirstAddress();
}

bool NtpTimeDomainInfo::Retry(uint32_t& total_retry_count) {
  const std::vector<net::IPEndPoint>& list = addresses();
  if (list.size() == 1) {
    // Common rate limits answer the first burst and refuse the second: repeat only a burst that brought no
    // answer.
    const auto* const ledger = NtpAddressLedger::GetInstance();
    if (is_only_address_retried_ || IsHeld(list.front(), base::GetSteadyTimeTicks()) ||
        ledger->HasAnswered(list.front()) || ledger->WasClosedSince(list.front(), reset_ticks_us_)) {
      return false;
    }
    is_only_address_retried_ = true;
    ++total_retry_count;
    return true;
  }
  const std::optional<size_t> next = NextAddress(position_ + 1);
  if (!next) {
    return false;
  }
  position_ = *next;
  is_used_[position_] = true;
  ++total_retry_count;
  return true;
}

void NtpTimeDomainInfo::ChooseFirstAddress() {
  reset_ticks_us_ = base::GetSteadyTimeTicks();
  is_used_.assign(addresses().size(), false);
  position_ = NextAddress(0).value_or(0);
  if (!addresses().empty()) {
    is_used_[position_] = true;
  }
}

std::optional<size_t> NtpTimeDomainInfo::NextAddress(size_t from) const {
  const std::vector<net::IPEndPoint>& list = addresses();
  const auto* const ledger = NtpAddressLedger::GetInstance();
  const int64_t now_ticks_us = base::GetSteadyTimeTicks();
  std::optional<size_t> silent;
  for (size_t i = 0; i < list.size(); ++i) {
    const size_t position = (from + i) % list.size();
    const net::IPEndPoint& address = list[position];
    if (is_used_[position] || IsHeld(address, now_ticks_us) ||
        ledger->WasClosedSince(address, reset_ticks_us_)) {
      continue;
    }
    if (!ledger->IsSilent(address, now_ticks_us)) {
      return position;
    }
    silent = silent.value_or(position);
  }
  return silent;
}

}  // namespace skorra
