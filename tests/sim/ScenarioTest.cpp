// Scenario files as a person writes them: mistakes are refused with file, line and what was
// expected before anything runs; a wrong expectation fails the check and says what happened.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Kiv/Trace.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/fec/FecFamily.h"
#include "sim/families/macFec/MacFecFamily.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace {

// The families the texts below were written for: what the reader lists and the state it prints
// do not change as other families join.
const Sim::Families& textFamilies() {
  static const Sim::Families families{&Sim::tunnelEsiFamily(), &Sim::fecFamily(),
                                      &Sim::macFecFamily()};
  return families;
}

std::string errorOf(const std::string& text) {
  try {
    Sim::parseScenario(text, "s.yaml", textFamilies());
  } catch (const Sim::ScenarioError& e) {
    return e.what();
  }
  return "no error";
}

TEST(Scenario, MistakesNameTheLineColumnAndWhatWasExpected) {
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - designatedForwarder: "
                    "{segment: Ethernet1, vlan: 5000, tep: DynTunnel1.1}\n"),
            "s.yaml:4:57: expected a VLAN (1-4094), got '5000'");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - designatedForwarder: "
                    "{segment: Ethernet1, vlan: 10, tep: DynTunnel65536.1}\n"),
            "s.yaml:4:66: expected a tunnel endpoint (DynTunnelT.I, with T at most 65535, not "
            "DynTunnel0.0), got 'DynTunnel65536.1'");
  EXPECT_EQ(errorOf("steps:\n  - at: 2\n  - at: 1\n"),
            "s.yaml:3:9: expected a time no earlier than the step before (2), got '1'");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - designatedForwarder: "
                    "{segment: Ethernet1, vlan: 10}\n"),
            "s.yaml:4:30: missing 'tep'");
  // The keys every family offers are listed, the core's first and last.
  const std::string unknownKey = errorOf("steps:\n  - at: 1\n    expect:\n      esiDta: none\n");
  EXPECT_EQ(unknownKey.rfind("s.yaml:4:7: unknown key 'esiDta' in 'expect' (expected: calls, "
                             "callsAnyOrder, esiData, mapping, hwTunnelIds, ",
                             0),
            0u)
      << unknownKey;
  EXPECT_TRUE(unknownKey.ends_with(", violations, checks, abort)")) << unknownKey;
  EXPECT_NE(errorOf("steps:\n  - at: 1\n    do:\n      - dfSet: {}\n")
                .find("s.yaml:4:9: unknown action 'dfSet'"),
            std::string::npos);
  EXPECT_NE(errorOf("steps: [\n").find("s.yaml:"), std::string::npos);
  EXPECT_EQ(errorOf("initial:\n  - restart: agent\nsteps: []\n"),
            "s.yaml:2:5: a restart cannot come before the agent starts, got restart: 'agent'");
  const std::string restart = errorOf("steps:\n  - at: 1\n    do:\n      - restart: flooding\n");
  EXPECT_EQ(
      restart.rfind("s.yaml:4:18: expected a machine to restart (hwTunnelId, floodingEsi, ", 0), 0u)
      << restart;
  EXPECT_TRUE(restart.ends_with(" or agent), got 'flooding'")) << restart;
  // The forms every family's expectations share: entries as maps, a stated order, a trace.
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    expect:\n      esiData:\n        - {port: "
                    "Ethernet1, vlan: 10, tunnel: DynTunnel1.1, hw: 1, label: 1001}\n"),
            "s.yaml:5:11: missing 'local'");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    expect:\n      hwTunnelIds:\n        - {id: 1}\n"),
            "s.yaml:5:11: expected a line, got a map");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    expect:\n      calls: {someOrder: []}\n"),
            "s.yaml:4:15: unknown key 'someOrder' in 'calls' (expected: anyOrder, inOrder)");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    trace: 'ObaEvpn*/x'\n"),
            "s.yaml:3:12: expected trace levels (SOURCE/LEVEL,...), got 'ObaEvpn*/x'");
}

TEST(Scenario, MacFecMistakesNameTheLineColumnAndWhatWasExpected) {
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - label: {id: 1, mpls: 1, next: lable/2}\n"),
            "s.yaml:4:39: expected an object of the RIB (label/N, loadBalance/N or dest/N), got "
            "'lable/2'");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - maxChainLength: 4\n"),
            "s.yaml:4:25: expected a chain length (2 or 3), got '4'");
  EXPECT_EQ(errorOf("steps:\n  - at: 1\n    do:\n      - hostDel: {vlan: 10, mac: 2:0}\n"),
            "s.yaml:4:34: expected a MAC address (aa:bb:cc:dd:ee:ff), got '2:0'");
}

// A story in the forms a table expectation may take: entries written as maps, a comparison in any
// order, and the library's traces for one step only.
TEST(Scenario, EntriesAnyOrderAndAStepTrace) {
  const char* const text = R"(
initial:
  - localEsiLabel: {segment: Ethernet1, label: mpls:2001}
  - localEsiLabel: {segment: Ethernet2, label: mpls:2002}
steps:
  - at: 1
    do:
      - remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1001}
      - remoteEsiLabel: {segment: Ethernet2, tep: DynTunnel1.1, label: mpls:1001}
      - designatedForwarder: {segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}
      - designatedForwarder: {segment: Ethernet2, vlan: 10, tep: DynTunnel1.1}
    expect:
      esiData:
        - {port: Ethernet2, vlan: 10, tunnel: DynTunnel1.1, hw: 1, label: 1001, local: 2002}
        - Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1 label 1001 local 2001
      mapping: [{tunnel: DynTunnel1.1, hw: 1}]
      callsAnyOrder:
        - createEsiData Ethernet2 vlan 10 tunnel Tunnel1.1 hw 1 label 1001 local 2002 -> programmed
        - getHwTunnelId -> 1
        - createEsiData Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1 label 1001 local 2001 -> programmed
  - at: 2
    trace: ObaEvpnFloodingEsiSm/8
    do:
      - designatedForwarderDel: {segment: Ethernet2, vlan: 10}
      - designatedForwarderDel: {segment: Ethernet1, vlan: 10}
    expect:
      calls:
        anyOrder:
          - deleteEsiData Ethernet1 vlan 10
          - releaseHwTunnelId 1
          - deleteEsiData Ethernet2 vlan 10
  - at: 3
    do:
      - designatedForwarder: {segment: Ethernet1, vlan: 20, tep: DynTunnel1.1}
    expect:
      calls:
        inOrder:
          - getHwTunnelId -> 1
          - createEsiData Ethernet1 vlan 20 tunnel Tunnel1.1 hw 1 label 1001 local 2001 -> programmed
)";
  std::vector<std::pair<double, std::string>> traces;
  Kiv::traceSinkIs([&](const Kiv::TraceLine& l) { traces.emplace_back(0, l.source); });
  Sim::SimLog quiet;
  auto r = Sim::runScenario(Sim::parseScenario(text, "forms.yaml"), quiet,
                            Sim::RunOptions{.check = true});
  Kiv::traceSinkIs(nullptr);
  EXPECT_TRUE(r.ok()) << r.failures[0];
  // Traced in the step that asked, and not after it.
  ASSERT_FALSE(traces.empty());
  EXPECT_EQ(Kiv::traceConfig(), "");
  for (const auto& [t, source] : traces) EXPECT_EQ(source, "ObaEvpnFloodingEsiSm");
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
  Sim::Scenario s =
      Sim::parseScenario(Sim::defaultScenarioText, Sim::defaultScenarioName, textFamilies());
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
  // Every table of every family, the chip's first, ends empty.
  const std::string st = state.str();
  EXPECT_EQ(st.rfind("chip esiData:\n    (none)\nchip hwTunnelIds in use:\n    (none)\n", 0), 0u)
      << st;
  EXPECT_NE(st.find("chip violations:\n    (none)\nmapping tunnelIdToHwTunnelId:\n    (none)\n"),
            std::string::npos)
      << st;
  std::istringstream lines(st);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(line == "    (none)" || line.ends_with(":")) << line;
  }
}

}  // namespace

namespace {

// Restarting the tunnel-id machine: the ESI data naming a published id and the rows go before
// the ids go back to the chip, so no reader still uses an id the chip may hand out again.
TEST(Scenario, ARestartedTunnelIdMachineRetractsItsIdsBeforeGivingThemBack) {
  const char* const text = R"(
initial:
  - localEsiLabel: {segment: Ethernet1, label: mpls:2001}
  - remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1001}
  - designatedForwarder: {segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}
steps:
  - at: 1
    do:
      - restart: hwTunnelId
)";
  std::ostringstream log;
  Sim::SimLog lines(&log);
  Sim::runScenario(Sim::parseScenario(text, "r.yaml"), lines, Sim::RunOptions{});
  const std::string l = log.str();
  const auto restart = l.find("restart hwTunnelId");
  const auto deleted = l.find("agent>chip       deleteEsiData Ethernet1 vlan 10", restart);
  const auto row = l.find("mapping          Tunnel1.1 deleted", restart);
  const auto release = l.find("agent>chip       releaseHwTunnelId 1", restart);
  const auto again = l.find("hwTunnelId>chip  getHwTunnelId -> 1", restart);
  ASSERT_NE(release, std::string::npos) << l;
  EXPECT_LT(deleted, row) << l;
  EXPECT_LT(row, release) << l;
  EXPECT_LT(release, again) << l;
}

}  // namespace

namespace {

// A machine that breaks an invariant the scenario does not expect ends the run with the step, its
// line, the assertion and the chip call that led to it; a step that expects an abort that does
// not come fails; and a step after an expected abort is refused, since it would never run.
TEST(Scenario, AnAbortIsReportedAsTheStepThatCausedIt) {
  const std::string head = R"(
initial:
  - localEsiLabel: {segment: Ethernet1, label: mpls:2001}
  - remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1001}
steps:
  - at: 1
    do:
      - chipRefuse: {op: createEsiData, rc: invalidHwId}
      - designatedForwarder: {segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}
)";
  std::ostringstream log;
  Sim::SimLog lines(&log);
  auto r = Sim::runScenario(Sim::parseScenario(head, "a.yaml"), lines, Sim::RunOptions{});
  ASSERT_TRUE(r.aborted);
  const std::string& f = r.failures.back();
  EXPECT_EQ(
      f.rfind("a.yaml:6: the step at time 1 aborted at time 1: assertion \"0\" failed at Oba/", 0),
      0u)
      << f;
  EXPECT_NE(f.find(", after floodingEsi: createEsiData Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1 "
                   "label 1001 local 2001 -> invalidHwId\n"),
            std::string::npos)
      << f;
  EXPECT_NE(log.str().find("abort            assertion \"0\" failed"), std::string::npos);

  auto expected =
      Sim::runScenario(Sim::parseScenario(head + "    expect: {abort: \"0\"}\n", "a.yaml"), lines,
                       Sim::RunOptions{.check = true});
  EXPECT_TRUE(expected.ok() && !expected.aborted);
  auto other = Sim::runScenario(
      Sim::parseScenario(head + "    expect: {abort: \"initialized()\"}\n", "a.yaml"), lines,
      Sim::RunOptions{.check = true});
  EXPECT_TRUE(other.aborted);

  const std::string quiet = R"(
steps:
  - at: 1
    expect: {abort: "0"}
)";
  auto none = Sim::runScenario(Sim::parseScenario(quiet, "q.yaml"), lines, Sim::RunOptions{});
  EXPECT_EQ(none.failures.back(),
            "q.yaml:3: expected the step to abort with assertion \"0\", but it completed\n");
  EXPECT_EQ(errorOf(quiet + "  - at: 2\n"),
            "s.yaml:5:5: a step after one that expects an abort never runs");
}

}  // namespace
