#include "sim/families/dot1qDecap/Dot1qDecapTables.h"

namespace Sim {

using published::keyThen;
using published::text;

Cells UnprogrammedRoutesTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(*r)} : Cells{}, k.topLabel());
}

}  // namespace Sim
