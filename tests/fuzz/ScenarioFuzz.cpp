// The scenario reader and the runner under libFuzzer: any input is either refused with a
// ScenarioError (file, line, what was expected) or read and run to its end, in bounded time and
// memory. A crash, a sanitizer report, an escaping exception, a hang or a memory blow-up is a
// finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/SimLog.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Sim::Scenario s;
  try {
    s = Sim::parseScenario(text, "fuzz.yaml");
  } catch (const Sim::ScenarioError&) {
    return 0;
  }
  Sim::SimLog log;
  Sim::RunOptions options;
  options.check = true;
  Sim::runScenario(s, log, options, nullptr);
  return 0;
}
