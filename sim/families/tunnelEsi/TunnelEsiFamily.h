#pragma once
// The tunnel-id and ESI data family: the hardware tunnel-id machine, which gives each designated
// forwarder's tunnel a hardware id and publishes the mapping table, and the ESI flooding machine,
// which reads that table and programs split-horizon ESI data per physical port and VLAN.
//
// Its folder, by job: TunnelEsiAgent (its part of the host agent: inputs, outputs, machines),
// TunnelEsiActions (its scenario actions and table entries), TunnelEsiFuzz (its worlds and random
// steps), TunnelEsiExplore (its small worlds), TunnelEsiCheck (the drained state against the
// inputs), TunnelEsiChip (the chip's tunnel ids and ESI data), TunnelEsiDraw (its picture),
// TunnelEsiTables (what it publishes), and this registration.

#include "sim/Family.h"

namespace Sim {

const Family& tunnelEsiFamily();

// Its small worlds for the explorer (TunnelEsiExplore.cpp).
std::vector<ExploreWorld> tunnelEsiWorlds();

}  // namespace Sim
