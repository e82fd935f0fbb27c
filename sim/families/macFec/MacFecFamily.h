#pragma once
// The MAC-address FEC family: the layer-2 RIB's label, load-balance, destination and host tables,
// and the MAC-address FEC machine that turns them into FEC requests, which the chip's FEC table
// answers (the fec family, which this one builds on).
//
// Its folder, by job: MacFecAgent (its part of the host agent: inputs, outputs, the machine),
// MacFecActions (its scenario actions and table entries), MacFecFuzz (its worlds and random
// steps), MacFecCheck (the drained state against the RIB), MacFecDraw (its picture), MacFecTables
// (what it publishes), and this registration.

#include "sim/Family.h"

namespace Sim {

const Family& macFecFamily();

// Its small worlds for the explorer (MacFecExplore.cpp).
std::vector<ExploreWorld> macFecWorlds();

}  // namespace Sim
