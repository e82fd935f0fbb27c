// The tunnel-id and ESI family's part of the picture (--dot): per Ethernet segment its VLANs with
// a designated forwarder, the forwarder's tunnel and hardware id, and the ESI data of each port
// with its labels; what the machines hold as unprogrammed, what the chip refused and what the chip
// holds that no machine does, in the looks that make them stand out.
#include <set>
#include <sstream>

#include "sim/Dot.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim {

namespace {

using Look = DotGraph::Look;
using Shape = DotGraph::Shape;
using TunnelId = Tunnel::TunnelTable::TunnelId;

template <class... T>
std::string text(const T&... parts) {
  std::ostringstream os;
  (os << ... << parts);
  return os.str();
}

const std::string family = "tunnelEsi";
const std::string tunnels = family + "/tunnels";
std::string segmentBox(Quil::IntfId seg) { return text(family, "/segment/", seg); }
std::string vlanNode(Quil::IntfId seg, Bridging::VlanId vlan) {
  return text(segmentBox(seg), "/vlan/", vlan);
}
std::string tunnelNode(const TunnelId& t) { return text(tunnels, "/", t); }
std::string portNode(Quil::IntfId port, Bridging::VlanId vlan) {
  return text(family, "/port/", port, "/", vlan);
}

// An ESI label as the chip takes it: the MPLS label alone; another encapsulation in full.
std::string labelText(Evpn::EncapTypeLabel l) {
  if (l.encapType() == Evpn::EncapTypeLabel::encapTypeMpls) return text(l.label());
  return text(l, ": not MPLS");
}

// The segment itself: its LAG members and its local ESI label, or what is missing.
void drawSegment(const TunnelEsiAgent& f, Quil::IntfId seg, DotGraph& g) {
  g.cluster(segmentBox(seg), text("Ethernet segment ", seg), family);
  std::string label = text(seg);
  Look look = Look::plain;
  if (Oba::isLag(seg)) {
    auto members = f.acsd->lagToPort(seg);
    if (!members || members->empty()) {
      label += "\nno LAG members";
      look = Look::pending;
    } else {
      label += "\nmembers";
      for (Quil::IntfId p : members->ports()) label += text(" ", p);
    }
  }
  if (auto local = f.evpnStatus->localEsiLabel(seg)) {
    label += "\nlocal ESI label " + labelText(*local);
  } else {
    label += "\nno local ESI label";
    look = Look::pending;
  }
  g.node(segmentBox(seg), label, {.look = look, .cluster = segmentBox(seg)});
}

// A tunnel and the hardware id the mapping publishes for it, or why it has none.
void drawTunnel(const TunnelEsiAgent& f, const TunnelId& t, DotGraph& g) {
  auto row = f.mapping->tunnelIdToHwTunnelId(t);
  if (row.found) {
    g.node(tunnelNode(t), text(t, "\nhw ", row.row.hwTunnelId()), {.cluster = tunnels});
  } else if (f.hwTunnelIdSm && f.hwTunnelIdSm->unprogrammedTunnel(t)) {
    g.node(tunnelNode(t), text(t, "\nno hardware id: the chip had none\nretried by the review"),
           {.look = Look::refused, .cluster = tunnels});
  } else {
    g.node(tunnelNode(t), text(t, "\nno hardware id yet"),
           {.look = Look::pending, .cluster = tunnels});
  }
}

// One (segment, VLAN) with a designated forwarder: its tunnel, the remote ESI label, and the
// ports the flooding machine programmed or had refused. Adds the ports it drew to `drawn`.
void drawVlan(const TunnelEsiAgent& f, Quil::IntfId seg, Bridging::VlanId vlan, Quil::IntfId tep,
              const Evpn::EthernetSegmentStatus& ess, std::set<TunnelEsiChip::PortVlan>& drawn,
              DotGraph& g) {
  const TunnelId tunnel(Quil::DynamicTunnelIntfId::tunnelId(tep));
  drawTunnel(f, tunnel, g);

  auto status = f.floodingEsiSm ? f.floodingEsiSm->esiStatus(Oba::IntfVlanKey(seg, vlan))
                                : std::optional<Oba::IntfVlanStatus>();
  const bool any = status && (status->programmeds() || status->unprogrammeds());
  g.node(vlanNode(seg, vlan),
         any ? text("VLAN ", vlan) : text("VLAN ", vlan, "\nnothing programmed"),
         {.look = any ? Look::plain : Look::pending,
          .shape = Shape::ellipse,
          .cluster = segmentBox(seg)});
  g.edge(segmentBox(seg), vlanNode(seg, vlan));

  auto remote = ess.remoteEsiLabel(tep);
  if (!remote) {
    g.edge(vlanNode(seg, vlan), tunnelNode(tunnel), "designated forwarder\nno remote ESI label",
           Look::pending);
  } else {
    const bool mpls = remote->encapType() == Evpn::EncapTypeLabel::encapTypeMpls;
    g.edge(vlanNode(seg, vlan), tunnelNode(tunnel),
           "designated forwarder\nremote ESI label " + labelText(*remote),
           mpls ? Look::plain : Look::pending);
  }
  if (!status) return;

  for (auto [port, programmed] : status->programmedWalk()) {
    drawn.emplace(port, vlan);
    auto entry = f.chip->esiData().find({port, vlan});
    if (entry == f.chip->esiData().end()) {
      g.node(portNode(port, vlan),
             text(port, " vlan ", vlan, "\nheld as programmed\nnot in the chip"),
             {.look = Look::refused, .cluster = segmentBox(seg)});
    } else {
      const auto& e = entry->second;
      g.node(portNode(port, vlan),
             text(port, " vlan ", vlan, "\nlabel ", e.label, " local ", e.localLabel, "\n",
                  e.tunnel, " hw ", e.hw),
             {.cluster = segmentBox(seg)});
    }
    g.edge(vlanNode(seg, vlan), portNode(port, vlan));
  }
  for (auto [port, refused] : status->unprogrammedWalk()) {
    drawn.emplace(port, vlan);
    g.node(portNode(port, vlan),
           text(port, " vlan ", vlan, "\nESI data refused by the chip\nretried by the review"),
           {.look = Look::refused, .cluster = segmentBox(seg)});
    g.edge(vlanNode(seg, vlan), portNode(port, vlan), "", Look::refused);
  }
}

}  // namespace

void drawTunnelEsi(const TunnelEsiAgent& f, DotGraph& g) {
  g.cluster(family, "hardware tunnel ids and ESI data");
  g.cluster(tunnels, "tunnels and their hardware ids (mapping)", family);
  std::set<TunnelEsiChip::PortVlan> drawn;
  for (auto [seg, ess] : f.evpnStatus->segmentStatusWalk()) {
    drawSegment(f, seg, g);
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) {
      drawVlan(f, seg, vlan, tep, *ess, drawn, g);
    }
  }
  // Published rows of tunnels no segment names any more.
  for (auto [tunnel, row] : f.mapping->tunnelIdToHwTunnelIdWalk()) drawTunnel(f, tunnel, g);
  // What the chip holds that no pair of the machine does.
  for (const auto& [key, e] : f.chip->esiData()) {
    if (drawn.contains(key)) continue;
    g.node(portNode(key.first, key.second),
           text(key.first, " vlan ", key.second, "\nlabel ", e.label, " local ", e.localLabel, "\n",
                e.tunnel, " hw ", e.hw, "\nheld by no machine"),
           {.look = Look::stale, .cluster = family});
  }
}

}  // namespace Sim
