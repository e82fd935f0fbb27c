#pragma once
// Oba::VlanFloodSetFilterSm mirrors one layer-2 flood-set table into another, keeping only the
// destinations of one type: the same VLANs, MAC addresses and flood-set types, but destination
// sets that hold only destinations whose destType is the machine's (the tunnel destinations of the
// RIB's full flood set, for instance).
//
//   auto sm = Oba::vlanFloodSetFilterSmFactory(L2Rib::destTypeMpls_, l2RibFloodSet, mplsFloodSet);
//
// The machine is the output's only writer. It brings the output up to date when it is made and
// then follows the input: one reactor per input VLAN, one per input flood set. Destroying it leaves
// the output as it is.

#include <cstdint>

#include "Bridging/VlanId.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reactor.h"
#include "L2Rib/Dest.h"
#include "L2Rib/FloodSet.h"
#include "Oba/ObaExport.h"
#include "Quil/EthAddr.h"

namespace Oba {

class OBA_EXPORT VlanFloodSetFilterSm : public Kiv::PtrInterface {
 public:
  // Both tables are required; a null input is refused with the null-parameter range error.
  static Kiv::Ptr<VlanFloodSetFilterSm> VlanFloodSetFilterSmIs(
      L2Rib::DestType destType, Kiv::Ptr<const L2Rib::FloodSetOutput> inFloodSetOutput,
      Kiv::Ptr<L2Rib::FloodSetOutput> outFloodSetOutput);
  VlanFloodSetFilterSm(L2Rib::DestType destType,
                       Kiv::Ptr<const L2Rib::FloodSetOutput> inFloodSetOutput,
                       Kiv::Ptr<L2Rib::FloodSetOutput> outFloodSetOutput);

  // Reactors: each names what it watches and where it forwards.
  class KivVlanFloodSet;
  // Per input flood set: onDestSet -> handleDestSet; made and retired -> handleFloodSet.
  class KivFloodSet : public Kiv::Reactor<L2Rib::FloodSet, KivVlanFloodSet> {
   public:
    using Reactor::Reactor;
    void onDestSet(const L2Rib::Dest& dest) override { handleDestSet(dest); }
    void handleFloodSet();
    void handleDestSet(const L2Rib::Dest& dest);
  };
  // Per input VLAN: onFloodSet -> makes or retires that MAC's reactor; made and retired ->
  // handleVlanFloodSet. Makes the reactors of the MACs the VLAN already holds when it is made.
  class KivVlanFloodSet : public Kiv::Reactor<L2Rib::VlanFloodSet, VlanFloodSetFilterSm> {
   public:
    KivVlanFloodSet(const Kiv::Ptr<const L2Rib::VlanFloodSet>& vlanFloodSet,
                    VlanFloodSetFilterSm* owner);
    void onFloodSet(const Quil::EthAddr& mac) override;
    void handleVlanFloodSet();
    KIV_REACTOR_COLLECTION(floodSet, Quil::EthAddr, KivFloodSet, handleFloodSet,
                           "Oba::VlanFloodSetFilterSm::KivVlanFloodSet")
  };
  // The input table: onSource -> handleSource; onVlanFloodSet -> makes or retires that VLAN's
  // reactor.
  class KivInFloodSetOutput : public Kiv::Reactor<L2Rib::FloodSetOutput, VlanFloodSetFilterSm> {
   public:
    using Reactor::Reactor;
    void onSource() override { owner()->handleSource(); }
    void onVlanFloodSet(const Bridging::VlanId& vlan) override;
  };

  // Inputs and outputs.
  L2Rib::DestType destType() const { return destType_; }
  KIV_REACTOR(inFloodSetOutput, KivInFloodSetOutput, "Oba::VlanFloodSetFilterSm")
  const Kiv::Ptr<L2Rib::FloodSetOutput>& outFloodSetOutput() const { return outFloodSetOutput_; }

  // State.
  KIV_SCALAR(initialized, bool, false)
  KIV_REACTOR_COLLECTION(vlanFloodSet, Bridging::VlanId, KivVlanFloodSet, handleVlanFloodSet,
                         "Oba::VlanFloodSetFilterSm")

  // Handlers.
  void handleInitialized();
  void handleSource();

 private:
  // Operations.
  void processVlanFloodSet(Bridging::VlanId vlan);
  void processFloodSet(Bridging::VlanId vlan, const Quil::EthAddr& mac);
  void processDest(Bridging::VlanId vlan, const Quil::EthAddr& mac, const L2Rib::Dest& dest);
  bool isDestPresent(Bridging::VlanId vlan, const Quil::EthAddr& mac,
                     const L2Rib::Dest& dest) const;
  void addDest(Bridging::VlanId vlan, const Quil::EthAddr& mac, const L2Rib::Dest& dest);
  void deleteDest(Bridging::VlanId vlan, const Quil::EthAddr& mac, const L2Rib::Dest& dest);

  // The input's flood set for (vlan, mac), or null when either level is missing.
  Kiv::Ptr<const L2Rib::FloodSet> inFloodSet(Bridging::VlanId vlan, const Quil::EthAddr& mac) const;

  const L2Rib::DestType destType_;
  const Kiv::Ptr<L2Rib::FloodSetOutput> outFloodSetOutput_;
};

OBA_EXPORT Kiv::Ptr<VlanFloodSetFilterSm> vlanFloodSetFilterSmFactory(
    L2Rib::DestType destType, Kiv::Ptr<const L2Rib::FloodSetOutput> inFloodSetOutput,
    Kiv::Ptr<L2Rib::FloodSetOutput> outFloodSetOutput);

}  // namespace Oba
