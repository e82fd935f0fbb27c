#pragma once
// The flood-set family in the fuzzer: the world a seed draws (VLANs, flood MACs, the destinations
// of the tunnel-id family's endpoints and of local ports) and the random steps over it, each an
// action of the family's definitions (FloodSetActions.h), of the chip FEC table's
// (FecActions.h), or a refusal of the chip's.

#include <memory>

#include "sim/Family.h"

namespace Sim::floodSet {

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options);

}  // namespace Sim::floodSet
