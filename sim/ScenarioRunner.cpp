#include "sim/ScenarioRunner.h"

#include <algorithm>
#include <sstream>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"

namespace Sim {

namespace {

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// What an expectation compares against, as lines; `calls` are the chip calls since the last
// step that expected calls.
std::vector<std::string> actual(const Expectation& e, const HostAgent& agent,
                                const std::vector<std::string>& calls) {
  if (e.calls) return calls;
  if (e.name == "violations") return agent.violationLines();
  return agent.tableLines(e.name);
}

// The library's trace levels for the length of one step.
class StepTrace {
 public:
  explicit StepTrace(const std::string& trace) : on_(!trace.empty()) {
    if (!on_) return;
    before_ = Kiv::traceConfig();
    Kiv::traceConfigIs(trace);
  }
  ~StepTrace() {
    if (on_) Kiv::traceConfigIs(before_);
  }
  StepTrace(const StepTrace&) = delete;
  StepTrace& operator=(const StepTrace&) = delete;

 private:
  bool on_;
  std::string before_;
};

}  // namespace

// The initial inputs, the start, and each step; `current` follows the step being run.
static void runSteps(const Scenario& s, HostAgent& agent, SimLog& log, const RunOptions& options,
                     RunResult& result, const Step*& current) {
  log.add(0, "scenario", s.name);
  for (const Action& a : s.initial) agent.apply(a);
  log.add(0, "agent", "start");
  agent.start();
  agent.scheduler->runDue();
  if (options.stepDone) options.stepDone(agent, nullptr);

  for (const Step& step : s.steps) {
    for (const auto& e : step.expectations) result.violationsExpected |= e.name == "violations";
  }

  std::vector<std::string> calls;
  for (const Step& step : s.steps) {
    // Reviews due before the step run at their own times (a part of the step: an abort there is
    // the step's); then the step begins, and what falls due exactly at its time runs before its
    // actions.
    current = &step;
    for (auto due = agent.scheduler->nextDueTime(); due && *due < step.at;
         due = agent.scheduler->nextDueTime()) {
      agent.scheduler->advanceTo(*due);
    }
    {
      StepTrace trace(step.trace);
      log.add(step.at, "step",
              step.note.empty() ? "step at line " + std::to_string(step.line) : step.note);
      agent.scheduler->advanceTo(step.at);
      for (const Action& a : step.actions) agent.apply(a);
      agent.scheduler->runDue();
    }
    if (options.stepDone) options.stepDone(agent, &step);
    auto taken = agent.takeCalls();
    calls.insert(calls.end(), taken.begin(), taken.end());
    if (!options.check) continue;

    bool consumedCalls = false;
    for (const Expectation& e : step.expectations) {
      std::vector<std::string> want = e.lines, got = actual(e, agent, calls);
      consumedCalls |= e.calls;
      if (!e.ordered) {
        want = sorted(want);
        got = sorted(got);
      }
      if (want == got) continue;
      std::ostringstream os;
      os << s.file << ":" << e.line << ": expected " << e.name
         << (e.ordered ? " (in order)" : " (in any order)") << " at time " << step.at << ":\n"
         << block(e.lines) << "  but got:\n"
         << block(actual(e, agent, calls));
      result.failures.push_back(os.str());
    }
    if (consumedCalls) calls.clear();
    if (!result.failures.empty()) break;
  }
}

namespace {

// Where a broken invariant is, from the source tree's top ("Oba/ObaPortProgramming.h:109").
std::string whereOf(const Kiv::AssertionFailure& f) {
  std::string_view src = f.source();
  for (const char* top : {"/ObaEvpn/", "/Oba/", "/platform/", "/sim/"}) {
    if (auto at = src.rfind(top); at != std::string_view::npos) {
      src = src.substr(at + 1);
      break;
    }
  }
  return std::string(src) + ":" + std::to_string(f.line());
}

}  // namespace

RunResult runScenario(const Scenario& s, SimLog& log, const RunOptions& options,
                      std::ostream* stateOut) {
  RunResult result;
  // A broken invariant is reported as the step that caused it, not by an abort of the process.
  Kiv::ThrowingAssertions throwing;
  HostAgent agent(&log, s.families);
  const Step* current = nullptr;
  try {
    runSteps(s, agent, log, options, result, current);
  } catch (const Kiv::AssertionFailure& f) {
    // The machine is the one whose chip call came last: an invariant the machines assert is
    // about what the chip just answered, and shared code cannot name its caller.
    std::string what = "assertion \"" + std::string(f.condition()) + "\" failed at " + whereOf(f);
    if (!agent.lastMachineCall().empty()) what += ", after " + agent.lastMachineCall();
    log.add(agent.now(), "abort", what);
    if (current && current->abort && *current->abort == f.condition()) {
      // What the step expected: the contract, told as a story.
    } else {
      std::ostringstream os;
      if (current) {
        os << s.file << ":" << current->line << ": the step at time " << current->at
           << " aborted at time " << agent.now() << ":";
      } else {
        os << s.file << ": the agent's start aborted:";
      }
      os << " " << what << "\n";
      result.failures.push_back(os.str());
      result.aborted = true;
    }
    log.flush();
    return result;
  }
  if (current && current->abort) {
    result.failures.push_back(s.file + ":" + std::to_string(current->line) +
                              ": expected the step to abort with assertion \"" + *current->abort +
                              "\", but it completed\n");
  }
  if (options.check && result.failures.empty() && !result.violationsExpected &&
      !agent.chip->violations().empty()) {
    result.failures.push_back(s.file + ": the chip reported violations:\n" +
                              block(agent.violationLines()));
  }
  if (options.state && stateOut) agent.printState(*stateOut);
  return result;
}

}  // namespace Sim
