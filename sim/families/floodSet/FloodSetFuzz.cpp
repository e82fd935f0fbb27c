#include "sim/families/floodSet/FloodSetFuzz.h"

#include <string>
#include <vector>

#include "Oba/HwProgrammingStatus.h"
#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/families/fec/FecActions.h"
#include "sim/families/floodSet/FloodSetActions.h"

namespace Sim::floodSet {

namespace {

// The names a seed plays with: VLANs, flood MACs, remote PEs (the tunnel-id family's endpoints, so
// that their tunnels get hardware ids when they are designated forwarders) with a label or two
// each, and a few local ports.
struct World {
  std::vector<Bridging::VlanId> vlans;
  std::vector<Quil::EthAddr> macs;
  std::vector<L2Rib::Dest> dests;
  std::vector<L2Rib::Dest> mplsDests;
};

World makeWorld(Rng& r) {
  World w;
  std::vector<std::uint16_t> vlans{10, 20, 30, 40, 50};
  for (std::uint64_t n = 2 + r.below(3); n > 0; --n) {
    std::size_t i = r.below(vlans.size());
    w.vlans.push_back(Bridging::VlanId(vlans[i]));
    vlans.erase(vlans.begin() + static_cast<std::ptrdiff_t>(i));
  }
  w.macs.push_back(Quil::EthAddr::broadcast());
  for (std::uint64_t n = r.below(3); n > 0; --n) {
    w.macs.push_back(Quil::EthAddr::parse("01:00:5e:00:00:0" + std::to_string(w.macs.size())));
  }
  for (std::uint64_t pe = 1; pe <= 6; ++pe) {
    const Tunnel::TunnelTable::TunnelId tunnel((1ull << 32) | pe);
    for (std::uint64_t n = 1 + r.below(2), l = 0; l < n; ++l) {
      w.dests.push_back(L2Rib::Dest::mpls(tunnel, Quil::MplsLabel(1000 + 10 * pe + l)));
      w.mplsDests.push_back(w.dests.back());
    }
    if (r.chance(0.3)) w.dests.push_back(L2Rib::Dest::tunnel(tunnel));
  }
  for (std::uint32_t p = 1; p <= 2; ++p) {
    w.dests.push_back(L2Rib::Dest::intf(Quil::IntfId::ethernet(40 + p)));
  }
  return w;
}

// The kinds of step a seed draws.
enum Draw : std::uint32_t {
  floodSetDest,
  floodSetDestDel,
  floodSetDel,
  vlanFloodSetDel,
  floodListLatency,
  fecChipRenumber,
  // The chip refuses the next member of one tunnel in one VLAN: a rule rather than a fault at the
  // run's rate, since a change of the configuration may make the chip program several members of
  // the same tunnel and VLAN (one per flood MAC) back to back, which no rule placed between them
  // could tell apart.
  refuseMember,
};

class FloodSetFuzz : public FamilyFuzz {
 public:
  FloodSetFuzz(Rng& r, const FuzzOptions&) : w_(makeWorld(r)) {}

  void choices(bool initial, std::vector<Choice>& out) const override {
    // Relative weights of the kinds; the chip's settings change once the agent runs.
    static constexpr std::pair<Draw, std::uint64_t> weights[] = {
        {floodSetDest, 24},   {floodSetDestDel, 12}, {floodSetDel, 2},
        {vlanFloodSetDel, 1}, {floodListLatency, 2}, {fecChipRenumber, 3},
    };
    for (const auto& [kind, weight] : weights) {
      if (initial && (kind == floodListLatency || kind == fecChipRenumber)) continue;
      out.push_back({kind, weight});
    }
    if (!initial) out.push_back({refuseMember, 3});
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    if (kind == refuseMember) {
      const L2Rib::Dest& d = r.pick(w_.mplsDests);
      const auto rc = r.chance(0.7) ? Oba::HwProgrammingStatus::notProgrammed
                                    : Oba::HwProgrammingStatus::invalidHwId;
      return refusalAction({.op = "programFloodListMember",
                            .port = Quil::DynamicTunnelIntfId::intfId(d.tunnelId().value()),
                            .vlan = r.pick(w_.vlans),
                            .times = 1,
                            .rc = static_cast<std::uint32_t>(rc)});
    }
    // Every other step draws a flood set and a destination first, whether it names them or not,
    // so that what a seed draws after them stays where it was.
    const Bridging::VlanId vlan = r.pick(w_.vlans);
    const Quil::EthAddr mac = r.pick(w_.macs);
    const L2Rib::Dest dest = r.pick(w_.dests);
    switch (static_cast<Draw>(kind)) {
      case floodSetDest:
        return floodSet::action(FloodSetDest{.vlan = vlan, .mac = mac, .dest = dest});
      case floodSetDestDel:
        return floodSet::action(FloodSetDestDel{vlan, mac, dest});
      case floodSetDel:
        return floodSet::action(FloodSetDel{vlan, mac});
      case vlanFloodSetDel:
        return floodSet::action(VlanFloodSetDel{vlan});
      case floodListLatency:
        return floodSet::action(FloodListLatency{r.chance(0.5) ? 0 : r.quarters(8)});
      case fecChipRenumber:
      case refuseMember:  // drawn above
        break;
    }
    // The chip's FEC table moves one of its FECs to another hardware id.
    return fec::action(fec::FecChipRenumber{static_cast<std::uint32_t>(1 + r.below(8))});
  }

 private:
  World w_;
};

}  // namespace

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) {
  return std::make_unique<FloodSetFuzz>(rng, options);
}

}  // namespace Sim::floodSet
