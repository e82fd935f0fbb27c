#pragma once
// EvpnFloodingDot1qSm programs the VLAN to 802.1Q tag translation of EVPN VLAN services: for
// every interface that is a member of a VLAN whose service has a dot1q tag, the tag is programmed
// on the interface, or on each member port of a LAG. Events only mark (interface, VLAN) pairs;
// a review drains them a second after the first, so a burst of changes to one pair costs one
// decision and one chip call. Ports the chip refuses wait as unprogrammed and a review retries
// them every five seconds.
//
// The owning agent makes it with evpnFloodingDot1qSmFactory(helper, scheduler, acsd, evpnStatus,
// evpnMplsConfig, vlanStatusDir) and keeps it; from then on it follows its inputs by itself.

#include "Bridging/VlanId.h"
#include "Bridging/VlanIdOrNone.h"
#include "Bridging/VlanStatus.h"
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
#include "Quil/IntfId.h"

namespace Oba {

// The delay between the first event for a pair and the drain of the queue.
inline constexpr Kiv::Seconds intfVlanDelayDefault = 1.0;

class OBA_EXPORT EvpnFloodingDot1qSm : public Kiv::PtrInterface {
 public:
  static Kiv::Ptr<EvpnFloodingDot1qSm> EvpnFloodingDot1qSmIs(
      const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
      const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
      const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
      const Kiv::Ptr<const Evpn::MplsConfig>& evpnMplsConfig,
      const Kiv::Ptr<const Bridging::VlanStatusDir>& vlanStatusDir);
  EvpnFloodingDot1qSm(const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
                      const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
                      const Kiv::Ptr<const ObaCommonSmData>& acsd,
                      const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
                      const Kiv::Ptr<const Evpn::MplsConfig>& evpnMplsConfig,
                      const Kiv::Ptr<const Bridging::VlanStatusDir>& vlanStatusDir);

  // Reactors: what each watches and where it forwards.
  class KivEvpnStatus : public Kiv::Reactor<Evpn::EvpnStatus, EvpnFloodingDot1qSm> {
   public:
    using Reactor::Reactor;
    void onVlanToDot1q(const Bridging::VlanId& vlan) override { owner()->handleVlanDot1q(vlan); }
  };
  class KivEvpnMplsConfig : public Kiv::Reactor<Evpn::MplsConfig, EvpnFloodingDot1qSm> {
   public:
    using Reactor::Reactor;
    void onVlanServiceDot1qEnabled() override { owner()->handleVlanServiceDot1qEnabled(); }
  };
  class KivVlanStatusDir : public Kiv::Reactor<Bridging::VlanStatusDir, EvpnFloodingDot1qSm> {
   public:
    using Reactor::Reactor;
    void onVlanStatus(const Bridging::VlanId& vlan) override {
      owner()->vlanStatusTrack(vlan, entity()->vlanStatus(vlan));
    }
  };
  class KivVlanStatus : public Kiv::Reactor<Bridging::VlanStatus, EvpnFloodingDot1qSm> {
   public:
    using Reactor::Reactor;
    void onVlanPortStatus(const Quil::IntfId& intf) override { handleIntf(intf); }
    void handleVlanStatus();
    void handleIntf(Quil::IntfId intf);
  };
  class KivAcsd : public Kiv::Reactor<ObaCommonSmData, EvpnFloodingDot1qSm> {
   public:
    using Reactor::Reactor;
    void onLagToPort(const Quil::IntfId& lag) override { owner()->handleLagPort(lag); }
  };
  class KivReviewUnprogrammed : public Mox::TaskReactor<EvpnFloodingDot1qSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->kiv_handleReviewUnprogrammed_taskRun(); }
  };
  class KivReviewIntfVlan : public Mox::TaskReactor<EvpnFloodingDot1qSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->kiv_handleReviewIntfVlan_taskRun(); }
  };

  // Inputs.
  const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper() const { return helper_; }
  const Kiv::Ptr<Mox::TaskScheduler>& scheduler() const { return scheduler_; }
  KIV_REACTOR(acsd, KivAcsd, "Oba::EvpnFloodingDot1qSm")
  KIV_REACTOR(evpnStatus, KivEvpnStatus, "Oba::EvpnFloodingDot1qSm")
  KIV_REACTOR(evpnMplsConfig, KivEvpnMplsConfig, "Oba::EvpnFloodingDot1qSm")
  KIV_REACTOR(vlanStatusDir, KivVlanStatusDir, "Oba::EvpnFloodingDot1qSm")
  KIV_REACTOR_COLLECTION(vlanStatus, Bridging::VlanId, KivVlanStatus, handleVlanStatus,
                         "Oba::EvpnFloodingDot1qSm")
  MOX_TASK_REACTOR(reviewUnprogrammed, KivReviewUnprogrammed)
  MOX_TASK_REACTOR(reviewIntfVlan, KivReviewIntfVlan)

  // Internal state.
  KIV_CHILD_COLLECTION(intfVlanSet, Quil::IntfId, IntfVlanSet)         // VLANs of a member
  KIV_CHILD_COLLECTION(vlanIntfSet, Bridging::VlanId, VlanIntfSet)     // and their members
  KIV_ROWS(pair, IntfVlanKey, Bridging::VlanIdOrNone, IntfVlanStatus)  // one row per pair:
  KIV_ROW_COLLECTION(intfVlanDot1q, pair, 0)                           //   the tag in use
  KIV_ROW_CHILD_COLLECTION(dot1qStatus, pair, 1)                //   its ports programmed or refused
  KIV_ORDERED_COLLECTION(unprogrammedDot1q, IntfVlanKey, bool)  // pairs with a refused port
  OBA_PORT_PROGRAMMING(dot1qStatus, unprogrammedDot1q)
  KIV_ORDERED_BIT_COLLECTION(intfVlanQueue, IntfVlanKey, bool)  // pairs waiting for a decision
  KIV_SCALAR(initialized, bool, false)
  KIV_SCALAR(defaultUnprogrammedRetryInterval, double, unprogrammedRetryIntervalDefault)
  KIV_SCALAR(defaultIntfVlanDelay, double, intfVlanDelayDefault)

  // Handlers and operations.
  void handleInitialized();
  void handleVlanDot1q(Bridging::VlanId vlan);
  void handleVlanServiceDot1qEnabled();
  void handleLagPort(Quil::IntfId lag);
  void maybeScheduleIntfVlanReview(Quil::IntfId intf, Bridging::VlanId vlan);
  void doReviewIntfVlan();
  void processIntfVlan(Quil::IntfId intf, Bridging::VlanId vlan);
  void addIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan);
  void deleteIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan);
  void addOrUpdateIntfVlanDot1qMapping(Quil::IntfId intf, Bridging::VlanId vlan,
                                       Bridging::VlanIdOrNone dot1q);
  void deleteIntfVlanDot1qMapping(Quil::IntfId intf, Bridging::VlanId vlan);
  void programDot1q(Quil::IntfId intf, Bridging::VlanId vlan, Bridging::VlanIdOrNone dot1q);
  void programDot1qHelper(Quil::IntfId logical, Quil::IntfId phy, Bridging::VlanId vlan,
                          Bridging::VlanIdOrNone dot1q);
  void unprogramDot1q(Quil::IntfId intf, Bridging::VlanId vlan, Bridging::VlanIdOrNone dot1q);
  void unprogramDot1qHelper(Quil::IntfId logical, Quil::IntfId phy, Bridging::VlanId vlan,
                            Bridging::VlanIdOrNone dot1q);
  void maybeScheduleUnprogrammedReview(bool immediate);
  void doReviewUnprogrammed();
  void kiv_handleReviewUnprogrammed_taskRun() { doReviewUnprogrammed(); }
  void kiv_handleReviewIntfVlan_taskRun() { doReviewIntfVlan(); }

 private:
  Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> helper_;
  Kiv::Ptr<Mox::TaskScheduler> scheduler_;
};

OBA_EXPORT Kiv::Ptr<EvpnFloodingDot1qSm> evpnFloodingDot1qSmFactory(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const Evpn::MplsConfig>& evpnMplsConfig,
    const Kiv::Ptr<const Bridging::VlanStatusDir>& vlanStatusDir);

}  // namespace Oba
