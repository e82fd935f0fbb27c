#pragma once
// The flood-set family's convergence checks: after every drained step of a seeded run, the
// MPLS-only flood sets, the hardware flood-list configuration, the chip's lists and its status
// must be what the current inputs call for. The expected state is computed from the inputs alone
// (the RIB's flood sets, the tunnel-id mapping, the chip's FEC answers), without any of the
// machines' code; docs/convergence.md gives the definitions.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/Family.h"
#include "sim/families/floodSet/FloodSetAgent.h"

namespace Sim {

// The MPLS-only flood sets that the RIB's call for, as the mplsFloodSet table prints them.
std::vector<std::string> expectedMplsFloodSetLines(const FloodSetAgent& agent);

// What the inputs call for: the pairs that need a FEC (those of the RIB's MPLS members, and those
// the chip still reports programmed somewhere), the hardware identifiers of each pair whose FEC
// the chip answered, and the hardware flood lists.
struct FloodSetModel {
  std::set<Oba::MplsFloodSetVia> requested;
  std::map<Oba::MplsFloodSetVia, Oba::MplsDestHwInfo> hwInfo;
  std::map<Bridging::MacVlanPair, std::set<Oba::MplsDestConfig>> config;
};
FloodSetModel expectedFloodSets(const FloodSetAgent& agent);

// Every check of the family in turn ("mplsFloodSet", "fecRequests", "hwInfoMapping",
// "floodListConfig", "floodListStatus", "floodLists"); the first that fails.
std::optional<CheckFailure> checkFloodSets(const FloodSetAgent& agent, Counters* counters);

}  // namespace Sim
