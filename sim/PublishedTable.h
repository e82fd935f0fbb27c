#pragma once
// What a family writes to publish a table of its own (sim/Published.h): how each field of a key or
// row read from a segment is checked, a reader's view of the table, and the helpers its `cells`
// use. A family's tables header includes it and lists its tables in Family::publishedTables():
//
//   struct MappingTable {                      // in the family's folder
//     static constexpr const char* name = "mapping";
//     static constexpr const char* what = "EVPN tunnel id -> hardware tunnel id";
//     using Key = ...; using Row = ...;
//     static constexpr std::array<const char*, 2> columns{"tunnel", "hwTunnelId"};
//     static Cells cells(const Key& k, const Row* row);
//   };
//   ... publishedTables() { return {publishedTableKind<MappingTable>()}; }

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include "Bridging/MacVlanPair.h"
#include "L2Rib/ObjTuple.h"
#include "Mpls/Lfib.h"
#include "Mpls/ReturnCode.h"
#include "Oba/ObaValue.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "Shoal/Fib.h"
#include "sim/Published.h"

namespace Sim {

namespace published {

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

// ---- what a key or row read from a segment may hold --------------------------------------------

// Why the bytes of a value are no value of its type: "" when they are, else what they hold. Every
// field type of a published table has its own: a type missing here does not compile.
inline std::string hex(std::uint64_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
  return buf;
}
inline std::string whyNot(const std::uint64_t&) { return ""; }
inline std::string whyNot(const Oba::HwTunnelId&) { return ""; }
inline std::string whyNot(const Shoal::Fib::FecId&) { return ""; }
inline std::string whyNot(const Quil::EthAddr&) { return ""; }
// A bool is one byte holding 0 or 1; any other byte is no truth value, and reading it as a bool
// would already be wrong, so its byte is looked at.
inline std::string whyNot(const bool& b) {
  unsigned char byte;
  std::memcpy(&byte, &b, 1);
  return byte > 1 ? "no truth value (byte " + hex(byte) + ")" : "";
}
inline std::string whyNot(const Tunnel::TunnelTable::TunnelId& v) {
  return v.value() > Tunnel::TunnelTable::TunnelId::maxValue
             ? "no tunnel id (" + hex(v.value()) + ", beyond 48 bits)"
             : "";
}
inline std::string whyNot(const Quil::MplsLabel& v) {
  return v.value() > Quil::MplsLabel::noLabel ? "no MPLS label (" + std::to_string(v.value()) + ")"
                                              : "";
}
inline std::string whyNot(const Bridging::VlanId& v) {
  return v.value() > Bridging::VlanId::maxValue ? "no VLAN (" + std::to_string(v.value()) + ")"
                                                : "";
}
inline std::string whyNot(const Quil::IntfId& v) {
  // Every interface id prints as the text that reads back as it; other words print as another.
  auto back = Quil::IntfId::tryParse(v.toString());
  return back && *back == v ? "" : "no interface id (" + hex(v.value()) + ")";
}
inline std::string whyNot(const L2Rib::ObjTuple& v) {
  return v.tableType() > L2Rib::tableTypeDest_
             ? "no RIB object (table type " + std::to_string(int(v.tableType())) + ")"
             : "";
}
inline std::string whyNot(const Mpls::LfibHwProgrammingReturnCode& v) {
  return v > Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingFailed
             ? "no return code (" + std::to_string(static_cast<std::uint32_t>(v)) + ")"
             : "";
}
inline std::string whyNot(const Mpls::RouteKey& v) { return whyNot(v.topLabel()); }
inline std::string whyNot(const Bridging::MacVlanPair& v) {
  std::string w = whyNot(v.vlanId);
  return w.empty() ? whyNot(v.macAddr) : w;
}
template <class D, class Fields, class... F>
inline std::string whyNot(const Oba::Value<D, Fields, F...>& v) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    std::string w;
    ((w.empty() ? void(w = whyNot(v.template field<I>())) : void()), ...);
    return w;
  }
  (std::index_sequence_for<F...>{});
}

}  // namespace published

template <class T>
std::string RowCheck<T>::why(const typename T::Key& key, const typename T::Row* row) {
  if (std::string w = published::whyNot(key); !w.empty()) return "the key holds " + w;
  if (row) {
    if (std::string w = published::whyNot(*row); !w.empty()) return "the row holds " + w;
  }
  return "";
}

namespace published {

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

}  // namespace published

// A published table's kind, for Family::publishedTables().
template <class T>
PublishedTableKind publishedTableKind() {
  return {T::name, T::what, [](const std::string& agent) -> std::unique_ptr<TableView> {
            return std::make_unique<published::View<T>>(agent);
          }};
}

}  // namespace Sim
