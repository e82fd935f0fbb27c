#pragma once
// The dot1q and decapsulation family: the dot1q flooding machine, which programs the 802.1Q tag
// of each EVPN VLAN service on the member ports of the VLAN's interfaces, and the ESI filtering on
// decapsulation machine, which programs an ESI port map for each label route with an
// Ethernet-segment filter via. It builds on the tunnel-id family's EVPN status and LAG membership.
//
// Its folder, by job: Dot1qDecapAgent (its part of the host agent), Dot1qDecapActions (its
// scenario actions, chip operations and table entries), Dot1qDecapFuzz (its worlds and random
// steps), Dot1qDecapCheck (the drained state against the inputs), Dot1qDecapChip (the chip's dot1q
// and port-map tables), Dot1qDecapDraw (its picture), Dot1qDecapTables (what it publishes), and
// this registration.

#include "sim/Family.h"

namespace Sim {

const Family& dot1qDecapFamily();

// Its small worlds for the explorer (Dot1qDecapExplore.cpp).
std::vector<ExploreWorld> dot1qDecapWorlds();

}  // namespace Sim
