// SPDX-License-Identifier: Apache-2.0

// One attempt that asks many domains at the same time, on real sockets.
//
// A server in this process answers at 127.0.0.0/8, a different address for each domain. The offsets that it
// tells jump to and fro, so that each domain is judged as inaccurate: the first good result would end the
// attempt, and these never do. So each domain gets its 20 requests, all replies are evaluated, and the
// attempt ends when the last domain was judged.
//
// Distances are those between two requests in a row to the same domain, by the kernel's time stamps of their
// arrival at the server.
#pragma once

#include <cstdint>

namespace skorra {

struct ManyDomainsRun {
  bool has_ended = false;  // the attempt, with the outcome that was expected
  int64_t queue_ns = 0;    // processor time of the manager's queue, from the start to the outcome
  uint64_t requests = 0;   // that arrived at the server
  int64_t low_us = 0;      // of all distances: 5 % are shorter,
  int64_t median_us = 0;   // half of them,
  int64_t high_us = 0;     // and 5 % are longer
};

// Whether this process may open the sockets that so many domains need. Raises its own limit if it can, and
// says on the standard error output what to do if it cannot.
bool HasDescriptorsFor(int domains);

ManyDomainsRun AskManyDomains(int domains);

}  // namespace skorra
