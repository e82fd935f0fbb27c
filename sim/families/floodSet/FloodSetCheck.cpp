#include "sim/families/floodSet/FloodSetCheck.h"

#include <algorithm>
#include <map>
#include <set>

#include "sim/ChipLink.h"
#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

namespace Sim {

namespace {

// Lines of `want` missing from `got` and lines of `got` not wanted, each said once.
std::vector<std::string> diff(std::vector<std::string> want, std::vector<std::string> got) {
  std::sort(want.begin(), want.end());
  std::sort(got.begin(), got.end());
  std::vector<std::string> out;
  std::vector<std::string> missing, extra;
  std::set_difference(want.begin(), want.end(), got.begin(), got.end(),
                      std::back_inserter(missing));
  std::set_difference(got.begin(), got.end(), want.begin(), want.end(), std::back_inserter(extra));
  for (auto& l : missing) out.push_back("missing: " + l);
  for (auto& l : extra) out.push_back("unexpected: " + l);
  return out;
}

}  // namespace

std::vector<std::string> expectedMplsFloodSetLines(const FloodSetAgent& f) {
  // The RIB's flood sets with every destination of another type left out; a flood set left
  // without destinations is no flood set.
  std::vector<std::string> out;
  for (auto [vlan, v] : f.l2RibFloodSet->vlanFloodSetWalk()) {
    for (auto [mac, fs] : v->floodSetWalk()) {
      for (auto [dest, value] : fs->destSetWalk()) {
        if (dest.destType() != L2Rib::destTypeMpls_) continue;
        out.push_back(chipText(Bridging::MacVlanPair{vlan, mac}.text().view(), " ",
                               dest.text().view(), value ? "" : " (false)"));
      }
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

FloodSetModel expectedFloodSets(const FloodSetAgent& f) {
  FloodSetModel m;
  using Pair = Oba::MplsFloodSetVia;
  // The members the RIB floods to over MPLS: every MPLS destination it holds as a member, except
  // those without a tunnel.
  struct Member {
    Bridging::MacVlanPair list;
    Pair pair;
  };
  std::vector<Member> members;
  for (auto [vlan, v] : f.l2RibFloodSet->vlanFloodSetWalk()) {
    for (auto [mac, fs] : v->floodSetWalk()) {
      for (auto [dest, value] : fs->destSetWalk()) {
        if (dest.destType() != L2Rib::destTypeMpls_ || !value) continue;
        if (dest.tunnelId() == Tunnel::TunnelTable::TunnelId::invalid()) continue;
        members.push_back({Bridging::MacVlanPair{vlan, mac}, Pair(dest.tunnelId(), dest.label())});
        m.requested.insert(members.back().pair);
      }
    }
  }
  // A pair keeps its FEC while the chip still reports a member of it programmed somewhere.
  for (auto [list, s] : f.hwStatus->statusWalk()) {
    for (auto [c, rc] : s->mplsDestStatusWalk()) {
      if (rc == Oba::HwProgrammingStatus::programmed) {
        m.requested.insert(Pair(c.tunnelId(), c.label()));
      }
    }
  }
  // A requested pair has its hardware identifiers once the chip answered its FEC with a layer-2
  // interface.
  for (auto [fecId, req] : f.fecRequest->hwFecIdRequestWalk()) {
    auto fec = f.fecRequest->fec(fecId);
    if (!fec.found || fec.row.vias() != 1) continue;
    const auto& via = fec.row.via()[0];
    const Pair pair(via.tunnelId(), via.mplsLabel());
    auto hw = f.fecResponse->hwFecId(fecId);
    auto l2 = f.fecResponse->l2IntfId(fecId);
    if (!hw.found || !l2.found || l2.row == Quil::IntfId()) continue;
    m.hwInfo.emplace(pair, Oba::MplsDestHwInfo(hw.row.hwFecId(), l2.row));
  }
  for (const auto& [list, pair] : members) {
    auto info = m.hwInfo.find(pair);
    if (info == m.hwInfo.end()) continue;
    auto row = f.tunnels.mapping->tunnelIdToHwTunnelId(pair.tunnelId());
    const Oba::HwTunnelId hwTunnel = row.found ? row.row.hwTunnelId() : Oba::HwTunnelId();
    m.config[list].insert(Oba::MplsDestConfig(pair.tunnelId(), pair.label(), hwTunnel,
                                              info->second.hwIdForTunnelProgramming(),
                                              info->second.l2IntfId()));
  }
  return m;
}

std::optional<CheckFailure> checkFloodSets(const FloodSetAgent& f, Counters* counters) {
  if (auto d = diff(expectedMplsFloodSetLines(f), f.mplsFloodSetLines()); !d.empty()) {
    return CheckFailure{"mplsFloodSet", std::move(d)};
  }
  const FloodSetModel m = expectedFloodSets(f);
  // The FEC requests: one per pair that needs one, for the pair's tunnel as its hardware id is now.
  {
    std::vector<std::string> want, got;
    for (const auto& pair : m.requested) {
      auto row = f.tunnels.mapping->tunnelIdToHwTunnelId(pair.tunnelId());
      want.push_back(chipText(pair.tunnelId(), " label ", pair.label(), " hwTunnelId ",
                              row.found ? row.row.hwTunnelId() : Oba::HwTunnelId()));
    }
    for (auto [fecId, req] : f.fecRequest->hwFecIdRequestWalk()) {
      auto fec = f.fecRequest->fec(fecId);
      if (!fec.found || fec.row.vias() != 1) {
        got.push_back("a request without its FEC");
        continue;
      }
      const auto& via = fec.row.via()[0];
      got.push_back(
          chipText(via.tunnelId(), " label ", via.mplsLabel(), " hwTunnelId ", req.hwTunnelId()));
    }
    if (auto d = diff(want, got); !d.empty()) return CheckFailure{"fecRequests", std::move(d)};
  }
  {
    std::vector<std::string> want;
    for (const auto& [pair, info] : m.hwInfo) want.push_back(hwInfoLine(pair, info));
    if (auto d = diff(want, f.hwInfoLines()); !d.empty()) {
      return CheckFailure{"hwInfoMapping", std::move(d)};
    }
  }
  {
    std::vector<std::string> want;
    for (const auto& [list, members] : m.config) {
      for (const auto& c : members) want.push_back(memberLine(list, c));
    }
    if (auto d = diff(want, f.configLines()); !d.empty()) {
      return CheckFailure{"floodListConfig", std::move(d)};
    }
  }
  // The chip has acted on every change of the configuration: it reports every configured member
  // and nothing else, and its lists hold exactly the members it reports programmed.
  std::vector<std::string> reported, programmed;
  for (auto [list, s] : f.hwStatus->statusWalk()) {
    for (auto [c, rc] : s->mplsDestStatusWalk()) {
      reported.push_back(memberLine(list, c));
      if (rc == Oba::HwProgrammingStatus::programmed) {
        programmed.push_back(memberLine(list, c));
      } else if (counters) {
        ++(*counters)["refusedMember"];
      }
    }
  }
  if (auto d = diff(f.configLines(), reported); !d.empty()) {
    return CheckFailure{"floodListStatus", std::move(d)};
  }
  if (auto d = diff(programmed, f.listLines()); !d.empty()) {
    return CheckFailure{"floodLists", std::move(d)};
  }
  return std::nullopt;
}

}  // namespace Sim
