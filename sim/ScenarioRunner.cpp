#include "sim/ScenarioRunner.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <deque>
#include <new>
#include <optional>
#include <sstream>
#include <thread>

#include "Kiv/Assert.h"
#include "Kiv/Trace.h"
#include "Kiv/Types.h"
#include "sim/Fuzz.h"

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
  if (e.name == "checks") return checkLines(agent);
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

// The agent as far as a wait can tell: what the chip holds and the outputs say, how many
// violations the chip saw, what is pending and how far off, what the refusal rules have left, and
// what the last round of reviews called.
struct Snapshot {
  double now = 0;
  std::string state;
  std::size_t violations = 0;  // a review that breaks a rule of the chip changes something
  std::vector<double> pending;
  std::vector<std::int64_t> counts;
  std::vector<std::string> calls;

  static Snapshot of(const HostAgent& agent, std::vector<std::string> calls) {
    Snapshot s;
    s.now = agent.now();
    std::ostringstream os;
    agent.printTables(os);
    s.state = os.str();
    s.violations = agent.chip->violations().size();
    for (double due : agent.scheduler->dueTimes()) s.pending.push_back(due - s.now);
    s.counts = agent.chip->refusalCounts();
    s.calls = std::move(calls);
    return s;
  }
  // The same but for the time and the counts of rules that count down.
  bool sameAs(const Snapshot& o) const {
    if (state != o.state || violations != o.violations || pending != o.pending ||
        calls != o.calls) {
      return false;
    }
    if (counts.size() != o.counts.size()) return false;
    for (std::size_t i = 0; i < counts.size(); ++i) {
      if ((counts[i] < 0) != (o.counts[i] < 0)) return false;
    }
    return true;
  }
};

// Virtual time at the pace the options ask for: the wall clock follows it when --realtime is given.
class Pace {
 public:
  Pace(HostAgent& agent, const RunOptions& options)
      : options_(options), origin_(agent.now()), start_(std::chrono::steady_clock::now()) {}
  // Waits until the wall clock reaches virtual time `t` at the pace.
  void wait(double t) {
    if (options_.realtime <= 0) return;
    // Bounded (a century) so that no pace turns the wait into a count the clock overflows.
    constexpr double longest = 100.0 * 365 * 24 * 3600;
    const double seconds = std::min((t - origin_) / options_.realtime, longest);
    const auto due = start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(seconds));
    // In slices, so that a request to stop is heard within a tenth of a second.
    for (auto now = std::chrono::steady_clock::now(); now < due;
         now = std::chrono::steady_clock::now()) {
      if (options_.stopPacing && options_.stopPacing()) return;
      std::this_thread::sleep_for(
          std::min<std::chrono::steady_clock::duration>(due - now, std::chrono::milliseconds(100)));
    }
  }

 private:
  const RunOptions& options_;
  double origin_;  // the virtual time at start_
  std::chrono::steady_clock::time_point start_;
};

// The walk of time up to one step: reviews due before the step run at their own times, their
// chip calls added to `calls`, readers of the published tables seeing each change; then the step
// begins (its trace levels on, its line in the log) and what falls due exactly at its time runs.
//
// A wait is bounded by what can happen in it, not by its length: after the first `exactRounds`
// rounds, once a round leaves the agent as an earlier one did (the same state, the same tasks
// pending as far off, the same calls), the rounds since can only repeat, the machines being
// functions of their inputs and the chip's answers. Whole periods of them are skipped then,
// counting the refusal rules down as they would have been, while every rule lasts and the next
// step is not reached; the log says how many.
class StepWalk : public HostAgent::TimeWalk {
 public:
  StepWalk(HostAgent& agent, SimLog& log, Pace& pace, const Step& step,
           std::vector<std::string>& calls, std::optional<StepTrace>& trace)
      : agent_(agent), log_(log), pace_(pace), step_(step), calls_(calls), trace_(trace) {}

  void beforeRuns(double due) override {
    if (due >= step_.at) {
      trace_.emplace(step_.trace);
      log_.add(step_.at, "step",
               step_.note.empty() ? "step at line " + std::to_string(step_.line) : step_.note);
    }
    pace_.wait(due);
  }

  void afterRuns() override {
    agent_.syncPublished();
    if (agent_.now() >= step_.at) return;  // the step's own calls are taken after its actions
    std::vector<std::string> taken = agent_.takeCalls();
    calls_.insert(calls_.end(), taken.begin(), taken.end());
    if (++rounds_ <= exactRounds) return;
    skipRepeats(Snapshot::of(agent_, std::move(taken)));
  }

 private:
  static constexpr int exactRounds = 100;
  static constexpr std::size_t remembered = 16;

  void skipRepeats(Snapshot now) {
    const double t = step_.at;
    const auto next = agent_.scheduler->nextDueTime();
    for (const Snapshot& before : seen_) {
      if (!next || *next >= t || !now.sameAs(before)) continue;
      const double period = now.now - before.now;
      if (period <= 0) continue;  // a task that ran again at the same time
      // Periods that fit before the next step: the next round plus k periods stays before t.
      auto k = static_cast<std::int64_t>(std::floor((t - *next) / period));
      if (*next + static_cast<double>(k) * period >= t) --k;
      std::vector<std::int64_t> used(now.counts.size(), 0);
      for (std::size_t i = 0; i < now.counts.size(); ++i) {
        used[i] = now.counts[i] < 0 ? 0 : before.counts[i] - now.counts[i];
        if (used[i] > 0) k = std::min(k, (now.counts[i] - 1) / used[i]);
      }
      if (k < 1) break;
      for (auto& u : used) u *= k;
      agent_.scheduler->skipBy(static_cast<double>(k) * period);
      agent_.chip->refusalCountsLess(used);
      std::ostringstream os;
      os << "the reviews repeat every " << period << " s: " << k << " periods skipped, from time "
         << now.now;
      log_.add(agent_.now(), "wait", os.str());
      seen_.clear();
      return;
    }
    seen_.push_front(std::move(now));
    if (seen_.size() > remembered) seen_.pop_back();
  }

  HostAgent& agent_;
  SimLog& log_;
  Pace& pace_;
  const Step& step_;
  std::vector<std::string>& calls_;
  std::optional<StepTrace>& trace_;
  std::deque<Snapshot> seen_;
  int rounds_ = 0;
};

}  // namespace

// A root of the chains of causes, when they are carried: what came from outside the agent.
static Kiv::Ptr<const Kiv::Cause> rootCause(const std::string& text) {
  return Kiv::causing() ? Kiv::causeOf(Kiv::Cause::Kind::outside, text, nullptr) : nullptr;
}

// A step as its chains name it: its number and its note (or its line).
static std::string stepCause(const Step& step, int index) {
  if (!Kiv::causing()) return {};
  std::string text = "step " + std::to_string(index);
  if (step.note.empty()) return text + " (line " + std::to_string(step.line) + ")";
  return text + " \"" + step.note + "\"";
}

// Where a run is, for a report when it ends early: the step being run, or the line of the
// initial action being applied (0: none, or the agent's start).
struct Where {
  const Step* step = nullptr;
  int initialLine = 0;
};

// The initial inputs, the start, and each step; `at` follows what is being run.
static void runSteps(const Scenario& s, HostAgent& agent, SimLog& log, const RunOptions& options,
                     RunResult& result, Where& at) {
  log.add(0, "scenario", s.name);
  for (const Action& a : s.initial) {
    at.initialLine = a.line;
    agent.apply(a);
  }
  at.initialLine = 0;
  log.add(0, "agent", "start");
  {
    Kiv::CauseScope starting(rootCause("the agent starts"));
    agent.start();
  }
  agent.scheduler->runDue();
  agent.syncPublished();
  if (options.stepDone) options.stepDone(agent, nullptr);
  Pace pace(agent, options);

  for (const Step& step : s.steps) {
    for (const auto& e : step.expectations) result.violationsExpected |= e.name == "violations";
  }

  std::vector<std::string> calls;
  int index = 0;
  for (const Step& step : s.steps) {
    ++index;
    // Reviews due before the step run at their own times (a part of the step: an abort there is
    // the step's); then the step begins, and what falls due exactly at its time runs before its
    // actions.
    at.step = &step;
    {
      std::optional<StepTrace> trace;
      StepWalk walk(agent, log, pace, step, calls, trace);
      agent.advanceTo(step.at, &walk);
      Kiv::CauseScope stepping(rootCause(stepCause(step, index)));
      for (const Action& a : step.actions) agent.apply(a);
      agent.scheduler->runDue();
      agent.syncPublished();
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
  agent.whyIs(options.why);
  if (!options.publish.empty()) agent.publish(options.publish);
  // However the run ends, a held agent stays for its readers until told to go.
  struct Hold {
    const RunOptions& options;
    HostAgent& agent;
    ~Hold() {
      if (options.hold) options.hold(agent);
    }
  } hold{options, agent};
  Where at;
  const Step*& current = at.step;
  // Before the steps: the initial action being applied, or the agent's start.
  auto beforeSteps = [&](const char* what) {
    return at.initialLine > 0
               ? s.file + ":" + std::to_string(at.initialLine) + ": the initial action " + what
               : s.file + ": the agent's start " + what;
  };
  try {
    runSteps(s, agent, log, options, result, at);
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
        os << beforeSteps("aborted") << ":";
      }
      os << " " << what << "\n";
      result.failures.push_back(os.str());
      result.aborted = true;
    }
    log.flush();
    return result;
  } catch (const std::exception& e) {
    // Nothing a scenario says should get here: the reader refuses what the machines and the agent
    // would. Should something, it is still told as the step's, with its line, in the terms of a
    // scenario rather than of the code that threw.
    const char* what = dynamic_cast<const std::bad_alloc*>(&e)        ? "out of memory"
                       : dynamic_cast<const Kiv::RangeException*>(&e) ? "a value out of range"
                                                                      : "an internal error";
    std::ostringstream os;
    if (current) {
      os << s.file << ":" << current->line << ": the step at time " << current->at
         << " failed at time " << agent.now() << ": " << what << "\n";
    } else {
      os << beforeSteps("failed") << ": " << what << "\n";
    }
    log.add(agent.now(), "abort", what);
    log.flush();
    result.failures.push_back(os.str());
    result.aborted = true;
    result.internalError = true;
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
