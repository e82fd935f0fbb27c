#pragma once
// The table the dot1q and decapsulation family publishes: the decapsulation routes the chip has
// not programmed, and why.
#include "Mpls/Lfib.h"
#include "sim/PublishedTable.h"

namespace Sim {

struct UnprogrammedRoutesTable {
  static constexpr const char* name = "unprogrammed-routes";
  static constexpr const char* what = "decapsulation routes the chip has not programmed, and why";
  using Key = Mpls::RouteKey;
  using Row = Mpls::LfibHwProgrammingReturnCode;
  static constexpr std::array<const char*, 2> columns{"label", "reason"};
  static Cells cells(const Key& k, const Row* row);
};

}  // namespace Sim
