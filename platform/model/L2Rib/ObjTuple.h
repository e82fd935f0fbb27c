#pragma once
// L2Rib::ObjTuple: an object of the layer-2 RIB's forwarding chain — an entry of its label, load
// balance or destination table — as an id and the table it lives in. A host points at one; a
// label points at a destination or a load balance; a load balance at destinations (or labels).
//
//   auto t = L2Rib::ObjTuple::label(L2Rib::LabelId(7));   // "label/7"
//   t.tableType() == L2Rib::tableTypeLabel_;  t.labelId() == L2Rib::LabelId(7);
//   L2Rib::ObjTuple();                                     // "none/0": no object

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "Kiv/Types.h"
#include "L2Rib/RibId.h"
#include "Quil/Text.h"

namespace L2Rib {

enum TableType : std::uint8_t {
  tableTypeNone_ = 0,
  tableTypeLoadBalance_ = 1,
  tableTypeLabel_ = 2,
  tableTypeDest_ = 3,
};

// "loadBalance", "label", "dest", "none", or "TableType(<n>)" outside the enumeration.
std::ostream& operator<<(std::ostream& os, TableType t);

class ObjTuple {
 public:
  constexpr ObjTuple() = default;
  constexpr ObjTuple(std::uint32_t id, TableType tableType) : id_(id), tableType_(tableType) {}
  static constexpr ObjTuple label(LabelId id) { return ObjTuple(id.value(), tableTypeLabel_); }
  static constexpr ObjTuple loadBalance(LoadBalanceId id) {
    return ObjTuple(id.value(), tableTypeLoadBalance_);
  }
  static constexpr ObjTuple dest(DestId id) { return ObjTuple(id.value(), tableTypeDest_); }

  constexpr std::uint32_t id() const { return id_; }
  constexpr TableType tableType() const { return tableType_; }
  // The id as the table of its type names it.
  constexpr LabelId labelId() const { return LabelId(id_); }
  constexpr LoadBalanceId loadBalanceId() const { return LoadBalanceId(id_); }
  constexpr DestId destId() const { return DestId(id_); }

  std::uint32_t hash() const { return Kiv::HashMixer().add(id_).add(tableType_).result(); }
  constexpr bool operator==(const ObjTuple&) const = default;
  constexpr std::strong_ordering operator<=>(const ObjTuple& o) const {
    if (auto c = tableType_ <=> o.tableType_; c != 0) return c;
    return id_ <=> o.id_;
  }
  std::string toString() const;

 private:
  std::uint32_t id_ = 0;
  TableType tableType_ = tableTypeNone_;
};

// "label/7"
std::ostream& operator<<(std::ostream& os, const ObjTuple& t);

}  // namespace L2Rib

template <>
struct std::hash<L2Rib::ObjTuple> {
  std::size_t operator()(const L2Rib::ObjTuple& v) const noexcept { return v.hash(); }
};
