#pragma once
// The fuzzer's record of a seeded run and what becomes of it when the run fails: the run as a
// scenario with the chip's injected faults stated as refusal rules, replayed, shrunk to the
// actions that still fail the same check, and written as a file that `oba-evpn-sim --check`
// replays. Shared by the run (sim/Fuzz.cpp), the shrinker and the command line.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "sim/Fuzz.h"
#include "sim/Scenario.h"

namespace Sim {

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
