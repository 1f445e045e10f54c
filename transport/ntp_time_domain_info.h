// SPDX-License-Identifier: Apache-2.0

// The request state of one server domain: its name, the addresses that it stands for, the address in use and
// the samples of the current request.
//
// The address in use changes in the constructor, in `Reset` and in `Retry`, and at no other moment, since
// replies are told apart by it. All three pass over addresses that the ledger holds (ntp_address_ledger.h),
// and take silent ones only when no other is left.
//
// The addresses follow the name (name_addresses.h): using the domain after they expired starts a lookup, and
// the next `Reset` adopts its result.
//
// Threads: built and used on the time manager's queue. The constructor that looks the name up may block for
// the resolution limit; nothing else blocks. Copies share their lookups.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/net/ip_endpoint.h"
#include "transport/name_addresses.h"
#include "transport/ntp_exchange.h"

namespace skorra {

class NtpTimeDomainInfo {
 public:
  // For the forms of `domain` see `NameAddresses`. A domain whose name is malformed or cannot be resolved in
  // time has no addresses and cannot be used.
  explicit NtpTimeDomainInfo(const std::string& domain);
  // The same with the domain's first lookup already made.
  NtpTimeDomainInfo(const std::string& domain, const NameLookup& first);
  NtpTimeDomainInfo(const NtpTimeDomainInfo&) = default;

  const std::string& domain() const { return domain_; }
  const std::vector<net::IPEndPoint>& addresses() const { return addresses_.list(); }
  // Why there are none.
  const NameAddresses::Failure& failure() const { return addresses_.failure(); }
  std::vector<NtpResultData>& samples() { return samples_; }

  // The address to ask now; the empty end point when the domain has none. Starts a lookup in the background
  // when the addresses have expired: hold no lock.
  net::IPEndPoint GetCurrentIPAddress() const;
  // Whether that is `server`, which is not empty; the same, without a copy.
  bool IsCurrentIPAddress(const net::IPEndPoint& server) const;

  // Back to the state before any request: the newest list, no samples, and of the list the first address that
  // is neither held nor silent, or the first that is not held, or the very first. Starts no lookup, so it may
  // be called with a lock held.
  void Reset();

  // Whether the domain may be asked once more. True moves on to an address that was not in use since `Reset`,
  // is not held and was not found closed since then: the next one in a circle that is not silent, or the next
  // one; it counts the retry in `total_retry_count`. A domain with one address keeps it: once until `Reset`,
  // and only while the address is not held, was not found closed since then, and nothing at all has come back
  // from it. False, with nothing changed, when no address is left.
  bool Retry(uint32_t& total_retry_count);

 private:
  void ChooseFirstAddress();
  // The next address to use, looked for in a circle that begins at position `from`; nothing when none is
  // left.
  std::optional<size_t> NextAddress(size_t from) const;

  std::string domain_;
  NameAddresses addresses_;
  std::vector<NtpResultData> samples_;
  int64_t reset_ticks_us_ = 0;
  std::vector<bool> is_used_;  // since then, by position in the list
  size_t position_ = 0;        // of the address in use
  bool is_only_address_retried_ = false;
};

}  // namespace skorra
