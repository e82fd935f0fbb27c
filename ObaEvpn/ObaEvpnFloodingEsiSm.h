#pragma once
// EvpnFloodingEsiSm programs the split-horizon ESI data of every Ethernet segment this switch
// shares with a remote provider edge: per physical port and VLAN, the tunnel towards the
// designated forwarder, its hardware tunnel id, the remote ESI label that forwarder advertises and
// the locally allocated ESI label. A LAG is programmed member by member. A (interface, VLAN) pair
// climbs candidate -> tunnel known -> label known -> ports programmed, and each lost prerequisite
// undoes the later stages in reverse, down to deleteEsiData per port. Ports the chip refuses wait
// as unprogrammed and a review retries them every five seconds.
//
// The owning agent makes it with evpnFloodingEsiSmFactory(helper, scheduler, acsd, evpnStatus,
// tunnelIdHwTunnelId) and keeps it; from then on it follows its inputs by itself.

#include "Bridging/VlanId.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Reactor.h"
#include "Mox/TaskReactor.h"
#include "Mox/TaskScheduler.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaHelpers.h"
#include "Oba/ObaKeys.h"
#include "Oba/ObaPortProgramming.h"
#include "Oba/ObaSets.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

class OBA_EXPORT EvpnFloodingEsiSm : public Kiv::PtrInterface {
 public:
  using TunnelId = Tunnel::TunnelTable::TunnelId;

  static Kiv::Ptr<EvpnFloodingEsiSm> EvpnFloodingEsiSmIs(
      const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
      const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
      const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
      const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& tunnelIdHwTunnelId);
  EvpnFloodingEsiSm(const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
                    const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
                    const Kiv::Ptr<const ObaCommonSmData>& acsd,
                    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
                    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& tunnelIdHwTunnelId);

  // Reactors: what each watches and where it forwards.
  class KivEvpnStatus : public Kiv::Reactor<Evpn::EvpnStatus, EvpnFloodingEsiSm> {
   public:
    using Reactor::Reactor;
    void onSegmentStatus(const Quil::IntfId& intf) override;
    void onLocalEsiLabel(const Quil::IntfId& intf) override { owner()->handleLocalEsiLabel(intf); }
  };
  class KivSegmentStatus : public Kiv::Reactor<Evpn::EthernetSegmentStatus, EvpnFloodingEsiSm> {
   public:
    using Reactor::Reactor;
    void onDesignatedForwarderTep(const Bridging::VlanId& vlan) override { handleDFTep(vlan); }
    void onRemoteEsiLabel(const Quil::IntfId& tep) override { handleLabel(tep); }
    void handleSegmentStatus();
    void handleDFTep(Bridging::VlanId vlan);
    void handleLabel(Quil::IntfId tepIntf);
  };
  class KivAcsd : public Kiv::Reactor<ObaCommonSmData, EvpnFloodingEsiSm> {
   public:
    using Reactor::Reactor;
    void onLagToPort(const Quil::IntfId& lag) override { owner()->handleLagPort(lag); }
  };
  class KivTunnelIdHwTunnelId
      : public Kiv::Reactor<TunnelIdToHwTunnelIdMapping, EvpnFloodingEsiSm> {
   public:
    using Reactor::Reactor;
    void onTunnelIdToHwTunnelId(const TunnelId& tunnel) override {
      owner()->handleTunnelIdMapping(tunnel);
    }
  };
  class KivReviewUnprogrammed : public Mox::TaskReactor<EvpnFloodingEsiSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->kiv_handleReviewUnprogrammed_taskRun(); }
  };

  // Inputs.
  const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper() const { return helper_; }
  const Kiv::Ptr<Mox::TaskScheduler>& scheduler() const { return scheduler_; }
  KIV_REACTOR(acsd, KivAcsd, "Oba::EvpnFloodingEsiSm")
  KIV_REACTOR(evpnStatus, KivEvpnStatus, "Oba::EvpnFloodingEsiSm")
  KIV_REACTOR(tunnelIdHwTunnelId, KivTunnelIdHwTunnelId, "Oba::EvpnFloodingEsiSm")
  KIV_REACTOR_COLLECTION(segmentStatus, Quil::IntfId, KivSegmentStatus, handleSegmentStatus,
                         "Oba::EvpnFloodingEsiSm")
  MOX_TASK_REACTOR(reviewUnprogrammed, KivReviewUnprogrammed)

  // Internal state.
  KIV_ROWS(pair, IntfVlanKey, TunnelId, IntfVlanStatus)  // one row per (interface, VLAN) pair:
  KIV_ROW_COLLECTION(intfVlanTunnel, pair, 0)            //   the DF tunnel of the pair
  KIV_ROW_CHILD_COLLECTION(esiStatus, pair, 1)           //   its ports programmed or refused
  KIV_CHILD_COLLECTION(intfVlanSet, Quil::IntfId, IntfVlanSet)      // candidate VLANs of a segment
  KIV_CHILD_COLLECTION(vlanIntfSet, Bridging::VlanId, VlanIntfSet)  // and their segments
  KIV_CHILD_COLLECTION(tunnelIntfVlanSet, TunnelId, TunnelIntfVlanSet)  // the users of a tunnel
  KIV_CHILD_COLLECTION(intfTunnelVlanSet, IntfTunnelKey, IntfTunnelVlanSet)  // per segment too
  KIV_COLLECTION(intfVlanTunnelLabel, IntfVlanTunnelKey, Quil::MplsLabel)    // remote ESI label
  KIV_ORDERED_COLLECTION(unprogrammedEsi, IntfVlanKey, bool)  // pairs with a refused port
  OBA_PORT_PROGRAMMING(esiStatus, unprogrammedEsi)
  KIV_SCALAR(initialized, bool, false)
  KIV_SCALAR(defaultUnprogrammedRetryInterval, double, unprogrammedRetryIntervalDefault)

  // Handlers and operations.
  void handleInitialized();
  void handleLocalEsiLabel(Quil::IntfId intf);
  void handleLagPort(Quil::IntfId lag);
  void handleTunnelIdMapping(const TunnelId& tunnel);
  void addIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan);
  void deleteIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan);
  void processIntfVlan(Quil::IntfId intf, Bridging::VlanId vlan);
  void addOrUpdateIntfVlanTunnelMapping(Quil::IntfId intf, Bridging::VlanId vlan,
                                        const TunnelId& tunnel);
  void deleteIntfVlanTunnelMapping(Quil::IntfId intf, Bridging::VlanId vlan);
  void addOrUpdateIntfVlanTunnelLabelMapping(Quil::IntfId intf, Bridging::VlanId vlan,
                                             const TunnelId& tunnel, Quil::MplsLabel label);
  void deleteIntfVlanTunnelLabelMapping(Quil::IntfId intf, Bridging::VlanId vlan,
                                        const TunnelId& tunnel);
  void programEsi(Quil::IntfId intf, Bridging::VlanId vlan, Quil::MplsLabel label);
  void programEsiHelper(Quil::IntfId logical, Quil::IntfId phy, Bridging::VlanId vlan,
                        Quil::MplsLabel label);
  void unprogramEsi(Quil::IntfId intf, Bridging::VlanId vlan);
  void unprogramEsiHelper(Quil::IntfId logical, Quil::IntfId phy, Bridging::VlanId vlan);
  void maybeScheduleUnprogrammedReview(bool immediate);
  void doReviewUnprogrammed();
  void kiv_handleReviewUnprogrammed_taskRun() { doReviewUnprogrammed(); }

 private:
  Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> helper_;
  Kiv::Ptr<Mox::TaskScheduler> scheduler_;
};

OBA_EXPORT Kiv::Ptr<EvpnFloodingEsiSm> evpnFloodingEsiSmFactory(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& tunnelIdHwTunnelId);

}  // namespace Oba
