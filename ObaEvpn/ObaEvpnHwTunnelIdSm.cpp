#include "ObaEvpn/ObaEvpnHwTunnelIdSm.h"

namespace Oba {

static Kiv::TraceHandle th("ObaEvpnHwTunnelIdSm");

Kiv::Ptr<EvpnHwTunnelIdSm> EvpnHwTunnelIdSm::EvpnHwTunnelIdSmIs(
    const Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper>& hwTunnelIdHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& taskScheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<TunnelIdToHwTunnelIdMapping>& tunnelIdToHwTunnelIdMapping) {
  return new EvpnHwTunnelIdSm(hwTunnelIdHelper, taskScheduler, acsd, evpnStatus,
                              tunnelIdToHwTunnelIdMapping);
}

Kiv::Ptr<EvpnHwTunnelIdSm> evpnHwTunnelIdSmFactory(
    const Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper>& hwTunnelIdHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& taskScheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<TunnelIdToHwTunnelIdMapping>& tunnelIdToHwTunnelIdMapping) {
  return EvpnHwTunnelIdSm::EvpnHwTunnelIdSmIs(hwTunnelIdHelper, taskScheduler, acsd, evpnStatus,
                                              tunnelIdToHwTunnelIdMapping);
}

EvpnHwTunnelIdSm::EvpnHwTunnelIdSm(
    const Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper>& hwTunnelIdHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& taskScheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<TunnelIdToHwTunnelIdMapping>& tunnelIdToHwTunnelIdMapping)
    : helper_(hwTunnelIdHelper),
      taskScheduler_(taskScheduler),
      acsd_(acsd),
      mapping_(tunnelIdToHwTunnelIdMapping) {
  if (evpnStatus) evpnStatusIs(evpnStatus);
  defaultUnprogrammedRetryIntervalIs(unprogrammedRetryIntervalDefault);
  handleInitialized();
  if (!evpnStatus) return;
  segmentStatusSync(evpnStatus->segmentStatusWalk(),
                    [&](const Quil::IntfId& intf) { return evpnStatus->segmentStatusHas(intf); });
}

void EvpnHwTunnelIdSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized");
  if (taskScheduler()) {
    reviewUnprogrammedIs(taskScheduler(), Mox::TaskPriority(reviewUnprogrammedPriority),
                         reviewUnprogrammedName);
  }
  // Rows a previous incarnation left behind name ids this one never got: start from nothing.
  if (tunnelIdToHwTunnelIdMapping()) tunnelIdToHwTunnelIdMapping()->tunnelIdToHwTunnelIdDelAll();
  initializedIs(true);
  if (!evpnStatus()) return;
  for (auto [intf, ess] : evpnStatus()->segmentStatusWalk()) {
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) programHwTunnelId(intf, vlan);
  }
}

void EvpnHwTunnelIdSm::KivEvpnStatus::onSegmentStatus(const Quil::IntfId& intf) {
  // A retired reactor's last pass unprograms the interface.
  owner()->segmentStatusTrack(intf, entity()->segmentStatus(intf));
}

void EvpnHwTunnelIdSm::KivSegmentStatus::handleSegmentStatus() {
  OBA_TRACE8(th, "handleSegmentStatus");
  EvpnHwTunnelIdSm* sm = owner();
  if (!sm->initialized()) return;
  Quil::IntfId intf = fwkKey();
  auto ess = sm->evpnStatus() ? sm->evpnStatus()->segmentStatus(intf) : nullptr;
  if (!ess) {
    if (auto ivs = sm->intfVlanSet(intf)) {
      for (auto [vlan, member] : ivs->vlanIdWalk()) sm->unProgramHwTunnelId(intf, vlan);
    }
    return;
  }
  // VLANs held but no longer in the status are left to their own onDesignatedForwarderTep.
  for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) sm->programHwTunnelId(intf, vlan);
}

void EvpnHwTunnelIdSm::KivSegmentStatus::handleDFTep(Bridging::VlanId vlan) {
  OBA_TRACE8(th, "handleDFTep", " vlan " << vlan);
  if (entity()->designatedForwarderTepHas(vlan)) {
    owner()->programHwTunnelId(fwkKey(), vlan);
  } else {
    owner()->unProgramHwTunnelId(fwkKey(), vlan);
  }
}

void EvpnHwTunnelIdSm::programHwTunnelId(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "programHwTunnelId", " IntfId " << intf << " vlanId " << vlan);
  auto tep = evpnStatus()->segmentStatus(intf)->designatedForwarderTep(vlan);
  // An endpoint out of the tunnel-id range throws here, before anything of the pair changes.
  TunnelId tunnel(Quil::DynamicTunnelIntfId::tunnelId(tep.value_or(Quil::IntfId())));
  IntfVlanKey key(intf, vlan);
  if (auto current = intfVlanTunnel(key); current && *current != tunnel) {
    unProgramHwTunnelId(intf, vlan);  // the pair moves to another tunnel
  }
  intfVlanTunnelIs(key, tunnel);
  intfVlanSetIs(intf)->vlanIdIs(vlan, true);
  tunnelIntfVlanSetIs(tunnel)->intfVlanIs(key, true);
  publishHwTunnelId(tunnel);
}

void EvpnHwTunnelIdSm::publishHwTunnelId(const TunnelId& tunnel) {
  OBA_TRACE8(th, "publishHwTunnelId", " TunnelId " << tunnel);
  KIV_ASSERT(tunnelIdToHwTunnelIdMapping() && hwTunnelIdHelper());
  if (tunnelIdToHwTunnelIdMapping()->tunnelIdToHwTunnelId(tunnel).found) {
    OBA_TRACE5(th, "already programmed");
    return;
  }
  HwTunnelId id = hwTunnelIdHelper()->getHwTunnelId();
  if (!id.isValid()) {
    OBA_TRACE5(th, "failed to program tunnel");
    unprogrammedTunnelIs(tunnel, true);
    maybeScheduleUnprogrammedReview(false);
    return;
  }
  OBA_TRACE5_VALUE(th, "tunnel programmed with hw tunnel id ", id.value(), id);
  tunnelIdToHwTunnelIdMapping()->tunnelIdToHwTunnelIdIs(TunnelIdToHwTunnelId(tunnel, id));
  unprogrammedTunnelDel(tunnel);
}

void EvpnHwTunnelIdSm::unProgramHwTunnelId(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "unProgramHwTunnelId", " IntfId " << intf << " vlanId " << vlan);
  KIV_ASSERT(tunnelIdToHwTunnelIdMapping() && hwTunnelIdHelper());
  IntfVlanKey key(intf, vlan);
  auto tunnel = intfVlanTunnel(key);
  if (!tunnel) return;  // the pair never got a tunnel
  if (auto ivs = intfVlanSet(intf)) {
    ivs->vlanIdDel(vlan);
    if (!ivs->vlanIds()) intfVlanSetDel(intf);
  }
  intfVlanTunnelDel(key);
  auto tivs = tunnelIntfVlanSet(*tunnel);
  KIV_ASSERT(tivs);
  tivs->intfVlanDel(key);
  if (tivs->intfVlans()) {
    OBA_TRACE5(th, "Cannot unprogram the tunnel");
    return;
  }
  // The emptied user set stays: the tunnel is likely to get users again.
  unprogrammedTunnelDel(*tunnel);
  auto row = tunnelIdToHwTunnelIdMapping()->tunnelIdToHwTunnelId(*tunnel);
  if (!row.found) {
    OBA_TRACE5(th, "not programmed");
    return;
  }
  // Readers must stop using the id before the chip may hand it out again.
  tunnelIdToHwTunnelIdMapping()->tunnelIdToHwTunnelIdDel(*tunnel);
  hwTunnelIdHelper()->releaseHwTunnelId(row.row.hwTunnelId());
  OBA_TRACE5_VALUE(th, "releasing hw tunnel id ", row.row.hwTunnelId().value(),
                   row.row.hwTunnelId());
  if (unprogrammedTunnels()) maybeScheduleUnprogrammedReview(true);
}

void EvpnHwTunnelIdSm::maybeScheduleUnprogrammedReview(bool immediate) {
  KIV_ASSERT(initialized());
  KIV_ASSERT_TEXT(reviewUnprogrammed(), "task");
  scheduleUnprogrammedReview(*reviewUnprogrammed()->task(), immediate,
                             defaultUnprogrammedRetryInterval(), th);
}

void EvpnHwTunnelIdSm::doReviewUnprogrammed() {
  OBA_TRACE8(th, "doReviewUnprogrammed");
  KIV_ASSERT(initialized());
  Mox::TimerTask* task = reviewUnprogrammed() ? reviewUnprogrammed()->task().ptr() : nullptr;
  KIV_ASSERT(task);
  reviewEach(unprogrammedTunnelWalk(), *task, defaultUnprogrammedRetryInterval(),
             [this](const TunnelId& tunnel) { publishHwTunnelId(tunnel); });
}

}  // namespace Oba
