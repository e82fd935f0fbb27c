#include "Oba/ObaHelpers.h"

#include <utility>

namespace ObaHelper {

// Each operation: the default when the agent runs without hardware, an abort otherwise. The
// message is a literal, so the quiet path builds nothing.

EsiFilteringDecapHelper::EsiFilteringDecapHelper(Kiv::Name name)
    : Oba::ObaBaseHelper(std::move(name)) {}

Mpls::LfibHwProgrammingReturnCode EsiFilteringDecapHelper::createEsiPortMap(Quil::MplsLabel,
                                                                            Quil::IntfId) {
  if (noopAgent()) return Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingResourceFull;
  obaAssert("Unimplemented createEsiPortMap");
}

void EsiFilteringDecapHelper::deleteEsiPortMap(Quil::MplsLabel, Quil::IntfId) {
  if (noopAgent()) return;
  obaAssert("Unimplemented deleteEsiPortMap");
}

EvpnFloodingSmHelper::EvpnFloodingSmHelper(Kiv::Name name) : Oba::ObaBaseHelper(std::move(name)) {}

Oba::HwProgrammingStatus EvpnFloodingSmHelper::createVlanToDot1qMapping(Quil::IntfId,
                                                                        Bridging::VlanId,
                                                                        Bridging::VlanIdOrNone) {
  if (noopAgent()) return Oba::HwProgrammingStatus::notProgrammed;
  obaAssert("Unimplemented createVlanToDot1qMapping");
}

void EvpnFloodingSmHelper::deleteVlanToDot1qMapping(Quil::IntfId, Bridging::VlanId,
                                                    Bridging::VlanIdOrNone) {
  if (noopAgent()) return;
  obaAssert("Unimplemented deleteVlanToDot1qMapping");
}

Oba::HwProgrammingStatus EvpnFloodingSmHelper::createEsiData(Quil::IntfId, Bridging::VlanId,
                                                             const Tunnel::TunnelTable::TunnelId&,
                                                             Oba::HwTunnelId, Quil::MplsLabel,
                                                             Quil::MplsLabel) {
  if (noopAgent()) return Oba::HwProgrammingStatus::notProgrammed;
  // Field diagnostics know this operation as addEsiData: the message keeps that name.
  obaAssert("Unimplemented addEsiData");
}

void EvpnFloodingSmHelper::deleteEsiData(Quil::IntfId, Bridging::VlanId) {
  if (noopAgent()) return;
  obaAssert("Unimplemented deleteEsiData");
}

EvpnHwTunnelIdSmHelper::EvpnHwTunnelIdSmHelper(Kiv::Name name)
    : Oba::ObaBaseHelper(std::move(name)) {}

Oba::HwTunnelId EvpnHwTunnelIdSmHelper::getHwTunnelId() {
  // Id 0 reads as exhaustion: every tunnel stays unprogrammed and is retried.
  if (noopAgent()) return Oba::HwTunnelId(0);
  obaAssert("Unimplemented getHwTunnelId");
}

void EvpnHwTunnelIdSmHelper::releaseHwTunnelId(Oba::HwTunnelId) {
  if (noopAgent()) return;
  obaAssert("Unimplemented releaseHwTunnelId");
}

}  // namespace ObaHelper
