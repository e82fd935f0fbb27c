// The MAC-address FEC machine, driven as the layer-2 RIB and the chip layer would drive it, on
// virtual time.
#include <gtest/gtest.h>

#include "TraceCapture.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "ObaEvpn/ObaMacAddrFecRequestSm.h"

namespace {

using L2Rib::DestId;
using L2Rib::LabelId;
using L2Rib::LoadBalanceId;
using L2Rib::ObjTuple;
using Quil::MplsLabel;
using Shoal::Fib::FecId;
using TunnelId = Tunnel::TunnelTable::TunnelId;

TunnelId tunnel(std::uint32_t i) { return TunnelId((1ull << 32) | i); }
Bridging::MacVlanPair host(std::uint32_t i) {
  return {Bridging::VlanId(10), Quil::EthAddr(0x020000000000ull + i)};
}
ObjTuple label(std::uint32_t i) { return ObjTuple::label(LabelId(i)); }
ObjTuple lb(std::uint32_t i) { return ObjTuple::loadBalance(LoadBalanceId(i)); }
ObjTuple dest(std::uint32_t i) { return ObjTuple::dest(DestId(i)); }

class MacAddrFecRequestSmTest : public ::testing::Test {
 protected:
  void start(std::uint32_t chainLength = 2) {
    sm = Oba::obaMacAddrFecRequestSmFactory(labels, lbs, dests, hosts, response, request, result,
                                            wheel, scheduler);
    sm->maxChainLengthIs(chainLength);
  }
  // Runs the review until both backlogs are empty; answers the most work one run counted.
  std::uint64_t drain() {
    std::uint64_t most = 0;
    for (int i = 0; i < 10000 && !sm->backLogQsDrained(); ++i) {
      scheduler->advanceBy(sm->reviewInterval());
      most = std::max(most, sm->reviewBacklog()->task()->taskWorkCount());
    }
    EXPECT_TRUE(sm->backLogQsDrained());
    return most;
  }
  void tunnelDest(std::uint32_t d) { dests->destIs(DestId(d), L2Rib::Dest::tunnel(tunnel(d))); }
  void labelTo(std::uint32_t l, std::uint32_t mpls, ObjTuple next) {
    labels->labelIs(LabelId(l), L2Rib::Label(MplsLabel(mpls), next));
  }
  void hostOn(std::uint32_t h, ObjTuple t) { hosts->hostIs(host(h), L2Rib::HostAndSource(t)); }
  FecId fecIdOf(ObjTuple t) { return request->objTupleToFecId(t).row.fecId(); }
  Shoal::Fib::Fec fecOf(ObjTuple t) { return request->fec(fecIdOf(t)).row; }
  bool hasFec(ObjTuple t) { return request->objTupleToFecId(t).found; }
  bool requested(ObjTuple t) { return hasFec(t) && request->hwFecIdRequest(fecIdOf(t)).found; }
  std::string vias(ObjTuple t) {
    std::ostringstream os;
    const Shoal::Fib::Fec fec = fecOf(t);
    for (const auto& v : fec.via()) os << v << " ";
    return os.str();
  }

  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<Mox::TimerWheel> wheel = Mox::TimerWheel::TimerWheelIs(clock);
  Kiv::Ptr<L2Rib::LabelOutput> labels = new L2Rib::LabelOutput("label");
  Kiv::Ptr<L2Rib::LoadBalanceOutput> lbs = new L2Rib::LoadBalanceOutput("lb");
  Kiv::Ptr<L2Rib::DestOutput> dests = new L2Rib::DestOutput("dest");
  Kiv::Ptr<L2Rib::HostOutput> hosts = new L2Rib::HostOutput("host");
  Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response = new Oba::FecIdToHwFecIdResponse("response");
  Kiv::Ptr<Oba::FecIdToHwFecIdRequest> request = new Oba::FecIdToHwFecIdRequest("request");
  Kiv::Ptr<Oba::ObjTupleToHwId> result = new Oba::ObjTupleToHwId("result");
  Kiv::Ptr<Oba::ObaMacAddrFecRequestSm> sm;
  TraceCapture traces{"ObaMacAddrFecRequestSm/5"};
};

TEST_F(MacAddrFecRequestSmTest, HostsOnOneLabelShareItsFecAndRequestUntilTheLastLeaves) {
  tunnelDest(1);
  labelTo(1, 1001, dest(1));
  start();
  drain();
  EXPECT_FALSE(hasFec(label(1)));  // no host uses it yet
  hostOn(1, label(1));
  hostOn(2, label(1));
  const FecId id = fecIdOf(label(1));
  EXPECT_EQ(id.value() >> 59, 1u);
  EXPECT_EQ(vias(label(1)), "via(0, 1001, Tunnel1.1) ");
  EXPECT_EQ(request->hwFecIdRequests(), 1u);
  EXPECT_EQ(*sm->isFirstLevelNextHop(label(1)), 2u);

  response->hwFecIdIs(Oba::FecToHwFecId(id, 500));
  EXPECT_EQ(result->hwId(label(1)).row, 500u);
  hosts->hostDel(host(1));
  EXPECT_TRUE(requested(label(1)));
  hosts->hostDel(host(2));
  EXPECT_FALSE(hasFec(label(1)));
  EXPECT_EQ(request->hwFecIdRequests(), 0u);

  // Answers for a FEC id no longer requested are traced and change nothing; the result row of
  // the withdrawn request stays (recorded in docs/decisions.md).
  response->hwFecIdIs(Oba::FecToHwFecId(id, 501));
  response->hwFecIdDel(id);
  EXPECT_TRUE(traces.has("Got stale response for FecId:FecId(0x800000000000001)"));
  EXPECT_TRUE(traces.has("Stale response deletion for FecId:FecId(0x800000000000001)"));
  EXPECT_EQ(result->hwId(label(1)).row, 500u);
}

// dest 1, dest 2; lb 1 = [dest 1, dest 2]; label 1 -> lb 1 (a host's); label 2 -> dest 1;
// lb 2 = [label 2] (a host's); label 3 -> missing dest 9; label 4 -> missing lb 9 (a host's).
class ChainWorld : public MacAddrFecRequestSmTest {
 protected:
  void build(std::uint32_t chainLength) {
    tunnelDest(1);
    tunnelDest(2);
    lbs->loadBalanceIs(LoadBalanceId(1), L2Rib::LoadBalance({dest(1), dest(2)}));
    labelTo(1, 1001, lb(1));
    labelTo(2, 1002, dest(1));
    labelTo(3, 1003, dest(9));
    labelTo(4, 1004, lb(9));
    if (chainLength == 3) lbs->loadBalanceIs(LoadBalanceId(2), L2Rib::LoadBalance({label(2)}));
    hostOn(1, label(1));
    hostOn(2, label(4));
    if (chainLength == 3) hostOn(3, lb(2));
    start(chainLength);
    drain();
  }
};

TEST_F(ChainWorld, ThreeLevelChainsGiveEveryObjectAFecAndLabelsOverLoadBalancesAreHierarchical) {
  build(3);
  for (auto t : {label(1), label(2), label(3), label(4), lb(1), lb(2)}) EXPECT_TRUE(hasFec(t)) << t;
  EXPECT_EQ(vias(lb(1)), "via(0, none, Tunnel1.1) via(1, none, Tunnel1.2) ");
  EXPECT_EQ(fecOf(label(1)).via().at(0).fecId(), fecIdOf(lb(1)));
  EXPECT_EQ(fecOf(label(1)).via().at(0).labelAction(), Shoal::Fib::LabelAction::push);
  EXPECT_EQ(vias(label(3)), "via(0, 1003, Tunnel0.0) ");  // the destination is not known
  EXPECT_EQ(vias(lb(2)), "via(0, 1002, Tunnel1.1) ");     // the label flattened
  // Only what hosts point at is requested.
  EXPECT_TRUE(requested(label(1)) && requested(lb(2)) && requested(label(4)));
  EXPECT_FALSE(requested(lb(1)) || requested(label(2)));

  // Known hazard: a changed label (or its destination) does not rebuild the load balances that
  // flatten it.
  labelTo(2, 2002, dest(2));
  EXPECT_EQ(vias(label(2)), "via(0, 2002, Tunnel1.2) ");
  EXPECT_EQ(vias(lb(2)), "via(0, 1002, Tunnel1.1) ");
  dests->destDel(DestId(2));
  EXPECT_EQ(vias(label(2)), "via(0, 2002, Tunnel0.0) ");
  EXPECT_EQ(vias(lb(2)), "via(0, 1002, Tunnel1.1) ");
}

TEST_F(ChainWorld, TwoLevelChainsGiveOnlyFirstLevelObjectsFlatFecs) {
  build(2);
  EXPECT_EQ(vias(label(1)), "via(0, 1001, Tunnel1.1) via(1, 1001, Tunnel1.2) ");
  EXPECT_EQ(fecOf(label(4)).vias(), 0u);  // its load balance is missing
  EXPECT_FALSE(hasFec(lb(1)) || hasFec(label(2)) || hasFec(label(3)));
  // A change below a first-level label reaches its FEC.
  dests->destIs(DestId(2), L2Rib::Dest::tunnel(tunnel(7)));
  EXPECT_EQ(vias(label(1)), "via(0, 1001, Tunnel1.1) via(1, 1001, Tunnel1.7) ");
  lbs->loadBalanceIs(LoadBalanceId(9), L2Rib::LoadBalance({dest(1)}));
  EXPECT_EQ(vias(label(4)), "via(0, 1004, Tunnel1.1) ");
  // A host moving to another label takes the request with it; the old FEC goes.
  hostOn(1, label(2));
  EXPECT_FALSE(hasFec(label(1)));
  EXPECT_TRUE(requested(label(2)));
}

TEST_F(MacAddrFecRequestSmTest, StartUpQueuesEverythingAndTheReviewDrainsItWithinItsBudget) {
  // Rows left from an earlier run are dropped.
  request->hwFecIdRequestIs(Oba::HwFecIdRequest(FecId(77), false));
  for (std::uint32_t d = 1; d <= 10; ++d) tunnelDest(d);
  for (std::uint32_t l = 1; l <= 100; ++l) labelTo(l, 1000 + l, dest(l % 10 + 1));
  for (std::uint32_t h = 0; h < 1000; ++h) hostOn(h, label(h % 50 + 1));
  scheduler->workBudgetIs(64);
  start();
  EXPECT_EQ(request->hwFecIdRequests(), 0u);
  EXPECT_EQ(request->fecs(), 0u);
  EXPECT_EQ(sm->hostBackLogQs(), 1000u);
  EXPECT_EQ(sm->objTupleBackLogQs(), 110u);
  EXPECT_FALSE(sm->backLogQsDrained());
  scheduler->advanceBy(0.4);
  EXPECT_EQ(request->fecs(), 0u);  // nothing before the first review

  EXPECT_LE(drain(), 64u);
  EXPECT_EQ(request->hwFecIdRequests(), 50u);
  EXPECT_EQ(*sm->isFirstLevelNextHop(label(1)), 20u);
  EXPECT_EQ(vias(label(7)), "via(0, 1007, Tunnel1.8) ");
  EXPECT_FALSE(sm->reviewBacklog()->task()->taskScheduled());

  // A corrupt row is reported and survived; the RIB's rewrite brings the label up to date.
  labels->labelCorruptIs(LabelId(7));
  labels->labelNotify(LabelId(7));
  EXPECT_TRUE(traces.has("corrupt row, change not handled: corrupt row LabelId7"));
  EXPECT_EQ(vias(label(7)), "via(0, 1007, Tunnel1.8) ");
  labelTo(7, 2007, dest(3));
  EXPECT_EQ(vias(label(7)), "via(0, 2007, Tunnel1.3) ");
}

TEST_F(MacAddrFecRequestSmTest, KnownHazardsAtTheEdges) {
  tunnelDest(1);
  for (std::uint32_t l = 1; l <= 5; ++l) labelTo(l, 1000 + l, dest(1));
  start();
  drain();
  EXPECT_THROW(sm->maxChainLengthIs(1), Kiv::RangeException);
  try {
    sm->maxChainLengthIs(4);
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(), "ObaMacAddrFecRequestSm::maxChainLength < 2 or > 3 not allowed");
  }

  // An absent first-level count is decremented as it stands.
  hostOn(1, label(1));
  sm->isFirstLevelNextHopDel(label(1));
  hostOn(1, label(2));
  EXPECT_EQ(*sm->isFirstLevelNextHop(label(1)), 4294967295u);

  // An exhausted allocator gives every new FEC the invalid id; deleting one of them takes the
  // other's FEC row and request with it.
  sm->numAllocatorConfigIs({1, 1});
  sm->numAllocatorStatusIs();
  sm->numAllocatorIs(sm->numAllocatorConfig(), sm->numAllocatorStatus(), clock);
  hostOn(3, label(3));  // takes the allocator's only number
  hostOn(4, label(4));
  hostOn(5, label(5));
  EXPECT_EQ(fecIdOf(label(4)), FecId::invalid());
  EXPECT_EQ(fecIdOf(label(5)), FecId::invalid());
  hosts->hostDel(host(5));
  EXPECT_TRUE(hasFec(label(4)));
  EXPECT_FALSE(request->fec(FecId::invalid()).found);
  EXPECT_FALSE(request->hwFecIdRequest(FecId::invalid()).found);

  // A build that fails after its FEC number was taken gives the number back: an ECMP index out
  // of range, and a torn row read on the way.
  std::vector<ObjTuple> wide(Shoal::Fib::EcmpIndex::max + 2, dest(1));
  lbs->loadBalanceIs(LoadBalanceId(1), L2Rib::LoadBalance(wide));
  sm->numAllocatorConfigIs({1, 100});
  sm->numAllocatorStatusIs();
  sm->numAllocatorIs(sm->numAllocatorConfig(), sm->numAllocatorStatus(), clock);
  EXPECT_THROW(hostOn(6, lb(1)), Kiv::RangeException);
  EXPECT_FALSE(hasFec(lb(1)));
  EXPECT_EQ(sm->numAllocatorStatus()->allocated(), 0u);
  tunnelDest(2);
  labelTo(6, 1006, dest(2));
  dests->destCorruptIs(DestId(2));
  hostOn(7, label(6));
  EXPECT_TRUE(traces.has("corrupt row, change not handled: corrupt row DestId2"));
  EXPECT_FALSE(hasFec(label(6)));
  EXPECT_EQ(sm->numAllocatorStatus()->allocated(), 0u);
  tunnelDest(2);  // the RIB's rewrite
  EXPECT_EQ(vias(label(6)), "via(0, 1006, Tunnel1.2) ");
  EXPECT_EQ(sm->numAllocatorStatus()->allocated(), 1u);
}

// A RIB written wrongly can point an object back at itself. Walking up to the dependants stops
// where the cycle closes, names it, and leaves the cycle's objects without a FEC; chains beside
// it are unaffected.
TEST_F(MacAddrFecRequestSmTest, CyclesInTheRibAreNamedAndLeftUnresolved) {
  tunnelDest(1);
  labelTo(5, 1005, dest(1));
  hostOn(1, label(5));
  start();
  drain();
  auto cycle = [this](const std::string& text) {
    return traces.has("cycle in the layer-2 RIB, chain left unresolved: " + text);
  };
  labelTo(1, 1001, label(1));
  EXPECT_TRUE(cycle("label/1 -> label/1"));
  labelTo(2, 1002, label(3));
  labelTo(3, 1003, label(2));
  EXPECT_TRUE(cycle("label/3 -> label/2 -> label/3"));
  lbs->loadBalanceIs(LoadBalanceId(1), L2Rib::LoadBalance({dest(1), lb(1)}));
  EXPECT_TRUE(cycle("loadBalance/1 -> loadBalance/1"));
  labelTo(4, 1004, lb(2));
  lbs->loadBalanceIs(LoadBalanceId(2), L2Rib::LoadBalance({dest(1), label(4)}));
  EXPECT_TRUE(cycle("loadBalance/2 -> label/4 -> loadBalance/2"));
  for (auto t : {label(1), label(2), label(3), label(4), lb(1), lb(2)}) EXPECT_FALSE(hasFec(t));

  // A change below the cycles climbs into them and stops; the chain beside them follows it.
  traces.clear();
  dests->destIs(DestId(1), L2Rib::Dest::tunnel(tunnel(9)));
  EXPECT_TRUE(cycle("loadBalance/1 -> loadBalance/1"));
  EXPECT_TRUE(cycle("loadBalance/2 -> label/4 -> loadBalance/2"));
  EXPECT_EQ(vias(label(5)), "via(0, 1005, Tunnel1.9) ");

  // A new incarnation meets them again from its backlog, and survives them too.
  traces.clear();
  start();
  drain();
  EXPECT_TRUE(cycle("label/1 -> label/1"));
  EXPECT_EQ(vias(label(5)), "via(0, 1005, Tunnel1.9) ");
  EXPECT_EQ(request->fecs(), 1u);
}

TEST_F(MacAddrFecRequestSmTest, ALabelDeletedBeforeTheReviewReachedItStaysAnEmptyFec) {
  tunnelDest(1);
  labelTo(5, 1005, dest(1));
  start(3);
  labels->labelDel(LabelId(5));
  drain();
  ASSERT_TRUE(hasFec(label(5)));
  EXPECT_EQ(fecOf(label(5)).vias(), 0u);
}

using MacAddrFecRequestSmDeathTest = MacAddrFecRequestSmTest;

TEST_F(MacAddrFecRequestSmDeathTest, BrokenChainsAbort) {
  tunnelDest(1);
  labelTo(1, 1001, label(2));
  start();
  drain();
  EXPECT_DEATH(hostOn(1, dest(1)), "assertion \"0\" failed");
  EXPECT_DEATH(hostOn(2, label(1)),
               "assertion \"label.next\\(\\).tableType\\(\\) != L2Rib::tableTypeLabel_\" failed");
  EXPECT_DEATH(dests->destIs(DestId(3), L2Rib::Dest::intf(Quil::IntfId::ethernet(1))),
               "assertion \"dest.destType\\(\\) == L2Rib::destTypeTunnel_\" failed");
  // A cycle that a host makes the machine build stops on the shape that closes it.
  lbs->loadBalanceIs(LoadBalanceId(1), L2Rib::LoadBalance({dest(1), lb(1)}));
  EXPECT_DEATH(hostOn(3, lb(1)),
               "assertion \"iter->tableType\\(\\) != L2Rib::tableTypeLoadBalance_\" failed");
}

}  // namespace
