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
#include <random>
#include <set>
#include <sstream>

#include "Kiv/Types.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/SimLog.h"

namespace Sim {

namespace {

using Kind = Action::Kind;
constexpr std::size_t npos = static_cast<std::size_t>(-1);

// Where the run is, for a report when a machine's assertion aborts the process.
volatile std::uint64_t abortSeed = 0;
volatile std::uint64_t abortStep = 0;

// ---- randomness ---------------------------------------------------------------------------------

// Spreads consecutive seeds over the generator's state space.
std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

class Rng {
 public:
  explicit Rng(std::uint64_t seed) : g_(mix(seed)) {}
  std::uint64_t below(std::uint64_t n) { return g_() % n; }
  bool chance(double p) { return static_cast<double>(g_() >> 11) * 0x1.0p-53 < p; }
  template <class T>
  const T& pick(const std::vector<T>& v) {
    return v[below(v.size())];
  }
  // A delay in whole quarters of a second, so that every time of a run prints exactly.
  double quarters(std::uint64_t max) { return static_cast<double>(below(max + 1)) * 0.25; }
  std::uint64_t next() { return g_(); }

 private:
  std::mt19937_64 g_;
};

// ---- the world ----------------------------------------------------------------------------------

// The names a seed plays with. Every physical port belongs to one segment only (a plain segment
// is its own port; a LAG draws its members from ports of its own), as on a switch.
struct World {
  std::vector<Quil::IntfId> segments;
  std::vector<Quil::IntfId> lags;
  std::map<Quil::IntfId, std::vector<Quil::IntfId>> lagPorts;   // the ports a LAG may have
  std::map<Quil::IntfId, std::vector<Quil::IntfId>> endpoints;  // a segment's remote endpoints
  std::vector<Bridging::VlanId> vlans;
};

World makeWorld(Rng& r) {
  World w;
  std::vector<Quil::IntfId> teps;
  for (std::uint64_t i = 1; i <= 6; ++i) {
    teps.push_back(Quil::DynamicTunnelIntfId::intfId((1ull << 32) | i));
  }
  std::uint32_t port = 1, lag = 1;
  const std::uint64_t segments = 2 + r.below(4);
  for (std::uint64_t s = 0; s < segments; ++s) {
    Quil::IntfId seg;
    if (r.chance(0.5)) {
      seg = Quil::IntfId::portChannel(lag++);
      auto& ports = w.lagPorts[seg];
      for (std::uint64_t n = 1 + r.below(4); n > 0; --n)
        ports.push_back(Quil::IntfId::ethernet(port++));
      w.lags.push_back(seg);
    } else {
      seg = Quil::IntfId::ethernet(port++);
    }
    w.segments.push_back(seg);
    // 1-4 endpoints of the six, shared between segments as peers are.
    std::vector<Quil::IntfId> pool = teps;
    auto& eps = w.endpoints[seg];
    for (std::uint64_t n = 1 + r.below(4); n > 0; --n) {
      std::size_t i = r.below(pool.size());
      eps.push_back(pool[i]);
      pool.erase(pool.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  std::vector<std::uint16_t> vlans{10, 20, 30, 40, 50};
  for (std::uint64_t n = 2 + r.below(3); n > 0; --n) {
    std::size_t i = r.below(vlans.size());
    w.vlans.push_back(Bridging::VlanId(vlans[i]));
    vlans.erase(vlans.begin() + static_cast<std::ptrdiff_t>(i));
  }
  return w;
}

Evpn::EncapTypeLabel remoteLabel(Rng& r) {
  if (r.chance(0.85))
    return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeMpls, 1001 + r.below(3));
  if (r.chance(0.5)) return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeVxlan, 5001);
  return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeNone, 0);
}

Evpn::EncapTypeLabel localLabel(Rng& r) {
  if (r.chance(0.85))
    return Evpn::EncapTypeLabel(Evpn::EncapTypeLabel::encapTypeMpls, 2001 + r.below(3));
  return Evpn::EncapTypeLabel();  // the empty label
}

Action randomAction(const World& w, Rng& r, const FuzzOptions& o, bool initial) {
  // Relative weights of the kinds; LAG kinds need a LAG, restarts need --restarts and a started
  // agent.
  struct Weight {
    Kind kind;
    std::uint64_t weight;
  };
  static constexpr Weight weights[] = {
      {Kind::designatedForwarder, 20},
      {Kind::designatedForwarderDel, 7},
      {Kind::remoteEsiLabel, 14},
      {Kind::remoteEsiLabelDel, 3},
      {Kind::localEsiLabel, 8},
      {Kind::localEsiLabelDel, 2},
      {Kind::lag, 8},
      {Kind::lagDel, 2},
      {Kind::segment, 2},
      {Kind::segmentDel, 1},
      {Kind::chipPool, 3},
      {Kind::restart, 2},
  };
  auto allowed = [&](Kind k) {
    if (k == Kind::lag || k == Kind::lagDel) return !w.lags.empty();
    if (k == Kind::restart) return o.restarts && !initial;
    return true;
  };
  std::uint64_t total = 0;
  for (const auto& x : weights) total += allowed(x.kind) ? x.weight : 0;
  std::uint64_t roll = r.below(total);
  Kind kind = Kind::designatedForwarder;
  for (const auto& x : weights) {
    if (!allowed(x.kind)) continue;
    if (roll < x.weight) {
      kind = x.kind;
      break;
    }
    roll -= x.weight;
  }

  Action a;
  a.kind = kind;
  switch (kind) {
    case Kind::designatedForwarder:
      a.segment = r.pick(w.segments);
      a.vlan = r.pick(w.vlans);
      a.tep = r.pick(w.endpoints.at(a.segment));
      break;
    case Kind::designatedForwarderDel:
      a.segment = r.pick(w.segments);
      a.vlan = r.pick(w.vlans);
      break;
    case Kind::remoteEsiLabel:
      a.segment = r.pick(w.segments);
      a.tep = r.pick(w.endpoints.at(a.segment));
      a.label = remoteLabel(r);
      break;
    case Kind::remoteEsiLabelDel:
      a.segment = r.pick(w.segments);
      a.tep = r.pick(w.endpoints.at(a.segment));
      break;
    case Kind::localEsiLabel:
      a.segment = r.pick(w.segments);
      a.label = localLabel(r);
      break;
    case Kind::localEsiLabelDel:
    case Kind::segment:
    case Kind::segmentDel:
      a.segment = r.pick(w.segments);
      break;
    case Kind::lag:
      a.segment = r.pick(w.lags);
      for (Quil::IntfId p : w.lagPorts.at(a.segment)) {
        if (r.chance(0.6)) a.members.push_back(p);
      }
      break;
    case Kind::lagDel:
      a.segment = r.pick(w.lags);
      break;
    case Kind::chipPool:
      // Mostly around the starting size; now and then none at all.
      a.count =
          r.chance(0.1) ? 0 : static_cast<std::uint32_t>(1 + r.below(2 * std::uint64_t{o.pool}));
      break;
    case Kind::restart: {
      static const char* const machines[] = {"hwTunnelId", "floodingEsi", "agent"};
      a.machine = machines[r.below(3)];
      break;
    }
    case Kind::chipRefuse:
    case Kind::chipRefuseNone:
      break;  // never drawn: the chip's faults come from its fault rate
  }
  return a;
}

Action refusalAction(Quil::IntfId port, Bridging::VlanId vlan) {
  Action a;
  a.kind = Kind::chipRefuse;
  a.refusal.op = "createEsiData";
  a.refusal.port = port;
  a.refusal.vlan = vlan;
  a.refusal.times = 1;
  return a;
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
                     double checkAt, bool* replayable) {
  std::map<std::size_t, std::vector<Action>> rules;                     // by point
  std::map<std::uint64_t, std::pair<std::size_t, std::size_t>> ruleOf;  // fault's create -> rule
  for (const auto& f : faults) {
    if (auto prev = ruleOf.find(f.previousCreate); f.previousCreate && prev != ruleOf.end()) {
      // The previous create of this port was refused too: the same rule answers one more call.
      ++rules[prev->second.first][prev->second.second].refusal.times;
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
    list.push_back(refusalAction(f.port, f.vlan));
    ruleOf[f.create] = {idx, list.size() - 1};
  }

  // Rules keyed by where they go.
  std::map<std::pair<std::size_t, std::size_t>, std::vector<const Action*>> inStep;
  std::map<std::size_t, std::vector<std::pair<double, std::vector<const Action*>>>> before;
  for (const auto& [idx, list] : rules) {
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

bool reviewPending(const Kiv::Ptr<Mox::TimerTask>& task) { return task && task->taskScheduled(); }

class SeedRun {
 public:
  SeedRun(std::uint64_t seed, const FuzzOptions& o, Record* rec)
      : seed_(seed), o_(o), rng_(seed), world_(makeWorld(rng_)), agent_(&log_), rec_(rec) {
    // Nothing listens: the chip builds no call text and the agent keeps no call list.
    agent_.chip->callListenerIs(nullptr);
    agent_.chip->faultRateIs(o.faultRate, mix(seed ^ 0xfa017ull));
    rec_->clear();
    rec_->scenario.name = "fuzz seed " + std::to_string(seed);
  }

  // Runs every step, checking after each; the first failure ends the run.
  std::optional<FuzzFailure> run(FuzzResult* totals, std::uint64_t* stepsChecked) {
    Action pool;
    pool.kind = Kind::chipPool;
    pool.count = o_.pool;
    initial(pool);
    // The agent starts over inputs already published (its initial walk), or over none.
    for (std::uint64_t n = r().below(40); n > 0; --n) initial(randomAction(world_, r(), o_, true));
    rec_->point({npos, rec_->scenario.initial.size(), 0, serial()});
    agent_.start();
    agent_.scheduler->runDue();
    for (step_ = 0; step_ <= o_.steps; ++step_) {
      abortStep = step_;
      if (step_ > 0) randomStep();
      if (!drain()) ++totals->drainsCut;
      ++*stepsChecked;
      totals->entriesChecked += agent_.chip->esiData().size();
      if (auto f = checkAgent(agent_, &totals->allowances)) {
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
  std::uint64_t serial() const { return agent_.chip->createEsiDataSerial(); }

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
        actions_.push_back(randomAction(world_, r(), o_, false));
      }
      burst(at, actions_);
    }
  }

  // Lets the reviews run until none is pending that could still change anything: the flooding
  // machine's retries, and the tunnel-id machine's while the chip has an id to give. Bounded by
  // twenty retry intervals: a chip that keeps refusing leaves ports parked, which the checks
  // accept. Answers whether the reviews came to rest within the bound.
  bool drain() {
    const double start = now();
    while (now() - start <= 20 * Oba::unprogrammedRetryIntervalDefault) {
      const bool flooding = agent_.floodingEsiSm && agent_.floodingEsiSm->reviewUnprogrammed() &&
                            reviewPending(agent_.floodingEsiSm->reviewUnprogrammed()->task());
      const bool hw = agent_.hwTunnelIdSm && agent_.hwTunnelIdSm->reviewUnprogrammed() &&
                      reviewPending(agent_.hwTunnelIdSm->reviewUnprogrammed()->task()) &&
                      freeHwTunnelId(*agent_.chip) != 0;
      if (!flooding && !hw) return true;
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
  World world_;
  SimLog log_;
  HostAgent agent_;
  Record* rec_;
  std::uint32_t step_ = 0;
  std::vector<Action> actions_;
};

// ---- replay and shrinking -----------------------------------------------------------------------

struct Replay {
  std::optional<CheckFailure> failure;
  EsiComparison esi;
  std::vector<std::string> mapping;  // the rows whose tunnels are in use
  std::vector<std::string> hwIds;    // the ids those rows hold
};

// Replays a scenario exactly as the scenario runner does, then checks the agent as the fuzzer
// does after a step.
Replay replay(const Scenario& s) {
  SimLog quiet;
  HostAgent agent(&quiet);
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
  out.esi = compareEsiData(agent, nullptr);
  std::set<Tunnel::TunnelTable::TunnelId> inUse;
  for (auto [intf, ess] : agent.evpnStatus->segmentStatusWalk()) {
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) {
      inUse.insert(Tunnel::TunnelTable::TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)));
    }
  }
  std::vector<std::uint32_t> ids;
  for (auto [tunnel, row] : agent.mapping->tunnelIdToHwTunnelIdWalk()) {
    if (!inUse.contains(tunnel)) continue;
    out.mapping.push_back(row.compactString());
    ids.push_back(row.hwTunnelId().value());
  }
  std::sort(out.mapping.begin(), out.mapping.end());
  std::sort(ids.begin(), ids.end());
  for (auto id : ids) out.hwIds.push_back(std::to_string(id));
  return out;
}

std::size_t actionCount(const Scenario& s) {
  std::size_t n = s.initial.size();
  for (const auto& st : s.steps) n += st.actions.size();
  return n;
}

// Drops actions while the same check still fails: halves of the actions first, then quarters,
// down to single actions, as long as the replay budget lasts. The last step (the check) stays.
Scenario shrink(const Scenario& s, const std::string& check, std::uint64_t budget) {
  // Every action by (step, index); step npos is `initial`.
  std::vector<std::pair<std::size_t, std::size_t>> units;
  for (std::size_t i = 0; i < s.initial.size(); ++i) units.emplace_back(npos, i);
  for (std::size_t k = 0; k + 1 < s.steps.size(); ++k) {
    for (std::size_t i = 0; i < s.steps[k].actions.size(); ++i) units.emplace_back(k, i);
  }
  auto build = [&](const std::vector<std::pair<std::size_t, std::size_t>>& keep) {
    Scenario c;
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
    auto r = replay(c);
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
  switch (a.kind) {
    case Kind::designatedForwarder:
      os << "designatedForwarder: {segment: " << a.segment << ", vlan: " << a.vlan
         << ", tep: " << a.tep << "}";
      break;
    case Kind::designatedForwarderDel:
      os << "designatedForwarderDel: {segment: " << a.segment << ", vlan: " << a.vlan << "}";
      break;
    case Kind::remoteEsiLabel:
      os << "remoteEsiLabel: {segment: " << a.segment << ", tep: " << a.tep
         << ", label: " << a.label << "}";
      break;
    case Kind::remoteEsiLabelDel:
      os << "remoteEsiLabelDel: {segment: " << a.segment << ", tep: " << a.tep << "}";
      break;
    case Kind::localEsiLabel:
      os << "localEsiLabel: {segment: " << a.segment << ", label: " << a.label << "}";
      break;
    case Kind::localEsiLabelDel:
      os << "localEsiLabelDel: " << a.segment;
      break;
    case Kind::segment:
      os << "segment: " << a.segment;
      break;
    case Kind::segmentDel:
      os << "segmentDel: " << a.segment;
      break;
    case Kind::lag: {
      os << "lag: {lag: " << a.segment << ", members: [";
      for (std::size_t i = 0; i < a.members.size(); ++i) os << (i ? ", " : "") << a.members[i];
      os << "]}";
      break;
    }
    case Kind::lagDel:
      os << "lagDel: " << a.segment;
      break;
    case Kind::chipPool:
      os << "chipPool: " << a.count;
      break;
    case Kind::chipRefuse:
      os << "chipRefuse: {op: " << a.refusal.op;
      if (a.refusal.port) os << ", port: " << *a.refusal.port;
      if (a.refusal.vlan) os << ", vlan: " << *a.refusal.vlan;
      if (a.refusal.times >= 0) os << ", times: " << a.refusal.times;
      os << "}";
      break;
    case Kind::chipRefuseNone:
      os << "chipRefuseNone: all";
      break;
    case Kind::restart:
      os << "restart: " << a.machine;
      break;
  }
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

std::string replayCommand(const FuzzOptions& o, std::uint64_t seed, std::uint32_t step) {
  std::ostringstream os;
  os << "oba-evpn-sim fuzz --seed " << seed << " --steps " << step << " --fault-rate "
     << o.faultRate << " --pool " << o.pool << (o.restarts ? " --restarts" : "");
  if (auto n = SoftwareChip::canaryDropDeleteEsiData()) os << " --canary-drop-delete " << n;
  return os.str();
}

std::string scenarioText(const Scenario& s, const FuzzFailure& f, const FuzzOptions& o,
                         const Replay& end) {
  std::ostringstream os;
  os << "# Written by oba-evpn-sim fuzz. Seed " << f.seed << " failed the " << f.failure.check
     << " check after step " << f.step << " (time " << timeText(f.time) << "):\n";
  for (const auto& l : f.failure.lines) os << "#   " << l << "\n";
  os << "# The run again: " << replayCommand(o, f.seed, f.step) << "\n";
  if (f.shrunkActions < f.actions && end.failure) {
    os << "# Shrunk to " << f.shrunkActions << " of its " << f.actions << " actions, the "
       << end.failure->check << " check finds:\n";
    for (const auto& l : end.failure->lines) os << "#   " << l << "\n";
  }
  os << "# The chip's injected faults are the chipRefuse rules, each for the next create(s) of "
        "one\n"
        "# port and VLAN. The last step expects what the inputs call for (docs/convergence.md).\n";
  if (f.failure.check != "esiData" && f.failure.check != "ledger" && f.failure.check != "mapping") {
    os << "# The failed check looks inside a machine, which --check cannot see: run it again.\n";
  }
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
      std::vector<std::string> esi;
      for (const auto& [key, e] : end.esi.wanted) esi.push_back(esiLine(key, e));
      writeLines(os, "esiData", esi);
      writeLines(os, "mapping", end.mapping);
      writeLines(os, "hwTunnelIds", end.hwIds);
      writeLines(os, "violations", {});
    }
  }
  return os.str();
}

// Turns the failed run into a scenario file, shrinks it, writes it and checks it through the
// scenario runner. Fills in the failure's file fields.
void writeScenario(const Record& rec, const HostAgent& agent, const FuzzOptions& o, FuzzFailure& f,
                   std::ostream* summary) {
  Scenario s = materialize(rec, agent.chip->faults(), f.time, &f.replayable);
  f.actions = actionCount(s);
  // The run as recorded must fail the same way when replayed, before any shrinking.
  Replay whole = replay(s);
  if (!whole.failure || whole.failure->check != f.failure.check) f.replayable = false;
  if (o.shrink && f.replayable) {
    if (summary) *summary << "shrinking " << f.actions << " actions...\n" << std::flush;
    s = shrink(s, f.failure.check, o.shrinkReplays);
  }
  f.shrunkActions = actionCount(s);
  Replay end = replay(s);
  const std::string text = scenarioText(s, f, o, end);

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
    RunResult r = runScenario(readScenarioFile(path), quiet, RunOptions{.check = true});
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

void printAllowances(std::ostream& os, const Allowances& a) {
  os << "allowed: " << a.parkedPort << " parked ports, " << a.staleLocalLabel
     << " stale local labels, " << a.nonMplsRemote << " non-MPLS remote labels";
}

// ---- the command line ---------------------------------------------------------------------------

const char* const fuzzUsage = R"(usage: oba-evpn-sim fuzz [options]

Randomized convergence: each seed builds a random world and applies random steps to the host
agent (designated forwarders, ESI labels, LAG members and segments come and go, time passes, the
chip refuses creates and its tunnel-id pool changes, machines restart). After every step the
reviews drain and the agent must be where its inputs call for (docs/convergence.md). A failing
seed stops the run: its seed, step and differences are printed and the run is written, shrunk, as
a scenario file that `oba-evpn-sim --check` replays.

options:
  --seeds N          run seeds 1..N (default 100)
  --seed S           run seed S only
  --first-seed S     start at seed S (with --seeds: S..S+N-1)
  --steps K          steps per seed (default 1000)
  --fault-rate P     probability that the chip refuses a createEsiData (default 0.1)
  --pool N           hardware tunnel ids at the start of a seed (default 4)
  --restarts         steps may restart a machine or the whole agent
  --out DIR          where a failing run's scenario goes (default .)
  --no-shrink        write a failing run whole
  --batch N          seeds per summary line (default 100)
  --progress         a progress line on standard error (default: when it is a terminal)
  --canary-drop-delete N
                     test the checks: the chip loses its N-th deleteEsiData
  --help             this text

exit status: 0 every seed converged, 1 a seed failed, 2 bad arguments
)";

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

FuzzResult fuzz(const FuzzOptions& o, std::ostream* summary, std::ostream* progress) {
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
      SeedRun run(seed, o, &rec);
      failure = run.run(&result, &steps);
      result.faultsInjected += run.agent().chip->faults().size();
      result.esiCreates += run.agent().chip->createEsiDataSerial();
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
    *summary << "the run: " << replayCommand(o, f->seed, f->step) << "\n";
    if (f->scenarioPath.empty()) {
      *summary << "no scenario file written\n";
    } else {
      *summary << "scenario: " << f->scenarioPath << " (" << f->shrunkActions << " of "
               << f->actions << " actions); oba-evpn-sim --check "
               << (f->checkFails ? "fails it" : "passes it: the failure is not visible to it")
               << (f->replayable ? "" : "; some faults could not be stated as rules") << "\n";
    }
  } else {
    *summary << result.seedsRun << " seeds, " << result.stepsChecked << " steps checked, "
             << result.entriesChecked << " ESI entries compared, " << result.esiCreates
             << " creates, " << result.faultsInjected << " refused, " << result.drainsCut
             << " drains cut at the bound, " << decimals(result.seconds, 2) << " s; ";
    printAllowances(*summary, result.allowances);
    *summary << "\n";
  }
  return result;
}

int fuzzMain(int argc, char** argv) {
  FuzzOptions o;
  bool progress = ::isatty(2) != 0;
  std::uint64_t canary = 0;
  bool seedGiven = false;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](auto& out) {
      if (i + 1 >= argc || !parseNumber(argv[i + 1], out)) {
        std::cerr << "oba-evpn-sim fuzz: " << a << " needs a number\n";
        return false;
      }
      ++i;
      return true;
    };
    if (a == "--help" || a == "-h") {
      std::cout << fuzzUsage;
      return 0;
    } else if (a == "--seeds") {
      if (!value(o.seeds)) return 2;
    } else if (a == "--seed") {
      if (!value(o.firstSeed)) return 2;
      seedGiven = true;
    } else if (a == "--first-seed") {
      if (!value(o.firstSeed)) return 2;
    } else if (a == "--steps") {
      if (!value(o.steps)) return 2;
    } else if (a == "--fault-rate") {
      if (!value(o.faultRate)) return 2;
      if (o.faultRate < 0 || o.faultRate > 1) {
        std::cerr << "oba-evpn-sim fuzz: --fault-rate must be within 0..1\n";
        return 2;
      }
    } else if (a == "--pool") {
      if (!value(o.pool)) return 2;
    } else if (a == "--batch") {
      if (!value(o.batch)) return 2;
    } else if (a == "--canary-drop-delete") {
      if (!value(canary)) return 2;
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
    } else {
      std::cerr << "oba-evpn-sim fuzz: unknown option " << a << "\n" << fuzzUsage;
      return 2;
    }
  }
  if (seedGiven) o.seeds = 1;
  SoftwareChip::canaryDropDeleteEsiDataIs(canary);
  std::signal(SIGABRT, onAbort);
  FuzzResult r = fuzz(o, &std::cout, progress ? &std::cerr : nullptr);
  std::signal(SIGABRT, SIG_DFL);
  return r.failure ? 1 : 0;
}

}  // namespace Sim
