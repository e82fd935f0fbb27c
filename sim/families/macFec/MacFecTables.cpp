#include "sim/families/macFec/MacFecTables.h"

namespace Sim {

using published::keyThen;
using published::text;

Cells FecOwnersTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(r->fecId())} : Cells{}, k);
}

Cells ResultsTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(*r)} : Cells{}, k);
}

}  // namespace Sim
