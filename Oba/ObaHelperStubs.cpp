#include "Oba/ObaHelperStubs.h"

#include <utility>

namespace ObaHelper {

// Each operation records its arguments first and counts the call last, so that a notifiee of the
// count sees the whole call.

EsiFilteringDecapHelperStub::EsiFilteringDecapHelperStub(Kiv::Name name)
    : EsiFilteringDecapHelper(std::move(name)) {}

Mpls::LfibHwProgrammingReturnCode EsiFilteringDecapHelperStub::createEsiPortMap(
    Quil::MplsLabel label, Quil::IntfId intfId) {
  createEsiPortMapLabelIs(label);
  createEsiPortMapIntfIdIs(intfId);
  createEsiPortMapCountInc(1);
  return createEsiPortMapRc();
}

void EsiFilteringDecapHelperStub::deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId intfId) {
  deleteEsiPortMapLabelIs(label);
  deleteEsiPortMapIntfIdIs(intfId);
  deleteEsiPortMapCountInc(1);
}

EvpnFloodingSmHelperStub::EvpnFloodingSmHelperStub(Kiv::Name name)
    : EvpnFloodingSmHelper(std::move(name)) {}

Oba::HwProgrammingStatus EvpnFloodingSmHelperStub::createVlanToDot1qMapping(
    Quil::IntfId intfId, Bridging::VlanId vlanId, Bridging::VlanIdOrNone dot1q) {
  createVlanToDot1qIntfIdIs(intfId);
  createVlanToDot1qVlanIdIs(vlanId);
  createVlanToDot1qDot1qIs(dot1q);
  createVlanToDot1qCountInc(1);
  return createVlanToDot1qRc();
}

void EvpnFloodingSmHelperStub::deleteVlanToDot1qMapping(Quil::IntfId intfId,
                                                        Bridging::VlanId vlanId,
                                                        Bridging::VlanIdOrNone dot1q) {
  deleteVlanToDot1qIntfIdIs(intfId);
  deleteVlanToDot1qVlanIdIs(vlanId);
  deleteVlanToDot1qDot1qIs(dot1q);
  deleteVlanToDot1qCountInc(1);
}

Oba::HwProgrammingStatus EvpnFloodingSmHelperStub::createEsiData(
    Quil::IntfId intfId, Bridging::VlanId vlanId, const Tunnel::TunnelTable::TunnelId& tunnelId,
    Oba::HwTunnelId hwTunnelId, Quil::MplsLabel label, Quil::MplsLabel) {
  createEsiDataIntfIdIs(intfId);
  createEsiDataVlanIdIs(vlanId);
  createEsiDataTidIs(tunnelId);
  createEsiDataHwTidIs(hwTunnelId);
  createEsiDataLabelIs(label);
  createEsiDataCountInc(1);
  return createEsiDataRc();
}

void EvpnFloodingSmHelperStub::deleteEsiData(Quil::IntfId intfId, Bridging::VlanId vlanId) {
  deleteEsiDataIntfIdIs(intfId);
  deleteEsiDataVlanIdIs(vlanId);
  deleteEsiDataCountInc(1);
}

EvpnHwTunnelIdSmHelperStub::EvpnHwTunnelIdSmHelperStub(Kiv::Name name)
    : EvpnHwTunnelIdSmHelper(std::move(name)) {}

Oba::HwTunnelId EvpnHwTunnelIdSmHelperStub::getHwTunnelId() {
  getHwTunnelIdCountInc(1);
  if (hwTunnelIdExhausted()) return Oba::HwTunnelId(0);
  const Oba::HwTunnelId id(hwTunnelIdIndex());
  hwTunnelIdIndexInc(1);
  return id;
}

void EvpnHwTunnelIdSmHelperStub::releaseHwTunnelId(Oba::HwTunnelId hwTunnelId) {
  releaseHwTunnelIdHwTunnelIdIs(hwTunnelId);
  releaseHwTunnelIdCountInc(1);
}

Kiv::Ptr<EsiFilteringDecapHelperStub> esiFilteringDecapHelperStubFactory(Kiv::Name name) {
  return new EsiFilteringDecapHelperStub(std::move(name));
}

Kiv::Ptr<EvpnFloodingSmHelperStub> evpnFloodingSmHelperStubFactory(Kiv::Name name) {
  return new EvpnFloodingSmHelperStub(std::move(name));
}

Kiv::Ptr<EvpnHwTunnelIdSmHelperStub> evpnHwTunnelIdSmHelperStubFactory(Kiv::Name name) {
  return new EvpnHwTunnelIdSmHelperStub(std::move(name));
}

}  // namespace ObaHelper
