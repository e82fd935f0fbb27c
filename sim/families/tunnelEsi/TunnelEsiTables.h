#pragma once
// The table the tunnel-id family publishes: the tunnel-id mapping, as other agents read it.
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "sim/PublishedTable.h"

namespace Sim {

struct MappingTable {
  static constexpr const char* name = "mapping";
  static constexpr const char* what = "EVPN tunnel id -> hardware tunnel id";
  using Key = Tunnel::TunnelTable::TunnelId;
  using Row = Oba::TunnelIdToHwTunnelId;
  static constexpr std::array<const char*, 2> columns{"tunnel", "hwTunnelId"};
  static Cells cells(const Key& k, const Row* row);
};

}  // namespace Sim
