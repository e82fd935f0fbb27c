#pragma once
// Replays a scenario through a host agent: the initial inputs, the agent's start, then each step
// at its virtual time (time advances first, running the review tasks that fall due on the way),
// its actions, the tasks due at once, and its expectations.
//
// A machine that breaks an invariant ends the run: its assertion is caught (not aborting the
// process), logged as the step's, and either met by the step's `abort` expectation or reported.

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "sim/HostAgent.h"
#include "sim/Scenario.h"
#include "sim/SimLog.h"

namespace Sim {

struct RunOptions {
  bool check = false;  // evaluate expectations; a chip violation not expected is a failure too
  bool state = false;  // print the chip's tables and the output table at the end
  // Told after the agent's start (no step) and after each step has run, before its expectations
  // are checked: what --dot draws.
  std::function<void(const HostAgent&, const Step*)> stepDone{};
  // Publish the agent's output tables in shared memory under this name (empty: not at all), for
  // readers in other processes.
  std::string publish{};
  // Pace virtual time to the wall clock, this many virtual seconds a second (0: as fast as it
  // runs). `stopPacing` is asked while waiting: true runs the rest at once.
  double realtime = 0;
  std::function<bool()> stopPacing{};
  // Told after the run, the agent and its published tables still alive (--hold).
  std::function<void(HostAgent&)> hold{};
  // The chains of causes under each chip call and output write (--why).
  HostAgent::Why why{};
};

struct RunResult {
  std::vector<std::string> failures;  // "<file>:<line>: ..." with expected and actual
  // A machine broke an invariant where the scenario did not expect it: the step, its file and
  // line, the machine and the assertion are the last failure. The run ended there.
  bool aborted = false;
  // What ended the run was not a machine's assertion but an exception that no input should cause
  // (the reader refuses what would): a fault of the simulator. The run ended there too.
  bool internalError = false;
  bool violationsExpected = false;  // some step states the chip's violations
  bool ok() const { return failures.empty(); }
};

RunResult runScenario(const Scenario& scenario, SimLog& log, const RunOptions& options,
                      std::ostream* stateOut = nullptr);

}  // namespace Sim
