#include "Mpls/Lfib.h"

namespace Mpls {

std::ostream& operator<<(std::ostream& os, const RouteKey& k) {
  return os << "topLabel " << k.topLabel();
}

std::ostream& operator<<(std::ostream& os, LfibViaType t) { return os << static_cast<unsigned>(t); }

std::ostream& operator<<(std::ostream& os, const LfibViaKey& k) {
  return os << k.viaType() << "/" << k.viaIndex();
}

std::ostream& operator<<(std::ostream& os, const LfibEvpnEthernetSegmentFilterVia& v) {
  return os << "intf " << v.intfId;
}

}  // namespace Mpls
