#include "sim/families/tunnelEsi/TunnelEsiFuzz.h"

#include <algorithm>
#include <map>
#include <vector>

#include "sim/Fuzz.h"
#include "sim/Rng.h"
#include "sim/families/tunnelEsi/TunnelEsiActions.h"

namespace Sim::tunnelEsi {

namespace {

// The names a seed plays with. Every physical port belongs to one segment only (a plain segment
// is its own port; a LAG draws its members from ports of its own), as on a switch.
struct World {
  std::vector<Quil::IntfId> segments;
  std::vector<Quil::IntfId> lags;
  std::map<Quil::IntfId, std::vector<Quil::IntfId>> lagPorts;   // the ports a LAG may have
  std::map<Quil::IntfId, std::vector<Quil::IntfId>> endpoints;  // a segment's remote endpoints
  std::vector<Bridging::VlanId> vlans;
};

World makeWorld(Rng& r) {
  World w;
  std::vector<Quil::IntfId> teps;
  for (std::uint64_t i = 1; i <= 6; ++i) {
    teps.push_back(Quil::DynamicTunnelIntfId::intfId((1ull << 32) | i));
  }
  std::uint32_t port = 1, lag = 1;
  const std::uint64_t segments = 2 + r.below(4);
  for (std::uint64_t s = 0; s < segments; ++s) {
    Quil::IntfId seg;
    if (r.chance(0.5)) {
      seg = Quil::IntfId::portChannel(lag++);
      auto& ports = w.lagPorts[seg];
      for (std::uint64_t n = 1 + r.below(4); n > 0; --n)
        ports.push_back(Quil::IntfId::ethernet(port++));
      w.lags.push_back(seg);
    } else {
      seg = Quil::IntfId::ethernet(port++);
    }
    w.segments.push_back(seg);
    // 1-4 endpoints of the six, shared between segments as peers are.
    std::vector<Quil::IntfId> pool = teps;
    auto& eps = w.endpoints[seg];
    for (std::uint64_t n = 1 + r.below(4); n > 0; --n) {
      std::size_t i = r.below(pool.size());
      eps.push_back(pool[i]);
      pool.erase(pool.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  std::vector<std::uint16_t> vlans{10, 20, 30, 40, 50};
  for (std::uint64_t n = 2 + r.below(3); n > 0; --n) {
    std::size_t i = r.below(vlans.size());
    w.vlans.push_back(Bridging::VlanId(vlans[i]));
    vlans.erase(vlans.begin() + static_cast<std::ptrdiff_t>(i));
  }
  return w;
}

Evpn::EncapTypeLabel remoteLabel(Rng& r) {
  if (r.chance(0.85))
    return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeMpls, 1001 + r.below(3));
  if (r.chance(0.5)) return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeVxlan, 5001);
  return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeNone, 0);
}

Evpn::EncapTypeLabel localLabel(Rng& r) {
  if (r.chance(0.85))
    return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeMpls, 2001 + r.below(3));
  return Evpn::EncapTypeLabel();  // the empty label
}

// The kinds of step a seed draws, each an action of its own.
enum Draw : std::uint32_t {
  designatedForwarder,
  designatedForwarderDel,
  remoteEsiLabel,
  remoteEsiLabelDel,
  localEsiLabel,
  localEsiLabelDel,
  segment,
  segmentDel,
  lag,
  lagDel,
  chipPool,
};

class EsiFuzz : public FamilyFuzz {
 public:
  EsiFuzz(Rng& r, const FuzzOptions& o)
      : w_(makeWorld(r)), pool_(static_cast<std::uint32_t>(o.setting("pool", poolDefault))) {}

  std::vector<Action> setup() const override { return {tunnelEsi::action(ChipPool{pool_})}; }

  void choices(bool, std::vector<Choice>& out) const override {
    // Relative weights of the kinds; LAG kinds need a LAG.
    static constexpr std::pair<Draw, std::uint64_t> weights[] = {
        {designatedForwarder, 20},
        {designatedForwarderDel, 7},
        {remoteEsiLabel, 14},
        {remoteEsiLabelDel, 3},
        {localEsiLabel, 8},
        {localEsiLabelDel, 2},
        {lag, 8},
        {lagDel, 2},
        {segment, 2},
        {segmentDel, 1},
        {chipPool, 3},
    };
    for (const auto& [kind, weight] : weights) {
      if ((kind == lag || kind == lagDel) && w_.lags.empty()) continue;
      out.push_back({kind, weight});
    }
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    switch (static_cast<Draw>(kind)) {
      case designatedForwarder: {
        DesignatedForwarder a;
        a.segment = r.pick(w_.segments);
        a.vlan = r.pick(w_.vlans);
        a.tep = r.pick(w_.endpoints.at(a.segment));
        return tunnelEsi::action(a);
      }
      case designatedForwarderDel: {
        DesignatedForwarderDel a;
        a.segment = r.pick(w_.segments);
        a.vlan = r.pick(w_.vlans);
        return tunnelEsi::action(a);
      }
      case remoteEsiLabel: {
        RemoteEsiLabel a;
        a.segment = r.pick(w_.segments);
        a.tep = r.pick(w_.endpoints.at(a.segment));
        a.label = remoteLabel(r);
        return tunnelEsi::action(a);
      }
      case remoteEsiLabelDel: {
        RemoteEsiLabelDel a;
        a.segment = r.pick(w_.segments);
        a.tep = r.pick(w_.endpoints.at(a.segment));
        return tunnelEsi::action(a);
      }
      case localEsiLabel: {
        LocalEsiLabel a;
        a.segment = r.pick(w_.segments);
        a.label = localLabel(r);
        return tunnelEsi::action(a);
      }
      case localEsiLabelDel:
        return tunnelEsi::action(LocalEsiLabelDel{r.pick(w_.segments)});
      case segment:
        return tunnelEsi::action(Segment{r.pick(w_.segments)});
      case segmentDel:
        return tunnelEsi::action(SegmentDel{r.pick(w_.segments)});
      case lag: {
        Lag a;
        a.lag = r.pick(w_.lags);
        for (Quil::IntfId p : w_.lagPorts.at(a.lag)) {
          if (r.chance(0.6)) a.members.push_back(p);
        }
        return tunnelEsi::action(a);
      }
      case lagDel:
        return tunnelEsi::action(LagDel{r.pick(w_.lags)});
      case chipPool:
        break;
    }
    // Mostly around the starting size; now and then none at all.
    return tunnelEsi::action(ChipPool{
        r.chance(0.1) ? 0
                      : static_cast<std::uint32_t>(
                            1 + r.below(std::max<std::uint64_t>(1, 2 * std::uint64_t{pool_})))});
  }

 private:
  World w_;
  std::uint32_t pool_;
};

}  // namespace

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) {
  return std::make_unique<EsiFuzz>(rng, options);
}

}  // namespace Sim::tunnelEsi
