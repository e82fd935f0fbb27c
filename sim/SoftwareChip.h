#pragma once
// Sim::SoftwareChip: the simulator's chip. Its core is what every family's tables share: the
// call log (each call told to one listener as a line of text, named by the helper it came
// through), the ledger of violations (what a correct agent never does), refusal rules, and faults
// injected at a seeded rate. Each family adds its tables as a Part, and its helpers forward the
// machines' calls to that part.
//
//   Kiv::Ptr<Sim::SoftwareChip> chip = new Sim::SoftwareChip(clock);
//   auto esi = Sim::TunnelEsiChip::TunnelEsiChipIs(chip);       // a family's tables
//   chip->refusalIs({.op = "createEsiData", .port = Quil::IntfId::ethernet(1), .times = 1});
//   ... hand the part's helpers to the machines, run them ...
//   EXPECT_TRUE(chip->violations().empty());
//
// Call texts are built only for a listener or a violation, so a fuzzer that runs millions of
// calls without a listener pays for the tables alone.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "Bridging/VlanId.h"
#include "Kiv/Clock.h"
#include "Kiv/Digest.h"
#include "Kiv/Ptr.h"
#include "Quil/IntfId.h"

namespace Sim {

class SoftwareChip : public Kiv::PtrInterface {
 public:
  // The clock stamps calls and violations.
  explicit SoftwareChip(Kiv::Ptr<Kiv::Clock> clock);
  SoftwareChip(const SoftwareChip&) = delete;
  SoftwareChip& operator=(const SoftwareChip&) = delete;
  // Detaches every part's helpers: a machine that still holds one aborts on its next call rather
  // than reach a chip that is gone.
  ~SoftwareChip() override;

  // A family's tables. The chip owns its parts; a reset of the chip resets each of them.
  class Part : public Kiv::PtrInterface {
   public:
    // Forgets the tables and their ledger counts; settings (sizes) stay.
    virtual void reset() = 0;
    // Cuts the link from the part's helpers to the chip.
    virtual void detach() = 0;
    // Its tables and settings, for the explorer's state digest.
    virtual void digest(Kiv::Digest&) const = 0;
  };
  void partIs(const Kiv::Ptr<Part>& part) { parts_.push_back(part); }
  // The operations chipRefuse rules may name; each part names its own when it is made.
  void operationIs(std::string_view op) { operations_.emplace_back(op); }

  // A rule that makes the chip refuse some calls of one operation.
  struct Refusal {
    std::string op{};
    // Only calls on this port/interface, only calls for this VLAN.
    std::optional<Quil::IntfId> port = std::nullopt;
    std::optional<Bridging::VlanId> vlan = std::nullopt;
    // The next N matching calls; -1: every one.
    std::int64_t times = -1;
    // The code to answer, as the operation's part reads it (1: notProgrammed for the creates).
    std::uint32_t rc = 1;
  };
  // Rules are checked in the order added; the first that matches answers the call with its rc
  // and counts down its `times`; a rule at 0 is dropped. A rule with a port or VLAN never matches
  // an operation without one. An unknown op raises Kiv::RangeException "cannot refuse '<op>': no
  // such chip operation".
  void refusalIs(const Refusal& r);
  void refusalDelAll() { rules_.clear(); }
  std::size_t refusals() const { return rules_.size(); }
  // What is left of each rule's `times`, in order (-1: every call).
  std::vector<std::int64_t> refusalCounts() const;
  // Counts each rule down by `by` (in the order of refusalCounts()), as if it had answered that
  // many more calls; none may reach 0 this way.
  void refusalCountsLess(const std::vector<std::int64_t>& by);

  // Injected faults, for the fuzzer: a call that may be faulted (see refusedOrFault) and that no
  // rule refuses is refused with probability p, drawn from a std::mt19937_64 seeded with `seed`,
  // so that a run replays exactly. Each fault is logged with the call it answered and the previous
  // such call of the same operation, port and VLAN: what a replay needs to state the same fault
  // as a refusal rule for the next call on that port and VLAN.
  void faultRateIs(double p, std::uint64_t seed);
  double faultRate() const { return faultRate_; }
  struct Fault {
    std::uint64_t create;          // faultableSerial() of the refused call
    std::uint64_t previousCreate;  // that of the previous call of the same op, port and VLAN, or 0
    std::string_view op;
    Quil::IntfId port;
    Bridging::VlanId vlan;
  };
  const std::vector<Fault>& faults() const { return faults_; }
  // Calls that may be faulted since the chip was made, refused or not; a reset does not restart
  // it.
  std::uint64_t faultableSerial() const { return faultableSerial_; }

  // For the parts, at each operation: every call is counted; `refused` answers the code of the
  // first rule that matches, if any; `refusedOrFault` does the same for a create that the
  // fuzzer's faults may hit (`rc` is the code a fault answers).
  void countCall() { ++callCount_; }
  std::optional<std::uint32_t> refused(std::string_view op, std::optional<Quil::IntfId> port,
                                       std::optional<Bridging::VlanId> vlan);
  std::optional<std::uint32_t> refusedOrFault(std::string_view op, Quil::IntfId port,
                                              Bridging::VlanId vlan, std::uint32_t rc);
  void violation(std::string text);
  bool listening() const { return static_cast<bool>(listener_); }
  void tell(const char* op, std::string text);

  // The ledger: what the chip saw that a correct agent never does. A call that breaks a rule still
  // proceeds as far as it makes sense.
  struct Violation {
    Kiv::Seconds time;
    std::string text;
  };
  const std::vector<Violation>& violations() const { return violations_; }

  // Every call, as it happens, to one listener (the simulator's log). `op` is the operation's
  // name; `text` starts with it, then the arguments, then " -> <result>" where there is one.
  struct Call {
    Kiv::Seconds time;
    std::string op;
    std::string text;
    const char* caller;  // the machine whose helper the call came through, or null: the agent
  };
  void callListenerIs(std::function<void(const Call&)> listener) {
    listener_ = std::move(listener);
  }
  std::uint64_t callCount() const { return callCount_; }
  // Set by the helpers around each call they forward, so the log can name who called.
  void callerIs(const char* caller) { caller_ = caller; }

  // A chip reset: every part forgets its tables, and the chip its ledger and call count; the
  // refusal rules (with what is left of their counts), the fault rate and its log, and the
  // listener stay.
  void reset();

  // The rules left and the fault rate, then every part's tables: the chip's state as far as it
  // decides what the chip answers next.
  void digest(Kiv::Digest& d) const;

 private:
  void answerCause(std::string_view op, std::optional<Quil::IntfId> port,
                   std::optional<Bridging::VlanId> vlan, std::uint32_t rc, std::string_view why);
  struct Rule {
    Refusal refusal;
  };

  Kiv::Ptr<Kiv::Clock> clock_;
  std::vector<Kiv::Ptr<Part>> parts_;
  std::vector<std::string> operations_;
  std::vector<Rule> rules_;

  std::vector<Violation> violations_;
  std::function<void(const Call&)> listener_;
  const char* caller_ = nullptr;
  std::uint64_t callCount_ = 0;

  // Injected faults. The threshold is p scaled to the generator's range, so a draw is one
  // compare and the outcome does not depend on a library's distribution.
  double faultRate_ = 0;
  std::uint64_t faultThreshold_ = 0;
  std::mt19937_64 faultRng_;
  bool tracking_ = false;  // set once a fault rate was given: calls are then remembered per key
  std::map<std::tuple<std::string_view, Quil::IntfId, Bridging::VlanId>, std::uint64_t> lastCall_;
  std::vector<Fault> faults_;
  std::uint64_t faultableSerial_ = 0;
};

}  // namespace Sim
