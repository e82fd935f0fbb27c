#include "sim/Scenario.h"

#include <yaml-cpp/yaml.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "Kiv/Types.h"
#include "Tunnel/TunnelId.h"

namespace Sim {

namespace {

using Kind = Action::Kind;

// Turns YAML nodes into scenario values, naming the file and line of anything that is not what
// it should be.
class Reader {
 public:
  explicit Reader(const std::string& file) : file_(file) {}

  [[noreturn]] void fail(const YAML::Node& n, const std::string& what) const {
    throw ScenarioError(file_, n.Mark().line + 1, what);
  }

  std::string scalar(const YAML::Node& n, const std::string& what) const {
    if (!n.IsScalar()) fail(n, "expected " + what);
    return n.Scalar();
  }

  template <class F>
  auto parsed(const YAML::Node& n, const std::string& what, F parse) const {
    std::string s = scalar(n, what);
    try {
      return parse(s);
    } catch (const Kiv::RangeException& e) {
      fail(n, "expected " + what + ", got '" + s + "'");
    }
  }

  double number(const YAML::Node& n, const std::string& what) const {
    return parsed(n, what, [&](const std::string& s) {
      std::size_t used = 0;
      double v = 0;
      try {
        v = std::stod(s, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      if (used != s.size() || v < 0) throw Kiv::RangeException(s);
      return v;
    });
  }

  std::uint32_t count(const YAML::Node& n, const std::string& what) const {
    double v = number(n, what);
    if (v != static_cast<double>(static_cast<std::uint32_t>(v))) fail(n, "expected " + what);
    return static_cast<std::uint32_t>(v);
  }

  Quil::IntfId segment(const YAML::Node& n) const {
    auto intf = parsed(n, "a segment interface (EthernetN or Port-ChannelN)", Quil::IntfId::parse);
    if (!intf.isEthernet() && !intf.isPortChannel()) {
      fail(n, "expected a segment interface (EthernetN or Port-ChannelN)");
    }
    return intf;
  }
  Quil::IntfId lag(const YAML::Node& n) const {
    auto intf = parsed(n, "a LAG (Port-ChannelN)", Quil::IntfId::parse);
    if (!intf.isPortChannel()) fail(n, "expected a LAG (Port-ChannelN)");
    return intf;
  }
  Quil::IntfId port(const YAML::Node& n) const {
    auto intf = parsed(n, "a physical port (EthernetN)", Quil::IntfId::parse);
    if (!intf.isEthernet()) fail(n, "expected a physical port (EthernetN)");
    return intf;
  }
  Quil::IntfId tep(const YAML::Node& n) const {
    const char* what = "a tunnel endpoint (DynTunnelT.I, with T at most 65535)";
    auto intf = parsed(n, what, Quil::IntfId::parse);
    if (!intf.isDynamicTunnel() ||
        Quil::DynamicTunnelIntfId::tunnelId(intf) > Tunnel::TunnelTable::TunnelId::maxValue) {
      fail(n, std::string("expected ") + what);
    }
    return intf;
  }
  Bridging::VlanId vlan(const YAML::Node& n) const {
    auto v = parsed(n, "a VLAN (1-4094)", Bridging::VlanId::parse);
    if (!v.isValid()) fail(n, "expected a VLAN (1-4094)");
    return v;
  }
  Evpn::EncapTypeLabel label(const YAML::Node& n) const {
    return parsed(n, "an ESI label (mpls:N, vxlan:N or none:N)", Evpn::EncapTypeLabel::parse);
  }

  // The value of `key` in map `m`; a missing required key is an error at the map.
  YAML::Node field(const YAML::Node& m, const char* key) const {
    YAML::Node v = m[key];
    if (!v) fail(m, std::string("missing '") + key + "'");
    return v;
  }
  void onlyKeys(const YAML::Node& m, std::initializer_list<const char*> keys,
                const std::string& what) const {
    if (!m.IsMap()) fail(m, "expected a map for " + what);
    for (const auto& kv : m) {
      std::string k = kv.first.Scalar();
      bool known = false;
      for (const char* key : keys) known |= k == key;
      if (known) continue;
      std::string list;
      for (const char* key : keys) list += std::string(list.empty() ? "" : ", ") + key;
      fail(kv.first, "unknown key '" + k + "' in " + what + " (expected: " + list + ")");
    }
  }
  std::vector<std::string> lines(const YAML::Node& n, const std::string& what) const {
    std::vector<std::string> out;
    if (n.IsScalar() && (n.Scalar() == "none" || n.Scalar() == "0")) return out;
    if (!n.IsSequence()) fail(n, "expected a list of " + what + " (or none)");
    for (const auto& item : n) out.push_back(scalar(item, what));
    return out;
  }

  Action action(const YAML::Node& n) const;
  Expectation expectation(const std::string& key, const YAML::Node& n) const;

 private:
  const std::string& file_;
};

const std::map<std::string, Kind>& actionKinds() {
  static const std::map<std::string, Kind> kinds{
      {"designatedForwarder", Kind::designatedForwarder},
      {"designatedForwarderDel", Kind::designatedForwarderDel},
      {"remoteEsiLabel", Kind::remoteEsiLabel},
      {"remoteEsiLabelDel", Kind::remoteEsiLabelDel},
      {"localEsiLabel", Kind::localEsiLabel},
      {"localEsiLabelDel", Kind::localEsiLabelDel},
      {"segment", Kind::segment},
      {"segmentDel", Kind::segmentDel},
      {"lag", Kind::lag},
      {"lagDel", Kind::lagDel},
      {"chipPool", Kind::chipPool},
      {"chipRefuse", Kind::chipRefuse},
      {"chipRefuseNone", Kind::chipRefuseNone},
      {"restart", Kind::restart},
  };
  return kinds;
}

Action Reader::action(const YAML::Node& n) const {
  if (!n.IsMap() || n.size() != 1) {
    fail(n, "expected an action: a map with one key such as 'designatedForwarder'");
  }
  const std::string name = n.begin()->first.Scalar();
  const YAML::Node v = n.begin()->second;
  auto kind = actionKinds().find(name);
  if (kind == actionKinds().end()) {
    std::string list;
    for (auto& [k, unused] : actionKinds()) list += (list.empty() ? "" : ", ") + k;
    fail(n.begin()->first, "unknown action '" + name + "' (expected one of: " + list + ")");
  }
  Action a;
  a.kind = kind->second;
  a.line = n.Mark().line + 1;
  switch (a.kind) {
    case Kind::designatedForwarder:
      onlyKeys(v, {"segment", "vlan", "tep"}, name);
      a.segment = segment(field(v, "segment"));
      a.vlan = vlan(field(v, "vlan"));
      a.tep = tep(field(v, "tep"));
      break;
    case Kind::designatedForwarderDel:
      onlyKeys(v, {"segment", "vlan"}, name);
      a.segment = segment(field(v, "segment"));
      a.vlan = vlan(field(v, "vlan"));
      break;
    case Kind::remoteEsiLabel:
      onlyKeys(v, {"segment", "tep", "label"}, name);
      a.segment = segment(field(v, "segment"));
      a.tep = tep(field(v, "tep"));
      a.label = label(field(v, "label"));
      break;
    case Kind::remoteEsiLabelDel:
      onlyKeys(v, {"segment", "tep"}, name);
      a.segment = segment(field(v, "segment"));
      a.tep = tep(field(v, "tep"));
      break;
    case Kind::localEsiLabel:
      onlyKeys(v, {"segment", "label"}, name);
      a.segment = segment(field(v, "segment"));
      a.label = label(field(v, "label"));
      break;
    case Kind::localEsiLabelDel:
    case Kind::segment:
    case Kind::segmentDel:
      a.segment = segment(v);
      break;
    case Kind::lag:
      onlyKeys(v, {"lag", "members"}, name);
      a.segment = lag(field(v, "lag"));
      if (!field(v, "members").IsSequence()) fail(v["members"], "expected a list of ports");
      for (const auto& m : v["members"]) a.members.push_back(port(m));
      break;
    case Kind::lagDel:
      a.segment = lag(v);
      break;
    case Kind::chipPool:
      a.count = count(v, "a number of hardware tunnel ids");
      break;
    case Kind::chipRefuse: {
      onlyKeys(v, {"op", "port", "vlan", "times", "rc"}, name);
      static const std::set<std::string> ops{"getHwTunnelId", "createEsiData",
                                             "createVlanToDot1qMapping", "createEsiPortMap"};
      a.refusal.op = scalar(field(v, "op"), "a chip operation");
      if (!ops.count(a.refusal.op)) {
        fail(v["op"],
             "expected a chip operation (getHwTunnelId, createEsiData, "
             "createVlanToDot1qMapping or createEsiPortMap)");
      }
      if (v["port"]) a.refusal.port = parsed(v["port"], "an interface", Quil::IntfId::parse);
      if (v["vlan"]) a.refusal.vlan = vlan(v["vlan"]);
      if (v["times"]) a.refusal.times = count(v["times"], "a number of calls");
      if (v["rc"]) {
        a.refusal.rc =
            parsed(v["rc"], "notProgrammed or invalidHwId", Oba::parseHwProgrammingStatus);
      }
      break;
    }
    case Kind::chipRefuseNone:
      break;
    case Kind::restart:
      a.machine = scalar(v, "a machine to restart (hwTunnelId, floodingEsi or agent)");
      if (a.machine != "hwTunnelId" && a.machine != "floodingEsi" && a.machine != "agent") {
        fail(v, "expected a machine to restart (hwTunnelId, floodingEsi or agent)");
      }
      break;
  }
  return a;
}

Expectation Reader::expectation(const std::string& key, const YAML::Node& n) const {
  static const std::map<std::string, Expectation::Kind> kinds{
      {"calls", Expectation::Kind::calls},
      {"callsAnyOrder", Expectation::Kind::callsAnyOrder},
      {"esiData", Expectation::Kind::esiData},
      {"mapping", Expectation::Kind::mapping},
      {"hwTunnelIds", Expectation::Kind::hwTunnelIds},
      {"violations", Expectation::Kind::violations},
  };
  Expectation e;
  e.kind = kinds.at(key);
  e.line = n.Mark().line + 1;
  e.lines = lines(n, key == "hwTunnelIds" ? "ids" : "lines");
  return e;
}

}  // namespace

std::string expectationName(Expectation::Kind k) {
  switch (k) {
    case Expectation::Kind::calls:
      return "calls";
    case Expectation::Kind::callsAnyOrder:
      return "callsAnyOrder";
    case Expectation::Kind::esiData:
      return "esiData";
    case Expectation::Kind::mapping:
      return "mapping";
    case Expectation::Kind::hwTunnelIds:
      return "hwTunnelIds";
    case Expectation::Kind::violations:
      return "violations";
  }
  return "?";
}

Scenario parseScenario(const std::string& text, const std::string& file) {
  YAML::Node root;
  try {
    root = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    throw ScenarioError(file, e.mark.line + 1, "not valid YAML: " + e.msg);
  }
  Reader r(file);
  if (!root.IsMap()) throw ScenarioError(file, 1, "expected a scenario: a map with 'steps'");
  r.onlyKeys(root, {"name", "description", "initial", "steps"}, "the scenario");

  Scenario s;
  s.file = file;
  s.name = root["name"] ? r.scalar(root["name"], "a name") : file;
  if (root["description"]) s.description = r.scalar(root["description"], "a description");
  if (YAML::Node init = root["initial"]) {
    if (!init.IsSequence()) r.fail(init, "expected a list of actions under 'initial'");
    for (const auto& a : init) {
      Action act = r.action(a);
      if (act.kind == Kind::restart) r.fail(a, "a restart cannot come before the agent starts");
      s.initial.push_back(act);
    }
  }
  YAML::Node steps = r.field(root, "steps");
  if (!steps.IsSequence()) r.fail(steps, "expected a list of steps under 'steps'");
  double last = 0;
  for (const auto& n : steps) {
    r.onlyKeys(n, {"at", "note", "do", "expect"}, "a step");
    Step step;
    step.line = n.Mark().line + 1;
    step.at = r.number(r.field(n, "at"), "a time in seconds");
    if (step.at < last) r.fail(n["at"], "expected a time no earlier than the step before");
    last = step.at;
    if (n["note"]) step.note = r.scalar(n["note"], "a note");
    if (YAML::Node d = n["do"]) {
      if (!d.IsSequence()) r.fail(d, "expected a list of actions under 'do'");
      for (const auto& a : d) step.actions.push_back(r.action(a));
    }
    if (YAML::Node e = n["expect"]) {
      r.onlyKeys(e, {"calls", "callsAnyOrder", "esiData", "mapping", "hwTunnelIds", "violations"},
                 "'expect'");
      for (const auto& kv : e)
        step.expectations.push_back(r.expectation(kv.first.Scalar(), kv.second));
    }
    s.steps.push_back(std::move(step));
  }
  return s;
}

Scenario readScenarioFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw ScenarioError(path, 0, "cannot read the file");
  std::stringstream ss;
  ss << in.rdbuf();
  return parseScenario(ss.str(), path);
}

}  // namespace Sim
