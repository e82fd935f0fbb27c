#pragma once
// The family's convergence checks. The chip's dot1q table is compared against expectedDot1q() and
// its port maps against the routes with Ethernet-segment filter vias (filterRoutes()), both
// computed from the inputs alone, without the machines' code; docs/convergence.md gives their
// definitions and the narrow exceptions where the machines' algorithms leave the chip elsewhere.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sim/Family.h"
#include "sim/families/dot1qDecap/Dot1qDecapAgent.h"

namespace Sim {

using Dot1qTable = std::map<Dot1qDecapChip::PortVlan, Bridging::VlanIdOrNone>;
using PortMapTable = std::map<Quil::MplsLabel, Quil::IntfId>;

// The dot1q mappings the VLAN membership, the tags and the LAG membership call for.
Dot1qTable expectedDot1q(const Bridging::VlanStatusDir& vlans, const Evpn::EvpnStatus& evpnStatus,
                         const Oba::ObaCommonSmData& acsd);
// Every route whose via set names a published Ethernet-segment filter via, with its interface.
PortMapTable filterRoutes(const Mpls::LfibStatus& lfib);

// A comparison: the differences key by key, and the table a replay must find (each allowed
// difference taken as the chip has it). Counters: "parkedDot1q"; "parkedConflict",
// "parkedRefused", "undefinedRc", "otherViaType", "parkedOtherType".
template <class Table>
struct Comparison {
  std::vector<std::string> diffs;
  Table wanted;
};
Comparison<Dot1qTable> compareDot1q(const Dot1qDecapAgent& agent, Counters* allowances);
Comparison<PortMapTable> comparePortMaps(const Dot1qDecapAgent& agent, Counters* allowances);

// The machines' own bookkeeping against itself, the chip and the inputs; empty when all holds.
std::vector<std::string> checkFloodingDot1qSm(const Dot1qDecapAgent& agent);
std::vector<std::string> checkDecapSm(const Dot1qDecapAgent& agent);

// Whether the decapsulation machine's review could program or drop a parked route now: a route
// gone or without a published filter via, a conflict whose interface is free, a refusal while
// the chip has room.
bool parkedRouteCouldMove(const Dot1qDecapAgent& agent);

// Every check in turn ("floodingDot1q machine", "esiFilteringDecap machine", "dot1q",
// "esiPortMaps"); the first that fails.
std::optional<CheckFailure> checkDot1qDecap(const Dot1qDecapAgent& agent, Counters* allowances);

}  // namespace Sim
