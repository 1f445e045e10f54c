// Names to addresses: a seam with a real and a simulated implementation.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/base/time.h"
#include "platform/net/ip_endpoint.h"

namespace net {
inline namespace skorra_ntp {

enum class ResolveError {
  kNone,
  kNotFound,  // the name does not exist or has no address
  kTimedOut,  // no answer within the time allowed
  kFailed,    // the name server could not be asked or refused
};

// A stable name for counters: "not_found", "timed_out", "failed".
const char* ResolveErrorName(ResolveError error);

struct ResolveResult {
  std::vector<IPEndPoint> addresses = {};  // in the order to be tried; empty exactly when there is an error
  ResolveError error = ResolveError::kNone;
  std::string detail = {};  // the error in words, for the user
  // How long the addresses hold: the shortest time to live of the records. Max for what no name server said
  // (literals, "localhost", the hosts file).
  base::TimeDelta ttl = base::TimeDelta::Max();
};

// Looks up a host name or address literal, both families, and gives every address the port `port`. Blocks
// for `timeout` at the longest, whatever the name servers do. Literals, "localhost" and names of the hosts
// file need no name server. Any thread. On kTimedOut and kFailed a later call may succeed; on kNotFound
// check the spelling.
ResolveResult ResolveHost(const std::string& host, uint16_t port, base::TimeDelta timeout);

// The same without blocking: `done` gets the result later, exactly once, on no queue of the caller's and
// possibly while the caller runs. It is quick, and what it touches it locks. One thread makes these look-ups,
// one after the other, and each has `timeout` from its own beginning: behind silent name servers a look-up
// waits for those before it. Where the system refuses the thread, all wait for a later call that finds it
// willing, for ever if there is none.
void ResolveHostInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                             std::function<void(ResolveResult)> done);

}  // namespace skorra_ntp
}  // namespace net
