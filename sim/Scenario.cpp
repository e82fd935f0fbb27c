#include "sim/Scenario.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <sstream>

#include "Kiv/Trace.h"
#include "Kiv/Types.h"
#include "sim/HostAgent.h"
#include "sim/ScenarioText.h"

namespace Sim {

namespace {

// ---- the core's actions: the chip's refusal rules and restarts ----------------------------------

class ChipRefuse : public ActionBody {
 public:
  std::string_view name() const override { return "chipRefuse"; }
  ChipRefuse(SoftwareChip::Refusal r, const ChipOperation& op) : r_(std::move(r)), op_(op) {}
  void apply(HostAgent& agent) const override { agent.chip->refusalIs(r_); }
  void write(std::ostream& os) const override {
    os << "chipRefuse: {op: " << r_.op;
    if (r_.port) os << ", port: " << *r_.port;
    if (r_.vlan) os << ", vlan: " << *r_.vlan;
    if (r_.times >= 0) os << ", times: " << r_.times;
    if (r_.rc != op_.defaultRc) os << ", rc: " << op_.rcText(r_.rc);
    os << "}";
  }

 private:
  SoftwareChip::Refusal r_;
  ChipOperation op_;
};

class ChipRefuseNone : public ActionBody {
 public:
  std::string_view name() const override { return "chipRefuseNone"; }
  void apply(HostAgent& agent) const override { agent.chip->refusalDelAll(); }
  void write(std::ostream& os) const override { os << "chipRefuseNone: all"; }
};

class Restart : public ActionBody {
 public:
  std::string_view name() const override { return "restart"; }
  explicit Restart(std::string machine) : machine_(std::move(machine)) {}
  void apply(HostAgent& agent) const override { agent.restart(machine_); }
  void write(std::ostream& os) const override { os << "restart: " << machine_; }
  bool needsStartedAgent() const override { return true; }

 private:
  std::string machine_;
};

// The agent's scheduler: how much work a review does in one run, and whether a review that
// yields takes up where it stopped.
class WorkBudget : public ActionBody {
 public:
  std::string_view name() const override { return "workBudget"; }
  explicit WorkBudget(std::uint32_t units) : units_(units) {}
  void apply(HostAgent& agent) const override { agent.scheduler->workBudgetIs(units_); }
  void write(std::ostream& os) const override { os << "workBudget: " << units_; }

 private:
  std::uint32_t units_;
};

class ReviewsResume : public ActionBody {
 public:
  std::string_view name() const override { return "reviewsResume"; }
  explicit ReviewsResume(bool on) : on_(on) {}
  void apply(HostAgent& agent) const override { agent.scheduler->walksResumeIs(on_); }
  void write(std::ostream& os) const override {
    os << "reviewsResume: " << (on_ ? "true" : "false");
  }

 private:
  bool on_;
};

std::vector<ChipOperation> chipOperations(const Families& families) {
  std::vector<ChipOperation> out;
  for (const Family* f : families) {
    for (auto& op : f->chipOperations()) out.push_back(std::move(op));
  }
  return out;
}

// "a, b or c"
std::string alternatives(const std::vector<std::string>& names) {
  std::string out;
  for (std::size_t i = 0; i < names.size(); ++i) {
    out += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
  }
  return out;
}

// Every action a scenario may name: the core's and each family's.
class Actions {
 public:
  explicit Actions(const Families& families) : ops_(chipOperations(families)) {
    std::vector<std::string> machines;
    for (const Family* f : families) {
      for (auto& k : f->actions()) kinds_.emplace(k.name, std::move(k.read));
      for (auto& m : f->machines()) machines.push_back(std::move(m));
    }
    machines.push_back("agent");
    const std::string machineWhat = "a machine to restart (" + alternatives(machines) + ")";
    kinds_.emplace("restart", [machines, machineWhat](const Reader& r, const YAML::Node& v) {
      std::string m = r.scalar(v, machineWhat);
      if (std::find(machines.begin(), machines.end(), m) == machines.end()) {
        r.failExpected(v, machineWhat);
      }
      return std::make_shared<Restart>(m);
    });
    kinds_.emplace("chipRefuseNone", [](const Reader&, const YAML::Node&) {
      return std::make_shared<ChipRefuseNone>();
    });
    kinds_.emplace("chipRefuse",
                   [this](const Reader& r, const YAML::Node& v) { return chipRefuse(r, v); });
    kinds_.emplace("workBudget", [](const Reader& r, const YAML::Node& v) {
      const std::uint32_t units = r.count(v, "a work budget (1 or more units)");
      if (!units) r.failExpected(v, "a work budget (1 or more units)");
      return std::make_shared<WorkBudget>(units);
    });
    kinds_.emplace("reviewsResume", [](const Reader& r, const YAML::Node& v) {
      return std::make_shared<ReviewsResume>(r.flag(v));
    });
  }

  Action read(const Reader& r, const YAML::Node& n) const {
    if (!n.IsMap() || n.size() != 1) {
      r.failExpected(n, "an action: a map with one key such as 'designatedForwarder'");
    }
    const std::string name = n.begin()->first.Scalar();
    auto kind = kinds_.find(name);
    if (kind == kinds_.end()) {
      std::string list;
      for (const auto& [k, unused] : kinds_) list += (list.empty() ? "" : ", ") + k;
      r.fail(n.begin()->first, "unknown action '" + name + "' (expected one of: " + list + ")");
    }
    return Action{n.Mark().line + 1, kind->second(r, n.begin()->second)};
  }

  const ChipOperation* op(std::string_view name) const {
    for (const auto& o : ops_) {
      if (o.name == name) return &o;
    }
    return nullptr;
  }

 private:
  std::shared_ptr<const ActionBody> chipRefuse(const Reader& r, const YAML::Node& v) const {
    r.onlyKeys(v, {"op", "port", "vlan", "times", "rc"}, "chipRefuse");
    std::vector<std::string> names;
    for (const auto& o : ops_) names.push_back(o.name);
    const std::string what = "a chip operation (" + alternatives(names) + ")";
    SoftwareChip::Refusal rule;
    rule.op = r.scalar(r.field(v, "op"), "a chip operation");
    const ChipOperation* o = op(rule.op);
    if (!o) r.failExpected(v["op"], what);
    // A rule that names what the operation's calls do not carry could never match.
    for (auto [key, has] : {std::pair{"port", o->hasPort}, std::pair{"vlan", o->hasVlan}}) {
      if (v[key] && !has) {
        r.fail(v[key], rule.op + " calls name no " + key + ", got " + Reader::given(v[key]));
      }
    }
    if (v["port"]) rule.port = o->portRead ? o->portRead(r, v["port"]) : r.port(v["port"]);
    if (v["vlan"]) rule.vlan = r.vlan(v["vlan"]);
    if (v["times"]) rule.times = r.count(v["times"], "a number of calls");
    rule.rc = v["rc"] ? o->rc(r, v["rc"]) : o->defaultRc;
    return std::make_shared<ChipRefuse>(std::move(rule), *o);
  }

  std::vector<ChipOperation> ops_;
  std::map<std::string, ActionKind::Fn> kinds_;
};

// Every expectation a step may state: the chip calls and violations, and each family's tables.
class Expectations {
 public:
  explicit Expectations(const Families& families) {
    names_ = {"calls", "callsAnyOrder"};
    for (const Family* f : families) {
      for (auto& t : f->tables()) {
        names_.push_back(t.name);
        tables_.emplace(t.name, std::move(t));
      }
    }
    names_.push_back("violations");
    names_.push_back("checks");
    names_.push_back("abort");
  }
  const std::vector<std::string>& names() const { return names_; }

  Expectation read(const Reader& r, const std::string& key, const YAML::Node& n) const {
    Expectation e;
    e.name = key;
    e.calls = key == "calls" || key == "callsAnyOrder";
    e.ordered = key == "calls";  // tables and violations are sets of lines
    e.line = n.Mark().line + 1;
    auto table = tables_.find(key);
    const TableKind* t = table == tables_.end() ? nullptr : &table->second;
    const std::string item = t                     ? t->item
                             : key == "violations" ? "violations"
                             : key == "checks"     ? "findings"
                                                   : "calls";
    YAML::Node list = n;
    if (n.IsMap()) {
      // {anyOrder: [...]} or {inOrder: [...]}: the comparison, said where it differs.
      r.onlyKeys(n, {"anyOrder", "inOrder"}, "'" + key + "'");
      if (n.size() != 1) r.failExpected(n, "one of anyOrder or inOrder");
      e.ordered = n.begin()->first.Scalar() == "inOrder";
      list = n.begin()->second;
    }
    if (list.IsScalar() && (list.Scalar() == "none" || list.Scalar() == "0")) return e;
    if (!list.IsSequence()) r.failExpected(list, "a list of " + item + " (or none)");
    for (const auto& entry : list) {
      if (entry.IsMap() && t && t->entry) {
        e.lines.push_back(t->entry(r, entry));
      } else {
        e.lines.push_back(r.scalar(entry, t && t->entry ? "a line or a map of " + item : "a line"));
      }
    }
    return e;
  }

 private:
  std::vector<std::string> names_;
  std::map<std::string, TableKind> tables_;
};

}  // namespace

Scenario parseScenario(const std::string& text, const std::string& file, const Families& families) {
  checkScenarioText(text, file);
  YAML::Node root;
  try {
    root = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    throw ScenarioError(file, e.mark.line + 1, e.mark.column + 1, "not valid YAML: " + e.msg);
  }
  Reader r(file);
  if (!root.IsMap()) {
    throw ScenarioError(file, 1, 1,
                        "expected a scenario: a map with 'steps', got " + Reader::given(root));
  }
  r.onlyKeys(root, {"name", "description", "initial", "steps"}, "the scenario");
  const Actions actions(families);
  const Expectations expectations(families);

  Scenario s;
  s.file = file;
  s.families = families;
  s.name = root["name"] ? r.scalar(root["name"], "a name") : file;
  if (root["description"]) s.description = r.scalar(root["description"], "a description");
  if (YAML::Node init = root["initial"]) {
    if (!init.IsSequence()) r.failExpected(init, "a list of actions under 'initial'");
    for (const auto& a : init) {
      Action act = actions.read(r, a);
      if (act.body->needsStartedAgent()) {
        r.fail(a, "a restart cannot come before the agent starts, got " +
                      std::string(act.body->name()) + ": " + Reader::given(a.begin()->second));
      }
      s.initial.push_back(std::move(act));
    }
  }
  YAML::Node steps = r.field(root, "steps");
  if (!steps.IsSequence()) r.failExpected(steps, "a list of steps under 'steps'");
  double last = 0;
  const YAML::Node* aborted = nullptr;
  for (const auto& n : steps) {
    if (aborted) r.fail(n, "a step after one that expects an abort never runs");
    r.onlyKeys(n, {"at", "note", "trace", "do", "expect"}, "a step");
    Step step;
    step.line = n.Mark().line + 1;
    step.at = r.time(r.field(n, "at"));
    if (step.at < last) {
      std::ostringstream before;
      before << "a time no earlier than the step before (" << last << ")";
      r.failExpected(n["at"], before.str());
    }
    last = step.at;
    if (n["note"]) step.note = r.scalar(n["note"], "a note");
    if (n["trace"]) {
      // Checked now, applied only while the step runs.
      step.trace = r.parsed(n["trace"], "trace levels (SOURCE/LEVEL,...)", [](std::string s) {
        const std::string before = Kiv::traceConfig();
        Kiv::traceConfigIs(s);
        Kiv::traceConfigIs(before);
        return s;
      });
    }
    if (YAML::Node d = n["do"]) {
      if (!d.IsSequence()) r.failExpected(d, "a list of actions under 'do'");
      for (const auto& a : d) step.actions.push_back(actions.read(r, a));
    }
    if (YAML::Node e = n["expect"]) {
      r.onlyKeys(e, expectations.names(), "'expect'");
      for (const auto& kv : e) {
        if (kv.first.Scalar() == "abort") {
          step.abort = r.scalar(kv.second, "the text of the assertion that fails (\"0\")");
          aborted = &n;
          continue;
        }
        step.expectations.push_back(expectations.read(r, kv.first.Scalar(), kv.second));
      }
    }
    s.steps.push_back(std::move(step));
  }
  return s;
}

Scenario readScenarioFile(const std::string& path, const Families& families) {
  return parseScenario(readScenarioText(path), path, families);
}

Action actionOf(const std::string& text, const Families& families) {
  checkScenarioText(text, "action");
  YAML::Node n;
  try {
    n = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    throw ScenarioError("action", e.mark.line + 1, e.mark.column + 1, "not valid YAML: " + e.msg);
  }
  return Actions(families).read(Reader("action"), n);
}

Action restartAction(const std::string& machine) {
  return Action{0, std::make_shared<Restart>(machine)};
}

Action refusalAction(const SoftwareChip::Refusal& refusal, const Families& families) {
  const Actions actions(families);
  const ChipOperation* op = actions.op(refusal.op);
  if (!op) throw std::invalid_argument("no chip operation '" + refusal.op + "'");
  return Action{0, std::make_shared<ChipRefuse>(refusal, *op)};
}

}  // namespace Sim
