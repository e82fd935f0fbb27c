#include "ObaEvpn/ObaEvpnVlanFloodSetFilterSm.h"

#include <utility>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Oba/ObaCommon.h"

namespace Oba {

static Kiv::TraceHandle th("ObaEvpnVlanFloodSetFilterSm");

Kiv::Ptr<VlanFloodSetFilterSm> VlanFloodSetFilterSm::VlanFloodSetFilterSmIs(
    L2Rib::DestType destType, Kiv::Ptr<const L2Rib::FloodSetOutput> inFloodSetOutput,
    Kiv::Ptr<L2Rib::FloodSetOutput> outFloodSetOutput) {
  return new VlanFloodSetFilterSm(destType, std::move(inFloodSetOutput),
                                  std::move(outFloodSetOutput));
}

Kiv::Ptr<VlanFloodSetFilterSm> vlanFloodSetFilterSmFactory(
    L2Rib::DestType destType, Kiv::Ptr<const L2Rib::FloodSetOutput> inFloodSetOutput,
    Kiv::Ptr<L2Rib::FloodSetOutput> outFloodSetOutput) {
  return VlanFloodSetFilterSm::VlanFloodSetFilterSmIs(destType, std::move(inFloodSetOutput),
                                                      std::move(outFloodSetOutput));
}

VlanFloodSetFilterSm::VlanFloodSetFilterSm(L2Rib::DestType destType,
                                           Kiv::Ptr<const L2Rib::FloodSetOutput> inFloodSetOutput,
                                           Kiv::Ptr<L2Rib::FloodSetOutput> outFloodSetOutput)
    : destType_(destType), outFloodSetOutput_(std::move(outFloodSetOutput)) {
  inFloodSetOutputIs(inFloodSetOutput);
  vlanFloodSetSync(inFloodSetOutput->vlanFloodSetWalk(), [&](const Bridging::VlanId& vlan) {
    return inFloodSetOutput->vlanFloodSetHas(vlan);
  });
  handleInitialized();
}

// ---- reactors --------------------------------------------------------------------------------

void VlanFloodSetFilterSm::KivInFloodSetOutput::onVlanFloodSet(const Bridging::VlanId& vlan) {
  owner()->vlanFloodSetTrack(vlan, entity()->vlanFloodSet(vlan));
}

VlanFloodSetFilterSm::KivVlanFloodSet::KivVlanFloodSet(
    const Kiv::Ptr<const L2Rib::VlanFloodSet>& vlanFloodSet, VlanFloodSetFilterSm* owner)
    : Reactor(vlanFloodSet, owner) {
  for (auto [mac, floodSet] : vlanFloodSet->floodSetWalk()) floodSetIs(floodSet);
}

void VlanFloodSetFilterSm::KivVlanFloodSet::onFloodSet(const Quil::EthAddr& mac) {
  floodSetTrack(mac, entity()->floodSet(mac));
}

// ---- handlers --------------------------------------------------------------------------------

void VlanFloodSetFilterSm::handleInitialized() {
  OBA_TRACE8(th, "handleInitialized ", destType_);
  initializedIs(true);
  outFloodSetOutput_->sourceIs(inFloodSetOutput()->source());
  for (auto [vlan, vlanFloodSet] : inFloodSetOutput()->vlanFloodSetWalk()) {
    processVlanFloodSet(vlan);
  }
}

void VlanFloodSetFilterSm::handleSource() {
  OBA_TRACE8(th, "handleSource source: ", inFloodSetOutput()->source());
  KIV_ASSERT(initialized());
  outFloodSetOutput_->sourceIs(inFloodSetOutput()->source());
}

void VlanFloodSetFilterSm::KivVlanFloodSet::handleVlanFloodSet() {
  OBA_TRACE8(th, "handleVlanFloodSet vlan: ", fwkKey());
  if (!owner()->initialized()) return;
  owner()->processVlanFloodSet(fwkKey());
}

void VlanFloodSetFilterSm::KivFloodSet::handleFloodSet() {
  OBA_TRACE8(th, " handleFloodSet vlan: ", owner()->fwkKey() << " mac: " << fwkKey());
  VlanFloodSetFilterSm* sm = owner()->owner();
  if (!sm->initialized()) return;
  sm->processFloodSet(owner()->fwkKey(), fwkKey());
}

void VlanFloodSetFilterSm::KivFloodSet::handleDestSet(const L2Rib::Dest& dest) {
  OBA_TRACE8(th, "  handleDestSet vlan: ",
             owner()->fwkKey() << " mac: " << fwkKey() << " dest: " << dest.destId());
  VlanFloodSetFilterSm* sm = owner()->owner();
  if (sm->initialized()) sm->processDest(owner()->fwkKey(), fwkKey(), dest);
}

// ---- operations ------------------------------------------------------------------------------

void VlanFloodSetFilterSm::processVlanFloodSet(Bridging::VlanId vlan) {
  KIV_ASSERT(initialized());
  OBA_TRACE8(th, " processVlanFloodSet vlan: ", vlan);
  if (auto in = inFloodSetOutput()->vlanFloodSet(vlan)) {
    // Output MACs the input no longer has are left to their own reactors.
    for (auto [mac, floodSet] : in->floodSetWalk()) processFloodSet(vlan, mac);
    return;
  }
  OBA_TRACE5(th, "  deleting vlanFloodSet with vlan: ", vlan);
  outFloodSetOutput_->vlanFloodSetDel(vlan);
}

void VlanFloodSetFilterSm::processFloodSet(Bridging::VlanId vlan, const Quil::EthAddr& mac) {
  KIV_ASSERT(initialized());
  OBA_TRACE8(th, "  processFloodSet vlan: ", vlan << " mac: " << mac);
  auto inVlan = inFloodSetOutput()->vlanFloodSet(vlan);
  if (!inVlan) {
    outFloodSetOutput_->vlanFloodSetDel(vlan);
    return;
  }
  if (auto in = inVlan->floodSet(mac)) {
    // Only adds: an output destination goes when its own input entry does.
    for (auto [dest, value] : in->destSetWalk()) {
      if (dest.destType() == destType_) addDest(vlan, mac, dest);
    }
    return;
  }
  // The MAC is gone from the input: its output flood set goes whole.
  OBA_TRACE5(th, "   deleting floodSet with vlan ", vlan << " and mac " << mac);
  auto out = outFloodSetOutput_->vlanFloodSet(vlan);
  if (!out) return;
  out->floodSetDel(mac);
  if (!out->floodSets()) {
    OBA_TRACE5(th, "   deleting vlanFloodSet with vlan ", vlan);
    outFloodSetOutput_->vlanFloodSetDel(vlan);
  }
}

void VlanFloodSetFilterSm::processDest(Bridging::VlanId vlan, const Quil::EthAddr& mac,
                                       const L2Rib::Dest& dest) {
  KIV_ASSERT(initialized());
  OBA_TRACE8(th, "   processDest vlan: ", vlan << " mac: " << mac << " dest: " << dest.destId());
  if (dest.destType() != destType_) return;
  if (isDestPresent(vlan, mac, dest)) {
    addDest(vlan, mac, dest);
  } else {
    deleteDest(vlan, mac, dest);
  }
}

bool VlanFloodSetFilterSm::isDestPresent(Bridging::VlanId vlan, const Quil::EthAddr& mac,
                                         const L2Rib::Dest& dest) const {
  // Presence of the key decides; the value the RIB stored with it does not.
  auto in = inFloodSet(vlan, mac);
  return in && in->destSetHas(dest);
}

void VlanFloodSetFilterSm::addDest(Bridging::VlanId vlan, const Quil::EthAddr& mac,
                                   const L2Rib::Dest& dest) {
  OBA_TRACE8(th, "    addDest vlan: ", vlan << " mac: " << mac << " dest: " << dest.destId());
  auto out = outFloodSetOutput_->vlanFloodSetIs(vlan)->floodSetIs(mac);
  // Both callers have just found the destination in this input flood set.
  auto in = inFloodSet(vlan, mac);
  // The type follows the input at every add, not only when the output flood set is made.
  out->floodSetTypeIs(in->floodSetType());
  bool value = in->destSet(dest).value_or(false);
  OBA_TRACE5(th, "     adding dest ", dest.destId());
  out->destSetIs(dest, value);
}

void VlanFloodSetFilterSm::deleteDest(Bridging::VlanId vlan, const Quil::EthAddr& mac,
                                      const L2Rib::Dest& dest) {
  OBA_TRACE8(th, "    deleteDest vlan: ", vlan << " mac: " << mac << " dest: " << dest.destId());
  auto outVlan = outFloodSetOutput_->vlanFloodSet(vlan);
  if (!outVlan) return;
  if (auto out = outVlan->floodSet(mac)) {
    // The stored value decides here, not presence: an entry held as false stays.
    if (out->destSet(dest).value_or(false)) {
      OBA_TRACE5(th, "     deleting dest ", dest.destId());
      out->destSetDel(dest);
    }
    if (!out->destSets()) {
      OBA_TRACE5(th, "     deleting floodSet with vlan ", vlan << " and mac " << mac);
      outVlan->floodSetDel(mac);
    }
  }
  if (!outVlan->floodSets()) {
    OBA_TRACE5(th, "     deleting vlanFloodSet with vlan ", vlan);
    outFloodSetOutput_->vlanFloodSetDel(vlan);
  }
}

Kiv::Ptr<const L2Rib::FloodSet> VlanFloodSetFilterSm::inFloodSet(Bridging::VlanId vlan,
                                                                 const Quil::EthAddr& mac) const {
  auto inVlan = inFloodSetOutput()->vlanFloodSet(vlan);
  return inVlan ? inVlan->floodSet(mac) : nullptr;
}

}  // namespace Oba
