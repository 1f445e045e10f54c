// The request state of one server domain: its name, the addresses it stands for, the address in use and the
// samples of the current request.
//
// The address in use changes in the constructor, in `Reset` and in `Retry` and at no other moment, since
// replies are told apart by it. Those three pass over addresses that the ledger holds back
// (ntp_address_ledger.h).
//
// The addresses follow the name. Once their time to live has passed, using them starts a look-up in the
// background, and its result takes the place of the list in the next `Reset`. A look-up that fails leaves the
// list as it is. Address literals are never looked up.
//
// Threads: built and used on the time manager's queue. The constructor may block for the resolution limit
// (configuration entry `ntp_resolve_timeout_ms`, 2 s by default), nothing else blocks. Copies share their
// look-ups: what one of them started, each adopts in its own `Reset`.
//
// Counters:
//   ntp.domain.REASON                 a domain has no address: bad_name, not_found, timed_out, failed
//   ntp.domain.refresh_failed         look-ups in the background that brought no list
//   ntp.domain.refresh_failed.REASON  the same by reason: not_found, timed_out, failed, lost (no result came)
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ntp/ntp_sync_records.h"
#include "platform/base/time.h"
#include "platform/net/ip_endpoint.h"

namespace skorra {

inline constexpr uint16_t kNtpPort = 123;  // RFC 5905, section 16

class NtpTimeDomainInfo {
 public:
  // More addresses of a name are left out. Each may cost an attempt the 3 s of a silent server, so that a
  // domain is given up after half a minute at most; pools give 4 of each family.
  static constexpr size_t kMaxAddresses = 8;
  // A list is taken to hold for so long at least, whatever its time to live, and so much time lies between
  // two look-ups: a name server that answers 0 is not asked with every request.
  static constexpr int64_t kMinRefreshUs = 60 * base::kUsPerSecond;
  // And for so long at most, also when nobody gave it a time to live: a hosts file may be edited.
  static constexpr int64_t kMaxRefreshUs = 24 * 60 * 60 * base::kUsPerSecond;
  // A look-up without a result is waited for no longer: in a forked child, or where the system refuses the
  // thread, none will come. Several that wait behind each other for silent name servers are done by then.
  static constexpr int64_t kLostAfterUs = 10 * 60 * base::kUsPerSecond;

  // `domain` is "host", "host:port", an IPv4 address (with or without port), or "[IPv6]:port"; the port is
  // 123 unless given. A name that is malformed or cannot be resolved in time leaves the address list
  // empty for good, and the reason is counted.
  explicit NtpTimeDomainInfo(const std::string& domain);
  NtpTimeDomainInfo(const NtpTimeDomainInfo&) = default;

  const std::string& domain() const { return domain_; }
  // Each address once, the two families in turn, beginning with that of the resolver's first address. Empty:
  // the domain cannot be used.
  const std::vector<net::IPEndPoint>& addresses() const { return addresses_; }
  std::vector<NtpResultData>& samples() { return samples_; }

  // The address to ask now; the empty end point when the domain has none.
  net::IPEndPoint GetCurrentIPAddress() const;

  // Back to the state before any request: the newest list, its first address that is not held (the very first
  // when all are), no samples.
  void Reset();

  // Whether the domain may be asked once more. True moves on to the next address that is not held, at the end
  // of the list to those at its beginning that were passed over, and counts the retry in `total_retry_count`.
  // A domain with one address keeps it, once until `Reset`, and only while the address is not held and
  // nothing at all has come back from it. False, with nothing changed, when no address is left.
  bool Retry(uint32_t& total_retry_count);

 private:
  struct Refresh;

  void AdoptNewestList();
  void RefreshIfExpired() const;
  void ChooseFirstAddress();

  std::string domain_;
  std::shared_ptr<Refresh> refresh_;  // null: the addresses are for ever
  uint64_t list_number_ = 0;          // which of the lists of `refresh_` the addresses are
  int64_t expires_us_ = 0;            // when this list does
  std::vector<net::IPEndPoint> addresses_;
  std::vector<NtpResultData> samples_;
  size_t first_address_ = 0;   // of the attempt
  size_t steps_ = 0;           // from there to the address in use
  bool has_repeated_ = false;  // the only address has had its second burst
};

}  // namespace skorra
