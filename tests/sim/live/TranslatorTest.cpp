// The translation of recorded gobgp JSON (tests/sim/live/*.json, a story told to a local speaker
// at 127.0.0.31 by edges at .32, .33 and .34) into the agent's actions.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "sim/live/Translator.h"

namespace {

using nlohmann::json;

std::vector<json> recorded(const std::string& name) {
  std::ifstream in(std::string(OBA_LIVE_DATA) + "/" + name);
  std::vector<json> lines;
  for (std::string l; std::getline(in, l);) lines.push_back(json::parse(l));
  return lines;
}

const char* const config = R"(address: 127.0.0.31
segments:
  - {esi: '00:11:11:11:11:11:11:11:11:01', lag: Port-Channel10, members: [Ethernet1, Ethernet2], label: 'mpls:2001'}
  - {esi: '00:22:22:22:22:22:22:22:22:02', intf: Ethernet3, label: 'mpls:2002'}
vlans:
  - {vlan: 10, routeTarget: '65000:10', label: 10010}
  - {vlan: 11, routeTarget: '65000:11', label: 10011}
  - {vlan: 12, routeTarget: '65000:12', label: 10012}
)";

// The actions as a scenario writes them.
std::vector<std::string> texts(const Live::Actions& actions) {
  std::vector<std::string> out;
  for (const auto& a : actions) {
    std::ostringstream os;
    a.body->write(os);
    out.push_back(os.str());
  }
  return out;
}

struct Story {
  Live::Config c = Live::parseConfig(config, "test.yaml");
  Live::Translator t{c};
  std::vector<std::string> reasons;
  Story() {
    t.onFirstUnusable = [this](const std::string& reason, const std::string&) {
      reasons.push_back(reason);
    };
  }
  std::vector<std::string> line(const json& paths) {
    Live::Actions out;
    for (const auto& p : paths) t.path(p, out);
    return texts(out);
  }
  std::vector<std::string> table(const json& paths) {
    Live::Actions out;
    t.table(paths, out);
    return texts(out);
  }
  // The same paths withdrawn, as the monitor tells it.
  std::vector<std::string> withdraw(json paths) {
    for (auto& p : paths) p["withdrawal"] = true;
    return line(paths);
  }
};

// Edges' tunnels: type 1, the address as the index.
const std::string e32 = "DynTunnel1.2130706464", e33 = "DynTunnel1.2130706465",
                  e34 = "DynTunnel1.2130706466";

}  // namespace

namespace {

// The recorded story, line by line: the speaker's table (empty), this switch's own segment route
// (nothing), the segment routes of .32 and .33 (the election with two, then three edges), their
// ESI labels, nine inclusive-multicast routes, four MAC routes (one behind .34, one on the
// segment through .32 and .33, one in VLAN 11); then .33 leaves the segment, a MAC moves from
// .34 to .32, .34 leaves VLAN 10's flood list; and routes that cannot be used.
TEST(LiveTranslator, FollowsARecordedStoryLineByLine) {
  Story s;
  const auto lines = recorded("monitor-story.json");
  ASSERT_EQ(lines.size(), 27u);
  std::vector<std::vector<std::string>> got;
  got.push_back(s.table(lines[0]));
  for (std::size_t i = 1; i < lines.size(); ++i) got.push_back(s.line(lines[i]));
  const std::string pc = "designatedForwarder: {segment: Port-Channel10, vlan: ";
  const std::map<std::size_t, std::vector<std::string>> want{
      {0, {}},
      {1, {}},  // this switch's own route
      // [.31, .32]: VLAN 11 to .32, VLANs 10 and 12 stay here.
      {2, {pc + "11, tep: " + e32 + "}"}},
      {3, {"remoteEsiLabel: {segment: Port-Channel10, tep: " + e32 + ", label: mpls:3001}"}},
      // [.31, .32, .33]: VLAN 10 to .32, 11 to .33, 12 here.
      {4, {pc + "10, tep: " + e32 + "}", pc + "11, tep: " + e33 + "}"}},
      {6, {"floodSetDest: {vlan: 10, dest: 'mpls(Tunnel1.2130706464, 1010)'}"}},
      {15,
       {"dest: {id: 1, tunnel: " + e34 + "}", "label: {id: 1, mpls: 6310, next: dest/1}",
        "host: {vlan: 10, mac: 02:00:00:00:03:01, to: label/1}"}},
      // The segment's MAC through a second edge: a load balance of both edges' labels.
      {17,
       {"dest: {id: 3, tunnel: " + e33 + "}", "label: {id: 3, mpls: 6210, next: dest/3}",
        "loadBalance: {id: 1, next: [label/2, label/3]}",
        "host: {vlan: 10, mac: 02:00:00:00:0a:01, to: loadBalance/1}"}},
      // .33 withdraws its segment route: back to [.31, .32].
      {19,
       {"designatedForwarderDel: {segment: Port-Channel10, vlan: 10}",
        pc + "11, tep: " + e32 + "}"}},
      // The move: both edges for a moment, then .32 alone, and .34's objects go.
      {20,
       {"loadBalance: {id: 2, next: [label/2, label/1]}",
        "host: {vlan: 10, mac: 02:00:00:00:03:01, to: loadBalance/2}"}},
      {21,
       {"host: {vlan: 10, mac: 02:00:00:00:03:01, to: label/2}", "loadBalanceDel: 2", "labelDel: 1",
        "destDel: 1"}},
      {22, {"floodSetDestDel: {vlan: 10, dest: 'mpls(Tunnel1.2130706466, 3010)'}"}},
      {23, {}},
      {24, {}},
      {25, {}},
      {26, {}},
  };
  for (const auto& [i, actions] : want) EXPECT_EQ(got[i], actions) << "line " << i + 1;
  EXPECT_EQ(s.reasons, (std::vector<std::string>{
                           "VXLAN where MPLS is needed", "no VLAN here has route target 65000:99",
                           "a route of type 5, which is not followed",
                           "an auto-discovery route per EVPN instance, which is not followed"}));

  // Withdrawn, every route undoes what it did: the agent's inputs are back to the configuration's.
  std::vector<std::string> undone;
  for (std::size_t i = lines.size(); i-- > 1;) {
    if (lines[i][0].value("withdrawal", false)) continue;
    for (auto& a : s.withdraw(lines[i])) undone.push_back(a);
  }
  EXPECT_EQ(s.t.routes(), 0u);
  EXPECT_EQ(undone.back(), "designatedForwarderDel: {segment: Port-Channel10, vlan: 11}");
  for (const char* gone :
       {"remoteEsiLabelDel: {segment: Port-Channel10, tep: DynTunnel1.2130706464}",
        "hostDel: {vlan: 10, mac: 02:00:00:00:0a:01}", "destDel: 2",
        "floodSetDestDel: {vlan: 12, dest: 'mpls(Tunnel1.2130706465, 2012)'}"}) {
    EXPECT_EQ(std::count(undone.begin(), undone.end(), gone), 1) << gone;
  }
}

// The election by the default service carving: the segment's edges in address order, VLAN modulo
// their number, with one edge (this switch alone), two and three.
TEST(LiveTranslator, ElectsTheForwarderWithOneTwoAndThreeEdges) {
  Story s;
  const auto lines = recorded("monitor-story.json");
  const json& es32 = lines[2];
  const json& es33 = lines[4];
  // Three edges, then .32 leaves: [.31, .33]; VLAN 11 moves to .33 and VLAN 10 comes home.
  s.line(es32);
  s.line(es33);
  const std::string pc = "Port-Channel10, vlan: ";
  EXPECT_EQ(s.withdraw(es32),
            (std::vector<std::string>{"designatedForwarderDel: {segment: " + pc + "10}"}));
  // One edge: this switch is forwarder for every VLAN; nothing remote remains.
  EXPECT_EQ(s.withdraw(es33),
            (std::vector<std::string>{"designatedForwarderDel: {segment: " + pc + "11}"}));
  // A route told again unchanged changes nothing; a withdrawal of a route never held neither.
  EXPECT_EQ(s.line(es32).size(), 1u);
  EXPECT_TRUE(s.line(es32).empty());
  EXPECT_TRUE(s.withdraw(es33).empty());
}

// What cannot be used is counted, told once per reason, and takes nothing away; the stream's
// table after a restart resynchronises what was held.
TEST(LiveTranslator, UnusableRoutesLoseNothingAndATableResynchronises) {
  Story s;
  const auto lines = recorded("monitor-story.json");
  for (std::size_t i = 1; i < 20; ++i) s.line(lines[i]);
  // .32's VLAN 10 flood-list route, updated to VXLAN: refused, and its member stays.
  json vxlan = lines[6];
  for (auto& a : vxlan[0]["attrs"]) {
    if (a["type"] == 16) a["value"][1]["tunnel_type"] = 8;
  }
  EXPECT_TRUE(s.line(vxlan).empty());
  // .32's ESI label changes: told again; the same route again changes nothing.
  json relabel = lines[3];
  for (auto& a : relabel[0]["attrs"]) {
    if (a["type"] == 16) a["value"][2]["label"] = 3999;
  }
  EXPECT_EQ(s.line(relabel),
            (std::vector<std::string>{"remoteEsiLabel: {segment: Port-Channel10, tep: " + e32 +
                                      ", label: mpls:3999}"}));
  EXPECT_TRUE(s.line(relabel).empty());
  json noMac = lines[15];
  noMac[0]["nlri"]["value"]["mac"] = "02:00:zz:00:03:01";
  json noLabels = lines[15];
  noLabels[0]["nlri"]["value"]["labels"] = json::array();
  json noNlri = lines[15];
  noNlri[0].erase("nlri");
  for (const auto& bad : {noMac, noLabels, noNlri, recorded("monitor-ipv4.json")[0], vxlan}) {
    EXPECT_TRUE(s.line(bad).empty());
  }
  EXPECT_EQ(s.reasons, (std::vector<std::string>{
                           "VXLAN where MPLS is needed", "malformed: MAC '02:00:zz:00:03:01'",
                           "malformed: a MAC route without labels",
                           "malformed: [json.exception.out_of_range.403] key 'nlri' not found",
                           "not an EVPN route"}));
  EXPECT_EQ(s.t.unusable().at("VXLAN where MPLS is needed"), 2u);
  EXPECT_EQ(s.withdraw(lines[6]),
            (std::vector<std::string>{
                "floodSetDestDel: {vlan: 10, dest: 'mpls(Tunnel1.2130706464, 1010)'}"}));

  // The stream comes back with its table as it is at the story's end: what is held is confirmed,
  // .32's ESI label is 3001 again, its VLAN 10 member comes again and the MAC .32 now advertises
  // too is a second path; what the table lacks is withdrawn only when the session says so.
  s.t.markStale();
  const auto current = recorded("monitor-current.json")[0];
  EXPECT_EQ(s.table(current),
            (std::vector<std::string>{
                "remoteEsiLabel: {segment: Port-Channel10, tep: " + e32 + ", label: mpls:3001}",
                "loadBalance: {id: 2, next: [label/2, label/1]}",
                "host: {vlan: 10, mac: 02:00:00:00:03:01, to: loadBalance/2}",
                "floodSetDest: {vlan: 10, dest: 'mpls(Tunnel1.2130706464, 1010)'}"}));
  EXPECT_EQ(s.t.staleCount(), 2u);
  Live::Actions out;
  s.t.dropStale(out);
  EXPECT_EQ(texts(out),
            (std::vector<std::string>{
                "host: {vlan: 10, mac: 02:00:00:00:03:01, to: label/2}", "loadBalanceDel: 2",
                "labelDel: 1", "destDel: 1",
                "floodSetDestDel: {vlan: 10, dest: 'mpls(Tunnel1.2130706466, 3010)'}"}));
  // A table without the inclusive-multicast routes: their members go, nothing else.
  s.t.markStale();
  json kept = json::array();
  for (const auto& p : current) {
    if (p["nlri"]["type"] != 3) kept.push_back(p);
  }
  EXPECT_TRUE(s.table(kept).empty());
  out.clear();
  s.t.dropStale(out);
  const auto dropped = texts(out);
  EXPECT_EQ(dropped.size(), 8u);
  for (const auto& d : dropped) EXPECT_TRUE(d.starts_with("floodSetDestDel")) << d;
}

}  // namespace
