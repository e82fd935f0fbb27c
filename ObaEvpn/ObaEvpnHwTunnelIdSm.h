#pragma once
// EvpnHwTunnelIdSm gives every EVPN tunnel in use as a designated-forwarder tunnel a hardware
// tunnel id from the chip, publishes (tunnel id, hardware id) in the mapping table, and releases
// the id when the tunnel's last (interface, VLAN) user goes. When the chip has no id to give, the
// tunnel waits as unprogrammed and a review retries it every five seconds, or at once when
// another tunnel releases its id.

#include "Bridging/VlanId.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Reactor.h"
#include "Mox/TaskReactor.h"
#include "Mox/TaskScheduler.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaHelpers.h"
#include "Oba/ObaKeys.h"
#include "Oba/ObaSets.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "Quil/IntfId.h"
#include "Tunnel/TunnelId.h"

namespace Oba {

class OBA_EXPORT EvpnHwTunnelIdSm : public Kiv::PtrInterface {
 public:
  using TunnelId = Tunnel::TunnelTable::TunnelId;

  static Kiv::Ptr<EvpnHwTunnelIdSm> EvpnHwTunnelIdSmIs(
      const Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper>& hwTunnelIdHelper,
      const Kiv::Ptr<Mox::TaskScheduler>& taskScheduler,
      const Kiv::Ptr<const ObaCommonSmData>& acsd,
      const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
      const Kiv::Ptr<TunnelIdToHwTunnelIdMapping>& tunnelIdToHwTunnelIdMapping);
  EvpnHwTunnelIdSm(const Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper>& hwTunnelIdHelper,
                   const Kiv::Ptr<Mox::TaskScheduler>& taskScheduler,
                   const Kiv::Ptr<const ObaCommonSmData>& acsd,
                   const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
                   const Kiv::Ptr<TunnelIdToHwTunnelIdMapping>& tunnelIdToHwTunnelIdMapping);

  // Reactors: what each watches and where it forwards.
  class KivEvpnStatus : public Kiv::Reactor<Evpn::EvpnStatus, EvpnHwTunnelIdSm> {
   public:
    using Reactor::Reactor;
    void onSegmentStatus(const Quil::IntfId& intf) override;
  };
  class KivSegmentStatus : public Kiv::Reactor<Evpn::EthernetSegmentStatus, EvpnHwTunnelIdSm> {
   public:
    using Reactor::Reactor;
    void onDesignatedForwarderTep(const Bridging::VlanId& vlan) override { handleDFTep(vlan); }
    void handleSegmentStatus();
    void handleDFTep(Bridging::VlanId vlan);
  };
  class KivReviewUnprogrammed : public Mox::TaskReactor<EvpnHwTunnelIdSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->kiv_handleReviewUnprogrammed_taskRun(); }
  };

  // Inputs and outputs.
  const Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper>& hwTunnelIdHelper() const { return helper_; }
  const Kiv::Ptr<Mox::TaskScheduler>& taskScheduler() const { return taskScheduler_; }
  const Kiv::Ptr<const ObaCommonSmData>& acsd() const { return acsd_; }
  const Kiv::Ptr<TunnelIdToHwTunnelIdMapping>& tunnelIdToHwTunnelIdMapping() const {
    return mapping_;
  }
  KIV_REACTOR(evpnStatus, KivEvpnStatus, "Oba::EvpnHwTunnelIdSm")
  KIV_REACTOR_COLLECTION(segmentStatus, Quil::IntfId, KivSegmentStatus, handleSegmentStatus,
                         "Oba::EvpnHwTunnelIdSm")
  MOX_TASK_REACTOR(reviewUnprogrammed, KivReviewUnprogrammed)

  // Internal state.
  KIV_CHILD_COLLECTION(intfVlanSet, Quil::IntfId, IntfVlanSet)  // VLANs of an interface in use
  KIV_COLLECTION(intfVlanTunnel, IntfVlanKey, TunnelId)         // the tunnel of a pair
  KIV_CHILD_COLLECTION(tunnelIntfVlanSet, TunnelId, TunnelIntfVlanSet)  // the users of a tunnel
  KIV_COLLECTION(unprogrammedTunnel, TunnelId, bool)                    // tunnels waiting for an id
  KIV_SCALAR(initialized, bool, false)
  KIV_SCALAR(defaultUnprogrammedRetryInterval, double, unprogrammedRetryIntervalDefault)

  // Handlers and operations.
  void handleInitialized();
  void programHwTunnelId(Quil::IntfId intf, Bridging::VlanId vlan);
  void unProgramHwTunnelId(Quil::IntfId intf, Bridging::VlanId vlan);
  void publishHwTunnelId(const TunnelId& tunnel);
  void maybeScheduleUnprogrammedReview(bool immediate);
  void doReviewUnprogrammed();
  void kiv_handleReviewUnprogrammed_taskRun() { doReviewUnprogrammed(); }

 private:
  Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> helper_;
  Kiv::Ptr<Mox::TaskScheduler> taskScheduler_;
  Kiv::Ptr<const ObaCommonSmData> acsd_;
  Kiv::Ptr<TunnelIdToHwTunnelIdMapping> mapping_;
};

OBA_EXPORT Kiv::Ptr<EvpnHwTunnelIdSm> evpnHwTunnelIdSmFactory(
    const Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper>& hwTunnelIdHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& taskScheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<TunnelIdToHwTunnelIdMapping>& tunnelIdToHwTunnelIdMapping);

}  // namespace Oba
