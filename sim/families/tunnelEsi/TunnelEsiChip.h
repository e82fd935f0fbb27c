#pragma once
// The chip tables of the tunnel-id and ESI family: a pool of hardware tunnel ids that hands out
// the lowest free id and reuses released ones, and the ESI data programmed per physical port and
// VLAN. Its ledger: an id released twice or never handed out, ESI data naming an id nobody holds,
// a delete of ESI data never created.
//
//   auto esi = Sim::TunnelEsiChip::TunnelEsiChipIs(chip);
//   esi->hwTunnelIdPoolIs(2);                                  // a small chip: ids 1 and 2
//   ... hand esi->hwTunnelIdHelper() and esi->floodingHelper() to the machines ...

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "Oba/HwProgrammingStatus.h"
#include "Oba/HwTunnelId.h"
#include "Oba/ObaHelpers.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"
#include "sim/SoftwareChip.h"

namespace Sim {

class TunnelEsiChip : public SoftwareChip::Part {
 public:
  // Made over a chip, which then owns it and resets it with itself.
  static Kiv::Ptr<TunnelEsiChip> TunnelEsiChipIs(const Kiv::Ptr<SoftwareChip>& chip);

  SoftwareChip& chip() const { return *chip_; }
  // The helpers the machines are given; every call on them lands here, named by the machine.
  Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> hwTunnelIdHelper() const;
  Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> floodingHelper() const;

  // The chip has hardware tunnel ids 1..size (4096 unless told). Shrinking leaves ids in use
  // alone; from then on only ids <= size are handed out.
  void hwTunnelIdPoolIs(std::uint32_t size) { poolSize_ = size; }
  std::uint32_t hwTunnelIdPool() const { return poolSize_; }

  // Test-only canary: every part made while this is n > 0 acknowledges its n-th deleteEsiData
  // (counted from its making) and leaves the entry in place, as a chip layer with a lost delete
  // would. A convergence check that misses this misses real faults.
  static void canaryDropDeleteEsiDataIs(std::uint64_t n) { canaryDropDelete_ = n; }
  static std::uint64_t canaryDropDeleteEsiData() { return canaryDropDelete_; }

  // Operations, as the helpers call them. Each one is counted and told to the chip's listener.

  // The lowest free id in 1..pool; id 0 when none is free or the call is refused.
  Oba::HwTunnelId getHwTunnelId();
  void releaseHwTunnelId(Oba::HwTunnelId id);
  // A refused create changes no table; a successful one stores, overwriting what was there (the
  // chip reprograms the entry). The fuzzer's faults may refuse it.
  Oba::HwProgrammingStatus createEsiData(Quil::IntfId port, Bridging::VlanId vlan,
                                         const Tunnel::TunnelTable::TunnelId& tunnel,
                                         Oba::HwTunnelId hw, Quil::MplsLabel label,
                                         Quil::MplsLabel localLabel);
  void deleteEsiData(Quil::IntfId port, Bridging::VlanId vlan);

  // Tables, ordered for printing.
  using PortVlan = std::pair<Quil::IntfId, Bridging::VlanId>;
  struct EsiEntry {
    Tunnel::TunnelTable::TunnelId tunnel;
    Oba::HwTunnelId hw;
    Quil::MplsLabel label;
    Quil::MplsLabel localLabel;
    bool operator==(const EsiEntry&) const = default;
  };
  const std::map<PortVlan, EsiEntry>& esiData() const { return esiData_; }
  const std::set<std::uint32_t>& hwTunnelIdsInUse() const { return inUse_; }

  // Per id: how many times it was handed out, and how many times it came back to the pool (a
  // release of an id not in use is a violation and does not count).
  std::uint64_t handedOutCount(std::uint32_t id) const {
    return id < idCounts_.size() ? idCounts_[id].handedOut : 0;
  }
  std::uint64_t releasedCount(std::uint32_t id) const {
    return id < idCounts_.size() ? idCounts_[id].released : 0;
  }
  // The lowest id of 1..pool not in use, or 0: what the next getHwTunnelId would give.
  std::uint32_t freeHwTunnelId() const;

  // Forgets tables and pool usage; keeps the pool size.
  void reset() override;
  void digest(Kiv::Digest& d) const override;
  void detach() override;

 private:
  class HwTunnelIdAdaptor;
  class FloodingAdaptor;
  struct IdCounts {
    std::uint64_t handedOut = 0;
    std::uint64_t released = 0;
  };

  explicit TunnelEsiChip(SoftwareChip* chip);

  SoftwareChip* chip_;
  Kiv::Ptr<HwTunnelIdAdaptor> hwTunnelIdHelper_;
  Kiv::Ptr<FloodingAdaptor> floodingHelper_;

  std::uint32_t poolSize_ = 4096;
  // The pool: every id below nextId_ has been handed out at least once, and is either in use or
  // in freeIds_; so the lowest free id is the first of freeIds_, or else nextId_.
  std::uint64_t nextId_ = 1;
  std::set<std::uint32_t> freeIds_;
  std::set<std::uint32_t> inUse_;
  std::vector<IdCounts> idCounts_;  // indexed by id, up to nextId_

  std::map<PortVlan, EsiEntry> esiData_;

  static inline std::uint64_t canaryDropDelete_ = 0;
  const std::uint64_t dropDelete_;
  std::uint64_t deleteSerial_ = 0;
};

}  // namespace Sim
