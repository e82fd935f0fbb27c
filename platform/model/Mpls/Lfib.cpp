#include "Mpls/Lfib.h"

namespace Mpls {

std::ostream& operator<<(std::ostream& os, const RouteKey& k) {
  return os << "topLabel " << k.topLabel();
}

std::ostream& operator<<(std::ostream& os, LfibViaType t) { return os << static_cast<unsigned>(t); }

std::ostream& operator<<(std::ostream& os, const LfibViaKey& k) {
  return os << k.viaType() << "/" << k.viaIndex();
}

std::ostream& operator<<(std::ostream& os, const LfibViaSetKey& k) { return os << k.value(); }

std::ostream& operator<<(std::ostream& os, const LfibViaSet& v) {
  return os << v.viaSetKey << " -> " << v.viaKey;
}

std::ostream& operator<<(std::ostream& os, const LfibRoute& r) {
  return os << r.routeKey << " viaSet " << r.viaSetKey;
}

std::ostream& operator<<(std::ostream& os, const LfibEvpnEthernetSegmentFilterVia& v) {
  return os << "intf " << v.intfId;
}

}  // namespace Mpls
