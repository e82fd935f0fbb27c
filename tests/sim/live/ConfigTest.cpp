// The local configuration: what it gives the agent, and each refusal with its file, line and
// column before anything runs.
#include <gtest/gtest.h>

#include "sim/ScenarioReader.h"
#include "sim/live/LiveConfig.h"

namespace {

std::string refusal(const std::string& text) {
  try {
    Live::parseConfig(text, "c.yaml");
  } catch (const Sim::ScenarioError& e) {
    return e.what();
  }
  return "accepted";
}

TEST(LiveConfig, ReadsASwitchAndRefusesWhatCannotBeOne) {
  const auto c = Live::parseConfig(
      "address: 10.0.0.1\n"
      "segments:\n"
      "  - {esi: '00:11:11:11:11:11:11:11:11:01', lag: Port-Channel10, members: [Ethernet1],"
      " label: 'mpls:2001'}\n"
      "vlans: [{vlan: 10, routeTarget: '65000:10', label: 10010}]\n",
      "c.yaml");
  EXPECT_EQ(c.address, 0x0a000001u);
  ASSERT_EQ(c.segments.size(), 1u);
  EXPECT_EQ(Live::esiText(c.segments[0].esi), "00:11:11:11:11:11:11:11:11:01");
  EXPECT_EQ(c.vlanOfTarget.at("65000:10").value(), 10);
  // The agent starts with the LAG, its local ESI label and the chain length load balances of
  // labels need.
  EXPECT_EQ(Live::configActions(c).size(), 3u);

  const std::string head =
      "address: 10.0.0.1\nvlans: [{vlan: 10, routeTarget: '65000:10', label: 1}]\n";
  EXPECT_EQ(refusal("address: 10.0.0.256\nvlans: []\n"),
            "c.yaml:1:10: expected this switch's IPv4 address (a.b.c.d), got '10.0.0.256'");
  EXPECT_EQ(
      refusal(head + "segments: [{esi: '00:11', intf: Ethernet1, label: 'mpls:1'}]\n"),
      "c.yaml:3:18: expected an ESI (ten hex bytes, aa:bb:...:jj, not all zero), got '00:11'");
  EXPECT_EQ(refusal("address: 10.0.0.1\nvlans: [{vlan: 10, routeTarget: '65000:10', label: 1},"
                    " {vlan: 11, routeTarget: '65000:10', label: 2}]\n"),
            "c.yaml:2:80: route target 65000:10 names another VLAN already");
  const std::string seg = "{esi: '00:11:11:11:11:11:11:11:11:01', ";
  EXPECT_EQ(refusal(head + "segments:\n  - " + seg +
                    "lag: Port-Channel1, members: [Ethernet1], label: 'mpls:1'}\n  - {esi: "
                    "'00:22:11:11:11:11:11:11:11:01', intf: Ethernet1, label: 'mpls:2'}\n"),
            "c.yaml:5:50: Ethernet1 is in another segment already");
  EXPECT_EQ(refusal(head + "colour: blue\n"),
            "c.yaml:3:1: unknown key 'colour' in the local configuration (expected: address, "
            "segments, vlans)");
}

}  // namespace
