// Names to addresses: a seam with a real and a simulated implementation.
#pragma once

#include <string>
#include <vector>

#include "platform/base/time.h"
#include "platform/net/ip_endpoint.h"

namespace net {

enum class ResolveError {
  kNone,
  kNotFound,  // the name does not exist or has no address
  kTimedOut,  // no answer within the time allowed
  kFailed,    // the name server could not be asked or refused
};

// A stable name for counters: "not_found", "timed_out", "failed".
const char* ResolveErrorName(ResolveError error);

struct ResolveResult {
  std::vector<IPEndPoint> addresses;  // in the order to be tried; empty exactly when there is an error
  ResolveError error = ResolveError::kNone;
  std::string detail;  // the error in words, for the user
};

// Looks up a host name or address literal, both families, and gives every address the port `port`. Blocks
// for `timeout` at the longest, whatever the name servers do. Literals, "localhost" and names of the hosts
// file need no name server. Any thread. On kTimedOut and kFailed a later call may succeed; on kNotFound
// check the spelling.
ResolveResult ResolveHost(const std::string& host, uint16_t port, base::TimeDelta timeout);

}  // namespace net
