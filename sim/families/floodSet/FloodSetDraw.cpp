// The MPLS flood-set family's part of the picture (--dot): each flood list (VLAN, MAC) with its
// remote members, as the VLAN flood-set machine configured them and the chip's list holds them,
// and the vias' hardware identifiers that the flood-set FEC machine published. A member the chip
// has not acted on yet, or a remote destination the RIB names that has no member yet (its via
// still waits for the chip's FEC), is pending; one the chip refused is refused; one in a hardware
// list that no configuration holds is stale.
#include <map>
#include <optional>
#include <set>

#include "sim/Dot.h"
#include "sim/families/floodSet/FloodSetAgent.h"

namespace Sim {

namespace {

using Look = DotGraph::Look;
using Bridging::MacVlanPair;
using Oba::MplsDestConfig;
using Oba::MplsFloodSetVia;

const std::string family = "floodSet";
const std::string viasBox = family + "/vias";
std::string listBox(const MacVlanPair& l) { return dotText(family, "/list/", l); }

struct Member {
  bool configured = false;
  bool inHardware = false;
  std::optional<Oba::HwProgrammingStatus> status;
};

// The vias the FEC machine published, and those the RIB's members call for that have none yet.
void drawVias(const FloodSetAgent& f, const std::set<MplsFloodSetVia>& wanted, DotGraph& g) {
  g.cluster(viasBox, "vias (tunnel, label) and the chip's identifiers for them", family);
  DotGraph::Budget b;
  std::map<MplsFloodSetVia, Oba::MplsDestHwInfo> info;
  for (auto [via, i] : f.hwInfoMapping->mappingWalk()) info.emplace(via, i);
  for (const auto& [via, i] : info) {
    if (!b.take(Look::plain)) continue;
    g.node(dotText(viasBox, "/", via.tunnelId(), "/", via.label()),
           dotText(via.tunnelId(), " label ", via.label(), "\nhwId ", i.hwIdForTunnelProgramming(),
                   "\n", i.l2IntfId()),
           {.cluster = viasBox});
  }
  for (const auto& via : wanted) {
    if (info.contains(via) || !b.take(Look::pending)) continue;
    g.node(dotText(viasBox, "/", via.tunnelId(), "/", via.label()),
           dotText(via.tunnelId(), " label ", via.label(), "\nno hardware ids yet"),
           {.look = Look::pending, .cluster = viasBox});
  }
  g.summarise(b, viasBox, "vias");
}

}  // namespace

void drawFloodSets(const FloodSetAgent& f, DotGraph& g) {
  g.cluster(family, "MPLS flood sets and the chip's flood lists");

  // What the RIB's MPLS-only flood sets name: per list, its remote (tunnel, label) pairs.
  std::map<MacVlanPair, std::set<MplsFloodSetVia>> wanted;
  std::set<MplsFloodSetVia> wantedVias;
  for (auto [vlan, v] : f.mplsFloodSet->vlanFloodSetWalk()) {
    for (auto [mac, fs] : v->floodSetWalk()) {
      for (auto [dest, value] : fs->destSetWalk()) {
        if (dest.destType() != L2Rib::destTypeMpls_) continue;
        MplsFloodSetVia via(dest.tunnelId(), dest.label());
        wanted[MacVlanPair{vlan, mac}].insert(via);
        wantedVias.insert(via);
      }
    }
  }
  drawVias(f, wantedVias, g);

  // Every member, configured or in the hardware, with the chip's report on it.
  std::map<MacVlanPair, std::map<MplsDestConfig, Member>> lists;
  for (auto [list, c] : f.hwConfig->configWalk()) {
    for (auto [m, unused] : c->mplsDestConfigWalk()) lists[list][m].configured = true;
  }
  for (const auto& [list, members] : f.lists->lists()) {
    for (const auto& m : members) lists[list][m].inHardware = true;
  }
  for (auto& [list, members] : lists) {
    auto s = f.hwStatus->status(list);
    for (auto& [m, member] : members) {
      if (s) member.status = s->mplsDestStatus(m);
    }
  }
  for (const auto& [list, pairs] : wanted) lists[list];

  DotGraph::Budget b;
  for (const auto& entry : lists) {
    // Named rather than bound: the box's lambda below captures the list.
    const MacVlanPair& list = entry.first;
    const auto& members = entry.second;
    // A list's box is made with its first drawn member: a summarised list draws no empty box.
    bool boxed = false;
    auto box = [&] {
      if (!boxed) {
        g.cluster(listBox(list), dotText("flood list VLAN ", list.vlanId, ", ", list.macAddr),
                  family);
      }
      boxed = true;
      return listBox(list);
    };
    std::set<MplsFloodSetVia> served;
    for (const auto& [m, member] : members) {
      std::string label = dotText(m.tunnelId(), " label ", m.label(), "\nhwTunnelId ",
                                  m.hwTunnelId(), " hwId ", m.hwIdForTunnelProgramming());
      Look look = Look::plain;
      if (!member.configured) {
        label += "\nin the hardware list, configured by nobody";
        look = Look::stale;
      } else if (member.status && *member.status != Oba::HwProgrammingStatus::programmed) {
        label += dotText("\nrefused: ", Oba::toString(*member.status));
        look = Look::refused;
      } else if (!member.inHardware) {
        label += "\nnot in the hardware list yet";
        look = Look::pending;
      }
      if (member.configured) served.insert(MplsFloodSetVia(m.tunnelId(), m.label()));
      if (!b.take(look)) continue;
      g.node(dotText(listBox(list), "/", m.tunnelId(), "/", m.label(), "/",
                     m.hwIdForTunnelProgramming()),
             label, {.look = look, .cluster = box()});
    }
    // Remote destinations with no member yet: their via waits for its hardware ids.
    if (auto w = wanted.find(list); w != wanted.end()) {
      for (const auto& via : w->second) {
        if (served.contains(via) || !b.take(Look::pending)) continue;
        g.node(dotText(listBox(list), "/", via.tunnelId(), "/", via.label()),
               dotText(via.tunnelId(), " label ", via.label(), "\nno member yet"),
               {.look = Look::pending, .cluster = box()});
      }
    }
  }
  g.summarise(b, family, "flood-list members");
}

}  // namespace Sim
