// SPDX-License-Identifier: Apache-2.0

// Names to addresses: a seam with a real and a simulated implementation.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "../base/time.h"
#include "../net/ip_endpoint.h"

namespace net {
inline namespace skorra_ntp {

enum class ResolveError {
  kNone,
  kNotFound,  // the name does not exist or has no address
  kTimedOut,  // no answer within the time allowed
  kFailed,    // the name server could not be asked, or answered with an error
};

// A stable name for counters: "not_found", "timed_out", "failed".
const char* ResolveErrorName(ResolveError error);

struct ResolveResult {
  std::vector<IPEndPoint> addresses = {};  // in the order to be tried; empty exactly when there is an error
  ResolveError error = ResolveError::kNone;
  std::string detail = {};  // the error in words, for the user
  // How long the addresses hold: the shortest time to live of the records. Max for addresses that come from
  // no name server (literals, "localhost", the hosts file).
  base::TimeDelta ttl = base::TimeDelta::Max();
};

// Looks up host names or address literals in both families, all at the same time, and gives the addresses of
// each its port. Blocks at most for `timeout`, however many hosts there are and whatever the name servers do;
// an answer counts until then. The results stand in the order of the hosts, and the error of one does not
// touch the others. Literals, "localhost" and names of the hosts file need no name server. Any thread. After
// kTimedOut or kFailed a later call may succeed; after kNotFound check the spelling.
std::vector<ResolveResult> ResolveHosts(const std::vector<HostPort>& hosts, base::TimeDelta timeout);

// The same for one host.
inline ResolveResult ResolveHost(const std::string& host, uint16_t port, base::TimeDelta timeout) {
  return ResolveHosts({{host, port}}, timeout).front();
}

// The same without blocking: `done` gets the result later, exactly once. `done` runs on an internal thread,
// possibly while the caller still runs: return quickly and lock shared data. That one thread makes the
// lookups one after the other, and the `timeout` of each runs from its own beginning, so a lookup waits for
// those before it when name servers are silent. If the thread cannot start, lookups wait until a later call
// can start it. In a forked child, the parent's unfinished lookups never report.
void ResolveHostInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                             std::function<void(ResolveResult)> done);

}  // namespace skorra_ntp
}  // namespace net
