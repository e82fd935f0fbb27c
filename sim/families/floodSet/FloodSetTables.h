#pragma once
// The tables the flood-set family publishes: its FEC machine's requests, the chip's identifiers
// of each via, and the members of each hardware flood list.
#include "Bridging/MacVlanPair.h"
#include "Oba/ObaFecRecords.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Oba/ObaValue.h"
#include "sim/PublishedTable.h"
#include "sim/families/fec/FecTables.h"

namespace Sim {

// One member of one hardware flood list: the list's key and the member, as one key.
struct FloodListMemberFields {
  static constexpr const char* typeName = "Sim::FloodListMember";
  static constexpr std::array<const char*, 2> names{"list", "member"};
};
class FloodListMember : public Oba::Value<FloodListMember, FloodListMemberFields,
                                          Bridging::MacVlanPair, Oba::MplsDestConfig> {
 public:
  using Value::Value;
  const Bridging::MacVlanPair& list() const { return field<0>(); }
  const Oba::MplsDestConfig& member() const { return field<1>(); }
};

inline constexpr char floodSetFecRequestsName[] = "flood-set-fec-requests";
inline constexpr char floodSetFecRequestsWhat[] = "the flood-set FEC requests, per FEC id";
using FloodSetFecRequestsTable = FecRequestTable<floodSetFecRequestsName, floodSetFecRequestsWhat>;

struct HwInfoTable {
  static constexpr const char* name = "hw-info";
  static constexpr const char* what = "flood-set via -> the chip's identifiers for it";
  using Key = Oba::MplsFloodSetVia;
  using Row = Oba::MplsDestHwInfo;
  static constexpr std::array<const char*, 4> columns{"tunnel", "label", "hwIdForTunnelProgramming",
                                                      "l2IntfId"};
  static Cells cells(const Key& k, const Row* row);
};

struct FloodListsTable {
  static constexpr const char* name = "flood-lists";
  static constexpr const char* what = "the members of each hardware flood list";
  using Key = FloodListMember;
  using Row = bool;
  static constexpr std::array<const char*, 7> columns{
      "vlan", "mac", "tunnel", "label", "hwTunnelId", "hwIdForTunnelProgramming", "l2IntfId"};
  static Cells cells(const Key& k, const Row* row);
};

}  // namespace Sim
