#pragma once
// The chip tables of the dot1q and decapsulation family: the VLAN to 802.1Q tag mappings
// programmed per physical port and VLAN, and the ESI port maps that tie a decapsulated ESI label
// to a segment's local interface. Both tables are finite (a create into a full table is refused:
// notProgrammed, lfibHwProgrammingResourceFull), and rules may refuse any create with any code.
// Its ledger: a mapping or port map deleted that the chip does not hold, a mapping deleted with a
// tag other than the one programmed, a second port map on one interface.
//
//   auto part = Sim::Dot1qDecapChip::Dot1qDecapChipIs(chip);
//   part->sizesIs(16, 4);                               // a small chip
//   ... hand part->floodingHelper() and part->decapHelper() to the machines ...

#include <cstdint>
#include <map>
#include <utility>

#include "Bridging/VlanId.h"
#include "Bridging/VlanIdOrNone.h"
#include "Mpls/ReturnCode.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/ObaHelpers.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "sim/SoftwareChip.h"

namespace Sim {

class Dot1qDecapChip : public SoftwareChip::Part {
 public:
  // Made over a chip, which then owns it and resets it with itself.
  static Kiv::Ptr<Dot1qDecapChip> Dot1qDecapChipIs(const Kiv::Ptr<SoftwareChip>& chip);

  SoftwareChip& chip() const { return *chip_; }
  // The helpers the machines are given, named after them in the log.
  Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> floodingHelper() const;
  Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper> decapHelper() const;

  // Table sizes (4096 and 1024 unless told). Shrinking keeps what is programmed; creates of new
  // keys are refused until the table is below its size again.
  void sizesIs(std::uint32_t dot1q, std::uint32_t portMaps) {
    dot1qSize_ = dot1q;
    portMapSize_ = portMaps;
  }
  std::uint32_t dot1qSize() const { return dot1qSize_; }
  std::uint32_t portMapSize() const { return portMapSize_; }

  // Test-only canary, as TunnelEsiChip's: every part made while n > 0 acknowledges its n-th
  // deleteVlanToDot1qMapping and keeps the mapping.
  static void canaryDropDeleteDot1qIs(std::uint64_t n) { canaryDropDelete_ = n; }
  static std::uint64_t canaryDropDeleteDot1q() { return canaryDropDelete_; }

  // Operations, as the helpers call them; each is counted and told to the chip's listener.
  // A create over a key the table holds reprograms it. The fuzzer's faults may refuse a dot1q
  // create; rules may refuse either.
  Oba::HwProgrammingStatus createVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                                    Bridging::VlanIdOrNone dot1q);
  void deleteVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                Bridging::VlanIdOrNone dot1q);
  Mpls::LfibHwProgrammingReturnCode createEsiPortMap(Quil::MplsLabel label, Quil::IntfId intf);
  void deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId intf);

  using PortVlan = std::pair<Quil::IntfId, Bridging::VlanId>;
  const std::map<PortVlan, Bridging::VlanIdOrNone>& dot1q() const { return dot1q_; }
  // ESI label -> the interface it is mapped to.
  const std::map<Quil::MplsLabel, Quil::IntfId>& portMaps() const { return portMaps_; }
  // The code the last createEsiPortMap of a label was answered with, refused or not.
  const std::map<Quil::MplsLabel, Mpls::LfibHwProgrammingReturnCode>& lastPortMapRc() const {
    return lastPortMapRc_;
  }

  void reset() override;
  void digest(Kiv::Digest& d) const override;
  void detach() override;

 private:
  class FloodingAdaptor;
  class DecapAdaptor;
  explicit Dot1qDecapChip(SoftwareChip* chip);

  SoftwareChip* chip_;
  Kiv::Ptr<FloodingAdaptor> floodingHelper_;
  Kiv::Ptr<DecapAdaptor> decapHelper_;
  std::uint32_t dot1qSize_ = 4096;
  std::uint32_t portMapSize_ = 1024;
  std::map<PortVlan, Bridging::VlanIdOrNone> dot1q_;
  std::map<Quil::MplsLabel, Quil::IntfId> portMaps_;
  std::map<Quil::IntfId, Quil::MplsLabel> intfMaps_;  // the reverse of portMaps_
  std::map<Quil::MplsLabel, Mpls::LfibHwProgrammingReturnCode> lastPortMapRc_;

  static inline std::uint64_t canaryDropDelete_ = 0;
  const std::uint64_t dropDelete_;
  std::uint64_t deleteSerial_ = 0;
};

}  // namespace Sim
