#pragma once
// The family's convergence checks: after every drained step of a seeded run, the agent must be in
// the state its current inputs call for.
//
// Each check reads only public state: the inputs, the chip's tables and ledger, the mapping table
// and the machines' accessors. The chip's ESI table is compared against expectedEsiData(), which
// computes the table from the inputs and the published hardware ids on its own, without any of the
// machines' code; docs/convergence.md gives its definition and the narrow exceptions where the
// machines' algorithms leave the chip elsewhere.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Oba/ObaKeys.h"
#include "sim/Family.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim {

using EsiTable = std::map<TunnelEsiChip::PortVlan, TunnelEsiChip::EsiEntry>;

// The ESI table that the inputs and the published hardware ids call for.
EsiTable expectedEsiData(const Evpn::EvpnStatus& evpnStatus, const Oba::ObaCommonSmData& acsd,
                         const Oba::TunnelIdToHwTunnelIdMapping& mapping);

// How often each narrow exception let a difference through: counters "parkedPort",
// "staleLocalLabel", "nonMplsRemote".
// The result of comparing the chip's ESI table with the expected one.
struct EsiComparison {
  std::vector<std::string> diffs;  // key by key: expected against actual
  // The expected table with every allowed difference taken as the chip has it: what a replay of
  // the run must find, so that only the real differences fail it.
  EsiTable wanted;
};
EsiComparison compareEsiData(const TunnelEsiAgent& agent, Counters* allowances);

// Each returns what is wrong, one line per finding; empty when all holds.
std::vector<std::string> checkHwTunnelIdSm(const TunnelEsiAgent& agent);
std::vector<std::string> checkFloodingEsiSm(const TunnelEsiAgent& agent);
// The mapping table against the designated forwarders of the inputs and the chip's pool.
std::vector<std::string> checkMapping(const TunnelEsiAgent& agent);
// The pool's balance: every hardware id handed out is in exactly one mapping row or was given
// back exactly once.
std::vector<std::string> checkHwTunnelIdLedger(const TunnelEsiAgent& agent);

// The pieces the checks share: a tunnel endpoint's tunnel, "Ethernet1 vlan 10", and the
// (interface, VLAN) -> tunnel pairs the inputs name.
Tunnel::TunnelTable::TunnelId tunnelOf(Quil::IntfId tep);
std::string pairText(Quil::IntfId intf, Bridging::VlanId vlan);
std::map<Oba::IntfVlanKey, Tunnel::TunnelTable::TunnelId> designatedForwarders(
    const Evpn::EvpnStatus& evpnStatus);

// Every check of the family in turn ("hwTunnelId machine", "floodingEsi machine", "mapping",
// "esiData"); the first that fails.
std::optional<CheckFailure> checkTunnelEsi(const TunnelEsiAgent& agent, Counters* allowances);

}  // namespace Sim
