#pragma once
// What the chip layer answers for one programming request. Prints and parses by name.

#include <cstdint>
#include <ostream>
#include <string_view>

#include "Oba/ObaExport.h"

namespace Oba {

enum class HwProgrammingStatus : std::uint32_t {
  programmed = 0,     // in the hardware
  notProgrammed = 1,  // not (yet) programmed: retry later
  invalidHwId = 2,    // refused: one of its hardware identifiers is not valid
};

OBA_EXPORT const char* toString(HwProgrammingStatus s);
// The enumerator name; Kiv::RangeException "cannot parse '<s>' as HwProgrammingStatus" otherwise.
OBA_EXPORT HwProgrammingStatus parseHwProgrammingStatus(std::string_view s);
inline std::ostream& operator<<(std::ostream& os, HwProgrammingStatus s) {
  return os << toString(s);
}
// Lets HwProgrammingStatus be a field of the library's value types.
inline HwProgrammingStatus parseValueField(std::string_view s, HwProgrammingStatus*) {
  return parseHwProgrammingStatus(s);
}

}  // namespace Oba
