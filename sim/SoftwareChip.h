#pragma once
// Sim::SoftwareChip: the simulator's chip. It answers the EVPN state machines through the three
// chip helper interfaces, keeps what they program in finite tables, can be told to refuse work,
// and keeps a ledger of what a correct agent never does (ids released twice, entries deleted that
// were never programmed, ESI data naming a hardware tunnel id nobody holds).
//
//   Kiv::Ptr<Sim::SoftwareChip> chip = new Sim::SoftwareChip(clock);
//   chip->hwTunnelIdPoolIs(2);                                    // a small chip: ids 1 and 2
//   chip->refusalIs({.op = "createEsiData", .port = Quil::IntfId::ethernet(1), .times = 1});
//   ... hand chip->hwTunnelIdHelper(), floodingHelper(), esiFilteringDecapHelper() to the
//   machines, run them ...
//   EXPECT_TRUE(chip->violations().empty());
//
// Every operation is counted and, when a listener is set, told to it as one line of text, e.g.
// "getHwTunnelId -> 3". The text is built only for a listener or a violation, so a fuzzer that
// runs millions of calls without a listener pays for the tables alone.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Bridging/VlanId.h"
#include "Bridging/VlanIdOrNone.h"
#include "Kiv/Clock.h"
#include "Kiv/Ptr.h"
#include "Mpls/ReturnCode.h"
#include "Oba/HwProgrammingStatus.h"
#include "Oba/HwTunnelId.h"
#include "Oba/ObaHelpers.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "Tunnel/TunnelId.h"

namespace Sim {

class SoftwareChip : public Kiv::PtrInterface {
 public:
  // The clock stamps calls and violations.
  explicit SoftwareChip(Kiv::Ptr<Kiv::Clock> clock);
  SoftwareChip(const SoftwareChip&) = delete;
  SoftwareChip& operator=(const SoftwareChip&) = delete;
  // A helper a machine still holds afterwards aborts on its next call rather than reach a chip
  // that is gone.
  ~SoftwareChip() override;

  // The helpers the machines are given; every operation on them lands on this chip.
  Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> hwTunnelIdHelper() const;
  Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> floodingHelper() const;
  Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper> esiFilteringDecapHelper() const;

  // Settings.

  // The chip has hardware tunnel ids 1..size (4096 unless told). Shrinking leaves ids in use
  // alone; from then on only ids <= size are handed out.
  void hwTunnelIdPoolIs(std::uint32_t size) { poolSize_ = size; }
  std::uint32_t hwTunnelIdPool() const { return poolSize_; }

  // A rule that makes the chip refuse some calls of one operation.
  struct Refusal {
    // "createEsiData", "createVlanToDot1qMapping", "createEsiPortMap" or "getHwTunnelId".
    std::string op{};
    // Only calls on this port/interface, only calls for this VLAN.
    std::optional<Quil::IntfId> port = std::nullopt;
    std::optional<Bridging::VlanId> vlan = std::nullopt;
    // The next N matching calls; -1: every one.
    std::int64_t times = -1;
    Oba::HwProgrammingStatus rc = Oba::HwProgrammingStatus::notProgrammed;
    Mpls::LfibHwProgrammingReturnCode lfibRc =
        Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingResourceFull;
  };
  // Rules are checked in the order added; the first that matches answers the call with its rc
  // (lfibRc for createEsiPortMap, id 0 for getHwTunnelId) and counts down its `times`; a rule at
  // 0 is dropped. A rule with a port or VLAN never matches an operation without one. An unknown
  // op raises Kiv::RangeException "cannot refuse '<op>': no such chip operation".
  void refusalIs(const Refusal& r);
  void refusalDelAll() { rules_.clear(); }
  std::size_t refusals() const { return rules_.size(); }

  // Injected faults, for the fuzzer: a createEsiData that no rule refuses is refused with
  // notProgrammed with probability p, drawn from a std::mt19937_64 seeded with `seed`, so that a
  // run replays exactly. Each injected fault is logged with the create it answered and the
  // previous create of the same (port, VLAN): what a replay needs to state the same fault as a
  // refusal rule for the next call on that port and VLAN.
  void faultRateIs(double p, std::uint64_t seed);
  double faultRate() const { return faultRate_; }
  struct Fault {
    std::uint64_t create;          // createEsiDataSerial() of the refused call
    std::uint64_t previousCreate;  // that of the previous create of the same port and VLAN, or 0
    Quil::IntfId port;
    Bridging::VlanId vlan;
  };
  const std::vector<Fault>& faults() const { return faults_; }
  // createEsiData calls since the chip was made, refused or not; a reset does not restart it.
  std::uint64_t createEsiDataSerial() const { return createSerial_; }

  // Test-only canary: every chip made while this is n > 0 acknowledges its n-th deleteEsiData
  // (counted from its making) and leaves the entry in place, as a chip layer with a lost delete
  // would. A convergence check that misses this misses real faults.
  static void canaryDropDeleteEsiDataIs(std::uint64_t n) { canaryDropDelete_ = n; }
  static std::uint64_t canaryDropDeleteEsiData() { return canaryDropDelete_; }

  // Operations, as the helpers call them. Each one is counted and told to the listener.

  // The lowest free id in 1..pool; id 0 when none is free or the call is refused.
  Oba::HwTunnelId getHwTunnelId();
  void releaseHwTunnelId(Oba::HwTunnelId id);
  // A refused create changes no table; a successful one stores, overwriting what was there (the
  // chip reprograms the entry).
  Oba::HwProgrammingStatus createEsiData(Quil::IntfId port, Bridging::VlanId vlan,
                                         const Tunnel::TunnelTable::TunnelId& tunnel,
                                         Oba::HwTunnelId hw, Quil::MplsLabel label,
                                         Quil::MplsLabel localLabel);
  void deleteEsiData(Quil::IntfId port, Bridging::VlanId vlan);
  Oba::HwProgrammingStatus createVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                                    Bridging::VlanIdOrNone dot1q);
  // Removes the mapping of (port, vlan), whatever tag it was programmed with.
  void deleteVlanToDot1qMapping(Quil::IntfId port, Bridging::VlanId vlan,
                                Bridging::VlanIdOrNone dot1q);
  Mpls::LfibHwProgrammingReturnCode createEsiPortMap(Quil::MplsLabel label, Quil::IntfId port);
  void deleteEsiPortMap(Quil::MplsLabel label, Quil::IntfId port);

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
  const std::map<PortVlan, Bridging::VlanIdOrNone>& dot1q() const { return dot1q_; }
  const std::set<std::pair<Quil::MplsLabel, Quil::IntfId>>& esiPortMaps() const {
    return esiPortMaps_;
  }
  const std::set<std::uint32_t>& hwTunnelIdsInUse() const { return inUse_; }

  // The ledger: what the chip saw that a correct agent never does. A call that breaks a rule still
  // proceeds as far as it makes sense (ESI data naming a stray id is stored all the same).
  struct Violation {
    Kiv::Seconds time;
    std::string text;
  };
  const std::vector<Violation>& violations() const { return violations_; }

  // Per id: how many times it was handed out, and how many times it came back to the pool (a
  // release of an id not in use is a violation and does not count).
  std::uint64_t handedOutCount(std::uint32_t id) const {
    return id < idCounts_.size() ? idCounts_[id].handedOut : 0;
  }
  std::uint64_t releasedCount(std::uint32_t id) const {
    return id < idCounts_.size() ? idCounts_[id].released : 0;
  }

  // Every call, as it happens, to one listener (the simulator's log). `op` is the operation's
  // name; `text` starts with it, then the arguments, then " -> <result>" where there is one.
  struct Call {
    Kiv::Seconds time;
    std::string op;
    std::string text;
    const char* caller;  // the helper the call came through, or null for a direct call
  };
  void callListenerIs(std::function<void(const Call&)> listener) {
    listener_ = std::move(listener);
  }
  std::uint64_t callCount() const { return callCount_; }
  // Set by the helpers around each call they forward, so the log can name who called.
  void callerIs(const char* caller) { caller_ = caller; }

  // A chip reset: forgets tables, pool usage, the ledger and the call count; keeps the pool size,
  // the refusal rules (with what is left of their counts), the fault rate and its log, and the
  // listener.
  void reset();

 private:
  class HwTunnelIdAdaptor;
  class FloodingAdaptor;
  class DecapAdaptor;

  enum class Op : std::uint8_t {
    createEsiData,
    createVlanToDot1qMapping,
    createEsiPortMap,
    getHwTunnelId,
  };
  struct Rule {
    Op op;
    Refusal refusal;
  };
  struct Answer {
    Oba::HwProgrammingStatus rc;
    Mpls::LfibHwProgrammingReturnCode lfibRc;
  };
  struct IdCounts {
    std::uint64_t handedOut = 0;
    std::uint64_t released = 0;
  };

  // The answer of the first rule that matches, counted down; nothing when the call may proceed.
  std::optional<Answer> refused(Op op, std::optional<Quil::IntfId> port,
                                std::optional<Bridging::VlanId> vlan);
  void violation(std::string text);
  bool listening() const { return static_cast<bool>(listener_); }
  void tell(const char* op, std::string text);

  Kiv::Ptr<Kiv::Clock> clock_;
  Kiv::Ptr<HwTunnelIdAdaptor> hwTunnelIdHelper_;
  Kiv::Ptr<FloodingAdaptor> floodingHelper_;
  Kiv::Ptr<DecapAdaptor> decapHelper_;

  std::uint32_t poolSize_ = 4096;
  std::vector<Rule> rules_;

  // The pool: every id below nextId_ has been handed out at least once, and is either in use or
  // in freeIds_; so the lowest free id is the first of freeIds_, or else nextId_.
  std::uint64_t nextId_ = 1;
  std::set<std::uint32_t> freeIds_;
  std::set<std::uint32_t> inUse_;
  std::vector<IdCounts> idCounts_;  // indexed by id, up to nextId_

  std::map<PortVlan, EsiEntry> esiData_;
  std::map<PortVlan, Bridging::VlanIdOrNone> dot1q_;
  std::set<std::pair<Quil::MplsLabel, Quil::IntfId>> esiPortMaps_;

  std::vector<Violation> violations_;
  std::function<void(const Call&)> listener_;
  const char* caller_ = nullptr;
  std::uint64_t callCount_ = 0;

  // Injected faults. The threshold is p scaled to the generator's range, so a draw is one
  // compare and the outcome does not depend on a library's distribution.
  double faultRate_ = 0;
  std::uint64_t faultThreshold_ = 0;
  std::mt19937_64 faultRng_;
  bool tracking_ = false;  // set once a fault rate was given: creates are then remembered per key
  std::map<PortVlan, std::uint64_t> lastCreate_;
  std::vector<Fault> faults_;
  std::uint64_t createSerial_ = 0;

  static inline std::uint64_t canaryDropDelete_ = 0;
  const std::uint64_t dropDelete_;
  std::uint64_t deleteSerial_ = 0;
};

}  // namespace Sim
