#pragma once
// The tables the MAC-address FEC family publishes: its machine's FEC requests, which RIB object
// owns each FEC id, and the result per RIB object that other agents read.
#include "L2Rib/ObjTuple.h"
#include "Oba/ObaFecRecords.h"
#include "sim/PublishedTable.h"
#include "sim/families/fec/FecTables.h"

namespace Sim {

struct FecOwnersTable {
  static constexpr const char* name = "fec-owners";
  static constexpr const char* what = "RIB object -> the FEC id the MAC-address machine gave it";
  using Key = L2Rib::ObjTuple;
  using Row = Oba::ObjTupleAndFecId;
  static constexpr std::array<const char*, 2> columns{"objTuple", "fecId"};
  static Cells cells(const Key& k, const Row* row);
};

struct ResultsTable {
  static constexpr const char* name = "results";
  static constexpr const char* what = "RIB object -> hardware FEC id, for other agents";
  using Key = L2Rib::ObjTuple;
  using Row = std::uint64_t;
  static constexpr std::array<const char*, 2> columns{"objTuple", "hwFecId"};
  static Cells cells(const Key& k, const Row* row);
};

inline constexpr char fecRequestsName[] = "fec-requests";
inline constexpr char fecRequestsWhat[] = "the MAC-address FEC requests, per FEC id";
using FecRequestsTable = FecRequestTable<fecRequestsName, fecRequestsWhat>;

}  // namespace Sim
