// Scenario files and arguments as a hostile user writes them: each is refused before anything
// runs, with the file, the line and the value given (or the argument); a long wait costs what can
// happen in it, not its length; the JSON log stays JSON.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "Kiv/Types.h"
#include "sim/Fuzz.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/ScenarioText.h"

namespace {

std::string firstLineOfError(const std::string& text) {
  try {
    Sim::parseScenario(text, "h.yaml");
  } catch (const Sim::ScenarioError& e) {
    std::string what = e.what();
    return what.substr(0, what.find('\n'));
  }
  return "no error";
}

// Two segments, each with its endpoint's label; a step at time 1 elects both.
const std::string twoSegments = R"(initial:
  - chipPool: 1
  - localEsiLabel: {segment: Ethernet5, label: mpls:2005}
  - localEsiLabel: {segment: Ethernet6, label: mpls:2006}
  - remoteEsiLabel: {segment: Ethernet5, tep: DynTunnel1.1, label: mpls:1001}
  - remoteEsiLabel: {segment: Ethernet6, tep: DynTunnel1.2, label: mpls:1002}
steps:
  - at: 1
    do:
      - designatedForwarder: {segment: Ethernet5, vlan: 100, tep: DynTunnel1.1}
      - designatedForwarder: {segment: Ethernet6, vlan: 100, tep: DynTunnel1.2}
)";

const std::string step = "steps:\n  - at: 1\n";
std::string doing(const std::string& action) { return step + "    do:\n      - " + action + "\n"; }

TEST(HostileInput, EveryRefusalNamesTheLineAndTheValueGiven) {
  struct Case {
    std::string text;
    std::string error;
  };
  const std::string tepWhat =
      "expected a tunnel endpoint (DynTunnelT.I, with T at most 65535, not DynTunnel0.0)";
  const std::string labelWhat =
      "expected an ESI label (mpls:N with N at most 1048575, vxlan:N or none:N)";
  const std::vector<Case> cases = {
      // Times: finite, and within the bound.
      {twoSegments + "  - at: inf\n",
       "h.yaml:12:9: expected a time in seconds (0-1000000), got 'inf'"},
      {twoSegments + "  - at: nan\n",
       "h.yaml:12:9: expected a time in seconds (0-1000000), got 'nan'"},
      {twoSegments + "  - at: 1e300\n",
       "h.yaml:12:9: expected a time in seconds (0-1000000), got '1e300'"},
      {twoSegments + "  - at: 4294967296\n",
       "h.yaml:12:9: expected a time in seconds (0-1000000), got '4294967296'"},
      {"steps:\n  - at: -1\n", "h.yaml:2:9: expected a time in seconds (0-1000000), got '-1'"},
      // Counts: within 32 bits, whole.
      {doing("chipPool: 1e300"),
       "h.yaml:4:19: expected a number of hardware tunnel ids, got '1e300'"},
      {doing("chipPool: 4294967296"),
       "h.yaml:4:19: expected a number of hardware tunnel ids, got '4294967296'"},
      {doing("chipPool: 1.5"), "h.yaml:4:19: expected a number of hardware tunnel ids, got '1.5'"},
      // Labels, endpoints, VLANs: what the machines would refuse.
      {doing("remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:2000000}"),
       "h.yaml:4:72: " + labelWhat + ", got 'mpls:2000000'"},
      {doing("remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1048576}"),
       "h.yaml:4:72: " + labelWhat + ", got 'mpls:1048576'"},
      {doing("segment: DynTunnel0.0"),
       "h.yaml:4:18: expected a segment interface (EthernetN or Port-ChannelN), got "
       "'DynTunnel0.0'"},
      {doing("remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel0.0, label: none:0}"),
       "h.yaml:4:51: " + tepWhat + ", got 'DynTunnel0.0'"},
      {doing("designatedForwarderDel: {segment: Ethernet1, vlan: 4095}"),
       "h.yaml:4:60: expected a VLAN (1-4094), got '4095'"},
      {doing("designatedForwarderDel: {segment: Ethernet1, vlan: [10]}"),
       "h.yaml:4:60: expected a VLAN (1-4094), got a list"},
      {step + "    expect:\n      esiData:\n        - {port: Ethernet1, vlan: 10, tunnel: "
              "DynTunnel1.1, hw: 1, label: 1048576, local: 1}\n",
       "h.yaml:5:75: expected an MPLS label (0-1048575), got '1048576'"},
      // chipRefuse rules that could never match.
      {doing("chipRefuse: {op: createEsiData, port: Port-Channel1}"),
       "h.yaml:4:47: expected a physical port (EthernetN), got 'Port-Channel1'"},
      {doing("chipRefuse: {op: getHwTunnelId, vlan: 10}"),
       "h.yaml:4:47: getHwTunnelId calls name no vlan, got '10'"},
      // Ports with two owners.
      {"initial:\n  - localEsiLabel: {segment: Ethernet1, label: mpls:1}\n"
       "  - lag: {lag: Port-Channel1, members: [Ethernet2, Ethernet1]}\nsteps: []\n",
       "h.yaml:3:52: Ethernet1 is a segment of its own (line 2); it cannot be a LAG member too"},
      {"initial:\n  - lag: {lag: Port-Channel1, members: [Ethernet1]}\n"
       "  - designatedForwarder: {segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}\nsteps: []\n",
       "h.yaml:3:36: Ethernet1 is a member of Port-Channel1 (line 2); a LAG member is no segment "
       "of its own"},
      {"initial:\n  - lag: {lag: Port-Channel1, members: [Ethernet1, Ethernet2]}\n"
       "  - lag: {lag: Port-Channel2, members: [Ethernet2]}\nsteps: []\n",
       "h.yaml:3:41: Ethernet2 is a member of Port-Channel1 (line 2) already"},
      {"initial:\n  - lag: {lag: Port-Channel1, members: [Ethernet1, Ethernet1]}\nsteps: []\n",
       "h.yaml:2:52: Ethernet1 is a member of Port-Channel1 (line 2) already"},
      // What the YAML library would take silently.
      {"steps:\n  - at: 1\n    at: 2\n", "h.yaml:3:5: the key 'at' a second time in a map"},
      {"steps:\n  - at: 1\n---\nsteps: []\n",
       "h.yaml:3:1: a second YAML document (or text after the document's end '...'); a scenario "
       "file holds one"},
      {"steps: []\n...\ngarbage\n",
       "h.yaml:3:1: a second YAML document (or text after the document's end '...'); a scenario "
       "file holds one"},
      {"steps:\n  - at: 1\n    note: \"abc\n", "h.yaml:3:11: a quoted string that is never closed"},
      {"steps:\n  - at: 1\n    note: 'it''s\n",
       "h.yaml:3:11: a quoted string that is never closed"},
      {"initial: &a\n  - segment: Ethernet1\nsteps:\n  - at: 1\n    do: *a\n",
       "h.yaml:5:9: an alias (*name); a scenario writes each value out where it is used"},
      {step + "    note: a" + std::string(1, '\0') + "b\n",
       "h.yaml:3:12: a NUL byte; a scenario is UTF-8 text"},
      {step + "    note: a\xff" + "b\n",
       "h.yaml:3:12: a byte that is not UTF-8; a scenario is UTF-8 text"},
      {step + "    note: \xed\xa0\x80\n",
       "h.yaml:3:11: a byte that is not UTF-8; a scenario is UTF-8 text"},
      {std::string(Sim::maxScenarioBytes + 1, '#'),
       "h.yaml: larger than a scenario may be (1048576 bytes)"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(firstLineOfError(c.text), c.error) << c.text.substr(0, 200);
  }
  // Refused, however deep.
  EXPECT_EQ(firstLineOfError("steps: " + std::string(5000, '[')).rfind("h.yaml:1:", 0), 0u);
  // A real label, a note in any language, and a LAG member that moves after its LAG went: read.
  EXPECT_EQ(firstLineOfError(doing("localEsiLabel: {segment: Ethernet1, label: mpls:1048575}")),
            "no error");
  EXPECT_EQ(firstLineOfError(step + "    note: Größe – 大小\n"), "no error");
  EXPECT_EQ(firstLineOfError("initial:\n  - lag: {lag: Port-Channel1, members: [Ethernet1]}\n"
                             "  - lagDel: Port-Channel1\n"
                             "  - lag: {lag: Port-Channel2, members: [Ethernet1]}\nsteps: []\n"),
            "no error");
}

// Every kind of refusal, each quoting what the file gave (a value, or "a map", "a list").
TEST(HostileInput, EveryKindOfRefusalQuotesTheValueGiven) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"hello\n", "got 'hello'"},
      {"initial: x\nsteps: []\n", "got 'x'"},
      {"steps: x\n", "got 'x'"},
      {"initial:\n  - restart: agent\nsteps: []\n", "got restart: 'agent'"},
      {"steps:\n  - at: 5\n  - at: 3\n",
       "expected a time no earlier than the step before (5), got '3'"},
      {step + "    do: x\n", "got 'x'"},
      {doing("x"), "got 'x'"},
      {doing("restart: nosuchMachine"), "got 'nosuchMachine'"},
      {doing("chipRefuse: {op: frobnicate}"), "got 'frobnicate'"},
      {doing("chipRefuse: {op: createEsiData, rc: programmed}"), "got 'programmed'"},
      {doing("chipRefuse: {op: hwFecId, rc: accepted}"), "got 'accepted'"},
      {doing("chipRefuse: {op: createEsiPortMap, rc: 0}"), "got '0'"},
      {doing("chipRefuse: {op: createEsiPortMap, rc: lfibHwProgrammingSuccess}"),
       "got 'lfibHwProgrammingSuccess'"},
      {doing("designatedForwarder: Ethernet1"), "got 'Ethernet1'"},
      {doing("lag: {lag: Port-Channel1, members: Ethernet1}"), "got 'Ethernet1'"},
      {doing("maxChainLength: 0"), "got '0'"},
      {doing("maxChainLength: 1"), "got '1'"},
      {doing("maxChainLength: 4"), "got '4'"},
      {doing("macFecNumberRange: {first: 0, last: 3}"), "got '0'"},
      {doing("macFecNumberRange: {first: 5, last: 2}"), "from first (5) to 1048575, got '2'"},
      {doing("macFecNumberRange: {first: 1, last: 1048576}"), "got '1048576'"},
      {doing("viaSet: {set: 1, type: 0, index: 1}"), "got '0'"},
      {doing("viaSet: {set: 1, type: 7, index: 1}"), "got '7'"},
      {doing("dot1qEnabled: yes"), "got 'yes'"},
      {doing("loadBalance: {id: 1, next: dest/1}"), "got 'dest/1'"},
      {doing("fecChipLatency: 1e7"), "got '1e7'"},
      {doing("floodListLatency: -1"), "got '-1'"},
      {step + "    expect:\n      esiData: {anyOrder: [], inOrder: []}\n", "got a map"},
      {step + "    expect:\n      esiData: x\n", "got 'x'"},
      {step + "    expect:\n      checks: x\n", "got 'x'"},
  };
  for (const auto& [text, got] : cases) {
    const std::string error = firstLineOfError(text);
    EXPECT_NE(error.find(got), std::string::npos) << error << "\n" << text;
    EXPECT_EQ(error.rfind("h.yaml:", 0), 0u) << error;
  }
}

// What a run would refuse mid-step, or change silently, is refused by the reader, in a step or
// among the initial actions alike, with the file, line, column and value.
TEST(HostileInput, WhatTheRunWouldRefuseOrChangeIsRefusedByTheReader) {
  std::string nexts;
  for (int i = 0; i < 257; ++i) nexts += (i ? ", " : "") + std::string("dest/1");
  const std::string local =
      "expected a local ESI label (mpls:N, vxlan:N or none:N with N at most 1048575: the machine "
      "programs it as an MPLS label whatever its encapsulation), got ";
  const std::string dest =
      "expected a destination (mpls(TunnelT.I, LABEL) with LABEL 0-1048575, tunnel(TunnelT.I) or "
      "intf(NAME); not on Tunnel0.0), got ";
  const std::vector<std::pair<std::string, std::string>> actions = {
      {"localEsiLabel: {segment: Ethernet1, label: vxlan:1048576}", local + "'vxlan:1048576'"},
      {"localEsiLabel: {segment: Ethernet1, label: none:16777215}", local + "'none:16777215'"},
      {"loadBalance: {id: 1, next: [" + nexts + "]}",
       "expected at most 256 objects (the paths of one ECMP group), got 257"},
      {"floodSetDest: {vlan: 10, dest: 'mpls(Tunnel1.1, 1048576)'}",
       dest + "'mpls(Tunnel1.1, 1048576)'"},
      {"floodSetDest: {vlan: 10, dest: 'mpls(Tunnel1.1, none)'}", dest + "'mpls(Tunnel1.1, none)'"},
      {"mplsFloodSetDest: {vlan: 10, dest: 'mpls(Tunnel0.0, 1001)'}",
       dest + "'mpls(Tunnel0.0, 1001)'"},
      {"floodSetDest: {vlan: 10, dest: 'tunnel(Tunnel0.0)'}", dest + "'tunnel(Tunnel0.0)'"},
  };
  for (const auto& [action, error] : actions) {
    const std::string inStep = firstLineOfError(doing(action));
    EXPECT_EQ(inStep.substr(0, 9), "h.yaml:4:") << inStep;
    EXPECT_NE(inStep.find(error), std::string::npos) << inStep;
    const std::string inInitial = firstLineOfError("initial:\n  - " + action + "\nsteps: []\n");
    EXPECT_EQ(inInitial.substr(0, 9), "h.yaml:2:") << inInitial;
    EXPECT_NE(inInitial.find(error), std::string::npos) << inInitial;
  }
  // At the limits: read.
  EXPECT_EQ(firstLineOfError(doing("localEsiLabel: {segment: Ethernet1, label: vxlan:1048575}")),
            "no error");
  nexts.resize(nexts.rfind(", "));
  EXPECT_EQ(firstLineOfError(doing("loadBalance: {id: 1, next: [" + nexts + "]}")), "no error");
  EXPECT_EQ(firstLineOfError(doing("floodSetDest: {vlan: 10, dest: 'mpls(Tunnel1.1, 1048575)'}")),
            "no error");
}

TEST(HostileInput, AFileThatCannotBeReadSaysWhy) {
  auto errorOfFile = [](const std::string& path) {
    try {
      Sim::readScenarioFile(path);
    } catch (const Sim::ScenarioError& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  EXPECT_EQ(errorOfFile("/nonexistent/s.yaml"),
            "/nonexistent/s.yaml: cannot read the file: No such file or directory");
  const auto dir = std::filesystem::temp_directory_path();
  EXPECT_EQ(errorOfFile(dir.string()), dir.string() + ": cannot read the file: it is a directory");
  // A device without end, and a file past the limit: both stop at the limit.
  EXPECT_EQ(errorOfFile("/dev/zero"), "/dev/zero: larger than a scenario may be (1048576 bytes)");
  const auto big = dir / "oba-hostile-big.yaml";
  {
    std::ofstream out(big);
    out << "steps: []\n" << std::string(Sim::maxScenarioBytes, '#');
  }
  EXPECT_EQ(errorOfFile(big.string()),
            big.string() + ": larger than a scenario may be (1048576 bytes)");
  std::filesystem::remove(big);
}

int fuzzExit(std::vector<std::string> args) {
  args.insert(args.begin(), {"oba-evpn-sim", "fuzz"});
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  return Sim::fuzzMain(static_cast<int>(argv.size()), argv.data());
}

TEST(HostileInput, TheFuzzerRefusesArgumentsThatMeanNoRun) {
  // A run keeps its whole history: a count it could not keep is refused before it starts.
  EXPECT_EQ(fuzzExit({"--steps", "4294967295"}), 2);
  EXPECT_EQ(fuzzExit({"--steps", std::to_string(Sim::maxFuzzSteps + 1)}), 2);
  EXPECT_EQ(fuzzExit({"--pool", "0", "--steps", "0"}), 2);
  EXPECT_EQ(fuzzExit({"--seeds", "0"}), 2);
  EXPECT_EQ(fuzzExit({"--fault-rate", "nan"}), 2);
  EXPECT_EQ(fuzzExit({"--fault-rate", "inf"}), 2);
  EXPECT_EQ(fuzzExit({"--pool", "-1"}), 2);
  EXPECT_EQ(fuzzExit({"--seeds", "1", "--steps", "0", "--pool", "1"}), 0);
}

// A tunnel waits for an id until the end of time allowed, while a refusal rule for the other
// segment counts down 1000 reviews: the wait skips the repeating reviews, but not past the rule's
// last refusal, so the entry is programmed at the time an exact walk programs it.
TEST(HostileInput, ALongWaitCostsWhatHappensInItNotItsLength) {
  std::string text = twoSegments + R"(  - at: 1000000
    expect:
      mapping: [Tunnel1.1 -> 1]
      esiData: [Ethernet5 vlan 100 tunnel Tunnel1.1 hw 1 label 1001 local 2005]
)";
  text.insert(text.find("  - local"),
              "  - chipRefuse: {op: createEsiData, port: Ethernet5, times: 1000}\n");
  std::ostringstream out;
  Sim::SimLog log(&out);
  auto r = Sim::runScenario(Sim::parseScenario(text, "w.yaml"), log, {.check = true});
  EXPECT_TRUE(r.ok()) << (r.failures.empty() ? "" : r.failures.front());
  const std::string programmed =
      "createEsiData Ethernet5 vlan 100 tunnel Tunnel1.1 hw 1 label "
      "1001 local 2005 -> programmed";
  const std::string& l = out.str();
  EXPECT_NE(l.find("periods skipped"), std::string::npos);
  EXPECT_NE(l.find("  5001.000  floodingEsi>chip " + programmed), std::string::npos) << l;
  EXPECT_LT(l.size(), 200'000u);  // the 200 000 retries of the other tunnel are not there
}

TEST(HostileInput, TheJsonLogStaysJson) {
  std::ostringstream out;
  Sim::SimLog log(&out, Sim::SimLog::Format::json);
  log.add(std::numeric_limits<double>::quiet_NaN(), "step",
          "a\xff"
          "b \xc3\xa9");
  EXPECT_EQ(out.str(), "{\"time\":null,\"source\":\"step\",\"text\":\"a\\ufffdb \xc3\xa9\"}\n");
}

}  // namespace

namespace {

// An exception from inside a step (none comes from input any more) still names the step and its
// line, and not the type that threw.
TEST(HostileInput, AnExceptionInAStepIsToldAsTheStep) {
  struct Throwing : Sim::ActionBody {
    void apply(Sim::HostAgent&) const override {
      throw Kiv::RangeException("MplsLabel::value > 1048576 not allowed");
    }
    void write(std::ostream& os) const override { os << "throwing: x"; }
    std::string_view name() const override { return "throwing"; }
  };
  Sim::Scenario s = Sim::parseScenario("steps:\n  - at: 1\n  - at: 2\n", "t.yaml");
  s.steps[1].actions.push_back(Sim::Action{3, std::make_shared<Throwing>()});
  std::ostringstream out;
  Sim::SimLog log(&out);
  auto r = Sim::runScenario(s, log, {});
  EXPECT_TRUE(r.aborted && r.internalError);
  EXPECT_EQ(r.failures.back(),
            "t.yaml:3: the step at time 2 failed at time 2: a value out of range\n");
  EXPECT_EQ(out.str().find("MplsLabel"), std::string::npos);

  // Among the initial actions: the action's line.
  s.steps[1].actions.clear();
  s.initial.push_back(Sim::Action{7, std::make_shared<Throwing>()});
  r = Sim::runScenario(s, log, {});
  EXPECT_EQ(r.failures.back(), "t.yaml:7: the initial action failed: a value out of range\n");
}

}  // namespace
