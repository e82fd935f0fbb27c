#include "sim/Fuzz.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>

#include "Oba/ObaCommon.h"
#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/ScenarioWriter.h"
#include "sim/SimLog.h"

namespace Sim {

namespace fuzzing {
volatile std::uint64_t abortSeed = 0;
volatile std::uint64_t abortStep = 0;
}  // namespace fuzzing

namespace {

using fuzzing::abortSeed;
using fuzzing::abortStep;
using fuzzing::npos;
using fuzzing::Record;

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
      for (const auto& part : agent_.parts()) part->count(totals->counters);
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

  // Walks time forward to t as the scenario runner does, with a point before each due time.
  struct Points : HostAgent::TimeWalk {
    SeedRun& run;
    explicit Points(SeedRun& r) : run(r) {}
    void beforeRuns(double) override { run.pointBetweenRuns(); }
  };
  void advanceTo(double t) {
    Points points(*this);
    agent_.advanceTo(t, &points);
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
      for (const auto& part : agent_.parts()) busy = busy || part->busy();
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

// A figure with n decimals, for the summaries.
std::string decimals(double v, int n) {
  std::ostringstream os;
  os.setf(std::ios::fixed);
  os.precision(n);
  os << v;
  return os.str();
}
}  // namespace

std::vector<std::string> ledgerLines(const HostAgent& agent) {
  std::vector<std::string> ledger;
  for (const auto& v : agent.chip->violations()) ledger.push_back("violation: " + v.text);
  for (const auto& part : agent.parts()) part->ledger(ledger);
  return ledger;
}

std::optional<CheckFailure> checkAgent(const HostAgent& agent, Counters* counters) {
  if (auto ledger = ledgerLines(agent); !ledger.empty()) {
    return CheckFailure{"ledger", std::move(ledger)};
  }
  for (const auto& part : agent.parts()) {
    if (auto failure = part->check(counters)) return failure;
  }
  return std::nullopt;
}

std::vector<std::string> checkLines(const HostAgent& agent) {
  std::vector<std::string> out;
  auto add = [&](const CheckFailure& f) {
    for (const auto& l : f.lines) out.push_back(f.check + ": " + l);
  };
  if (auto ledger = ledgerLines(agent); !ledger.empty()) add({"ledger", std::move(ledger)});
  for (const auto& part : agent.parts()) {
    if (auto failure = part->check(nullptr)) add(*failure);
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
      if (failure) fuzzing::writeFailingRun(rec, run.agent(), o, *failure, summary);
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
               << " seeds/s); " << fuzzing::settingsText(o, families)
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
    if (f->blame) *summary << blameText(*f->blame, "");
    *summary << "the run: " << fuzzing::replayCommand(o, f->seed, f->step, families) << "\n";
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
      std::ostringstream allowed;
      f->printAllowances(result.counters, allowed);
      if (!allowed.str().empty()) *summary << "; " << allowed.str();
    }
    *summary << "\n";
  }
  return result;
}

}  // namespace Sim
