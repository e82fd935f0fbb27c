#include "ObaEvpn/ObaEvpnVlanFloodSetSm.h"

#include <ostream>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Oba/ObaCommon.h"

namespace Oba {

static Kiv::TraceHandle th("ObaEvpnVlanFloodSetSm");

namespace {

// A member's five fields as the hardware-config trace lines give them, after "tunnelId: ".
struct Fields {
  const MplsDestConfig& c;
};
std::ostream& operator<<(std::ostream& os, Fields f) {
  return os << f.c.tunnelId() << " label: " << f.c.label() << " hwTunnelId: " << f.c.hwTunnelId()
            << " hwId: " << f.c.hwIdForTunnelProgramming() << " l2IntfId: " << f.c.l2IntfId();
}

}  // namespace

Kiv::Ptr<EvpnVlanFloodSetSm> EvpnVlanFloodSetSm::EvpnVlanFloodSetSmIs(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const HwInfoMapping>& hwInfoMapping,
    const Kiv::Ptr<EvpnVlanFloodSetHwConfig>& vlanFloodSetHwConfig,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus) {
  return new EvpnVlanFloodSetSm(floodSetOutput, hwTunnelIdMapping, hwInfoMapping,
                                vlanFloodSetHwConfig, vlanFloodSetHwStatus);
}

Kiv::Ptr<EvpnVlanFloodSetSm> evpnVlanFloodSetSmFactory(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const HwInfoMapping>& hwInfoMapping,
    const Kiv::Ptr<EvpnVlanFloodSetHwConfig>& vlanFloodSetHwConfig,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus) {
  return EvpnVlanFloodSetSm::EvpnVlanFloodSetSmIs(floodSetOutput, hwTunnelIdMapping, hwInfoMapping,
                                                  vlanFloodSetHwConfig, vlanFloodSetHwStatus);
}

EvpnVlanFloodSetSm::EvpnVlanFloodSetSm(
    const Kiv::Ptr<const L2Rib::FloodSetOutput>& floodSetOutput,
    const Kiv::Ptr<const TunnelIdToHwTunnelIdMapping>& hwTunnelIdMapping,
    const Kiv::Ptr<const HwInfoMapping>& hwInfoMapping,
    const Kiv::Ptr<EvpnVlanFloodSetHwConfig>& vlanFloodSetHwConfig,
    const Kiv::Ptr<const EvpnVlanFloodSetHwStatus>& vlanFloodSetHwStatus)
    : hwConfig_(vlanFloodSetHwConfig) {
  if (hwTunnelIdMapping) hwTunnelIdMappingIs(hwTunnelIdMapping);
  if (hwInfoMapping) hwInfoMappingIs(hwInfoMapping);
  if (vlanFloodSetHwStatus) vlanFloodSetHwStatusIs(vlanFloodSetHwStatus);
  // The flood lists are watched before the initial walk, which alone handles what they hold.
  if (floodSetOutput) {
    floodSetOutputIs(floodSetOutput);
    for (auto [vlan, vlanFloodSet] : floodSetOutput->vlanFloodSetWalk()) {
      vlanFloodSetIs(vlanFloodSet);
    }
  }
  handleInitialized();
  if (vlanFloodSetHwStatus) {
    for (auto [pair, status] : vlanFloodSetHwStatus->statusWalk()) vlanFloodSetStatusIs(status);
  }
}

// ---- handlers --------------------------------------------------------------------------------

void EvpnVlanFloodSetSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized");
  KIV_ASSERT(vlanFloodSetHwConfig());
  // Whatever an earlier incarnation wrote goes before anything is rebuilt.
  vlanFloodSetHwConfig()->configDelAll();
  if (!floodSetOutput()) {
    initializedIs(true);
    return;
  }
  for (auto [vlan, vlanFloodSet] : floodSetOutput()->vlanFloodSetWalk()) {
    forEachDest(*vlanFloodSet, [&](const Quil::EthAddr& mac, const L2Rib::Dest& dest) {
      processMplsDest(vlan, mac, dest);
    });
  }
  initializedIs(true);
}

void EvpnVlanFloodSetSm::handleVlanFloodSet(const L2Rib::VlanFloodSet& vlanFloodSet) {
  OBA_TRACE8(th, "handleVlanFloodSet", " vlan: " << vlanFloodSet.vlanId());
  if (!initialized()) return;
  forEachDest(vlanFloodSet, [&](const Quil::EthAddr& mac, const L2Rib::Dest& dest) {
    processMplsDest(vlanFloodSet.vlanId(), mac, dest);
  });
}

void EvpnVlanFloodSetSm::handleFloodSet(Bridging::VlanId vlanId, const L2Rib::FloodSet& floodSet) {
  OBA_TRACE8(th, "handleFloodSet", " vlan: " << vlanId << " mac: " << floodSet.macAddr());
  if (!initialized()) return;
  for (auto [dest, member] : floodSet.destSetWalk()) {
    processMplsDest(vlanId, floodSet.macAddr(), dest);
  }
}

void EvpnVlanFloodSetSm::handleDestSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                                       const L2Rib::Dest& dest) {
  OBA_TRACE8(th, "handleDestSet", " vlan: " << vlanId << " mac: " << macAddr << " dest: " << dest);
  // Addition or removal: processMplsDest reads which from the input.
  if (initialized()) processMplsDest(vlanId, macAddr, dest);
}

void EvpnVlanFloodSetSm::handleHwTunnelIdMapping(const TunnelId& tunnelId) {
  OBA_TRACE8(th, "handleHwTunnelIdMapping", " tunnelId: " << tunnelId);
  auto entry = tunnelToFloodSetEntry(tunnelId);
  if (!entry) {
    OBA_TRACE5(th, " no dests associated with this tunnel ");
    return;
  }
  for (auto [vlanMacDest, member] : entry->vlanMacDestSetWalk()) {
    processMplsDestConfig(vlanMacDest);
  }
}

void EvpnVlanFloodSetSm::handleHwInfoMapping(const MplsFloodSetVia& via) {
  OBA_TRACE8(th, "handleHwInfoMapping", " ( " << via.tunnelId() << ", " << via.label() << ")");
  auto entry = hwInfoMapKeyToFloodSetEntry(via);
  if (!entry) {
    OBA_TRACE5(th, " hwId is not ready ");
    return;
  }
  // Added or changed identifiers add or update every member; removed ones withdraw them.
  for (auto [vlanMacDest, member] : entry->vlanMacDestSetWalk()) {
    processMplsDestConfig(vlanMacDest);
  }
}

void EvpnVlanFloodSetSm::handleVlanFloodSetStatus(const VlanFloodSetStatus& status) {
  OBA_TRACE8(th, "handleVlanFloodSetStatus",
             " vlan: " << status.macVlanPair().vlanId << " mac: " << status.macVlanPair().macAddr);
  if (!initialized()) return;
  for (auto [config, result] : status.mplsDestStatusWalk()) {
    handleMplsDestStatus(status.macVlanPair(), config);
  }
}

void EvpnVlanFloodSetSm::handleMplsDestStatus(const Bridging::MacVlanPair& macVlanPair,
                                              const MplsDestConfig& mplsDestConfig) {
  OBA_TRACE8(th, "handleMplsDestStatus",
             " vlan: " << macVlanPair.vlanId << " mac: " << macVlanPair.macAddr << " tunnelId: "
                       << mplsDestConfig.tunnelId() << " label: " << mplsDestConfig.label());
  // Retry and repair are the chip layer's: the result is only told.
  if (isMplsDestConfigProgrammed(macVlanPair, mplsDestConfig)) {
    OBA_TRACE5(th, "  config is programmed in hardware");
  } else {
    OBA_TRACE5(th, "  config is not programmed in hardware");
  }
}

// ---- operations ------------------------------------------------------------------------------

void EvpnVlanFloodSetSm::processMplsDest(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                                         const L2Rib::Dest& dest) {
  OBA_TRACE8(th, "processMplsDest",
             " vlan: " << vlanId << " mac: " << macAddr << " dest: " << dest);
  KIV_ASSERT_TEXT(dest.destType() == L2Rib::destTypeMpls_,
                  "dest.destType() == L2Rib::destTypeMpls_");
  const VlanMacDest vlanMacDest(vlanId, macAddr, dest);
  // The indexes are current before the hardware decision.
  updateInternalMapping(vlanMacDest);
  processMplsDestConfig(vlanMacDest);
}

void EvpnVlanFloodSetSm::updateInternalMapping(const VlanMacDest& vlanMacDest) {
  const L2Rib::Dest& dest = vlanMacDest.dest();
  OBA_TRACE8(
      th, "updateInternalMapping",
      " vlan: " << vlanMacDest.vlanId() << " mac: " << vlanMacDest.macAddr() << " dest: " << dest);
  const TunnelId tunnelId = dest.tunnelId();
  const MplsFloodSetVia via(tunnelId, dest.label());
  if (isDestInFloodSet(vlanMacDest.vlanId(), vlanMacDest.macAddr(), dest)) {
    OBA_TRACE5(th, "   add entry to internal mappings");
    tunnelToFloodSetEntryIs(tunnelId)->vlanMacDestSetIs(vlanMacDest, true);
    hwInfoMapKeyToFloodSetEntryIs(via)->vlanMacDestSetIs(vlanMacDest, true);
    return;
  }
  OBA_TRACE5(th, "   remove entry from internal mappings");
  if (auto entry = tunnelToFloodSetEntry(tunnelId)) {
    entry->vlanMacDestSetDel(vlanMacDest);
    if (!entry->vlanMacDestSets()) tunnelToFloodSetEntryDel(tunnelId);
  }
  if (auto entry = hwInfoMapKeyToFloodSetEntry(via)) {
    entry->vlanMacDestSetDel(vlanMacDest);
    if (!entry->vlanMacDestSets()) hwInfoMapKeyToFloodSetEntryDel(via);
  }
}

void EvpnVlanFloodSetSm::processMplsDestConfig(const VlanMacDest& vlanMacDest) {
  const L2Rib::Dest& dest = vlanMacDest.dest();
  OBA_TRACE8(
      th, "processMplsDestConfig",
      " vlan: " << vlanMacDest.vlanId() << " mac: " << vlanMacDest.macAddr() << " dest: " << dest);
  const MplsFloodSetVia via(dest.tunnelId(), dest.label());
  if (hwInfoMapping() && hwInfoMapping()->mappingHas(via)) {
    if (isDestInFloodSet(vlanMacDest.vlanId(), vlanMacDest.macAddr(), dest)) {
      addOrUpdateMplsDestHwConfig(vlanMacDest);
      return;
    }
  } else {
    OBA_TRACE5(th, "   hwId not ready for dest, tunnelId: ",
               dest.tunnelId() << " label: " << dest.label());
  }
  deleteMplsDestHwConfig(vlanMacDest);
}

MplsDestConfig EvpnVlanFloodSetSm::createMplsDestConfig(const L2Rib::Dest& dest) const {
  const TunnelId tunnelId = dest.tunnelId();
  KIV_ASSERT_TEXT(tunnelId != Tunnel::TunnelTable::TunnelId::invalid(),
                  "tunnelId != Tunnel::TunnelTable::TunnelId::invalid()");
  HwTunnelId hwTunnelId;
  if (hwTunnelIdMapping()) {
    hwTunnelId = hwTunnelIdMapping()->tunnelIdToHwTunnelId(tunnelId).row.hwTunnelId();
  }
  const MplsFloodSetVia key(tunnelId, dest.label());
  KIV_ASSERT_TEXT(hwInfoMapping() && hwInfoMapping()->mappingHas(key),
                  "hwInfoMapping()->mappingHas( key )");
  const MplsDestHwInfo hwInfo = *hwInfoMapping()->mapping(key);
  return MplsDestConfig(tunnelId, dest.label(), hwTunnelId, hwInfo.hwIdForTunnelProgramming(),
                        hwInfo.l2IntfId());
}

void EvpnVlanFloodSetSm::addOrUpdateMplsDestHwConfig(const VlanMacDest& vlanMacDest) {
  OBA_TRACE8(th, "addOrUpdateMplsDestHwConfig",
             " vlan: " << vlanMacDest.vlanId() << " mac: " << vlanMacDest.macAddr()
                       << " dest: " << vlanMacDest.dest());
  const MplsDestConfig config = createMplsDestConfig(vlanMacDest.dest());
  const MplsDestConfig existing = mplsDestHwConfig(vlanMacDest).value_or(MplsDestConfig());
  if (config == existing) {
    OBA_TRACE5(th, "   no change in hardware config, skip ");
    return;
  }
  auto floodList = vlanFloodSetHwConfig()->configIs(
      Bridging::MacVlanPair{vlanMacDest.vlanId(), vlanMacDest.macAddr()});
  floodList->mplsDestConfigIs(config, true);
  if (!existing) {
    OBA_TRACE5(th, "   add hardware config: tunnelId: ", Fields{config});
  } else {
    OBA_TRACE5(th, "   update hardware config, existing: ( tunnelId: ",
               Fields{existing} << " ), new: ( tunnelId: " << Fields{config} << ")");
    // Make before break: the new member is in the list before the old one leaves.
    floodList->mplsDestConfigDel(existing);
  }
  mplsDestHwConfigIs(vlanMacDest, config);
}

void EvpnVlanFloodSetSm::deleteMplsDestHwConfig(const VlanMacDest& vlanMacDest) {
  const auto written = mplsDestHwConfig(vlanMacDest);
  if (!written || !*written) return;  // nothing was written
  OBA_TRACE5(th, "   remove hardware config: tunnelId: ", Fields{*written});
  const Bridging::MacVlanPair pair{vlanMacDest.vlanId(), vlanMacDest.macAddr()};
  if (auto floodList = vlanFloodSetHwConfig()->config(pair)) {
    floodList->mplsDestConfigDel(*written);
    // An empty hardware flood list is removed, not kept.
    if (!floodList->mplsDestConfigs()) vlanFloodSetHwConfig()->configDel(pair);
  }
  mplsDestHwConfigDel(vlanMacDest);
}

bool EvpnVlanFloodSetSm::isDestInFloodSet(Bridging::VlanId vlanId, const Quil::EthAddr& macAddr,
                                          const L2Rib::Dest& dest) const {
  return Oba::isDestInFloodSet(floodSetOutput().get(), vlanId, macAddr, dest);
}

bool EvpnVlanFloodSetSm::isMplsDestConfigProgrammed(const Bridging::MacVlanPair& macVlanPair,
                                                    const MplsDestConfig& mplsDestConfig) const {
  return Oba::isMplsDestConfigProgrammed(vlanFloodSetHwStatus().get(), macVlanPair, mplsDestConfig);
}

}  // namespace Oba
