#pragma once
// The chip's FEC table as a family (FecAgent.h). Its folder: FecAgent (its part of the host agent),
// FecActions (its scenario actions), FecChip (the table), FecTables (the FEC requests as a
// published table, in the requesters' names), and this registration.

#include "sim/Family.h"

namespace Sim {

const Family& fecFamily();

}  // namespace Sim
