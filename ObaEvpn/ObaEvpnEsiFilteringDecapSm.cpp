#include "ObaEvpn/ObaEvpnEsiFilteringDecapSm.h"

namespace Oba {

static Kiv::TraceHandle th("ObaEvpnEsiFilteringDecapSm");

Kiv::Ptr<EsiFilteringDecapSm> EsiFilteringDecapSm::EsiFilteringDecapSmIs(
    const Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper>& esiFilteringDecapHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
    const Kiv::Ptr<const Mpls::LfibStatus>& lfibStatus,
    const Kiv::Ptr<Mpls::LfibTrackingStatus>& lfibTrackingStatus,
    const Kiv::Ptr<Mpls::LfibHwStatus>& lfibHwStatus) {
  return new EsiFilteringDecapSm(esiFilteringDecapHelper, scheduler, lfibStatus, lfibTrackingStatus,
                                 lfibHwStatus);
}

Kiv::Ptr<EsiFilteringDecapSm> esiFilteringDecapSmFactory(
    const Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper>& esiFilteringDecapHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
    const Kiv::Ptr<const Mpls::LfibStatus>& lfibStatus,
    const Kiv::Ptr<Mpls::LfibTrackingStatus>& lfibTrackingStatus,
    const Kiv::Ptr<Mpls::LfibHwStatus>& lfibHwStatus) {
  return EsiFilteringDecapSm::EsiFilteringDecapSmIs(esiFilteringDecapHelper, scheduler, lfibStatus,
                                                    lfibTrackingStatus, lfibHwStatus);
}

EsiFilteringDecapSm::EsiFilteringDecapSm(
    const Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper>& esiFilteringDecapHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
    const Kiv::Ptr<const Mpls::LfibStatus>& lfibStatus,
    const Kiv::Ptr<Mpls::LfibTrackingStatus>& lfibTrackingStatus,
    const Kiv::Ptr<Mpls::LfibHwStatus>& lfibHwStatus)
    : helper_(esiFilteringDecapHelper),
      scheduler_(scheduler),
      lfibStatus_(lfibStatus),
      lfibHwStatus_(lfibHwStatus) {
  if (lfibTrackingStatus) lfibTrackingStatusIs(lfibTrackingStatus);
  defaultUnprogrammedRetryIntervalIs(unprogrammedRetryIntervalDefault);
  handleInitialized();
}

void EsiFilteringDecapSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized");
  KIV_ASSERT(esiFilteringDecapHelper());
  KIV_ASSERT(scheduler());
  KIV_ASSERT(lfibStatus());
  KIV_ASSERT(lfibTrackingStatus());
  KIV_ASSERT(lfibHwStatus());
  reviewRouteKeyBacklogIs(scheduler(), Mox::TaskPriority(reviewUnprogrammedPriority),
                          "reviewRouteKeyBacklog");
  reviewUnprogrammedIs(scheduler(), Mox::TaskPriority(reviewUnprogrammedPriority),
                       reviewUnprogrammedName);
  initializedIs(true);
  reviewRouteKeyBacklog()->task()->scheduleTask();  // a backlog older than this machine
}

// Backlog keys are never processed inside the notification: the review takes them in turn.
void EsiFilteringDecapSm::handleRouteKeyBacklog(const RouteKey& key) {
  OBA_TRACE8(th, "handleRouteKeyBacklog", " route " << key);
  if (!initialized()) return;
  Mox::TimerTask& task = *reviewRouteKeyBacklog()->task();
  if (!task.taskScheduled()) task.scheduleTask();
}

void EsiFilteringDecapSm::doReviewRouteKeyBacklog() {
  OBA_TRACE8(th, "doReviewRouteKeyBacklog");
  KIV_ASSERT(initialized());
  Mox::TimerTask* task = reviewRouteKeyBacklog() ? reviewRouteKeyBacklog()->task().ptr() : nullptr;
  KIV_ASSERT(task);
  if (reviewEach(lfibTrackingStatus()->routeKeyBacklogWalk(), *task, 0.0,
                 [this](const RouteKey& key) { processRouteKeyBacklog(key); })) {
    maybeScheduleUnprogrammedReview();
  }
}

void EsiFilteringDecapSm::processRouteKeyBacklog(const RouteKey& key) {
  OBA_TRACE8(th, "processRouteKeyBacklog", " route " << key);
  KIV_ASSERT(initialized());
  KIV_ASSERT_TEXT(lfibTrackingStatus()->routeKeyBacklogHas(key),
                  "backlogIter.isMemberOf( routeKey )");
  processRouteKey(key);
  lfibTrackingStatus()->routeKeyBacklogDel(key);
}

void EsiFilteringDecapSm::processRouteKey(const RouteKey& key) {
  OBA_TRACE8(th, "processRouteKey", " route " << key);
  KIV_ASSERT(initialized());
  auto route = lfibStatus()->route(key);
  if (!route) {
    OBA_TRACE5(th, "route was deleted");
    deleteEsiFilterVia(key);
    return;
  }
  auto viaSet = lfibStatus()->viaSet(route->viaSetKey);
  if (!viaSet) {
    OBA_TRACE5(th, "viaset was deleted");
    deleteEsiFilterVia(key);
    return;
  }
  Mpls::LfibViaKey viaKey = viaSet->viaKey;
  KIV_ASSERT(!!viaKey);
  if (viaKey.viaType() != Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter) {
    // Not ours: whatever this machine programmed for the route stays as it is.
    OBA_TRACE5_VALUE(th, "Skipping viaType ", viaKey.viaType(), viaKey.viaType());
    return;
  }
  // Delete first, then create: createEsiFilterVia always meets a route it holds nothing for.
  deleteEsiFilterVia(key);
  FilterVia via = lfibStatus()->evpnEthernetSegmentFilterVia(viaKey).value_or(FilterVia());
  if (via == FilterVia()) return;  // the via is not published yet: its publication re-drives
  createEsiFilterVia(key, via);
}

void EsiFilteringDecapSm::createEsiFilterVia(const RouteKey& key, const FilterVia& via) {
  OBA_TRACE8(th, "createEsiFilterVia", " route " << key << " via " << via);
  KIV_ASSERT(initialized());
  KIV_ASSERT_TEXT(!routeEsiFilterViaHas(key), "!routeEsiFilterViaHas( routeKey )");
  if (auto owner = intfRoute(via.intfId)) {
    OBA_TRACE5(th, "intf ",
               via.intfId << " already associated with route " << *owner
                          << ", adding via to unprogrammed");
    addRouteToUnprogrammed(key, ReturnCode::lfibHwProgrammingIntfConflict);
    return;
  }
  ReturnCode rc = esiFilteringDecapHelper()->createEsiPortMap(key.topLabel(), via.intfId);
  OBA_TRACE5_VALUE(th, "create ", rc, "route " << key << " via " << via << " rc: " << rc);
  switch (rc) {
    case ReturnCode::lfibHwProgrammingSuccess:
      routeEsiFilterViaIs(key, via);
      intfRouteIs(via.intfId, key);
      deleteRouteFromUnprogrammed(key);
      break;
    case ReturnCode::lfibHwProgrammingIntfConflict:
      KIV_ASSERT(!"Unexpected rc. Conflict detection logic is already done in Oba");
      break;
    case ReturnCode::lfibHwProgrammingResourceFull:
    case ReturnCode::lfibHwProgrammingFailed:
      addRouteToUnprogrammed(key, rc);
      break;
    default:
      break;  // an answer the chip layer does not define: nothing to record
  }
}

void EsiFilteringDecapSm::deleteEsiFilterVia(const RouteKey& key) {
  OBA_TRACE8(th, "deleteEsiFilterVia", " route " << key);
  KIV_ASSERT(initialized());
  auto via = routeEsiFilterVia(key);
  if (!via) {
    deleteRouteFromUnprogrammed(key);
    return;
  }
  esiFilteringDecapHelper()->deleteEsiPortMap(key.topLabel(), via->intfId);
  routeEsiFilterViaDel(key);
  intfRouteDel(via->intfId);
}

void EsiFilteringDecapSm::addRouteToUnprogrammed(const RouteKey& key, ReturnCode reason) {
  OBA_TRACE8(th, "addRouteToUnprogrammed", " route " << key << " reason " << reason);
  lfibHwStatus()->unprogrammedRouteIs(key, reason);
}

void EsiFilteringDecapSm::deleteRouteFromUnprogrammed(const RouteKey& key) {
  OBA_TRACE8(th, "deleteRouteFromUnprogrammed", " route " << key);
  if (!lfibHwStatus()->unprogrammedRoutes()) {
    OBA_TRACE5(th, "No unprogrammed routes, nothing to delete");
    return;
  }
  lfibHwStatus()->unprogrammedRouteDel(key);
}

void EsiFilteringDecapSm::maybeScheduleUnprogrammedReview() {
  OBA_TRACE8(th, "maybeScheduleUnprogrammedReview");
  KIV_ASSERT(initialized());
  KIV_ASSERT(reviewUnprogrammed());
  if (!lfibHwStatus()->unprogrammedRoutes()) {
    OBA_TRACE5(th, "no unprogrammed routes, nothing to review");
    return;
  }
  Mox::TimerTask& task = *reviewUnprogrammed()->task();
  if (task.taskScheduled()) {
    OBA_TRACE5(th, "unprogrammed review already scheduled");
    return;
  }
  task.scheduleTaskDelay(defaultUnprogrammedRetryInterval());
  OBA_TRACE5(th, "next unprogrammed review at ",
             scheduler()->now() + defaultUnprogrammedRetryInterval());
}

void EsiFilteringDecapSm::doReviewUnprogrammed() {
  OBA_TRACE8(th, "doReviewUnprogrammed");
  KIV_ASSERT(initialized());
  Mox::TimerTask* task = reviewUnprogrammed() ? reviewUnprogrammed()->task().ptr() : nullptr;
  KIV_ASSERT(task);
  if (reviewEach(lfibHwStatus()->unprogrammedRouteWalk(), *task, defaultUnprogrammedRetryInterval(),
                 [this](const RouteKey& key) { processRouteKey(key); })) {
    maybeScheduleUnprogrammedReview();  // again in five seconds while anything stays parked
  }
}

}  // namespace Oba
