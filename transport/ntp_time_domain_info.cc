// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_time_domain_info.h"

#include <algorithm>

#include "platform/base/clock.h"
#include "transport/ntp_address_ledger.h"

namespace skorra {
namespace {

bool IsHeld(const net::IPEndPoint& address) {
  return NtpAddressLedger::GetInstance()->Check(address, base::GetSteadyTimeTicks()) != SendRefusal::kNone;
}

}  // namespace

NtpTimeDomainInfo::NtpTimeDomainInfo(const std::string& domain) : domain_(domain), addresses_(domain) {
  ChooseFirstAddress();
}

net::IPEndPoint NtpTimeDomainInfo::GetCurrentIPAddress() const {
  if (addresses().empty()) {
    return {};
  }
  addresses_.RefreshIfExpired();
  return addresses()[(first_address_ + position_) % addresses().size()];
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
    if (is_only_address_retried_ || IsHeld(list.front()) ||
        NtpAddressLedger::GetInstance()->HasAnswered(list.front())) {
      return false;
    }
    is_only_address_retried_ = true;
    ++total_retry_count;
    return true;
  }
  // In a circle: an address that was held when the attempt's first one was chosen may be free by now.
  for (size_t position = position_ + 1; position < list.size(); ++position) {
    if (!IsHeld(list[(first_address_ + position) % list.size()])) {
      position_ = position;
      ++total_retry_count;
      return true;
    }
  }
  return false;
}

void NtpTimeDomainInfo::ChooseFirstAddress() {
  const std::vector<net::IPEndPoint>& list = addresses();
  const auto free = std::find_if_not(list.begin(), list.end(), IsHeld);
  first_address_ = free == list.end() ? 0 : static_cast<size_t>(free - list.begin());
  position_ = 0;
}

}  // namespace skorra
