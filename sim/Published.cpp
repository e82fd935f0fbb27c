#include "sim/Published.h"

#include <algorithm>
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
    backing_.poll(collect);
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
