#pragma once
// The flood-set family's convergence checks: after every drained step of a seeded run, the
// MPLS-only flood sets, the hardware flood-list configuration, the chip's lists and its status
// must be what the current inputs call for. The expected state is computed from the inputs alone
// (the RIB's flood sets, the tunnel-id mapping, the chip's FEC answers), without any of the
// machines' code; docs/convergence.md gives the definitions.

#include <optional>
#include <string>
#include <vector>

#include "sim/Family.h"
#include "sim/families/floodSet/FloodSetFamily.h"

namespace Sim {

// The MPLS-only flood sets that the RIB's call for, as the mplsFloodSet table prints them.
std::vector<std::string> expectedMplsFloodSetLines(const FloodSetAgent& agent);

// Every check of the family in turn ("mplsFloodSet", "floodLists"); the first that fails.
std::optional<CheckFailure> checkFloodSets(const FloodSetAgent& agent, Counters* counters);

}  // namespace Sim
