#include "sim/Published.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "Mpls/ReturnCode.h"

namespace Sim {

namespace {

template <class T>
std::string text(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

// The key's cells, then the row's when there is one.
template <class... Key>
Cells keyThen(const void* row, Cells rowCells, Key&&... key) {
  Cells out{text(key)...};
  if (row) out.insert(out.end(), rowCells.begin(), rowCells.end());
  return out;
}

}  // namespace

// ---- what a key or row read from a segment may hold --------------------------------------------

namespace {

// Why the bytes of a value are no value of its type: "" when they are, else what they hold. Every
// field type of a published table has its own: a type missing here does not compile.
std::string hex(std::uint64_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
  return buf;
}
std::string whyNot(const std::uint64_t&) { return ""; }
std::string whyNot(const Oba::HwTunnelId&) { return ""; }
std::string whyNot(const Shoal::Fib::FecId&) { return ""; }
std::string whyNot(const Quil::EthAddr&) { return ""; }
// A bool is one byte holding 0 or 1; any other byte is no truth value, and reading it as a bool
// would already be wrong, so its byte is looked at.
std::string whyNot(const bool& b) {
  unsigned char byte;
  std::memcpy(&byte, &b, 1);
  return byte > 1 ? "no truth value (byte " + hex(byte) + ")" : "";
}
std::string whyNot(const Tunnel::TunnelTable::TunnelId& v) {
  return v.value() > Tunnel::TunnelTable::TunnelId::maxValue
             ? "no tunnel id (" + hex(v.value()) + ", beyond 48 bits)"
             : "";
}
std::string whyNot(const Quil::MplsLabel& v) {
  return v.value() > Quil::MplsLabel::noLabel ? "no MPLS label (" + std::to_string(v.value()) + ")"
                                              : "";
}
std::string whyNot(const Bridging::VlanId& v) {
  return v.value() > Bridging::VlanId::maxValue ? "no VLAN (" + std::to_string(v.value()) + ")"
                                                : "";
}
std::string whyNot(const Quil::IntfId& v) {
  // Every interface id prints as the text that reads back as it; other words print as another.
  auto back = Quil::IntfId::tryParse(v.toString());
  return back && *back == v ? "" : "no interface id (" + hex(v.value()) + ")";
}
std::string whyNot(const L2Rib::ObjTuple& v) {
  return v.tableType() > L2Rib::tableTypeDest_
             ? "no RIB object (table type " + std::to_string(int(v.tableType())) + ")"
             : "";
}
std::string whyNot(const Mpls::LfibHwProgrammingReturnCode& v) {
  return v > Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingFailed
             ? "no return code (" + std::to_string(static_cast<std::uint32_t>(v)) + ")"
             : "";
}
std::string whyNot(const Mpls::RouteKey& v) { return whyNot(v.topLabel()); }
std::string whyNot(const Bridging::MacVlanPair& v) {
  std::string w = whyNot(v.vlanId);
  return w.empty() ? whyNot(v.macAddr) : w;
}
template <class D, class Fields, class... F>
std::string whyNot(const Oba::Value<D, Fields, F...>& v) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    std::string w;
    ((w.empty() ? void(w = whyNot(v.template field<I>())) : void()), ...);
    return w;
  }
  (std::index_sequence_for<F...>{});
}

}  // namespace

template <class T>
std::string RowCheck<T>::why(const typename T::Key& key, const typename T::Row* row) {
  if (std::string w = whyNot(key); !w.empty()) return "the key holds " + w;
  if (row) {
    if (std::string w = whyNot(*row); !w.empty()) return "the row holds " + w;
  }
  return "";
}
template struct RowCheck<MappingTable>;
template struct RowCheck<FecRequestsTable>;
template struct RowCheck<FloodSetFecRequestsTable>;
template struct RowCheck<FecOwnersTable>;
template struct RowCheck<ResultsTable>;
template struct RowCheck<HwInfoTable>;
template struct RowCheck<FloodListsTable>;
template struct RowCheck<UnprogrammedRoutesTable>;

std::size_t maxAgentNameLength() {
  std::size_t longest = 0;
  for (const auto& t : publishedTables()) longest = std::max(longest, std::strlen(t.name));
  return Shoal::maxAgentNameLength(longest);
}

void checkAgentName(const std::string& agent) {
  Shoal::segmentName(agent, "x");  // the characters a name may hold
  if (agent.size() > maxAgentNameLength()) {
    throw Shoal::SegmentException(
        "an agent's name is at most " + std::to_string(maxAgentNameLength()) + " characters, not " +
        std::to_string(agent.size()) +
        ": each of its tables is the shared-memory object /shoal.<agent>.<table>, whose name "
        "holds at most " +
        std::to_string(Shoal::segmentNameMax) + " bytes with the longest table's name");
  }
}

// ---- how rows print ---------------------------------------------------------------------------

Cells MappingTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(r->hwTunnelId())} : Cells{}, k);
}

template <const char* N, const char* W>
Cells FecRequestTable<N, W>::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{r->l2IntfIdWanted() ? "yes" : "no", text(r->hwTunnelId())} : Cells{},
                 k);
}
template struct FecRequestTable<fecRequestsName, fecRequestsWhat>;
template struct FecRequestTable<floodSetFecRequestsName, floodSetFecRequestsWhat>;

Cells FecOwnersTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(r->fecId())} : Cells{}, k);
}

Cells ResultsTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(*r)} : Cells{}, k);
}

Cells HwInfoTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(r->hwIdForTunnelProgramming()), text(r->l2IntfId())} : Cells{},
                 k.tunnelId(), k.label());
}

Cells FloodListsTable::cells(const Key& k, const Row*) {
  const Oba::MplsDestConfig& m = k.member();
  return {text(k.list().vlanId), text(k.list().macAddr), text(m.tunnelId()),
          text(m.label()),       text(m.hwTunnelId()),   text(m.hwIdForTunnelProgramming()),
          text(m.l2IntfId())};
}

Cells UnprogrammedRoutesTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(*r)} : Cells{}, k.topLabel());
}

// ---- the writer's side ------------------------------------------------------------------------

Publisher::Publisher(std::string agent) : agent_(std::move(agent)) {
  // What a crashed run of the same agent left, for tables this run may not make.
  Shoal::removeStaleSegments(agent_);
}

Publisher::~Publisher() = default;

void Publisher::sync() {
  for (auto& m : mirrors_) m->sync();
}

// ---- the reader's side ------------------------------------------------------------------------

namespace {

template <class T>
class View : public TableView {
  using K = typename T::Key;
  using R = typename T::Row;

 public:
  explicit View(const std::string& agent) : backing_(agent, T::name, publishedRows) {}

  std::vector<std::string> columns() const override {
    return {T::columns.begin(), T::columns.end()};
  }
  Shoal::MountState attach() override {
    backing_.attach(Shoal::Role::reader);
    // A reader learns its writer's state from its first poll; what it reports is the picture the
    // reader starts from.
    poll();
    return backing_.segment().mountState();
  }
  bool writerAlive() const override { return backing_.segment().writerAlive(); }
  std::string error() const override { return backing_.segment().error(); }
  std::string segmentName() const override { return backing_.segment().name(); }
  void writerWaitIs(std::chrono::nanoseconds d) override { backing_.segment().writerWaitIs(d); }
  void verify() const override { backing_.segment().verify(); }

  std::vector<Cells> rows() const override {
    std::vector<std::pair<K, R>> rows;
    for (auto [k, r] : backing_.walk()) rows.emplace_back(k, r);
    std::sort(rows.begin(), rows.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Cells> out;
    out.reserve(rows.size());
    for (const auto& [k, r] : rows) out.push_back(T::cells(k, &r));
    return out;
  }

  std::vector<Change> poll() override {
    struct Collect : Shoal::Changes<K> {
      View& v;
      std::vector<Change> out;
      explicit Collect(View& view) : v(view) {}
      void key(const K& k) override {
        auto l = v.backing_.find(k);
        out.push_back(l.found ? Change{Change::Kind::row, T::cells(k, &l.row)}
                              : Change{Change::Kind::gone, T::cells(k, nullptr)});
      }
      void all() override { out.push_back(Change{Change::Kind::all, {}}); }
      void mount(Shoal::MountState s) override {
        out.push_back(Change{Change::Kind::mount, {}, s});
      }
    } collect(*this);
    try {
      backing_.poll(collect);
    } catch (const Shoal::WriterStuckException& e) {
      collect.out.push_back(Change{Change::Kind::stuck, {e.what()}});
    } catch (const Shoal::CorruptionException& e) {
      collect.out.push_back(Change{Change::Kind::corrupt, {e.what()}});
    }
    return std::move(collect.out);
  }

 private:
  PublishedBacking<T> backing_;
};

template <class T>
PublishedTableKind kind() {
  return {T::name, T::what, [](const std::string& agent) -> std::unique_ptr<TableView> {
            return std::make_unique<View<T>>(agent);
          }};
}

}  // namespace

const std::vector<PublishedTableKind>& publishedTables() {
  static const std::vector<PublishedTableKind> tables{
      kind<MappingTable>(),    kind<FecRequestsTable>(),         kind<FecOwnersTable>(),
      kind<ResultsTable>(),    kind<FloodSetFecRequestsTable>(), kind<HwInfoTable>(),
      kind<FloodListsTable>(), kind<UnprogrammedRoutesTable>(),
  };
  return tables;
}

const PublishedTableKind* publishedTable(const std::string& name) {
  for (const auto& t : publishedTables()) {
    if (name == t.name) return &t;
  }
  return nullptr;
}

}  // namespace Sim
