#include "sim/Fuzz.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <new>
#include <random>
#include <set>
#include <sstream>

#include "Kiv/Types.h"
#include "Oba/ObaCommon.h"
#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/ScenarioText.h"
#include "sim/SimLog.h"

namespace Sim {

namespace {

constexpr std::size_t npos = static_cast<std::size_t>(-1);

// Where the run is, for a report when a machine's assertion aborts the process.
volatile std::uint64_t abortSeed = 0;
volatile std::uint64_t abortStep = 0;

// ---- random actions -----------------------------------------------------------------------------

// The families of one seeded run, each with the world it drew.
struct Worlds {
  const Families& families;
  std::vector<std::unique_ptr<FamilyFuzz>> fuzz;
  std::vector<std::string> machines;  // what a restart may name: every family's, then "agent"
};

// One roll over the kinds of every family (and the core's restart), in the families' order, then
// the action of the kind drawn.
Action randomAction(const Worlds& w, Rng& r, const FuzzOptions& o, bool initial,
                    std::vector<std::pair<std::size_t, FamilyFuzz::Choice>>& table) {
  constexpr std::size_t restart = npos;
  table.clear();
  std::vector<FamilyFuzz::Choice> choices;
  for (std::size_t i = 0; i < w.fuzz.size(); ++i) {
    choices.clear();
    w.fuzz[i]->choices(initial, choices);
    for (const auto& c : choices) table.emplace_back(i, c);
  }
  // Restarts need --restarts and a started agent.
  if (o.restarts && !initial) table.emplace_back(restart, FamilyFuzz::Choice{0, 2});
  std::uint64_t total = 0;
  for (const auto& [i, c] : table) total += c.weight;
  std::uint64_t roll = r.below(total);
  for (const auto& [i, c] : table) {
    if (roll >= c.weight) {
      roll -= c.weight;
      continue;
    }
    if (i != restart) return w.fuzz[i]->action(c.kind, r);
    return restartAction(r.pick(w.machines));
  }
  return w.fuzz[table.front().first]->action(table.front().second.kind, r);
}

// ---- the record of a run ------------------------------------------------------------------------

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

// The recorded run with the chip's injected faults as refusal rules, and the final check step.
// `replayable` is cleared when a fault cannot be placed (never seen so far: no create of a port
// follows another of the same port without a point between them).
Scenario materialize(const Record& rec, const std::vector<SoftwareChip::Fault>& faults,
                     double checkAt, bool* replayable, const Families& families) {
  std::map<std::size_t, std::vector<SoftwareChip::Refusal>> rules;      // by point
  std::map<std::uint64_t, std::pair<std::size_t, std::size_t>> ruleOf;  // fault's create -> rule
  for (const auto& f : faults) {
    if (auto prev = ruleOf.find(f.previousCreate); f.previousCreate && prev != ruleOf.end()) {
      // The previous create of this port was refused too: the same rule answers one more call.
      ++rules[prev->second.first][prev->second.second].times;
      ruleOf[f.create] = prev->second;
      continue;
    }
    auto it =
        std::lower_bound(rec.points.begin(), rec.points.end(), f.create,
                         [](const Record::Point& p, std::uint64_t c) { return p.serial < c; });
    if (it == rec.points.begin() || std::prev(it)->serial < f.previousCreate) {
      *replayable = false;
      continue;
    }
    const auto idx = static_cast<std::size_t>(std::prev(it) - rec.points.begin());
    auto& list = rules[idx];
    list.push_back(
        SoftwareChip::Refusal{.op = std::string(f.op), .port = f.port, .vlan = f.vlan, .times = 1});
    ruleOf[f.create] = {idx, list.size() - 1};
  }

  // Rules as actions, keyed by where they go.
  std::map<std::size_t, std::vector<Action>> actions;
  for (const auto& [idx, list] : rules) {
    for (const auto& r : list) actions[idx].push_back(refusalAction(r, families));
  }
  std::map<std::pair<std::size_t, std::size_t>, std::vector<const Action*>> inStep;
  std::map<std::size_t, std::vector<std::pair<double, std::vector<const Action*>>>> before;
  for (const auto& [idx, list] : actions) {
    const auto& p = rec.points[idx];
    std::vector<const Action*> ptrs;
    for (const auto& a : list) ptrs.push_back(&a);
    if (p.pos == npos) {
      before[p.step].emplace_back(p.at, std::move(ptrs));
    } else {
      auto& v = inStep[{p.step, p.pos}];
      v.insert(v.end(), ptrs.begin(), ptrs.end());
    }
  }
  auto rulesAt = [&](std::size_t step, std::size_t pos, std::vector<Action>& out) {
    if (auto r = inStep.find({step, pos}); r != inStep.end()) {
      for (const Action* a : r->second) out.push_back(*a);
    }
  };

  Scenario s;
  s.families = families;
  s.name = rec.scenario.name;
  s.description = rec.scenario.description;
  for (std::size_t i = 0; i <= rec.scenario.initial.size(); ++i) {
    rulesAt(npos, i, s.initial);
    if (i < rec.scenario.initial.size()) s.initial.push_back(rec.scenario.initial[i]);
  }
  const auto& steps = rec.scenario.steps;
  for (std::size_t i = 0; i <= steps.size(); ++i) {
    if (auto b = before.find(i); b != before.end()) {
      for (const auto& [at, list] : b->second) {
        Step st;
        st.at = at;
        st.note = "refusals for the reviews that follow";
        for (const Action* a : list) st.actions.push_back(*a);
        s.steps.push_back(std::move(st));
      }
    }
    if (i == steps.size()) break;
    Step st;
    st.at = steps[i].at;
    st.note = steps[i].note;
    for (std::size_t k = 0; k <= steps[i].actions.size(); ++k) {
      rulesAt(i, k, st.actions);
      if (k < steps[i].actions.size()) st.actions.push_back(steps[i].actions[k]);
    }
    if (!st.actions.empty()) s.steps.push_back(std::move(st));
  }
  Step check;
  check.at = checkAt;
  check.note = "the check that failed";
  s.steps.push_back(std::move(check));
  return s;
}

// ---- one seed -----------------------------------------------------------------------------------

Worlds drawWorlds(const Families& families, Rng& r, const FuzzOptions& o) {
  Worlds w{families, {}, {}};
  for (const Family* f : families) {
    w.fuzz.push_back(f->fuzzIs(r, o));
    for (auto& m : f->machines()) w.machines.push_back(std::move(m));
  }
  w.machines.push_back("agent");
  return w;
}

class SeedRun {
 public:
  SeedRun(std::uint64_t seed, const FuzzOptions& o, Record* rec, const Families& families)
      : seed_(seed),
        o_(o),
        rng_(seed),
        worlds_(drawWorlds(families, rng_, o)),
        agent_(&log_, families),
        rec_(rec) {
    // Nothing listens: the chip builds no call text and the agent keeps no call list.
    agent_.chip->callListenerIs(nullptr);
    agent_.chip->faultRateIs(o.faultRate, mix(seed ^ 0xfa017ull));
    rec_->clear();
    rec_->scenario.name = "fuzz seed " + std::to_string(seed);
  }

  // Runs every step, checking after each; the first failure ends the run.
  std::optional<FuzzFailure> run(FuzzResult* totals, std::uint64_t* stepsChecked) {
    for (const auto& f : worlds_.fuzz) {
      for (const Action& a : f->setup()) initial(a);
    }
    // The agent starts over inputs already published (its initial walk), or over none.
    for (std::uint64_t n = r().below(40); n > 0; --n) {
      initial(randomAction(worlds_, r(), o_, true, table_));
    }
    rec_->point({npos, rec_->scenario.initial.size(), 0, serial()});
    agent_.start();
    agent_.scheduler->runDue();
    for (step_ = 0; step_ <= o_.steps; ++step_) {
      abortStep = step_;
      if (step_ > 0) randomStep();
      if (!drain()) ++totals->drainsCut;
      ++*stepsChecked;
      for (const Family* f : agent_.families()) f->count(agent_, totals->counters);
      if (auto f = checkAgent(agent_, &totals->counters)) {
        FuzzFailure out;
        out.seed = seed_;
        out.step = step_;
        out.time = now();
        out.failure = std::move(*f);
        return out;
      }
    }
    return std::nullopt;
  }

  const HostAgent& agent() const { return agent_; }
  double now() const { return agent_.now(); }

 private:
  Rng& r() { return rng_; }
  std::uint64_t serial() const { return agent_.chip->faultableSerial(); }

  void initial(const Action& a) {
    agent_.apply(a);
    rec_->scenario.initial.push_back(a);
  }

  // A point between task runs: a rule placed there is a step of its own at the current time.
  void pointBetweenRuns() { rec_->point({rec_->scenario.steps.size(), npos, now(), serial()}); }

  // Walks time forward to t as the scenario runner does: every review at its own due time.
  void advanceTo(double t) {
    for (auto due = agent_.scheduler->nextDueTime(); due && *due <= t;
         due = agent_.scheduler->nextDueTime()) {
      pointBetweenRuns();
      agent_.scheduler->advanceTo(*due);
    }
    pointBetweenRuns();
    agent_.scheduler->advanceTo(t);
  }

  // Actions at one time, applied back to back, then the tasks they made due at once.
  void burst(double at, const std::vector<Action>& actions) {
    advanceTo(at);
    Step st;
    st.at = at;
    st.note = "step " + std::to_string(step_);
    rec_->scenario.steps.push_back(std::move(st));
    const std::size_t index = rec_->scenario.steps.size() - 1;
    for (const Action& a : actions) {
      rec_->point({index, rec_->scenario.steps[index].actions.size(), 0, serial()});
      agent_.apply(a);
      rec_->scenario.steps[index].actions.push_back(a);
    }
    agent_.scheduler->runDue();
  }

  void randomStep() {
    const std::uint64_t roll = r().below(100);
    if (roll < 8) {
      // Time passes: reviews run on their own.
      advanceTo(now() + 0.25 + r().quarters(47));
      return;
    }
    if (roll < 10) {
      // The chip gets better or worse at taking creates.
      const double rates[] = {0, o_.faultRate, std::min(0.9, 2 * o_.faultRate)};
      agent_.chip->faultRateIs(rates[r().below(3)], r().next());
      return;
    }
    const std::uint64_t bursts = r().chance(0.85) ? 1 : 2 + r().below(2);
    for (std::uint64_t b = 0; b < bursts; ++b) {
      const double at = now() + (r().chance(0.5) ? 0.0 : r().quarters(12));
      actions_.clear();
      for (std::uint64_t n = r().chance(0.8) ? 1 : 2 + r().below(2); n > 0; --n) {
        actions_.push_back(randomAction(worlds_, r(), o_, false, table_));
      }
      ending_.clear();
      for (const auto& f : worlds_.fuzz) f->burstEnd(actions_, ending_);
      actions_.insert(actions_.end(), ending_.begin(), ending_.end());
      burst(at, actions_);
    }
  }

  // Lets the reviews run until no family has one pending that could still change anything.
  // Bounded by twenty retry intervals: a chip that keeps refusing leaves work parked, which the
  // checks accept. Answers whether the reviews came to rest within the bound.
  bool drain() {
    const double start = now();
    while (now() - start <= 20 * Oba::unprogrammedRetryIntervalDefault) {
      bool busy = false;
      for (const Family* f : agent_.families()) busy = busy || f->busy(agent_);
      if (!busy) return true;
      auto due = agent_.scheduler->nextDueTime();
      if (!due) return true;
      pointBetweenRuns();
      agent_.scheduler->advanceTo(*due);
    }
    return false;
  }

  std::uint64_t seed_;
  const FuzzOptions& o_;
  Rng rng_;
  Worlds worlds_;
  SimLog log_;
  HostAgent agent_;
  Record* rec_;
  std::uint32_t step_ = 0;
  std::vector<Action> actions_, ending_;
  std::vector<std::pair<std::size_t, FamilyFuzz::Choice>> table_;
};

// ---- replay and shrinking -----------------------------------------------------------------------

struct Replay {
  std::optional<CheckFailure> failure;
  // What the families expect at the end, each allowed difference taken as the chip has it.
  std::vector<std::pair<std::string, std::vector<std::string>>> expected;
};

// Replays a scenario exactly as the scenario runner does, then checks the agent as the fuzzer
// does after a step.
Replay replay(const Scenario& s, const Families& families) {
  SimLog quiet;
  HostAgent agent(&quiet, families);
  agent.chip->callListenerIs(nullptr);
  for (const Action& a : s.initial) agent.apply(a);
  agent.start();
  agent.scheduler->runDue();
  for (const Step& step : s.steps) {
    for (auto due = agent.scheduler->nextDueTime(); due && *due < step.at;
         due = agent.scheduler->nextDueTime()) {
      agent.scheduler->advanceTo(*due);
    }
    agent.scheduler->advanceTo(step.at);
    for (const Action& a : step.actions) agent.apply(a);
    agent.scheduler->runDue();
  }
  Replay out;
  out.failure = checkAgent(agent, nullptr);
  for (const Family* f : families) {
    for (auto& e : f->finalExpectations(agent)) out.expected.push_back(std::move(e));
  }
  return out;
}

std::size_t actionCount(const Scenario& s) {
  std::size_t n = s.initial.size();
  for (const auto& st : s.steps) n += st.actions.size();
  return n;
}

// Drops actions while the same check still fails: halves of the actions first, then quarters,
// down to single actions, as long as the replay budget lasts. The last step (the check) stays.
Scenario shrink(const Scenario& s, const std::string& check, std::uint64_t budget,
                const Families& families) {
  // Every action by (step, index); step npos is `initial`.
  // Actions the families keep whatever else goes stay out of the units and in every candidate.
  std::vector<std::pair<std::size_t, std::size_t>> units, kept;
  for (std::size_t i = 0; i < s.initial.size(); ++i) {
    (s.initial[i].body->keptByShrinking() ? kept : units).emplace_back(npos, i);
  }
  for (std::size_t k = 0; k + 1 < s.steps.size(); ++k) {
    for (std::size_t i = 0; i < s.steps[k].actions.size(); ++i) {
      (s.steps[k].actions[i].body->keptByShrinking() ? kept : units).emplace_back(k, i);
    }
  }
  auto build = [&](std::vector<std::pair<std::size_t, std::size_t>> keep) {
    keep.insert(keep.end(), kept.begin(), kept.end());
    // In the run's order: `initial` (npos) first, then the steps.
    std::sort(keep.begin(), keep.end(), [](const auto& a, const auto& b) {
      return std::pair(a.first + 1, a.second) < std::pair(b.first + 1, b.second);
    });
    Scenario c;
    c.families = s.families;
    c.name = s.name;
    c.description = s.description;
    std::size_t current = npos - 1;
    for (auto [k, i] : keep) {
      if (k == npos) {
        c.initial.push_back(s.initial[i]);
        continue;
      }
      if (k != current) {
        Step st;
        st.at = s.steps[k].at;
        st.note = s.steps[k].note;
        c.steps.push_back(std::move(st));
        current = k;
      }
      c.steps.back().actions.push_back(s.steps[k].actions[i]);
    }
    c.steps.push_back(s.steps.back());
    return c;
  };
  auto fails = [&](const Scenario& c) {
    auto r = replay(c, families);
    return r.failure && r.failure->check == check;
  };

  std::uint64_t used = 0;
  std::size_t chunk = std::max<std::size_t>(1, units.size() / 2);
  while (used < budget && !units.empty()) {
    bool progress = false;
    for (std::size_t i = 0; i < units.size() && used < budget;) {
      std::vector<std::pair<std::size_t, std::size_t>> keep(
          units.begin(), units.begin() + static_cast<std::ptrdiff_t>(i));
      keep.insert(keep.end(),
                  units.begin() + static_cast<std::ptrdiff_t>(std::min(units.size(), i + chunk)),
                  units.end());
      ++used;
      if (fails(build(keep))) {
        units = std::move(keep);
        progress = true;
      } else {
        i += chunk;
      }
    }
    if (chunk == 1 && !progress) break;
    chunk = std::max<std::size_t>(1, chunk / 2);
  }
  return build(units);
}

// ---- the scenario file --------------------------------------------------------------------------

std::string timeText(double t) {
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, t);
  return std::string(buf, end);
}

void writeAction(std::ostream& os, const Action& a) {
  os << "      - ";
  a.body->write(os);
  os << "\n";
}

void writeLines(std::ostream& os, const char* key, const std::vector<std::string>& lines) {
  os << "      " << key << ":";
  if (lines.empty()) {
    os << " none\n";
    return;
  }
  os << "\n";
  for (const auto& l : lines) os << "        - " << l << "\n";
}

std::string replayCommand(const FuzzOptions& o, std::uint64_t seed, std::uint32_t step,
                          const Families& families) {
  std::ostringstream os;
  os << "oba-evpn-sim fuzz --seed " << seed << " --steps " << step << " --fault-rate "
     << o.faultRate << " --pool " << o.pool << (o.restarts ? " --restarts" : "");
  for (const Family* f : families) {
    for (const auto& flag : f->fuzzFlags()) {
      if (std::string r = flag.replay ? flag.replay() : ""; !r.empty()) os << " " << r;
    }
  }
  return os.str();
}

std::string scenarioText(const Scenario& s, const FuzzFailure& f, const FuzzOptions& o,
                         const Replay& end, const Families& families) {
  std::ostringstream os;
  os << "# Written by oba-evpn-sim fuzz. Seed " << f.seed << " failed the " << f.failure.check
     << " check after step " << f.step << " (time " << timeText(f.time) << "):\n";
  for (const auto& l : f.failure.lines) os << "#   " << l << "\n";
  os << "# The run again: " << replayCommand(o, f.seed, f.step, families) << "\n";
  if (f.shrunkActions < f.actions && end.failure) {
    os << "# Shrunk to " << f.shrunkActions << " of its " << f.actions << " actions, the "
       << end.failure->check << " check finds:\n";
    for (const auto& l : end.failure->lines) os << "#   " << l << "\n";
  }
  os << "# The chip's injected faults are the chipRefuse rules, each for the next create(s) of "
        "one\n"
        "# port and VLAN. The last step expects what the inputs call for (docs/convergence.md),\n"
        "# and that every check holds (checks: none), the failed one among them.\n";
  if (!f.replayable) {
    os << "# Some injected faults could not be stated as rules: this file may not replay them.\n";
  }
  os << "name: fuzz seed " << f.seed << "\n";
  os << "description: >-\n  A seeded event storm (" << f.step << " steps, fault rate "
     << o.faultRate << ", pool " << o.pool << (o.restarts ? ", restarts" : "")
     << ") after which the\n  " << f.failure.check << " check fails"
     << (f.shrunkActions < f.actions ? ", shrunk to the actions that still fail it." : ".") << "\n";
  if (!s.initial.empty()) {
    os << "initial:\n";
    for (const auto& a : s.initial) {
      std::ostringstream one;
      writeAction(one, a);
      os << one.str().substr(4);  // two levels less deep than a step's actions
    }
  }
  os << "steps:\n";
  for (std::size_t i = 0; i < s.steps.size(); ++i) {
    const Step& st = s.steps[i];
    os << "  - at: " << timeText(st.at) << "\n";
    if (!st.note.empty()) os << "    note: " << st.note << "\n";
    if (!st.actions.empty()) {
      os << "    do:\n";
      for (const auto& a : st.actions) writeAction(os, a);
    }
    if (i + 1 == s.steps.size()) {
      os << "    expect:\n";
      for (const auto& [table, lines] : end.expected) writeLines(os, table.c_str(), lines);
      writeLines(os, "violations", {});
      writeLines(os, "checks", {});
    }
  }
  return os.str();
}

// Turns the failed run into a scenario file, shrinks it, writes it and checks it through the
// scenario runner. Fills in the failure's file fields.
void writeScenario(const Record& rec, const HostAgent& agent, const FuzzOptions& o, FuzzFailure& f,
                   std::ostream* summary) {
  const Families& families = agent.families();
  Scenario s = materialize(rec, agent.chip->faults(), f.time, &f.replayable, families);
  f.actions = actionCount(s);
  // The run as recorded must fail the same way when replayed, before any shrinking.
  Replay whole = replay(s, families);
  if (!whole.failure || whole.failure->check != f.failure.check) f.replayable = false;
  if (o.shrink && f.replayable) {
    if (summary) *summary << "shrinking " << f.actions << " actions...\n" << std::flush;
    s = shrink(s, f.failure.check, o.shrinkReplays, families);
  }
  f.shrunkActions = actionCount(s);
  Replay end = replay(s, families);
  const std::string text = scenarioText(s, f, o, end, families);

  std::error_code ec;
  std::filesystem::create_directories(o.outDir, ec);
  const std::string path =
      (std::filesystem::path(o.outDir) / ("fuzz-seed" + std::to_string(f.seed) + ".yaml")).string();
  std::ofstream out(path);
  if (!(out << text)) {
    if (summary) *summary << "cannot write " << path << "\n";
    return;
  }
  out.close();
  f.scenarioPath = path;
  // What `oba-evpn-sim --check` does with it.
  try {
    SimLog quiet;
    RunResult r = runScenario(readScenarioFile(path, families), quiet, RunOptions{.check = true});
    f.checkFails = !r.ok();
  } catch (const std::exception& e) {
    if (summary) *summary << path << ": " << e.what() << "\n";
  }
}

// A figure with n decimals, for the summaries.
std::string decimals(double v, int n) {
  std::ostringstream os;
  os.setf(std::ios::fixed);
  os.precision(n);
  os << v;
  return os.str();
}

// ---- the command line ---------------------------------------------------------------------------

const char* const fuzzUsage = R"(usage: oba-evpn-sim fuzz [options]

Randomized convergence: each seed builds a random world and applies random steps to the host
agent (every machine family's inputs come and go, time passes, the chip refuses creates and its
pools change, machines restart). After every step the reviews drain and the agent must be where
its inputs call for (docs/convergence.md). A failing seed stops the run: its seed, step and
differences are printed and the run is written, shrunk, as a scenario file that
`oba-evpn-sim --check` replays.

options:
  --seeds N          run seeds 1..N (default 100)
  --seed S           run seed S only
  --first-seed S     start at seed S (with --seeds: S..S+N-1)
  --steps K          steps per seed (default 1000)
  --fault-rate P     probability that the chip refuses a create (default 0.1)
  --pool N           hardware tunnel ids at the start of a seed (default 4)
  --restarts         steps may restart a machine or the whole agent
  --out DIR          where a failing run's scenario goes (default .; checked before the run)
  --no-shrink        write a failing run whole
  --batch N          seeds per summary line (default 100)
  --progress         a progress line on standard error (default: when it is a terminal)
)";
const char* const fuzzUsageEnd = R"(  --help             this text

exit status: 0 every seed converged, 1 a seed failed, 2 bad arguments
)";

void printUsage(std::ostream& os, const Families& families) {
  os << fuzzUsage;
  for (const Family* f : families) {
    for (const auto& flag : f->fuzzFlags()) {
      os << "  " << flag.name << " " << flag.arg << "\n                     " << flag.help << "\n";
    }
  }
  os << fuzzUsageEnd;
}

void appendNumber(char*& p, std::uint64_t v) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  while (n) *p++ = digits[--n];
}

extern "C" void onAbort(int) {
  char buf[128];
  char* p = buf;
  const char* a = "oba-evpn-sim fuzz: aborted in seed ";
  for (; *a; ++a) *p++ = *a;
  appendNumber(p, abortSeed);
  for (a = " at step "; *a; ++a) *p++ = *a;
  appendNumber(p, abortStep);
  *p++ = '\n';
  [[maybe_unused]] auto n = ::write(2, buf, static_cast<std::size_t>(p - buf));
}

template <class T>
bool parseNumber(const char* s, T& out) {
  if constexpr (std::is_floating_point_v<T>) {
    char* end = nullptr;
    out = std::strtod(s, &end);
    return end && *end == '\0' && end != s;
  } else {
    auto [end, ec] = std::from_chars(s, s + std::strlen(s), out);
    return ec == std::errc() && *end == '\0';
  }
}

}  // namespace

namespace {

// The chip's violations and each family's balance.
std::vector<std::string> ledgerLines(const HostAgent& agent) {
  std::vector<std::string> ledger;
  for (const auto& v : agent.chip->violations()) ledger.push_back("violation: " + v.text);
  for (const Family* f : agent.families()) f->ledger(agent, ledger);
  return ledger;
}

}  // namespace

std::optional<CheckFailure> checkAgent(const HostAgent& agent, Counters* counters) {
  if (auto ledger = ledgerLines(agent); !ledger.empty()) {
    return CheckFailure{"ledger", std::move(ledger)};
  }
  for (const Family* f : agent.families()) {
    if (auto failure = f->check(agent, counters)) return failure;
  }
  return std::nullopt;
}

std::vector<std::string> checkLines(const HostAgent& agent) {
  std::vector<std::string> out;
  auto add = [&](const CheckFailure& f) {
    for (const auto& l : f.lines) out.push_back(f.check + ": " + l);
  };
  if (auto ledger = ledgerLines(agent); !ledger.empty()) add({"ledger", std::move(ledger)});
  for (const Family* f : agent.families()) {
    if (auto failure = f->check(agent, nullptr)) add(*failure);
  }
  return out;
}

FuzzResult fuzz(const FuzzOptions& o, std::ostream* summary, std::ostream* progress,
                const Families& families) {
  FuzzResult result;
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  Record rec;
  std::uint64_t batchFirst = o.firstSeed, batchSteps = 0;
  double batchStart = 0;
  for (std::uint64_t i = 0; i < o.seeds; ++i) {
    const std::uint64_t seed = o.firstSeed + i;
    abortSeed = seed;
    std::uint64_t steps = 0;
    std::optional<FuzzFailure> failure;
    {
      SeedRun run(seed, o, &rec, families);
      failure = run.run(&result, &steps);
      result.faultsInjected += run.agent().chip->faults().size();
      result.creates += run.agent().chip->faultableSerial();
      if (failure) writeScenario(rec, run.agent(), o, *failure, summary);
    }
    ++result.seedsRun;
    result.stepsChecked += steps;
    batchSteps += steps;
    if (progress) {
      *progress << "\rfuzz: seed " << seed << ", " << result.seedsRun << "/" << o.seeds
                << " seeds, " << result.stepsChecked << " steps checked  " << std::flush;
    }
    if (failure) {
      result.failure = std::move(failure);
      break;
    }
    const bool batchEnd = (i + 1) % std::max<std::uint64_t>(1, o.batch) == 0 || i + 1 == o.seeds;
    if (summary && batchEnd) {
      const double t = elapsed(), dt = t - batchStart;
      if (progress) *progress << "\r" << std::string(72, ' ') << "\r" << std::flush;
      *summary << "seeds " << batchFirst << "-" << seed << " converged: " << batchSteps
               << " steps checked in " << decimals(dt, 2) << " s ("
               << decimals(static_cast<double>(seed - batchFirst + 1) / std::max(dt, 1e-9), 1)
               << " seeds/s); fault rate " << o.faultRate << ", pool " << o.pool
               << (o.restarts ? ", restarts" : "") << "\n"
               << std::flush;
      batchFirst = seed + 1;
      batchSteps = 0;
      batchStart = t;
    }
  }
  result.seconds = elapsed();
  if (progress) *progress << "\r" << std::string(72, ' ') << "\r" << std::flush;
  if (!summary) return result;

  if (const auto& f = result.failure) {
    *summary << "FAIL seed " << f->seed << " at step " << f->step << " (time " << timeText(f->time)
             << "): the " << f->failure.check << " check fails\n";
    for (const auto& l : f->failure.lines) *summary << "  " << l << "\n";
    *summary << "the run: " << replayCommand(o, f->seed, f->step, families) << "\n";
    if (f->scenarioPath.empty()) {
      *summary << "no scenario file written\n";
    } else {
      *summary << "scenario: " << f->scenarioPath << " (" << f->shrunkActions << " of "
               << f->actions << " actions); oba-evpn-sim --check "
               << (f->checkFails ? "fails it" : "passes it: the failure is not visible to it")
               << (f->replayable ? "" : "; some faults could not be stated as rules") << "\n";
    }
  } else {
    *summary << result.seedsRun << " seeds, " << result.stepsChecked << " steps checked, ";
    for (const Family* f : families) f->printCounts(result.counters, *summary);
    *summary << result.creates << " creates, " << result.faultsInjected << " refused, "
             << result.drainsCut << " drains cut at the bound, " << decimals(result.seconds, 2)
             << " s";
    for (const Family* f : families) {
      *summary << "; ";
      f->printAllowances(result.counters, *summary);
    }
    *summary << "\n";
  }
  return result;
}

int fuzzMain(int argc, char** argv) {
  FuzzOptions o;
  bool progress = ::isatty(2) != 0;
  bool seedGiven = false;
  const Families& families = registeredFamilies();
  std::vector<FuzzFlag> flags;
  for (const Family* f : families) {
    for (auto& flag : f->fuzzFlags()) flags.push_back(std::move(flag));
  }
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    // What the option was given, as every refusal quotes it: its value, or nothing.
    auto got = [&](int at) {
      return at < argc ? ", got '" + std::string(argv[at]) + "'" : std::string(", got nothing");
    };
    auto value = [&](auto& out) {
      if (i + 1 >= argc || !parseNumber(argv[i + 1], out)) {
        std::cerr << "oba-evpn-sim fuzz: " << a << " needs a number" << got(i + 1) << "\n";
        return false;
      }
      ++i;
      return true;
    };
    if (a == "--help" || a == "-h") {
      printUsage(std::cout, families);
      return 0;
    } else if (a == "--seeds") {
      if (!value(o.seeds)) return 2;
      if (o.seeds == 0) {
        std::cerr << "oba-evpn-sim fuzz: --seeds must be at least 1" << got(i) << "\n";
        return 2;
      }
    } else if (a == "--seed") {
      if (!value(o.firstSeed)) return 2;
      seedGiven = true;
    } else if (a == "--first-seed") {
      if (!value(o.firstSeed)) return 2;
    } else if (a == "--steps") {
      if (!value(o.steps)) return 2;
      if (o.steps > maxFuzzSteps) {
        std::cerr << "oba-evpn-sim fuzz: --steps is at most " << maxFuzzSteps
                  << ": a seed keeps its whole run to write it as a scenario should it fail, and "
                     "a scenario's time ends at "
                  << static_cast<long>(maxScenarioTime) << " s; run more seeds instead" << got(i)
                  << "\n";
        return 2;
      }
    } else if (a == "--fault-rate") {
      if (!value(o.faultRate)) return 2;
      if (!(o.faultRate >= 0 && o.faultRate <= 1)) {  // NaN too
        std::cerr << "oba-evpn-sim fuzz: --fault-rate must be within 0..1" << got(i) << "\n";
        return 2;
      }
    } else if (a == "--pool") {
      if (!value(o.pool)) return 2;
      // The worlds draw ids from the pool: a chip without one is no world to converge in.
      if (o.pool == 0) {
        std::cerr << "oba-evpn-sim fuzz: --pool must be at least 1" << got(i) << "\n";
        return 2;
      }
    } else if (a == "--batch") {
      if (!value(o.batch)) return 2;
    } else if (a == "--restarts") {
      o.restarts = true;
    } else if (a == "--no-shrink") {
      o.shrink = false;
    } else if (a == "--progress") {
      progress = true;
    } else if (a == "--out") {
      if (i + 1 >= argc) {
        std::cerr << "oba-evpn-sim fuzz: --out needs a directory\n";
        return 2;
      }
      o.outDir = argv[++i];
    } else if (auto flag = std::find_if(flags.begin(), flags.end(),
                                        [&](const FuzzFlag& f) { return f.name == a; });
               flag != flags.end()) {
      if (i + 1 >= argc || !flag->set(argv[i + 1])) {
        std::cerr << "oba-evpn-sim fuzz: " << a << " needs " << flag->arg << got(i + 1) << "\n";
        return 2;
      }
      ++i;
    } else {
      std::cerr << "oba-evpn-sim fuzz: unknown option " << a << "\n";
      printUsage(std::cerr, families);
      return 2;
    }
  }
  if (seedGiven) o.seeds = 1;
  // Where a failing run goes is checked before the first seed, not when the run has failed.
  if (const std::string why = cannotWriteInFolder(o.outDir); !why.empty()) {
    std::cerr << "oba-evpn-sim fuzz: --out '" << o.outDir << "': " << why << "\n";
    return 2;
  }
  std::signal(SIGABRT, onAbort);
  FuzzResult r;
  try {
    r = fuzz(o, &std::cout, progress ? &std::cerr : nullptr);
  } catch (const std::bad_alloc&) {
    std::signal(SIGABRT, SIG_DFL);
    std::cout.flush();
    std::cerr << "oba-evpn-sim fuzz: out of memory in seed " << abortSeed << " at step "
              << abortStep << "\n";
    return 2;
  }
  std::signal(SIGABRT, SIG_DFL);
  return r.failure ? 1 : 0;
}

}  // namespace Sim
