#include "Oba/HwProgrammingStatus.h"

#include <string>

#include "Kiv/Types.h"

namespace Oba {

const char* toString(HwProgrammingStatus s) {
  switch (s) {
    case HwProgrammingStatus::programmed:
      return "programmed";
    case HwProgrammingStatus::notProgrammed:
      return "notProgrammed";
    case HwProgrammingStatus::invalidHwId:
      return "invalidHwId";
  }
  return "HwProgrammingStatus(?)";
}

HwProgrammingStatus parseHwProgrammingStatus(std::string_view s) {
  for (auto v : {HwProgrammingStatus::programmed, HwProgrammingStatus::notProgrammed,
                 HwProgrammingStatus::invalidHwId}) {
    if (s == toString(v)) return v;
  }
  throw Kiv::RangeException("cannot parse '" + std::string(s) + "' as HwProgrammingStatus");
}

}  // namespace Oba
