#pragma once
// A machine family of the simulator: a group of state machines that share their inputs and chip
// tables (the hardware tunnel ids and the ESI data they program; the MAC FECs; ...), with
// everything the simulator needs of them in one place:
//   - its part of the host agent: inputs, outputs and machines, built, torn down and restarted
//     (FamilyAgent);
//   - its chip tables and their ledger, as a part of the software chip (SoftwareChip::Part);
//   - its scenario actions and table expectations, read with the core's Reader;
//   - its random worlds and steps in the fuzzer, and its independent check of the drained state
//     against what the inputs call for (FamilyFuzz).
// The core (clock, scheduler, log, run loop, scenario top level, fuzz driver) knows families only
// through this interface; sim/Families.cpp lists the families, one line each.

#include <yaml-cpp/yaml.h>

#include "Quil/IntfId.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Kiv {
class Digest;
}

namespace Sim {

class DotGraph;
class HostAgent;
class Publisher;
class Reader;
class Rng;
class TableView;
struct FuzzOptions;

// ---- scenario actions ---------------------------------------------------------------------------

// One action of a scenario, read: what it does to the agent, and how a scenario file writes it.
class ActionBody {
 public:
  virtual ~ActionBody() = default;
  // Changes an input, the chip or the agent. Before the agent starts, only inputs and the chip.
  virtual void apply(HostAgent& agent) const = 0;
  // As a scenario file writes it, without the list dash: "designatedForwarder: {segment: ...}".
  virtual void write(std::ostream& os) const = 0;
  // Its key in a scenario file ("designatedForwarder").
  virtual std::string_view name() const = 0;
  // A restart needs a started agent: such an action cannot be among the initial ones.
  virtual bool needsStartedAgent() const { return false; }
  // A setting the family's random world depends on (the machine would abort without it): a
  // shrunk run keeps it.
  virtual bool keptByShrinking() const { return false; }
};

struct Action {
  int line = 0;  // 0: made by the fuzzer, not read
  std::shared_ptr<const ActionBody> body;
  void apply(HostAgent& agent) const { body->apply(agent); }
};

// An action a family offers: its key in a scenario file and how to read its value.
struct ActionKind {
  using Fn =
      std::function<std::shared_ptr<const ActionBody>(const Reader&, const YAML::Node& value)>;
  std::string name;
  Fn read;
};

// A table a family offers to expectations: its key, and how an entry given as a map (rather than
// as the line it prints) turns into that line. `entry` may be empty: lines only.
struct TableKind {
  std::string name;
  std::string item;  // what one entry is, for errors: "ESI entries", "ids"
  std::function<std::string(const Reader&, const YAML::Node& entry)> entry;
};

// A chip operation a family's chip part answers, which chipRefuse rules may name.
struct ChipOperation {
  std::string name;
  std::string rcWhat;  // the codes it may answer, for errors: "notProgrammed or invalidHwId"
  std::function<std::uint32_t(const Reader&, const YAML::Node&)> rc;
  std::uint32_t defaultRc;
  // Whether its calls name a port and a VLAN (a rule for a port never matches a call without).
  bool hasPort = false;
  bool hasVlan = false;
  std::function<std::string(std::uint32_t)> rcText;  // for writing a rule back
  // What its calls name as the port, for a rule's `port`: a physical port unless given (the ESI
  // port maps name a segment interface, the flood-list members their tunnel's endpoint).
  std::function<Quil::IntfId(const Reader&, const YAML::Node&)> portRead = nullptr;
};

// ---- the fuzzer's side, shared by the agent part and the family -------------------------------

// What a check found wrong: its name ("esiData", "mapping", ...) and one line per finding.
struct CheckFailure {
  std::string check;
  std::vector<std::string> lines;
};

// Named tallies a family keeps over a whole fuzz run (entries compared, allowed differences).
using Counters = std::map<std::string, std::uint64_t>;

// Table expectations: a table's name and its lines.
using ExpectedTables = std::vector<std::pair<std::string, std::vector<std::string>>>;

// ---- the host agent -----------------------------------------------------------------------------

// One family's part of a host agent: its inputs, outputs and machines, and everything the core
// asks of them. It holds what it needs, so no hook looks the part up again.
class FamilyAgent {
 public:
  virtual ~FamilyAgent() = default;
  // Makes the machines over the inputs as they are now.
  virtual void start() = 0;
  // Drops the machines; what they programmed stays in the chip, as when an agent goes.
  virtual void stop() = 0;
  // Restarts one of the family's machines, by a name of Family::machines().
  virtual void restart(const std::string& machine) = 0;
  // A table expectation's lines, for a name of Family::tables().
  virtual std::vector<std::string> lines(std::string_view table) const = 0;
  // The final state, for --state: the family's chip tables, then its output tables.
  virtual void printChip(std::ostream&) const {}
  virtual void printOutputs(std::ostream&) const {}
  // Puts the family's output tables in shared memory under the publisher's agent name: its
  // library tables as they are, its in-process outputs as mirrors.
  virtual void publish(Publisher&) {}
  // Its part of the picture of the forwarding state (--dot, sim/Dot.h): the inputs its machines
  // follow, what they hold and its chip tables, in a box of its own, with what is unprogrammed,
  // refused or stale drawn in those looks. A family that does not draw is left out.
  virtual void draw(DotGraph&) const {}

  // Whether a review is pending that could still change something: the fuzzer drains the
  // reviews until no family is busy.
  virtual bool busy() const = 0;
  // After each drained step: tallies, then the ledger lines of its chip part (what did not
  // balance), then its own checks in order, the first failure ending the run. Each check compares
  // the drained state with an independent function of the inputs. `counters` may be null.
  virtual void count(Counters&) const {}
  virtual void ledger(std::vector<std::string>&) const {}
  virtual std::optional<CheckFailure> check(Counters* counters) const = 0;
  // The expectations a written failing run ends with: what a replay must find, each difference
  // the checks allow taken as the chip has it, so that only the real differences fail it.
  virtual ExpectedTables finalExpectations() const = 0;
  // Its state, for the explorer's merging of equal states (sim/Explore.h): its inputs, outputs
  // and machines by their digests, and its chip part's tables. Whatever it leaves out, two
  // states that differ only there are taken as one.
  virtual void digest(Kiv::Digest&) const = 0;
};

// ---- the fuzzer ---------------------------------------------------------------------------------

// One family in one seeded run: the world it drew and its random actions.
class FamilyFuzz {
 public:
  virtual ~FamilyFuzz() = default;
  // Actions the run starts with, before the random initial ones (the chip's settings).
  virtual std::vector<Action> setup() const { return {}; }
  // The kinds of random action it may draw now, each with its weight. The driver rolls once
  // over every family's kinds together, then asks the family for the action of the kind drawn.
  struct Choice {
    std::uint32_t kind;
    std::uint64_t weight;
  };
  virtual void choices(bool initial, std::vector<Choice>& out) const = 0;
  virtual Action action(std::uint32_t kind, Rng& rng) const = 0;
  // Actions that end a burst of drawn actions (every family's), appended to `out`: a row a
  // family tore in the burst is written again, as its writer finishes the write.
  virtual void burstEnd(const std::vector<Action>&, std::vector<Action>&) const {}
};

// A command-line option of `oba-evpn-sim fuzz` that a family adds: a setting of its worlds
// (kept in FuzzOptions::settings under the name without its dashes), or a chip's canary.
struct FuzzFlag {
  std::string name;  // "--canary-drop-delete"
  std::string arg;   // "N"
  std::string help;
  // Takes the value: "" when it does, else why not ("needs N", "must be at least 1").
  std::function<std::string(const char* value, FuzzOptions&)> set;
  // The flag as the replay command repeats it, or "".
  std::function<std::string(const FuzzOptions&)> replay;
  // The setting as the summary and a written run's description name it ("pool 4"), or "".
  std::function<std::string(const FuzzOptions&)> summary = nullptr;
};

// ---- the explorer
// --------------------------------------------------------------------------------

// A small world to explore every order of events in: the actions the agent starts over (inputs
// and chip settings), and the steps it may take, each one or more of the family's scenario
// actions applied together (a row torn and written again around a change that reads it). The
// explorer adds time moving on and restarts.
struct ExploreWorld {
  std::string name;
  std::string description;
  std::vector<Action> initial;
  std::vector<std::vector<Action>> alphabet;
};

// ---- the family ---------------------------------------------------------------------------------

// A table an agent publishes in shared memory, as oba-evpn-show finds it: its name, what it
// holds, and a reader's view of it under an agent's name (sim/Published.h).
struct PublishedTableKind {
  const char* name;
  const char* what;
  std::function<std::unique_ptr<TableView>(const std::string& agent)> view;
};

class Family {
 public:
  virtual ~Family() = default;
  virtual std::string_view name() const = 0;
  // The families whose agent parts this one's reads (their inputs, outputs, chip): they are
  // registered before it, which the host agent checks.
  virtual std::vector<const Family*> buildsOn() const { return {}; }
  // Its machines, by the names a scenario restarts them with, in the order they start.
  virtual std::vector<std::string> machines() const = 0;
  virtual std::vector<ChipOperation> chipOperations() const { return {}; }
  virtual std::vector<ActionKind> actions() const = 0;
  virtual std::vector<TableKind> tables() const { return {}; }
  // The tables its agent part publishes (FamilyAgent::publish), for oba-evpn-show.
  virtual std::vector<PublishedTableKind> publishedTables() const { return {}; }
  // Its part of a new host agent (the agent's clock, scheduler, chip and log exist, and the parts
  // of the families registered before it).
  virtual std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const = 0;

  // Its part of one seeded run: draws its world from `rng`.
  virtual std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) const = 0;
  virtual std::vector<FuzzFlag> fuzzFlags() const { return {}; }
  // Its small worlds for `oba-evpn-sim explore`; none for a family with no machines.
  virtual std::vector<ExploreWorld> exploreWorlds() const { return {}; }
  // Its parts of the run's summary: tallies ("N ESI entries compared, "), allowed differences.
  virtual void printCounts(const Counters&, std::ostream&) const {}
  virtual void printAllowances(const Counters&, std::ostream&) const {}
};

using Families = std::vector<const Family*>;

// Every family of the simulator, in the order the agent starts them (sim/Families.cpp).
const Families& registeredFamilies();

// Every table the families publish, in their order: what oba-evpn-show lists.
std::vector<PublishedTableKind> publishedTables(const Families& families = registeredFamilies());

}  // namespace Sim
