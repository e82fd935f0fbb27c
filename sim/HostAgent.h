#pragma once
// The host agent of the simulator: what a forwarding agent on a switch does around the library.
// The core holds one scheduler on a virtual clock, the software chip and the log; each family
// adds its inputs, outputs and machines (FamilyAgent), wired as on a switch. The agent applies a
// scenario's actions, starts the machines family by family, and restarts one machine or the
// whole agent.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Cause.h"
#include "Kiv/Clock.h"
#include "Mox/TaskScheduler.h"
#include "sim/Family.h"
#include "sim/SimLog.h"
#include "sim/SoftwareChip.h"

namespace Sim {

struct Scenario;

class HostAgent {
 public:
  explicit HostAgent(SimLog* log, const Families& families = registeredFamilies());
  ~HostAgent();
  HostAgent(const HostAgent&) = delete;
  HostAgent& operator=(const HostAgent&) = delete;

  // Builds the machines over the inputs as they are now, family by family.
  void start();
  // A machine by its family's name for it, or "agent": every machine, over a chip that resets.
  void restart(const std::string& machine);
  // Applies an action; with causes carried, what it sets off names it.
  void apply(const Action& a);
  // Runs a whole scenario without its expectations: the initial inputs, the start, then each step
  // at its time with whatever falls due. With causes carried, the start and each step ("the step
  // at time 2 \"note\"") are the roots of what they set off. An abort propagates.
  void replay(const Scenario& s);
  // Publishes every family's output tables in shared memory under `name`, for readers in other
  // processes; they stay there until the agent goes. Raises Shoal::SegmentException when another
  // live process publishes under the name.
  void publish(const std::string& name);
  // Brings the published copies of in-process outputs up to date: after each step.
  void syncPublished();

  double now() const { return clock->now(); }
  // The chip calls made since the last take, as their texts.
  std::vector<std::string> takeCalls();
  std::vector<std::string> violationLines() const;
  // A table expectation's lines, from the family that offers the table.
  std::vector<std::string> tableLines(std::string_view table) const;
  // The final state: every family's chip tables, the chip's violations, every family's outputs.
  void printState(std::ostream& os) const;
  // The same without the violations: what the tables hold.
  void printTables(std::ostream& os) const;

  // A line of the log, from the agent or one of its families.
  SimLog& log() const { return *log_; }
  // An output-table write or an agent's note; with causes asked for, the chain of the write.
  void note(std::string_view source, std::string_view text);

  // Why each chip call and output write was made (--why): the chain of causes from the input
  // that started it, logged under it. Carrying causes is on for the process while an agent asks
  // for them.
  struct Why {
    bool on = false;
    Kiv::CauseDetail detail = Kiv::CauseDetail::brief;
    // Only the lines whose source and text hold this get their chains (empty: every line).
    std::string only{};
  };
  void whyIs(const Why& why);
  const Why& why() const { return why_; }
  // The chain of causes a log line gets, nearest first: of what runs now, from the write past
  // `skipWrite` links (an output write's own link is the line itself); empty when not asked for.
  std::vector<std::string> causesFor(std::string_view source, std::string_view text,
                                     bool skipWrite) const;

  // The last chip call a machine made, as "<machine>: <call text>", or empty: what a broken
  // invariant right after a chip's answer is reported with.
  const std::string& lastMachineCall() const { return lastMachineCall_; }

  const Families& families() const { return families_; }
  // A family's part, by its type: agent.part<TunnelEsiAgent>(). Each part type names its family
  // (`static const Family& family()`); a family that reads another's part lists that family in
  // its buildsOn(), so the part exists by the time it asks.
  template <class T>
  T& part() const {
    return static_cast<T&>(partOf(T::family()));
  }
  // The part of `family`; std::logic_error when the agent has none (yet).
  FamilyAgent& partOf(const Family& family) const;
  const std::vector<std::unique_ptr<FamilyAgent>>& parts() const { return agents_; }

  // Moves virtual time on to `t`, running what falls due: every task due before `t` at its own
  // due time, then what is due at `t`. `walk`, if given, hears of each due time before its tasks
  // run and after; the last of them is `t` itself.
  struct TimeWalk {
    virtual ~TimeWalk() = default;
    virtual void beforeRuns(double due) { (void)due; }
    virtual void afterRuns() {}
  };
  void advanceTo(double t, TimeWalk* walk = nullptr);

  const Kiv::Ptr<Kiv::VirtualClock> clock;
  const Kiv::Ptr<Mox::TaskScheduler> scheduler;
  const Kiv::Ptr<SoftwareChip> chip;

 private:
  SimLog* log_;
  Families families_;
  std::vector<std::unique_ptr<FamilyAgent>> agents_;
  std::unique_ptr<Publisher> publisher_;
  std::vector<std::string> calls_;
  std::string lastMachineCall_;
  Why why_;
};

// "  <line>\n" per line, or "    (none)": the blocks of --state and of a failed expectation.
std::string block(const std::vector<std::string>& lines);

}  // namespace Sim
