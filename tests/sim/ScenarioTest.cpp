// Scenario files as a person writes them: mistakes are refused with file, line and what was
// expected before anything runs; a wrong expectation fails the check and says what happened.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"

namespace {

std::string errorOf(const std::string& text) {
  try {
    Sim::parseScenario(text, "s.yaml");
  } catch (const Sim::ScenarioError& e) {
    return e.what();
  }
  return "no error";
}

TEST(Scenario, MistakesNameTheLineAndWhatWasExpected) {
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - designatedForwarder: "
                    "{segment: Ethernet1, vlan: 5000, tep: DynTunnel1.1}\n"),
            "s.yaml:4: expected a VLAN (1-4094), got '5000'");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - designatedForwarder: "
                    "{segment: Ethernet1, vlan: 10, tep: DynTunnel65536.1}\n"),
            "s.yaml:4: expected a tunnel endpoint (DynTunnelT.I, with T at most 65535)");
  EXPECT_EQ(errorOf("steps:\n  - at: 2\n  - at: 1\n"),
            "s.yaml:3: expected a time no earlier than the step before");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - designatedForwarder: "
                    "{segment: Ethernet1, vlan: 10}\n"),
            "s.yaml:4: missing 'tep'");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    expect:\n      esiDta: none\n"),
            "s.yaml:4: unknown key 'esiDta' in 'expect' (expected: calls, callsAnyOrder, esiData, "
            "mapping, hwTunnelIds, violations)");
  EXPECT_NE(errorOf("steps:\n  - at: 1\n    do:\n      - dfSet: {}\n")
                .find("s.yaml:4: unknown action 'dfSet'"),
            std::string::npos);
  EXPECT_NE(errorOf("steps: [\n").find("s.yaml:"), std::string::npos);
  EXPECT_EQ(errorOf("initial:\n  - restart: agent\nsteps: []\n"),
            "s.yaml:2: a restart cannot come before the agent starts");
}

TEST(Scenario, AWrongExpectationFailsTheCheckWithWhatHappened) {
  Sim::Scenario s = Sim::readScenarioFile(OBA_TEST_DATA "/wrong-expectation.yaml");
  Sim::SimLog quiet;
  Sim::RunResult r = Sim::runScenario(s, quiet, Sim::RunOptions{.check = true});
  ASSERT_EQ(r.failures.size(), 1u);
  const std::string& f = r.failures[0];
  EXPECT_NE(f.find("wrong-expectation.yaml:10: expected calls (in order) at time 1"),
            std::string::npos)
      << f;
  EXPECT_NE(f.find("getHwTunnelId -> 7"), std::string::npos);
  EXPECT_NE(f.find("but got:\n    getHwTunnelId -> 1\n    createEsiData Ethernet1 vlan 10"),
            std::string::npos)
      << f;

  // Without --check the same file replays and logs, and nothing fails.
  std::ostringstream log;
  Sim::SimLog text(&log);
  EXPECT_TRUE(Sim::runScenario(s, text, Sim::RunOptions{}).ok());
  EXPECT_NE(log.str().find("hwTunnelId>chip  getHwTunnelId -> 1"), std::string::npos) << log.str();
}

TEST(Scenario, TheBuiltInScenarioTellsTheTypicalEventAndEndsClean) {
  Sim::Scenario s = Sim::parseScenario(Sim::defaultScenarioText, Sim::defaultScenarioName);
  std::ostringstream log, state;
  Sim::SimLog text(&log);
  Sim::RunResult r =
      Sim::runScenario(s, text, Sim::RunOptions{.check = true, .state = true}, &state);
  EXPECT_TRUE(r.ok()) << (r.failures.empty() ? "" : r.failures[0]);
  // The story in order: id, ESI data, refusal, retry five seconds later, deletion, release.
  std::string l = log.str();
  auto at = [&](const std::string& s) { return l.find(s); };
  EXPECT_LT(at("getHwTunnelId -> 1"), at("-> notProgrammed"));
  EXPECT_LT(at("-> notProgrammed"), at("     6.000  floodingEsi>chip createEsiData Ethernet2"));
  EXPECT_LT(at("deleteEsiData Ethernet2"), at("releaseHwTunnelId 1"));
  EXPECT_EQ(state.str(),
            "chip esiData:\n    (none)\nchip hwTunnelIds in use:\n    (none)\n"
            "chip violations:\n    (none)\nmapping tunnelIdToHwTunnelId:\n    (none)\n");
}

}  // namespace
