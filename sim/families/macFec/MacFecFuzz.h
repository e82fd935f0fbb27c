#pragma once
// The MAC-address FEC family in the fuzzer: the world a seed draws (the machine's chain length and
// the chip FEC table's capacity) and the random steps over its RIB, each an action of the family's
// definitions (MacFecActions.h) or of the fec family's (the chip FEC table's settings, withdrawals
// and refused answers).

#include <memory>

#include "sim/Family.h"

namespace Sim::macFec {

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options);

}  // namespace Sim::macFec
