#include "sim/families/tunnelEsi/TunnelEsiTables.h"

namespace Sim {

using published::keyThen;
using published::text;

Cells MappingTable::cells(const Key& k, const Row* r) {
  return keyThen(r, r ? Cells{text(r->hwTunnelId())} : Cells{}, k);
}

}  // namespace Sim
