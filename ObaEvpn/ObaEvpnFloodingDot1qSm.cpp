#include "ObaEvpn/ObaEvpnFloodingDot1qSm.h"

namespace Oba {

static Kiv::TraceHandle th("ObaEvpnFloodingDot1qSm");

Kiv::Ptr<EvpnFloodingDot1qSm> EvpnFloodingDot1qSm::EvpnFloodingDot1qSmIs(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const Evpn::MplsConfig>& evpnMplsConfig,
    const Kiv::Ptr<const Bridging::VlanStatusDir>& vlanStatusDir) {
  return new EvpnFloodingDot1qSm(floodingHelper, scheduler, acsd, evpnStatus, evpnMplsConfig,
                                 vlanStatusDir);
}

Kiv::Ptr<EvpnFloodingDot1qSm> evpnFloodingDot1qSmFactory(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const Evpn::MplsConfig>& evpnMplsConfig,
    const Kiv::Ptr<const Bridging::VlanStatusDir>& vlanStatusDir) {
  return EvpnFloodingDot1qSm::EvpnFloodingDot1qSmIs(floodingHelper, scheduler, acsd, evpnStatus,
                                                    evpnMplsConfig, vlanStatusDir);
}

EvpnFloodingDot1qSm::EvpnFloodingDot1qSm(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const Evpn::MplsConfig>& evpnMplsConfig,
    const Kiv::Ptr<const Bridging::VlanStatusDir>& vlanStatusDir)
    : helper_(floodingHelper), scheduler_(scheduler) {
  if (acsd) acsdIs(acsd);
  if (evpnStatus) evpnStatusIs(evpnStatus);
  if (evpnMplsConfig) evpnMplsConfigIs(evpnMplsConfig);
  if (vlanStatusDir) vlanStatusDirIs(vlanStatusDir);
  defaultUnprogrammedRetryIntervalIs(unprogrammedRetryIntervalDefault);
  defaultIntfVlanDelayIs(intfVlanDelayDefault);
  handleInitialized();
  vlanStatusSync(vlanStatusDir->vlanStatusWalk(),
                 [&](const Bridging::VlanId& vlan) { return vlanStatusDir->vlanStatusHas(vlan); });
}

void EvpnFloodingDot1qSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized");
  KIV_ASSERT(floodingHelper());
  KIV_ASSERT(scheduler());
  KIV_ASSERT(evpnStatus());
  KIV_ASSERT(vlanStatusDir());
  KIV_ASSERT(acsd());
  reviewUnprogrammedIs(scheduler(), Mox::TaskPriority(reviewUnprogrammedPriority),
                       reviewUnprogrammedName);
  reviewIntfVlanIs(scheduler(), Mox::TaskPriority(reviewUnprogrammedPriority), "reviewIntfVlan");
  initializedIs(true);
  for (auto [vlan, vs] : vlanStatusDir()->vlanStatusWalk()) {
    for (auto [intf, status] : vs->vlanPortStatusWalk()) maybeScheduleIntfVlanReview(intf, vlan);
  }
}

void EvpnFloodingDot1qSm::handleVlanDot1q(Bridging::VlanId vlan) {
  OBA_TRACE8(th, "handleVlanDot1q", " vlan " << vlan);
  if (!initialized()) return;
  if (auto vis = vlanIntfSet(vlan)) {
    for (auto [intf, member] : vis->intfIdWalk()) maybeScheduleIntfVlanReview(intf, vlan);
  }
}

// The flag only asks for a fresh look at every tagged VLAN: the tags themselves decide.
void EvpnFloodingDot1qSm::handleVlanServiceDot1qEnabled() {
  OBA_TRACE8(th, "handleVlanServiceDot1qEnabled",
             " enabled " << evpnMplsConfig()->vlanServiceDot1qEnabled());
  if (!initialized()) return;
  for (auto [vlan, vis] : vlanIntfSetWalk()) {
    if (evpnStatus()->vlanToDot1qHas(vlan)) handleVlanDot1q(vlan);
  }
}

void EvpnFloodingDot1qSm::KivVlanStatus::handleVlanStatus() {
  Bridging::VlanId vlan = fwkKey();
  OBA_TRACE8(th, "handleVlanStatus", " vlan " << vlan);
  EvpnFloodingDot1qSm* sm = owner();
  if (!sm->initialized()) return;
  if (auto vs = sm->vlanStatusDir()->vlanStatus(vlan)) {
    for (auto [intf, status] : vs->vlanPortStatusWalk())
      sm->maybeScheduleIntfVlanReview(intf, vlan);
  } else if (auto vis = sm->vlanIntfSet(vlan)) {
    for (auto [intf, member] : vis->intfIdWalk()) sm->maybeScheduleIntfVlanReview(intf, vlan);
  }
}

void EvpnFloodingDot1qSm::KivVlanStatus::handleIntf(Quil::IntfId intf) {
  OBA_TRACE8(th, "handleIntf", " intf " << intf << " vlan " << fwkKey());
  if (!owner()->initialized()) return;
  owner()->maybeScheduleIntfVlanReview(intf, fwkKey());
}

void EvpnFloodingDot1qSm::handleLagPort(Quil::IntfId lag) {
  OBA_TRACE8(th, "handleLagPort", " intf " << lag);
  if (!initialized()) return;
  if (auto ivs = intfVlanSet(lag)) {
    for (auto [vlan, member] : ivs->vlanIdWalk()) maybeScheduleIntfVlanReview(lag, vlan);
  }
}

void EvpnFloodingDot1qSm::maybeScheduleIntfVlanReview(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "maybeScheduleIntfVlanReview", " intf " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  intfVlanQueueIs(IntfVlanKey(intf, vlan), true);
  Mox::TimerTask& task = *reviewIntfVlan()->task();
  if (task.taskScheduled()) {
    OBA_TRACE5(th, "  already scheduled");
    return;
  }
  task.scheduleTaskDelay(defaultIntfVlanDelay());
  OBA_TRACE5(th, "  next intf vlan review at ", scheduler()->now() + defaultIntfVlanDelay());
}

void EvpnFloodingDot1qSm::doReviewIntfVlan() {
  OBA_TRACE8(th, "doReviewIntfVlan");
  KIV_ASSERT(initialized());
  Mox::TimerTask* task = reviewIntfVlan() ? reviewIntfVlan()->task().ptr() : nullptr;
  KIV_ASSERT(task);
  // A drain told to yield resumes at once: the pairs have waited their delay already.
  reviewEach(intfVlanQueueWalk(), *task, 0.0,
             [this](const IntfVlanKey& key) { processIntfVlan(key.intfId(), key.vlanId()); });
}

void EvpnFloodingDot1qSm::processIntfVlan(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "processIntfVlan", " intf " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  intfVlanQueueDel(IntfVlanKey(intf, vlan));
  auto vs = vlanStatusDir()->vlanStatus(vlan);
  if (!vs) {
    OBA_TRACE5(th, "no vlan status");
    deleteIntfVlanMapping(intf, vlan);
    return;
  }
  if (!vs->vlanPortStatusHas(intf)) {
    OBA_TRACE5(th, "intf not a part of vlan");
    deleteIntfVlanMapping(intf, vlan);
    return;
  }
  addIntfVlanMapping(intf, vlan);
  if (auto dot1q = evpnStatus()->vlanToDot1q(vlan)) {
    addOrUpdateIntfVlanDot1qMapping(intf, vlan, *dot1q);
  } else {
    OBA_TRACE5(th, "not in vlan-dot1q mapping");
    deleteIntfVlanDot1qMapping(intf, vlan);
  }
}

void EvpnFloodingDot1qSm::addIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "addIntfVlanMapping", " intf " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  addIntfVlanMember(*this, intf, vlan);
}

void EvpnFloodingDot1qSm::deleteIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "deleteIntfVlanMapping", " intf " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  if (auto ivs = intfVlanSet(intf)) {
    ivs->vlanIdDel(vlan);
    if (!ivs->vlanIds()) intfVlanSetDel(intf);
  }
  if (auto vis = vlanIntfSet(vlan)) {
    vis->intfIdDel(intf);
    if (!vis->intfIds()) vlanIntfSetDel(vlan);
  }
  deleteIntfVlanDot1qMapping(intf, vlan);
}

void EvpnFloodingDot1qSm::addOrUpdateIntfVlanDot1qMapping(Quil::IntfId intf, Bridging::VlanId vlan,
                                                          Bridging::VlanIdOrNone dot1q) {
  OBA_TRACE8(th, "addOrUpdateIntfVlanDot1qMapping",
             " intf " << intf << " vlan " << vlan << " dot1q " << dot1q);
  KIV_ASSERT(initialized());
  IntfVlanKey key(intf, vlan);
  if (auto current = intfVlanDot1q(key); current && *current != dot1q) {
    unprogramDot1q(intf, vlan, *current);  // the chip is told the tag it holds
  }
  intfVlanDot1qIs(key, dot1q);
  programDot1q(intf, vlan, dot1q);  // ports already programmed are cut short per port
}

void EvpnFloodingDot1qSm::deleteIntfVlanDot1qMapping(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "deleteIntfVlanDot1qMapping", " intf " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  IntfVlanKey key(intf, vlan);
  auto dot1q = intfVlanDot1q(key);
  if (!dot1q) return;
  intfVlanDot1qDel(key);
  unprogramDot1q(intf, vlan, *dot1q);
}

void EvpnFloodingDot1qSm::programDot1q(Quil::IntfId intf, Bridging::VlanId vlan,
                                       Bridging::VlanIdOrNone dot1q) {
  OBA_TRACE8(th, "programDot1q", " intf " << intf << " vlan " << vlan << " dot1q " << dot1q);
  KIV_ASSERT(initialized());
  programLagPorts(
      *this, intf, vlan, th,
      [&](Quil::IntfId port) { programDot1qHelper(intf, port, vlan, dot1q); },
      [&](Quil::IntfId port) { unprogramDot1qHelper(intf, port, vlan, dot1q); },
      [&] { unprogramDot1q(intf, vlan, dot1q); });
}

void EvpnFloodingDot1qSm::programDot1qHelper(Quil::IntfId logical, Quil::IntfId phy,
                                             Bridging::VlanId vlan, Bridging::VlanIdOrNone dot1q) {
  OBA_TRACE8(
      th, "programDot1qHelper",
      " logical intf " << logical << " phy intf " << phy << " vlan " << vlan << " dot1q " << dot1q);
  KIV_ASSERT(initialized());
  static constexpr PortProgrammingTexts texts{"programmed dot1q mapping",
                                              "failed to program dot1q mapping",
                                              "invalid hwId, failed to program dot1q mapping"};
  programPort(*this, IntfVlanKey(logical, vlan), phy, th, texts,
              [&] { return floodingHelper()->createVlanToDot1qMapping(phy, vlan, dot1q); });
}

void EvpnFloodingDot1qSm::unprogramDot1q(Quil::IntfId intf, Bridging::VlanId vlan,
                                         Bridging::VlanIdOrNone dot1q) {
  OBA_TRACE8(th, "unprogramDot1q", " intf " << intf << " vlan " << vlan << " dot1q " << dot1q);
  KIV_ASSERT(initialized());
  unprogramPorts(*this, IntfVlanKey(intf, vlan), th,
                 [&](Quil::IntfId port) { unprogramDot1qHelper(intf, port, vlan, dot1q); });
}

void EvpnFloodingDot1qSm::unprogramDot1qHelper(Quil::IntfId logical, Quil::IntfId phy,
                                               Bridging::VlanId vlan,
                                               Bridging::VlanIdOrNone dot1q) {
  OBA_TRACE8(
      th, "unprogramDot1qHelper",
      " logical intf " << logical << " phy intf " << phy << " vlan " << vlan << " dot1q " << dot1q);
  KIV_ASSERT(initialized());
  bool released = unprogramPort(*this, IntfVlanKey(logical, vlan), phy, th, [&] {
    floodingHelper()->deleteVlanToDot1qMapping(phy, vlan, dot1q);
  });
  // The mapping freed in the chip may let the waiting pairs through now.
  if (released && unprogrammedDot1qs()) maybeScheduleUnprogrammedReview(true);
}

void EvpnFloodingDot1qSm::maybeScheduleUnprogrammedReview(bool immediate) {
  OBA_TRACE8(th, "maybeScheduleUnprogrammedReview", " immediate " << immediate);
  schedulePortReview(*this, immediate, th);
}

void EvpnFloodingDot1qSm::doReviewUnprogrammed() {
  OBA_TRACE8(th, "doReviewUnprogrammed");
  reviewParkedPorts(*this, "ds", "ds->unprogrammeds()");
}

}  // namespace Oba
