#include "Oba/TunnelIdToHwTunnelIdMapping.h"

#include <sstream>

namespace Oba {

std::string TunnelIdToHwTunnelId::compactString() const {
  std::ostringstream os;
  os << key() << " -> " << hwTunnelId();
  return os.str();
}

TunnelIdToHwTunnelIdMapping::TunnelIdToHwTunnelIdMapping(Kiv::Name name) : name_(std::move(name)) {
  tunnelIdToHwTunnelIdMount(Shoal::Role::writer);
}

}  // namespace Oba
