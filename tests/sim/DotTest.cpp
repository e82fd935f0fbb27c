// The picture of the forwarding state (--dot): what a reader must see at a glance, step by step.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "sim/Dot.h"
#include "sim/HostAgent.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/dot1qDecap/Dot1qDecapAgent.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace {

// The line that declares node `id`, or "" when the graph has none.
std::string nodeLine(const std::string& dot, const std::string& id) {
  std::istringstream in(dot);
  for (std::string line; std::getline(in, line);) {
    if (line.find("\"" + id + "\" [") != std::string::npos) return line;
  }
  return "";
}

bool has(const std::string& s, const std::string& part) {
  return s.find(part) != std::string::npos;
}

// A scenario drawn after the agent's start and after each step.
std::vector<std::string> picturesOf(const Sim::Scenario& s) {
  Sim::SimLog log(nullptr);
  Sim::RunOptions options;
  std::vector<std::string> pictures;
  options.stepDone = [&](const Sim::HostAgent& agent, const Sim::Step*) {
    pictures.push_back(Sim::drawAgent(agent, s.name).text());
  };
  Sim::runScenario(s, log, options);
  return pictures;
}

// The typical event: after the start and after each of its three steps.
std::vector<std::string> typicalEventPictures() {
  return picturesOf(Sim::parseScenario(Sim::defaultScenarioText, "typical-event.yaml"));
}

// A scenario of the project's scenarios folder.
std::vector<std::string> scenarioPictures(const std::string& file) {
  return picturesOf(
      Sim::readScenarioFile(std::string(OBA_TEST_DATA) + "/../../../scenarios/" + file));
}

TEST(Dot, TheTypicalEventShowsTheRefusedPortUntilTheReviewTakesIt) {
  const auto pictures = typicalEventPictures();
  ASSERT_EQ(pictures.size(), 4u);
  const std::string eth1 = "tunnelEsi/port/Ethernet1/10", eth2 = "tunnelEsi/port/Ethernet2/10",
                    tunnel = "tunnelEsi/tunnels/Tunnel1.1";
  // Before the election: the segment and its labels, nothing to program.
  EXPECT_TRUE(has(nodeLine(pictures[0], "tunnelEsi/segment/Port-Channel10"),
                  "members Ethernet1 Ethernet2\\nlocal ESI label 2001"));
  EXPECT_EQ(nodeLine(pictures[0], tunnel), "");

  // Time 1: the tunnel has its id, Ethernet1 its ESI data, Ethernet2 was refused and stands out.
  const std::string& t1 = pictures[1];
  EXPECT_TRUE(has(nodeLine(t1, tunnel), "label=\"Tunnel1.1\\nhw 1\", shape=box]"));
  EXPECT_TRUE(
      has(t1, "-> \"" + tunnel + "\" [label=\"designated forwarder\\nremote ESI label 1001\"]"));
  EXPECT_TRUE(has(nodeLine(t1, eth1), "label 1001 local 2001\\nTunnel1.1 hw 1\", shape=box]"));
  EXPECT_TRUE(has(nodeLine(t1, eth2), "refused by the chip"));
  EXPECT_TRUE(has(nodeLine(t1, eth2), "color=red"));
  EXPECT_TRUE(has(t1, "\"legend/2\" [label=\"refused by the chip\""));

  // Time 6: the review took Ethernet2; nothing stands out any more, so there is no legend.
  EXPECT_TRUE(has(nodeLine(pictures[2], eth2), "label 1001 local 2001"));
  EXPECT_FALSE(has(pictures[2], "color=red"));
  EXPECT_FALSE(has(pictures[2], "legend"));

  // Time 10: the forwarder went; no VLAN, tunnel or port is left.
  EXPECT_EQ(nodeLine(pictures[3], eth1), "");
  EXPECT_EQ(nodeLine(pictures[3], tunnel), "");
  EXPECT_EQ(nodeLine(pictures[3], "tunnelEsi/segment/Port-Channel10/vlan/10"), "");
}

// A tunnel the chip has no id for, a forwarder without a remote label, and ESI data that no
// machine holds: each in its own look.
TEST(Dot, MissingIdsLabelsAndLeftoversStandOut) {
  Sim::SimLog log(nullptr);
  Sim::HostAgent agent(&log);
  auto& esi = agent.part<Sim::TunnelEsiAgent>();
  for (const char* a :
       {"chipPool: 0", "localEsiLabel: {segment: Ethernet5, label: mpls:2005}",
        "remoteEsiLabel: {segment: Ethernet5, tep: DynTunnel1.1, label: mpls:1001}",
        "designatedForwarder: {segment: Ethernet5, vlan: 100, tep: DynTunnel1.1}",
        "designatedForwarder: {segment: Ethernet6, vlan: 200, tep: DynTunnel1.2}"}) {
    agent.apply(Sim::actionOf(a));
  }
  // What an earlier agent left: ESI data for a port nobody programs now.
  esi.chip->hwTunnelIdPoolIs(1);
  esi.chip->createEsiData(Quil::IntfId::ethernet(9), Bridging::VlanId(300),
                          Tunnel::TunnelTable::TunnelId((1ull << 32) | 3),
                          esi.chip->getHwTunnelId(), Quil::MplsLabel(1003), Quil::MplsLabel(2009));
  esi.chip->hwTunnelIdPoolIs(0);
  agent.start();
  agent.scheduler->runDue();
  const std::string dot = Sim::drawAgent(agent, "t").text();

  EXPECT_TRUE(
      has(nodeLine(dot, "tunnelEsi/tunnels/Tunnel1.1"),
          "no hardware id: the chip had none\\nretried by the review\", shape=box, color=red"));
  EXPECT_TRUE(has(nodeLine(dot, "tunnelEsi/segment/Ethernet5/vlan/100"),
                  "nothing programmed\", shape=ellipse, color=darkorange"));
  EXPECT_TRUE(has(dot, "[label=\"designated forwarder\\nno remote ESI label\", color=darkorange"));
  EXPECT_TRUE(has(nodeLine(dot, "tunnelEsi/segment/Ethernet6"), "no local ESI label"));
  EXPECT_TRUE(has(nodeLine(dot, "tunnelEsi/port/Ethernet9/300"), "held by no machine\""));
  EXPECT_TRUE(has(nodeLine(dot, "tunnelEsi/port/Ethernet9/300"), "style=dotted"));
  for (const char* legend : {"legend/1", "legend/2", "legend/3"}) {
    EXPECT_NE(nodeLine(dot, legend), "") << legend;
  }
}

// A full dot1q table refuses a port, a route waits for the interface another route holds, and
// what an earlier agent left in the chip is held by no machine.
TEST(Dot, Dot1qDecapShowsRefusedPortsParkedRoutesAndLeftovers) {
  Sim::SimLog log(nullptr);
  Sim::HostAgent agent(&log);
  for (const char* a :
       {"chipTables: {dot1q: 2, portMaps: 16}", "vlanMember: {vlan: 10, intf: Ethernet1}",
        "vlanMember: {vlan: 10, intf: Ethernet2}", "dot1q: {vlan: 10, tag: 100}",
        "filterVia: {index: 1, intf: Port-Channel10}", "viaSet: {set: 1, type: 6, index: 1}",
        "route: {label: 1001, viaSet: 1}", "route: {label: 1002, viaSet: 1}"}) {
    agent.apply(Sim::actionOf(a));
  }
  auto& f = agent.part<Sim::Dot1qDecapAgent>();
  f.chip->createVlanToDot1qMapping(Quil::IntfId::ethernet(9), Bridging::VlanId(300),
                                   Bridging::VlanIdOrNone(7));
  f.chip->createEsiPortMap(Quil::MplsLabel(5000), Quil::IntfId::ethernet(9));
  agent.start();
  agent.scheduler->runDue();
  const std::string e1 = "dot1qDecap/dot1q/port/Ethernet1/10",
                    e2 = "dot1qDecap/dot1q/port/Ethernet2/10";

  // Before the drain: the pairs wait for the machine's decision.
  std::string dot = Sim::drawAgent(agent, "t").text();
  EXPECT_TRUE(has(nodeLine(dot, e1), "waiting for a decision\", shape=box, color=darkorange"));
  EXPECT_TRUE(has(nodeLine(dot, "dot1qDecap/dot1q/port/Ethernet9/300"),
                  "dot1q 7\\nheld by no machine\", shape=box, color=gray50"));
  EXPECT_TRUE(has(nodeLine(dot, "dot1qDecap/routes/portMap/1001"),
                  "ESI port map -> Port-Channel10\", shape=box]"));
  EXPECT_TRUE(has(nodeLine(dot, "dot1qDecap/routes/portMap/1002"),
                  "parked: lfibHwProgrammingIntfConflict"));
  EXPECT_TRUE(has(nodeLine(dot, "dot1qDecap/routes/portMap/1002"), "color=red"));
  EXPECT_TRUE(has(nodeLine(dot, "dot1qDecap/routes/stale/5000"), "held by no machine"));

  // After the drain: one port took the last free entry, the other was refused.
  agent.scheduler->advanceTo(2);
  dot = Sim::drawAgent(agent, "t").text();
  const std::string l1 = nodeLine(dot, e1), l2 = nodeLine(dot, e2);
  EXPECT_NE(has(l1, "VLAN 10 -> dot1q 100\", shape=box]"),
            has(l2, "VLAN 10 -> dot1q 100\", shape=box]"));
  EXPECT_NE(has(l1, "refused by the chip\\nretried by the review"),
            has(l2, "refused by the chip\\nretried by the review"));
  for (const char* legend : {"legend/2", "legend/3"})
    EXPECT_NE(nodeLine(dot, legend), "") << legend;
}

// The FEC table runs out: the head that got an id shows it, the other waits refused; a large
// table is summarised and the legend says so.
TEST(Dot, MacFecShowsAnsweredAndRefusedRequestsAndSummarisesLargeTables) {
  const auto pictures = scenarioPictures("mac-fec-chip-table.yaml");
  ASSERT_GE(pictures.size(), 2u);
  const std::string& t1 = pictures[1];
  EXPECT_TRUE(
      has(nodeLine(t1, "macFec/fecs/label/1"),
          "FecId(0x800000000000001)\\nvia(0, 1001, Tunnel1.1)\\nhw FEC id 1\", shape=box]"));
  EXPECT_TRUE(has(nodeLine(t1, "macFec/fecs/label/2"), "no hardware FEC id: refused or none free"));
  EXPECT_TRUE(has(nodeLine(t1, "macFec/fecs/label/2"), "color=red"));
  EXPECT_TRUE(has(t1, "\"macFec/hosts/10/02:00:00:00:00:01\" -> \"macFec/fecs/label/1\""));
  EXPECT_FALSE(has(t1, "legend/summary"));

  Sim::SimLog log(nullptr);
  Sim::HostAgent agent(&log);
  agent.apply(Sim::actionOf("dest: {id: 1, tunnel: DynTunnel1.1}"));
  for (std::size_t i = 1; i <= Sim::DotGraph::perKind + 6; ++i) {
    agent.apply(Sim::actionOf("label: {id: " + std::to_string(i) +
                              ", mpls: " + std::to_string(1000 + i) + ", next: dest/1}"));
    char mac[32];
    std::snprintf(mac, sizeof mac, "02:00:00:00:00:%02x", static_cast<unsigned>(i));
    agent.apply(Sim::actionOf("host: {vlan: 10, mac: " + std::string(mac) + ", to: label/" +
                              std::to_string(i) + "}"));
  }
  agent.start();
  agent.scheduler->advanceTo(1);
  const std::string dot = Sim::drawAgent(agent, "t").text();
  EXPECT_TRUE(has(nodeLine(dot, "macFec/fecs/more/programmed"), "... and 6 more programmed FECs"));
  EXPECT_TRUE(
      has(nodeLine(dot, "macFec/hosts/more/programmed"), "... and 6 more programmed hosts"));
  EXPECT_TRUE(has(nodeLine(dot, "legend/summary"), "at most 24 entries of a kind drawn"));
}

// A flood list's remote members: named by the RIB and waiting for their via's hardware ids, then
// programmed; a member still in the chip's list after its list left the configuration.
TEST(Dot, FloodSetsShowMembersWaitingProgrammedAndLeftBehind) {
  const auto arrive = scenarioPictures("flood-set-hw-ids-arrive.yaml");
  ASSERT_GE(arrive.size(), 2u);
  const std::string list = "floodSet/list/10/ff:ff:ff:ff:ff:ff/Tunnel1.1/1001";
  EXPECT_TRUE(has(nodeLine(arrive[1], "floodSet/vias/Tunnel1.1/1001"), "no hardware ids yet"));
  EXPECT_TRUE(has(nodeLine(arrive[1], list), "no member yet\", shape=box, color=darkorange"));
  const std::string& last = arrive.back();
  EXPECT_EQ(nodeLine(last, list), "");
  EXPECT_TRUE(has(nodeLine(last, list + "/2"), "hwTunnelId 1 hwId 2\", shape=box]"));
  EXPECT_TRUE(has(nodeLine(last, "floodSet/vias/Tunnel1.1/1001"), "hwId 2\\nDynTunnel254.2"));

  bool leftBehind = false;
  for (const auto& p : scenarioPictures("flood-set-pair-leaves.yaml")) {
    leftBehind |= has(p, "in the hardware list, configured by nobody\", shape=box, color=gray50");
  }
  EXPECT_TRUE(leftBehind);
}

TEST(Dot, LabelsAreQuotedAndBoxesNest) {
  Sim::DotGraph g("a \"quoted\" title");
  g.cluster("outer", "outer");
  g.cluster("inner", "inner", "outer");
  g.node("n", "back\\slash\nsecond line", {.cluster = "inner"});
  g.node("n", "drawn again");
  EXPECT_EQ(g.text(),
            "digraph forwarding {\n"
            "  label=\"a \\\"quoted\\\" title\";\n"
            "  labelloc=t;\n  rankdir=LR;\n  fontname=\"Helvetica\";\n"
            "  node [fontname=\"Helvetica\", fontsize=11];\n"
            "  edge [fontname=\"Helvetica\", fontsize=10];\n"
            "  subgraph \"cluster outer\" {\n"
            "    label=\"outer\";\n"
            "    subgraph \"cluster inner\" {\n"
            "      label=\"inner\";\n"
            "      \"n\" [label=\"back\\\\slash\\nsecond line\", shape=box];\n"
            "    }\n"
            "  }\n"
            "}\n");
}

}  // namespace
