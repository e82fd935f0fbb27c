#include "ObaEvpn/ObaEvpnFloodingEsiSm.h"

namespace Oba {

static Kiv::TraceHandle th("ObaEvpnFloodingEsiSm");

Kiv::Ptr<EvpnFloodingEsiSm> EvpnFloodingEsiSm::EvpnFloodingEsiSmIs(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& tunnelIdHwTunnelId) {
  return new EvpnFloodingEsiSm(floodingHelper, scheduler, acsd, evpnStatus, tunnelIdHwTunnelId);
}

Kiv::Ptr<EvpnFloodingEsiSm> evpnFloodingEsiSmFactory(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& tunnelIdHwTunnelId) {
  return EvpnFloodingEsiSm::EvpnFloodingEsiSmIs(floodingHelper, scheduler, acsd, evpnStatus,
                                                tunnelIdHwTunnelId);
}

EvpnFloodingEsiSm::EvpnFloodingEsiSm(
    const Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper>& floodingHelper,
    const Kiv::Ptr<Mox::TaskScheduler>& scheduler, const Kiv::Ptr<const ObaCommonSmData>& acsd,
    const Kiv::Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& tunnelIdHwTunnelId)
    : helper_(floodingHelper), scheduler_(scheduler) {
  if (acsd) acsdIs(acsd);
  if (evpnStatus) evpnStatusIs(evpnStatus);
  if (tunnelIdHwTunnelId) tunnelIdHwTunnelIdIs(tunnelIdHwTunnelId);
  defaultUnprogrammedRetryIntervalIs(unprogrammedRetryIntervalDefault);
  handleInitialized();
  segmentStatusSync(evpnStatus->segmentStatusWalk(),
                    [&](const Quil::IntfId& intf) { return evpnStatus->segmentStatusHas(intf); });
}

void EvpnFloodingEsiSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized");
  KIV_ASSERT(floodingHelper());
  KIV_ASSERT(scheduler());
  KIV_ASSERT(evpnStatus());
  KIV_ASSERT(tunnelIdHwTunnelId());
  KIV_ASSERT(acsd());
  reviewUnprogrammedIs(scheduler(), Mox::TaskPriority(reviewUnprogrammedPriority),
                       reviewUnprogrammedName);
  initializedIs(true);
  for (auto [intf, ess] : evpnStatus()->segmentStatusWalk()) {
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) addIntfVlanMapping(intf, vlan);
  }
}

void EvpnFloodingEsiSm::KivEvpnStatus::onSegmentStatus(const Quil::IntfId& intf) {
  // A retired reactor's last pass unprograms the interface.
  owner()->segmentStatusTrack(intf, entity()->segmentStatus(intf));
}

void EvpnFloodingEsiSm::KivSegmentStatus::handleSegmentStatus() {
  Quil::IntfId intf = fwkKey();
  OBA_TRACE8(th, "handleSegmentStatus", " " << intf);
  EvpnFloodingEsiSm* sm = owner();
  if (!sm->initialized()) return;
  auto ess = sm->evpnStatus()->segmentStatus(intf);
  if (!ess) {
    if (auto ivs = sm->intfVlanSet(intf)) {
      for (auto [vlan, member] : ivs->vlanIdWalk()) sm->deleteIntfVlanMapping(intf, vlan);
    }
    return;
  }
  for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) sm->addIntfVlanMapping(intf, vlan);
}

void EvpnFloodingEsiSm::KivSegmentStatus::handleDFTep(Bridging::VlanId vlan) {
  OBA_TRACE8(th, "handleDFTep", " " << fwkKey() << " vlan " << vlan);
  if (!owner()->initialized()) return;
  if (entity()->designatedForwarderTepHas(vlan)) {
    owner()->addIntfVlanMapping(fwkKey(), vlan);
  } else {
    owner()->deleteIntfVlanMapping(fwkKey(), vlan);
  }
}

void EvpnFloodingEsiSm::KivSegmentStatus::handleLabel(Quil::IntfId tepIntf) {
  OBA_TRACE8(th, "handleLabel", " " << fwkKey() << " tunnel " << tepIntf);
  EvpnFloodingEsiSm* sm = owner();
  if (!sm->initialized()) return;
  TunnelId tunnel(Quil::DynamicTunnelIntfId::tunnelId(tepIntf));
  if (auto itvs = sm->intfTunnelVlanSet(IntfTunnelKey(fwkKey(), tunnel))) {
    for (auto [vlan, member] : itvs->vlanIdWalk()) sm->processIntfVlan(fwkKey(), vlan);
  }
}

void EvpnFloodingEsiSm::handleLocalEsiLabel(Quil::IntfId intf) {
  OBA_TRACE8(th, "handleLocalEsiLabel", " " << intf);
  if (!initialized()) return;
  auto ivs = intfVlanSet(intf);
  if (!ivs) return;
  if (evpnStatus()->localEsiLabelHas(intf)) {
    for (auto [vlan, member] : ivs->vlanIdWalk()) addIntfVlanMapping(intf, vlan);
  } else {
    for (auto [vlan, member] : ivs->vlanIdWalk()) deleteIntfVlanTunnelMapping(intf, vlan);
  }
}

void EvpnFloodingEsiSm::handleLagPort(Quil::IntfId lag) {
  OBA_TRACE8(th, "handleLagPort", " " << lag);
  if (!initialized()) return;
  if (auto ivs = intfVlanSet(lag)) {
    for (auto [vlan, member] : ivs->vlanIdWalk()) processIntfVlan(lag, vlan);
  }
}

// No initialized() test: before initialization tunnelIntfVlanSet is empty, so nothing is found.
void EvpnFloodingEsiSm::handleTunnelIdMapping(const TunnelId& tunnel) {
  OBA_TRACE8(th, "handleTunnelIdMapping", " tunnelId " << tunnel);
  auto tivs = tunnelIntfVlanSet(tunnel);
  if (!tivs) return;
  if (tunnelIdHwTunnelId()->tunnelIdToHwTunnelId(tunnel).found) {
    for (auto [key, member] : tivs->intfVlanWalk()) addIntfVlanMapping(key.intfId(), key.vlanId());
  } else {
    for (auto [key, member] : tivs->intfVlanWalk()) {
      deleteIntfVlanTunnelMapping(key.intfId(), key.vlanId());
    }
  }
}

void EvpnFloodingEsiSm::addIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "addIntfVlanMapping", " " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  addIntfVlanMember(*this, intf, vlan);
  processIntfVlan(intf, vlan);
}

void EvpnFloodingEsiSm::deleteIntfVlanMapping(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "deleteIntfVlanMapping", " " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  auto vis = vlanIntfSet(vlan);
  KIV_ASSERT(vis);
  if (auto ivs = intfVlanSet(intf)) {
    ivs->vlanIdDel(vlan);
    if (!ivs->vlanIds()) intfVlanSetDel(intf);
  }
  vis->intfIdDel(intf);
  if (!vis->intfIds()) vlanIntfSetDel(vlan);
  processIntfVlan(intf, vlan);
}

void EvpnFloodingEsiSm::processIntfVlan(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "processIntfVlan", " " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  auto ess = evpnStatus()->segmentStatus(intf);
  if (!ess) {
    OBA_TRACE5(th, "no segment status");
    deleteIntfVlanTunnelMapping(intf, vlan);
    return;
  }
  auto tep = ess->designatedForwarderTep(vlan);
  if (!tep) {
    OBA_TRACE5(th, "no designated forwarder tep");
    deleteIntfVlanTunnelMapping(intf, vlan);
    return;
  }
  // An endpoint out of the tunnel-id range throws here, before anything of the pair changes.
  TunnelId tunnel(Quil::DynamicTunnelIntfId::tunnelId(*tep));
  addOrUpdateIntfVlanTunnelMapping(intf, vlan, tunnel);
  auto label = ess->remoteEsiLabel(*tep);
  if (!label) {
    OBA_TRACE5(th, "no esi label");
    deleteIntfVlanTunnelLabelMapping(intf, vlan, tunnel);
    return;
  }
  if (label->encapType() != Evpn::EncapTypeLabel::encapTypeMpls) {
    // A label of another encapsulation is not ours to program; what is programmed stays.
    OBA_TRACE5_VALUE(th, "incorrect encap type ", label->encapType(),
                     static_cast<int>(label->encapType()));
    return;
  }
  addOrUpdateIntfVlanTunnelLabelMapping(intf, vlan, tunnel, label->mplsLabel());
}

void EvpnFloodingEsiSm::addOrUpdateIntfVlanTunnelMapping(Quil::IntfId intf, Bridging::VlanId vlan,
                                                         const TunnelId& tunnel) {
  OBA_TRACE8(th, "addOrUpdateIntfVlanTunnelMapping",
             " " << intf << " vlan " << vlan << " tunnel " << tunnel);
  KIV_ASSERT(initialized());
  IntfVlanKey key(intf, vlan);
  if (auto current = intfVlanTunnel(key); current && *current != tunnel) {
    deleteIntfVlanTunnelMapping(intf, vlan);  // the designated forwarder moved
  }
  intfVlanTunnelIs(key, tunnel);
  tunnelIntfVlanSetIs(tunnel)->intfVlanIs(key, true);
  intfTunnelVlanSetIs(IntfTunnelKey(intf, tunnel))->vlanIdIs(vlan, true);
}

void EvpnFloodingEsiSm::deleteIntfVlanTunnelMapping(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "deleteIntfVlanTunnelMapping", " " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  IntfVlanKey key(intf, vlan);
  auto tunnel = intfVlanTunnel(key);
  if (!tunnel) return;
  intfVlanTunnelDel(key);
  IntfTunnelKey intfTunnel(intf, *tunnel);
  auto itvs = intfTunnelVlanSet(intfTunnel);
  KIV_ASSERT(itvs);
  itvs->vlanIdDel(vlan);
  if (!itvs->vlanIds()) intfTunnelVlanSetDel(intfTunnel);
  auto tivs = tunnelIntfVlanSet(*tunnel);
  KIV_ASSERT(tivs);
  tivs->intfVlanDel(key);
  if (!tivs->intfVlans()) tunnelIntfVlanSetDel(*tunnel);
  deleteIntfVlanTunnelLabelMapping(intf, vlan, *tunnel);
}

void EvpnFloodingEsiSm::addOrUpdateIntfVlanTunnelLabelMapping(Quil::IntfId intf,
                                                              Bridging::VlanId vlan,
                                                              const TunnelId& tunnel,
                                                              Quil::MplsLabel label) {
  OBA_TRACE8(th, "addOrUpdateIntfVlanTunnelLabelMapping",
             " " << intf << " vlan " << vlan << " tunnel " << tunnel << " label " << label);
  KIV_ASSERT(initialized());
  IntfVlanTunnelKey labelKey(intf, vlan, tunnel);
  if (auto current = intfVlanTunnelLabel(labelKey); current && *current != label) {
    deleteIntfVlanTunnelLabelMapping(intf, vlan, tunnel);
  }
  intfVlanTunnelLabelIs(labelKey, label);
  programEsi(intf, vlan, label);  // ports already programmed are cut short per port
}

void EvpnFloodingEsiSm::deleteIntfVlanTunnelLabelMapping(Quil::IntfId intf, Bridging::VlanId vlan,
                                                         const TunnelId& tunnel) {
  OBA_TRACE8(th, "deleteIntfVlanTunnelLabelMapping",
             " " << intf << " vlan " << vlan << " tunnel " << tunnel);
  KIV_ASSERT(initialized());
  IntfVlanTunnelKey labelKey(intf, vlan, tunnel);
  if (!intfVlanTunnelLabelHas(labelKey)) return;
  intfVlanTunnelLabelDel(labelKey);
  unprogramEsi(intf, vlan);
}

void EvpnFloodingEsiSm::programEsi(Quil::IntfId intf, Bridging::VlanId vlan,
                                   Quil::MplsLabel label) {
  OBA_TRACE8(th, "programEsi", " " << intf << " vlan " << vlan << " label " << label);
  KIV_ASSERT(initialized());
  programLagPorts(
      *this, intf, vlan, th, [&](Quil::IntfId port) { programEsiHelper(intf, port, vlan, label); },
      [&](Quil::IntfId port) { unprogramEsiHelper(intf, port, vlan); },
      [&] { unprogramEsi(intf, vlan); });
}

void EvpnFloodingEsiSm::programEsiHelper(Quil::IntfId logical, Quil::IntfId phy,
                                         Bridging::VlanId vlan, Quil::MplsLabel label) {
  OBA_TRACE8(
      th, "programEsiHelper",
      " logical intf " << logical << " phy intf " << phy << " vlan " << vlan << " label " << label);
  KIV_ASSERT(initialized());
  IntfVlanKey key(logical, vlan);
  KIV_ASSERT_TEXT(intfVlanTunnelHas(key), "intfVlanTunnelHas( key )");
  TunnelId tunnel = *intfVlanTunnel(key);
  auto hwTunnel = tunnelIdHwTunnelId()->tunnelIdToHwTunnelId(tunnel);
  if (!hwTunnel.found) {
    // Not a failure: the id's publication re-drives the pair (handleTunnelIdMapping).
    OBA_TRACE5(th, "hw tunnel id not published");
    return;
  }
  auto localLabel = evpnStatus()->localEsiLabel(logical);
  if (!localLabel || *localLabel == Evpn::EncapTypeLabel()) {
    // Not a failure either: the label's arrival re-drives the pair (handleLocalEsiLabel).
    OBA_TRACE5(th, "local label not published");
    return;
  }
  IntfVlanTunnelKey labelKey(logical, vlan, tunnel);
  KIV_ASSERT_TEXT(intfVlanTunnelLabelHas(labelKey), "intfVlanTunnelLabelHas( labelKey )");
  // The ids handed over come from the published mapping: the chip refusing one is a bug.
  static constexpr PortProgrammingTexts texts{"programmed esi", "failed to program esi",
                                              "invalid hwId, failed to program"};
  programPort(*this, key, phy, th, texts, [&] {
    return floodingHelper()->createEsiData(phy, vlan, tunnel, hwTunnel.row.hwTunnelId(), label,
                                           localLabel->mplsLabel());
  });
}

void EvpnFloodingEsiSm::unprogramEsi(Quil::IntfId intf, Bridging::VlanId vlan) {
  OBA_TRACE8(th, "unprogramEsi", " " << intf << " vlan " << vlan);
  KIV_ASSERT(initialized());
  bool released = unprogramPorts(*this, IntfVlanKey(intf, vlan), th,
                                 [&](Quil::IntfId port) { unprogramEsiHelper(intf, port, vlan); });
  // The entries freed in the chip may let the waiting pairs through now.
  if (released && unprogrammedEsis()) maybeScheduleUnprogrammedReview(true);
}

void EvpnFloodingEsiSm::unprogramEsiHelper(Quil::IntfId logical, Quil::IntfId phy,
                                           Bridging::VlanId vlan) {
  OBA_TRACE8(th, "unprogramEsiHelper",
             " logical intf " << logical << " phy intf " << phy << " vlan " << vlan);
  KIV_ASSERT(initialized());
  unprogramPort(*this, IntfVlanKey(logical, vlan), phy, th,
                [&] { floodingHelper()->deleteEsiData(phy, vlan); });
}

void EvpnFloodingEsiSm::maybeScheduleUnprogrammedReview(bool immediate) {
  OBA_TRACE8(th, "maybeScheduleUnprogrammedReview", " immediate " << immediate);
  schedulePortReview(*this, immediate, th);
}

void EvpnFloodingEsiSm::doReviewUnprogrammed() {
  OBA_TRACE8(th, "doReviewUnprogrammed");
  reviewParkedPorts(*this, "es", "es->unprogrammeds()");
}

}  // namespace Oba
