#pragma once
// EvpnFloodSetFecSm gives every (tunnel, MPLS label) pair of the MPLS flood lists a FEC of its own:
// a FEC id from its allocator (the index with 12 in the top byte), the FEC definition and a
// hardware FEC id request in the request table, and, once the chip answers with a hardware id and a
// layer-2 interface, the pair's HwInfoMapping entry, which the VLAN flood-set machine needs to
// write the pair's members.
//
// A FEC outlives the pair's last flood-list member until the chip reports that member gone from
// every hardware flood list (EvpnVlanFloodSetHwStatus); its id goes back to the allocator only
// when the request is gone and the chip has withdrawn its answer, and is handed out again only
// after the allocator's 10-second expiry.
//
//   auto sm = Oba::evpnFloodSetFecSmFactory(mplsFloodSet, hwTunnelIdMapping, vlanFloodSetHwStatus,
//                                           fecRequest, fecResponse, hwInfoMapping, timerWheel);

#include <cstdint>

#include "Bridging/MacVlanPair.h"
#include "Bridging/VlanId.h"
#include "Kiv/Reactor.h"
#include "L2Rib/Dest.h"
#include "L2Rib/FloodSet.h"
#include "Mox/NumAllocator.h"
#include "Mox/TimerWheel.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaFecNumbers.h"
#include "Oba/ObaFecRecords.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnFloodSetWatch.h"
#include "Quil/EthAddr.h"
#include "Shoal/Fib.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

class OBA_EXPORT EvpnFloodSetFecSm : public Kiv::PtrInterface, public FecNumberAllocation {
 public:
  using TunnelId = Tunnel::TunnelTable::TunnelId;
  using FecId = Shoal::Fib::FecId;

  // Flood-set FEC ids: the allocator's index with this type in the top byte.
  static constexpr std::uint64_t fecIdType = 12;
  static constexpr Mox::Range fecIndexRange{0, 0xffffffffll};

  static Kiv::Ptr<EvpnFloodSetFecSm> EvpnFloodSetFecSmIs(
      const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
      const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
      const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus,
      const Kiv::Ptr<FecIdToHwFecIdRequest>& mplsFloodSetFecRequest,
      const Kiv::Ptr<const FecIdToHwFecIdResponse>& mplsFloodSetFecResponse,
      const Kiv::Ptr<HwInfoMapping>& hwInfoMapping, const Kiv::Ptr<Mox::TimerWheel>& timerWheel);
  EvpnFloodSetFecSm(const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
                    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
                    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus,
                    const Kiv::Ptr<FecIdToHwFecIdRequest>& mplsFloodSetFecRequest,
                    const Kiv::Ptr<const FecIdToHwFecIdResponse>& mplsFloodSetFecResponse,
                    const Kiv::Ptr<HwInfoMapping>& hwInfoMapping,
                    const Kiv::Ptr<Mox::TimerWheel>& timerWheel);

  // Reactors: what each watches and where it forwards.
  using KivFloodSetOutput = FloodSetWatch<EvpnFloodSetFecSm>::KivFloodSetOutput;
  using KivVlanFloodSet = FloodSetWatch<EvpnFloodSetFecSm>::KivVlanFloodSet;
  using KivFloodSet = FloodSetWatch<EvpnFloodSetFecSm>::KivFloodSet;
  using KivVlanFloodSetHwStatus = FloodSetWatch<EvpnFloodSetFecSm>::KivVlanFloodSetHwStatus;
  using KivVlanFloodSetStatus = FloodSetWatch<EvpnFloodSetFecSm>::KivVlanFloodSetStatus;
  class KivHwTunnelIdMapping : public Kiv::Reactor<TunnelIdToHwTunnelIdMapping, EvpnFloodSetFecSm> {
   public:
    using Reactor::Reactor;
    void onTunnelIdToHwTunnelId(const TunnelId& tunnelId) override {
      owner()->handleHwTunnelIdMapping(tunnelId);
    }
  };
  // The chip writes an answer's hardware id and its layer-2 interface separately: either change
  // is the answer's.
  class KivMplsFloodSetFecResponse
      : public Kiv::Reactor<FecIdToHwFecIdResponse, EvpnFloodSetFecSm> {
   public:
    using Reactor::Reactor;
    void onHwFecId(const FecId& fecId) override { owner()->handleFecResponse(fecId); }
    void onL2IntfId(const FecId& fecId) override { owner()->handleFecResponse(fecId); }
  };

  // Inputs and outputs.
  KIV_REACTOR(floodSetOutput, KivFloodSetOutput, "Oba::EvpnFloodSetFecSm")
  KIV_REACTOR_COLLECTION(vlanFloodSet, Bridging::VlanId, KivVlanFloodSet, handleVlanFloodSet,
                         "Oba::EvpnFloodSetFecSm")
  KIV_REACTOR(hwTunnelIdMapping, KivHwTunnelIdMapping, "Oba::EvpnFloodSetFecSm")
  KIV_REACTOR(vlanFloodSetHwStatus, KivVlanFloodSetHwStatus, "Oba::EvpnFloodSetFecSm")
  KIV_REACTOR_COLLECTION(vlanFloodSetStatus, Bridging::MacVlanPair, KivVlanFloodSetStatus,
                         handleVlanFloodSetStatus, "Oba::EvpnFloodSetFecSm")
  const Kiv::Ptr<FecIdToHwFecIdRequest>& mplsFloodSetFecRequest() const { return request_; }
  KIV_REACTOR(mplsFloodSetFecResponse, KivMplsFloodSetFecResponse, "Oba::EvpnFloodSetFecSm")
  const Kiv::Ptr<HwInfoMapping>& hwInfoMapping() const { return hwInfoMapping_; }
  const Kiv::Ptr<Mox::TimerWheel>& timerWheel() const { return timerWheel_; }

  // Internal state.
  KIV_COLLECTION(fecIdCache, FecId, MplsFloodSetVia)            // the pair of a FEC id
  KIV_COLLECTION(mplsFloodSetViaCache, MplsFloodSetVia, FecId)  // the FEC id of a pair
  KIV_CHILD_COLLECTION(floodSetEntryCache, MplsFloodSetVia,
                       MplsFloodSetViaToVlanMacDestSet)  // input members using a pair
  KIV_CHILD_COLLECTION(floodSetStatusCache, MplsFloodSetVia,
                       MplsFloodSetViaToFloodSetStatus)  // flood lists the chip programmed it in
  KIV_CHILD_COLLECTION(tunnelInfoCache, TunnelId, TunnelIdToMplsFloodSetVia)  // requested pairs
  KIV_SCALAR(initialized, bool, false)

  // Handlers.
  void handleInitialized();
  void handleVlanFloodSet(const L2Rib::VlanFloodSet& vlanFloodSet);
  void handleFloodSet(Bridging::VlanId vlanId, const L2Rib::FloodSet& floodSet);
  void handleDestSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                     const L2Rib::Dest& dest);
  void handleHwTunnelIdMapping(const TunnelId& tunnelId);
  void handleFecResponse(const FecId& fecId);
  void handleVlanFloodSetStatus(const VlanFloodSetStatus& status);
  void handleMplsDestStatus(const Bridging::MacVlanPair& macVlanPair,
                            const MplsDestConfig& mplsDestConfig);

  // Operations.
  void processMplsDest(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                       const L2Rib::Dest& dest);
  void processFecRequest(const MplsFloodSetVia& via);
  void createOrUpdateFecRequest(const MplsFloodSetVia& via);
  void removeFecRequest(const MplsFloodSetVia& via);
  FecId getOrAllocateFecId(const MplsFloodSetVia& via);
  Shoal::Fib::Fec buildFec(const FecId& fecId, const MplsFloodSetVia& via) const;
  void updateCachesForFecId(const FecId& fecId, const MplsFloodSetVia& via, bool remove);
  void updateTunnelInfoCache(const MplsFloodSetVia& via, bool remove);
  void maybeDeleteFecId(const FecId& fecId);
  bool hasFecResponse(const FecId& fecId) const;
  bool isDestInFloodSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                        const L2Rib::Dest& dest) const;
  bool isMplsDestConfigProgrammed(const Bridging::MacVlanPair& macVlanPair,
                                  const MplsDestConfig& mplsDestConfig) const;
  static FecId indexToFecId(std::int64_t index);

 private:
  Kiv::Ptr<FecIdToHwFecIdRequest> request_;
  Kiv::Ptr<HwInfoMapping> hwInfoMapping_;
  Kiv::Ptr<Mox::TimerWheel> timerWheel_;
};

OBA_EXPORT Kiv::Ptr<EvpnFloodSetFecSm> evpnFloodSetFecSmFactory(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& mplsFloodSetFecRequest,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& mplsFloodSetFecResponse,
    const Kiv::Ptr<HwInfoMapping>& hwInfoMapping, const Kiv::Ptr<Mox::TimerWheel>& timerWheel);

}  // namespace Oba
