#include "sim/families/macFec/MacFecFamily.h"

#include "sim/families/macFec/MacFecAgent.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <sstream>

#include "sim/FamilyHelpers.h"
#include "sim/Fuzz.h"
#include "sim/Rng.h"
#include "sim/Scenario.h"
#include "sim/ScenarioReader.h"
#include "sim/families/fec/FecAgent.h"
#include "sim/families/macFec/MacFecCheck.h"
#include "sim/families/macFec/MacFecTables.h"

namespace Sim {

using L2Rib::ObjTuple;
using Shoal::Fib::FecId;

namespace {

MacFecAgent& mac(HostAgent& agent) { return agent.part<MacFecAgent>(); }

// ---- actions ------------------------------------------------------------------------------------

class MacAction : public ActionBody {
 public:
  enum class Kind : std::uint32_t {
    host,             // host, to
    hostDel,          // host
    label,            // id, mpls, next
    labelDel,         // id
    loadBalance,      // id, nexts
    loadBalanceDel,   // id
    dest,             // id, tunnel
    destDel,          // id
    corrupt,          // row (or host)
    rewrite,          // row (or host)
    maxChainLength,   // count
    fecChipCapacity,  // count
    fecChipLatency,   // seconds
    fecChipWithdraw,  // count (a hardware FEC id)
    fecChipRefuse,    // count (answers): written as a chipRefuse rule
  };
  Kind kind{};
  Bridging::MacVlanPair host{};
  bool isHost = false;  // corrupt/rewrite: a host row rather than `row`
  ObjTuple row;         // host: what it points at; label, loadBalance, dest: the object
  Quil::MplsLabel mpls;
  std::vector<ObjTuple> next;
  Quil::IntfId tep;
  std::uint32_t count = 0;
  double seconds = 0;

  // Load balances over labels abort a machine with chain length 2: the setting stays.
  bool keptByShrinking() const override { return kind == Kind::maxChainLength; }

  void apply(HostAgent& agent) const override {
    MacFecAgent& f = mac(agent);
    switch (kind) {
      case Kind::host:
        f.hosts->hostIs(host, L2Rib::HostAndSource(row));
        break;
      case Kind::hostDel:
        f.hosts->hostDel(host);
        break;
      case Kind::label:
        f.labels->labelIs(row.labelId(), L2Rib::Label(mpls, next.at(0)));
        break;
      case Kind::labelDel:
        f.labels->labelDel(row.labelId());
        break;
      case Kind::loadBalance:
        f.lbs->loadBalanceIs(row.loadBalanceId(), L2Rib::LoadBalance(next));
        break;
      case Kind::loadBalanceDel:
        f.lbs->loadBalanceDel(row.loadBalanceId());
        break;
      case Kind::dest:
        f.dests->destIs(row.destId(), L2Rib::Dest::tunnel(Tunnel::TunnelTable::TunnelId(
                                          Quil::DynamicTunnelIntfId::tunnelId(tep))));
        break;
      case Kind::destDel:
        f.dests->destDel(row.destId());
        break;
      case Kind::corrupt:
        corrupt(f);
        break;
      case Kind::rewrite:
        rewrite(f);
        break;
      case Kind::maxChainLength:
        f.maxChainLengthIs(count);
        break;
      case Kind::fecChipCapacity:
        f.chip->capacityIs(count);
        break;
      case Kind::fecChipLatency:
        f.chip->latencyIs(seconds);
        break;
      case Kind::fecChipWithdraw:
        f.chip->withdraw(count);
        break;
      case Kind::fecChipRefuse:
        agent.chip->refusalIs({.op = "hwFecId", .times = count});
        break;
    }
  }

  // A torn row: readers that look it up meet the table's corruption exception until the writer
  // writes it again.
  void corrupt(MacFecAgent& f) const {
    if (isHost) {
      f.hosts->hostCorruptIs(host);
      f.hosts->hostNotify(host);
      return;
    }
    switch (row.tableType()) {
      case L2Rib::tableTypeLabel_:
        f.labels->labelCorruptIs(row.labelId());
        f.labels->labelNotify(row.labelId());
        break;
      case L2Rib::tableTypeLoadBalance_:
        f.lbs->loadBalanceCorruptIs(row.loadBalanceId());
        f.lbs->loadBalanceNotify(row.loadBalanceId());
        break;
      default:
        f.dests->destCorruptIs(row.destId());
        f.dests->destNotify(row.destId());
        break;
    }
  }

  // The writer writes the row again as it was (or deletes it when there was none).
  template <class Walk, class K, class Put, class Del>
  static void again(Walk walk, const K& key, Put put, Del del) {
    for (auto&& e : walk) {
      if (e.key == key) return put(e.value);
    }
    del();
  }
  void rewrite(MacFecAgent& f) const {
    if (isHost) {
      auto& t = *f.hosts;
      return again(
          t.hostWalk(), host, [&](const auto& v) { t.hostIs(host, v); }, [&] { t.hostDel(host); });
    }
    switch (row.tableType()) {
      case L2Rib::tableTypeLabel_: {
        auto& t = *f.labels;
        return again(
            t.labelWalk(), row.labelId(), [&](const auto& v) { t.labelIs(row.labelId(), v); },
            [&] { t.labelDel(row.labelId()); });
      }
      case L2Rib::tableTypeLoadBalance_: {
        auto& t = *f.lbs;
        return again(
            t.loadBalanceWalk(), row.loadBalanceId(),
            [&](const auto& v) { t.loadBalanceIs(row.loadBalanceId(), v); },
            [&] { t.loadBalanceDel(row.loadBalanceId()); });
      }
      default: {
        auto& t = *f.dests;
        return again(
            t.destWalk(), row.destId(), [&](const auto& v) { t.destIs(row.destId(), v); },
            [&] { t.destDel(row.destId()); });
      }
    }
  }

  void writeHost(std::ostream& os) const {
    os << "{vlan: " << host.vlanId << ", mac: " << host.macAddr.text().view();
  }
  void writeRow(std::ostream& os) const {
    if (isHost) {
      writeHost(os);
      os << "}";
    } else {
      os << row;
    }
  }

  void write(std::ostream& os) const override {
    switch (kind) {
      case Kind::host:
        os << "host: ";
        writeHost(os);
        os << ", to: " << row << "}";
        break;
      case Kind::hostDel:
        os << "hostDel: ";
        writeHost(os);
        os << "}";
        break;
      case Kind::label:
        os << "label: {id: " << row.id() << ", mpls: " << mpls << ", next: " << next.at(0) << "}";
        break;
      case Kind::labelDel:
        os << "labelDel: " << row.id();
        break;
      case Kind::loadBalance:
        os << "loadBalance: {id: " << row.id() << ", next: [";
        for (std::size_t i = 0; i < next.size(); ++i) os << (i ? ", " : "") << next[i];
        os << "]}";
        break;
      case Kind::loadBalanceDel:
        os << "loadBalanceDel: " << row.id();
        break;
      case Kind::dest:
        os << "dest: {id: " << row.id() << ", tunnel: " << tep << "}";
        break;
      case Kind::destDel:
        os << "destDel: " << row.id();
        break;
      case Kind::corrupt:
        os << "corrupt: ";
        writeRow(os);
        break;
      case Kind::rewrite:
        os << "rewrite: ";
        writeRow(os);
        break;
      case Kind::maxChainLength:
        os << "maxChainLength: " << count;
        break;
      case Kind::fecChipCapacity:
        os << "fecChipCapacity: " << count;
        break;
      case Kind::fecChipLatency:
        os << "fecChipLatency: " << seconds;
        break;
      case Kind::fecChipWithdraw:
        os << "fecChipWithdraw: " << count;
        break;
      case Kind::fecChipRefuse:
        os << "chipRefuse: {op: hwFecId, times: " << count << "}";
        break;
    }
  }
};

using Kind = MacAction::Kind;

// ---- reading ------------------------------------------------------------------------------------

const char* const tupleWhat = "an object of the RIB (label/N, loadBalance/N or dest/N)";

ObjTuple tuple(const Reader& r, const YAML::Node& n) {
  return r.parsed(n, tupleWhat, [](const std::string& s) {
    for (auto [prefix, type] : {std::pair{"label/", L2Rib::tableTypeLabel_},
                                std::pair{"loadBalance/", L2Rib::tableTypeLoadBalance_},
                                std::pair{"dest/", L2Rib::tableTypeDest_}}) {
      const std::size_t len = std::strlen(prefix);
      if (s.compare(0, len, prefix) != 0) continue;
      std::uint32_t id = 0;
      auto [p, ec] = std::from_chars(s.data() + len, s.data() + s.size(), id);
      if (ec == std::errc() && p == s.data() + s.size() && s.size() > len) {
        return ObjTuple(id, type);
      }
    }
    throw Kiv::RangeException("not an object");
  });
}

// A host: {vlan, mac}.
Bridging::MacVlanPair hostKey(const Reader& r, const YAML::Node& v,
                              std::initializer_list<const char*> keys, const char* what) {
  r.onlyKeys(v, keys, what);
  return Bridging::MacVlanPair{
      r.vlan(r.field(v, "vlan")),
      r.parsed(r.field(v, "mac"), "a MAC address (aa:bb:cc:dd:ee:ff)", Quil::EthAddr::parse)};
}

std::uint32_t ribId(const Reader& r, const YAML::Node& n) { return r.count(n, "a RIB id"); }

// corrupt/rewrite: an object, or a host given as {vlan, mac}.
void readRow(const Reader& r, const YAML::Node& v, MacAction& a, const char* what) {
  if (v.IsMap()) {
    a.isHost = true;
    a.host = hostKey(r, v, {"vlan", "mac"}, what);
  } else {
    a.row = tuple(r, v);
  }
}

using ReadFn = void (*)(const Reader&, const YAML::Node&, MacAction&);
struct ActionDef {
  const char* name;
  Kind kind;
  ReadFn read;
};

const ActionDef actionDefs[] = {
    {"host", Kind::host,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       a.host = hostKey(r, v, {"vlan", "mac", "to"}, "host");
       a.row = tuple(r, r.field(v, "to"));
     }},
    {"hostDel", Kind::hostDel,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       a.host = hostKey(r, v, {"vlan", "mac"}, "hostDel");
     }},
    {"label", Kind::label,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       r.onlyKeys(v, {"id", "mpls", "next"}, "label");
       a.row = ObjTuple::label(L2Rib::LabelId(ribId(r, r.field(v, "id"))));
       a.mpls = r.mplsLabel(r.field(v, "mpls"));
       a.next.push_back(tuple(r, r.field(v, "next")));
     }},
    {"labelDel", Kind::labelDel,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       a.row = ObjTuple::label(L2Rib::LabelId(ribId(r, v)));
     }},
    {"loadBalance", Kind::loadBalance,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       r.onlyKeys(v, {"id", "next"}, "loadBalance");
       a.row = ObjTuple::loadBalance(L2Rib::LoadBalanceId(ribId(r, r.field(v, "id"))));
       if (!r.field(v, "next").IsSequence()) r.failExpected(v["next"], "a list of objects");
       // One via per path, at an ECMP index: a longer list is none the FEC could hold.
       constexpr std::size_t paths = Shoal::Fib::EcmpIndex::max + 1;
       if (v["next"].size() > paths) {
         r.fail(v["next"], "expected at most " + std::to_string(paths) +
                               " objects (the paths of one ECMP group), got " +
                               std::to_string(v["next"].size()));
       }
       for (const auto& n : v["next"]) a.next.push_back(tuple(r, n));
     }},
    {"loadBalanceDel", Kind::loadBalanceDel,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       a.row = ObjTuple::loadBalance(L2Rib::LoadBalanceId(ribId(r, v)));
     }},
    {"dest", Kind::dest,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       r.onlyKeys(v, {"id", "tunnel"}, "dest");
       a.row = ObjTuple::dest(L2Rib::DestId(ribId(r, r.field(v, "id"))));
       a.tep = r.tep(r.field(v, "tunnel"));
     }},
    {"destDel", Kind::destDel,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       a.row = ObjTuple::dest(L2Rib::DestId(ribId(r, v)));
     }},
    {"corrupt", Kind::corrupt,
     [](const Reader& r, const YAML::Node& v, MacAction& a) { readRow(r, v, a, "corrupt"); }},
    {"rewrite", Kind::rewrite,
     [](const Reader& r, const YAML::Node& v, MacAction& a) { readRow(r, v, a, "rewrite"); }},
    {"maxChainLength", Kind::maxChainLength,
     [](const Reader& r, const YAML::Node& v, MacAction& a) {
       a.count = r.count(v, "a chain length (2 or 3)");
       if (a.count != 2 && a.count != 3) r.failExpected(v, "a chain length (2 or 3)");
     }},
};

// ---- table entries given as maps ----------------------------------------------------------------

std::string resultEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"object", "hw"}, "a result row");
  std::ostringstream os;
  os << tuple(r, r.field(n, "object")) << " -> " << r.count(r.field(n, "hw"), "a hardware FEC id");
  return os.str();
}

// ---- the fuzzer's world -------------------------------------------------------------------------

// The RIB a seed plays with: four destinations over six tunnels; labels 1-2 always point at a
// destination (so that three-level chains may list them under a load balance), labels 3-4 at a
// destination or a load balance; two load balances over destinations (and, with chain length 3,
// labels 1-2); five hosts in VLAN 10.
//
// Beside them, in worlds of chain length 2, a RIB written wrongly: labels 5-6 and load balance 3,
// which no host and no other object uses, point at one another and close cycles (a label over
// itself or the other, a load balance listing itself or label 6, label 6 over the load balance),
// now and then over a destination as well. The machine must walk them, stop where they close and
// leave them unresolved. With chain length 3 every object gets a FEC, and building one in a
// cycle stops the agent on the chain rule the cycle breaks: those worlds draw none.
//
// Any row may be torn (a `corrupt` step) while the other actions of its burst run; the burst
// ends with the RIB writing it again.
struct World {
  std::uint32_t chainLength = 2;
  std::uint32_t capacity = 6;
};

constexpr std::uint32_t dests = 4, leafLabels = 2, labelCount = 4, lbCount = 2, hostCount = 5;
constexpr std::uint32_t cycleLabel = 5, cycleLb = 3;  // labels 5-6, load balance 3

// Draws that are no action kind of their own.
constexpr std::uint32_t cycleDraw = 100, tornDraw = 101;

Bridging::MacVlanPair fuzzHost(std::uint64_t i) {
  return {Bridging::VlanId(10), Quil::EthAddr(0x020000000000ull + i)};
}

class MacFuzz : public FamilyFuzz {
 public:
  MacFuzz(Rng& r, const FuzzOptions& o) : o_(o) {
    w_.chainLength = r.chance(0.5) ? 2 : 3;
    w_.capacity = 3 + static_cast<std::uint32_t>(r.below(6));
  }

  std::vector<Action> setup() const override {
    auto chain = std::make_shared<MacAction>();
    chain->kind = Kind::maxChainLength;
    chain->count = w_.chainLength;
    auto cap = std::make_shared<MacAction>();
    cap->kind = Kind::fecChipCapacity;
    cap->count = w_.capacity;
    return {Action{0, chain}, Action{0, cap}};
  }

  void choices(bool initial, std::vector<Choice>& out) const override {
    static constexpr std::pair<Kind, std::uint64_t> weights[] = {
        {Kind::host, 16},          {Kind::hostDel, 5},         {Kind::label, 10},
        {Kind::labelDel, 3},       {Kind::loadBalance, 7},     {Kind::loadBalanceDel, 2},
        {Kind::dest, 7},           {Kind::destDel, 3},         {Kind::fecChipCapacity, 2},
        {Kind::fecChipLatency, 1}, {Kind::fecChipWithdraw, 2},
    };
    for (const auto& [kind, weight] : weights) {
      out.push_back({static_cast<std::uint32_t>(kind), weight});
    }
    // Refused answers, as often as the run's fault rate says (the ESI creates' faults are the
    // chip core's; the FEC table's are rules the run states).
    if (!initial && o_.faultRate > 0) {
      out.push_back({static_cast<std::uint32_t>(Kind::fecChipRefuse),
                     1 + static_cast<std::uint64_t>(o_.faultRate * 10)});
    }
    if (w_.chainLength == 2) out.push_back({cycleDraw, 4});
    if (!initial) out.push_back({tornDraw, 4});
  }

  // The rows of labels 5-6 and load balance 3: each over the others (or itself), or gone.
  Action cycleAction(Rng& r) const {
    auto a = std::make_shared<MacAction>();
    const ObjTuple lb = ObjTuple::loadBalance(L2Rib::LoadBalanceId(cycleLb));
    auto loopLabel = [&] { return anyLabelFrom(r, cycleLabel, 2); };
    switch (r.below(4)) {
      case 0:
      case 1:
        a->kind = Kind::label;
        a->row = loopLabel();
        a->mpls = Quil::MplsLabel(1005 + static_cast<std::uint32_t>(r.below(2)));
        a->next.push_back(r.chance(0.7) ? loopLabel() : lb);
        break;
      case 2:
        a->kind = Kind::loadBalance;
        a->row = lb;
        for (std::uint64_t n = 1 + r.below(2); n > 0; --n) {
          const std::uint64_t pick = r.below(3);
          a->next.push_back(pick == 0 ? lb : pick == 1 ? loopLabel() : anyDest(r));
        }
        break;
      default:
        if (r.chance(0.5)) {
          a->kind = Kind::labelDel;
          a->row = loopLabel();
        } else {
          a->kind = Kind::loadBalanceDel;
          a->row = lb;
        }
        break;
    }
    return Action{0, a};
  }

  // A torn row of the world's RIB: an object, or a host. With chain length 3 a load balance
  // copies the label and tunnel of each label it lists, and the rewrite of such a label's (or its
  // destination's) torn row does not reach it (docs/decisions.md): those worlds tear hosts and
  // load balances only.
  Action tornAction(Rng& r) const {
    auto a = std::make_shared<MacAction>();
    a->kind = Kind::corrupt;
    switch (r.below(w_.chainLength == 3 ? 2 : 4)) {
      case 0:
        a->isHost = true;
        a->host = fuzzHost(1 + r.below(hostCount));
        break;
      case 1:
        a->row = anyLb(r);
        break;
      case 2:
        a->row = anyLabel(r, labelCount);
        break;
      default:
        a->row = anyDest(r);
        break;
    }
    return Action{0, a};
  }

  void burstEnd(const std::vector<Action>& burst, std::vector<Action>& out) const override {
    for (const Action& a : burst) {
      auto torn = std::dynamic_pointer_cast<const MacAction>(a.body);
      if (!torn || torn->kind != Kind::corrupt) continue;
      auto again = std::make_shared<MacAction>(*torn);
      again->kind = Kind::rewrite;
      out.push_back(Action{0, again});
    }
  }

  ObjTuple anyDest(Rng& r) const {
    return ObjTuple::dest(L2Rib::DestId(1 + static_cast<std::uint32_t>(r.below(dests))));
  }
  ObjTuple anyLb(Rng& r) const {
    return ObjTuple::loadBalance(
        L2Rib::LoadBalanceId(1 + static_cast<std::uint32_t>(r.below(lbCount))));
  }
  ObjTuple anyLabel(Rng& r, std::uint32_t n) const { return anyLabelFrom(r, 1, n); }
  ObjTuple anyLabelFrom(Rng& r, std::uint32_t first, std::uint32_t n) const {
    return ObjTuple::label(L2Rib::LabelId(first + static_cast<std::uint32_t>(r.below(n))));
  }

  Action action(std::uint32_t kind, Rng& r) const override {
    if (kind == cycleDraw) return cycleAction(r);
    if (kind == tornDraw) return tornAction(r);
    auto a = std::make_shared<MacAction>();
    a->kind = static_cast<Kind>(kind);
    switch (a->kind) {
      case Kind::host:
        a->host = fuzzHost(1 + r.below(hostCount));
        a->row = r.chance(0.6) ? anyLabel(r, labelCount) : anyLb(r);
        break;
      case Kind::hostDel:
        a->host = fuzzHost(1 + r.below(hostCount));
        break;
      case Kind::label:
        a->row = anyLabel(r, labelCount);
        a->mpls = Quil::MplsLabel(1001 + static_cast<std::uint32_t>(r.below(3)));
        a->next.push_back(a->row.id() > leafLabels && r.chance(0.5) ? anyLb(r) : anyDest(r));
        break;
      case Kind::labelDel:
        a->row = anyLabel(r, labelCount);
        break;
      case Kind::loadBalance:
        a->row = anyLb(r);
        for (std::uint64_t n = 1 + r.below(3); n > 0; --n) {
          a->next.push_back(w_.chainLength == 3 && r.chance(0.3) ? anyLabel(r, leafLabels)
                                                                 : anyDest(r));
        }
        break;
      case Kind::loadBalanceDel:
        a->row = anyLb(r);
        break;
      case Kind::dest:
        a->row = anyDest(r);
        a->tep = Quil::DynamicTunnelIntfId::intfId((1ull << 32) | (1 + r.below(6)));
        break;
      case Kind::destDel:
        a->row = anyDest(r);
        break;
      case Kind::fecChipCapacity:
        a->count = static_cast<std::uint32_t>(r.below(2 * std::uint64_t{w_.capacity} + 1));
        break;
      case Kind::fecChipLatency: {
        const double latencies[] = {0, 0, 0.25, 1, 2};
        a->seconds = latencies[r.below(5)];
        break;
      }
      case Kind::fecChipWithdraw:
        a->count = 1 + static_cast<std::uint32_t>(r.below(w_.capacity));
        break;
      case Kind::fecChipRefuse:
        a->count = 1 + static_cast<std::uint32_t>(r.below(3));
        break;
      default:
        break;
    }
    return Action{0, a};
  }

 private:
  World w_;
  const FuzzOptions& o_;
};

// ---- the family ---------------------------------------------------------------------------------

class MacFecFamily : public Family {
 public:
  std::string_view name() const override { return "macFec"; }
  // Its machine's requests are answered by the chip's FEC table.
  std::vector<const Family*> buildsOn() const override { return {&fecFamily()}; }
  std::vector<std::string> machines() const override { return {"macFec"}; }

  std::vector<ActionKind> actions() const override { return actionKinds<MacAction>(actionDefs); }

  std::vector<TableKind> tables() const override {
    return {{"fecs", "FECs", nullptr}, {"objTupleToHwId", "result rows", resultEntry}};
  }

  std::unique_ptr<FamilyAgent> agentIs(HostAgent& agent) const override {
    return std::make_unique<MacFecAgent>(agent);
  }
  std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options) const override {
    return std::make_unique<MacFuzz>(rng, options);
  }

  std::vector<PublishedTableKind> publishedTables() const override {
    return {publishedTableKind<FecRequestsTable>(), publishedTableKind<FecOwnersTable>(),
            publishedTableKind<ResultsTable>()};
  }

  void printCounts(const Counters& c, std::ostream& os) const override {
    os << counter(c, "macFecsChecked") << " MAC FECs compared, ";
  }
  void printAllowances(const Counters& c, std::ostream& os) const override {
    os << "MAC FECs allowed: " << counter(c, "staleFlattenedLabel") << " stale flattened labels, "
       << counter(c, "emptyLeftover") << " empty leftover FECs, " << counter(c, "goneHead")
       << " heads gone from the RIB, " << counter(c, "staleResult")
       << " stale result rows (each the last answer's id)";
  }
};

}  // namespace

const Family& macFecFamily() {
  static const MacFecFamily family;
  return family;
}

}  // namespace Sim
