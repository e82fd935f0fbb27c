#pragma once
// What the two MPLS flood-set machines watch alike: the flood lists (per VLAN, per flood MAC, a
// set of MPLS destinations) and the chip's per-member results for each hardware flood list. Each
// machine takes these reactors as its own,
//
//   using KivFloodSetOutput = FloodSetWatch<EvpnVlanFloodSetSm>::KivFloodSetOutput;
//
// and gives the handlers they forward to:
//
//   handleVlanFloodSet(vlanFloodSet)          a VLAN's reactor was made, or retired
//   handleFloodSet(vlanId, floodSet)          a flood list's reactor was made, or retired
//   handleDestSet(vlanId, macAddr, dest)      a destination was added to or removed from a list
//   handleVlanFloodSetStatus(status)          a flood list's result reactor was made, or retired
//   handleMplsDestStatus(macVlanPair, config) the chip reported on one member
//
// A reactor's last (zombie) pass hands the handler the entity that went, still holding what it
// held, so walking it settles every member it had: the input answers "gone" for each.
//
// Also here, the two tests both machines make of their inputs.

#include "Bridging/MacVlanPair.h"
#include "Bridging/VlanId.h"
#include "Kiv/Reactor.h"
#include "L2Rib/Dest.h"
#include "L2Rib/FloodSet.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Quil/EthAddr.h"

namespace Oba {

template <class Sm>
struct FloodSetWatch {
  class KivVlanFloodSet;
  // Per flood list: onDestSet -> handleDestSet; made and retired -> handleFloodSet.
  class KivFloodSet : public Kiv::Reactor<L2Rib::FloodSet, KivVlanFloodSet> {
   public:
    using Kiv::Reactor<L2Rib::FloodSet, KivVlanFloodSet>::Reactor;
    void onDestSet(const L2Rib::Dest& dest) override {
      sm()->handleDestSet(this->owner()->fwkKey(), this->fwkKey(), dest);
    }
    void handleFloodSet() { sm()->handleFloodSet(this->owner()->fwkKey(), *this->entity()); }
    Sm* sm() const { return this->owner()->owner(); }
  };
  // Per VLAN: onFloodSet -> makes or retires that MAC's reactor; made and retired ->
  // handleVlanFloodSet. Watches the MACs the VLAN already holds from its construction.
  class KivVlanFloodSet : public Kiv::Reactor<L2Rib::VlanFloodSet, Sm> {
   public:
    KivVlanFloodSet(const Kiv::Ptr<const L2Rib::VlanFloodSet>& vlanFloodSet, Sm* owner)
        : Kiv::Reactor<L2Rib::VlanFloodSet, Sm>(vlanFloodSet, owner) {
      for (auto [mac, floodSet] : vlanFloodSet->floodSetWalk()) floodSetIs(floodSet);
    }
    void onFloodSet(const Quil::EthAddr& mac) override {
      floodSetTrack(mac, this->entity()->floodSet(mac));
    }
    void handleVlanFloodSet() { this->owner()->handleVlanFloodSet(*this->entity()); }
    KIV_REACTOR_COLLECTION(floodSet, Quil::EthAddr, KivFloodSet, handleFloodSet,
                           "Oba::FloodSetWatch::KivVlanFloodSet")
  };
  // The flood lists: onVlanFloodSet -> makes or retires that VLAN's reactor.
  class KivFloodSetOutput : public Kiv::Reactor<L2Rib::FloodSetOutput, Sm> {
   public:
    using Kiv::Reactor<L2Rib::FloodSetOutput, Sm>::Reactor;
    void onVlanFloodSet(const Bridging::VlanId& vlan) override {
      this->owner()->vlanFloodSetTrack(vlan, this->entity()->vlanFloodSet(vlan));
    }
  };

  // Per hardware flood list: onMplsDestStatus -> handleMplsDestStatus; made and retired ->
  // handleVlanFloodSetStatus.
  class KivVlanFloodSetStatus : public Kiv::Reactor<VlanFloodSetStatus, Sm> {
   public:
    using Kiv::Reactor<VlanFloodSetStatus, Sm>::Reactor;
    void onMplsDestStatus(const MplsDestConfig& config) override {
      this->owner()->handleMplsDestStatus(this->fwkKey(), config);
    }
    void handleVlanFloodSetStatus() { this->owner()->handleVlanFloodSetStatus(*this->entity()); }
  };
  // The chip's results: onStatus -> makes or retires that flood list's reactor.
  class KivVlanFloodSetHwStatus : public Kiv::Reactor<EvpnVlanFloodSetHwStatus, Sm> {
   public:
    using Kiv::Reactor<EvpnVlanFloodSetHwStatus, Sm>::Reactor;
    void onStatus(const Bridging::MacVlanPair& pair) override {
      this->owner()->vlanFloodSetStatusTrack(pair, this->entity()->status(pair));
    }
  };
};

// Whether `dest` is a member of the flood list (vlanId, macAddr): the value the RIB stored with
// it, false when the list, its VLAN or the whole table is absent.
inline bool isDestInFloodSet(const L2Rib::FloodSetOutput* floodSetOutput, Bridging::VlanId vlanId,
                             const Quil::EthAddr& macAddr, const L2Rib::Dest& dest) {
  if (!floodSetOutput) return false;
  auto vlanFloodSet = floodSetOutput->vlanFloodSet(vlanId);
  if (!vlanFloodSet) return false;
  auto floodSet = vlanFloodSet->floodSet(macAddr);
  return floodSet && floodSet->destSet(dest).value_or(false);
}

// Whether the chip reports `config` programmed in the flood list `macVlanPair`.
inline bool isMplsDestConfigProgrammed(const EvpnVlanFloodSetHwStatus* hwStatus,
                                       const Bridging::MacVlanPair& macVlanPair,
                                       const MplsDestConfig& config) {
  if (!hwStatus) return false;
  auto status = hwStatus->status(macVlanPair);
  return status && status->mplsDestStatus(config) == HwProgrammingStatus::programmed;
}

// Every destination of a VLAN's flood lists, with its MAC.
template <class Fn>
void forEachDest(const L2Rib::VlanFloodSet& vlanFloodSet, Fn fn) {
  for (auto [mac, floodSet] : vlanFloodSet.floodSetWalk()) {
    for (auto [dest, member] : floodSet->destSetWalk()) fn(mac, dest);
  }
}

}  // namespace Oba
