#include "sim/families/tunnelEsi/TunnelEsiActions.h"

#include <map>
#include <memory>

#include "Oba/ObaCommon.h"

namespace Sim::tunnelEsi {

void DesignatedForwarder::apply(TunnelEsiAgent& f) const {
  f.evpnStatus->segmentStatusIs(segment)->designatedForwarderTepIs(vlan, tep);
}

void DesignatedForwarderDel::apply(TunnelEsiAgent& f) const {
  if (auto ess = f.evpnStatus->segmentStatus(segment)) ess->designatedForwarderTepDel(vlan);
}

void RemoteEsiLabel::apply(TunnelEsiAgent& f) const {
  f.evpnStatus->segmentStatusIs(segment)->remoteEsiLabelIs(tep, label);
}

void RemoteEsiLabelDel::apply(TunnelEsiAgent& f) const {
  if (auto ess = f.evpnStatus->segmentStatus(segment)) ess->remoteEsiLabelDel(tep);
}

void LocalEsiLabel::apply(TunnelEsiAgent& f) const {
  f.evpnStatus->localEsiLabelIs(segment, label);
}

void LocalEsiLabelDel::apply(TunnelEsiAgent& f) const { f.evpnStatus->localEsiLabelDel(segment); }

void Segment::apply(TunnelEsiAgent& f) const { f.evpnStatus->segmentStatusIs(segment); }

void SegmentDel::apply(TunnelEsiAgent& f) const { f.evpnStatus->segmentStatusDel(segment); }

void Lag::apply(TunnelEsiAgent& f) const {
  f.acsd->lagToPortIs(lag, new Oba::ObaLagPortList(members));
}

void LagDel::apply(TunnelEsiAgent& f) const { f.acsd->lagToPortDel(lag); }

void ChipPool::apply(TunnelEsiAgent& f) const { f.chip->hwTunnelIdPoolIs(count); }

namespace {

// What each physical port is in a scenario, as its actions are read: a segment of its own, or a
// member of one LAG at a time. A port that were both, or in two LAGs, would have its ESI data
// written and deleted by two owners, which no switch configuration allows.
class PortRoles {
 public:
  void read(const Reader& r, const YAML::Node& v, const Lag& a) {
    leave(a.lag);
    std::size_t i = 0;
    for (const auto& m : v["members"]) {
      const Quil::IntfId port = a.members[i++];
      const int line = m.Mark().line + 1;
      if (auto p = plain_.find(port); p != plain_.end()) {
        r.fail(m, port.toString() + " is a segment of its own (line " + std::to_string(p->second) +
                      "); it cannot be a LAG member too");
      }
      auto [at, fresh] = memberOf_.try_emplace(port, Use{a.lag, line});
      if (!fresh) {
        r.fail(m, port.toString() + " is a member of " + at->second.lag.toString() + " (line " +
                      std::to_string(at->second.line) + ") already");
      }
      everMember_.try_emplace(port, Use{a.lag, line});
    }
  }
  void read(const Reader&, const YAML::Node&, const LagDel& a) { leave(a.lag); }
  void read(const Reader&, const YAML::Node&, const ChipPool&) {}
  // Every other action names a segment.
  template <class A>
  void read(const Reader& r, const YAML::Node& v, const A& a) {
    if (a.segment.isEthernet()) plain(r, v.IsMap() ? v["segment"] : v, a.segment);
  }

 private:
  struct Use {
    Quil::IntfId lag;
    int line;
  };

  void leave(Quil::IntfId lag) {
    for (auto it = memberOf_.begin(); it != memberOf_.end();) {
      it = it->second.lag == lag ? memberOf_.erase(it) : std::next(it);
    }
  }

  void plain(const Reader& r, const YAML::Node& n, Quil::IntfId port) {
    if (auto m = everMember_.find(port); m != everMember_.end()) {
      r.fail(n, port.toString() + " is a member of " + m->second.lag.toString() + " (line " +
                    std::to_string(m->second.line) + "); a LAG member is no segment of its own");
    }
    plain_.try_emplace(port, n.Mark().line + 1);
  }

  std::map<Quil::IntfId, int> plain_;       // a segment of its own, first named at the line
  std::map<Quil::IntfId, Use> memberOf_;    // a member now, since the line
  std::map<Quil::IntfId, Use> everMember_;  // a member at some time, first at the line
};

}  // namespace

std::vector<ActionKind> actionKinds() {
  // One scenario's reads share what its ports are, in the order the file gives them.
  return Sim::actionKinds<TunnelEsiAgent, DesignatedForwarder, DesignatedForwarderDel,
                          RemoteEsiLabel, RemoteEsiLabelDel, LocalEsiLabel, LocalEsiLabelDel,
                          Segment, SegmentDel, Lag, LagDel, ChipPool>(
      std::make_shared<PortRoles>());
}

std::string esiEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"port", "vlan", "tunnel", "hw", "label", "local"}, "an ESI entry");
  const Quil::IntfId tep = r.tep(r.field(n, "tunnel"));
  TunnelEsiChip::EsiEntry e{Tunnel::TunnelTable::TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)),
                            Oba::HwTunnelId(r.count(r.field(n, "hw"), "a hardware tunnel id")),
                            r.mplsLabel(r.field(n, "label")), r.mplsLabel(r.field(n, "local"))};
  return esiLine({r.port(r.field(n, "port")), r.vlan(r.field(n, "vlan"))}, e);
}

std::string mappingEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"tunnel", "hw"}, "a mapping row");
  const Quil::IntfId tep = r.tep(r.field(n, "tunnel"));
  return Oba::TunnelIdToHwTunnelId(
             Tunnel::TunnelTable::TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)),
             Oba::HwTunnelId(r.count(r.field(n, "hw"), "a hardware tunnel id")))
      .compactString();
}

}  // namespace Sim::tunnelEsi

namespace Sim {

Action lagAction(Quil::IntfId lag, std::optional<std::vector<Quil::IntfId>> members) {
  if (members) return tunnelEsi::action(tunnelEsi::Lag{lag, std::move(*members)});
  return tunnelEsi::action(tunnelEsi::LagDel{lag});
}

}  // namespace Sim
