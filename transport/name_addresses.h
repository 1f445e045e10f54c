// SPDX-License-Identifier: Apache-2.0
// The addresses that a server name stands for, and the lookups that keep them current.
//
// The list follows the name. Once its time to live has passed, `RefreshIfExpired` starts a lookup in the
// background, and its result takes the place of the list at the next `AdoptNewest`. A lookup that fails
// leaves the list as it is. Address literals are never looked up.
//
// Threads: built and used on the time manager's queue. The first lookup may block for the resolution limit
// (configuration entry `ntp_resolve_timeout_ms`), nothing else blocks. Copies share their lookups: each copy
// adopts the result of a lookup that another one started.
//
// Counters: ntp.domain.* of docs/counters.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/time.h"
#include "platform/net/host_resolver.h"
#include "platform/net/ip_endpoint.h"

namespace skorra {

// The first lookup of a name, made.
struct NameLookup {
  net::HostPortResult server;  // the parts of the name, or why it is malformed
  net::ResolveResult result;   // of a well-formed name
};

// Looks up all names at the same time, which takes no longer than the resolution limit. The result holds each
// name once. For the forms of a name see `NameAddresses`.
std::map<std::string, NameLookup> LookUpNames(const std::vector<std::string>& names);

class NameAddresses {
 public:
  // Use at most this many addresses per name. A silent one costs an attempt 3 s, so 8 bound it to 24 s; pools
  // return 4 per family.
  static constexpr size_t kMaxAddresses = 8;
  // A list is valid for at least this long, whatever its time to live, and two lookups begin at least this
  // far apart: a name server that answers with 0 is not asked with every request.
  static constexpr int64_t kMinRefreshUs = 60 * base::kUsPerSecond;
  // A list is valid for at most this long, also without a time to live: a hosts file may be edited.
  static constexpr int64_t kMaxRefreshUs = 24 * 60 * 60 * base::kUsPerSecond;
  // Give up waiting for a lookup after this long: in a forked child, or when its thread could not start, it
  // never reports. Lookups that wait in a row for silent name servers are done by then.
  static constexpr int64_t kLostAfterUs = 10 * 60 * base::kUsPerSecond;

  // `name` is "host", "host:port", an IPv4 address (with or without port), or "[IPv6]:port"; the port is 123
  // unless given. When the name is malformed or cannot be resolved in time, the list stays empty for good and
  // the reason is counted.
  explicit NameAddresses(const std::string& name);
  // The same for a name whose first lookup has been made.
  explicit NameAddresses(const NameLookup& first);

  // Why there is no list: the <reason> of the counter ntp.domain.<reason>, and the same in words for people.
  // Both are empty while there is one.
  struct Failure {
    std::string reason;
    std::string detail;
  };
  const Failure& failure() const { return failure_; }

  // Each address once, the two families in turn, beginning with the family of the resolver's first address.
  const std::vector<net::IPEndPoint>& list() const { return list_; }

  // Starts a lookup in the background if the list has expired, unless one is under way or began less than a
  // minute ago. Posts a task and may start a thread: hold no lock.
  void RefreshIfExpired() const;

  // Replaces the list by the newest one that a lookup brought. Starts no lookup.
  void AdoptNewest();

 private:
  struct Lookups;

  std::vector<net::IPEndPoint> list_;
  Failure failure_;
  std::shared_ptr<Lookups> lookups_;  // null: a literal, whose address never changes, or an empty list
  uint64_t list_generation_ = 0;      // of `list_`, as `lookups_` counts lists
  int64_t expires_ticks_us_ = 0;      // when `list_` does
};

}  // namespace skorra
