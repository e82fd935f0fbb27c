#include "sim/families/tunnelEsi/TunnelEsiCheck.h"

#include <set>
#include <sstream>

#include "Oba/ObaKeys.h"
#include "Quil/IntfId.h"
#include "Tunnel/TunnelId.h"

namespace Sim {

namespace {

using TunnelId = Tunnel::TunnelTable::TunnelId;
using PortVlan = TunnelEsiChip::PortVlan;
using EsiEntry = TunnelEsiChip::EsiEntry;

TunnelId tunnelOf(Quil::IntfId tep) { return TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)); }

// A line of findings, built from its pieces.
template <class... Args>
std::string line(const Args&... args) {
  std::ostringstream os;
  (os << ... << args);
  return os.str();
}

std::string pairText(Quil::IntfId intf, Bridging::VlanId vlan) {
  return line(intf, " vlan ", vlan);
}

std::string entryText(const EsiEntry* e) {
  if (!e) return "none";
  return line("tunnel ", e->tunnel, " hw ", e->hw.value(), " label ", e->label, " local ",
              e->localLabel);
}

// The hardware id of a tunnel's row, or 0.
std::uint32_t rowOf(const Oba::TunnelIdToHwTunnelIdMapping& mapping, const TunnelId& tunnel) {
  auto row = mapping.tunnelIdToHwTunnelId(tunnel);
  return row.found ? row.row.hwTunnelId().value() : 0;
}

// The (interface, VLAN) -> tunnel pairs the inputs name: every designated forwarder of every
// segment present.
std::map<Oba::IntfVlanKey, TunnelId> designatedForwarders(const Evpn::EvpnStatus& evpnStatus) {
  std::map<Oba::IntfVlanKey, TunnelId> out;
  for (auto [intf, ess] : evpnStatus.segmentStatusWalk()) {
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) {
      out.emplace(Oba::IntfVlanKey(intf, vlan), tunnelOf(tep));
    }
  }
  return out;
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
  return line(key.first, " vlan ", key.second, " ", entryText(&e));
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
    out.diffs.push_back(line(pairText(key.first, key.second), ": expected ", entryText(want),
                             ", actual ", entryText(got)));
  }
  return out;
}

namespace {
using Dfs = std::map<Oba::IntfVlanKey, TunnelId>;

std::vector<std::string> checkHwTunnelIdSm(const TunnelEsiAgent& agent, const Dfs& dfs) {
  std::vector<std::string> out;
  const auto& sm = agent.hwTunnelIdSm;
  if (!sm) return {"the machine is not running"};
  const auto& mapping = *agent.mapping;

  // Mirrored relations: intfVlanTunnel <-> intfVlanSet and tunnelIntfVlanSet.
  for (auto [key, tunnel] : sm->intfVlanTunnelWalk()) {
    auto ivs = sm->intfVlanSet(key.intfId());
    if (!ivs || !ivs->vlanIdHas(key.vlanId())) {
      out.push_back(
          line("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()), " is not in intfVlanSet"));
    }
    auto tivs = sm->tunnelIntfVlanSet(tunnel);
    if (!tivs || !tivs->intfVlanHas(key)) {
      out.push_back(line("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()), " -> ", tunnel,
                         " is not in tunnelIntfVlanSet"));
    }
  }
  for (auto [intf, ivs] : sm->intfVlanSetWalk()) {
    if (!ivs->vlanIds()) out.push_back(line("intfVlanSet ", intf, " is empty"));
    for (auto [vlan, m] : ivs->vlanIdWalk()) {
      if (!sm->intfVlanTunnelHas(Oba::IntfVlanKey(intf, vlan))) {
        out.push_back(line("intfVlanSet holds ", pairText(intf, vlan), " without a tunnel"));
      }
    }
  }
  // A tunnel's set is kept when it empties; a tunnel with users has a row or waits for one.
  for (auto [tunnel, tivs] : sm->tunnelIntfVlanSetWalk()) {
    for (auto [key, m] : tivs->intfVlanWalk()) {
      auto t = sm->intfVlanTunnel(key);
      if (!t || *t != tunnel) {
        out.push_back(line("tunnelIntfVlanSet ", tunnel, " holds ",
                           pairText(key.intfId(), key.vlanId()), ", whose tunnel is not it"));
      }
    }
    if (tivs->intfVlans() && !mapping.tunnelIdToHwTunnelId(tunnel).found &&
        !sm->unprogrammedTunnelHas(tunnel)) {
      out.push_back(line(tunnel, " has users but neither a mapping row nor waits for one"));
    }
  }
  auto users = [&](const TunnelId& t) {
    auto tivs = sm->tunnelIntfVlanSet(t);
    return tivs ? tivs->intfVlans() : 0;
  };
  for (auto [tunnel, m] : sm->unprogrammedTunnelWalk()) {
    if (!users(tunnel)) out.push_back(line(tunnel, " waits for an id without users"));
    if (mapping.tunnelIdToHwTunnelId(tunnel).found) {
      out.push_back(line(tunnel, " waits for an id but has a mapping row"));
    }
  }
  for (auto [tunnel, row] : mapping.tunnelIdToHwTunnelIdWalk()) {
    if (!users(tunnel))
      out.push_back(line("row ", row.compactString(), " of a tunnel without users"));
  }

  // It follows the inputs: every designated forwarder and nothing else.
  for (const auto& [key, tunnel] : dfs) {
    auto t = sm->intfVlanTunnel(key);
    if (!t || *t != tunnel) {
      out.push_back(line(pairText(key.intfId(), key.vlanId()), ": expected tunnel ", tunnel,
                         ", holds ", t ? t->toString() : "none"));
    }
  }
  for (auto [key, tunnel] : sm->intfVlanTunnelWalk()) {
    if (!dfs.contains(key)) {
      out.push_back(line(pairText(key.intfId(), key.vlanId()), ": holds tunnel ", tunnel,
                         ", but no designated forwarder is set"));
    }
  }
  return out;
}

std::vector<std::string> checkFloodingEsiSm(const TunnelEsiAgent& agent, const Dfs& dfs) {
  std::vector<std::string> out;
  const auto& sm = agent.floodingEsiSm;
  if (!sm) return {"the machine is not running"};

  // intfVlanSet and vlanIntfSet hold the same pairs, and no set is left empty.
  std::size_t pairs = 0;
  for (auto [intf, ivs] : sm->intfVlanSetWalk()) {
    if (!ivs->vlanIds()) out.push_back(line("intfVlanSet ", intf, " is empty"));
    for (auto [vlan, m] : ivs->vlanIdWalk()) {
      ++pairs;
      auto vis = sm->vlanIntfSet(vlan);
      if (!vis || !vis->intfIdHas(intf)) {
        out.push_back(line("intfVlanSet holds ", pairText(intf, vlan), ", vlanIntfSet does not"));
      }
    }
  }
  std::size_t reverse = 0;
  for (auto [vlan, vis] : sm->vlanIntfSetWalk()) {
    if (!vis->intfIds()) out.push_back(line("vlanIntfSet ", vlan, " is empty"));
    reverse += vis->intfIds();
  }
  if (reverse != pairs) {
    out.push_back(line("vlanIntfSet holds ", reverse, " pairs, intfVlanSet ", pairs));
  }

  // intfVlanTunnel is mirrored in tunnelIntfVlanSet and intfTunnelVlanSet, both ways.
  std::size_t viaTunnel = 0, viaIntfTunnel = 0;
  for (auto [key, tunnel] : sm->intfVlanTunnelWalk()) {
    auto tivs = sm->tunnelIntfVlanSet(tunnel);
    if (!tivs || !tivs->intfVlanHas(key)) {
      out.push_back(line("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()), " -> ", tunnel,
                         " is not in tunnelIntfVlanSet"));
    }
    auto itvs = sm->intfTunnelVlanSet(Oba::IntfTunnelKey(key.intfId(), tunnel));
    if (!itvs || !itvs->vlanIdHas(key.vlanId())) {
      out.push_back(line("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()), " -> ", tunnel,
                         " is not in intfTunnelVlanSet"));
    }
  }
  for (auto [tunnel, tivs] : sm->tunnelIntfVlanSetWalk()) {
    if (!tivs->intfVlans()) out.push_back(line("tunnelIntfVlanSet ", tunnel, " is empty"));
    viaTunnel += tivs->intfVlans();
  }
  for (auto [key, itvs] : sm->intfTunnelVlanSetWalk()) {
    if (!itvs->vlanIds()) {
      out.push_back(line("intfTunnelVlanSet ", key.intfId(), " ", key.tunnelId(), " is empty"));
    }
    viaIntfTunnel += itvs->vlanIds();
  }
  if (viaTunnel != sm->intfVlanTunnels() || viaIntfTunnel != sm->intfVlanTunnels()) {
    out.push_back(line("intfVlanTunnel holds ", sm->intfVlanTunnels(), " pairs, tunnelIntfVlanSet ",
                       viaTunnel, ", intfTunnelVlanSet ", viaIntfTunnel));
  }

  // A remote label is held only for the pair's current tunnel.
  for (auto [key, label] : sm->intfVlanTunnelLabelWalk()) {
    auto t = sm->intfVlanTunnel(Oba::IntfVlanKey(key.intfId(), key.vlanId()));
    if (!t || *t != key.tunnelId()) {
      out.push_back(line("intfVlanTunnelLabel ", pairText(key.intfId(), key.vlanId()), " ",
                         key.tunnelId(), " without that tunnel in intfVlanTunnel"));
    }
  }

  // Port bookkeeping: a pair with ports has its tunnel and label; a port is programmed or parked,
  // not both; parked ports and unprogrammedEsi agree; what is programmed is in the chip, and a
  // physical port and VLAN belong to one pair only.
  std::map<PortVlan, Quil::IntfId> owner;
  for (auto [key, es] : sm->esiStatusWalk()) {
    const auto [intf, vlan] = std::pair(key.intfId(), key.vlanId());
    auto t = sm->intfVlanTunnel(key);
    if (!t || !sm->intfVlanTunnelLabelHas(Oba::IntfVlanTunnelKey(intf, vlan, *t))) {
      out.push_back(line("esiStatus ", pairText(intf, vlan), " without a tunnel and label"));
    }
    if (es.unprogrammeds() && !sm->unprogrammedEsiHas(key)) {
      out.push_back(line("esiStatus ", pairText(intf, vlan),
                         " has parked ports but is not in unprogrammedEsi"));
    }
    for (auto [port, m] : es.programmedWalk()) {
      if (es.unprogrammedHas(port)) {
        out.push_back(line(pairText(intf, vlan), ": ", port, " is programmed and parked"));
      }
      if (!agent.chip->esiData().contains(PortVlan{port, vlan})) {
        out.push_back(line(pairText(intf, vlan), ": ", port,
                           " is held programmed but the chip has no entry"));
      }
      auto [it, fresh] = owner.try_emplace(PortVlan{port, vlan}, intf);
      if (!fresh) {
        out.push_back(line(port, " vlan ", vlan, " is programmed by ", it->second, " and ", intf));
      }
    }
  }
  for (auto [key, m] : sm->unprogrammedEsiWalk()) {
    auto es = sm->esiStatus(key);
    if (!es || !es->unprogrammeds()) {
      out.push_back(
          line("unprogrammedEsi ", pairText(key.intfId(), key.vlanId()), " has no parked port"));
    }
  }

  // It follows the inputs: its candidate pairs are the designated forwarders.
  for (const auto& [key, tunnel] : dfs) {
    auto ivs = sm->intfVlanSet(key.intfId());
    if (!ivs || !ivs->vlanIdHas(key.vlanId())) {
      out.push_back(line(pairText(key.intfId(), key.vlanId()), " is not a candidate pair"));
    }
  }
  if (pairs != dfs.size()) {
    out.push_back(line(pairs, " candidate pairs, ", dfs.size(), " designated forwarders"));
  }
  return out;
}

std::vector<std::string> checkMapping(const TunnelEsiAgent& agent, const Dfs& dfs) {
  std::vector<std::string> out;
  std::set<TunnelId> inUse;
  for (const auto& [key, tunnel] : dfs) inUse.insert(tunnel);
  std::map<std::uint32_t, TunnelId> byId;
  for (auto [tunnel, row] : agent.mapping->tunnelIdToHwTunnelIdWalk()) {
    if (!inUse.contains(tunnel)) {
      out.push_back(line("row ", row.compactString(), ": no designated forwarder uses ", tunnel));
    }
    auto [it, fresh] = byId.emplace(row.hwTunnelId().value(), tunnel);
    if (!fresh) {
      out.push_back(line("hw id ", it->first, " is in the rows of ", it->second, " and ", tunnel));
    }
  }
  std::vector<TunnelId> waiting;
  for (const TunnelId& t : inUse) {
    if (agent.mapping->tunnelIdToHwTunnelId(t).found) continue;
    if (agent.hwTunnelIdSm && agent.hwTunnelIdSm->unprogrammedTunnelHas(t)) {
      waiting.push_back(t);
    } else {
      out.push_back(line(t, " is in use but has no row and does not wait for one"));
    }
  }
  if (!waiting.empty()) {
    if (std::uint32_t id = agent.chip->freeHwTunnelId()) {
      out.push_back(line(waiting.front(), " waits for an id while the chip has id ", id, " free"));
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> checkHwTunnelIdSm(const TunnelEsiAgent& agent) {
  return checkHwTunnelIdSm(agent, designatedForwarders(*agent.evpnStatus));
}

std::vector<std::string> checkFloodingEsiSm(const TunnelEsiAgent& agent) {
  return checkFloodingEsiSm(agent, designatedForwarders(*agent.evpnStatus));
}

std::vector<std::string> checkMapping(const TunnelEsiAgent& agent) {
  return checkMapping(agent, designatedForwarders(*agent.evpnStatus));
}

std::vector<std::string> checkHwTunnelIdLedger(const TunnelEsiAgent& agent) {
  std::vector<std::string> out;
  const TunnelEsiChip& chip = *agent.chip;
  std::map<std::uint32_t, int> rows;
  for (auto [tunnel, row] : agent.mapping->tunnelIdToHwTunnelIdWalk()) {
    ++rows[row.hwTunnelId().value()];
  }
  // The chip hands out the lowest free id, so the ids ever handed out are 1..n without a gap.
  std::uint32_t id = 1;
  for (; chip.handedOutCount(id) > 0; ++id) {
    const std::uint64_t out_ = chip.handedOutCount(id), back = chip.releasedCount(id);
    auto r = rows.find(id);
    const int inRows = r == rows.end() ? 0 : r->second;
    if (out_ != back + static_cast<std::uint64_t>(inRows) || inRows > 1) {
      out.push_back(line("hw id ", id, ": handed out ", out_, " times, released ", back,
                         " times, in ", inRows, " mapping rows"));
    }
  }
  for (const auto& [rowId, n] : rows) {
    if (rowId >= id)
      out.push_back(line("hw id ", rowId, " is in a mapping row but never handed out"));
  }
  return out;
}

std::optional<CheckFailure> checkTunnelEsi(const TunnelEsiAgent& agent, Counters* allowances) {
  const Dfs dfs = designatedForwarders(*agent.evpnStatus);
  if (auto l = checkHwTunnelIdSm(agent, dfs); !l.empty()) {
    return CheckFailure{"hwTunnelId machine", std::move(l)};
  }
  if (auto l = checkFloodingEsiSm(agent, dfs); !l.empty()) {
    return CheckFailure{"floodingEsi machine", std::move(l)};
  }
  if (auto l = checkMapping(agent, dfs); !l.empty()) return CheckFailure{"mapping", std::move(l)};
  if (auto c = compareEsiData(agent, allowances); !c.diffs.empty()) {
    return CheckFailure{"esiData", std::move(c.diffs)};
  }
  return std::nullopt;
}

}  // namespace Sim
