// SPDX-License-Identifier: Apache-2.0
#include "./facilities.h"

#include "./host.h"
#include "platform/net/ip_endpoint.h"

namespace base {

Time Time::Now() {
  Time now;
  now.seconds_ = 42;
  return now;
}

std::string Time::ToString() const { return "host time " + std::to_string(static_cast<int>(seconds_)); }

Lock::Lock() = default;
Lock::~Lock() = default;

}  // namespace base

std::string net::IPEndPoint::ToString() const { return "host end point " + text_; }

std::string DescribeHost() {
  const base::Lock lock;
  return base::Time::Now().ToString() + ", " + net::IPEndPoint("here").ToString();
}
