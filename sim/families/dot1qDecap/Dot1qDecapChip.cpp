#include "sim/families/dot1qDecap/Dot1qDecapChip.h"
#include "Kiv/Digest.h"

#include <sstream>

#include "sim/ChipLink.h"

namespace Sim {

namespace {
std::string rcText(Mpls::LfibHwProgrammingReturnCode rc) {
  std::ostringstream os;
  os << rc;
  return os.str();
}
}  // namespace

// The dot1q flooding machine's helper; the ESI data operations of the same interface belong to
// the tunnel-id and ESI family's tables.
class Dot1qDecapChip::FloodingAdaptor
    : public ChipLink<ObaHelper::EvpnFloodingSmHelper, Dot1qDecapChip> {
 public:
  explicit FloodingAdaptor(Dot1qDecapChip* part)
      : ChipLink("SoftwareChip.dot1qHelper", "floodingDot1q", part) {}
  Oba::HwProgrammingStatus createVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                                    Bridging::VlanIdOrNone dot1q) override {
    return part()->createVlanToDot1qMapping(port, vlan, dot1q);
  }
  void deleteVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                Bridging::VlanIdOrNone dot1q) override {
    part()->deleteVlanToDot1qMapping(port, vlan, dot1q);
  }
};

class Dot1qDecapChip::DecapAdaptor
    : public ChipLink<ObaHelper::EsiFilteringDecapHelper, Dot1qDecapChip> {
 public:
  explicit DecapAdaptor(Dot1qDecapChip* part)
      : ChipLink("SoftwareChip.esiFilteringDecapHelper", "esiFilteringDecap", part) {}
  Mpls::LfibHwProgrammingReturnCode createEsiPortMap(Quil::MplsLabel label,
                                                     Quil::IntfId intf) override {
    return part()->createEsiPortMap(label, intf);
  }
  void deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId intf) override {
    part()->deleteEsiPortMap(label, intf);
  }
};

Kiv::Ptr<Dot1qDecapChip> Dot1qDecapChip::Dot1qDecapChipIs(const Kiv::Ptr<SoftwareChip>& chip) {
  Kiv::Ptr<Dot1qDecapChip> part = new Dot1qDecapChip(chip.ptr());
  chip->partIs(part);
  chip->operationIs("createVlanToDot1qMapping");
  chip->operationIs("createEsiPortMap");
  return part;
}

Dot1qDecapChip::Dot1qDecapChip(SoftwareChip* chip)
    : chip_(chip),
      floodingHelper_(new FloodingAdaptor(this)),
      decapHelper_(new DecapAdaptor(this)),
      dropDelete_(canaryDropDelete_) {}

Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> Dot1qDecapChip::floodingHelper() const {
  return floodingHelper_;
}

Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper> Dot1qDecapChip::decapHelper() const {
  return decapHelper_;
}

void Dot1qDecapChip::detach() {
  floodingHelper_->detach();
  decapHelper_->detach();
}

Oba::HwProgrammingStatus Dot1qDecapChip::createVlanToDot1qMapping(Quil::IntfId port,
                                                                  Bridging::VlanId vlan,
                                                                  Bridging::VlanIdOrNone dot1q) {
  chip_->countCall();
  auto rc = Oba::HwProgrammingStatus::programmed;
  if (auto refusal = chip_->refusedOrFault(
          "createVlanToDot1qMapping", port, vlan,
          static_cast<std::uint32_t>(Oba::HwProgrammingStatus::notProgrammed))) {
    rc = static_cast<Oba::HwProgrammingStatus>(*refusal);
  } else if (auto it = dot1q_.find({port, vlan}); it != dot1q_.end()) {
    it->second = dot1q;
  } else if (dot1q_.size() >= dot1qSize_) {
    rc = Oba::HwProgrammingStatus::notProgrammed;  // the table is full
  } else {
    dot1q_.emplace(PortVlan{port, vlan}, dot1q);
  }
  if (chip_->listening()) {
    chip_->tell("createVlanToDot1qMapping", chipText("createVlanToDot1qMapping ", port, " vlan ",
                                                     vlan, " dot1q ", dot1q, " -> ", rc));
  }
  return rc;
}

void Dot1qDecapChip::deleteVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                              Bridging::VlanIdOrNone dot1q) {
  chip_->countCall();
  auto it = dot1q_.find({port, vlan});
  if (++deleteSerial_ == dropDelete_) {
    // The canary: acknowledged, and lost.
  } else if (it == dot1q_.end()) {
    chip_->violation(chipText("deleteVlanToDot1qMapping ", port, " vlan ", vlan, " dot1q ", dot1q,
                              ": nothing to delete"));
  } else {
    if (it->second != dot1q) {
      chip_->violation(chipText("deleteVlanToDot1qMapping ", port, " vlan ", vlan, " dot1q ", dot1q,
                                ": the mapping has dot1q ", it->second));
    }
    dot1q_.erase(it);
  }
  if (chip_->listening()) {
    chip_->tell("deleteVlanToDot1qMapping",
                chipText("deleteVlanToDot1qMapping ", port, " vlan ", vlan, " dot1q ", dot1q));
  }
}

Mpls::LfibHwProgrammingReturnCode Dot1qDecapChip::createEsiPortMap(Quil::MplsLabel label,
                                                                   Quil::IntfId intf) {
  using Rc = Mpls::LfibHwProgrammingReturnCode;
  chip_->countCall();
  auto rc = Rc::lfibHwProgrammingSuccess;
  if (auto refusal = chip_->refused("createEsiPortMap", intf, std::nullopt)) {
    rc = static_cast<Rc>(*refusal);
  } else if (!portMaps_.contains(label) && portMaps_.size() >= portMapSize_) {
    rc = Rc::lfibHwProgrammingResourceFull;
  } else {
    if (auto other = intfMaps_.find(intf); other != intfMaps_.end() && other->second != label) {
      // The chip maps an interface for one label; the agent detects conflicts before it calls.
      chip_->violation(chipText("createEsiPortMap ", label, " intf ", intf,
                                ": the interface already has the port map of ", other->second));
    }
    if (auto old = portMaps_.find(label); old != portMaps_.end() && old->second != intf) {
      if (auto back = intfMaps_.find(old->second); back != intfMaps_.end() && back->second == label)
        intfMaps_.erase(back);
    }
    portMaps_.insert_or_assign(label, intf);
    intfMaps_.insert_or_assign(intf, label);
  }
  lastPortMapRc_.insert_or_assign(label, rc);
  if (chip_->listening()) {
    chip_->tell("createEsiPortMap",
                chipText("createEsiPortMap ", label, " intf ", intf, " -> ", rcText(rc)));
  }
  return rc;
}

void Dot1qDecapChip::deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId intf) {
  chip_->countCall();
  auto it = portMaps_.find(label);
  if (it == portMaps_.end() || it->second != intf) {
    chip_->violation(
        chipText("deleteEsiPortMap ", label, " intf ", intf, ": no such port map to delete"));
  } else {
    portMaps_.erase(it);
    if (auto back = intfMaps_.find(intf); back != intfMaps_.end() && back->second == label) {
      intfMaps_.erase(back);
    }
  }
  if (chip_->listening()) {
    chip_->tell("deleteEsiPortMap", chipText("deleteEsiPortMap ", label, " intf ", intf));
  }
}

void Dot1qDecapChip::reset() {
  dot1q_.clear();
  portMaps_.clear();
  intfMaps_.clear();
  lastPortMapRc_.clear();
}

void Dot1qDecapChip::digest(Kiv::Digest& d) const {
  d.add(dot1qSize_);
  d.add(portMapSize_);
  d.add(dot1q_);
  d.add(portMaps_);
  d.add(lastPortMapRc_);
  d.add(deleteSerial_);
}

}  // namespace Sim
