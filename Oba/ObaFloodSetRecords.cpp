#include "Oba/ObaFloodSetRecords.h"

// The constructors and destructors live here so that each entity's virtual table is emitted once,
// in the library, rather than in every user of the header.

namespace Oba {

VlanFloodSetConfig::VlanFloodSetConfig(const Bridging::MacVlanPair& macVlanPair)
    : macVlanPair_(macVlanPair) {}
VlanFloodSetConfig::~VlanFloodSetConfig() = default;

VlanFloodSetStatus::VlanFloodSetStatus(const Bridging::MacVlanPair& macVlanPair)
    : macVlanPair_(macVlanPair) {}
VlanFloodSetStatus::~VlanFloodSetStatus() = default;

EvpnVlanFloodSetHwConfig::EvpnVlanFloodSetHwConfig() = default;
EvpnVlanFloodSetHwConfig::~EvpnVlanFloodSetHwConfig() = default;

EvpnVlanFloodSetHwStatus::EvpnVlanFloodSetHwStatus() = default;
EvpnVlanFloodSetHwStatus::~EvpnVlanFloodSetHwStatus() = default;

HwInfoMapping::HwInfoMapping() = default;
HwInfoMapping::~HwInfoMapping() = default;

TunnelVlanMacDestSet::TunnelVlanMacDestSet(const Tunnel::TunnelTable::TunnelId& tunnelId)
    : tunnelId_(tunnelId) {}
TunnelVlanMacDestSet::~TunnelVlanMacDestSet() = default;

MplsFloodSetViaToVlanMacDestSet::MplsFloodSetViaToVlanMacDestSet(const MplsFloodSetVia& via)
    : via_(via) {}
MplsFloodSetViaToVlanMacDestSet::~MplsFloodSetViaToVlanMacDestSet() = default;

TunnelIdToMplsFloodSetVia::TunnelIdToMplsFloodSetVia(const Tunnel::TunnelTable::TunnelId& tunnelId)
    : tunnelId_(tunnelId) {}
TunnelIdToMplsFloodSetVia::~TunnelIdToMplsFloodSetVia() = default;

MplsFloodSetViaToFloodSetStatus::MplsFloodSetViaToFloodSetStatus(const MplsFloodSetVia& via)
    : via_(via) {}
MplsFloodSetViaToFloodSetStatus::~MplsFloodSetViaToFloodSetStatus() = default;

}  // namespace Oba
