#pragma once
// Writes a scenario as a file the scenario reader takes back, action for action: what the fuzzer
// writes for a failing run. Each action writes its own form (ActionBody::write), the form the
// reader reads it in; the writer lays out the top level, the steps and their expectations as
// docs/scenario-format.md describes them.

#include <ostream>
#include <string>

#include "sim/Scenario.h"

namespace Sim {

// A time as a scenario file writes it: the shortest text that reads back as the same number.
std::string timeText(double t);

// The file: `comment` first (lines that start with "# "), then the name, the description (its
// line breaks kept, folded back into one line by the reader), the initial actions and the steps,
// each with its time, note, actions and expectations.
std::string scenarioText(const Scenario& s, const std::string& comment);

}  // namespace Sim
