// SPDX-License-Identifier: Apache-2.0

// Many random walks of the manager and its model side by side.
#pragma once

#include <cstdint>

namespace skorra {

// A seed from the clock, different from one run to the next.
uint64_t FreshWalkSeed();

// Runs `count` walks drawn from `seed`, in two processes, and prints the seed, the progress and, of each
// process's first walk that shows a difference, its own seed, what differs and a shrunk list of its events.
// Returns 0 when no walk shows a difference. The caller must run on one thread only, without a sim::World.
int RunWalks(long count, uint64_t seed);

// Replays the one walk that `RunWalks` reported under its own seed.
int RunOneWalk(uint64_t walk_seed);

}  // namespace skorra
