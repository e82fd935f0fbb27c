#pragma once
// The chip operations whose calls answer an Oba::HwProgrammingStatus (the creates of ESI data, of
// flood-list members, ...): a chipRefuse rule makes them answer notProgrammed (the default) or
// invalidHwId, and is written back with the code's name.

#include <cstdint>
#include <string>
#include <utility>

#include "Oba/HwProgrammingStatus.h"
#include "sim/Family.h"
#include "sim/ScenarioReader.h"

namespace Sim {

inline ChipOperation hwProgrammingOperation(std::string name, bool hasPort, bool hasVlan) {
  const char* const codes = "notProgrammed or invalidHwId";
  return {std::move(name),
          codes,
          [codes](const Reader& r, const YAML::Node& n) {
            const auto rc = r.parsed(n, codes, Oba::parseHwProgrammingStatus);
            // A refusal that answers `programmed` would leave the machine believing in an entry
            // the chip never made.
            if (rc == Oba::HwProgrammingStatus::programmed) r.failExpected(n, codes);
            return static_cast<std::uint32_t>(rc);
          },
          static_cast<std::uint32_t>(Oba::HwProgrammingStatus::notProgrammed),
          hasPort,
          hasVlan,
          [](std::uint32_t v) {
            return std::string(Oba::toString(static_cast<Oba::HwProgrammingStatus>(v)));
          }};
}

}  // namespace Sim
