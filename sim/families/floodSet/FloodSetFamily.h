#pragma once
// The MPLS flood-set family: the flood-set filter machine, which derives the MPLS-only flood sets
// from the layer-2 RIB's, and the flood-set FEC and VLAN flood-set machines, which program the
// chip's flood lists from them over the tunnel-id family's mapping and the chip's FEC table.
//
// Its folder, by job: FloodSetAgent (its part of the host agent: inputs, outputs, machines),
// FloodSetActions (its scenario actions), FloodSetFuzz (its worlds and random steps),
// FloodSetCheck (the drained state against the inputs), FloodListChip (the chip's flood lists and
// the status they report), FloodSetDraw (its picture), FloodSetTables (what it publishes), and
// this registration.

#include "sim/Family.h"

namespace Sim {

const Family& floodSetFamily();

// Its small worlds for the explorer (FloodSetExplore.cpp).
std::vector<ExploreWorld> floodSetWorlds();

}  // namespace Sim
