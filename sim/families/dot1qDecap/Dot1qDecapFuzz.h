#pragma once
// The dot1q and decapsulation family in the fuzzer: the interfaces, VLANs, tags and labels a seed
// draws beside the tunnel-id family's segments, and the random steps over them, each an action of
// the family's definitions (Dot1qDecapActions.h), a LAG's membership (the tunnel-id family's
// action) or a refusal rule for port maps.

#include <memory>

#include "sim/Family.h"

namespace Sim::dot1qDecap {

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng);

}  // namespace Sim::dot1qDecap
