#include "sim/families/floodSet/FloodSetActions.h"

namespace Sim::floodSet {

Quil::EthAddr readMac(const Reader& r, const YAML::Node& n) { return r.mac(n); }

L2Rib::Dest readDest(const Reader& r, const YAML::Node& n) {
  // The flood-set machines program an MPLS destination's label as it is (a missing one as "no
  // label") and drop a destination on the invalid tunnel: neither is what the file said.
  const char* what =
      "a destination (mpls(TunnelT.I, LABEL) with LABEL 0-1048575, tunnel(TunnelT.I) or "
      "intf(NAME); not on Tunnel0.0)";
  const L2Rib::Dest d = r.parsed(n, what, L2Rib::Dest::parse);
  const bool overTunnel =
      d.destType() == L2Rib::destTypeMpls_ || d.destType() == L2Rib::destTypeTunnel_;
  if (overTunnel && !d.tunnel().isValid()) r.failExpected(n, what);
  if (d.destType() == L2Rib::destTypeMpls_ && d.label().isNoLabel()) r.failExpected(n, what);
  return d;
}

void FloodSetDest::apply(FloodSetAgent& f) const {
  auto fs = f.l2RibFloodSet->vlanFloodSetIs(vlan)->floodSetIs(mac);
  if (type) fs->floodSetTypeIs(*type);
  fs->destSetIs(dest, value);
}

void FloodSetDestDel::apply(FloodSetAgent& f) const {
  if (auto v = f.l2RibFloodSet->vlanFloodSet(vlan)) {
    if (auto fs = v->floodSet(mac)) fs->destSetDel(dest);
  }
}

void FloodSetDel::apply(FloodSetAgent& f) const {
  if (auto v = f.l2RibFloodSet->vlanFloodSet(vlan)) v->floodSetDel(mac);
}

void VlanFloodSetDel::apply(FloodSetAgent& f) const { f.l2RibFloodSet->vlanFloodSetDel(vlan); }

void MplsFloodSetDest::apply(FloodSetAgent& f) const {
  f.mplsFloodSet->vlanFloodSetIs(vlan)->floodSetIs(mac)->destSetIs(dest, true);
}

void FloodListLatency::apply(FloodSetAgent& f) const { f.lists->latencyIs(seconds); }

std::vector<ActionKind> actionKinds() {
  return Sim::actionKinds<FloodSetAgent, FloodSetDest, FloodSetDestDel, FloodSetDel,
                          VlanFloodSetDel, MplsFloodSetDest, FloodListLatency>();
}

}  // namespace Sim::floodSet
