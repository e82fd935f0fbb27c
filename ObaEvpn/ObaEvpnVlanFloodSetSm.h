#pragma once
// EvpnVlanFloodSetSm writes the hardware flood lists of EVPN VLANs whose remote members sit behind
// MPLS tunnels. Each member of a (VLAN, MAC) flood list joins three things that come in any order:
// its membership (the RIB's MPLS-only flood sets), the hardware tunnel id of its tunnel (the
// tunnel-id mapping) and the chip's identifiers for its (tunnel, label) pair (HwInfoMapping, from
// the flood-set FEC machine). A member is written to EvpnVlanFloodSetHwConfig only while it is in
// its flood list and its pair has hardware identifiers. A change of identifiers adds the new
// member before it removes the old one, so the list never lacks the destination; an emptied list
// is removed whole. The chip's per-member results are only traced.
//
//   auto sm = Oba::evpnVlanFloodSetSmFactory(mplsFloodSet, hwTunnelIdMapping, hwInfoMapping,
//                                            vlanFloodSetHwConfig, vlanFloodSetHwStatus);
//
// The machine is the configuration's only writer and clears it when it starts.

#include "Bridging/MacVlanPair.h"
#include "Bridging/VlanId.h"
#include "Kiv/Reactor.h"
#include "L2Rib/Dest.h"
#include "L2Rib/FloodSet.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnFloodSetWatch.h"
#include "Quil/EthAddr.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

class OBA_EXPORT EvpnVlanFloodSetSm : public Kiv::PtrInterface {
 public:
  using TunnelId = Tunnel::TunnelTable::TunnelId;

  static Kiv::Ptr<EvpnVlanFloodSetSm> EvpnVlanFloodSetSmIs(
      const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
      const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
      const Kiv::Ptr<const HwInfoMapping>& hwInfoMapping,
      const Kiv::Ptr<EvpnVlanFloodSetHwConfig>& vlanFloodSetHwConfig,
      const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus);
  EvpnVlanFloodSetSm(const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
                     const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
                     const Kiv::Ptr<const HwInfoMapping>& hwInfoMapping,
                     const Kiv::Ptr<EvpnVlanFloodSetHwConfig>& vlanFloodSetHwConfig,
                     const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus);

  // Reactors: what each watches and where it forwards.
  using KivFloodSetOutput = FloodSetWatch<EvpnVlanFloodSetSm>::KivFloodSetOutput;
  using KivVlanFloodSet = FloodSetWatch<EvpnVlanFloodSetSm>::KivVlanFloodSet;
  using KivFloodSet = FloodSetWatch<EvpnVlanFloodSetSm>::KivFloodSet;
  using KivVlanFloodSetHwStatus = FloodSetWatch<EvpnVlanFloodSetSm>::KivVlanFloodSetHwStatus;
  using KivVlanFloodSetStatus = FloodSetWatch<EvpnVlanFloodSetSm>::KivVlanFloodSetStatus;
  class KivHwTunnelIdMapping
      : public Kiv::Reactor<TunnelIdToHwTunnelIdMapping, EvpnVlanFloodSetSm> {
   public:
    using Reactor::Reactor;
    void onTunnelIdToHwTunnelId(const TunnelId& tunnelId) override {
      owner()->handleHwTunnelIdMapping(tunnelId);
    }
  };
  class KivHwInfoMapping : public Kiv::Reactor<HwInfoMapping, EvpnVlanFloodSetSm> {
   public:
    using Reactor::Reactor;
    void onMapping(const MplsFloodSetVia& via) override { owner()->handleHwInfoMapping(via); }
  };

  // Inputs and outputs.
  KIV_REACTOR(floodSetOutput, KivFloodSetOutput, "Oba::EvpnVlanFloodSetSm")
  KIV_REACTOR_COLLECTION(vlanFloodSet, Bridging::VlanId, KivVlanFloodSet, handleVlanFloodSet,
                         "Oba::EvpnVlanFloodSetSm")
  KIV_REACTOR(hwTunnelIdMapping, KivHwTunnelIdMapping, "Oba::EvpnVlanFloodSetSm")
  KIV_REACTOR(hwInfoMapping, KivHwInfoMapping, "Oba::EvpnVlanFloodSetSm")
  const Kiv::Ptr<EvpnVlanFloodSetHwConfig>& vlanFloodSetHwConfig() const { return hwConfig_; }
  KIV_REACTOR(vlanFloodSetHwStatus, KivVlanFloodSetHwStatus, "Oba::EvpnVlanFloodSetSm")
  KIV_REACTOR_COLLECTION(vlanFloodSetStatus, Bridging::MacVlanPair, KivVlanFloodSetStatus,
                         handleVlanFloodSetStatus, "Oba::EvpnVlanFloodSetSm")

  // Internal state.
  KIV_COLLECTION(mplsDestHwConfig, VlanMacDest, MplsDestConfig)  // the member as last written
  KIV_CHILD_COLLECTION(tunnelToFloodSetEntry, TunnelId, TunnelVlanMacDestSet)  // by tunnel
  KIV_CHILD_COLLECTION(hwInfoMapKeyToFloodSetEntry, MplsFloodSetVia,
                       MplsFloodSetViaToVlanMacDestSet)  // by (tunnel, label)
  KIV_SCALAR(initialized, bool, false)

  // Handlers.
  void handleInitialized();
  void handleVlanFloodSet(const L2Rib::VlanFloodSet& vlanFloodSet);
  void handleFloodSet(Bridging::VlanId vlanId, const L2Rib::FloodSet& floodSet);
  void handleDestSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                     const L2Rib::Dest& dest);
  void handleHwTunnelIdMapping(const TunnelId& tunnelId);
  void handleHwInfoMapping(const MplsFloodSetVia& via);
  void handleVlanFloodSetStatus(const VlanFloodSetStatus& status);
  void handleMplsDestStatus(const Bridging::MacVlanPair& macVlanPair,
                            const MplsDestConfig& mplsDestConfig);

  // Operations.
  void processMplsDest(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                       const L2Rib::Dest& dest);
  void updateInternalMapping(const VlanMacDest& vlanMacDest);
  void processMplsDestConfig(const VlanMacDest& vlanMacDest);
  MplsDestConfig createMplsDestConfig(const L2Rib::Dest& dest) const;
  void addOrUpdateMplsDestHwConfig(const VlanMacDest& vlanMacDest);
  void deleteMplsDestHwConfig(const VlanMacDest& vlanMacDest);
  bool isDestInFloodSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                        const L2Rib::Dest& dest) const;
  bool isMplsDestConfigProgrammed(const Bridging::MacVlanPair& macVlanPair,
                                  const MplsDestConfig& mplsDestConfig) const;

 private:
  Kiv::Ptr<EvpnVlanFloodSetHwConfig> hwConfig_;
};

OBA_EXPORT Kiv::Ptr<EvpnVlanFloodSetSm> evpnVlanFloodSetSmFactory(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const HwInfoMapping>& hwInfoMapping,
    const Kiv::Ptr<EvpnVlanFloodSetHwConfig>& vlanFloodSetHwConfig,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus);

}  // namespace Oba
