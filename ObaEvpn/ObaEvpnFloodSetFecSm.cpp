#include "ObaEvpn/ObaEvpnFloodSetFecSm.h"

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Oba/ObaCommon.h"

namespace Oba {

static Kiv::TraceHandle th("ObaEvpnFloodSetFecSm");

Kiv::Ptr<EvpnFloodSetFecSm> EvpnFloodSetFecSm::EvpnFloodSetFecSmIs(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& mplsFloodSetFecRequest,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& mplsFloodSetFecResponse,
    const Kiv::Ptr<HwInfoMapping>& hwInfoMapping, const Kiv::Ptr<Mox::TimerWheel>& timerWheel) {
  return new EvpnFloodSetFecSm(floodSetOutput, hwTunnelIdMapping, vlanFloodSetHwStatus,
                               mplsFloodSetFecRequest, mplsFloodSetFecResponse, hwInfoMapping,
                               timerWheel);
}

Kiv::Ptr<EvpnFloodSetFecSm> evpnFloodSetFecSmFactory(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& mplsFloodSetFecRequest,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& mplsFloodSetFecResponse,
    const Kiv::Ptr<HwInfoMapping>& hwInfoMapping, const Kiv::Ptr<Mox::TimerWheel>& timerWheel) {
  return EvpnFloodSetFecSm::EvpnFloodSetFecSmIs(floodSetOutput, hwTunnelIdMapping,
                                                vlanFloodSetHwStatus, mplsFloodSetFecRequest,
                                                mplsFloodSetFecResponse, hwInfoMapping, timerWheel);
}

EvpnFloodSetFecSm::EvpnFloodSetFecSm(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus,
    const Kiv::Ptr<FecIdToHwFecIdRequest>& mplsFloodSetFecRequest,
    const Kiv::Ptr<const FecIdToHwFecIdResponse>& mplsFloodSetFecResponse,
    const Kiv::Ptr<HwInfoMapping>& hwInfoMapping, const Kiv::Ptr<Mox::TimerWheel>& timerWheel)
    : request_(mplsFloodSetFecRequest), hwInfoMapping_(hwInfoMapping), timerWheel_(timerWheel) {
  if (hwTunnelIdMapping) hwTunnelIdMappingIs(hwTunnelIdMapping);
  if (mplsFloodSetFecResponse) mplsFloodSetFecResponseIs(mplsFloodSetFecResponse);
  // The flood lists are watched before the initial walk, which alone handles what they hold.
  if (floodSetOutput) {
    floodSetOutputIs(floodSetOutput);
    for (auto [vlan, vlanFloodSet] : floodSetOutput->vlanFloodSetWalk()) {
      vlanFloodSetIs(vlanFloodSet);
    }
  }
  handleInitialized();
  // The chip's results are learnt only from their reactors: made now, they tell what the
  // hardware still holds.
  if (vlanFloodSetHwStatus) {
    vlanFloodSetHwStatusIs(vlanFloodSetHwStatus);
    for (auto [pair, status] : vlanFloodSetHwStatus->statusWalk()) vlanFloodSetStatusIs(status);
  }
}

EvpnFloodSetFecSm::FecId EvpnFloodSetFecSm::indexToFecId(std::int64_t index) {
  KIV_ASSERT_TEXT(index >= 0, "index >= 0");
  return FecId(static_cast<std::uint64_t>(index) | (fecIdType << 56));
}

// ---- handlers --------------------------------------------------------------------------------

void EvpnFloodSetFecSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized");
  KIV_ASSERT(mplsFloodSetFecRequest());
  KIV_ASSERT(hwInfoMapping());
  KIV_ASSERT(timerWheel());
  numAllocatorConfigIs(fecIndexRange);
  numAllocatorStatusIs();
  numAllocatorIs(numAllocatorConfig(), numAllocatorStatus(), timerWheel()->clock());
  hwInfoMapping()->mappingDelAll();
  // The FEC definitions stay: the chip may still use them until it answers the new requests.
  mplsFloodSetFecRequest()->hwFecIdRequestDelAll();
  initializedIs(true);
  if (!floodSetOutput()) return;
  for (auto [vlan, vlanFloodSet] : floodSetOutput()->vlanFloodSetWalk()) {
    forEachDest(*vlanFloodSet, [&](const Quil::EthAddr& mac, const L2Rib::Dest& dest) {
      processMplsDest(vlan, mac, dest);
    });
  }
}

void EvpnFloodSetFecSm::handleVlanFloodSet(const L2Rib::VlanFloodSet& vlanFloodSet) {
  OBA_TRACE8(th, "handleVlanFloodSet", " vlan: " << vlanFloodSet.vlanId());
  if (!initialized()) return;
  forEachDest(vlanFloodSet, [&](const Quil::EthAddr& mac, const L2Rib::Dest& dest) {
    processMplsDest(vlanFloodSet.vlanId(), mac, dest);
  });
}

void EvpnFloodSetFecSm::handleFloodSet(Bridging::VlanId vlanId, const L2Rib::FloodSet& floodSet) {
  OBA_TRACE8(th, "handleFloodSet", " vlan: " << vlanId << " mac: " << floodSet.macAddr());
  if (!initialized()) return;
  for (auto [dest, member] : floodSet.destSetWalk()) {
    processMplsDest(vlanId, floodSet.macAddr(), dest);
  }
}

void EvpnFloodSetFecSm::handleDestSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                                      const L2Rib::Dest& dest) {
  OBA_TRACE8(th, "handleDestSet", " vlan: " << vlanId << " mac: " << macAddr << " dest: " << dest);
  if (initialized()) processMplsDest(vlanId, macAddr, dest);
}

void EvpnFloodSetFecSm::handleHwTunnelIdMapping(const TunnelId& tunnelId) {
  OBA_TRACE8(th, "handleHwTunnelIdMapping", " tunnelId: " << tunnelId);
  auto vias = tunnelInfoCache(tunnelId);
  if (!vias) {
    OBA_TRACE5(th, " no fecRequest associated with this tunnel ");
    return;
  }
  // Each request is issued again, with the same FEC id and the new hardware tunnel id.
  for (auto [via, member] : vias->mplsFloodSetViaSetWalk()) processFecRequest(via);
}

void EvpnFloodSetFecSm::handleFecResponse(const FecId& fecId) {
  OBA_TRACE8(th, "handleFecResponse", " fecId: " << fecId);
  if (!initialized()) return;
  const auto& response = *mplsFloodSetFecResponse();
  const auto l2IntfId = response.l2IntfId(fecId);
  const bool ready = hasFecResponse(fecId) && !l2IntfId.row.empty();
  const auto via = fecIdCache(fecId);
  if (!ready) {
    if (via && hwInfoMapping()->mappingHas(*via)) {
      OBA_TRACE5(th,
                 " delete hwInfo for tunnelId: ", via->tunnelId() << " label: " << via->label());
      hwInfoMapping()->mappingDel(*via);
      maybeDeleteFecId(fecId);
    }
    return;
  }
  if (!mplsFloodSetFecRequest()->hwFecIdRequest(fecId).found) {
    OBA_TRACE5_VALUE(th, " got stale response for FecId:", fecId.value(), fecId);
    return;
  }
  if (!via) return;  // a request this incarnation did not make
  OBA_TRACE5(th,
             " add or update hwInfo for tunnelId: ", via->tunnelId() << " label: " << via->label());
  hwInfoMapping()->mappingIs(*via,
                             MplsDestHwInfo(response.hwFecId(fecId).row.hwFecId(), l2IntfId.row));
}

void EvpnFloodSetFecSm::handleVlanFloodSetStatus(const VlanFloodSetStatus& status) {
  OBA_TRACE8(th, "handleVlanFloodSetStatus",
             " vlan: " << status.macVlanPair().vlanId << " mac: " << status.macVlanPair().macAddr);
  if (!initialized()) return;
  for (auto [config, result] : status.mplsDestStatusWalk()) {
    handleMplsDestStatus(status.macVlanPair(), config);
  }
}

void EvpnFloodSetFecSm::handleMplsDestStatus(const Bridging::MacVlanPair& macVlanPair,
                                             const MplsDestConfig& mplsDestConfig) {
  OBA_TRACE8(th, "handleMplsDestStatus",
             " vlan: " << macVlanPair.vlanId << " mac: " << macVlanPair.macAddr << " tunnelId: "
                       << mplsDestConfig.tunnelId() << " label: " << mplsDestConfig.label());
  if (!initialized()) return;
  const MplsFloodSetVia via(mplsDestConfig.tunnelId(), mplsDestConfig.label());
  if (isMplsDestConfigProgrammed(macVlanPair, mplsDestConfig)) {
    OBA_TRACE5(th, "  config is programmed in hardware");
    floodSetStatusCacheIs(via)->statusIs(macVlanPair, true);
  } else {
    OBA_TRACE5(th, "  config is removed from hardware");
    if (auto lists = floodSetStatusCache(via)) {
      lists->statusDel(macVlanPair);
      if (!lists->statuss()) floodSetStatusCacheDel(via);
    }
  }
  // What finally removes a FEC whose members left the input and now the hardware.
  processFecRequest(via);
}

// ---- operations ------------------------------------------------------------------------------

void EvpnFloodSetFecSm::processMplsDest(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                                        const L2Rib::Dest& dest) {
  OBA_TRACE8(th, "processMplsDest",
             " vlan: " << vlanId << " mac: " << macAddr << " dest: " << dest);
  KIV_ASSERT_TEXT(dest.destType() == L2Rib::destTypeMpls_,
                  "dest.destType() == L2Rib::destTypeMpls_");
  if (dest.tunnelId() == TunnelId::invalid()) {
    OBA_TRACE5(th, "  Invalid tunnelId not supported ");
    return;
  }
  const MplsFloodSetVia via(dest.tunnelId(), dest.label());
  const VlanMacDest vlanMacDest(vlanId, macAddr, dest);
  if (isDestInFloodSet(vlanId, macAddr, dest)) {
    floodSetEntryCacheIs(via)->vlanMacDestSetIs(vlanMacDest, true);
  } else if (auto members = floodSetEntryCache(via)) {
    members->vlanMacDestSetDel(vlanMacDest);
    if (!members->vlanMacDestSets()) floodSetEntryCacheDel(via);
  }
  processFecRequest(via);
}

void EvpnFloodSetFecSm::processFecRequest(const MplsFloodSetVia& via) {
  OBA_TRACE8(th, "processFecRequest",
             " (tunnelId: " << via.tunnelId() << " label: " << via.label() << ")");
  if (floodSetEntryCacheHas(via)) {
    createOrUpdateFecRequest(via);
  } else if (floodSetStatusCacheHas(via)) {
    OBA_TRACE5(th, "    wait for hardware to unprogram the floodSet");
  } else {
    removeFecRequest(via);
  }
}

void EvpnFloodSetFecSm::createOrUpdateFecRequest(const MplsFloodSetVia& via) {
  OBA_TRACE8(th, "createOrUpdateFecRequest",
             " tunnelId: " << via.tunnelId() << " label: " << via.label());
  HwTunnelId hwTunnelId;
  if (hwTunnelIdMapping()) {
    hwTunnelId = hwTunnelIdMapping()->tunnelIdToHwTunnelId(via.tunnelId()).row.hwTunnelId();
  }
  const FecId fecId = getOrAllocateFecId(via);
  updateCachesForFecId(fecId, via, false);
  updateTunnelInfoCache(via, false);
  mplsFloodSetFecRequest()->fecIs(buildFec(fecId, via));
  mplsFloodSetFecRequest()->hwFecIdRequestIs(HwFecIdRequest(fecId, true, hwTunnelId));
  OBA_TRACE5_VALUE(th, "     mplsFloodSetFecRequest created or updated: (tunnelId: ", fecId.value(),
                   via.tunnelId() << " label: " << via.label() << " fecId: " << fecId
                                  << " hwTunnelId:" << hwTunnelId << ")");
}

void EvpnFloodSetFecSm::removeFecRequest(const MplsFloodSetVia& via) {
  OBA_TRACE8(th, "removeFecRequest", " tunnelId: " << via.tunnelId() << " label: " << via.label());
  const auto fecId = mplsFloodSetViaCache(via);
  if (!fecId) {
    OBA_TRACE5(th, "     fecId not found, fecRequest already removed");
    return;
  }
  mplsFloodSetFecRequest()->fecDel(*fecId);
  mplsFloodSetFecRequest()->hwFecIdRequestDel(*fecId);
  updateTunnelInfoCache(via, true);
  OBA_TRACE5_VALUE(th, "     mplsFloodSetFecRequest removed: (tunnelId: ", fecId->value(),
                   via.tunnelId() << " label: " << via.label() << " fecId: " << *fecId << ")");
  maybeDeleteFecId(*fecId);
}

EvpnFloodSetFecSm::FecId EvpnFloodSetFecSm::getOrAllocateFecId(const MplsFloodSetVia& via) {
  const FecId cached = mplsFloodSetViaCache(via).value_or(FecId());
  if (cached.value()) return cached;
  const std::int64_t index = numAllocator()->allocate();
  // Four billion pairs are not expected: exhaustion is not handled.
  KIV_ASSERT_TEXT(index != Mox::NumAllocator::invalid, "FecId range exhausted, Not possible");
  return indexToFecId(index);
}

Shoal::Fib::Fec EvpnFloodSetFecSm::buildFec(const FecId& fecId, const MplsFloodSetVia& via) const {
  Shoal::Fib::Fec fec(fecId);
  fec.viaIs(Shoal::Fib::Via(Shoal::Fib::EcmpIndex(0), via.label(), via.tunnelId()));
  return fec;
}

void EvpnFloodSetFecSm::updateCachesForFecId(const FecId& fecId, const MplsFloodSetVia& via,
                                             bool remove) {
  if (remove) {
    fecIdCacheDel(fecId);
    mplsFloodSetViaCacheDel(via);
    return;
  }
  fecIdCacheIs(fecId, via);
  mplsFloodSetViaCacheIs(via, fecId);
}

void EvpnFloodSetFecSm::updateTunnelInfoCache(const MplsFloodSetVia& via, bool remove) {
  if (!remove) {
    tunnelInfoCacheIs(via.tunnelId())->mplsFloodSetViaSetIs(via, true);
    return;
  }
  auto vias = tunnelInfoCache(via.tunnelId());
  if (!vias) return;
  vias->mplsFloodSetViaSetDel(via);
  if (!vias->mplsFloodSetViaSets()) tunnelInfoCacheDel(via.tunnelId());
}

void EvpnFloodSetFecSm::maybeDeleteFecId(const FecId& fecId) {
  const auto via = fecIdCache(fecId);
  if (!via) return;
  if (mplsFloodSetFecRequest()->hwFecIdRequest(fecId).found) return;
  // The chip has not let go yet; the withdrawal of its answer comes back here.
  if (hasFecResponse(fecId)) return;
  OBA_TRACE5_VALUE(th, "   Deleting fecId: ", fecId.value(), fecId);
  updateCachesForFecId(fecId, *via, true);
  numAllocator()->release(static_cast<std::int64_t>(fecId.value() & ((1ull << 56) - 1)));
}

bool EvpnFloodSetFecSm::hasFecResponse(const FecId& fecId) const {
  // The hardware id row is the answer; the layer-2 interface is what it tells beside it.
  return mplsFloodSetFecResponse() && mplsFloodSetFecResponse()->hwFecId(fecId).found;
}

bool EvpnFloodSetFecSm::isDestInFloodSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                                         const L2Rib::Dest& dest) const {
  return Oba::isDestInFloodSet(floodSetOutput().get(), vlanId, macAddr, dest);
}

bool EvpnFloodSetFecSm::isMplsDestConfigProgrammed(const Bridging::MacVlanPair& macVlanPair,
                                                   const MplsDestConfig& mplsDestConfig) const {
  return Oba::isMplsDestConfigProgrammed(vlanFloodSetHwStatus().get(), macVlanPair, mplsDestConfig);
}

}  // namespace Oba
