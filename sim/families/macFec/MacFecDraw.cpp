// The MAC-address FEC family's part of the picture (--dot): each host to the head of its chain,
// the FECs the machine defined with their vias (a via through another object's FEC is an edge to
// it) and the hardware FEC id the chip answered. A request waiting for its answer is pending, one
// the chip cannot serve (refused, or no id free) refused; a result row whose answer is gone and an
// answer whose request is gone are stale.
#include <map>

#include "sim/Dot.h"
#include "sim/families/macFec/MacFecAgent.h"
#include "sim/families/macFec/MacFecCheck.h"

namespace Sim {

namespace {

using Look = DotGraph::Look;
using Shape = DotGraph::Shape;
using L2Rib::ObjTuple;
using Shoal::Fib::FecId;

const std::string family = "macFec";
const std::string hostsBox = family + "/hosts";
const std::string fecsBox = family + "/fecs";
std::string fecNode(const ObjTuple& t) { return dotText(fecsBox, "/", t); }
std::string hostNode(const Bridging::MacVlanPair& h) {
  return dotText(hostsBox, "/", h.vlanId, "/", h.macAddr);
}

// The FECs: one node per object with a FEC id, in the look of its request's state.
void drawFecs(const MacFecAgent& f, const std::map<ObjTuple, FecId>& fecIdOf,
              const std::map<ObjTuple, std::uint64_t>& result, DotGraph& g) {
  const auto own = owners(*f.request);
  DotGraph::Budget b;
  for (const auto& [t, id] : fecIdOf) {
    std::string label = dotText(t, "\n", id);
    auto fec = f.request->fec(id);
    if (fec.found) {
      for (const auto& v : fec.row.via()) {
        // A via through a drawn FEC is an edge; the others are lines of the label.
        if (v.fecId().value() == 0 || !own.contains(v.fecId())) label += "\n" + viaText(v, own);
      }
    } else {
      label += "\nno FEC defined";
    }
    Look look = Look::plain;
    if (!f.request->hwFecIdRequest(id).found) {
      label += "\ninside a chain: no hardware id asked";
    } else if (const std::uint32_t hw = f.chip->hwFecIdOf(f.writer, id)) {
      label += dotText("\nhw FEC id ", hw);
      auto r = result.find(t);
      if (r == result.end() || r->second != hw) {
        label += "\nnot yet in the result";
        look = Look::pending;
      }
    } else if (f.chip->waits(f.writer, id)) {
      label += "\nno hardware FEC id: refused or none free\nasked again by the chip";
      look = Look::refused;
    } else {
      label += "\nwaiting for the chip's answer";
      look = Look::pending;
    }
    if (b.take(look)) g.node(fecNode(t), label, {.look = look, .cluster = fecsBox});
  }
  g.summarise(b, fecsBox, "FECs");
  // The chains: an edge per via through another drawn object's FEC.
  for (const auto& [t, id] : fecIdOf) {
    auto fec = f.request->fec(id);
    if (!fec.found || !g.hasNode(fecNode(t))) continue;
    for (const auto& v : fec.row.via()) {
      auto o = own.find(v.fecId());
      if (v.fecId().value() == 0 || o == own.end() || !g.hasNode(fecNode(o->second))) continue;
      g.edge(fecNode(t), fecNode(o->second),
             dotText("via ", v.index().value(), " label ", v.mplsLabel()));
    }
  }
}

}  // namespace

void drawMacFec(const MacFecAgent& f, DotGraph& g) {
  g.cluster(family, "MAC-address FECs and the chip's FEC table");
  g.cluster(hostsBox, "hosts (VLAN/MAC) and the head of their chain", family);
  g.cluster(fecsBox, "FECs, their vias and hardware FEC ids", family);
  std::map<ObjTuple, FecId> fecIdOf;
  for (auto&& e : f.request->objTupleToFecIdWalk()) fecIdOf.emplace(e.key, e.value.fecId());
  std::map<ObjTuple, std::uint64_t> result;
  for (auto&& e : f.result->hwIdWalk()) result.emplace(e.key, e.value);
  drawFecs(f, fecIdOf, result, g);

  // Heads the RIB calls for that have no FEC yet.
  const MacFecExpected want =
      expectedMacFecs(*f.labels, *f.lbs, *f.dests, *f.hosts, f.maxChainLength());
  DotGraph::Budget b;
  for (const ObjTuple& t : want.heads) {
    if (fecIdOf.contains(t) || want.absentHeads.contains(t) || !b.take(Look::pending)) continue;
    g.node(fecNode(t), dotText(t, "\nno FEC yet"), {.look = Look::pending, .cluster = fecsBox});
  }

  // Hosts, each to its head.
  std::map<std::pair<Bridging::VlanId, Quil::EthAddr>, ObjTuple> hosts;
  for (auto&& e : f.hosts->hostWalk()) {
    hosts.emplace(std::pair(e.key.vlanId, e.key.macAddr), e.value.objTuple());
  }
  for (const auto& [key, head] : hosts) {
    const Bridging::MacVlanPair h{key.first, key.second};
    // A head whose FEC is not drawn (none yet, or summarised) is named in the host.
    if (!b.take(Look::plain)) continue;
    const bool drawn = g.hasNode(fecNode(head));
    g.node(hostNode(h),
           drawn ? dotText("VLAN ", h.vlanId, "\n", h.macAddr)
                 : dotText("VLAN ", h.vlanId, "\n", h.macAddr, "\nto ", head),
           {.shape = Shape::ellipse, .cluster = hostsBox});
    if (drawn) g.edge(hostNode(h), fecNode(head));
  }
  g.summarise(b, hostsBox, "hosts");

  // Result rows the check calls stale, and answers whose request is gone.
  DotGraph::Budget stale;
  for (const auto& [t, hw] : result) {
    if (answeredHwFecId(f, want, fecIdOf, t) != 0 || !stale.take(Look::stale)) continue;
    g.node(dotText(family, "/result/", t),
           dotText("result ", t, " -> hw ", hw, "\nno answer behind it"),
           {.look = Look::stale, .cluster = family});
  }
  for (const auto& [hw, answer] : f.chip->answers()) {
    if (std::string_view(answer.writer) != f.writer) continue;
    if (f.request->hwFecIdRequest(answer.fecId).found || !stale.take(Look::stale)) continue;
    g.node(dotText(family, "/chip/", hw),
           dotText("hw FEC id ", hw, "\n", answer.fecId, "\nno request"),
           {.look = Look::stale, .cluster = family});
  }
  g.summarise(stale, family, "results and answers");
}

}  // namespace Sim
