#include "sim/families/tunnelEsi/TunnelEsiChip.h"
#include "Kiv/Digest.h"

#include "sim/ChipLink.h"

namespace Sim {

class TunnelEsiChip::HwTunnelIdAdaptor
    : public ChipLink<ObaHelper::EvpnHwTunnelIdSmHelper, TunnelEsiChip> {
 public:
  explicit HwTunnelIdAdaptor(TunnelEsiChip* part)
      : ChipLink("SoftwareChip.hwTunnelIdHelper", "hwTunnelId", part) {}
  Oba::HwTunnelId getHwTunnelId() override { return part()->getHwTunnelId(); }
  void releaseHwTunnelId(Oba::HwTunnelId id) override { part()->releaseHwTunnelId(id); }
};

// The ESI flooding machine's helper; the 802.1Q operations of the same interface belong to
// another family's tables.
class TunnelEsiChip::FloodingAdaptor
    : public ChipLink<ObaHelper::EvpnFloodingSmHelper, TunnelEsiChip> {
 public:
  explicit FloodingAdaptor(TunnelEsiChip* part)
      : ChipLink("SoftwareChip.floodingHelper", "floodingEsi", part) {}
  Oba::HwProgrammingStatus createEsiData(Quil::IntfId port, Bridging::VlanId vlan,
                                         const Tunnel::TunnelTable::TunnelId& tunnel,
                                         Oba::HwTunnelId hw, Quil::MplsLabel label,
                                         Quil::MplsLabel localLabel) override {
    return part()->createEsiData(port, vlan, tunnel, hw, label, localLabel);
  }
  void deleteEsiData(Quil::IntfId port, Bridging::VlanId vlan) override {
    part()->deleteEsiData(port, vlan);
  }
};

Kiv::Ptr<TunnelEsiChip> TunnelEsiChip::TunnelEsiChipIs(const Kiv::Ptr<SoftwareChip>& chip) {
  Kiv::Ptr<TunnelEsiChip> part = new TunnelEsiChip(chip.ptr());
  chip->partIs(part);
  chip->operationIs("getHwTunnelId");
  chip->operationIs("createEsiData");
  return part;
}

TunnelEsiChip::TunnelEsiChip(SoftwareChip* chip)
    : chip_(chip),
      hwTunnelIdHelper_(new HwTunnelIdAdaptor(this)),
      floodingHelper_(new FloodingAdaptor(this)),
      dropDelete_(canaryDropDelete_) {}

Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> TunnelEsiChip::hwTunnelIdHelper() const {
  return hwTunnelIdHelper_;
}

Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> TunnelEsiChip::floodingHelper() const {
  return floodingHelper_;
}

void TunnelEsiChip::detach() {
  hwTunnelIdHelper_->detach();
  floodingHelper_->detach();
}

Oba::HwTunnelId TunnelEsiChip::getHwTunnelId() {
  chip_->countCall();
  Oba::HwTunnelId id;
  if (!chip_->refused("getHwTunnelId", std::nullopt, std::nullopt)) {
    const std::uint64_t lowest = freeIds_.empty() ? nextId_ : *freeIds_.begin();
    if (lowest <= poolSize_) {
      const auto v = static_cast<std::uint32_t>(lowest);
      if (lowest == nextId_) {
        ++nextId_;
        idCounts_.resize(nextId_);
      } else {
        freeIds_.erase(freeIds_.begin());
      }
      inUse_.insert(v);
      ++idCounts_[v].handedOut;
      id = Oba::HwTunnelId(v);
    }
  }
  if (chip_->listening()) chip_->tell("getHwTunnelId", chipText("getHwTunnelId -> ", id));
  return id;
}

void TunnelEsiChip::releaseHwTunnelId(Oba::HwTunnelId id) {
  chip_->countCall();
  const std::uint32_t v = id.value();
  if (inUse_.erase(v)) {
    freeIds_.insert(v);
    ++idCounts_[v].released;
  } else if (handedOutCount(v) == 0) {
    chip_->violation(chipText("releaseHwTunnelId ", id, ": never handed out"));
  } else {
    chip_->violation(chipText("releaseHwTunnelId ", id, ": released twice"));
  }
  if (chip_->listening()) chip_->tell("releaseHwTunnelId", chipText("releaseHwTunnelId ", id));
}

Oba::HwProgrammingStatus TunnelEsiChip::createEsiData(Quil::IntfId port, Bridging::VlanId vlan,
                                                      const Tunnel::TunnelTable::TunnelId& tunnel,
                                                      Oba::HwTunnelId hw, Quil::MplsLabel label,
                                                      Quil::MplsLabel localLabel) {
  chip_->countCall();
  // The agent named an id it does not hold, whether or not the chip then takes the entry.
  if (!inUse_.contains(hw.value())) {
    chip_->violation(chipText("createEsiData ", port, " vlan ", vlan, " uses hw tunnel id ", hw,
                              ", which is not handed out"));
  }
  auto rc = Oba::HwProgrammingStatus::programmed;
  if (auto refusal = chip_->refusedOrFault(
          "createEsiData", port, vlan,
          static_cast<std::uint32_t>(Oba::HwProgrammingStatus::notProgrammed))) {
    rc = static_cast<Oba::HwProgrammingStatus>(*refusal);
  } else {
    esiData_.insert_or_assign(PortVlan{port, vlan}, EsiEntry{tunnel, hw, label, localLabel});
  }
  if (chip_->listening()) {
    chip_->tell("createEsiData",
                chipText("createEsiData ", port, " vlan ", vlan, " tunnel ", tunnel, " hw ", hw,
                         " label ", label, " local ", localLabel, " -> ", rc));
  }
  return rc;
}

void TunnelEsiChip::deleteEsiData(Quil::IntfId port, Bridging::VlanId vlan) {
  chip_->countCall();
  if (++deleteSerial_ == dropDelete_) {
    // The canary: acknowledged, and lost.
  } else if (!esiData_.erase(PortVlan{port, vlan})) {
    chip_->violation(chipText("deleteEsiData ", port, " vlan ", vlan, ": nothing to delete"));
  }
  if (chip_->listening()) {
    chip_->tell("deleteEsiData", chipText("deleteEsiData ", port, " vlan ", vlan));
  }
}

std::uint32_t TunnelEsiChip::freeHwTunnelId() const {
  std::uint32_t id = 1;
  while (inUse_.contains(id)) ++id;
  return id <= poolSize_ ? id : 0;
}

void TunnelEsiChip::reset() {
  nextId_ = 1;
  freeIds_.clear();
  inUse_.clear();
  idCounts_.clear();
  esiData_.clear();
}

void TunnelEsiChip::digest(Kiv::Digest& d) const {
  d.add(poolSize_);
  d.add(nextId_);
  d.add(freeIds_);
  d.add(inUse_);
  for (const IdCounts& c : idCounts_) {
    d.add(c.handedOut);
    d.add(c.released);
  }
  d.add(esiData_.size());
  for (const auto& [key, e] : esiData_) {
    d.add(key);
    d.add(e.tunnel);
    d.add(e.hw);
    d.add(e.label);
    d.add(e.localLabel);
  }
  d.add(deleteSerial_);
}

}  // namespace Sim
