#pragma once
// The tunnel-id family in the fuzzer: the world a seed draws (segments, LAGs and their ports,
// remote endpoints, VLANs) and the random steps over it, each an action of the family's
// definitions (TunnelEsiActions.h).

#include <cstdint>
#include <memory>

#include "sim/Family.h"

namespace Sim::tunnelEsi {

// Hardware tunnel ids at the start of a seed (--pool): few, so that they run out.
constexpr std::uint32_t poolDefault = 4;

std::unique_ptr<FamilyFuzz> fuzzIs(Rng& rng, const FuzzOptions& options);

}  // namespace Sim::tunnelEsi
