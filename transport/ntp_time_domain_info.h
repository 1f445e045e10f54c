// SPDX-License-Identifier: Apache-2.0

// The request state of one server domain: its name, the addresses that it stands for, the address in use and
// the samples of the current request.
//
// The address in use changes in the constructor, in `Reset` and in `Retry`, and at no other moment, since
// replies are told apart by it. All three pass over addresses that the ledger holds (ntp_address_ledger.h).
//
// The addresses follow the name (name_addresses.h): using the domain after they expired starts a lookup, and
// the next `Reset` adopts its result.
//
// Threads: built and used on the time manager's queue. The constructor looks the name up and may block for
// the resolution limit; nothing else blocks. Copies share their lookups.
#pragma once

#include <cstddef>
#include <cstdint>
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
  NtpTimeDomainInfo(const NtpTimeDomainInfo&) = default;

  const std::string& domain() const { return domain_; }
  const std::vector<net::IPEndPoint>& addresses() const { return addresses_.list(); }
  // Why there are none.
  const NameAddresses::Failure& failure() const { return addresses_.failure(); }
  std::vector<NtpResultData>& samples() { return samples_; }

  // The address to ask now; the empty end point when the domain has none. Starts a lookup in the background
  // when the addresses have expired: hold no lock.
  net::IPEndPoint GetCurrentIPAddress() const;

  // Back to the state before any request: the newest list, its first address that is not held (the very first
  // when all are), no samples. Starts no lookup, so it may be called with a lock held.
  void Reset();

  // Whether the domain may be asked once more. True moves on to the next address that is not held, from the
  // end of the list to the addresses at its beginning that were passed over, and counts the retry in
  // `total_retry_count`. A domain with one address keeps it: once until `Reset`, and only while the address
  // is not held and nothing at all has come back from it. False, with nothing changed, when no address is
  // left.
  bool Retry(uint32_t& total_retry_count);

 private:
  void ChooseFirstAddress();

  std::string domain_;
  NameAddresses addresses_;
  std::vector<NtpResultData> samples_;
  size_t first_address_ = 0;  // of the attempt
  size_t position_ = 0;       // of the address in use, counted from there in a circle
  bool is_only_address_retried_ = false;
};

}  // namespace skorra
