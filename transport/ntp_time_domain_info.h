// The request state of one server domain: its name, the addresses it stands for, the address in use and the
// samples of the current request.
//
// Threads: built and used on the time manager's queue. The constructor may block for the resolution limit
// (configuration entry `ntp_resolve_timeout_ms`, 2 s by default).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ntp/ntp_sync_records.h"
#include "platform/net/ip_endpoint.h"

namespace skorra {

inline constexpr uint16_t kNtpPort = 123;  // RFC 5905, section 16

class NtpTimeDomainInfo {
 public:
  // `domain` is "host", "host:port", an IPv4 address (with or without port), or "[IPv6]:port"; the port is
  // 123 unless given. A name that is malformed or cannot be resolved in time leaves the address list
  // empty, and the reason is counted under "ntp.domain.<reason>".
  explicit NtpTimeDomainInfo(const std::string& domain);
  NtpTimeDomainInfo(const NtpTimeDomainInfo&) = default;

  const std::string& domain() const { return domain_; }
  // Empty: the domain cannot be used.
  const std::vector<net::IPEndPoint>& addresses() const { return addresses_; }
  std::vector<NtpResultData>& samples() { return samples_; }

  // The address to ask now; the empty end point when the domain has none.
  net::IPEndPoint GetCurrentIPAddress() const;

  // Back to the state before any request: the first address, no samples.
  void Reset();

  // Moves on to the next address, counts the retry in `total_retry_count` and returns true; false, with
  // nothing changed, when the address in use is the last one.
  bool Retry(uint32_t& total_retry_count);

 private:
  std::string domain_;
  std::vector<net::IPEndPoint> addresses_;
  std::vector<NtpResultData> samples_;
  size_t current_address_ = 0;
};

}  // namespace skorra
