#pragma once
// EsiFilteringDecapSm installs an ESI port map in the chip for every label route whose via is an
// EVPN Ethernet-segment filter via: the route's top label (the ESI label a peer sends under
// decapsulation) is tied to the segment's local interface, so that BUM traffic carrying it is not
// flooded back onto the segment it came from. It consumes the label-forwarding tracking backlog
// key by key, and parks routes it cannot program, with the reason, in the hardware status's
// unprogrammed routes, which a review retries every five seconds. An interface's port map belongs
// to one route at a time: a second route on it waits, parked, until the first one goes.
//
// The owning agent makes it with esiFilteringDecapSmFactory(helper, scheduler, lfibStatus,
// lfibTrackingStatus, lfibHwStatus) and keeps it.

#include "Kiv/Reactor.h"
#include "Mox/TaskReactor.h"
#include "Mox/TaskScheduler.h"
#include "Mpls/Lfib.h"
#include "Mpls/ReturnCode.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaExport.h"
#include "Oba/ObaHelpers.h"
#include "Quil/IntfId.h"

namespace Oba {

class OBA_EXPORT EsiFilteringDecapSm : public Kiv::PtrInterface {
 public:
  using RouteKey = Mpls::RouteKey;
  using FilterVia = Mpls::LfibEvpnEthernetSegmentFilterVia;
  using ReturnCode = Mpls::LfibHwProgrammingReturnCode;

  static Kiv::Ptr<EsiFilteringDecapSm> EsiFilteringDecapSmIs(
      const Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper>& esiFilteringDecapHelper,
      const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
      const Kiv::Ptr<const Mpls::LfibStatus>& lfibStatus,
      const Kiv::Ptr<Mpls::LfibTrackingStatus>& lfibTrackingStatus,
      const Kiv::Ptr<Mpls::LfibHwStatus>& lfibHwStatus);
  EsiFilteringDecapSm(const Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper>& esiFilteringDecapHelper,
                      const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
                      const Kiv::Ptr<const Mpls::LfibStatus>& lfibStatus,
                      const Kiv::Ptr<Mpls::LfibTrackingStatus>& lfibTrackingStatus,
                      const Kiv::Ptr<Mpls::LfibHwStatus>& lfibHwStatus);

  // Reactors: what each watches and where it forwards.
  class KivLfibTrackingStatus : public Kiv::Reactor<Mpls::LfibTrackingStatus, EsiFilteringDecapSm> {
   public:
    using Reactor::Reactor;
    void onRouteKeyBacklog(const RouteKey& key) override { owner()->handleRouteKeyBacklog(key); }
  };
  class KivReviewRouteKeyBacklog : public Mox::TaskReactor<EsiFilteringDecapSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->kiv_handleReviewRouteKeyBacklog_taskRun(); }
  };
  class KivReviewUnprogrammed : public Mox::TaskReactor<EsiFilteringDecapSm> {
   public:
    using TaskReactor::TaskReactor;
    void onTaskRun() override { owner()->kiv_handleReviewUnprogrammed_taskRun(); }
  };

  // Inputs and outputs.
  const Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper>& esiFilteringDecapHelper() const {
    return helper_;
  }
  const Kiv::Ptr<Mox::TaskScheduler>& scheduler() const { return scheduler_; }
  const Kiv::Ptr<const Mpls::LfibStatus>& lfibStatus() const { return lfibStatus_; }
  KIV_WRITABLE_REACTOR(lfibTrackingStatus, KivLfibTrackingStatus, "Oba::EsiFilteringDecapSm")
  const Kiv::Ptr<Mpls::LfibHwStatus>& lfibHwStatus() const { return lfibHwStatus_; }
  MOX_TASK_REACTOR(reviewRouteKeyBacklog, KivReviewRouteKeyBacklog)
  MOX_TASK_REACTOR(reviewUnprogrammed, KivReviewUnprogrammed)

  // Internal state.
  KIV_COLLECTION(routeEsiFilterVia, RouteKey, FilterVia)  // programmed routes and their via
  KIV_COLLECTION(intfRoute, Quil::IntfId, RouteKey)       // the route owning an interface's map
  KIV_SCALAR(initialized, bool, false)
  KIV_SCALAR(defaultUnprogrammedRetryInterval, double, unprogrammedRetryIntervalDefault)

  // Handlers and operations.
  void handleInitialized();
  void handleRouteKeyBacklog(const RouteKey& key);
  void doReviewRouteKeyBacklog();
  void processRouteKeyBacklog(const RouteKey& key);
  void processRouteKey(const RouteKey& key);
  void createEsiFilterVia(const RouteKey& key, const FilterVia& via);
  void deleteEsiFilterVia(const RouteKey& key);
  void addRouteToUnprogrammed(const RouteKey& key, ReturnCode reason);
  void deleteRouteFromUnprogrammed(const RouteKey& key);
  void maybeScheduleUnprogrammedReview();
  void doReviewUnprogrammed();
  void kiv_handleReviewRouteKeyBacklog_taskRun() { doReviewRouteKeyBacklog(); }
  void kiv_handleReviewUnprogrammed_taskRun() { doReviewUnprogrammed(); }

 private:
  Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper> helper_;
  Kiv::Ptr<Mox::TaskScheduler> scheduler_;
  Kiv::Ptr<const Mpls::LfibStatus> lfibStatus_;
  Kiv::Ptr<Mpls::LfibHwStatus> lfibHwStatus_;
};

OBA_EXPORT Kiv::Ptr<EsiFilteringDecapSm> esiFilteringDecapSmFactory(
    const Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper>& esiFilteringDecapHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
    const Kiv::Ptr<const Mpls::LfibStatus>& lfibStatus,
    const Kiv::Ptr<Mpls::LfibTrackingStatus>& lfibTrackingStatus,
    const Kiv::Ptr<Mpls::LfibHwStatus>& lfibHwStatus);

}  // namespace Oba
