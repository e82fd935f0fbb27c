#include "Oba/ObaBaseHelper.h"

#include <cstdlib>
#include <iostream>
#include <utility>

#include "Kiv/Assert.h"

namespace Oba {

ObaBaseHelper::ObaBaseHelper(Kiv::Name name) : name_(std::move(name)) {}

ObaBaseHelper::~ObaBaseHelper() = default;

void ObaBaseHelper::obaAssert(Kiv::String message) {
  std::cerr << message << "\n" << std::flush;
  // Field diagnostics and the agent's crash handling key on this source and line.
  Kiv::assertionFailed("0", "ObaCommon", 25);
}

bool ObaBaseHelper::noopAgent() { return std::getenv("OBA_NOOP_AGENT") != nullptr; }

}  // namespace Oba
