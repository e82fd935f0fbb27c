#pragma once
// The FEC requests of one requester, as a table a family publishes: one shape for every requester
// of the chip's FEC table, named by the family that owns the requester.
#include "Oba/ObaFecRecords.h"
#include "sim/PublishedTable.h"

namespace Sim {

// The FEC requests of one requester (the MAC-address machine's, or the flood-set FEC machine's).
template <const char* Name, const char* What>
struct FecRequestTable {
  static constexpr const char* name = Name;
  static constexpr const char* what = What;
  using Key = Shoal::Fib::FecId;
  using Row = Oba::HwFecIdRequest;
  static constexpr std::array<const char*, 3> columns{"fecId", "l2IntfIdWanted", "hwTunnelId"};
  static Cells cells(const Key& k, const Row* row);
};

template <const char* N, const char* W>
inline Cells FecRequestTable<N, W>::cells(const Key& k, const Row* r) {
  return published::keyThen(
      r, r ? Cells{r->l2IntfIdWanted() ? "yes" : "no", published::text(r->hwTunnelId())} : Cells{},
      k);
}

}  // namespace Sim
