#include "sim/families/floodSet/FloodSetCheck.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "sim/ChipLink.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim {

namespace {

using Pair = Oba::MplsFloodSetVia;
using Member = std::pair<Bridging::MacVlanPair, Oba::MplsDestConfig>;
using RibMember = std::tuple<Bridging::MacVlanPair, L2Rib::Dest, bool>;

std::string line(const RibMember& m) {
  return chipText(std::get<0>(m).text().view(), " ", std::get<1>(m).text().view(),
                  std::get<2>(m) ? "" : " (false)");
}
std::string line(const Member& m) { return memberLine(m.first, m.second); }
std::string line(const std::pair<Pair, Oba::HwTunnelId>& r) {
  return chipText(r.first.tunnelId(), " label ", r.first.label(), " hwTunnelId ", r.second);
}
std::string line(const std::pair<Pair, Oba::MplsDestHwInfo>& i) {
  return hwInfoLine(i.first, i.second);
}

// The lines of what `want` has and `got` lacks, and of what `got` has beyond `want`; both sorted.
// Text is built for the differences alone: the check runs after every step.
template <class T>
std::vector<std::string> diff(std::vector<T> want, std::vector<T> got) {
  std::sort(want.begin(), want.end());
  std::sort(got.begin(), got.end());
  std::vector<std::string> out;
  if (want == got) return out;
  std::vector<T> missing, extra;
  std::set_difference(want.begin(), want.end(), got.begin(), got.end(),
                      std::back_inserter(missing));
  std::set_difference(got.begin(), got.end(), want.begin(), want.end(), std::back_inserter(extra));
  for (const auto& l : missing) out.push_back("missing: " + line(l));
  for (const auto& l : extra) out.push_back("unexpected: " + line(l));
  return out;
}

std::vector<RibMember> ribMembers(const L2Rib::FloodSetOutput& out, bool mplsOnly) {
  std::vector<RibMember> v;
  for (auto [vlan, vfs] : out.vlanFloodSetWalk()) {
    for (auto [mac, fs] : vfs->floodSetWalk()) {
      for (auto [dest, value] : fs->destSetWalk()) {
        if (mplsOnly && dest.destType() != L2Rib::destTypeMpls_) continue;
        v.emplace_back(Bridging::MacVlanPair{vlan, mac}, dest, value);
      }
    }
  }
  return v;
}

Oba::HwTunnelId hwTunnelIdOf(const FloodSetAgent& f, const Tunnel::TunnelTable::TunnelId& t) {
  auto row = f.tunnels.mapping->tunnelIdToHwTunnelId(t);
  return row.found ? row.row.hwTunnelId() : Oba::HwTunnelId();
}

}  // namespace

std::vector<std::string> expectedMplsFloodSetLines(const FloodSetAgent& f) {
  std::vector<std::string> out;
  for (const auto& m : ribMembers(*f.l2RibFloodSet, true)) out.push_back(line(m));
  std::sort(out.begin(), out.end());
  return out;
}

FloodSetModel expectedFloodSets(const FloodSetAgent& f) {
  FloodSetModel m;
  // The members the RIB floods to over MPLS: every MPLS destination it holds as a member, except
  // those without a tunnel.
  struct RibPair {
    Bridging::MacVlanPair list;
    Pair pair;
  };
  std::vector<RibPair> members;
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
    m.config[list].insert(
        Oba::MplsDestConfig(pair.tunnelId(), pair.label(), hwTunnelIdOf(f, pair.tunnelId()),
                            info->second.hwIdForTunnelProgramming(), info->second.l2IntfId()));
  }
  return m;
}

std::optional<CheckFailure> checkFloodSets(const FloodSetAgent& f, Counters* counters) {
  // The filter's output: the RIB's flood sets with every destination of another type left out
  // (a flood set left without destinations is no flood set).
  if (auto d = diff(ribMembers(*f.l2RibFloodSet, true), ribMembers(*f.mplsFloodSet, false));
      !d.empty()) {
    return CheckFailure{"mplsFloodSet", std::move(d)};
  }
  const FloodSetModel m = expectedFloodSets(f);
  // The FEC requests: one per pair that needs one, carrying the tunnel's hardware id as it is now.
  {
    std::vector<std::pair<Pair, Oba::HwTunnelId>> want, got;
    for (const auto& pair : m.requested) want.emplace_back(pair, hwTunnelIdOf(f, pair.tunnelId()));
    for (auto [fecId, req] : f.fecRequest->hwFecIdRequestWalk()) {
      auto fec = f.fecRequest->fec(fecId);
      if (!fec.found || fec.row.vias() != 1) {
        return CheckFailure{"fecRequests",
                            {chipText("a request without its FEC: ", fecId.value())}};
      }
      const auto& via = fec.row.via()[0];
      got.emplace_back(Pair(via.tunnelId(), via.mplsLabel()), req.hwTunnelId());
    }
    if (auto d = diff(want, got); !d.empty()) return CheckFailure{"fecRequests", std::move(d)};
    if (f.fecRequest->fecs() != f.fecRequest->hwFecIdRequests()) {
      for (auto [fecId, fec] : f.fecRequest->fecWalk()) {
        if (!f.fecRequest->hwFecIdRequest(fecId).found) {
          return CheckFailure{"fecRequests",
                              {chipText("a FEC left without its request: ", fecId.value())}};
        }
      }
    }
  }
  {
    std::vector<std::pair<Pair, Oba::MplsDestHwInfo>> want(m.hwInfo.begin(), m.hwInfo.end()), got;
    for (auto [via, info] : f.hwInfoMapping->mappingWalk()) got.emplace_back(via, info);
    if (auto d = diff(want, got); !d.empty()) return CheckFailure{"hwInfoMapping", std::move(d)};
  }
  std::vector<Member> configured;
  for (auto [list, c] : f.hwConfig->configWalk()) {
    for (auto [member, unused] : c->mplsDestConfigWalk()) configured.emplace_back(list, member);
  }
  {
    std::vector<Member> want;
    for (const auto& [list, members] : m.config) {
      for (const auto& c : members) want.emplace_back(list, c);
    }
    if (auto d = diff(want, configured); !d.empty()) {
      return CheckFailure{"floodListConfig", std::move(d)};
    }
  }
  // No FEC id leaks: every number the FEC machine's allocator holds belongs to a pair it knows,
  // and every such pair has a request or an answer still to let go of.
  if (f.fecSm && f.fecSm->numAllocatorStatus()) {
    const std::uint64_t held = f.fecSm->numAllocatorStatus()->allocated();
    if (held != f.fecSm->fecIdCaches()) {
      return CheckFailure{"fecIds",
                          {chipText("the allocator holds ", held, " numbers for ",
                                    std::uint64_t{f.fecSm->fecIdCaches()}, " pairs")}};
    }
    for (auto [fecId, pair] : f.fecSm->fecIdCacheWalk()) {
      if (f.fecRequest->hwFecIdRequest(fecId).found || f.fecResponse->hwFecId(fecId).found) {
        continue;
      }
      return CheckFailure{"fecIds",
                          {chipText("FEC id ", fecId.value(), " of ", pair.tunnelId(), " label ",
                                    pair.label(), " is neither requested nor answered")}};
    }
  }
  // The chip has acted on every change of the configuration: it reports every configured member
  // and nothing else, and its lists hold exactly the members it reports programmed.
  std::vector<Member> reported, programmed, listed;
  for (auto [list, s] : f.hwStatus->statusWalk()) {
    for (auto [c, rc] : s->mplsDestStatusWalk()) {
      reported.emplace_back(list, c);
      if (rc == Oba::HwProgrammingStatus::programmed) {
        programmed.emplace_back(list, c);
      } else if (counters) {
        ++(*counters)["refusedMember"];
      }
    }
  }
  if (auto d = diff(configured, reported); !d.empty()) {
    return CheckFailure{"floodListStatus", std::move(d)};
  }
  for (const auto& [list, members] : f.lists->lists()) {
    for (const auto& c : members) listed.emplace_back(list, c);
  }
  if (auto d = diff(programmed, listed); !d.empty()) {
    return CheckFailure{"floodLists", std::move(d)};
  }
  return std::nullopt;
}

}  // namespace Sim
