// The scenario reader, its value parsers and the runner under libFuzzer: any input is either
// refused (a ScenarioError naming file and line; a parser's Kiv::RangeException) or read and run to
// its end, in bounded time and memory. A crash, a sanitizer report, an exception of any other
// kind, a hang or a memory blow-up is a finding.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Bridging/VlanId.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Trace.h"
#include "Kiv/Types.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/SimLog.h"

namespace {

template <class F>
void parsedOrRefused(F parse) {
  try {
    parse();
  } catch (const Kiv::RangeException&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A step's `trace` turns traces on while it runs: they are built, and dropped here.
  Kiv::traceSinkIs([](const Kiv::TraceLine&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // The value parsers every family's reads go through, on the raw text.
  const std::string_view word(text.data(), std::min<std::size_t>(text.size(), 64));
  parsedOrRefused([&] { Quil::IntfId::parse(word); });
  parsedOrRefused([&] { Bridging::VlanId::parse(word); });
  parsedOrRefused([&] { Evpn::EncapTypeLabel::parse(word); });
  parsedOrRefused([&] { Quil::MplsLabel::parse(word); });

  Sim::Scenario s;
  try {
    s = Sim::parseScenario(text, "fuzz.yaml");
  } catch (const Sim::ScenarioError&) {
    return 0;
  }
  // What was read runs to its end; a failure is reported in the result, never thrown.
  Sim::SimLog log;
  Sim::RunOptions options;
  options.check = true;
  if (Sim::runScenario(s, log, options, nullptr).internalError) __builtin_trap();
  return 0;
}
