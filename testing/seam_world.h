// SPDX-License-Identifier: Apache-2.0

// The world behind the seams as the conformance suite sees it: what stands on the other side of a socket or
// a name, and a way to let events happen. One implementation per test program, so that one suite holds both
// worlds to the same contracts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/time.h"
#include "platform/net/host_resolver.h"
#include "platform/net/ip_endpoint.h"

namespace skorra {

class SeamWorld {
 public:
  SeamWorld();
  ~SeamWorld();
  SeamWorld(const SeamWorld&) = delete;
  SeamWorld& operator=(const SeamWorld&) = delete;

  // Lets events happen until `done` holds; false when it does not within a generous time. `done` may run
  // alongside tasks: what both touch must be atomic or locked.
  bool WaitUntil(const std::function<bool()>& done);

  // A new server end point.
  net::IPEndPoint AddServer();
  // The next datagram that arrives at `server`; nothing when none comes.
  std::optional<std::vector<uint8_t>> ReceiveAt(const net::IPEndPoint& server);
  void SendFrom(const net::IPEndPoint& server, const net::IPEndPoint& client,
                const std::vector<uint8_t>& bytes);
  // An end point where nobody listens, and where the network says so.
  net::IPEndPoint RefusingEndPoint();

  // ResolveHost for a name that does not exist, and for one whose name server never answers.
  net::ResolveResult ResolveUnknownName(base::TimeDelta timeout);
  net::ResolveResult ResolveSilentName(base::TimeDelta timeout);
  // ResolveHosts. Names that begin with "silent." are those of a name server that never answers; every other
  // name has the address 192.0.2.1.
  std::vector<net::ResolveResult> ResolveTogether(const std::vector<net::HostPort>& hosts,
                                                  base::TimeDelta timeout);
  // ResolveHost for a name whose address holds for `ttl`, in whole seconds.
  net::ResolveResult ResolveNameWithTtl(base::TimeDelta ttl);

  // Sets an environment variable, or removes it.
  void SetEnvironmentVariable(const std::string& name, const std::optional<std::string>& value);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace skorra
