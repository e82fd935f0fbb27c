// The picture of the forwarding state (--dot): what a reader must see at a glance, step by step.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "sim/Dot.h"
#include "sim/HostAgent.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

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

// The typical event drawn after the start and after each of its three steps.
std::vector<std::string> typicalEventPictures() {
  const Sim::Scenario s = Sim::parseScenario(Sim::defaultScenarioText, "typical-event.yaml");
  Sim::SimLog log(nullptr);
  Sim::RunOptions options;
  std::vector<std::string> pictures;
  options.stepDone = [&](const Sim::HostAgent& agent, const Sim::Step*) {
    pictures.push_back(Sim::drawAgent(agent, s.name).text());
  };
  Sim::runScenario(s, log, options);
  return pictures;
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
  auto& esi = agent.family<Sim::TunnelEsiAgent>();
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
