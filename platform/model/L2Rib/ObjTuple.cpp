#include "L2Rib/ObjTuple.h"

#include <array>
#include <sstream>
#include <string_view>

namespace L2Rib {

std::ostream& operator<<(std::ostream& os, TableType t) {
  static constexpr std::array<std::string_view, 4> names = {"none", "loadBalance", "label", "dest"};
  if (t < names.size()) return os << names[t];
  return os << Quil::TextBuf<16>().append("TableType(").appendDecimal(t).append(")").view();
}

std::ostream& operator<<(std::ostream& os, const ObjTuple& t) {
  return os << t.tableType() << "/" << t.id();
}

std::string ObjTuple::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

}  // namespace L2Rib
