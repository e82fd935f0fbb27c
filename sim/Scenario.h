#pragma once
// A scenario: the inputs the control plane publishes before the agent starts, the chip's
// settings, then steps at virtual times that change inputs, change the chip, restart machines,
// and state what must have happened. docs/scenario-format.md describes the file format.
//
// A scenario file is read and checked whole before anything runs: a malformed file is refused
// with its file, line, column and what was expected, and nothing of it is applied. The core reads
// the top level, the steps, the chip's refusal rules and restarts; every other action and table
// expectation belongs to a family, which reads it.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/Family.h"
#include "sim/ScenarioReader.h"
#include "sim/SoftwareChip.h"

namespace Sim {

struct Expectation {
  int line = 0;
  // "calls" or "callsAnyOrder" (the chip calls since the last step that expected calls),
  // "violations" (the chip's so far), "checks" (what the fuzzer's checks find now), or a table a
  // family offers.
  std::string name;
  bool calls = false;    // one of the calls expectations
  bool ordered = false;  // compared in order, or as a multiset
  std::vector<std::string> lines;
};

struct Step {
  int line = 0;
  double at = 0;
  std::string note;
  std::string trace;  // the library's trace levels while the step runs (SOURCE/LEVEL,...)
  std::vector<Action> actions;
  std::vector<Expectation> expectations;
  // The text of the assertion a machine is expected to fail in this step ("0"); the agent is
  // done then, so such a step is the last.
  std::optional<std::string> abort;
};

struct Scenario {
  std::string file;
  std::string name;
  std::string description;
  std::vector<Action> initial;  // applied before the machines are made
  std::vector<Step> steps;      // in time order
  Families families;            // those it was read with, which its agent runs
};

// Reads a scenario from YAML text; `file` names it in errors. Throws ScenarioError.
Scenario parseScenario(const std::string& text, const std::string& file,
                       const Families& families = registeredFamilies());
Scenario readScenarioFile(const std::string& path, const Families& families = registeredFamilies());

// One action, read from its YAML text ("lag: {lag: Port-Channel1, members: [Ethernet1]}").
Action actionOf(const std::string& text, const Families& families = registeredFamilies());

// A restart of a machine (or "agent") as an action.
Action restartAction(const std::string& machine);

// A refusal rule as an action: what the fuzzer writes for each fault the chip injected.
Action refusalAction(const SoftwareChip::Refusal& refusal,
                     const Families& families = registeredFamilies());

// The scenario built into the program: the typical event, end to end.
extern const char* const defaultScenarioName;
extern const char* const defaultScenarioText;

}  // namespace Sim
