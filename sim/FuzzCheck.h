#pragma once
// The convergence checks of `oba-evpn-sim fuzz`: after every step of a seeded run, once the
// review tasks have drained, the host agent must be in the state its current inputs call for.
//
//   Sim::Allowances allowed;
//   if (auto f = Sim::checkAgent(agent, &allowed)) report(f->check, f->lines);
//
// Each check reads only public state: the inputs, the chip's tables and ledger, the mapping table
// and the machines' accessors. The chip's ESI table is compared against expectedEsiData(), which
// computes the table from the inputs and the published hardware ids on its own, without any of the
// machines' code; docs/convergence.md gives its definition and the narrow exceptions where the
// machines' algorithms leave the chip elsewhere.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Evpn/EvpnStatus.h"
#include "Oba/ObaCommon.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "sim/HostAgent.h"
#include "sim/SoftwareChip.h"

namespace Sim {

using EsiTable = std::map<SoftwareChip::PortVlan, SoftwareChip::EsiEntry>;

// The ESI table that the inputs and the published hardware ids call for.
EsiTable expectedEsiData(const Evpn::EvpnStatus& evpnStatus, const Oba::ObaCommonSmData& acsd,
                         const Oba::TunnelIdToHwTunnelIdMapping& mapping);

// The lowest id of 1..pool that the chip has not handed out, or 0: what the next getHwTunnelId
// would give.
std::uint32_t freeHwTunnelId(const SoftwareChip& chip);

// "Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1 label 1001 local 2001", as scenario files write it.
std::string esiLine(const SoftwareChip::PortVlan& key, const SoftwareChip::EsiEntry& e);

// How often each narrow exception let a difference through, over a run.
struct Allowances {
  std::uint64_t parkedPort = 0;       // a refused port still waits for its review
  std::uint64_t staleLocalLabel = 0;  // programmed with a local label that changed or emptied since
  std::uint64_t nonMplsRemote = 0;    // programmed with a remote label now of another encapsulation
};

// The result of comparing the chip's ESI table with the expected one.
struct EsiComparison {
  std::vector<std::string> diffs;  // key by key: expected against actual
  // The expected table with every allowed difference taken as the chip has it: what a replay of
  // the run must find, so that only the real differences fail it.
  EsiTable wanted;
};
EsiComparison compareEsiData(const HostAgent& agent, Allowances* allowances);

// Each returns what is wrong, one line per finding; empty when all holds.
std::vector<std::string> checkHwTunnelIdSm(const HostAgent& agent);
std::vector<std::string> checkFloodingEsiSm(const HostAgent& agent);
// The mapping table against the designated forwarders of the inputs and the chip's pool.
std::vector<std::string> checkMapping(const HostAgent& agent);
// The chip's ledger: no violation, and every hardware id handed out is in exactly one mapping row
// or was given back exactly once.
std::vector<std::string> checkLedger(const HostAgent& agent);

// A failed check: its name ("hwTunnelId machine", "floodingEsi machine", "mapping", "ledger",
// "esiData") and what differs.
struct CheckFailure {
  std::string check;
  std::vector<std::string> lines;
};
// Every check in turn; the first that fails.
std::optional<CheckFailure> checkAgent(const HostAgent& agent, Allowances* allowances);

}  // namespace Sim
