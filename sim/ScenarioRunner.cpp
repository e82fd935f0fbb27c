#include "sim/ScenarioRunner.h"

#include <algorithm>
#include <sstream>

namespace Sim {

namespace {

std::string block(const std::vector<std::string>& lines) {
  if (lines.empty()) return "    (none)\n";
  std::string out;
  for (const auto& l : lines) out += "    " + l + "\n";
  return out;
}

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// What an expectation compares against, as lines; `calls` are the chip calls since the last
// step that expected calls.
std::vector<std::string> actual(const Expectation& e, const HostAgent& agent,
                                const std::vector<std::string>& calls) {
  switch (e.kind) {
    case Expectation::Kind::calls:
    case Expectation::Kind::callsAnyOrder:
      return calls;
    case Expectation::Kind::esiData:
      return agent.esiDataLines();
    case Expectation::Kind::mapping:
      return agent.mappingLines();
    case Expectation::Kind::hwTunnelIds:
      return agent.hwTunnelIdLines();
    case Expectation::Kind::violations:
      return agent.violationLines();
  }
  return {};
}

}  // namespace

void printState(const HostAgent& agent, std::ostream& os) {
  os << "chip esiData:\n" << block(agent.esiDataLines());
  os << "chip hwTunnelIds in use:\n" << block(agent.hwTunnelIdLines());
  os << "chip violations:\n" << block(agent.violationLines());
  os << "mapping tunnelIdToHwTunnelId:\n" << block(agent.mappingLines());
}

RunResult runScenario(const Scenario& s, SimLog& log, const RunOptions& options,
                      std::ostream* stateOut) {
  RunResult result;
  HostAgent agent(&log);
  log.add(0, "scenario", s.name);
  for (const Action& a : s.initial) agent.apply(a);
  log.add(0, "agent", "start");
  agent.start();
  agent.scheduler->runDue();

  bool violationsExpected = false;
  for (const Step& step : s.steps) {
    for (const auto& e : step.expectations) {
      violationsExpected |= e.kind == Expectation::Kind::violations;
    }
  }

  std::vector<std::string> calls;
  for (const Step& step : s.steps) {
    // Reviews due before the step run at their own times; then the step begins, and what falls
    // due exactly at its time runs before its actions.
    for (auto due = agent.scheduler->nextDueTime(); due && *due < step.at;
         due = agent.scheduler->nextDueTime()) {
      agent.scheduler->advanceTo(*due);
    }
    log.add(step.at, "step",
            step.note.empty() ? "step at line " + std::to_string(step.line) : step.note);
    agent.scheduler->advanceTo(step.at);
    for (const Action& a : step.actions) agent.apply(a);
    agent.scheduler->runDue();
    auto taken = agent.takeCalls();
    calls.insert(calls.end(), taken.begin(), taken.end());
    if (!options.check) continue;

    bool consumedCalls = false;
    for (const Expectation& e : step.expectations) {
      std::vector<std::string> want = e.lines, got = actual(e, agent, calls);
      consumedCalls |=
          e.kind == Expectation::Kind::calls || e.kind == Expectation::Kind::callsAnyOrder;
      bool ordered = e.kind == Expectation::Kind::calls;
      if (!ordered) {
        want = sorted(want);
        got = sorted(got);
      }
      if (want == got) continue;
      std::ostringstream os;
      os << s.file << ":" << e.line << ": expected " << expectationName(e.kind)
         << (ordered ? " (in order)" : " (in any order)") << " at time " << step.at << ":\n"
         << block(e.lines) << "  but got:\n"
         << block(actual(e, agent, calls));
      result.failures.push_back(os.str());
    }
    if (consumedCalls) calls.clear();
    if (!result.failures.empty()) break;
  }

  if (options.check && result.failures.empty() && !violationsExpected &&
      !agent.chip->violations().empty()) {
    result.failures.push_back(s.file + ": the chip reported violations:\n" +
                              block(agent.violationLines()));
  }
  if (options.state && stateOut) printState(agent, *stateOut);
  return result;
}

}  // namespace Sim
