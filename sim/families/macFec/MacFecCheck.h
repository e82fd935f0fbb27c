#pragma once
// The MAC-address FEC family's convergence checks: after every drained step of a seeded run, the
// requests, the chip's answers and the result must be what the RIB calls for.
//
// expectedMacFecs() computes from the four RIB tables and the chain length alone, without the
// machine's code, which objects must have a FEC, what each FEC must contain and which must be
// requested; docs/convergence.md gives its definition and the narrow exceptions where the
// machine's algorithm knowingly leaves something else (each a finding in docs/decisions.md).

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sim/Family.h"
#include "sim/families/macFec/MacFecAgent.h"

namespace Sim {

// A via as the check compares it: its index and label, and where it goes: over a tunnel (an
// invalid one: none) or, hierarchical, through the FEC of an object (or of a FEC id nobody owns).
struct MacVia {
  std::uint32_t index = 0;
  Quil::MplsLabel label;
  Tunnel::TunnelTable::TunnelId tunnel;
  L2Rib::ObjTuple fecOf;
  Shoal::Fib::FecId unownedFec;
  bool operator==(const MacVia&) const = default;
};
// As the `fecs` table prints it: "via(0, 1001, Tunnel1.1)", "via(0, 1001, fec of loadBalance/1)".
std::string macViaText(const MacVia& v);

struct MacFecExpected {
  // The objects hosts point at: each must have a FEC and a request.
  std::set<L2Rib::ObjTuple> heads;
  // Heads the RIB has no row for: a FEC without vias while the machine never knew the row, none
  // once it saw the row go.
  std::set<L2Rib::ObjTuple> absentHeads;
  // Labels over a load balance the RIB lacks, in three-level chains: their via names the load
  // balance's FEC while it has one (an absent head's, or one left over), none otherwise. The
  // expected via says none.
  std::map<L2Rib::ObjTuple, L2Rib::ObjTuple> overAbsentLb;
  // Every object that must have a FEC, with its vias.
  std::map<L2Rib::ObjTuple, std::vector<MacVia>> vias;
  // For load balances: which positions list a label (flattened in three-level chains).
  std::map<L2Rib::ObjTuple, std::vector<bool>> labelPositions;
};

MacFecExpected expectedMacFecs(const L2Rib::LabelOutput& labels,
                               const L2Rib::LoadBalanceOutput& lbs, const L2Rib::DestOutput& dests,
                               const L2Rib::HostOutput& hosts, std::uint32_t maxChainLength);

// The hardware id the chip answered for object `t`'s FEC (`fecIdOf`: the request's owners), or 0
// when `t` is no head or its FEC has no answer: a result row for such an object is stale (its
// request went, or waits for a new answer, after the chip had answered it).
std::uint32_t answeredHwFecId(const MacFecAgent& agent, const MacFecExpected& want,
                              const std::map<L2Rib::ObjTuple, Shoal::Fib::FecId>& fecIdOf,
                              const L2Rib::ObjTuple& t);

// The chip's FEC ledger for this family, and the machine's number allocator against the FEC ids
// it holds.
std::vector<std::string> macFecLedger(const MacFecAgent& agent);

// "fecs" (FECs and their vias, the requests), "macFec result" (each head's hardware id once the
// chip answered), "fecChip" (no request left waiting while an id is free); the first that fails.
std::optional<CheckFailure> checkMacFec(const MacFecAgent& agent, Counters* allowances);

// What a replay must find: fecs, objTupleToHwId and fecChip, allowed differences as they are.
std::vector<std::pair<std::string, std::vector<std::string>>> macFecExpectations(
    const MacFecAgent& agent);

}  // namespace Sim
