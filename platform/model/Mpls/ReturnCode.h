#pragma once
// Mpls::LfibHwProgrammingReturnCode: the outcome the hardware layer reports for programming an
// LFIB entry. Printed and parsed by enumerator name, e.g. "lfibHwProgrammingResourceFull".

#include <cstdint>
#include <ostream>
#include <string_view>

namespace Mpls {

enum class LfibHwProgrammingReturnCode : std::uint32_t {
  lfibHwProgrammingSuccess = 0,
  lfibHwProgrammingIntfConflict = 1,  // the interface is already mapped for another route
  lfibHwProgrammingResourceFull = 2,
  lfibHwProgrammingFailed = 3,
};

// The enumerator's name; a value outside the enumeration gives "LfibHwProgrammingReturnCode(<n>)".
std::ostream& operator<<(std::ostream& os, LfibHwProgrammingReturnCode rc);
// Accepts exactly an enumerator's name; raises Kiv::RangeException
// "cannot parse '<s>' as LfibHwProgrammingReturnCode" otherwise.
LfibHwProgrammingReturnCode parseLfibHwProgrammingReturnCode(std::string_view s);

}  // namespace Mpls
