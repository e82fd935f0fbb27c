#pragma once
// The chip's hardware flood lists, as the chip layer of a switch keeps them: it reads the flood
// lists the VLAN flood-set machine configures (Oba::EvpnVlanFloodSetHwConfig), programs each
// member into the (VLAN, MAC) list after a latency, and reports each member it acted on in
// Oba::EvpnVlanFloodSetHwStatus: programmed, or refused (notProgrammed, invalidHwId) when a rule
// or an injected fault says so. A member that leaves the configuration leaves the hardware list,
// and its status goes; an emptied status goes whole.
//
//   auto lists = FloodListChip::FloodListChipIs(chip, scheduler, hwConfig, hwStatus);
//   lists->latencyIs(0.5);   // members are programmed and reported half a second after the change
//
// The chip acts on the configuration's changes in the order they were made (a change waits for
// those before it), so the machine's make before break reaches the hardware as it was meant: the
// new member in the list before the old one leaves.
//
// Its ledger: a member the configuration loses while the inputs still call for it; a member
// configured with a hardware tunnel id or a hardware FEC id that nobody holds; a FEC id given
// back while a hardware list still uses it; a member taken out of a list while the member that
// replaces it in the configuration (the same tunnel and label) is not in the list yet: the list
// lacks the destination for a moment although the configuration never did; a member taken out
// of a list while the configuration holds it.

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Bridging/MacVlanPair.h"
#include "Mox/TimerTask.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/ObaFloodSetRecords.h"
#include "sim/SoftwareChip.h"

namespace Sim {

class FloodListChip : public SoftwareChip::Part {
 public:
  static Kiv::Ptr<FloodListChip> FloodListChipIs(
      const Kiv::Ptr<SoftwareChip>& chip, const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
      const Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig>& config,
      const Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus>& status);
  ~FloodListChip() override;

  SoftwareChip& chip() const { return *chip_; }

  // Seconds between a change of the configuration and the chip acting on it (0: in the
  // scheduler's next pass, after the change's handlers have run).
  void latencyIs(double seconds) { latency_ = seconds < 0 ? 0 : seconds; }
  double latency() const { return latency_; }

  // What the ledger asks of the other chip tables: whether an id is handed out now.
  void hwTunnelIdHeldIs(std::function<bool(Oba::HwTunnelId)> f) { hwTunnelIdHeld_ = std::move(f); }
  void hwFecIdHeldIs(std::function<bool(std::uint64_t)> f) { hwFecIdHeld_ = std::move(f); }
  // What the FEC table hears when the lists let go of a hardware FEC id (no member names it any
  // more): it may hand the id out again, to a request waiting for one.
  void hwFecIdLetGoIs(std::function<void(std::uint64_t)> f) { hwFecIdLetGo_ = std::move(f); }
  // Whether the inputs still call for a member exactly as configured: a member the configuration
  // loses while they do was removed for nothing (the configuration breaks before it makes),
  // except while an agent restarts a machine, which drops what the machine wrote.
  void stillWantedIs(
      std::function<bool(const Bridging::MacVlanPair&, const Oba::MplsDestConfig&)> f) {
    stillWanted_ = std::move(f);
  }
  void restartingIs(bool r) { restarting_ = r; }
  // The FEC table gives a hardware FEC id back: a hardware list still using it is a violation.
  void hwFecIdReleased(std::uint64_t hwFecId);

  // Test-only canary: every part made while this is set programs a list's removals ahead of the
  // additions queued before them (the member leaves before its replacement is added), as a chip
  // layer that applies deletes first would.
  static void canaryBreakBeforeMakeIs(bool on) { canaryBreakBeforeMake_ = on; }
  static bool canaryBreakBeforeMake() { return canaryBreakBeforeMake_; }

  // The hardware: per flood list, the members programmed into it.
  using List = std::set<Oba::MplsDestConfig>;
  const std::map<Bridging::MacVlanPair, List>& lists() const { return lists_; }
  // Whether a change of the configuration is still to be acted on.
  bool busy() const { return !queue_.empty(); }
  bool usesHwFecId(std::uint64_t hwFecId) const;

  void reset() override;
  void digest(Kiv::Digest& d) const override;
  void detach() override;

 private:
  class ConfigWatch;
  class ListWatch;
  class Review;
  struct Change {
    Bridging::MacVlanPair list;
    Oba::MplsDestConfig member;
    bool add;
    double due;
    std::uint64_t serial;  // the order of the configuration's changes
  };

  FloodListChip(SoftwareChip* chip, const Kiv::Ptr<Mox::TaskScheduler>& scheduler,
                const Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig>& config,
                const Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus>& status);

  // From the watches: a list appeared or went, a member of a list changed.
  void configChanged(const Bridging::MacVlanPair& list);
  void memberChanged(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& member);
  void queue(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& member, bool add);
  void run();
  bool configured(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m) const;
  bool inList(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m) const;
  void apply(const Change& c);
  void program(const Change& c);
  void unprogram(const Change& c);

  SoftwareChip* chip_;
  Kiv::Ptr<Mox::TaskScheduler> scheduler_;
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig> config_;
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus> status_;
  std::unique_ptr<ConfigWatch> configWatch_;
  std::map<Bridging::MacVlanPair, std::unique_ptr<ListWatch>> listWatches_;
  Kiv::Ptr<Mox::TimerTask> task_;
  std::unique_ptr<Review> review_;

  double latency_ = 0;
  // The configuration as the chip last read it, and the changes still to act on, in order.
  std::map<Bridging::MacVlanPair, List> seen_;
  std::deque<Change> queue_;
  std::uint64_t serial_ = 0;
  std::map<Bridging::MacVlanPair, List> lists_;
  std::function<bool(Oba::HwTunnelId)> hwTunnelIdHeld_;
  std::function<bool(std::uint64_t)> hwFecIdHeld_;
  std::function<void(std::uint64_t)> hwFecIdLetGo_;
  std::function<bool(const Bridging::MacVlanPair&, const Oba::MplsDestConfig&)> stillWanted_;
  bool restarting_ = false;

  static inline bool canaryBreakBeforeMake_ = false;
  const bool breakBeforeMake_;
};

// "10/ff:ff:ff:ff:ff:ff Tunnel1.1 label 1001 hwTunnelId 1 hwId 4097 l2IntfId Vlan4097": one
// member of one flood list, as scenario files write it.
std::string memberLine(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m);

}  // namespace Sim
