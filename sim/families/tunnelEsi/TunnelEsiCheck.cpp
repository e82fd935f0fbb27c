#include "sim/families/tunnelEsi/TunnelEsiCheck.h"

#include <set>
#include <sstream>

#include "Oba/ObaKeys.h"
#include "Quil/IntfId.h"
#include "Tunnel/TunnelId.h"
#include "sim/FamilyHelpers.h"

namespace Sim {

namespace {

using TunnelId = Tunnel::TunnelTable::TunnelId;
using PortVlan = TunnelEsiChip::PortVlan;
using EsiEntry = TunnelEsiChip::EsiEntry;

std::string entryText(const EsiEntry* e) {
  if (!e) return "none";
  return findingLine("tunnel ", e->tunnel, " hw ", e->hw.value(), " label ", e->label, " local ",
                     e->localLabel);
}

// The hardware id of a tunnel's row, or 0.
std::uint32_t rowOf(const Oba::TunnelIdToHwTunnelIdMapping& mapping, const TunnelId& tunnel) {
  auto row = mapping.tunnelIdToHwTunnelId(tunnel);
  return row.found ? row.row.hwTunnelId().value() : 0;
}

// Which of the flooding machine's (interface, VLAN) pairs holds a physical (port, VLAN), and
// whether as programmed or as parked after a refusal.
struct Holder {
  Quil::IntfId logical;
  bool programmed;
};
std::map<PortVlan, Holder> holders(const Oba::EvpnFloodingEsiSm& sm) {
  std::map<PortVlan, Holder> out;
  for (auto [key, es] : sm.esiStatusWalk()) {
    for (auto [port, m] : es.programmedWalk()) {
      out[PortVlan{port, key.vlanId()}] = Holder{key.intfId(), true};
    }
    for (auto [port, m] : es.unprogrammedWalk()) {
      out.try_emplace(PortVlan{port, key.vlanId()}, Holder{key.intfId(), false});
    }
  }
  return out;
}

enum class Stale { no, localLabel, nonMplsRemote };

// Whether a chip entry that the inputs do not call for (or call for with other values) is one the
// machine's algorithm knowingly leaves in place. Both exceptions need the machine to hold the port
// as programmed, for the current designated forwarder's tunnel and published hardware id, with the
// remote label the chip has. Nothing else passes.
Stale staleEntry(const TunnelEsiAgent& agent, const PortVlan& key, const EsiEntry& actual,
                 const Holder* holder) {
  if (!holder || !holder->programmed || !agent.floodingEsiSm) return Stale::no;
  const Quil::IntfId logical = holder->logical;
  const auto [port, vlan] = key;
  auto ess = agent.evpnStatus->segmentStatus(logical);
  if (!ess) return Stale::no;
  auto tep = ess->designatedForwarderTep(vlan);
  if (!tep || tunnelOf(*tep) != actual.tunnel) return Stale::no;
  if (rowOf(*agent.mapping, actual.tunnel) != actual.hw.value()) return Stale::no;
  auto held = agent.floodingEsiSm->intfVlanTunnelLabel(
      Oba::IntfVlanTunnelKey(logical, vlan, actual.tunnel));
  if (!held || *held != actual.label) return Stale::no;
  auto remote = ess->remoteEsiLabel(*tep);
  if (!remote) return Stale::no;
  // A remote label that turns to another encapsulation is not the machine's to program, and it
  // leaves what it programmed with the earlier MPLS label untouched (LAG membership changes of the
  // pair are not followed either: the same early return skips them).
  if (remote->encapType() != Evpn::EncapTypeLabel::encapTypeMpls) return Stale::nonMplsRemote;
  if (remote->label() != actual.label.value()) return Stale::no;
  // A local label that changes, or becomes the empty label, while the port stays programmed: the
  // machine stops at "already programmed" (or "local label not published") and never rewrites the
  // entry. Only the local label may differ, and only on a port the interface still has.
  auto local = agent.evpnStatus->localEsiLabel(logical);
  if (!local) return Stale::no;
  bool member = port == logical;
  if (logical.isPortChannel()) {
    auto members = agent.acsd->lagToPort(logical);
    member = members && members->has(port);
  }
  if (!member) return Stale::no;
  if (local->value() == 0 || local->label() != actual.localLabel.value()) return Stale::localLabel;
  return Stale::no;
}

}  // namespace

Tunnel::TunnelTable::TunnelId tunnelOf(Quil::IntfId tep) {
  return TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep));
}

std::string pairText(Quil::IntfId intf, Bridging::VlanId vlan) {
  return findingLine(intf, " vlan ", vlan);
}

// The (interface, VLAN) -> tunnel pairs the inputs name: every designated forwarder of every
// segment present.
std::map<Oba::IntfVlanKey, Tunnel::TunnelTable::TunnelId> designatedForwarders(
    const Evpn::EvpnStatus& evpnStatus) {
  std::map<Oba::IntfVlanKey, Tunnel::TunnelTable::TunnelId> out;
  for (auto [intf, ess] : evpnStatus.segmentStatusWalk()) {
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) {
      out.emplace(Oba::IntfVlanKey(intf, vlan), tunnelOf(tep));
    }
  }
  return out;
}

EsiTable expectedEsiData(const Evpn::EvpnStatus& evpnStatus, const Oba::ObaCommonSmData& acsd,
                         const Oba::TunnelIdToHwTunnelIdMapping& mapping) {
  EsiTable out;
  std::vector<Quil::IntfId> ports;
  for (auto [intf, ess] : evpnStatus.segmentStatusWalk()) {
    auto local = evpnStatus.localEsiLabel(intf);
    if (!local || local->value() == 0) continue;  // no local label, or the empty one
    ports.clear();
    if (intf.isPortChannel()) {
      if (auto members = acsd.lagToPort(intf)) ports = members->ports();
    } else {
      ports.push_back(intf);
    }
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) {
      auto remote = ess->remoteEsiLabel(tep);
      if (!remote || remote->encapType() != Evpn::EncapTypeLabel::encapTypeMpls) continue;
      const TunnelId tunnel = tunnelOf(tep);
      auto row = mapping.tunnelIdToHwTunnelId(tunnel);
      if (!row.found) continue;
      for (Quil::IntfId port : ports) {
        out.insert_or_assign(PortVlan{port, vlan}, EsiEntry{tunnel, row.row.hwTunnelId(),
                                                            Quil::MplsLabel(remote->label()),
                                                            Quil::MplsLabel(local->label())});
      }
    }
  }
  return out;
}

std::string esiLine(const PortVlan& key, const EsiEntry& e) {
  return findingLine(key.first, " vlan ", key.second, " ", entryText(&e));
}

EsiComparison compareEsiData(const TunnelEsiAgent& agent, Counters* allowances) {
  EsiComparison out;
  const EsiTable expected = expectedEsiData(*agent.evpnStatus, *agent.acsd, *agent.mapping);
  const EsiTable& actual = agent.chip->esiData();
  std::map<PortVlan, Holder> held;
  if (agent.floodingEsiSm) held = holders(*agent.floodingEsiSm);

  auto e = expected.begin();
  auto a = actual.begin();
  while (e != expected.end() || a != actual.end()) {
    const bool takeE = a == actual.end() || (e != expected.end() && e->first <= a->first);
    const bool takeA = e == expected.end() || (a != actual.end() && a->first <= e->first);
    const PortVlan key = takeE ? e->first : a->first;
    const EsiEntry* want = takeE ? &e->second : nullptr;
    const EsiEntry* got = takeA ? &a->second : nullptr;
    if (takeE) ++e;
    if (takeA) ++a;
    if (want && got && *want == *got) {
      out.wanted.emplace(key, *want);
      continue;
    }
    auto h = held.find(key);
    const Holder* holder = h == held.end() ? nullptr : &h->second;
    if (want && !got && holder && !holder->programmed) {
      // Refused by the chip and parked: the review retries it; until then the port is absent.
      if (allowances) ++(*allowances)["parkedPort"];
      continue;
    }
    if (got) {
      Stale stale = staleEntry(agent, key, *got, holder);
      if (stale != Stale::no) {
        if (allowances) {
          ++(*allowances)[stale == Stale::localLabel ? "staleLocalLabel" : "nonMplsRemote"];
        }
        out.wanted.emplace(key, *got);
        continue;
      }
    }
    if (want) out.wanted.emplace(key, *want);
    out.diffs.push_back(findingLine(pairText(key.first, key.second), ": expected ", entryText(want),
                                    ", actual ", entryText(got)));
  }
  return out;
}

}  // namespace Sim
