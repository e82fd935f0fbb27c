// --why: the chain of causes under a chip call, across the machines, a review retry five seconds
// later, the chip's FEC answers and a restart; and the JSON log's fields.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "sim/ScenarioRunner.h"
#include "sim/ScenarioText.h"
#include "sim/SimLog.h"

namespace {

std::string logOf(const std::string& text, Sim::HostAgent::Why why,
                  Sim::SimLog::Format format = Sim::SimLog::Format::text) {
  std::ostringstream os;
  Sim::SimLog log(&os, format);
  Sim::RunOptions options;
  options.check = true;
  options.why = why;
  auto r = Sim::runScenario(Sim::parseScenario(text, "why.yaml"), log, options);
  EXPECT_TRUE(r.ok()) << (r.failures.empty() ? "" : r.failures.front());
  EXPECT_FALSE(Kiv::causing()) << "the agent leaves causes off when it goes";
  return os.str();
}

// The "because" lines under the n-th log line that holds `line`.
std::vector<std::string> chainUnder(const std::string& log, const std::string& line, int n = 1) {
  std::istringstream in(log);
  std::vector<std::string> out;
  bool in_chain = false;
  for (std::string l; std::getline(in, l);) {
    const auto because = l.find("because ");
    if (in_chain && because != std::string::npos && l.find_first_not_of(' ') == because) {
      out.push_back(l.substr(because + 8));
      continue;
    }
    if (in_chain) break;
    if (l.find(line) != std::string::npos && --n == 0) in_chain = true;
  }
  return out;
}

const std::string dfStory = R"(name: why
initial:
  - lag: {lag: Port-Channel10, members: [Ethernet1, Ethernet2]}
  - localEsiLabel: {segment: Port-Channel10, label: mpls:2001}
  - remoteEsiLabel: {segment: Port-Channel10, tep: DynTunnel1.1, label: mpls:1001}
steps:
  - at: 1
    note: the peer becomes designated forwarder
    do:
      - chipRefuse: {op: createEsiData, port: Ethernet2, times: 1}
      - designatedForwarder: {segment: Port-Channel10, vlan: 10, tep: DynTunnel1.1}
  - at: 8
    note: the peer stops being designated forwarder
    do:
      - designatedForwarderDel: {segment: Port-Channel10, vlan: 10}
  - at: 9
    note: the hardware tunnel-id machine restarts
    do:
      - designatedForwarder: {segment: Port-Channel10, vlan: 20, tep: DynTunnel1.1}
      - restart: hwTunnelId
)";

TEST(Why, ChainsAcrossMachinesARetryAndARestart) {
  const std::string log = logOf(dfStory, {.on = true});
  const std::string input = "EthernetSegmentStatus Port-Channel10: designatedForwarderTep 10 ";
  const std::string step1 = "step 1 \"the peer becomes designated forwarder\"";

  EXPECT_EQ(
      chainUnder(log, "createEsiData Ethernet2 vlan 10"),
      (std::vector<std::string>{
          input + "DynTunnel1.1",
          "designatedForwarder: {segment: Port-Channel10, vlan: 10, tep: DynTunnel1.1}", step1}));
  // Five seconds later, outside any step, the retry names the refusal that parked it.
  EXPECT_EQ(
      chainUnder(log, "createEsiData Ethernet2 vlan 10", 2),
      (std::vector<std::string>{
          "task reviewUnprogrammed runs at 6.000",
          "the chip refused createEsiData Ethernet2 vlan 10 (code 1, a chipRefuse rule)",
          input + "DynTunnel1.1",
          "designatedForwarder: {segment: Port-Channel10, vlan: 10, tep: DynTunnel1.1}", step1}));
  // The flooding machine deletes because the tunnel-id machine's mapping row went, which went
  // because the input did.
  const auto del = chainUnder(log, "deleteEsiData Ethernet1 vlan 10");
  ASSERT_EQ(del.size(), 4u);
  EXPECT_EQ(del[0], "TunnelIdToHwTunnelIdMapping: tunnelIdToHwTunnelId Tunnel1.1 removed");
  EXPECT_EQ(del[1], input + "removed");
  EXPECT_EQ(del[3], "step 2 \"the peer stops being designated forwarder\"");
  // An output write names what caused it, not itself.
  EXPECT_EQ(chainUnder(log, "mapping          Tunnel1.1 deleted").front(), input + "removed");
  // What the new machine does, it does because of the restart.
  EXPECT_EQ(chainUnder(log, "hwTunnelId>chip  getHwTunnelId", 3),
            (std::vector<std::string>{"restart: hwTunnelId",
                                      "step 3 \"the hardware tunnel-id machine restarts\""}));

  // In full, the machines that heard each write too.
  const auto full = chainUnder(logOf(dfStory, {.on = true, .detail = Kiv::CauseDetail::full}),
                               "deleteEsiData Ethernet1 vlan 10");
  ASSERT_EQ(full.size(), 6u);
  EXPECT_EQ(full[0], "heard by EvpnFloodingEsiSm::KivTunnelIdHwTunnelId");
  EXPECT_EQ(full[2].rfind("heard by EvpnHwTunnelIdSm::", 0), 0u) << full[2];

  // A pattern keeps the chains of the lines that hold it only.
  const std::string only = logOf(dfStory, {.on = true, .only = "deleteEsiData Ethernet2"});
  EXPECT_TRUE(chainUnder(only, "deleteEsiData Ethernet1").empty());
  EXPECT_EQ(chainUnder(only, "deleteEsiData Ethernet2").size(), 4u);
  // Off, no chains at all.
  EXPECT_EQ(logOf(dfStory, {}).find("because"), std::string::npos);
}

TEST(Why, AChipAnswerNamesTheRequestItAnswers) {
  const std::string text = R"(name: why fec
initial:
  - fecChipLatency: 0.5
  - dest: {id: 1, tunnel: DynTunnel1.1}
  - label: {id: 1, mpls: 1001, next: dest/1}
steps:
  - at: 1
    note: a host behind label 1
    do:
      - host: {vlan: 10, mac: 02:00:00:00:00:01, to: label/1}
  - at: 2
    expect:
      objTupleToHwId: [label/1 -> 1]
)";
  const auto chain = chainUnder(logOf(text, {.on = true}), "hwFecId FecId(0x800000000000001) -> 1");
  ASSERT_GE(chain.size(), 4u);
  EXPECT_EQ(chain[0], "the chip answers macFec's FEC request FecId(0x800000000000001)");
  // Half a second after the request, from the chip's own task; the answer names the request's
  // write, not the task that happened to carry it.
  EXPECT_EQ(chain[1].rfind("FecIdToHwFecIdRequest: hwFecIdRequest FecId(0x800000000000001)", 0), 0u)
      << chain[1];
  EXPECT_EQ(chain.back(), "step 1 \"a host behind label 1\"");

  // The JSON log carries the chain as fields.
  const std::string json = logOf(text, {.on = true}, Sim::SimLog::Format::json);
  EXPECT_NE(json.find("\"cause\":\"the chip answers macFec's FEC request "), std::string::npos);
  EXPECT_NE(json.find("\"causes\":[\"the chip answers"), std::string::npos);
}

}  // namespace
