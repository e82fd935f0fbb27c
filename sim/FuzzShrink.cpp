#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "sim/Fuzz.h"
#include "sim/ScenarioRunner.h"
#include "sim/ScenarioWriter.h"
#include "sim/SimLog.h"

namespace Sim::fuzzing {

namespace {

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

struct Replay {
  std::optional<CheckFailure> failure;
  // What the families expect at the end, each allowed difference taken as the chip has it.
  ExpectedTables expected;
};

// Replays a scenario exactly as the scenario runner does, then checks the agent as the fuzzer
// does after a step.
Replay replay(const Scenario& s, const Families& families) {
  SimLog quiet;
  HostAgent agent(&quiet, families);
  agent.chip->callListenerIs(nullptr);
  agent.replay(s);
  Replay out;
  out.failure = checkAgent(agent, nullptr);
  for (const auto& part : agent.parts()) {
    for (auto& e : part->finalExpectations()) out.expected.push_back(std::move(e));
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

// The file's comment: what failed, the command that runs the seed again, and how to read the
// rest.
std::string failureComment(const FuzzFailure& f, const FuzzOptions& o, const Replay& end,
                           const Families& families) {
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
  return os.str();
}

// The run as its file states it: described, and ending with what the inputs call for.
std::string failureText(Scenario s, const FuzzFailure& f, const FuzzOptions& o, const Replay& end,
                        const Families& families) {
  std::ostringstream d;
  d << "A seeded event storm (" << f.step << " steps, " << settingsText(o, families)
    << (o.restarts ? ", restarts" : "") << ") after which the\n"
    << f.failure.check << " check fails"
    << (f.shrunkActions < f.actions ? ", shrunk to the actions that still fail it." : ".");
  s.name = "fuzz seed " + std::to_string(f.seed);
  s.description = d.str();
  auto& expect = s.steps.back().expectations;
  for (const auto& [table, lines] : end.expected) expect.push_back({.name = table, .lines = lines});
  expect.push_back({.name = "violations", .lines = {}});
  expect.push_back({.name = "checks", .lines = {}});
  return scenarioText(s, failureComment(f, o, end, families));
}

}  // namespace

std::string settingsText(const FuzzOptions& o, const Families& families) {
  std::ostringstream os;
  os << "fault rate " << o.faultRate;
  for (const Family* f : families) {
    for (const auto& flag : f->fuzzFlags()) {
      if (std::string t = flag.summary ? flag.summary(o) : ""; !t.empty()) os << ", " << t;
    }
  }
  return os.str();
}

std::string replayCommand(const FuzzOptions& o, std::uint64_t seed, std::uint32_t step,
                          const Families& families) {
  std::ostringstream os;
  os << "oba-evpn-sim fuzz --seed " << seed << " --steps " << step << " --fault-rate "
     << o.faultRate;
  // The settings of the worlds before --restarts, the canaries after it.
  for (bool settings : {true, false}) {
    if (!settings && o.restarts) os << " --restarts";
    for (const Family* f : families) {
      for (const auto& flag : f->fuzzFlags()) {
        if (static_cast<bool>(flag.summary) != settings || !flag.replay) continue;
        if (std::string r = flag.replay(o); !r.empty()) os << " " << r;
      }
    }
  }
  return os.str();
}

void writeFailingRun(const Record& rec, const HostAgent& agent, const FuzzOptions& o,
                     FuzzFailure& f, std::ostream* summary) {
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
  f.blame = blame(s, families, end.failure ? *end.failure : f.failure);
  const std::string text = failureText(std::move(s), f, o, end, families);

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

}  // namespace Sim::fuzzing
