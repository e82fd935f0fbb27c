#include "L2Rib/RibOutputs.h"

namespace L2Rib {

std::ostream& operator<<(std::ostream& os, const Label& l) {
  return os << "label(" << l.mplsLabel() << " -> " << l.next() << ")";
}

std::ostream& operator<<(std::ostream& os, const LoadBalance& lb) {
  os << "loadBalance(";
  for (std::size_t i = 0; i < lb.next().size(); ++i) os << (i ? ", " : "") << lb.next()[i];
  return os << ")";
}

std::ostream& operator<<(std::ostream& os, const HostAndSource& h) {
  return os << "host(" << h.objTuple() << ", source " << h.source() << ")";
}

}  // namespace L2Rib
