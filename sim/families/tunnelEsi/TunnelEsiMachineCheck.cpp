// The tunnel-id family's checks of its machines and their table: what each machine holds against
// the inputs, the mapping table against the designated forwarders and the pool, and the pool's
// balance; and every check of the family in turn.
#include <set>

#include "Oba/ObaKeys.h"
#include "sim/FamilyHelpers.h"
#include "sim/families/tunnelEsi/TunnelEsiCheck.h"

namespace Sim {

namespace {
using TunnelId = Tunnel::TunnelTable::TunnelId;
using PortVlan = TunnelEsiChip::PortVlan;
}  // namespace

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
      out.push_back(findingLine("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()),
                                " is not in intfVlanSet"));
    }
    auto tivs = sm->tunnelIntfVlanSet(tunnel);
    if (!tivs || !tivs->intfVlanHas(key)) {
      out.push_back(findingLine("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()), " -> ",
                                tunnel, " is not in tunnelIntfVlanSet"));
    }
  }
  for (auto [intf, ivs] : sm->intfVlanSetWalk()) {
    if (!ivs->vlanIds()) out.push_back(findingLine("intfVlanSet ", intf, " is empty"));
    for (auto [vlan, m] : ivs->vlanIdWalk()) {
      if (!sm->intfVlanTunnelHas(Oba::IntfVlanKey(intf, vlan))) {
        out.push_back(findingLine("intfVlanSet holds ", pairText(intf, vlan), " without a tunnel"));
      }
    }
  }
  // A tunnel's set is kept when it empties; a tunnel with users has a row or waits for one.
  for (auto [tunnel, tivs] : sm->tunnelIntfVlanSetWalk()) {
    for (auto [key, m] : tivs->intfVlanWalk()) {
      auto t = sm->intfVlanTunnel(key);
      if (!t || *t != tunnel) {
        out.push_back(findingLine("tunnelIntfVlanSet ", tunnel, " holds ",
                                  pairText(key.intfId(), key.vlanId()),
                                  ", whose tunnel is not it"));
      }
    }
    if (tivs->intfVlans() && !mapping.tunnelIdToHwTunnelId(tunnel).found &&
        !sm->unprogrammedTunnelHas(tunnel)) {
      out.push_back(findingLine(tunnel, " has users but neither a mapping row nor waits for one"));
    }
  }
  auto users = [&](const TunnelId& t) {
    auto tivs = sm->tunnelIntfVlanSet(t);
    return tivs ? tivs->intfVlans() : 0;
  };
  for (auto [tunnel, m] : sm->unprogrammedTunnelWalk()) {
    if (!users(tunnel)) out.push_back(findingLine(tunnel, " waits for an id without users"));
    if (mapping.tunnelIdToHwTunnelId(tunnel).found) {
      out.push_back(findingLine(tunnel, " waits for an id but has a mapping row"));
    }
  }
  for (auto [tunnel, row] : mapping.tunnelIdToHwTunnelIdWalk()) {
    if (!users(tunnel))
      out.push_back(findingLine("row ", row.compactString(), " of a tunnel without users"));
  }

  // It follows the inputs: every designated forwarder and nothing else.
  for (const auto& [key, tunnel] : dfs) {
    auto t = sm->intfVlanTunnel(key);
    if (!t || *t != tunnel) {
      out.push_back(findingLine(pairText(key.intfId(), key.vlanId()), ": expected tunnel ", tunnel,
                                ", holds ", t ? t->toString() : "none"));
    }
  }
  for (auto [key, tunnel] : sm->intfVlanTunnelWalk()) {
    if (!dfs.contains(key)) {
      out.push_back(findingLine(pairText(key.intfId(), key.vlanId()), ": holds tunnel ", tunnel,
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
    if (!ivs->vlanIds()) out.push_back(findingLine("intfVlanSet ", intf, " is empty"));
    for (auto [vlan, m] : ivs->vlanIdWalk()) {
      ++pairs;
      auto vis = sm->vlanIntfSet(vlan);
      if (!vis || !vis->intfIdHas(intf)) {
        out.push_back(
            findingLine("intfVlanSet holds ", pairText(intf, vlan), ", vlanIntfSet does not"));
      }
    }
  }
  std::size_t reverse = 0;
  for (auto [vlan, vis] : sm->vlanIntfSetWalk()) {
    if (!vis->intfIds()) out.push_back(findingLine("vlanIntfSet ", vlan, " is empty"));
    reverse += vis->intfIds();
  }
  if (reverse != pairs) {
    out.push_back(findingLine("vlanIntfSet holds ", reverse, " pairs, intfVlanSet ", pairs));
  }

  // intfVlanTunnel is mirrored in tunnelIntfVlanSet and intfTunnelVlanSet, both ways.
  std::size_t viaTunnel = 0, viaIntfTunnel = 0;
  for (auto [key, tunnel] : sm->intfVlanTunnelWalk()) {
    auto tivs = sm->tunnelIntfVlanSet(tunnel);
    if (!tivs || !tivs->intfVlanHas(key)) {
      out.push_back(findingLine("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()), " -> ",
                                tunnel, " is not in tunnelIntfVlanSet"));
    }
    auto itvs = sm->intfTunnelVlanSet(Oba::IntfTunnelKey(key.intfId(), tunnel));
    if (!itvs || !itvs->vlanIdHas(key.vlanId())) {
      out.push_back(findingLine("intfVlanTunnel ", pairText(key.intfId(), key.vlanId()), " -> ",
                                tunnel, " is not in intfTunnelVlanSet"));
    }
  }
  for (auto [tunnel, tivs] : sm->tunnelIntfVlanSetWalk()) {
    if (!tivs->intfVlans()) out.push_back(findingLine("tunnelIntfVlanSet ", tunnel, " is empty"));
    viaTunnel += tivs->intfVlans();
  }
  for (auto [key, itvs] : sm->intfTunnelVlanSetWalk()) {
    if (!itvs->vlanIds()) {
      out.push_back(
          findingLine("intfTunnelVlanSet ", key.intfId(), " ", key.tunnelId(), " is empty"));
    }
    viaIntfTunnel += itvs->vlanIds();
  }
  if (viaTunnel != sm->intfVlanTunnels() || viaIntfTunnel != sm->intfVlanTunnels()) {
    out.push_back(findingLine("intfVlanTunnel holds ", sm->intfVlanTunnels(),
                              " pairs, tunnelIntfVlanSet ", viaTunnel, ", intfTunnelVlanSet ",
                              viaIntfTunnel));
  }

  // A remote label is held only for the pair's current tunnel.
  for (auto [key, label] : sm->intfVlanTunnelLabelWalk()) {
    auto t = sm->intfVlanTunnel(Oba::IntfVlanKey(key.intfId(), key.vlanId()));
    if (!t || *t != key.tunnelId()) {
      out.push_back(findingLine("intfVlanTunnelLabel ", pairText(key.intfId(), key.vlanId()), " ",
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
      out.push_back(findingLine("esiStatus ", pairText(intf, vlan), " without a tunnel and label"));
    }
    if (es.unprogrammeds() && !sm->unprogrammedEsiHas(key)) {
      out.push_back(findingLine("esiStatus ", pairText(intf, vlan),
                                " has parked ports but is not in unprogrammedEsi"));
    }
    for (auto [port, m] : es.programmedWalk()) {
      if (es.unprogrammedHas(port)) {
        out.push_back(findingLine(pairText(intf, vlan), ": ", port, " is programmed and parked"));
      }
      if (!agent.chip->esiData().contains(PortVlan{port, vlan})) {
        out.push_back(findingLine(pairText(intf, vlan), ": ", port,
                                  " is held programmed but the chip has no entry"));
      }
      auto [it, fresh] = owner.try_emplace(PortVlan{port, vlan}, intf);
      if (!fresh) {
        out.push_back(
            findingLine(port, " vlan ", vlan, " is programmed by ", it->second, " and ", intf));
      }
    }
  }
  for (auto [key, m] : sm->unprogrammedEsiWalk()) {
    auto es = sm->esiStatus(key);
    if (!es || !es->unprogrammeds()) {
      out.push_back(findingLine("unprogrammedEsi ", pairText(key.intfId(), key.vlanId()),
                                " has no parked port"));
    }
  }

  // It follows the inputs: its candidate pairs are the designated forwarders.
  for (const auto& [key, tunnel] : dfs) {
    auto ivs = sm->intfVlanSet(key.intfId());
    if (!ivs || !ivs->vlanIdHas(key.vlanId())) {
      out.push_back(findingLine(pairText(key.intfId(), key.vlanId()), " is not a candidate pair"));
    }
  }
  if (pairs != dfs.size()) {
    out.push_back(findingLine(pairs, " candidate pairs, ", dfs.size(), " designated forwarders"));
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
      out.push_back(
          findingLine("row ", row.compactString(), ": no designated forwarder uses ", tunnel));
    }
    auto [it, fresh] = byId.emplace(row.hwTunnelId().value(), tunnel);
    if (!fresh) {
      out.push_back(
          findingLine("hw id ", it->first, " is in the rows of ", it->second, " and ", tunnel));
    }
  }
  std::vector<TunnelId> waiting;
  for (const TunnelId& t : inUse) {
    if (agent.mapping->tunnelIdToHwTunnelId(t).found) continue;
    if (agent.hwTunnelIdSm && agent.hwTunnelIdSm->unprogrammedTunnelHas(t)) {
      waiting.push_back(t);
    } else {
      out.push_back(findingLine(t, " is in use but has no row and does not wait for one"));
    }
  }
  if (!waiting.empty()) {
    if (std::uint32_t id = agent.chip->freeHwTunnelId()) {
      out.push_back(
          findingLine(waiting.front(), " waits for an id while the chip has id ", id, " free"));
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
      out.push_back(findingLine("hw id ", id, ": handed out ", out_, " times, released ", back,
                                " times, in ", inRows, " mapping rows"));
    }
  }
  for (const auto& [rowId, n] : rows) {
    if (rowId >= id)
      out.push_back(findingLine("hw id ", rowId, " is in a mapping row but never handed out"));
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
