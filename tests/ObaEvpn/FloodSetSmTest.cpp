// The two MPLS flood-set machines together: the FEC machine gives each (tunnel, label) pair a FEC
// and publishes the chip's answer, the VLAN flood-set machine writes the hardware flood lists.
// The test plays the RIB (MPLS-only flood sets), the tunnel-id machine (the mapping rows) and the
// chip (answers, per-member results), on virtual time.
#include <gtest/gtest.h>

#include "TraceCapture.h"

#include <algorithm>
#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "ObaEvpn/ObaEvpnFloodSetFecSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetSm.h"

namespace {

using Bridging::MacVlanPair;
using Bridging::VlanId;
using L2Rib::Dest;
using Oba::HwTunnelId;
using Oba::MplsDestConfig;
using Oba::MplsFloodSetVia;
using Quil::MplsLabel;
using Shoal::Fib::FecId;
using TunnelId = Tunnel::TunnelTable::TunnelId;

const Quil::EthAddr bcast = Quil::EthAddr::broadcast();
TunnelId tunnel(std::uint32_t i) { return TunnelId((1ull << 32) | i); }
Dest mpls(std::uint32_t t, std::uint32_t label) { return Dest::mpls(tunnel(t), MplsLabel(label)); }
MplsFloodSetVia via(std::uint32_t t, std::uint32_t label) {
  return MplsFloodSetVia(tunnel(t), MplsLabel(label));
}
MacVlanPair list(int vlan) { return MacVlanPair{VlanId(vlan), bcast}; }
FecId fecIdOf(std::int64_t index) { return FecId((12ull << 56) | std::uint64_t(index)); }

// Every add and removal of a member of every hardware flood list, in order: "+10 <config>".
struct ConfigLog : Oba::EvpnVlanFloodSetHwConfig::NotifieeConst {
  struct List : Oba::VlanFloodSetConfig::NotifieeConst {
    ConfigLog* log;
    void onMplsDestConfig(const MplsDestConfig& c) override {
      const bool in = notifier()->mplsDestConfigHas(c);
      log->events.push_back((in ? "+" : "-") + notifier()->macVlanPair().vlanId.toString() + " " +
                            c.toString());
    }
  };
  void onConfig(const MacVlanPair& pair) override {
    auto config = notifier()->config(pair);
    if (!config) return;
    lists.emplace_back(new List);
    lists.back()->log = this;
    lists.back()->notifierIs(config);
  }
  std::vector<std::unique_ptr<List>> lists;
  std::vector<std::string> events;
};

class FloodSetWorld : public ::testing::Test {
 protected:
  void startFec() {
    fecSm = Oba::evpnFloodSetFecSmFactory(floodSets, tunnels, hwStatus, request, response, hwInfo,
                                          wheel);
  }
  void startVlan() {
    vlanSm = Oba::evpnVlanFloodSetSmFactory(floodSets, tunnels, hwInfo, hwConfig, hwStatus);
  }
  void start() {
    startFec();
    startVlan();
    log.notifierIs(hwConfig);
  }
  void add(int vlan, const Dest& d) {
    floodSets->vlanFloodSetIs(VlanId(vlan))->floodSetIs(bcast)->destSetIs(d, true);
  }
  void del(int vlan, const Dest& d) {
    floodSets->vlanFloodSetIs(VlanId(vlan))->floodSetIs(bcast)->destSetDel(d);
  }
  void hwTunnel(std::uint32_t t, std::uint32_t hw) {
    tunnels->tunnelIdToHwTunnelIdIs(Oba::TunnelIdToHwTunnelId(tunnel(t), HwTunnelId(hw)));
  }
  // The chip's answer: the interface first, then the hardware id row that makes it whole.
  void answer(FecId id, std::uint64_t hwId, std::uint32_t port = 1) {
    response->l2IntfIdIs(id, Quil::IntfId::ethernet(port));
    response->hwFecIdIs(Oba::FecToHwFecId(id, hwId));
  }
  void withdraw(FecId id) {
    response->hwFecIdDel(id);
    response->l2IntfIdDel(id);
  }
  void report(int vlan, const MplsDestConfig& c, bool programmed = true) {
    auto status = hwStatus->statusIs(list(vlan));
    if (programmed) {
      status->mplsDestStatusIs(c, Oba::HwProgrammingStatus::programmed);
    } else {
      status->mplsDestStatusDel(c);
    }
  }
  // The members of a VLAN's broadcast list, sorted.
  std::vector<MplsDestConfig> members(int vlan) {
    std::vector<MplsDestConfig> out;
    if (auto config = hwConfig->config(list(vlan))) {
      for (auto [c, in] : config->mplsDestConfigWalk()) out.push_back(c);
    }
    std::sort(out.begin(), out.end());
    return out;
  }
  std::optional<FecId> fecOf(const MplsFloodSetVia& v) { return fecSm->mplsFloodSetViaCache(v); }
  bool requested(FecId id) { return request->hwFecIdRequest(id).found && request->fec(id).found; }

  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TimerWheel> wheel = Mox::TimerWheel::TimerWheelIs(clock);
  Kiv::Ptr<L2Rib::FloodSetOutput> floodSets = new L2Rib::FloodSetOutput("mplsFloodSet");
  Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> tunnels =
      new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId");
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus> hwStatus = new Oba::EvpnVlanFloodSetHwStatus;
  Kiv::Ptr<Oba::FecIdToHwFecIdRequest> request = new Oba::FecIdToHwFecIdRequest("fecRequest");
  Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response = new Oba::FecIdToHwFecIdResponse("fecResponse");
  Kiv::Ptr<Oba::HwInfoMapping> hwInfo = new Oba::HwInfoMapping;
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig> hwConfig = new Oba::EvpnVlanFloodSetHwConfig;
  Kiv::Ptr<Oba::EvpnFloodSetFecSm> fecSm;
  Kiv::Ptr<Oba::EvpnVlanFloodSetSm> vlanSm;
  ConfigLog log;
  TraceCapture traces{"ObaEvpnVlanFloodSetSm/5,ObaEvpnFloodSetFecSm/5"};
};

TEST_F(FloodSetWorld, AMemberWaitsForItsPairsHardwareIdsAndIsThenWrittenWhole) {
  hwTunnel(1, 7);
  start();
  add(10, mpls(1, 1001));
  EXPECT_TRUE(traces.has("   hwId not ready for dest, tunnelId: Tunnel1.1 label: 1001"));
  EXPECT_FALSE(hwConfig->configHas(list(10)));
  // The pair's FEC: index 0 with 12 in the top byte, one via, and the hardware tunnel id.
  const FecId id = fecIdOf(0);
  ASSERT_EQ(fecOf(via(1, 1001)), id);
  EXPECT_EQ(request->fec(id).row.via().at(0).tunnelId(), tunnel(1));
  EXPECT_EQ(request->fec(id).row.via().at(0).mplsLabel(), MplsLabel(1001));
  EXPECT_EQ(request->hwFecIdRequest(id).row, Oba::HwFecIdRequest(id, true, HwTunnelId(7)));

  // An answer without a layer-2 interface is not ready.
  response->hwFecIdIs(Oba::FecToHwFecId(id, 500));
  EXPECT_FALSE(hwInfo->mappingHas(via(1, 1001)));
  response->l2IntfIdIs(id, Quil::IntfId::ethernet(4));
  EXPECT_EQ(hwInfo->mapping(via(1, 1001)), Oba::MplsDestHwInfo(500, Quil::IntfId::ethernet(4)));
  const MplsDestConfig member(tunnel(1), MplsLabel(1001), HwTunnelId(7), 500,
                              Quil::IntfId::ethernet(4));
  EXPECT_EQ(members(10), std::vector{member});
  EXPECT_TRUE(
      traces.has("   add hardware config: tunnelId: Tunnel1.1 label: 1001 hwTunnelId: 7 "
                 "hwId: 500 l2IntfId: Ethernet4"));

  // The same member again writes nothing; a destination without a tunnel is left alone.
  hwInfo->mappingNotify(via(1, 1001));
  EXPECT_TRUE(traces.has("   no change in hardware config, skip "));
  add(10, Dest::mpls(TunnelId(), MplsLabel(1002)));
  EXPECT_TRUE(traces.has("  Invalid tunnelId not supported "));
  EXPECT_EQ(log.events.size(), 1u);
  EXPECT_EQ(request->hwFecIdRequests(), 1u);
}

TEST_F(FloodSetWorld, NewHardwareIdsRewriteEveryVlanAddingBeforeRemoving) {
  hwTunnel(1, 7);
  start();
  for (int vlan : {10, 20, 30}) add(vlan, mpls(1, 1001));
  const FecId id = *fecOf(via(1, 1001));
  answer(id, 500);
  const MplsDestConfig old(tunnel(1), MplsLabel(1001), HwTunnelId(7), 500,
                           Quil::IntfId::ethernet(1));
  log.events.clear();

  answer(id, 600);
  const MplsDestConfig next(tunnel(1), MplsLabel(1001), HwTunnelId(7), 600,
                            Quil::IntfId::ethernet(1));
  EXPECT_EQ(log.events,
            (std::vector<std::string>{"+10 " + next.toString(), "-10 " + old.toString(),
                                      "+20 " + next.toString(), "-20 " + old.toString(),
                                      "+30 " + next.toString(), "-30 " + old.toString()}));
  for (int vlan : {10, 20, 30}) EXPECT_EQ(members(vlan), std::vector{next});

  // A new hardware tunnel id: the FEC machine issues the request again under the same id, the
  // VLAN machine rewrites the members the same way.
  log.events.clear();
  hwTunnel(1, 8);
  EXPECT_EQ(fecOf(via(1, 1001)), id);
  EXPECT_EQ(request->hwFecIdRequest(id).row.hwTunnelId(), HwTunnelId(8));
  const MplsDestConfig moved(tunnel(1), MplsLabel(1001), HwTunnelId(8), 600,
                             Quil::IntfId::ethernet(1));
  ASSERT_EQ(log.events.size(), 6u);
  EXPECT_EQ(log.events[0], "+10 " + moved.toString());
  EXPECT_EQ(log.events[1], "-10 " + next.toString());
  EXPECT_TRUE(
      traces.has("   update hardware config, existing: ( tunnelId: Tunnel1.1 label: 1001 "
                 "hwTunnelId: 7 hwId: 600 l2IntfId: Ethernet1 ), new: ( tunnelId: "
                 "Tunnel1.1 label: 1001 hwTunnelId: 8 hwId: 600 l2IntfId: Ethernet1)"));
}

TEST_F(FloodSetWorld, TheLastMemberTakesTheWholeFloodListWithIt) {
  start();
  add(10, mpls(1, 1001));
  add(10, mpls(2, 1001));
  answer(*fecOf(via(1, 1001)), 500);
  answer(*fecOf(via(2, 1001)), 501);
  EXPECT_EQ(members(10).size(), 2u);
  del(10, mpls(1, 1001));
  EXPECT_EQ(members(10).size(), 1u);
  del(10, mpls(2, 1001));
  EXPECT_FALSE(hwConfig->configHas(list(10)));
  EXPECT_TRUE(vlanSm->mplsDestHwConfigs() == 0 && vlanSm->tunnelToFloodSetEntrys() == 0);

  // A whole VLAN that goes at once goes the same way.
  add(20, mpls(1, 1001));
  EXPECT_TRUE(hwConfig->configHas(list(20)));
  floodSets->vlanFloodSetDel(VlanId(20));
  EXPECT_FALSE(hwConfig->configHas(list(20)));
}

TEST_F(FloodSetWorld, APairKeepsItsFecUntilTheHardwareLetsGoAndItsIdRestsTenSeconds) {
  start();
  add(10, mpls(1, 1001));
  const FecId id = *fecOf(via(1, 1001));
  answer(id, 500);
  const MplsDestConfig member = members(10).at(0);
  report(10, member);

  del(10, mpls(1, 1001));
  EXPECT_FALSE(hwConfig->configHas(list(10)));
  EXPECT_TRUE(traces.has("    wait for hardware to unprogram the floodSet"));
  EXPECT_TRUE(requested(id));
  // The chip removes the member: the request goes, the answer and the id stay.
  report(10, member, false);
  EXPECT_FALSE(requested(id));
  EXPECT_TRUE(hwInfo->mappingHas(via(1, 1001)));
  EXPECT_EQ(fecSm->fecIdCache(id), via(1, 1001));
  // The chip withdraws its answer: the mapping goes, then the id.
  withdraw(id);
  EXPECT_FALSE(hwInfo->mappingHas(via(1, 1001)));
  EXPECT_FALSE(fecSm->fecIdCacheHas(id));
  EXPECT_TRUE(traces.has("   Deleting fecId: FecId(0xc00000000000000)"));

  // The id rests for ten seconds before another pair may have it.
  add(10, mpls(2, 1001));
  EXPECT_EQ(fecOf(via(2, 1001)), fecIdOf(1));
  clock->advance(10.0);
  add(10, mpls(3, 1001));
  EXPECT_EQ(fecOf(via(3, 1001)), fecIdOf(0));

  // A late answer for a request that is gone is stale.
  answer(id, 777);
  del(10, mpls(3, 1001));
  answer(fecIdOf(0), 778);
  EXPECT_TRUE(traces.has(" got stale response for FecId:FecId(0xc00000000000000)"));
}

// Hazard: an answer that never became ready and is withdrawn never frees its id.
TEST_F(FloodSetWorld, AnAnswerNeverReadyKeepsItsIdOutOfTheAllocator) {
  start();
  add(10, mpls(1, 1001));
  const FecId id = *fecOf(via(1, 1001));
  response->hwFecIdIs(Oba::FecToHwFecId(id, 500));  // no layer-2 interface
  del(10, mpls(1, 1001));
  EXPECT_FALSE(requested(id));
  response->hwFecIdDel(id);
  EXPECT_TRUE(fecSm->fecIdCacheHas(id));
  EXPECT_TRUE(fecSm->numAllocator()->isAllocated(0));
  clock->advance(60.0);
  add(10, mpls(2, 1001));
  EXPECT_EQ(fecOf(via(2, 1001)), fecIdOf(1));
}

// Hazard: after a make before break the chip reports the new member programmed, then the old one
// removed. Both have the same pair, so the second report takes the flood list out of the pair's
// record although the new member is still in the hardware; removing the pair then drops its FEC
// without waiting.
TEST_F(FloodSetWorld, AfterMakeBeforeBreakThePairNoLongerWaitsForTheHardware) {
  start();
  add(10, mpls(1, 1001));
  const FecId id = *fecOf(via(1, 1001));
  answer(id, 500);
  const MplsDestConfig old = members(10).at(0);
  report(10, old);
  answer(id, 600);
  const MplsDestConfig next = members(10).at(0);
  report(10, next);
  report(10, old, false);
  EXPECT_TRUE(vlanSm->isMplsDestConfigProgrammed(list(10), next));
  EXPECT_FALSE(fecSm->floodSetStatusCacheHas(via(1, 1001)));

  del(10, mpls(1, 1001));
  EXPECT_FALSE(requested(id));  // the hardware still has `next`
  EXPECT_FALSE(traces.has("    wait for hardware to unprogram the floodSet"));
}

TEST_F(FloodSetWorld, ARestartedVlanMachineRebuildsOnlyCurrentResolvedMembers) {
  start();
  add(10, mpls(1, 1001));
  add(10, mpls(2, 1001));
  add(20, mpls(1, 1001));
  answer(*fecOf(via(1, 1001)), 500);
  answer(*fecOf(via(2, 1001)), 501);
  // An old incarnation's list of a VLAN that is no longer there.
  hwConfig->configIs(list(30))->mplsDestConfigIs(MplsDestConfig(), true);
  vlanSm = nullptr;
  del(10, mpls(2, 1001));
  add(20, mpls(3, 1001));  // never answered

  startVlan();
  EXPECT_FALSE(hwConfig->configHas(list(30)));
  EXPECT_EQ(members(10).size(), 1u);
  EXPECT_EQ(members(20).size(), 1u);
  EXPECT_EQ(members(20).at(0).hwIdForTunnelProgramming(), 500u);
  answer(*fecOf(via(3, 1001)), 502);
  EXPECT_EQ(members(20).size(), 2u);
}

// Hazard: a restarted FEC machine clears the answers it published and starts its allocator
// afresh, but keeps the FEC definitions: a pair may get an id another pair had, and its members
// come back only when the chip answers again.
TEST_F(FloodSetWorld, ARestartedFecMachineDependsOnTheChipAnsweringAgain) {
  start();
  add(10, mpls(1, 1001));
  add(10, mpls(2, 1001));
  answer(fecIdOf(0), 500);
  answer(fecIdOf(1), 501);
  fecSm = nullptr;
  del(10, mpls(1, 1001));

  startFec();
  EXPECT_EQ(fecOf(via(2, 1001)), fecIdOf(0));  // pair 1's id
  EXPECT_EQ(request->fec(fecIdOf(0)).row.via().at(0).tunnelId(), tunnel(2));
  EXPECT_TRUE(request->fec(fecIdOf(1)).found);  // the old definition stays
  EXPECT_FALSE(request->hwFecIdRequest(fecIdOf(1)).found);
  EXPECT_EQ(hwInfo->mappings(), 0u);
  EXPECT_TRUE(members(10).empty());
  // The chip still answers id 0 with pair 1's hardware id; nothing tells the machine. Only a new
  // answer brings the member back.
  answer(fecIdOf(0), 502);
  ASSERT_EQ(members(10).size(), 1u);
  EXPECT_EQ(members(10).at(0).tunnelId(), tunnel(2));
  EXPECT_EQ(members(10).at(0).hwIdForTunnelProgramming(), 502u);

  // A restart also learns from the chip's results which lists still hold a pair.
  report(10, members(10).at(0));
  fecSm = nullptr;
  del(10, mpls(2, 1001));
  startFec();
  EXPECT_TRUE(fecSm->floodSetStatusCacheHas(via(2, 1001)));
  EXPECT_TRUE(traces.has("    wait for hardware to unprogram the floodSet"));
}

using FloodSetWorldDeathTest = FloodSetWorld;

TEST_F(FloodSetWorldDeathTest, BrokenInvariantsAbortWithTheirText) {
  start();
  add(10, mpls(1, 1001));
  answer(*fecOf(via(1, 1001)), 500);
  EXPECT_DEATH(add(10, Dest::tunnel(tunnel(1))),
               "assertion \"dest.destType\\(\\) == L2Rib::destTypeMpls_\" failed");
  EXPECT_DEATH(vlanSm->createMplsDestConfig(mpls(9, 1001)),
               "assertion \"hwInfoMapping\\(\\)->mappingHas\\( key \\)\" failed");
  EXPECT_DEATH(
      {
        hwInfo->mappingIs(MplsFloodSetVia(TunnelId(), MplsLabel(5)),
                          Oba::MplsDestHwInfo(1, Quil::IntfId()));
        vlanSm->createMplsDestConfig(Dest::mpls(TunnelId(), MplsLabel(5)));
      },
      "assertion \"tunnelId != Tunnel::TunnelTable::TunnelId::invalid\\(\\)\" failed");
  EXPECT_DEATH(Oba::EvpnFloodSetFecSm::indexToFecId(-1), "assertion \"index >= 0\" failed");
  // A one-number range runs out at the second pair.
  fecSm->numAllocatorConfigIs({0, 0});
  fecSm->numAllocatorIs(fecSm->numAllocatorConfig(), fecSm->numAllocatorStatus(), clock);
  add(10, mpls(2, 1001));
  EXPECT_DEATH(add(10, mpls(3, 1001)), "assertion \"FecId range exhausted, Not possible\" failed");
}

}  // namespace
