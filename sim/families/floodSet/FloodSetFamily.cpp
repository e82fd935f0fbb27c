#include "sim/families/floodSet/FloodSetFamily.h"

#include "sim/ChipOperations.h"
#include "sim/Fuzz.h"
#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/ScenarioReader.h"
#include "sim/families/fec/FecAgent.h"
#include "sim/families/floodSet/FloodSetAgent.h"
#include "sim/families/floodSet/FloodSetTables.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim {

namespace {

FloodSetAgent& floodSets(HostAgent& agent) { return agent.part<FloodSetAgent>(); }

// ---- actions ------------------------------------------------------------------------------------

class FloodSetAction : public ActionBody {
 public:
  enum class Kind : std::uint32_t {
    floodSetDest,      // vlan, mac, dest, value, type
    floodSetDestDel,   // vlan, mac, dest
    floodSetDel,       // vlan, mac
    vlanFloodSetDel,   // vlan
    floodListLatency,  // seconds
    mplsFloodSetDest,  // vlan, mac, dest: written straight into the MPLS-only flood sets
    fecChipRenumber,   // hw: the chip moves that FEC to another hardware id
  };
  Kind kind{};
  Bridging::VlanId vlan;
  Quil::EthAddr mac = Quil::EthAddr::broadcast();
  L2Rib::Dest dest;
  bool value = true;
  std::optional<L2Rib::FloodSetType> type;
  double seconds = 0;
  std::uint32_t hw = 0;

  void apply(HostAgent& agent) const override {
    FloodSetAgent& f = floodSets(agent);
    auto& rib = f.l2RibFloodSet;
    switch (kind) {
      case Kind::floodSetDest: {
        auto fs = rib->vlanFloodSetIs(vlan)->floodSetIs(mac);
        if (type) fs->floodSetTypeIs(*type);
        fs->destSetIs(dest, value);
        break;
      }
      case Kind::floodSetDestDel:
        if (auto v = rib->vlanFloodSet(vlan)) {
          if (auto fs = v->floodSet(mac)) fs->destSetDel(dest);
        }
        break;
      case Kind::floodSetDel:
        if (auto v = rib->vlanFloodSet(vlan)) v->floodSetDel(mac);
        break;
      case Kind::vlanFloodSetDel:
        rib->vlanFloodSetDel(vlan);
        break;
      case Kind::floodListLatency:
        f.lists->latencyIs(seconds);
        break;
      case Kind::mplsFloodSetDest:
        // A second writer on the filter's output, as a misbuilt agent would have: whatever it
        // writes reaches the flood-set machines unfiltered.
        f.mplsFloodSet->vlanFloodSetIs(vlan)->floodSetIs(mac)->destSetIs(dest, value);
        break;
      case Kind::fecChipRenumber:
        f.fecs->renumber(hw);
        break;
    }
  }

  void write(std::ostream& os) const override {
    const bool broadcast = mac == Quil::EthAddr::broadcast();
    auto where = [&] {
      os << "vlan: " << vlan;
      if (!broadcast) os << ", mac: '" << mac << "'";
    };
    switch (kind) {
      case Kind::floodSetDest:
        os << "floodSetDest: {";
        where();
        os << ", dest: '" << dest << "'";
        if (!value) os << ", value: false";
        if (type) os << ", type: " << *type;
        os << "}";
        break;
      case Kind::floodSetDestDel:
        os << "floodSetDestDel: {";
        where();
        os << ", dest: '" << dest << "'}";
        break;
      case Kind::floodSetDel:
        os << "floodSetDel: {";
        where();
        os << "}";
        break;
      case Kind::vlanFloodSetDel:
        os << "vlanFloodSetDel: " << vlan;
        break;
      case Kind::floodListLatency:
        os << "floodListLatency: " << seconds;
        break;
      case Kind::mplsFloodSetDest:
        os << "mplsFloodSetDest: {";
        where();
        os << ", dest: '" << dest << "'}";
        break;
      case Kind::fecChipRenumber:
        os << "fecChipRenumber: " << hw;
        break;
    }
  }
};
using Kind = FloodSetAction::Kind;

Quil::EthAddr macOf(const Reader& r, const YAML::Node& m) {
  if (!m["mac"]) return Quil::EthAddr::broadcast();
  return r.parsed(m["mac"], "a MAC address (aa:bb:cc:dd:ee:ff)", Quil::EthAddr::parse);
}

L2Rib::Dest destOf(const Reader& r, const YAML::Node& m) {
  // The flood-set machines program an MPLS destination's label as it is (a missing one as "no
  // label") and drop a destination on the invalid tunnel: neither is what the file said.
  const char* what =
      "a destination (mpls(TunnelT.I, LABEL) with LABEL 0-1048575, tunnel(TunnelT.I) or "
      "intf(NAME); not on Tunnel0.0)";
  const YAML::Node n = r.field(m, "dest");
  const L2Rib::Dest d = r.parsed(n, what, L2Rib::Dest::parse);
  const bool overTunnel =
      d.destType() == L2Rib::destTypeMpls_ || d.destType() == L2Rib::destTypeTunnel_;
  if (overTunnel && !d.tunnel().isValid()) r.failExpected(n, what);
  if (d.destType() == L2Rib::destTypeMpls_ && d.label().isNoLabel()) r.failExpected(n, what);
  return d;
}

// {vlan, mac?, dest}: one destination of one flood set.
void readMember(const Reader& r, const YAML::Node& v, const char* what, FloodSetAction& a) {
  r.onlyKeys(v, {"vlan", "mac", "dest"}, what);
  a.vlan = r.vlan(r.field(v, "vlan"));
  a.mac = macOf(r, v);
  a.dest = destOf(r, v);
}

struct ActionDef {
  const char* name;
  Kind kind;
  void (*read)(const Reader&, const YAML::Node&, FloodSetAction&);
};

const ActionDef actionDefs[] = {
    {"floodSetDest", Kind::floodSetDest,
     [](const Reader& r, const YAML::Node& v, FloodSetAction& a) {
       r.onlyKeys(v, {"vlan", "mac", "dest", "value", "type"}, "floodSetDest");
       a.vlan = r.vlan(r.field(v, "vlan"));
       a.mac = macOf(r, v);
       a.dest = destOf(r, v);
       if (v["value"]) {
         a.value = r.parsed(v["value"], "true or false", [](const std::string& s) {
           if (s == "true") return true;
           if (s == "false") return false;
           throw Kiv::RangeException(s);
         });
       }
       if (v["type"]) {
         a.type = r.parsed(v["type"], "a flood-set type (floodSetTypeBroadcast, ...)",
                           L2Rib::parseFloodSetType);
       }
     }},
    {"floodSetDestDel", Kind::floodSetDestDel,
     [](const Reader& r, const YAML::Node& v, FloodSetAction& a) {
       readMember(r, v, "floodSetDestDel", a);
     }},
    {"floodSetDel", Kind::floodSetDel,
     [](const Reader& r, const YAML::Node& v, FloodSetAction& a) {
       r.onlyKeys(v, {"vlan", "mac"}, "floodSetDel");
       a.vlan = r.vlan(r.field(v, "vlan"));
       a.mac = macOf(r, v);
     }},
    {"vlanFloodSetDel", Kind::vlanFloodSetDel,
     [](const Reader& r, const YAML::Node& v, FloodSetAction& a) { a.vlan = r.vlan(v); }},
    {"mplsFloodSetDest", Kind::mplsFloodSetDest,
     [](const Reader& r, const YAML::Node& v, FloodSetAction& a) {
       readMember(r, v, "mplsFloodSetDest", a);
     }},
    {"floodListLatency", Kind::floodListLatency,
     [](const Reader& r, const YAML::Node& v, FloodSetAction& a) {
       a.seconds = r.time(v, "a latency in seconds");
     }},
};

// ---- the fuzzer's world -------------------------------------------------------------------------

// The names a seed plays with: VLANs, flood MACs, remote PEs (the tunnel-id family's endpoints, so
// that their tunnels get hardware ids when they are designated forwarders) with a label or two
// each, and a few local ports.
struct World {
  std::vector<Bridging::VlanId> vlans;
  std::vector<Quil::EthAddr> macs;
  std::vector<L2Rib::Dest> dests;
  std::vector<L2Rib::Dest> mplsDests;
};

World makeWorld(Rng& r) {
  World w;
  std::vector<std::uint16_t> vlans{10, 20, 30, 40, 50};
  for (std::uint64_t n = 2 + r.below(3); n > 0; --n) {
    std::size_t i = r.below(vlans.size());
    w.vlans.push_back(Bridging::VlanId(vlans[i]));
    vlans.erase(vlans.begin() + static_cast<std::ptrdiff_t>(i));
  }
  w.macs.push_back(Quil::EthAddr::broadcast());
  for (std::uint64_t n = r.below(3); n > 0; --n) {
    w.macs.push_back(Quil::EthAddr::parse("01:00:5e:00:00:0" + std::to_string(w.macs.size())));
  }
  for (std::uint64_t pe = 1; pe <= 6; ++pe) {
    const Tunnel::TunnelTable::TunnelId tunnel((1ull << 32) | pe);
    for (std::uint64_t n = 1 + r.below(2), l = 0; l < n; ++l) {
      w.dests.push_back(L2Rib::Dest::mpls(tunnel, Quil::MplsLabel(1000 + 10 * pe + l)));
      w.mplsDests.push_back(w.dests.back());
    }
    if (r.chance(0.3)) w.dests.push_back(L2Rib::Dest::tunnel(tunnel));
  }
  for (std::uint32_t p = 1; p <= 2; ++p) {
    w.dests.push_back(L2Rib::Dest::intf(Quil::IntfId::ethernet(40 + p)));
  }
  return w;
}

class FloodSetFuzz : public FamilyFuzz {
 public:
  FloodSetFuzz(Rng& r, const FuzzOptions&) : w_(makeWorld(r)) {}

  // The chip refuses the next member of one tunnel in one VLAN: a rule rather than a fault at the
  // run's rate, since a change of the configuration may make the chip program several members of
  // the same tunnel and VLAN (one per flood MAC) back to back, which no rule placed between them
  // could tell apart.
  static constexpr std::uint32_t refuseKind = 100;

  void choices(bool initial, std::vector<Choice>& out) const override {
    static constexpr std::pair<Kind, std::uint64_t> weights[] = {
        {Kind::floodSetDest, 24},   {Kind::floodSetDestDel, 12}, {Kind::floodSetDel, 2},
        {Kind::vlanFloodSetDel, 1}, {Kind::floodListLatency, 2}, {Kind::fecChipRenumber, 3},
    };
    for (const auto& [kind, weight] : weights) {
      if (initial && (kind == Kind::floodListLatency || kind == Kind::fecChipRenumber)) continue;
      out.push_back({static_cast<std::uint32_t>(kind), weight});
    }
    if (!initial) out.push_back({refuseKind, 3});
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    if (kind == refuseKind) {
      const L2Rib::Dest& d = r.pick(w_.mplsDests);
      const auto rc = r.chance(0.7) ? Oba::HwProgrammingStatus::notProgrammed
                                    : Oba::HwProgrammingStatus::invalidHwId;
      return refusalAction({.op = "programFloodListMember",
                            .port = Quil::DynamicTunnelIntfId::intfId(d.tunnelId().value()),
                            .vlan = r.pick(w_.vlans),
                            .times = 1,
                            .rc = static_cast<std::uint32_t>(rc)});
    }
    auto a = std::make_shared<FloodSetAction>();
    a->kind = static_cast<Kind>(kind);
    a->vlan = r.pick(w_.vlans);
    a->mac = r.pick(w_.macs);
    a->dest = r.pick(w_.dests);
    if (a->kind == Kind::floodListLatency) a->seconds = r.chance(0.5) ? 0 : r.quarters(8);
    if (a->kind == Kind::fecChipRenumber) a->hw = static_cast<std::uint32_t>(1 + r.below(8));
    return Action{0, a};
  }

 private:
  World w_;
};

// ---- the family ---------------------------------------------------------------------------------

class FloodSetFamily : public Family {
 public:
  std::string_view name() const override { return "floodSet"; }
  // Its machines read the tunnel-id family's mapping; its chip checks that family's ids.
  std::vector<const Family*> buildsOn() const override {
    return {&tunnelEsiFamily(), &fecFamily()};
  }
  std::vector<std::string> machines() const override { return {"floodSetFec", "vlanFloodSet"}; }

  // A member's "port" is its tunnel, as a rule names it: DynTunnelT.I.
  std::vector<ChipOperation> chipOperations() const override {
    // A member's port is its tunnel's endpoint.
    ChipOperation program = hwProgrammingOperation("programFloodListMember", true, true);
    program.portRead = [](const Reader& r, const YAML::Node& n) { return r.tep(n); };
    return {program};
  }

  std::vector<ActionKind> actions() const override {
    std::vector<ActionKind> out;
    for (const auto& def : actionDefs) {
      out.push_back({def.name, [&def](const Reader& r, const YAML::Node& v) {
                       auto a = std::make_shared<FloodSetAction>();
                       a->kind = def.kind;
                       def.read(r, v, *a);
                       return std::shared_ptr<const ActionBody>(a);
                     }});
    }
    return out;
  }

  std::vector<TableKind> tables() const override {
    return {{"mplsFloodSet", "lines", nullptr},      {"floodSetFecs", "requests", nullptr},
            {"floodListConfig", "members", nullptr}, {"floodLists", "members", nullptr},
            {"floodListStatus", "lines", nullptr},   {"hwInfoMapping", "lines", nullptr}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<FloodSetAgent>(agent);
  }

  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) const override {
    return std::make_unique<FloodSetFuzz>(rng, options);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<FloodSetFecRequestsTable>(), publishedTableKind<HwInfoTable>(),
            publishedTableKind<FloodListsTable>()};
  }

  std::vector<FuzzFlag> fuzzFlags() const override {
    return {{"--canary-break-before-make", "on",
             "test the checks: the chip removes a flood-list member before adding its replacement",
             [](const char* v, FuzzOptions&) {
               if (std::string(v) != "on") return std::string("needs on");
               FloodListChip::canaryBreakBeforeMakeIs(true);
               return std::string();
             },
             [](const FuzzOptions&) {
               return FloodListChip::canaryBreakBeforeMake()
                          ? std::string("--canary-break-before-make on")
                          : std::string();
             }}};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    auto it = c.find("floodListMembers");
    os << (it == c.end() ? 0 : it->second) << " flood-list members compared, ";
  }
};

}  // namespace

const Family& floodSetFamily() {
  static const FloodSetFamily family;
  return family;
}

}  // namespace Sim
