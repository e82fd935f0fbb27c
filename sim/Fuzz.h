#pragma once
// `oba-evpn-sim fuzz`: randomized convergence. Each seed draws a random world from every family
// (segments, LAGs, endpoints, VLANs, ...) and throws a storm of random steps at the host agent:
// the families' inputs change, time passes, the chip refuses creates at a seeded fault rate,
// machines restart. After every step the review tasks drain and every family's checks must hold.
// A seed replays exactly from its number.
//
//   Sim::FuzzOptions o;
//   o.seeds = 200; o.steps = 1000; o.faultRate = 0.1; o.restarts = true;
//   Sim::FuzzResult r = Sim::fuzz(o, &std::cout, nullptr);
//   if (r.failure) ... r.failure->scenarioPath replays it with `oba-evpn-sim --check`
//
// A failing seed stops the run. Its history is turned into a scenario file (the chip's injected
// faults become refusal rules), shrunk to fewer actions while the same check still fails, given
// the expectations the checks computed, and checked once more through the scenario runner.
// docs/convergence.md describes the checks and how to run long campaigns.

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "sim/Blame.h"
#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/Scenario.h"

namespace Sim {

struct FuzzOptions {
  std::uint64_t firstSeed = 1;
  std::uint64_t seeds = 100;           // seeds firstSeed .. firstSeed + seeds - 1
  std::uint32_t steps = 1000;          // per seed
  double faultRate = 0.1;              // probability that the chip refuses a create
  bool restarts = false;               // steps may restart a machine or the whole agent
  bool shrink = true;                  // shrink a failing run before writing it
  std::uint64_t shrinkReplays = 4000;  // the shrinker's budget: replays of candidate runs
  std::string outDir = ".";            // where a failing run's scenario file goes
  std::uint64_t batch = 100;           // seeds per summary line
  // The families' settings of their worlds, by the name of the flag that sets each ("pool" for
  // --pool); a family takes its default for one not given.
  std::map<std::string, std::uint64_t> settings;
  std::uint64_t setting(const std::string& name, std::uint64_t orElse) const {
    auto it = settings.find(name);
    return it == settings.end() ? orElse : it->second;
  }
};

struct FuzzFailure {
  std::uint64_t seed = 0;
  std::uint32_t step = 0;  // 0: right after the agent started
  double time = 0;
  CheckFailure failure;
  std::string scenarioPath;       // empty when it could not be written
  std::size_t actions = 0;        // actions in the run as it failed
  std::size_t shrunkActions = 0;  // and in the written scenario
  bool replayable = true;         // every injected fault could be stated as a rule
  bool checkFails = false;        // the scenario runner's --check fails the written file
  std::optional<Blame> blame;     // the call that broke the check, and why it was made
};

struct FuzzResult {
  std::uint64_t seedsRun = 0;
  std::uint64_t stepsChecked = 0;
  std::uint64_t faultsInjected = 0;
  std::uint64_t creates = 0;    // calls the chip's faults could hit, refused or not
  std::uint64_t drainsCut = 0;  // steps whose reviews were still busy after the bound
  Counters counters;            // the families' tallies
  double seconds = 0;
  std::optional<FuzzFailure> failure;
};

// Runs the seeds; summary lines go to `summary`, a progress line to `progress` (either may be
// null). Stops at the first failing seed.
FuzzResult fuzz(const FuzzOptions& options, std::ostream* summary, std::ostream* progress,
                const Families& families = registeredFamilies());

// The chip's violations and each family's balance, one line each: what the ledger finds.
std::vector<std::string> ledgerLines(const HostAgent& agent);

// Every check in turn on a drained agent: the chip's ledger (its violations and each family's
// balance), then each family's own; the first that fails. `counters` may be null.
std::optional<CheckFailure> checkAgent(const HostAgent& agent, Counters* counters);

// What every check finds on the agent as it is, one line each, "<check>: <finding>" (the ledger,
// then each family's first failing check); none when all hold. A scenario's `checks` expectation
// compares with these, so that every failure the fuzzer finds can be stated in a scenario.
std::vector<std::string> checkLines(const HostAgent& agent);

// The largest --steps: a seed keeps its whole run, to write it as a scenario should it fail.
constexpr std::uint32_t maxFuzzSteps = 100000;

// The subcommand: `oba-evpn-sim fuzz [options]`, argv[1] being "fuzz". Exit status 0 when every
// seed converged, 1 when one failed, 2 on bad arguments.
int fuzzMain(int argc, char** argv);

// ---- the record of a seeded run and what becomes of it when the run fails ---------------------
// The run as a scenario with the chip's injected faults stated as refusal rules, replayed, shrunk
// to the actions that still fail the same check, and written as a file that `oba-evpn-sim --check`
// replays (sim/FuzzShrink.cpp). Shared by the run (sim/Fuzz.cpp) and the command line
// (sim/FuzzMain.cpp).

namespace fuzzing {

inline constexpr std::size_t npos = static_cast<std::size_t>(-1);

// Where the run is, for a report when a machine's assertion aborts the process.
extern volatile std::uint64_t abortSeed;
extern volatile std::uint64_t abortStep;

// A run as a scenario, and the points in it where a refusal rule could be inserted, each with the
// number of creates the chip had seen by then. An injected fault is stated as a rule at the last
// such point before its create, which must lie after the previous create of the same port and
// VLAN (or the rule would catch that one instead).
struct Record {
  struct Point {
    std::size_t step;      // npos: the end of `initial`
    std::size_t pos;       // before this action of the step; npos: a new step before `step`
    double at;             // the new step's time
    std::uint64_t serial;  // creates so far
  };
  Scenario scenario;
  std::vector<Point> points;

  void clear() {
    scenario.initial.clear();
    scenario.steps.clear();
    points.clear();
  }
  void point(const Point& p) {
    // Points with no create between them are equivalent; the later one stands for both.
    if (!points.empty() && points.back().serial == p.serial) points.pop_back();
    points.push_back(p);
  }
};

// The failed run turned into a scenario file: shrunk, written into the options' folder and checked
// through the scenario runner. Fills in the failure's file fields.
void writeFailingRun(const Record& rec, const HostAgent& agent, const FuzzOptions& o,
                     FuzzFailure& f, std::ostream* summary);

// The command that runs the seed again, up to `step`: the core's options, the families' settings,
// then their canaries.
std::string replayCommand(const FuzzOptions& o, std::uint64_t seed, std::uint32_t step,
                          const Families& families);
// The core's and the families' settings, as the summaries name them: "fault rate 0.1, pool 4".
std::string settingsText(const FuzzOptions& o, const Families& families);

}  // namespace fuzzing

}  // namespace Sim
