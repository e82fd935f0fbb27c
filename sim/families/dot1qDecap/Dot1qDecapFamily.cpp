#include "sim/families/dot1qDecap/Dot1qDecapFamily.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <sstream>

#include "sim/FamilyHelpers.h"
#include "sim/Fuzz.h"
#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/ScenarioReader.h"
#include "sim/families/dot1qDecap/Dot1qDecapCheck.h"
#include "sim/families/dot1qDecap/Dot1qDecapTables.h"
#include "sim/families/tunnelEsi/TunnelEsiActions.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim {

namespace {
constexpr auto filterType = Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter;
}

std::string dot1qLine(const Dot1qDecapChip::PortVlan& key, Bridging::VlanIdOrNone dot1q) {
  std::ostringstream os;
  os << key.first << " vlan " << key.second << " dot1q " << dot1q;
  return os.str();
}

std::string portMapLine(Quil::MplsLabel label, Quil::IntfId intf) {
  std::ostringstream os;
  os << "label " << label << " intf " << intf;
  return os.str();
}

// ---- the agent's part ---------------------------------------------------------------------------

// The routes the decapsulation machine parks and unparks, as readers of the hardware status see
// them.
class Dot1qDecapAgent::HwStatusLog : public Mpls::LfibHwStatus::NotifieeConst {
 public:
  explicit HwStatusLog(Dot1qDecapAgent* family) : family_(family) {
    notifierIs(family->lfibHwStatus);
  }
  void onUnprogrammedRoute(const Mpls::RouteKey& key) override {
    if (!family_->agent.log().enabled()) return;
    std::ostringstream os;
    os << "unprogrammedRoute label " << key.topLabel();
    if (auto rc = notifier()->unprogrammedRoute(key)) {
      os << " " << *rc;
    } else {
      os << " deleted";
    }
    family_->agent.note("lfibHwStatus", os.str());
  }

 private:
  Dot1qDecapAgent* family_;
};

Dot1qDecapAgent::Dot1qDecapAgent(HostAgent& a)
    : agent(a),
      chip(Dot1qDecapChip::Dot1qDecapChipIs(a.chip)),
      evpnStatus(a.part<TunnelEsiAgent>().evpnStatus),
      acsd(a.part<TunnelEsiAgent>().acsd),
      mplsConfig(new Evpn::MplsConfig),
      vlanStatusDir(new Bridging::VlanStatusDir),
      lfibStatus(new Mpls::LfibStatus),
      lfibTrackingStatus(new Mpls::LfibTrackingStatus),
      lfibHwStatus(new Mpls::LfibHwStatus),
      hwStatusLog_(std::make_unique<HwStatusLog>(this)) {}

Dot1qDecapAgent::~Dot1qDecapAgent() = default;

void Dot1qDecapAgent::startFloodingDot1qSm() {
  floodingDot1qSm = Oba::evpnFloodingDot1qSmFactory(chip->floodingHelper(), agent.scheduler, acsd,
                                                    evpnStatus, mplsConfig, vlanStatusDir);
}

// A starting decapsulation machine knows nothing the chip holds, and drains only the backlog: the
// agent hands it every published route, with no route parked, as a fresh start over a reset chip
// has them.
void Dot1qDecapAgent::startDecapSm() {
  std::vector<Mpls::RouteKey> parked;
  for (auto [key, rc] : lfibHwStatus->unprogrammedRouteWalk()) parked.push_back(key);
  for (const auto& key : parked) lfibHwStatus->unprogrammedRouteDel(key);
  backlogRoutes([](const Mpls::LfibRoute&) { return true; });
  decapSm = Oba::esiFilteringDecapSmFactory(chip->decapHelper(), agent.scheduler, lfibStatus,
                                            lfibTrackingStatus, lfibHwStatus);
}

void Dot1qDecapAgent::start() {
  startFloodingDot1qSm();
  startDecapSm();
}

void Dot1qDecapAgent::stop() {
  decapSm = nullptr;
  floodingDot1qSm = nullptr;
}

void Dot1qDecapAgent::restart(const std::string& machine) {
  if (machine == "floodingDot1q") {
    // The new incarnation decides nothing before its first drain, a second later, and only ever
    // deletes what it programmed itself: mappings the old one left (a port refused now, a pair
    // gone meanwhile) would stay for good. The agent clears the table; the new incarnation
    // programs what its inputs call for.
    floodingDot1qSm = nullptr;
    std::vector<std::pair<Dot1qDecapChip::PortVlan, Bridging::VlanIdOrNone>> held(
        chip->dot1q().begin(), chip->dot1q().end());
    for (const auto& [key, dot1q] : held)
      chip->deleteVlanToDot1qMapping(key.first, key.second, dot1q);
    startFloodingDot1qSm();
    return;
  }
  // The new incarnation does not know the port maps its predecessor programmed: it could neither
  // delete them nor see their interfaces as taken. The agent deletes them and hands it every route.
  decapSm = nullptr;
  std::vector<std::pair<Quil::MplsLabel, Quil::IntfId>> held(chip->portMaps().begin(),
                                                             chip->portMaps().end());
  for (const auto& [label, intf] : held) chip->deleteEsiPortMap(label, intf);
  startDecapSm();
}

void Dot1qDecapAgent::backlogRoutes(const std::function<bool(const Mpls::LfibRoute&)>& touched) {
  std::vector<Mpls::RouteKey> keys;
  for (auto [key, route] : lfibStatus->routeWalk()) {
    if (touched(route)) keys.push_back(key);
  }
  for (const auto& key : keys) lfibTrackingStatus->routeKeyBacklogIs(key, true);
}

void Dot1qDecapAgent::routeIs(Quil::MplsLabel label, Mpls::LfibViaSetKey viaSet) {
  const Mpls::RouteKey key(label);
  lfibStatus->routeIs(key, Mpls::LfibRoute{key, viaSet});
  backlogIs(label);
}

void Dot1qDecapAgent::routeDel(Quil::MplsLabel label) {
  lfibStatus->routeDel(Mpls::RouteKey(label));
  backlogIs(label);
}

void Dot1qDecapAgent::viaSetIs(Mpls::LfibViaSetKey set, Mpls::LfibViaKey via) {
  lfibStatus->viaSetIs(set, Mpls::LfibViaSet{set, via});
  backlogRoutes([set](const Mpls::LfibRoute& r) { return r.viaSetKey == set; });
}

void Dot1qDecapAgent::viaSetDel(Mpls::LfibViaSetKey set) {
  lfibStatus->viaSetDel(set);
  backlogRoutes([set](const Mpls::LfibRoute& r) { return r.viaSetKey == set; });
}

void Dot1qDecapAgent::filterViaIs(std::uint32_t index, Quil::IntfId intf) {
  const Mpls::LfibViaKey via(filterType, index);
  lfibStatus->evpnEthernetSegmentFilterViaIs(via, Mpls::LfibEvpnEthernetSegmentFilterVia{intf});
  backlogRoutes([&](const Mpls::LfibRoute& r) {
    auto set = lfibStatus->viaSet(r.viaSetKey);
    return set && set->viaKey == via;
  });
}

void Dot1qDecapAgent::filterViaDel(std::uint32_t index) {
  const Mpls::LfibViaKey via(filterType, index);
  lfibStatus->evpnEthernetSegmentFilterViaDel(via);
  backlogRoutes([&](const Mpls::LfibRoute& r) {
    auto set = lfibStatus->viaSet(r.viaSetKey);
    return set && set->viaKey == via;
  });
}

void Dot1qDecapAgent::backlogIs(Quil::MplsLabel label) {
  lfibTrackingStatus->routeKeyBacklogIs(Mpls::RouteKey(label), true);
}

std::vector<std::string> Dot1qDecapAgent::dot1qLines() const {
  std::vector<std::string> out;
  for (const auto& [key, dot1q] : chip->dot1q()) out.push_back(dot1qLine(key, dot1q));
  return out;
}

std::vector<std::string> Dot1qDecapAgent::portMapLines() const {
  std::vector<std::string> out;
  for (const auto& [label, intf] : chip->portMaps()) out.push_back(portMapLine(label, intf));
  return out;
}

std::vector<std::string> Dot1qDecapAgent::unprogrammedRouteLines() const {
  std::vector<std::pair<Quil::MplsLabel, Mpls::LfibHwProgrammingReturnCode>> routes;
  for (auto [key, rc] : lfibHwStatus->unprogrammedRouteWalk()) {
    routes.emplace_back(key.topLabel(), rc);
  }
  std::sort(routes.begin(), routes.end());
  std::vector<std::string> out;
  for (const auto& [label, rc] : routes) {
    std::ostringstream os;
    os << "label " << label << " " << rc;
    out.push_back(os.str());
  }
  return out;
}

std::vector<std::string> Dot1qDecapAgent::lines(std::string_view table) const {
  if (table == "dot1q") return dot1qLines();
  if (table == "esiPortMaps") return portMapLines();
  return unprogrammedRouteLines();
}

void Dot1qDecapAgent::printChip(std::ostream& os) const {
  os << "chip dot1q:\n" << block(dot1qLines());
  os << "chip esiPortMaps:\n" << block(portMapLines());
}

void Dot1qDecapAgent::printOutputs(std::ostream& os) const {
  os << "lfibHwStatus unprogrammedRoute:\n" << block(unprogrammedRouteLines());
}

void Dot1qDecapAgent::publish(Publisher& p) {
  p.mirror<UnprogrammedRoutesTable>([this](Publisher::Rows<UnprogrammedRoutesTable>& rows) {
    for (auto [key, rc] : lfibHwStatus->unprogrammedRouteWalk()) rows.put(key, rc);
  });
}

namespace {

Dot1qDecapAgent& family(HostAgent& agent) { return agent.part<Dot1qDecapAgent>(); }

// ---- actions ------------------------------------------------------------------------------------

class Dot1qDecapAction : public ActionBody {
 public:
  enum class Kind : std::uint32_t {
    vlanMember,     // vlan, intf
    vlanMemberDel,  // vlan, intf
    vlanStatus,     // vlan (an empty VLAN status)
    vlanStatusDel,  // vlan
    dot1q,          // vlan, tag
    dot1qDel,       // vlan
    dot1qEnabled,   // flag
    route,          // label, set
    routeDel,       // label
    viaSet,         // set, via
    viaSetDel,      // set
    filterVia,      // index, intf
    filterViaDel,   // index
    backlog,        // label
    chipTables,     // sizes
  };
  Kind kind{};
  Bridging::VlanId vlan;
  Quil::IntfId intf;
  Bridging::VlanIdOrNone tag;
  bool flag = false;
  Quil::MplsLabel label;
  std::uint32_t set = 0;
  Mpls::LfibViaKey via;
  std::uint32_t index = 0;
  std::uint32_t dot1qSize = 0, portMapSize = 0;

  void apply(HostAgent& agent) const override {
    Dot1qDecapAgent& f = family(agent);
    switch (kind) {
      case Kind::vlanMember:
        f.vlanStatusDir->vlanStatusIs(vlan)->vlanPortStatusIs(intf, true);
        break;
      case Kind::vlanMemberDel:
        if (auto vs = f.vlanStatusDir->vlanStatus(vlan)) vs->vlanPortStatusDel(intf);
        break;
      case Kind::vlanStatus:
        f.vlanStatusDir->vlanStatusIs(vlan);
        break;
      case Kind::vlanStatusDel:
        f.vlanStatusDir->vlanStatusDel(vlan);
        break;
      case Kind::dot1q:
        f.evpnStatus->vlanToDot1qIs(vlan, tag);
        break;
      case Kind::dot1qDel:
        f.evpnStatus->vlanToDot1qDel(vlan);
        break;
      case Kind::dot1qEnabled:
        f.mplsConfig->vlanServiceDot1qEnabledIs(flag);
        break;
      case Kind::route:
        f.routeIs(label, Mpls::LfibViaSetKey(set));
        break;
      case Kind::routeDel:
        f.routeDel(label);
        break;
      case Kind::viaSet:
        f.viaSetIs(Mpls::LfibViaSetKey(set), via);
        break;
      case Kind::viaSetDel:
        f.viaSetDel(Mpls::LfibViaSetKey(set));
        break;
      case Kind::filterVia:
        f.filterViaIs(index, intf);
        break;
      case Kind::filterViaDel:
        f.filterViaDel(index);
        break;
      case Kind::backlog:
        f.backlogIs(label);
        break;
      case Kind::chipTables:
        f.chip->sizesIs(dot1qSize, portMapSize);
        break;
    }
  }

  void write(std::ostream& os) const override {
    switch (kind) {
      case Kind::vlanMember:
        os << "vlanMember: {vlan: " << vlan << ", intf: " << intf << "}";
        break;
      case Kind::vlanMemberDel:
        os << "vlanMemberDel: {vlan: " << vlan << ", intf: " << intf << "}";
        break;
      case Kind::vlanStatus:
        os << "vlanStatus: " << vlan;
        break;
      case Kind::vlanStatusDel:
        os << "vlanStatusDel: " << vlan;
        break;
      case Kind::dot1q:
        os << "dot1q: {vlan: " << vlan << ", tag: " << tag << "}";
        break;
      case Kind::dot1qDel:
        os << "dot1qDel: " << vlan;
        break;
      case Kind::dot1qEnabled:
        os << "dot1qEnabled: " << (flag ? "true" : "false");
        break;
      case Kind::route:
        os << "route: {label: " << label << ", viaSet: " << set << "}";
        break;
      case Kind::routeDel:
        os << "routeDel: " << label;
        break;
      case Kind::viaSet:
        os << "viaSet: {set: " << set << ", type: " << via.viaType()
           << ", index: " << via.viaIndex() << "}";
        break;
      case Kind::viaSetDel:
        os << "viaSetDel: " << set;
        break;
      case Kind::filterVia:
        os << "filterVia: {index: " << index << ", intf: " << intf << "}";
        break;
      case Kind::filterViaDel:
        os << "filterViaDel: " << index;
        break;
      case Kind::backlog:
        os << "backlog: " << label;
        break;
      case Kind::chipTables:
        os << "chipTables: {dot1q: " << dot1qSize << ", portMaps: " << portMapSize << "}";
        break;
    }
  }
};

using Kind = Dot1qDecapAction::Kind;
using ReadFn = void (*)(const Reader&, const YAML::Node&, Dot1qDecapAction&);

struct ActionDef {
  const char* name;
  Kind kind;
  ReadFn read;
};

Quil::MplsLabel routeLabel(const Reader& r, const YAML::Node& n) { return r.mplsLabel(n); }

Bridging::VlanIdOrNone tagOf(const Reader& r, const YAML::Node& n) {
  return r.parsed(n, "a dot1q tag (1-4094 or none)", Bridging::VlanIdOrNone::parse);
}

Mpls::LfibViaKey viaOf(const Reader& r, const YAML::Node& m) {
  const YAML::Node t = r.field(m, "type");
  const std::uint32_t type = r.count(t, "a via type (1-6; 6: Ethernet-segment filter)");
  if (type < 1 || type > 6) r.failExpected(t, "a via type (1-6; 6: Ethernet-segment filter)");
  return Mpls::LfibViaKey(static_cast<Mpls::LfibViaType>(type),
                          r.count(r.field(m, "index"), "a via index"));
}

void memberOf(const Reader& r, const YAML::Node& v, Dot1qDecapAction& a, const char* what) {
  r.onlyKeys(v, {"vlan", "intf"}, what);
  a.vlan = r.vlan(r.field(v, "vlan"));
  a.intf = r.segment(r.field(v, "intf"));
}

const ActionDef actionDefs[] = {
    {"vlanMember", Kind::vlanMember,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       memberOf(r, v, a, "vlanMember");
     }},
    {"vlanMemberDel", Kind::vlanMemberDel,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       memberOf(r, v, a, "vlanMemberDel");
     }},
    {"vlanStatus", Kind::vlanStatus,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) { a.vlan = r.vlan(v); }},
    {"vlanStatusDel", Kind::vlanStatusDel,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) { a.vlan = r.vlan(v); }},
    {"dot1q", Kind::dot1q,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       r.onlyKeys(v, {"vlan", "tag"}, "dot1q");
       a.vlan = r.vlan(r.field(v, "vlan"));
       a.tag = tagOf(r, r.field(v, "tag"));
     }},
    {"dot1qDel", Kind::dot1qDel,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) { a.vlan = r.vlan(v); }},
    {"dot1qEnabled", Kind::dot1qEnabled,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) { a.flag = r.flag(v); }},
    {"route", Kind::route,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       r.onlyKeys(v, {"label", "viaSet"}, "route");
       a.label = routeLabel(r, r.field(v, "label"));
       a.set = r.count(r.field(v, "viaSet"), "a via set number");
     }},
    {"routeDel", Kind::routeDel,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) { a.label = routeLabel(r, v); }},
    {"viaSet", Kind::viaSet,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       r.onlyKeys(v, {"set", "type", "index"}, "viaSet");
       a.set = r.count(r.field(v, "set"), "a via set number");
       a.via = viaOf(r, v);
     }},
    {"viaSetDel", Kind::viaSetDel,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       a.set = r.count(v, "a via set number");
     }},
    {"filterVia", Kind::filterVia,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       r.onlyKeys(v, {"index", "intf"}, "filterVia");
       a.index = r.count(r.field(v, "index"), "a via index");
       a.intf = r.segment(r.field(v, "intf"));
     }},
    {"filterViaDel", Kind::filterViaDel,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       a.index = r.count(v, "a via index");
     }},
    {"backlog", Kind::backlog,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) { a.label = routeLabel(r, v); }},
    {"chipTables", Kind::chipTables,
     [](const Reader& r, const YAML::Node& v, Dot1qDecapAction& a) {
       r.onlyKeys(v, {"dot1q", "portMaps"}, "chipTables");
       a.dot1qSize = r.count(r.field(v, "dot1q"), "a number of dot1q mappings");
       a.portMapSize = r.count(r.field(v, "portMaps"), "a number of ESI port maps");
     }},
};

// ---- table entries given as maps ----------------------------------------------------------------

std::string dot1qEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"port", "vlan", "dot1q"}, "a dot1q mapping");
  return dot1qLine({r.port(r.field(n, "port")), r.vlan(r.field(n, "vlan"))},
                   tagOf(r, r.field(n, "dot1q")));
}

std::string portMapEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"label", "intf"}, "an ESI port map");
  return portMapLine(routeLabel(r, r.field(n, "label")), r.segment(r.field(n, "intf")));
}

std::string unprogrammedRouteEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"label", "reason"}, "an unprogrammed route");
  std::ostringstream os;
  os << "label " << routeLabel(r, r.field(n, "label")) << " "
     << r.parsed(r.field(n, "reason"), "a return code (lfibHwProgramming...)",
                 Mpls::parseLfibHwProgrammingReturnCode);
  return os.str();
}

// ---- the fuzzer's world -------------------------------------------------------------------------

// The interfaces a seed plays with, apart from the tunnel-id and ESI family's segments (a physical
// port belongs to one LAG or stands alone, as on a switch): LAGs Port-Channel11.. with ports of
// their own, plain ports Ethernet41..; VLANs, tags, route labels, via sets and filter vias over
// small ranges, so that routes meet on interfaces and VLANs share tags.
struct World {
  std::vector<Quil::IntfId> intfs;
  std::vector<Quil::IntfId> lags;
  std::map<Quil::IntfId, std::vector<Quil::IntfId>> lagPorts;
  std::vector<Bridging::VlanId> vlans;
  std::vector<Quil::MplsLabel> labels;
};

World makeWorld(Rng& r) {
  World w;
  std::uint32_t port = 31;
  for (std::uint64_t n = 1 + r.below(2), i = 0; i < n; ++i) {
    const auto lag = Quil::IntfId::portChannel(static_cast<std::uint32_t>(11 + i));
    for (std::uint64_t k = 1 + r.below(3); k > 0; --k) {
      w.lagPorts[lag].push_back(Quil::IntfId::ethernet(port++));
    }
    w.lags.push_back(lag);
    w.intfs.push_back(lag);
  }
  for (std::uint64_t n = 1 + r.below(3), i = 0; i < n; ++i) {
    w.intfs.push_back(Quil::IntfId::ethernet(static_cast<std::uint32_t>(41 + i)));
  }
  for (std::uint64_t n = 2 + r.below(2), i = 0; i < n; ++i) {
    w.vlans.push_back(Bridging::VlanId(static_cast<std::uint16_t>(100 * (i + 1))));
  }
  for (std::uint64_t n = 2 + r.below(4), i = 0; i < n; ++i) {
    w.labels.push_back(Quil::MplsLabel(static_cast<std::uint32_t>(3001 + i)));
  }
  return w;
}

class Dot1qDecapFuzz : public FamilyFuzz {
 public:
  explicit Dot1qDecapFuzz(Rng& r) : w_(makeWorld(r)) {}

  // The kinds past the inputs' own: a LAG's members (written as the ESI family's action) and a
  // refusal rule for port maps.
  static constexpr std::uint32_t lagKind = 100, lagDelKind = 101, refusePortMapKind = 102;

  void choices(bool initial, std::vector<Choice>& out) const override {
    static constexpr std::pair<Kind, std::uint64_t> weights[] = {
        {Kind::vlanMember, 10}, {Kind::vlanMemberDel, 4}, {Kind::vlanStatusDel, 1},
        {Kind::dot1q, 6},       {Kind::dot1qDel, 2},      {Kind::dot1qEnabled, 1},
        {Kind::route, 6},       {Kind::routeDel, 3},      {Kind::viaSet, 5},
        {Kind::viaSetDel, 1},   {Kind::filterVia, 4},     {Kind::filterViaDel, 1},
        {Kind::backlog, 1},     {Kind::chipTables, 1},
    };
    for (const auto& [kind, weight] : weights) {
      out.push_back({static_cast<std::uint32_t>(kind), weight});
    }
    out.push_back({lagKind, 4});
    out.push_back({lagDelKind, 1});
    if (!initial) out.push_back({refusePortMapKind, 2});
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    if (kind == lagKind || kind == lagDelKind) {
      const Quil::IntfId lag = r.pick(w_.lags);
      if (kind == lagDelKind) return lagAction(lag, std::nullopt);
      std::vector<Quil::IntfId> members;
      for (Quil::IntfId p : w_.lagPorts.at(lag)) {
        if (r.chance(0.6)) members.push_back(p);
      }
      return lagAction(lag, std::move(members));
    }
    if (kind == refusePortMapKind) {
      // Every code the machine survives: resource full, failed, and codes it does not define.
      static constexpr std::uint32_t codes[] = {2, 2, 3, 3, 4, 9};
      SoftwareChip::Refusal rule{.op = "createEsiPortMap",
                                 .port = r.pick(w_.intfs),
                                 .times = static_cast<std::int64_t>(1 + r.below(3)),
                                 .rc = codes[r.below(6)]};
      return refusalAction(rule);
    }
    auto a = std::make_shared<Dot1qDecapAction>();
    a->kind = static_cast<Kind>(kind);
    switch (a->kind) {
      case Kind::vlanMember:
      case Kind::vlanMemberDel:
        a->vlan = r.pick(w_.vlans);
        a->intf = r.pick(w_.intfs);
        break;
      case Kind::vlanStatus:
      case Kind::vlanStatusDel:
      case Kind::dot1qDel:
        a->vlan = r.pick(w_.vlans);
        break;
      case Kind::dot1q:
        a->vlan = r.pick(w_.vlans);
        a->tag = Bridging::VlanIdOrNone(
            r.chance(0.1) ? 0 : static_cast<std::uint16_t>(501 + r.below(3)));
        break;
      case Kind::dot1qEnabled:
        a->flag = r.chance(0.5);
        break;
      case Kind::route:
        a->label = r.pick(w_.labels);
        a->set = static_cast<std::uint32_t>(1 + r.below(3));
        break;
      case Kind::routeDel:
      case Kind::backlog:
        a->label = r.pick(w_.labels);
        break;
      case Kind::viaSet:
        a->set = static_cast<std::uint32_t>(1 + r.below(3));
        // Mostly a filter via; now and then an EVPN MPLS via, which the machine skips.
        a->via = Mpls::LfibViaKey(r.chance(0.8) ? filterType : Mpls::LfibViaType::viaTypeEvpnMpls,
                                  static_cast<std::uint32_t>(1 + r.below(3)));
        break;
      case Kind::viaSetDel:
        a->set = static_cast<std::uint32_t>(1 + r.below(3));
        break;
      case Kind::filterVia:
        a->index = static_cast<std::uint32_t>(1 + r.below(3));
        a->intf = r.pick(w_.intfs);
        break;
      case Kind::filterViaDel:
        a->index = static_cast<std::uint32_t>(1 + r.below(3));
        break;
      case Kind::chipTables:
        // Mostly roomy; now and then a table that runs full.
        a->dot1qSize = r.chance(0.8) ? 4096 : static_cast<std::uint32_t>(2 + r.below(8));
        a->portMapSize = r.chance(0.8) ? 1024 : static_cast<std::uint32_t>(1 + r.below(3));
        break;
    }
    return Action{0, a};
  }

 private:
  World w_;
};

bool pending(const Kiv::Ptr<Mox::TimerTask>& task) { return task && task->taskScheduled(); }

// ---- the family ---------------------------------------------------------------------------------

class Dot1qDecapFamily : public Family {
 public:
  std::string_view name() const override { return "dot1qDecap"; }
  // Its machines program over the tunnel-id family's EVPN status and LAG membership.
  std::vector<const Family*> buildsOn() const override { return {&tunnelEsiFamily()}; }
  std::vector<std::string> machines() const override {
    return {"floodingDot1q", "esiFilteringDecap"};
  }

  std::vector<ChipOperation> chipOperations() const override {
    auto hwRc = [](const Reader& r, const YAML::Node& n) {
      return static_cast<std::uint32_t>(
          r.parsed(n, "notProgrammed or invalidHwId", Oba::parseHwProgrammingStatus));
    };
    auto hwText = [](std::uint32_t v) {
      return std::string(Oba::toString(static_cast<Oba::HwProgrammingStatus>(v)));
    };
    // A port map's code: an enumerator's name, or any other number the chip might answer.
    const char* const lfibWhat = "a return code (lfibHwProgramming..., or a number above 3)";
    auto lfibRc = [lfibWhat](const Reader& r, const YAML::Node& n) {
      const std::string s = r.scalar(n, lfibWhat);
      std::uint32_t v = 0;
      auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
      if (ec == std::errc() && end == s.data() + s.size()) {
        if (v == 0) r.failExpected(n, lfibWhat);
        return v;
      }
      const auto rc = r.parsed(n, lfibWhat, Mpls::parseLfibHwProgrammingReturnCode);
      if (rc == Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess) {
        r.failExpected(n, lfibWhat);
      }
      return static_cast<std::uint32_t>(rc);
    };
    auto lfibText = [](std::uint32_t v) {
      if (v > 3) return std::to_string(v);
      std::ostringstream os;
      os << static_cast<Mpls::LfibHwProgrammingReturnCode>(v);
      return os.str();
    };
    const auto notProgrammed = static_cast<std::uint32_t>(Oba::HwProgrammingStatus::notProgrammed);
    const auto failed =
        static_cast<std::uint32_t>(Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingFailed);
    return {
        {"createVlanToDot1qMapping", "notProgrammed or invalidHwId", hwRc, notProgrammed, true,
         true, hwText},
        {"createEsiPortMap", lfibWhat, lfibRc, failed, true, false, lfibText,
         [](const Reader& r, const YAML::Node& n) { return r.segment(n); }},
    };
  }

  std::vector<ActionKind> actions() const override {
    std::vector<ActionKind> out;
    for (const auto& def : actionDefs) {
      out.push_back({def.name, [&def](const Reader& r, const YAML::Node& v) {
                       auto a = std::make_shared<Dot1qDecapAction>();
                       a->kind = def.kind;
                       def.read(r, v, *a);
                       return std::shared_ptr<const ActionBody>(a);
                     }});
    }
    return out;
  }

  std::vector<TableKind> tables() const override {
    return {{"dot1q", "lines", dot1qEntry},
            {"esiPortMaps", "lines", portMapEntry},
            {"unprogrammedRoutes", "lines", unprogrammedRouteEntry}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<Dot1qDecapAgent>(agent);
  }

  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions&) const override {
    return std::make_unique<Dot1qDecapFuzz>(rng);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<UnprogrammedRoutesTable>()};
  }

  std::vector<FuzzFlag> fuzzFlags() const override {
    return {canaryFlag("--canary-drop-dot1q-delete",
                       "test the checks: the chip loses its N-th deleteVlanToDot1qMapping",
                       Dot1qDecapChip::canaryDropDeleteDot1qIs,
                       Dot1qDecapChip::canaryDropDeleteDot1q)};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    os << get(c, "dot1qChecked") << " dot1q mappings and " << get(c, "portMapsChecked")
       << " ESI port maps compared, ";
  }
  void printAllowances(const Counters& c, std::ostream& os) const override {
    os << "allowed: " << get(c, "parkedDot1q") << " parked dot1q ports, "
       << get(c, "parkedConflict") << " routes behind an interface conflict, "
       << get(c, "parkedRefused") << " refused routes, " << get(c, "undefinedRc")
       << " routes answered an undefined code, " << get(c, "otherViaType")
       << " port maps of routes turned to another via type, " << get(c, "parkedOtherType")
       << " parked routes turned to another via type";
  }

 private:
  static std::uint64_t get(const Counters& c, const char* name) {
    auto it = c.find(name);
    return it == c.end() ? 0 : it->second;
  }
};

}  // namespace

void Dot1qDecapAgent::draw(DotGraph& graph) const { drawDot1qDecap(*this, graph); }

// The dot1q drain, its retries while the chip has room, the backlog drain, and the retries of
// parked routes that could now go through.
bool Dot1qDecapAgent::busy() const {
  if (const auto& sm = floodingDot1qSm) {
    if (pending(sm->reviewIntfVlan()->task())) return true;
    if (pending(sm->reviewUnprogrammed()->task()) && chip->dot1q().size() < chip->dot1qSize())
      return true;
  }
  if (const auto& sm = decapSm) {
    if (pending(sm->reviewRouteKeyBacklog()->task())) return true;
    if (pending(sm->reviewUnprogrammed()->task()) && parkedRouteCouldMove(*this)) return true;
  }
  return false;
}

void Dot1qDecapAgent::count(Counters& c) const {
  c["dot1qChecked"] += chip->dot1q().size();
  c["portMapsChecked"] += chip->portMaps().size();
}

std::optional<CheckFailure> Dot1qDecapAgent::check(Counters* counters) const {
  return checkDot1qDecap(*this, counters);
}

ExpectedTables Dot1qDecapAgent::finalExpectations() const {
  std::vector<std::string> dot1q, portMaps;
  for (const auto& [key, tag] : compareDot1q(*this, nullptr).wanted)
    dot1q.push_back(dot1qLine(key, tag));
  for (const auto& [label, intf] : comparePortMaps(*this, nullptr).wanted) {
    portMaps.push_back(portMapLine(label, intf));
  }
  return {{"dot1q", dot1q}, {"esiPortMaps", portMaps}};
}

const Family& dot1qDecapFamily() {
  static const Dot1qDecapFamily family;
  return family;
}

}  // namespace Sim
