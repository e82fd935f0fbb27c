#include "Mpls/ReturnCode.h"

#include <array>

#include "Quil/Text.h"

namespace Mpls {

namespace {

constexpr std::array<std::string_view, 4> names = {
    "lfibHwProgrammingSuccess",
    "lfibHwProgrammingIntfConflict",
    "lfibHwProgrammingResourceFull",
    "lfibHwProgrammingFailed",
};

}  // namespace

std::ostream& operator<<(std::ostream& os, LfibHwProgrammingReturnCode rc) {
  auto i = static_cast<std::uint32_t>(rc);
  if (i < names.size()) return os << names[i];
  return os << Quil::TextBuf<40>()
                   .append("LfibHwProgrammingReturnCode(")
                   .appendDecimal(i)
                   .append(")")
                   .view();
}

LfibHwProgrammingReturnCode parseLfibHwProgrammingReturnCode(std::string_view s) {
  for (std::uint32_t i = 0; i < names.size(); ++i) {
    if (names[i] == s) return static_cast<LfibHwProgrammingReturnCode>(i);
  }
  Quil::text::cannotParse(s, "LfibHwProgrammingReturnCode");
}

}  // namespace Mpls
