// The dot1q and decapsulation family's part of the picture (--dot): per port its VLAN to dot1q
// tag mappings, and per label route with an Ethernet-segment filter via its ESI port map. What
// the machines hold as not done yet is pending, what the chip refused (a refused port, a route
// parked with its reason) is refused, and what the chip holds that no machine does is stale.
#include <map>
#include <set>

#include "sim/Dot.h"
#include "sim/families/dot1qDecap/Dot1qDecapAgent.h"
#include "sim/families/dot1qDecap/Dot1qDecapCheck.h"

namespace Sim {

namespace {

using Look = DotGraph::Look;
using Shape = DotGraph::Shape;
using PortVlan = Dot1qDecapChip::PortVlan;

const std::string family = "dot1qDecap";
const std::string dot1qBox = family + "/dot1q";
const std::string routesBox = family + "/routes";
std::string portBox(Quil::IntfId port) { return dotText(dot1qBox, "/port/", port); }
std::string mappingNode(Quil::IntfId port, Bridging::VlanId vlan) {
  return dotText(portBox(port), "/", vlan);
}
std::string routeNode(Quil::MplsLabel label) { return dotText(routesBox, "/route/", label); }
std::string portMapNode(Quil::MplsLabel label) { return dotText(routesBox, "/portMap/", label); }

// A (port, VLAN) mapping in the port's box, when its look has room.
void mapping(DotGraph& g, DotGraph::Budget& b, Quil::IntfId port, Bridging::VlanId vlan,
             std::string label, Look look) {
  if (!b.take(look)) return;
  g.cluster(portBox(port), dotText("port ", port), dot1qBox);
  g.node(mappingNode(port, vlan), dotText("VLAN ", vlan, " -> ", label),
         {.look = look, .cluster = portBox(port)});
}

void drawDot1q(const Dot1qDecapAgent& f, DotGraph& g) {
  g.cluster(dot1qBox, "VLAN to dot1q tag mappings, per port", family);
  DotGraph::Budget b;
  std::set<PortVlan> drawn;
  const auto& chip = f.chip->dot1q();
  if (const auto& sm = f.floodingDot1qSm) {
    std::map<PortVlan, Oba::IntfVlanStatus> statuses;
    for (auto [key, status] : sm->dot1qStatusWalk()) {
      statuses.emplace(PortVlan(key.intfId(), key.vlanId()), status);
    }
    for (const auto& [key, status] : statuses) {
      const Bridging::VlanId vlan = key.second;
      const auto tag = sm->intfVlanDot1q(Oba::IntfVlanKey(key.first, vlan));
      for (auto [port, on] : status.unprogrammedWalk()) {
        drawn.emplace(port, vlan);
        mapping(g, b, port, vlan,
                dotText("dot1q ", tag ? dotText(*tag) : "?",
                        "\nrefused by the chip\nretried by the review"),
                Look::refused);
      }
      for (auto [port, on] : status.programmedWalk()) {
        drawn.emplace(port, vlan);
        auto e = chip.find({port, vlan});
        if (e == chip.end()) {
          mapping(g, b, port, vlan, "?\nheld as programmed\nnot in the chip", Look::refused);
        } else {
          mapping(g, b, port, vlan, dotText("dot1q ", e->second), Look::plain);
        }
      }
    }
    // Pairs waiting for the review's decision: an interface (a LAG for its members) and a VLAN.
    for (auto [key, on] : sm->intfVlanQueueWalk()) {
      mapping(g, b, key.intfId(), key.vlanId(), "?\nwaiting for a decision", Look::pending);
    }
  }
  for (const auto& [key, tag] : chip) {
    if (drawn.contains(key)) continue;
    mapping(g, b, key.first, key.second, dotText("dot1q ", tag, "\nheld by no machine"),
            Look::stale);
  }
  g.summarise(b, dot1qBox, "dot1q mappings");
}

void drawRoutes(const Dot1qDecapAgent& f, DotGraph& g) {
  g.cluster(routesBox, "label routes with an ESI filter via, and their ESI port maps", family);
  DotGraph::Budget b;
  const auto& sm = f.decapSm;
  const auto& chip = f.chip->portMaps();
  std::map<Quil::MplsLabel, Mpls::LfibHwProgrammingReturnCode> parked;
  for (auto [key, rc] : f.lfibHwStatus->unprogrammedRouteWalk()) parked.emplace(key.topLabel(), rc);
  std::set<Quil::MplsLabel> held;
  if (sm) {
    for (auto [key, via] : sm->routeEsiFilterViaWalk()) held.insert(key.topLabel());
  }

  // A route and its port map: the map drawn in the look of its state.
  auto route = [&](Quil::MplsLabel label, const std::string& intf, std::string state, Look look) {
    if (!b.take(look)) return;
    g.node(routeNode(label), dotText("label ", label),
           {.shape = Shape::ellipse, .cluster = routesBox});
    g.node(portMapNode(label), dotText("ESI port map -> ", intf, state),
           {.look = look, .cluster = routesBox});
    g.edge(routeNode(label), portMapNode(label), "", look);
  };
  for (const auto& [label, intf] : filterRoutes(*f.lfibStatus)) {
    const auto in = chip.find(label);
    if (held.contains(label)) {
      if (in != chip.end() && in->second == intf) {
        route(label, dotText(intf), "", Look::plain);
      } else {
        route(label, dotText(intf), "\nheld as programmed\nnot in the chip", Look::refused);
      }
    } else if (auto p = parked.find(label); p != parked.end()) {
      route(label, dotText(intf), dotText("\nparked: ", p->second, "\nretried by the review"),
            Look::refused);
    } else if (f.lfibTrackingStatus->routeKeyBacklogHas(Mpls::RouteKey(label))) {
      route(label, dotText(intf), "\nin the backlog", Look::pending);
    } else {
      route(label, dotText(intf), "\nnot programmed", Look::pending);
    }
  }
  // Parked routes whose filter via went, or that are not filter routes at all.
  const auto routes = filterRoutes(*f.lfibStatus);
  for (const auto& [label, rc] : parked) {
    if (routes.contains(label)) continue;
    route(label, "?", dotText("\nparked: ", rc), Look::refused);
  }
  // Port maps in the chip that no route the machine programmed holds.
  for (const auto& [label, intf] : chip) {
    if (held.contains(label)) continue;
    if (!b.take(Look::stale)) continue;
    g.node(dotText(routesBox, "/stale/", label),
           dotText("ESI port map label ", label, " -> ", intf, "\nheld by no machine"),
           {.look = Look::stale, .cluster = routesBox});
  }
  g.summarise(b, routesBox, "label routes");
}

}  // namespace

void drawDot1qDecap(const Dot1qDecapAgent& f, DotGraph& g) {
  g.cluster(family, "dot1q tags and ESI port maps");
  drawDot1q(f, g);
  drawRoutes(f, g);
}

}  // namespace Sim
