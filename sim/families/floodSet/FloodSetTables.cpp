#include "sim/families/floodSet/FloodSetTables.h"

namespace Sim {

using published::keyThen;
using published::text;

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

}  // namespace Sim
