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
      {doing("localEsiLabel: {segment: Ethernet1, label: mpls:2000000}"),
       "h.yaml:4:52: " + labelWhat + ", got 'mpls:2000000'"},
      {doing("localEsiLabel: {segment: Ethernet1, label: mpls:1048576}"),
       "h.yaml:4:52: " + labelWhat + ", got 'mpls:1048576'"},
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
       "h.yaml:4:47: getHwTunnelId calls name no vlan"},
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
}

}  // namespace
