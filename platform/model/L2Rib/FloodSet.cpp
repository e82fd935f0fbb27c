#include "L2Rib/FloodSet.h"

#include <utility>

namespace L2Rib {

FloodSet::FloodSet(const Quil::EthAddr& macAddr) : macAddr_(macAddr) {}

VlanFloodSet::VlanFloodSet(const Bridging::VlanId& vlanId) : vlanId_(vlanId) {}

FloodSetOutput::FloodSetOutput(Kiv::Name name) : name_(std::move(name)) {}

}  // namespace L2Rib
