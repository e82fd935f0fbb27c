#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "sim/ChipOperations.h"
#include "sim/FamilyHelpers.h"
#include "sim/Fuzz.h"
#include "sim/Rng.h"
#include "sim/ScenarioReader.h"
#include "sim/families/tunnelEsi/TunnelEsiCheck.h"
#include "sim/families/tunnelEsi/TunnelEsiTables.h"

namespace Sim {

// ---- the agent's part ---------------------------------------------------------------------------

// Every write to the mapping table, as readers of the table see it.
class TunnelEsiAgent::MappingLog : public Oba::TunnelIdToHwTunnelIdMapping::NotifieeConst {
 public:
  explicit MappingLog(TunnelEsiAgent* family) : family_(family) { notifierIs(family->mapping); }
  void onTunnelIdToHwTunnelId(const Tunnel::TunnelTable::TunnelId& tunnel) override {
    if (!family_->agent.log().enabled()) return;
    auto row = notifier()->tunnelIdToHwTunnelId(tunnel);
    std::ostringstream os;
    if (row.found) {
      os << row.row.compactString();
    } else {
      os << tunnel << " deleted";
    }
    family_->agent.note("mapping", os.str());
  }

 private:
  TunnelEsiAgent* family_;
};

TunnelEsiAgent::TunnelEsiAgent(HostAgent& a)
    : agent(a),
      chip(TunnelEsiChip::TunnelEsiChipIs(a.chip)),
      evpnStatus(new Evpn::EvpnStatus),
      acsd(new Oba::ObaCommonSmData),
      mapping(new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId")),
      mappingLog_(std::make_unique<MappingLog>(this)) {}

TunnelEsiAgent::~TunnelEsiAgent() = default;

void TunnelEsiAgent::startHwTunnelIdSm() {
  hwTunnelIdSm = Oba::evpnHwTunnelIdSmFactory(chip->hwTunnelIdHelper(), agent.scheduler, acsd,
                                              evpnStatus, mapping);
}

void TunnelEsiAgent::startFloodingEsiSm() {
  floodingEsiSm = Oba::evpnFloodingEsiSmFactory(chip->floodingHelper(), agent.scheduler, acsd,
                                                evpnStatus, mapping);
}

void TunnelEsiAgent::start() {
  // The writer of the mapping first, so the flooding machine starts over published ids.
  startHwTunnelIdSm();
  startFloodingEsiSm();
}

void TunnelEsiAgent::stop() {
  floodingEsiSm = nullptr;
  hwTunnelIdSm = nullptr;
}

// A new incarnation of the flooding machine rewrites the ESI data its inputs call for, over what
// the chip still holds from the old one; what it does not hold as programmed after its first walk
// would stay in the chip for good, since it only ever deletes what it programmed itself: entries of
// a tunnel that has no hardware id now (the old one was given back), of a pair whose remote label
// turned to another encapsulation, of ports the chip refused this time. The agent deletes them.
void TunnelEsiAgent::reconcileEsiData() {
  std::set<TunnelEsiChip::PortVlan> held;
  for (auto [key, status] : floodingEsiSm->esiStatusWalk()) {
    for (auto [port, member] : status.programmedWalk()) held.emplace(port, key.vlanId());
  }
  std::vector<TunnelEsiChip::PortVlan> left;
  for (const auto& [key, entry] : chip->esiData()) {
    if (!held.contains(key)) left.push_back(key);
  }
  for (const auto& [port, vlan] : left) chip->deleteEsiData(port, vlan);
}

void TunnelEsiAgent::restart(const std::string& machine) {
  if (machine == "floodingEsi") {
    floodingEsiSm = nullptr;
    startFloodingEsiSm();
    reconcileEsiData();
    return;
  }
  // The new incarnation asks for ids afresh, so the ids the old one published go back to the chip,
  // or they would leak. Readers must stop using an id before the chip may hand it out again: the
  // ESI data that names a published id is deleted and the rows are removed first, and only then
  // do the ids go back. The flooding machine reads the table and forgets a tunnel's users when its
  // row goes, so a row that comes back would never reprogram them: the reader restarts with its
  // writer, after it.
  stop();
  std::vector<std::pair<Tunnel::TunnelTable::TunnelId, Oba::HwTunnelId>> rows;
  std::set<std::uint32_t> published;
  for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
    rows.emplace_back(tunnel, row.hwTunnelId());
    published.insert(row.hwTunnelId().value());
  }
  std::vector<TunnelEsiChip::PortVlan> naming;
  for (const auto& [key, entry] : chip->esiData()) {
    if (published.contains(entry.hw.value())) naming.push_back(key);
  }
  for (const auto& [port, vlan] : naming) chip->deleteEsiData(port, vlan);
  for (const auto& [tunnel, hw] : rows) mapping->tunnelIdToHwTunnelIdDel(tunnel);
  for (const auto& [tunnel, hw] : rows) chip->releaseHwTunnelId(hw);
  start();
  reconcileEsiData();
}

std::vector<std::string> TunnelEsiAgent::esiDataLines() const {
  std::vector<std::string> out;
  for (const auto& [key, e] : chip->esiData()) out.push_back(esiLine(key, e));
  return out;
}

std::vector<std::string> TunnelEsiAgent::mappingLines() const {
  std::vector<std::string> out;
  for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
    out.push_back(row.compactString());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> TunnelEsiAgent::hwTunnelIdLines() const {
  std::vector<std::string> out;
  for (std::uint32_t id : chip->hwTunnelIdsInUse()) out.push_back(std::to_string(id));
  return out;
}

std::vector<std::string> TunnelEsiAgent::lines(std::string_view table) const {
  if (table == "esiData") return esiDataLines();
  if (table == "mapping") return mappingLines();
  return hwTunnelIdLines();
}

void TunnelEsiAgent::printChip(std::ostream& os) const {
  os << "chip esiData:\n" << block(esiDataLines());
  os << "chip hwTunnelIds in use:\n" << block(hwTunnelIdLines());
}

void TunnelEsiAgent::printOutputs(std::ostream& os) const {
  os << "mapping tunnelIdToHwTunnelId:\n" << block(mappingLines());
}

void TunnelEsiAgent::publish(Publisher& p) {
  mapping->tunnelIdToHwTunnelIdBackingIs(p.backing<MappingTable>());
}

namespace {

TunnelEsiAgent& esi(HostAgent& agent) { return agent.part<TunnelEsiAgent>(); }

// ---- actions ------------------------------------------------------------------------------------

// The family's inputs and its chip pool, changed as a scenario step says.
class EsiAction : public ActionBody {
 public:
  enum class Kind : std::uint32_t {
    designatedForwarder,     // segment, vlan, tep
    designatedForwarderDel,  // segment, vlan
    remoteEsiLabel,          // segment, tep, label
    remoteEsiLabelDel,       // segment, tep
    localEsiLabel,           // segment, label
    localEsiLabelDel,        // segment
    segment,                 // segment (an empty segment status)
    segmentDel,              // segment
    lag,                     // lag, members
    lagDel,                  // lag
    chipPool,                // count
  };
  Kind kind{};
  Quil::IntfId segment;  // also the LAG of lag/lagDel
  Bridging::VlanId vlan;
  Quil::IntfId tep;
  Evpn::EncapTypeLabel label;
  std::vector<Quil::IntfId> members;
  std::uint32_t count = 0;

  void apply(HostAgent& agent) const override {
    TunnelEsiAgent& f = esi(agent);
    auto& evpnStatus = f.evpnStatus;
    switch (kind) {
      case Kind::designatedForwarder:
        evpnStatus->segmentStatusIs(segment)->designatedForwarderTepIs(vlan, tep);
        break;
      case Kind::designatedForwarderDel:
        if (auto ess = evpnStatus->segmentStatus(segment)) ess->designatedForwarderTepDel(vlan);
        break;
      case Kind::remoteEsiLabel:
        evpnStatus->segmentStatusIs(segment)->remoteEsiLabelIs(tep, label);
        break;
      case Kind::remoteEsiLabelDel:
        if (auto ess = evpnStatus->segmentStatus(segment)) ess->remoteEsiLabelDel(tep);
        break;
      case Kind::localEsiLabel:
        evpnStatus->localEsiLabelIs(segment, label);
        break;
      case Kind::localEsiLabelDel:
        evpnStatus->localEsiLabelDel(segment);
        break;
      case Kind::segment:
        evpnStatus->segmentStatusIs(segment);
        break;
      case Kind::segmentDel:
        evpnStatus->segmentStatusDel(segment);
        break;
      case Kind::lag:
        f.acsd->lagToPortIs(segment, new Oba::ObaLagPortList(members));
        break;
      case Kind::lagDel:
        f.acsd->lagToPortDel(segment);
        break;
      case Kind::chipPool:
        f.chip->hwTunnelIdPoolIs(count);
        break;
    }
  }

  void write(std::ostream& os) const override {
    switch (kind) {
      case Kind::designatedForwarder:
        os << "designatedForwarder: {segment: " << segment << ", vlan: " << vlan << ", tep: " << tep
           << "}";
        break;
      case Kind::designatedForwarderDel:
        os << "designatedForwarderDel: {segment: " << segment << ", vlan: " << vlan << "}";
        break;
      case Kind::remoteEsiLabel:
        os << "remoteEsiLabel: {segment: " << segment << ", tep: " << tep << ", label: " << label
           << "}";
        break;
      case Kind::remoteEsiLabelDel:
        os << "remoteEsiLabelDel: {segment: " << segment << ", tep: " << tep << "}";
        break;
      case Kind::localEsiLabel:
        os << "localEsiLabel: {segment: " << segment << ", label: " << label << "}";
        break;
      case Kind::localEsiLabelDel:
        os << "localEsiLabelDel: " << segment;
        break;
      case Kind::segment:
        os << "segment: " << segment;
        break;
      case Kind::segmentDel:
        os << "segmentDel: " << segment;
        break;
      case Kind::lag:
        os << "lag: {lag: " << segment << ", members: [";
        for (std::size_t i = 0; i < members.size(); ++i) os << (i ? ", " : "") << members[i];
        os << "]}";
        break;
      case Kind::lagDel:
        os << "lagDel: " << segment;
        break;
      case Kind::chipPool:
        os << "chipPool: " << count;
        break;
    }
  }
};

using Kind = EsiAction::Kind;

// Reads one kind's value into an action.
using ReadFn = void (*)(const Reader&, const YAML::Node&, EsiAction&);

struct ActionDef {
  const char* name;
  Kind kind;
  ReadFn read;
};

const ActionDef actionDefs[] = {
    {"designatedForwarder", Kind::designatedForwarder,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) {
       r.onlyKeys(v, {"segment", "vlan", "tep"}, "designatedForwarder");
       a.segment = r.segment(r.field(v, "segment"));
       a.vlan = r.vlan(r.field(v, "vlan"));
       a.tep = r.tep(r.field(v, "tep"));
     }},
    {"designatedForwarderDel", Kind::designatedForwarderDel,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) {
       r.onlyKeys(v, {"segment", "vlan"}, "designatedForwarderDel");
       a.segment = r.segment(r.field(v, "segment"));
       a.vlan = r.vlan(r.field(v, "vlan"));
     }},
    {"remoteEsiLabel", Kind::remoteEsiLabel,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) {
       r.onlyKeys(v, {"segment", "tep", "label"}, "remoteEsiLabel");
       a.segment = r.segment(r.field(v, "segment"));
       a.tep = r.tep(r.field(v, "tep"));
       a.label = r.label(r.field(v, "label"));
     }},
    {"remoteEsiLabelDel", Kind::remoteEsiLabelDel,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) {
       r.onlyKeys(v, {"segment", "tep"}, "remoteEsiLabelDel");
       a.segment = r.segment(r.field(v, "segment"));
       a.tep = r.tep(r.field(v, "tep"));
     }},
    {"localEsiLabel", Kind::localEsiLabel,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) {
       r.onlyKeys(v, {"segment", "label"}, "localEsiLabel");
       a.segment = r.segment(r.field(v, "segment"));
       a.label = r.localLabel(r.field(v, "label"));
     }},
    {"localEsiLabelDel", Kind::localEsiLabelDel,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) { a.segment = r.segment(v); }},
    {"segment", Kind::segment,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) { a.segment = r.segment(v); }},
    {"segmentDel", Kind::segmentDel,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) { a.segment = r.segment(v); }},
    {"lag", Kind::lag,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) {
       r.onlyKeys(v, {"lag", "members"}, "lag");
       a.segment = r.lag(r.field(v, "lag"));
       if (!r.field(v, "members").IsSequence()) r.failExpected(v["members"], "a list of ports");
       for (const auto& m : v["members"]) a.members.push_back(r.port(m));
     }},
    {"lagDel", Kind::lagDel,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) { a.segment = r.lag(v); }},
    {"chipPool", Kind::chipPool,
     [](const Reader& r, const YAML::Node& v, EsiAction& a) {
       a.count = r.count(v, "a number of hardware tunnel ids");
     }},
};

// What each physical port is in a scenario, as its actions are read: a segment of its own, or a
// member of one LAG at a time. A port that were both, or in two LAGs, would have its ESI data
// written and deleted by two owners, which no switch configuration allows.
class PortRoles {
 public:
  void check(const Reader& r, const YAML::Node& v, const EsiAction& a) {
    switch (a.kind) {
      case Kind::lag:
        lag(r, v, a);
        break;
      case Kind::lagDel:
        for (auto it = memberOf_.begin(); it != memberOf_.end();) {
          it = it->second.lag == a.segment ? memberOf_.erase(it) : std::next(it);
        }
        break;
      case Kind::chipPool:
        break;
      default:
        if (a.segment.isEthernet()) plain(r, v.IsMap() ? v["segment"] : v, a.segment);
    }
  }

 private:
  struct Use {
    Quil::IntfId lag;
    int line;
  };

  void plain(const Reader& r, const YAML::Node& n, Quil::IntfId port) {
    if (auto m = everMember_.find(port); m != everMember_.end()) {
      r.fail(n, port.toString() + " is a member of " + m->second.lag.toString() + " (line " +
                    std::to_string(m->second.line) + "); a LAG member is no segment of its own");
    }
    plain_.try_emplace(port, n.Mark().line + 1);
  }

  void lag(const Reader& r, const YAML::Node& v, const EsiAction& a) {
    for (auto it = memberOf_.begin(); it != memberOf_.end();) {
      it = it->second.lag == a.segment ? memberOf_.erase(it) : std::next(it);
    }
    std::size_t i = 0;
    for (const auto& m : v["members"]) {
      const Quil::IntfId port = a.members[i++];
      const int line = m.Mark().line + 1;
      if (auto p = plain_.find(port); p != plain_.end()) {
        r.fail(m, port.toString() + " is a segment of its own (line " + std::to_string(p->second) +
                      "); it cannot be a LAG member too");
      }
      auto [at, fresh] = memberOf_.try_emplace(port, Use{a.segment, line});
      if (!fresh) {
        r.fail(m, port.toString() + " is a member of " + at->second.lag.toString() + " (line " +
                      std::to_string(at->second.line) + ") already");
      }
      everMember_.try_emplace(port, Use{a.segment, line});
    }
  }

  std::map<Quil::IntfId, int> plain_;       // a segment of its own, first named at the line
  std::map<Quil::IntfId, Use> memberOf_;    // a member now, since the line
  std::map<Quil::IntfId, Use> everMember_;  // a member at some time, first at the line
};

// ---- table entries given as maps ----------------------------------------------------------------

std::string esiEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"port", "vlan", "tunnel", "hw", "label", "local"}, "an ESI entry");
  const Quil::IntfId tep = r.tep(r.field(n, "tunnel"));
  TunnelEsiChip::EsiEntry e{Tunnel::TunnelTable::TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)),
                            Oba::HwTunnelId(r.count(r.field(n, "hw"), "a hardware tunnel id")),
                            r.mplsLabel(r.field(n, "label")), r.mplsLabel(r.field(n, "local"))};
  return esiLine({r.port(r.field(n, "port")), r.vlan(r.field(n, "vlan"))}, e);
}

std::string mappingEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"tunnel", "hw"}, "a mapping row");
  const Quil::IntfId tep = r.tep(r.field(n, "tunnel"));
  return Oba::TunnelIdToHwTunnelId(
             Tunnel::TunnelTable::TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)),
             Oba::HwTunnelId(r.count(r.field(n, "hw"), "a hardware tunnel id")))
      .compactString();
}

// ---- the fuzzer's world -------------------------------------------------------------------------

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

// Hardware tunnel ids at the start of a seed: few, so that they run out.
constexpr std::uint32_t poolDefault = 4;

class EsiFuzz : public FamilyFuzz {
 public:
  EsiFuzz(Rng& r, const FuzzOptions& o)
      : w_(makeWorld(r)), pool_(static_cast<std::uint32_t>(o.setting("pool", poolDefault))) {}

  std::vector<Action> setup() const override {
    auto a = std::make_shared<EsiAction>();
    a->kind = Kind::chipPool;
    a->count = pool_;
    return {Action{0, a}};
  }

  void choices(bool, std::vector<Choice>& out) const override {
    // Relative weights of the kinds; LAG kinds need a LAG.
    static constexpr std::pair<Kind, std::uint64_t> weights[] = {
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
    };
    for (const auto& [kind, weight] : weights) {
      if ((kind == Kind::lag || kind == Kind::lagDel) && w_.lags.empty()) continue;
      out.push_back({static_cast<std::uint32_t>(kind), weight});
    }
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    auto a = std::make_shared<EsiAction>();
    a->kind = static_cast<Kind>(kind);
    switch (a->kind) {
      case Kind::designatedForwarder:
        a->segment = r.pick(w_.segments);
        a->vlan = r.pick(w_.vlans);
        a->tep = r.pick(w_.endpoints.at(a->segment));
        break;
      case Kind::designatedForwarderDel:
        a->segment = r.pick(w_.segments);
        a->vlan = r.pick(w_.vlans);
        break;
      case Kind::remoteEsiLabel:
        a->segment = r.pick(w_.segments);
        a->tep = r.pick(w_.endpoints.at(a->segment));
        a->label = remoteLabel(r);
        break;
      case Kind::remoteEsiLabelDel:
        a->segment = r.pick(w_.segments);
        a->tep = r.pick(w_.endpoints.at(a->segment));
        break;
      case Kind::localEsiLabel:
        a->segment = r.pick(w_.segments);
        a->label = localLabel(r);
        break;
      case Kind::localEsiLabelDel:
      case Kind::segment:
      case Kind::segmentDel:
        a->segment = r.pick(w_.segments);
        break;
      case Kind::lag:
        a->segment = r.pick(w_.lags);
        for (Quil::IntfId p : w_.lagPorts.at(a->segment)) {
          if (r.chance(0.6)) a->members.push_back(p);
        }
        break;
      case Kind::lagDel:
        a->segment = r.pick(w_.lags);
        break;
      case Kind::chipPool:
        // Mostly around the starting size; now and then none at all.
        a->count = r.chance(0.1)
                       ? 0
                       : static_cast<std::uint32_t>(
                             1 + r.below(std::max<std::uint64_t>(1, 2 * std::uint64_t{pool_})));
        break;
    }
    return Action{0, a};
  }

 private:
  World w_;
  std::uint32_t pool_;
};

bool reviewPending(const Kiv::Ptr<Mox::TimerTask>& task) { return task && task->taskScheduled(); }

// ---- the family ---------------------------------------------------------------------------------

class TunnelEsiFamily : public Family {
 public:
  std::string_view name() const override { return "tunnelEsi"; }
  std::vector<std::string> machines() const override { return {"hwTunnelId", "floodingEsi"}; }

  std::vector<ChipOperation> chipOperations() const override {
    return {hwProgrammingOperation("getHwTunnelId", false, false),
            hwProgrammingOperation("createEsiData", true, true)};
  }

  std::vector<ActionKind> actions() const override {
    // One scenario's reads share what its ports are, in the order the file gives them.
    auto ports = std::make_shared<PortRoles>();
    std::vector<ActionKind> out;
    for (const auto& def : actionDefs) {
      out.push_back({def.name, [&def, ports](const Reader& r, const YAML::Node& v) {
                       auto a = std::make_shared<EsiAction>();
                       a->kind = def.kind;
                       def.read(r, v, *a);
                       ports->check(r, v, *a);
                       return std::shared_ptr<const ActionBody>(a);
                     }});
    }
    return out;
  }

  std::vector<TableKind> tables() const override {
    return {{"esiData", "lines", esiEntry},
            {"mapping", "lines", mappingEntry},
            {"hwTunnelIds", "ids", nullptr}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<TunnelEsiAgent>(agent);
  }

  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) const override {
    return std::make_unique<EsiFuzz>(rng, options);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<MappingTable>()};
  }

  std::vector<FuzzFlag> fuzzFlags() const override {
    // A pool of none is no world: every tunnel would wait for good.
    return {settingFlag("pool", "hardware tunnel ids at the start of a seed (default 4)",
                        poolDefault, 1),
            canaryFlag(
                "--canary-drop-delete", "test the checks: the chip loses its N-th deleteEsiData",
                TunnelEsiChip::canaryDropDeleteEsiDataIs, TunnelEsiChip::canaryDropDeleteEsiData)};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    os << counter(c, "esiEntriesChecked") << " ESI entries compared, ";
  }
  void printAllowances(const Counters& c, std::ostream& os) const override {
    os << "allowed: " << counter(c, "parkedPort") << " parked ports, "
       << counter(c, "staleLocalLabel") << " stale local labels, " << counter(c, "nonMplsRemote")
       << " non-MPLS remote labels";
  }
};

}  // namespace

Action lagAction(Quil::IntfId lag, std::optional<std::vector<Quil::IntfId>> members) {
  auto a = std::make_shared<EsiAction>();
  a->kind = members ? Kind::lag : Kind::lagDel;
  a->segment = lag;
  if (members) a->members = std::move(*members);
  return Action{0, a};
}

void TunnelEsiAgent::draw(DotGraph& graph) const { drawTunnelEsi(*this, graph); }

// The flooding machine's retries, and the tunnel-id machine's while the chip has an id to give.
bool TunnelEsiAgent::busy() const {
  const bool flooding = floodingEsiSm && floodingEsiSm->reviewUnprogrammed() &&
                        reviewPending(floodingEsiSm->reviewUnprogrammed()->task());
  const bool hw = hwTunnelIdSm && hwTunnelIdSm->reviewUnprogrammed() &&
                  reviewPending(hwTunnelIdSm->reviewUnprogrammed()->task()) &&
                  chip->freeHwTunnelId() != 0;
  return flooding || hw;
}

void TunnelEsiAgent::count(Counters& c) const { c["esiEntriesChecked"] += chip->esiData().size(); }

void TunnelEsiAgent::ledger(std::vector<std::string>& out) const {
  for (auto& l : checkHwTunnelIdLedger(*this)) {
    out.push_back(std::move(l));
  }
}

std::optional<CheckFailure> TunnelEsiAgent::check(Counters* counters) const {
  return checkTunnelEsi(*this, counters);
}

ExpectedTables TunnelEsiAgent::finalExpectations() const {
  std::vector<std::string> esiLines, mappingLines, hwIds;
  for (const auto& [key, e] : compareEsiData(*this, nullptr).wanted) {
    esiLines.push_back(esiLine(key, e));
  }
  // The rows whose tunnels are in use, and the ids those rows hold.
  std::set<Tunnel::TunnelTable::TunnelId> inUse;
  for (auto [intf, ess] : evpnStatus->segmentStatusWalk()) {
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) {
      inUse.insert(Tunnel::TunnelTable::TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)));
    }
  }
  std::vector<std::uint32_t> ids;
  for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
    if (!inUse.contains(tunnel)) continue;
    mappingLines.push_back(row.compactString());
    ids.push_back(row.hwTunnelId().value());
  }
  std::sort(mappingLines.begin(), mappingLines.end());
  std::sort(ids.begin(), ids.end());
  for (auto id : ids) hwIds.push_back(std::to_string(id));
  return {{"esiData", esiLines}, {"mapping", mappingLines}, {"hwTunnelIds", hwIds}};
}

const Family& tunnelEsiFamily() {
  static const TunnelEsiFamily family;
  return family;
}

}  // namespace Sim
