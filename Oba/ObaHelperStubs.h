#pragma once
// Recording stubs of the chip helpers, so that the state machines can be exercised without a chip.
//
// Each stub overrides every operation of its interface: it records the arguments of the last call
// in watched attributes, counts the call, and returns a result the test sets beforehand. Every
// attribute has the xIs(v) setter (which tells the notifiees only when the value changes); the
// counters also have xInc(n).
//
//   auto helper = ObaHelper::evpnHwTunnelIdSmHelperStubFactory("hwTunnelIdHelper");
//   helper->hwTunnelIdExhaustedIs(true);        // the chip has no id left: getHwTunnelId() gives 0
//   ... run the machine ...
//   EXPECT_EQ(helper->getHwTunnelIdCount(), 1u);
//
// A test watches a stub through its NotifieeConst, e.g. onCreateEsiDataCount() to hear every
// createEsiData() call. The arguments are recorded before the count moves, so a notifiee of the
// count reads the arguments of the call it is told about.

#include <cstdint>

#include "Bridging/VlanId.h"
#include "Bridging/VlanIdOrNone.h"
#include "Kiv/Entity.h"
#include "Kiv/Ptr.h"
#include "Kiv/Types.h"
#include "Mpls/ReturnCode.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/HwTunnelId.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaHelpers.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"

namespace ObaHelper {

class OBA_EXPORT EsiFilteringDecapHelperStub : public EsiFilteringDecapHelper,
                                               public Kiv::Notifier<EsiFilteringDecapHelperStub> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<EsiFilteringDecapHelperStub> {
   public:
    KIV_NOTIFIEE_SCALAR(CreateEsiPortMapRc)
    KIV_NOTIFIEE_SCALAR(CreateEsiPortMapCount)
    KIV_NOTIFIEE_SCALAR(CreateEsiPortMapLabel)
    KIV_NOTIFIEE_SCALAR(CreateEsiPortMapIntfId)
    KIV_NOTIFIEE_SCALAR(DeleteEsiPortMapCount)
    KIV_NOTIFIEE_SCALAR(DeleteEsiPortMapLabel)
    KIV_NOTIFIEE_SCALAR(DeleteEsiPortMapIntfId)
  };

  explicit EsiFilteringDecapHelperStub(Kiv::Name name);

  Mpls::LfibHwProgrammingReturnCode createEsiPortMap(Quil::MplsLabel label,
                                                     Quil::IntfId intfId) override;
  void deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId intfId) override;

  KIV_WATCHED_SCALAR(createEsiPortMapRc, CreateEsiPortMapRc, Mpls::LfibHwProgrammingReturnCode,
                     Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess)
  KIV_WATCHED_COUNTER(createEsiPortMapCount, CreateEsiPortMapCount, std::uint32_t, 0)
  KIV_WATCHED_SCALAR(createEsiPortMapLabel, CreateEsiPortMapLabel, Quil::MplsLabel,
                     Quil::MplsLabel())
  KIV_WATCHED_SCALAR(createEsiPortMapIntfId, CreateEsiPortMapIntfId, Quil::IntfId, Quil::IntfId())
  KIV_WATCHED_COUNTER(deleteEsiPortMapCount, DeleteEsiPortMapCount, std::uint32_t, 0)
  KIV_WATCHED_SCALAR(deleteEsiPortMapLabel, DeleteEsiPortMapLabel, Quil::MplsLabel,
                     Quil::MplsLabel())
  KIV_WATCHED_SCALAR(deleteEsiPortMapIntfId, DeleteEsiPortMapIntfId, Quil::IntfId, Quil::IntfId())
};

class OBA_EXPORT EvpnFloodingSmHelperStub : public EvpnFloodingSmHelper,
                                            public Kiv::Notifier<EvpnFloodingSmHelperStub> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<EvpnFloodingSmHelperStub> {
   public:
    KIV_NOTIFIEE_SCALAR(CreateVlanToDot1qIntfId)
    KIV_NOTIFIEE_SCALAR(CreateVlanToDot1qVlanId)
    KIV_NOTIFIEE_SCALAR(CreateVlanToDot1qDot1q)
    KIV_NOTIFIEE_SCALAR(CreateVlanToDot1qCount)
    KIV_NOTIFIEE_SCALAR(CreateVlanToDot1qRc)
    KIV_NOTIFIEE_SCALAR(DeleteVlanToDot1qIntfId)
    KIV_NOTIFIEE_SCALAR(DeleteVlanToDot1qVlanId)
    KIV_NOTIFIEE_SCALAR(DeleteVlanToDot1qDot1q)
    KIV_NOTIFIEE_SCALAR(DeleteVlanToDot1qCount)
    KIV_NOTIFIEE_SCALAR(CreateEsiDataIntfId)
    KIV_NOTIFIEE_SCALAR(CreateEsiDataVlanId)
    KIV_NOTIFIEE_SCALAR(CreateEsiDataTid)
    KIV_NOTIFIEE_SCALAR(CreateEsiDataHwTid)
    KIV_NOTIFIEE_SCALAR(CreateEsiDataLabel)
    KIV_NOTIFIEE_SCALAR(CreateEsiDataCount)
    KIV_NOTIFIEE_SCALAR(CreateEsiDataRc)
    KIV_NOTIFIEE_SCALAR(DeleteEsiDataIntfId)
    KIV_NOTIFIEE_SCALAR(DeleteEsiDataVlanId)
    KIV_NOTIFIEE_SCALAR(DeleteEsiDataCount)
  };

  explicit EvpnFloodingSmHelperStub(Kiv::Name name);

  Oba::HwProgrammingStatus createVlanToDot1qMapping(Quil::IntfId intfId, Bridging::VlanId vlanId,
                                                    Bridging::VlanIdOrNone dot1q) override;
  void deleteVlanToDot1qMapping(Quil::IntfId intfId, Bridging::VlanId vlanId,
                                Bridging::VlanIdOrNone dot1q) override;
  // Records the first label only: the second is not kept.
  Oba::HwProgrammingStatus createEsiData(Quil::IntfId intfId, Bridging::VlanId vlanId,
                                         const Tunnel::TunnelTable::TunnelId& tunnelId,
                                         Oba::HwTunnelId hwTunnelId, Quil::MplsLabel label,
                                         Quil::MplsLabel secondLabel) override;
  void deleteEsiData(Quil::IntfId intfId, Bridging::VlanId vlanId) override;

  KIV_WATCHED_SCALAR(createVlanToDot1qIntfId, CreateVlanToDot1qIntfId, Quil::IntfId, Quil::IntfId())
  KIV_WATCHED_SCALAR(createVlanToDot1qVlanId, CreateVlanToDot1qVlanId, Bridging::VlanId,
                     Bridging::VlanId(1))
  KIV_WATCHED_SCALAR(createVlanToDot1qDot1q, CreateVlanToDot1qDot1q, Bridging::VlanIdOrNone,
                     Bridging::VlanIdOrNone())
  KIV_WATCHED_COUNTER(createVlanToDot1qCount, CreateVlanToDot1qCount, std::uint32_t, 0)
  KIV_WATCHED_SCALAR(createVlanToDot1qRc, CreateVlanToDot1qRc, Oba::HwProgrammingStatus,
                     Oba::HwProgrammingStatus::programmed)
  KIV_WATCHED_SCALAR(deleteVlanToDot1qIntfId, DeleteVlanToDot1qIntfId, Quil::IntfId, Quil::IntfId())
  KIV_WATCHED_SCALAR(deleteVlanToDot1qVlanId, DeleteVlanToDot1qVlanId, Bridging::VlanId,
                     Bridging::VlanId(1))
  KIV_WATCHED_SCALAR(deleteVlanToDot1qDot1q, DeleteVlanToDot1qDot1q, Bridging::VlanIdOrNone,
                     Bridging::VlanIdOrNone())
  KIV_WATCHED_COUNTER(deleteVlanToDot1qCount, DeleteVlanToDot1qCount, std::uint32_t, 0)
  KIV_WATCHED_SCALAR(createEsiDataIntfId, CreateEsiDataIntfId, Quil::IntfId, Quil::IntfId())
  KIV_WATCHED_SCALAR(createEsiDataVlanId, CreateEsiDataVlanId, Bridging::VlanId,
                     Bridging::VlanId(1))
  KIV_WATCHED_SCALAR(createEsiDataTid, CreateEsiDataTid, Tunnel::TunnelTable::TunnelId,
                     Tunnel::TunnelTable::TunnelId())
  KIV_WATCHED_SCALAR(createEsiDataHwTid, CreateEsiDataHwTid, Oba::HwTunnelId, Oba::HwTunnelId(0))
  KIV_WATCHED_SCALAR(createEsiDataLabel, CreateEsiDataLabel, Quil::MplsLabel, Quil::MplsLabel())
  KIV_WATCHED_COUNTER(createEsiDataCount, CreateEsiDataCount, std::uint32_t, 0)
  // Starts at programmed: a stub succeeds unless the test says otherwise, like the other creates.
  KIV_WATCHED_SCALAR(createEsiDataRc, CreateEsiDataRc, Oba::HwProgrammingStatus,
                     Oba::HwProgrammingStatus::programmed)
  KIV_WATCHED_SCALAR(deleteEsiDataIntfId, DeleteEsiDataIntfId, Quil::IntfId, Quil::IntfId())
  KIV_WATCHED_SCALAR(deleteEsiDataVlanId, DeleteEsiDataVlanId, Bridging::VlanId,
                     Bridging::VlanId(1))
  KIV_WATCHED_COUNTER(deleteEsiDataCount, DeleteEsiDataCount, std::uint32_t, 0)
};

class OBA_EXPORT EvpnHwTunnelIdSmHelperStub : public EvpnHwTunnelIdSmHelper,
                                              public Kiv::Notifier<EvpnHwTunnelIdSmHelperStub> {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<EvpnHwTunnelIdSmHelperStub> {
   public:
    KIV_NOTIFIEE_SCALAR(HwTunnelIdExhausted)
    KIV_NOTIFIEE_SCALAR(HwTunnelIdIndex)
    KIV_NOTIFIEE_SCALAR(GetHwTunnelIdCount)
    KIV_NOTIFIEE_SCALAR(ReleaseHwTunnelIdCount)
    KIV_NOTIFIEE_SCALAR(ReleaseHwTunnelIdHwTunnelId)
  };

  explicit EvpnHwTunnelIdSmHelperStub(Kiv::Name name);

  // Counts the call; 0 while hwTunnelIdExhausted, else hwTunnelIdIndex, which then moves on. Ids
  // are never reused, so a test can tell every allocation apart.
  Oba::HwTunnelId getHwTunnelId() override;
  // Counts and records the id; it does not go back to the pool.
  void releaseHwTunnelId(Oba::HwTunnelId hwTunnelId) override;

  KIV_WATCHED_SCALAR(hwTunnelIdExhausted, HwTunnelIdExhausted, bool, false)
  // The next id to hand out.
  KIV_WATCHED_COUNTER(hwTunnelIdIndex, HwTunnelIdIndex, std::uint32_t, 1)
  KIV_WATCHED_COUNTER(getHwTunnelIdCount, GetHwTunnelIdCount, std::uint32_t, 0)
  KIV_WATCHED_COUNTER(releaseHwTunnelIdCount, ReleaseHwTunnelIdCount, std::uint32_t, 0)
  KIV_WATCHED_SCALAR(releaseHwTunnelIdHwTunnelId, ReleaseHwTunnelIdHwTunnelId, Oba::HwTunnelId,
                     Oba::HwTunnelId(0))
};

OBA_EXPORT Kiv::Ptr<EsiFilteringDecapHelperStub> esiFilteringDecapHelperStubFactory(Kiv::Name name);
OBA_EXPORT Kiv::Ptr<EvpnFloodingSmHelperStub> evpnFloodingSmHelperStubFactory(Kiv::Name name);
OBA_EXPORT Kiv::Ptr<EvpnHwTunnelIdSmHelperStub> evpnHwTunnelIdSmHelperStubFactory(Kiv::Name name);

}  // namespace ObaHelper
