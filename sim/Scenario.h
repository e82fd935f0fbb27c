#pragma once
// A scenario: the inputs the control plane publishes before the agent starts, the chip's
// settings, then steps at virtual times that change inputs, change the chip, restart machines,
// and state what must have happened. docs/scenario-format.md describes the file format.
//
// A scenario file is read and checked whole before anything runs: a malformed file is refused
// with its file, line and what was expected, and nothing of it is applied.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Bridging/VlanId.h"
#include "Evpn/EvpnStatus.h"
#include "Quil/IntfId.h"
#include "sim/SoftwareChip.h"

namespace Sim {

// A scenario that cannot be read: "<file>:<line>: <what was expected>".
class ScenarioError : public std::runtime_error {
 public:
  ScenarioError(const std::string& file, int line, const std::string& what)
      : std::runtime_error(file + ":" + std::to_string(line) + ": " + what),
        file_(file),
        line_(line) {}
  const std::string& file() const { return file_; }
  int line() const { return line_; }

 private:
  std::string file_;
  int line_;
};

struct Action {
  enum class Kind {
    designatedForwarder,     // segment, vlan, tep
    designatedForwarderDel,  // segment, vlan
    remoteEsiLabel,          // segment, tep, label
    remoteEsiLabelDel,       // segment, tep
    localEsiLabel,           // segment, label
    localEsiLabelDel,        // segment
    segment,                 // segment (an empty segment status)
    segmentDel,              // segment
    lag,                     // lag, members
    lagDel,                  // lag
    chipPool,                // count
    chipRefuse,              // refusal
    chipRefuseNone,          //
    restart,                 // machine: "hwTunnelId", "floodingEsi" or "agent"
  };
  Kind kind;
  int line = 0;
  Quil::IntfId segment;  // also the LAG of lag/lagDel
  Bridging::VlanId vlan;
  Quil::IntfId tep;
  Evpn::EncapTypeLabel label;
  std::vector<Quil::IntfId> members;
  std::uint32_t count = 0;
  SoftwareChip::Refusal refusal;
  std::string machine;
};

struct Expectation {
  enum class Kind {
    calls,          // the chip calls since the previous expectation, in order
    callsAnyOrder,  // the same, in any order
    esiData,        // the chip's whole ESI table
    mapping,        // the whole tunnel-id mapping table
    hwTunnelIds,    // the hardware tunnel ids the chip has handed out
    violations,     // the chip's violations so far
  };
  Kind kind;
  int line = 0;
  std::vector<std::string> lines;
};

struct Step {
  int line = 0;
  double at = 0;
  std::string note;
  std::vector<Action> actions;
  std::vector<Expectation> expectations;
};

struct Scenario {
  std::string file;
  std::string name;
  std::string description;
  std::vector<Action> initial;  // applied before the machines are made
  std::vector<Step> steps;      // in time order
};

// Reads a scenario from YAML text; `file` names it in errors. Throws ScenarioError.
Scenario parseScenario(const std::string& text, const std::string& file);
Scenario readScenarioFile(const std::string& path);

std::string expectationName(Expectation::Kind k);

// The scenario built into the program: the typical event, end to end.
extern const char* const defaultScenarioName;
extern const char* const defaultScenarioText;

}  // namespace Sim
