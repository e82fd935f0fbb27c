// The dot1q and decapsulation family: its chip's finite tables and ledger, the tables its inputs
// call for and what its checks catch, and a broken chip that the fuzzer must catch and write down
// as a scenario the ordinary --check fails.
#include <gtest/gtest.h>

#include <algorithm>

#include "sim/Fuzz.h"
#include "sim/FuzzCanary.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/dot1qDecap/Dot1qDecapCheck.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Quil::IntfId;
using Quil::MplsLabel;
using Rc = Mpls::LfibHwProgrammingReturnCode;
using Sim::Dot1qDecapChip;

const IntfId e1 = IntfId::ethernet(1), e2 = IntfId::ethernet(2), e3 = IntfId::ethernet(3);
const IntfId lag10 = IntfId::portChannel(10);
const VlanId v10(10), v20(20);

std::vector<std::string> violations(const Sim::SoftwareChip& chip) {
  std::vector<std::string> out;
  for (const auto& v : chip.violations()) out.push_back(v.text);
  return out;
}

TEST(Dot1qDecapChip, FiniteTablesRefuseAndTheLedgerNamesWhatACorrectAgentNeverDoes) {
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Sim::SoftwareChip> chip = new Sim::SoftwareChip(clock);
  auto part = Dot1qDecapChip::Dot1qDecapChipIs(chip);
  part->sizesIs(2, 2);
  using Hw = Oba::HwProgrammingStatus;

  // Two mappings fill the table: a third key is refused, a new tag on a held key is not.
  EXPECT_EQ(part->createVlanToDot1qMapping(e1, v10, VlanIdOrNone(100)), Hw::programmed);
  EXPECT_EQ(part->createVlanToDot1qMapping(e2, v10, VlanIdOrNone(100)), Hw::programmed);
  EXPECT_EQ(part->createVlanToDot1qMapping(e3, v10, VlanIdOrNone(100)), Hw::notProgrammed);
  EXPECT_EQ(part->createVlanToDot1qMapping(e2, v10, VlanIdOrNone(200)), Hw::programmed);
  chip->refusalIs({.op = "createVlanToDot1qMapping", .port = e1, .times = 1, .rc = 2});
  EXPECT_EQ(part->createVlanToDot1qMapping(e1, v10, VlanIdOrNone(300)), Hw::invalidHwId);
  EXPECT_EQ(part->dot1q().at({e1, v10}), VlanIdOrNone(100));
  EXPECT_TRUE(chip->violations().empty());

  // A delete names the tag the chip holds; one with another tag still deletes, and is a violation.
  part->deleteVlanToDot1qMapping(e2, v10, VlanIdOrNone(100));
  part->deleteVlanToDot1qMapping(e2, v10, VlanIdOrNone(200));
  EXPECT_EQ(violations(*chip),
            (std::vector<std::string>{
                "deleteVlanToDot1qMapping Ethernet2 vlan 10 dot1q 100: the mapping has dot1q 200",
                "deleteVlanToDot1qMapping Ethernet2 vlan 10 dot1q 200: nothing to delete"}));

  // Port maps: one label per interface; a full table answers resource full; rules any code.
  EXPECT_EQ(part->createEsiPortMap(MplsLabel(1001), lag10), Rc::lfibHwProgrammingSuccess);
  EXPECT_EQ(part->createEsiPortMap(MplsLabel(1002), e1), Rc::lfibHwProgrammingSuccess);
  EXPECT_EQ(part->createEsiPortMap(MplsLabel(1003), e2), Rc::lfibHwProgrammingResourceFull);
  chip->refusalIs({.op = "createEsiPortMap", .port = e1, .times = 1, .rc = 9});
  EXPECT_EQ(static_cast<std::uint32_t>(part->createEsiPortMap(MplsLabel(1002), e1)), 9u);
  EXPECT_EQ(static_cast<std::uint32_t>(part->lastPortMapRc().at(MplsLabel(1002))), 9u);
  EXPECT_EQ(part->createEsiPortMap(MplsLabel(1002), lag10), Rc::lfibHwProgrammingSuccess);
  part->deleteEsiPortMap(MplsLabel(1001), e1);
  EXPECT_EQ(violations(*chip).size(), 4u);
  EXPECT_EQ(violations(*chip)[2],
            "createEsiPortMap 1002 intf Port-Channel10: the interface already has the port map "
            "of 1001");
  EXPECT_EQ(violations(*chip)[3],
            "deleteEsiPortMap 1001 intf Ethernet1: no such port map to delete");

  chip->reset();
  EXPECT_TRUE(part->dot1q().empty());
  EXPECT_TRUE(part->portMaps().empty());
  EXPECT_EQ(part->dot1qSize(), 2u);
}

std::string errorOf(const std::string& action) {
  try {
    Sim::parseScenario("steps:\n  - at: 1\n    do:\n      - " + action + "\n", "s.yaml");
  } catch (const Sim::ScenarioError& e) {
    return e.what();
  }
  return "";
}

TEST(Dot1qDecapScenario, BadValuesAreRefusedWithWhereAndWhatWasExpected) {
  EXPECT_EQ(errorOf("viaSet: {set: 1, type: 0, index: 1}"),
            "s.yaml:4:32: expected a via type (1-6; 6: Ethernet-segment filter), got '0'");
  EXPECT_EQ(errorOf("dot1q: {vlan: 10, tag: 4095}"),
            "s.yaml:4:32: expected a dot1q tag (1-4094 or none), got '4095'");
  EXPECT_EQ(errorOf("route: {label: 1048576, viaSet: 1}"),
            "s.yaml:4:24: expected an MPLS label (0-1048575), got '1048576'");
  EXPECT_EQ(errorOf("chipRefuse: {op: createEsiPortMap, rc: lfibHwProgrammingSuccess}"),
            "s.yaml:4:48: expected a return code (lfibHwProgramming..., or a number above 3), got "
            "'lfibHwProgrammingSuccess'");
  EXPECT_EQ(errorOf("vlanMember: {vlan: 10, intf: DynTunnel1.1}"),
            "s.yaml:4:38: expected a segment interface (EthernetN or Port-ChannelN), got "
            "'DynTunnel1.1'");
  EXPECT_EQ(errorOf("restartAlone: macFec"),
            "s.yaml:4:23: expected a machine of the family (floodingDot1q or esiFilteringDecap), "
            "got 'macFec'");
  // A machine made again alone needs one made first.
  try {
    Sim::parseScenario("initial:\n  - restartAlone: floodingDot1q\nsteps:\n  - at: 1\n", "s.yaml");
    ADD_FAILURE() << "a restart before the start was read";
  } catch (const Sim::ScenarioError& e) {
    EXPECT_STREQ(e.what(),
                 "s.yaml:2:5: a restart cannot come before the agent starts, got "
                 "restartAlone: 'floodingDot1q'");
  }
}

bool has(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(Dot1qDecapCheck, TheTablesTheInputsCallForAndWhatTheChecksCatchBehindTheMachinesBacks) {
  Sim::SimLog quiet;
  Sim::HostAgent agent(&quiet);
  auto& f = agent.part<Sim::Dot1qDecapAgent>();
  for (const char* a :
       {"lag: {lag: Port-Channel10, members: [Ethernet1, Ethernet2]}",
        "vlanMember: {vlan: 10, intf: Port-Channel10}", "vlanMember: {vlan: 20, intf: Ethernet3}",
        "dot1q: {vlan: 10, tag: 100}", "filterVia: {index: 1, intf: Ethernet3}",
        "viaSet: {set: 1, type: 6, index: 1}", "viaSet: {set: 2, type: 5, index: 1}",
        "viaSet: {set: 3, type: 6, index: 2}", "route: {label: 1001, viaSet: 1}",
        "route: {label: 1002, viaSet: 2}", "route: {label: 1003, viaSet: 3}"}) {
    agent.apply(Sim::actionOf(a));
  }
  // A LAG is its members; a VLAN without a tag is nothing; only a published filter via counts.
  EXPECT_EQ(Sim::expectedDot1q(*f.vlanStatusDir, *f.evpnStatus, *f.acsd),
            (Sim::Dot1qTable{{{e1, v10}, VlanIdOrNone(100)}, {{e2, v10}, VlanIdOrNone(100)}}));
  EXPECT_EQ(Sim::filterRoutes(*f.lfibStatus), (Sim::PortMapTable{{MplsLabel(1001), e3}}));

  agent.start();
  agent.scheduler->advanceBy(1.0);
  Sim::Counters allowed;
  ASSERT_FALSE(Sim::checkAgent(agent, &allowed));
  ASSERT_EQ(f.chip->dot1q().size(), 2u);

  // The chip loses a mapping and a port map: the machines still hold them, the tables miss them.
  f.chip->deleteVlanToDot1qMapping(e2, v10, VlanIdOrNone(100));
  f.chip->deleteEsiPortMap(MplsLabel(1001), e3);
  EXPECT_TRUE(has(Sim::checkFloodingDot1qSm(f),
                  "Port-Channel10 vlan 10: Ethernet2 is held programmed but the chip does not have "
                  "its tag"));
  EXPECT_EQ(Sim::compareDot1q(f, &allowed).diffs,
            std::vector<std::string>{"Ethernet2 vlan 10: expected dot1q 100, actual none"});
  EXPECT_TRUE(has(Sim::checkDecapSm(f),
                  "route 1001 is held programmed on Ethernet3 but the chip does not have its port "
                  "map"));
  EXPECT_EQ(Sim::comparePortMaps(f, &allowed).diffs,
            std::vector<std::string>{"label 1001: expected intf Ethernet3, actual none"});

  // Half of a mirrored relation in each machine; a route parked that is no filter route.
  f.floodingDot1qSm->vlanIntfSetIs(v20)->intfIdIs(e1, true);
  EXPECT_TRUE(
      has(Sim::checkFloodingDot1qSm(f), "intfVlanSet and vlanIntfSet hold different pairs"));
  f.decapSm->intfRouteIs(e1, Mpls::RouteKey(MplsLabel(1003)));
  EXPECT_TRUE(has(Sim::checkDecapSm(f), "intfRoute Ethernet1 -> 1003 without its via"));
  f.lfibHwStatus->unprogrammedRouteIs(Mpls::RouteKey(MplsLabel(1003)), Rc::lfibHwProgrammingFailed);
  EXPECT_TRUE(
      has(Sim::comparePortMaps(f, nullptr).diffs,
          "label 1003: parked (lfibHwProgrammingFailed) but not a route with a filter via"));
}

// Found by the fuzzer before the agent reconciled a restarted machine's chip table. A new
// decapsulation machine did not know route 3002's map, and programmed route 3001 over it on the
// same interface; a new dot1q machine never learned of a pair that left within its first second,
// and the pair's mapping stayed.
TEST(Dot1qDecapFuzz, RestartsLeaveNothingTheNewMachinesDoNotHold) {
  const char* const text = R"(
steps:
  - at: 1
    do:
      - viaSet: {set: 2, type: 6, index: 1}
      - filterVia: {index: 1, intf: Ethernet42}
      - route: {label: 3002, viaSet: 2}
      - route: {label: 3001, viaSet: 2}
      - dot1q: {vlan: 200, tag: 502}
      - vlanMember: {vlan: 200, intf: Ethernet41}
  - at: 3
    do:
      - restart: esiFilteringDecap
      - restart: floodingDot1q
      - vlanMemberDel: {vlan: 200, intf: Ethernet41}
  - at: 8
    expect:
      esiPortMaps: [label 3002 intf Ethernet42]
      unprogrammedRoutes: [label 3001 lfibHwProgrammingIntfConflict]
      dot1q: none
      violations: none
)";
  Sim::SimLog quiet;
  auto r = Sim::runScenario(Sim::parseScenario(text, "restarts.yaml"), quiet,
                            Sim::RunOptions{.check = true});
  EXPECT_TRUE(r.ok()) << r.failures[0];
}

TEST(Dot1qDecapFuzz, AChipThatLosesADot1qDeleteIsCaughtAndWrittenAsAScenarioThatFailsTheCheck) {
  SimTest::Canary canary(Dot1qDecapChip::canaryDropDeleteDot1qIs, 25);
  SimTest::expectCanaryCaught(canary, "fuzz-dot1q-canary", "dot1q", "expected dot1q none, actual",
                              "expected dot1q");
}

}  // namespace
