// Randomized convergence: the table the inputs call for, the chip's seeded faults, restarts that
// leave nothing behind, and a broken chip that the fuzzer must catch and write down as a scenario
// the ordinary --check fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "sim/Fuzz.h"
#include "sim/FuzzCanary.h"
#include "sim/Scenario.h"
#include "sim/ScenarioRunner.h"
#include "sim/families/fec/FecChip.h"
#include "sim/families/macFec/MacFecFamily.h"
#include "sim/families/tunnelEsi/TunnelEsiCheck.h"

namespace {

using Evpn::EncapTypeLabel;
using Quil::IntfId;
using Sim::SoftwareChip;
using Sim::TunnelEsiChip;
using TunnelId = Tunnel::TunnelTable::TunnelId;

const IntfId e1 = IntfId::ethernet(1), e2 = IntfId::ethernet(2), e3 = IntfId::ethernet(3);
const IntfId lag1 = IntfId::portChannel(1);
IntfId tep(std::uint64_t i) { return Quil::DynamicTunnelIntfId::intfId((1ull << 32) | i); }
TunnelId tunnel(std::uint64_t i) { return TunnelId((1ull << 32) | i); }
EncapTypeLabel mpls(std::uint32_t l) { return EncapTypeLabel(EncapTypeLabel::encapTypeMpls, l); }

std::vector<std::string> lines(const Sim::EsiTable& t) {
  std::vector<std::string> out;
  for (const auto& [key, e] : t) out.push_back(Sim::esiLine(key, e));
  return out;
}

TEST(FuzzCheck, TheExpectedTableNeedsEveryPrerequisiteAndExpandsLags) {
  Kiv::Ptr<Evpn::EvpnStatus> status = new Evpn::EvpnStatus;
  Kiv::Ptr<Oba::ObaCommonSmData> acsd = new Oba::ObaCommonSmData;
  Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> mapping =
      new Oba::TunnelIdToHwTunnelIdMapping("mapping");
  auto table = [&] { return lines(Sim::expectedEsiData(*status, *acsd, *mapping)); };

  // A plain port with everything but the published id, then with it.
  auto ess = status->segmentStatusIs(e3);
  ess->designatedForwarderTepIs(Bridging::VlanId(10), tep(1));
  ess->remoteEsiLabelIs(tep(1), mpls(1001));
  status->localEsiLabelIs(e3, mpls(2003));
  EXPECT_TRUE(table().empty());
  mapping->tunnelIdToHwTunnelIdIs(Oba::TunnelIdToHwTunnelId(tunnel(1), Oba::HwTunnelId(7)));
  EXPECT_EQ(table(), std::vector<std::string>{
                         "Ethernet3 vlan 10 tunnel Tunnel1.1 hw 7 label 1001 local 2003"});

  // A LAG is its members; without a member list, or with an empty one, it is nothing.
  auto lag = status->segmentStatusIs(lag1);
  lag->designatedForwarderTepIs(Bridging::VlanId(20), tep(1));
  lag->remoteEsiLabelIs(tep(1), mpls(1002));
  status->localEsiLabelIs(lag1, mpls(2001));
  EXPECT_EQ(table().size(), 1u);
  acsd->lagToPortIs(lag1, new Oba::ObaLagPortList({}));
  EXPECT_EQ(table().size(), 1u);
  acsd->lagToPortIs(lag1, new Oba::ObaLagPortList({e1, e2}));
  EXPECT_EQ(table(), (std::vector<std::string>{
                         "Ethernet1 vlan 20 tunnel Tunnel1.1 hw 7 label 1002 local 2001",
                         "Ethernet2 vlan 20 tunnel Tunnel1.1 hw 7 label 1002 local 2001",
                         "Ethernet3 vlan 10 tunnel Tunnel1.1 hw 7 label 1001 local 2003"}));

  // Another encapsulation, or the empty local label, takes the pair out.
  lag->remoteEsiLabelIs(tep(1), EncapTypeLabel(EncapTypeLabel::encapTypeVxlan, 1002));
  status->localEsiLabelIs(e3, EncapTypeLabel());
  EXPECT_TRUE(table().empty());
}

bool has(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(FuzzCheck, EachCheckNamesWhatWasBrokenBehindTheMachinesBacks) {
  Sim::SimLog quiet;
  Sim::HostAgent agent(&quiet);
  auto& esi = agent.part<Sim::TunnelEsiAgent>();
  agent.apply(Sim::actionOf("localEsiLabel: {segment: Ethernet1, label: mpls:2001}"));
  agent.apply(
      Sim::actionOf("remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1001}"));
  agent.apply(
      Sim::actionOf("designatedForwarder: {segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}"));
  agent.start();
  Sim::Counters allowed;
  ASSERT_FALSE(Sim::checkAgent(agent, &allowed));

  // The chip loses an entry: the machine still holds it, and the table misses it.
  esi.chip->deleteEsiData(e1, Bridging::VlanId(10));
  EXPECT_TRUE(has(Sim::checkFloodingEsiSm(esi),
                  "Ethernet1 vlan 10: Ethernet1 is held programmed but the chip has no entry"));
  EXPECT_EQ(Sim::compareEsiData(esi, &allowed).diffs,
            std::vector<std::string>{"Ethernet1 vlan 10: expected tunnel Tunnel1.1 hw 1 label "
                                     "1001 local 2001, actual none"});

  // Half of a mirrored relation, in each machine.
  esi.floodingEsiSm->intfVlanTunnelIs(Oba::IntfVlanKey(e2, Bridging::VlanId(20)), tunnel(1));
  EXPECT_TRUE(has(Sim::checkFloodingEsiSm(esi),
                  "intfVlanTunnel Ethernet2 vlan 20 -> Tunnel1.1 is not in tunnelIntfVlanSet"));
  esi.hwTunnelIdSm->unprogrammedTunnelIs(tunnel(9), true);
  EXPECT_TRUE(has(Sim::checkHwTunnelIdSm(esi), "Tunnel1.9 waits for an id without users"));

  // A row nobody asked for, naming an id the chip never handed out; an id given back twice.
  esi.mapping->tunnelIdToHwTunnelIdIs(Oba::TunnelIdToHwTunnelId(tunnel(5), Oba::HwTunnelId(9)));
  EXPECT_TRUE(
      has(Sim::checkMapping(esi), "row Tunnel1.5 -> 9: no designated forwarder uses Tunnel1.5"));
  EXPECT_TRUE(
      has(Sim::checkHwTunnelIdLedger(esi), "hw id 9 is in a mapping row but never handed out"));
  esi.chip->releaseHwTunnelId(Oba::HwTunnelId(1));
  esi.chip->releaseHwTunnelId(Oba::HwTunnelId(1));
  EXPECT_TRUE(has(Sim::checkHwTunnelIdLedger(esi),
                  "hw id 1: handed out 1 times, released 1 times, in 1 "
                  "mapping rows"));
  // The core's ledger check: the chip's violations first, then each family's balance.
  auto ledger = Sim::checkAgent(agent, &allowed);
  ASSERT_TRUE(ledger);
  EXPECT_EQ(ledger->check, "ledger");
  EXPECT_EQ(ledger->lines.front(), "violation: releaseHwTunnelId 1: released twice");
  EXPECT_TRUE(has(ledger->lines, "hw id 9 is in a mapping row but never handed out"));
}

TEST(FuzzCheck, ChipFaultsFollowTheirSeedAndLogWhatAReplayNeeds) {
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  auto refusals = [&](double p, std::uint64_t seed) {
    Kiv::Ptr<SoftwareChip> chip = new SoftwareChip(clock);
    auto esi = TunnelEsiChip::TunnelEsiChipIs(chip);
    esi->hwTunnelIdPoolIs(1);
    auto hw = esi->getHwTunnelId();
    chip->faultRateIs(p, seed);
    std::string outcome;
    for (int i = 0; i < 64; ++i) {
      auto rc = esi->createEsiData(i % 2 ? e1 : e2, Bridging::VlanId(10), tunnel(1), hw,
                                   Quil::MplsLabel(1), Quil::MplsLabel(2));
      outcome += rc == Oba::HwProgrammingStatus::programmed ? '.' : 'x';
    }
    EXPECT_EQ(chip->faultableSerial(), 64u);
    // Each fault names its create and the previous create of the same port.
    for (const auto& f : chip->faults()) {
      EXPECT_EQ(f.port, f.create % 2 ? e2 : e1);
      EXPECT_EQ(f.op, "createEsiData");
      EXPECT_EQ(f.previousCreate, f.create > 2 ? f.create - 2 : 0);
    }
    EXPECT_EQ(chip->faults().size(),
              static_cast<std::size_t>(std::count(outcome.begin(), outcome.end(), 'x')));
    return outcome;
  };
  EXPECT_EQ(refusals(0.5, 7), refusals(0.5, 7));
  EXPECT_NE(refusals(0.5, 7), refusals(0.5, 8));
  EXPECT_EQ(refusals(0, 7), std::string(64, '.'));
  EXPECT_EQ(refusals(1, 7), std::string(64, 'x'));
}

TEST(Fuzz, SeedsConvergeAndReplayExactly) {
  Sim::FuzzOptions o;
  o.seeds = 20;
  o.steps = 300;
  o.faultRate = 0.3;
  o.settings["pool"] = 2;
  o.restarts = true;
  Sim::FuzzResult a = Sim::fuzz(o, nullptr, nullptr);
  ASSERT_FALSE(a.failure) << a.failure->failure.check << ": " << a.failure->failure.lines[0];
  EXPECT_EQ(a.stepsChecked, 20u * 301u);
  EXPECT_GT(a.faultsInjected, 0u);
  EXPECT_GT(a.counters["esiEntriesChecked"], a.stepsChecked);
  Sim::FuzzResult b = Sim::fuzz(o, nullptr, nullptr);
  EXPECT_EQ(b.creates, a.creates);
  EXPECT_EQ(b.faultsInjected, a.faultsInjected);
  EXPECT_EQ(b.counters, a.counters);
}

// Found by the fuzzer: after a restart of the flooding machine (alone, or after the tunnel-id
// machine) the chip still held ESI data the new incarnation does not program: here data whose
// local label became empty, then data naming a hardware id that went back to the chip and was not
// handed out again (the pool has one id, and the other tunnel takes it). The agent now deletes
// what the new incarnation does not hold.
TEST(Fuzz, ARestartLeavesNoEsiDataTheNewMachineDoesNotHold) {
  const char* const text = R"(
initial:
  - chipPool: 1
  - localEsiLabel: {segment: Ethernet2, label: mpls:2002}
  - remoteEsiLabel: {segment: Ethernet2, tep: DynTunnel1.2, label: mpls:1002}
  - designatedForwarder: {segment: Ethernet2, vlan: 10, tep: DynTunnel1.2}
  - localEsiLabel: {segment: Ethernet1, label: mpls:2001}
  - remoteEsiLabel: {segment: Ethernet1, tep: DynTunnel1.1, label: mpls:1001}
steps:
  - at: 1
    do:
      - localEsiLabel: {segment: Ethernet2, label: none:0}
      - chipPool: 2
      - designatedForwarder: {segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}
      - chipPool: 1
    expect:
      esiData:
        - Ethernet1 vlan 10 tunnel Tunnel1.1 hw 2 label 1001 local 2001
        - Ethernet2 vlan 10 tunnel Tunnel1.2 hw 1 label 1002 local 2002
  - at: 2
    do:
      - restart: floodingEsi
    expect:
      esiData:
        - Ethernet1 vlan 10 tunnel Tunnel1.1 hw 2 label 1001 local 2001
  - at: 3
    do:
      - restart: hwTunnelId
    expect:
      esiData: none
      mapping: [Tunnel1.2 -> 1]
      violations: none
)";
  Sim::SimLog quiet;
  auto r = Sim::runScenario(Sim::parseScenario(text, "restart-leftovers.yaml"), quiet,
                            Sim::RunOptions{.check = true});
  EXPECT_TRUE(r.ok()) << r.failures[0];
}

TEST(Fuzz, AChipThatLosesADeleteIsCaughtAndWrittenAsAScenarioThatFailsTheCheck) {
  SimTest::Canary canary(TunnelEsiChip::canaryDropDeleteEsiDataIs, 25);
  SimTest::expectCanaryCaught(canary, "fuzz-canary", "esiData", "expected none, actual tunnel",
                              "expected esiData");
}

// The same for the chip's FEC table: a withdrawal lost, which the ledger sees.
TEST(Fuzz, AFecTableThatLosesAWithdrawalIsCaughtAndWrittenAsAScenarioThatFailsTheCheck) {
  SimTest::Canary canary(Sim::FecChip::canaryLoseWithdrawalIs, 3);
  SimTest::expectCanaryCaught(canary, "fuzz-fec-canary", "ledger", "whose request is gone",
                              "expected fecChip", /*soundReplay=*/false);
}

}  // namespace

namespace {

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// A recorded run, kept byte for byte: the scenario the fuzzer writes for seed 1 with a chip that
// loses its 1st delete, and the log of replaying it over a sound chip. Any change to what a seed
// draws, how a run is recorded, or what the agent and machines do shows up here first. Such a
// change, made on purpose, is recorded anew by running this test with OBA_RECORD_SEED set; the
// diff of the two files is then part of the change.
TEST(Fuzz, ARecordedSeedIsWrittenAndReplayedByteForByte) {
  const bool record = std::getenv("OBA_RECORD_SEED") != nullptr;
  const std::string yaml = OBA_TEST_DATA "/fuzz-seed1-recorded.yaml";
  const std::string logFile = OBA_TEST_DATA "/fuzz-seed1-recorded.log";
  const std::string dir = ::testing::TempDir() + "fuzz-recorded";
  std::filesystem::remove_all(dir);
  Sim::FuzzOptions o;
  o.seeds = 1;
  o.steps = 120;
  o.restarts = true;
  o.shrink = false;
  o.outDir = dir;
  {
    SimTest::Canary canary(TunnelEsiChip::canaryDropDeleteEsiDataIs, 1);
    auto f = Sim::fuzz(o, nullptr, nullptr).failure;
    ASSERT_TRUE(f);
    if (record)
      std::filesystem::copy_file(f->scenarioPath, yaml,
                                 std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(fileText(f->scenarioPath), fileText(yaml));
  }
  std::ostringstream log, state;
  Sim::SimLog text(&log);
  Sim::runScenario(Sim::readScenarioFile(yaml), text, Sim::RunOptions{.state = true}, &state);
  if (record) std::ofstream(logFile) << log.str() << state.str();
  EXPECT_EQ(log.str() + state.str(), fileText(logFile));
}

}  // namespace
