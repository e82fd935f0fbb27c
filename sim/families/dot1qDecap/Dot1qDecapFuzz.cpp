#include "sim/families/dot1qDecap/Dot1qDecapFuzz.h"

#include <map>
#include <optional>
#include <vector>

#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/families/dot1qDecap/Dot1qDecapActions.h"
#include "sim/families/tunnelEsi/TunnelEsiActions.h"

namespace Sim::dot1qDecap {

namespace {

constexpr auto filterType = Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter;

// The interfaces a seed plays with, apart from the tunnel-id and ESI family's segments (a physical
// port belongs to one LAG or stands alone, as on a switch): LAGs Port-Channel11.. with ports of
// their own, plain ports Ethernet41..; VLANs, tags, route labels, via sets and filter vias over
// small ranges, so that routes meet on interfaces and VLANs share tags.
struct World {
  std::vector<Quil::IntfId> intfs;
  std::vector<Quil::IntfId> lags;
  std::map<Quil::IntfId, std::vector<Quil::IntfId>> lagPorts;
  std::vector<Bridging::VlanId> vlans;
  std::vector<Quil::MplsLabel> labels;
};

World makeWorld(Rng& r) {
  World w;
  std::uint32_t port = 31;
  for (std::uint64_t n = 1 + r.below(2), i = 0; i < n; ++i) {
    const auto lag = Quil::IntfId::portChannel(static_cast<std::uint32_t>(11 + i));
    for (std::uint64_t k = 1 + r.below(3); k > 0; --k) {
      w.lagPorts[lag].push_back(Quil::IntfId::ethernet(port++));
    }
    w.lags.push_back(lag);
    w.intfs.push_back(lag);
  }
  for (std::uint64_t n = 1 + r.below(3), i = 0; i < n; ++i) {
    w.intfs.push_back(Quil::IntfId::ethernet(static_cast<std::uint32_t>(41 + i)));
  }
  for (std::uint64_t n = 2 + r.below(2), i = 0; i < n; ++i) {
    w.vlans.push_back(Bridging::VlanId(static_cast<std::uint16_t>(100 * (i + 1))));
  }
  for (std::uint64_t n = 2 + r.below(4), i = 0; i < n; ++i) {
    w.labels.push_back(Quil::MplsLabel(static_cast<std::uint32_t>(3001 + i)));
  }
  return w;
}

// The kinds of step a seed draws: each input's action, then the kinds past the inputs' own.
enum Draw : std::uint32_t {
  vlanMember,
  vlanMemberDel,
  vlanStatus,
  vlanStatusDel,
  dot1q,
  dot1qDel,
  dot1qEnabled,
  route,
  routeDel,
  viaSet,
  viaSetDel,
  filterVia,
  filterViaDel,
  backlog,
  chipTables,
};

class Dot1qDecapFuzz : public FamilyFuzz {
 public:
  explicit Dot1qDecapFuzz(Rng& r) : w_(makeWorld(r)) {}

  // The kinds past the inputs' own: a LAG's members (written as the ESI family's action) and a
  // refusal rule for port maps.
  static constexpr std::uint32_t lagKind = 100, lagDelKind = 101, refusePortMapKind = 102;

  void choices(bool initial, std::vector<Choice>& out) const override {
    static constexpr std::pair<Draw, std::uint64_t> weights[] = {
        {vlanMember, 10},  {vlanMemberDel, 4}, {vlanStatusDel, 1}, {dot1q, 6},      {dot1qDel, 2},
        {dot1qEnabled, 1}, {route, 6},         {routeDel, 3},      {viaSet, 5},     {viaSetDel, 1},
        {filterVia, 4},    {filterViaDel, 1},  {backlog, 1},       {chipTables, 1},
    };
    for (const auto& [kind, weight] : weights) {
      out.push_back({kind, weight});
    }
    out.push_back({lagKind, 4});
    out.push_back({lagDelKind, 1});
    if (!initial) out.push_back({refusePortMapKind, 2});
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    if (kind == lagKind || kind == lagDelKind) {
      const Quil::IntfId lag = r.pick(w_.lags);
      if (kind == lagDelKind) return lagAction(lag, std::nullopt);
      std::vector<Quil::IntfId> members;
      for (Quil::IntfId p : w_.lagPorts.at(lag)) {
        if (r.chance(0.6)) members.push_back(p);
      }
      return lagAction(lag, std::move(members));
    }
    if (kind == refusePortMapKind) {
      // Every code the machine survives: resource full, failed, and codes it does not define.
      static constexpr std::uint32_t codes[] = {2, 2, 3, 3, 4, 9};
      SoftwareChip::Refusal rule{.op = "createEsiPortMap",
                                 .port = r.pick(w_.intfs),
                                 .times = static_cast<std::int64_t>(1 + r.below(3)),
                                 .rc = codes[r.below(6)]};
      return refusalAction(rule);
    }
    switch (static_cast<Draw>(kind)) {
      case vlanMember:
      case vlanMemberDel: {
        const Bridging::VlanId vlan = r.pick(w_.vlans);
        const Quil::IntfId intf = r.pick(w_.intfs);
        return kind == vlanMember ? dot1qDecap::action(VlanMember{vlan, intf})
                                  : dot1qDecap::action(VlanMemberDel{vlan, intf});
      }
      case vlanStatus:
        return dot1qDecap::action(VlanStatus{r.pick(w_.vlans)});
      case vlanStatusDel:
        return dot1qDecap::action(VlanStatusDel{r.pick(w_.vlans)});
      case dot1qDel:
        return dot1qDecap::action(Dot1qDel{r.pick(w_.vlans)});
      case dot1q: {
        Dot1q a;
        a.vlan = r.pick(w_.vlans);
        a.tag = Bridging::VlanIdOrNone(
            r.chance(0.1) ? 0 : static_cast<std::uint16_t>(501 + r.below(3)));
        return dot1qDecap::action(a);
      }
      case dot1qEnabled:
        return dot1qDecap::action(Dot1qEnabled{r.chance(0.5)});
      case route: {
        Route a;
        a.label = r.pick(w_.labels);
        a.viaSet = static_cast<std::uint32_t>(1 + r.below(3));
        return dot1qDecap::action(a);
      }
      case routeDel:
        return dot1qDecap::action(RouteDel{r.pick(w_.labels)});
      case backlog:
        return dot1qDecap::action(Backlog{r.pick(w_.labels)});
      case viaSet: {
        ViaSet a;
        a.set = static_cast<std::uint32_t>(1 + r.below(3));
        // The index is drawn before the type, as seeds have always drawn them.
        a.index = static_cast<std::uint32_t>(1 + r.below(3));
        // Mostly a filter via; now and then an EVPN MPLS via, which the machine skips.
        a.type = r.chance(0.8) ? filterType : Mpls::LfibViaType::viaTypeEvpnMpls;
        return dot1qDecap::action(a);
      }
      case viaSetDel:
        return dot1qDecap::action(ViaSetDel{static_cast<std::uint32_t>(1 + r.below(3))});
      case filterVia: {
        FilterVia a;
        a.index = static_cast<std::uint32_t>(1 + r.below(3));
        a.intf = r.pick(w_.intfs);
        return dot1qDecap::action(a);
      }
      case filterViaDel:
        return dot1qDecap::action(FilterViaDel{static_cast<std::uint32_t>(1 + r.below(3))});
      case chipTables:
        break;
    }
    // Mostly roomy; now and then a table that runs full.
    ChipTables a;
    a.dot1q = r.chance(0.8) ? 4096 : static_cast<std::uint32_t>(2 + r.below(8));
    a.portMaps = r.chance(0.8) ? 1024 : static_cast<std::uint32_t>(1 + r.below(3));
    return dot1qDecap::action(a);
  }

 private:
  World w_;
};

}  // namespace

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng) { return std::make_unique<Dot1qDecapFuzz>(rng); }

}  // namespace Sim::dot1qDecap
