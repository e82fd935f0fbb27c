#include "sim/families/macFec/MacFecFuzz.h"

#include <utility>
#include <vector>

#include "sim/Fuzz.h"
#include "sim/Rng.h"
#include "sim/families/fec/FecActions.h"
#include "sim/families/macFec/MacFecActions.h"

namespace Sim::macFec {

namespace {

using L2Rib::ObjTuple;

// The RIB a seed plays with: four destinations over six tunnels; labels 1-2 always point at a
// destination (so that three-level chains may list them under a load balance), labels 3-4 at a
// destination or a load balance; two load balances over destinations (and, with chain length 3,
// labels 1-2); five hosts in VLAN 10.
//
// Beside them, in worlds of chain length 2, a RIB written wrongly: labels 5-6 and load balance 3,
// which no host and no other object uses, point at one another and close cycles (a label over
// itself or the other, a load balance listing itself or label 6, label 6 over the load balance),
// now and then over a destination as well. The machine must walk them, stop where they close and
// leave them unresolved. With chain length 3 every object gets a FEC, and building one in a
// cycle stops the agent on the chain rule the cycle breaks: those worlds draw none.
//
// Any row may be torn (a `corrupt` step) while the other actions of its burst run; the burst
// ends with the RIB writing it again.
struct World {
  std::uint32_t chainLength = 2;
  std::uint32_t capacity = 6;
};

constexpr std::uint32_t dests = 4, leafLabels = 2, labelCount = 4, lbCount = 2, hostCount = 5;
constexpr std::uint32_t cycleLabel = 5, cycleLb = 3;  // labels 5-6, load balance 3

// The kinds of step a seed draws: an action of its own each, but for the cycles and the torn rows.
enum Draw : std::uint32_t {
  host,
  hostDel,
  label,
  labelDel,
  loadBalance,
  loadBalanceDel,
  dest,
  destDel,
  fecChipCapacity,
  fecChipLatency,
  fecChipWithdraw,
  fecChipRefuse,
  cycle,
  torn,
};

// One of the world's five hosts.
Bridging::MacVlanPair anyHost(Rng& r) {
  return {Bridging::VlanId(10), Quil::EthAddr(0x020000000000ull + 1 + r.below(hostCount))};
}
ObjTuple anyDest(Rng& r) {
  return ObjTuple::dest(L2Rib::DestId(1 + static_cast<std::uint32_t>(r.below(dests))));
}
ObjTuple anyLb(Rng& r) {
  return ObjTuple::loadBalance(
      L2Rib::LoadBalanceId(1 + static_cast<std::uint32_t>(r.below(lbCount))));
}
ObjTuple anyLabelFrom(Rng& r, std::uint32_t first, std::uint32_t n) {
  return ObjTuple::label(L2Rib::LabelId(first + static_cast<std::uint32_t>(r.below(n))));
}
ObjTuple anyLabel(Rng& r, std::uint32_t n) { return anyLabelFrom(r, 1, n); }

class MacFuzz : public FamilyFuzz {
 public:
  MacFuzz(Rng& r, const FuzzOptions& o) : o_(o) {
    w_.chainLength = r.chance(0.5) ? 2 : 3;
    w_.capacity = 3 + static_cast<std::uint32_t>(r.below(6));
  }

  std::vector<Action> setup() const override {
    return {macFec::action(MaxChainLength{w_.chainLength}),
            fec::action(fec::FecChipCapacity{w_.capacity})};
  }

  void choices(bool initial, std::vector<Choice>& out) const override {
    static constexpr std::pair<Draw, std::uint64_t> weights[] = {
        {host, 16},           {hostDel, 5}, {label, 10},  {labelDel, 3},        {loadBalance, 7},
        {loadBalanceDel, 2},  {dest, 7},    {destDel, 3}, {fecChipCapacity, 2}, {fecChipLatency, 1},
        {fecChipWithdraw, 2},
    };
    for (const auto& [kind, weight] : weights) out.push_back({kind, weight});
    // Refused answers, as often as the run's fault rate says (the ESI creates' faults are the
    // chip core's; the FEC table's are rules the run states).
    if (!initial && o_.faultRate > 0) {
      out.push_back({fecChipRefuse, 1 + static_cast<std::uint64_t>(o_.faultRate * 10)});
    }
    if (w_.chainLength == 2) out.push_back({cycle, 4});
    if (!initial) out.push_back({torn, 4});
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    switch (static_cast<Draw>(kind)) {
      case host: {
        const Bridging::MacVlanPair h = anyHost(r);
        return macFec::action(
            Host{h.vlanId, h.macAddr, r.chance(0.6) ? anyLabel(r, labelCount) : anyLb(r)});
      }
      case hostDel: {
        const Bridging::MacVlanPair h = anyHost(r);
        return macFec::action(HostDel{h.vlanId, h.macAddr});
      }
      case label: {
        Label a;
        a.id = anyLabel(r, labelCount).id();
        a.mpls = Quil::MplsLabel(1001 + static_cast<std::uint32_t>(r.below(3)));
        a.next = a.id > leafLabels && r.chance(0.5) ? anyLb(r) : anyDest(r);
        return macFec::action(a);
      }
      case labelDel:
        return macFec::action(LabelDel{anyLabel(r, labelCount).id()});
      case loadBalance: {
        LoadBalance a;
        a.id = anyLb(r).id();
        for (std::uint64_t n = 1 + r.below(3); n > 0; --n) {
          a.next.push_back(w_.chainLength == 3 && r.chance(0.3) ? anyLabel(r, leafLabels)
                                                                : anyDest(r));
        }
        return macFec::action(a);
      }
      case loadBalanceDel:
        return macFec::action(LoadBalanceDel{anyLb(r).id()});
      case dest: {
        Dest a;
        a.id = anyDest(r).id();
        a.tunnel = Quil::DynamicTunnelIntfId::intfId((1ull << 32) | (1 + r.below(6)));
        return macFec::action(a);
      }
      case destDel:
        return macFec::action(DestDel{anyDest(r).id()});
      case fecChipCapacity:
        return fec::action(fec::FecChipCapacity{
            static_cast<std::uint32_t>(r.below(2 * std::uint64_t{w_.capacity} + 1))});
      case fecChipLatency: {
        const double latencies[] = {0, 0, 0.25, 1, 2};
        return fec::action(fec::FecChipLatency{latencies[r.below(5)]});
      }
      case fecChipWithdraw:
        return fec::action(
            fec::FecChipWithdraw{1 + static_cast<std::uint32_t>(r.below(w_.capacity))});
      case fecChipRefuse:
        return fec::refuseAnswers(1 + static_cast<std::uint32_t>(r.below(3)));
      case cycle:
        return cycleAction(r);
      case torn:
        break;
    }
    return tornAction(r);
  }

  // Each row torn in the burst is written again by the RIB, as the burst's writer finishes.
  void burstEnd(const std::vector<Action>& burst, std::vector<Action>& out) const override {
    for (const Action& a : burst) {
      if (const Corrupt* torn = actionValue<MacFecAgent, Corrupt>(a)) {
        out.push_back(macFec::action(Rewrite{torn->row}));
      }
    }
  }

 private:
  // The rows of labels 5-6 and load balance 3: each over the others (or itself), or gone.
  Action cycleAction(Rng& r) const {
    const ObjTuple lb = ObjTuple::loadBalance(L2Rib::LoadBalanceId(cycleLb));
    auto loopLabel = [&] { return anyLabelFrom(r, cycleLabel, 2); };
    switch (r.below(4)) {
      case 0:
      case 1: {
        Label a;
        a.id = loopLabel().id();
        a.mpls = Quil::MplsLabel(1005 + static_cast<std::uint32_t>(r.below(2)));
        a.next = r.chance(0.7) ? loopLabel() : lb;
        return macFec::action(a);
      }
      case 2: {
        LoadBalance a;
        a.id = cycleLb;
        for (std::uint64_t n = 1 + r.below(2); n > 0; --n) {
          const std::uint64_t pick = r.below(3);
          a.next.push_back(pick == 0 ? lb : pick == 1 ? loopLabel() : anyDest(r));
        }
        return macFec::action(a);
      }
      default:
        if (r.chance(0.5)) return macFec::action(LabelDel{loopLabel().id()});
        return macFec::action(LoadBalanceDel{cycleLb});
    }
  }

  // A torn row of the world's RIB: an object, or a host. With chain length 3 a load balance
  // copies the label and tunnel of each label it lists, and the rewrite of such a label's (or its
  // destination's) torn row does not reach it (docs/decisions.md): those worlds tear hosts and
  // load balances only.
  Action tornAction(Rng& r) const {
    Corrupt a;
    switch (r.below(w_.chainLength == 3 ? 2 : 4)) {
      case 0:
        a.row.host = anyHost(r);
        break;
      case 1:
        a.row.object = anyLb(r);
        break;
      case 2:
        a.row.object = anyLabel(r, labelCount);
        break;
      default:
        a.row.object = anyDest(r);
        break;
    }
    return macFec::action(a);
  }

  World w_;
  const FuzzOptions& o_;
};

}  // namespace

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) {
  return std::make_unique<MacFuzz>(rng, options);
}

}  // namespace Sim::macFec
