// The ESI flooding machine, driven as the control plane and the hardware tunnel-id agent would
// drive it, over a recording chip stub and virtual time.
#include <gtest/gtest.h>

#include "EvpnWorld.h"
#include "TraceCapture.h"

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Trace.h"
#include "Oba/ObaHelperStubs.h"
#include "ObaEvpn/ObaEvpnFloodingEsiSm.h"

namespace {

using Bridging::VlanId;
using Evpn::EncapTypeLabel;
using Oba::HwProgrammingStatus;
using Oba::IntfVlanKey;
using Quil::IntfId;
using Quil::MplsLabel;
using TunnelId = Tunnel::TunnelTable::TunnelId;
using Strings = std::vector<std::string>;

IntfId eth(std::uint32_t n) { return IntfId::ethernet(n); }
IntfId lag(std::uint32_t n) { return IntfId::portChannel(n); }
IntfId tep(std::uint32_t index) { return Quil::DynamicTunnelIntfId::intfId((1ull << 32) | index); }
TunnelId tunnelTo(std::uint32_t index) { return TunnelId((1ull << 32) | index); }
EncapTypeLabel mpls(std::uint32_t label) { return EncapTypeLabel::mpls(MplsLabel(label)); }

template <class... T>
std::string text(const T&... parts) {
  std::ostringstream os;
  (os << ... << parts);
  return os.str();
}

// The chip: a ledger of every call in order, the ESI entries it holds, and per-port answers.
class LedgerStub : public ObaHelper::EvpnFloodingSmHelperStub {
 public:
  LedgerStub() : EvpnFloodingSmHelperStub("chip") {}
  HwProgrammingStatus createEsiData(IntfId port, VlanId vlan, const TunnelId& tunnel,
                                    Oba::HwTunnelId hw, MplsLabel label, MplsLabel local) override {
    calls.push_back(text("create ", port, " vlan ", vlan, " ", tunnel, " hw ", hw, " label ", label,
                         " local ", local));
    auto rc = answer.count(port) ? answer[port] : createEsiDataRc();
    if (rc == HwProgrammingStatus::programmed) {
      EXPECT_TRUE(held.insert(text(port, " vlan ", vlan)).second) << "sent again: " << port;
    }
    return rc;
  }
  void deleteEsiData(IntfId port, VlanId vlan) override {
    calls.push_back(text("delete ", port, " vlan ", vlan));
    EXPECT_EQ(held.erase(text(port, " vlan ", vlan)), 1u) << "never held: " << port;
  }
  Strings calls;
  std::set<std::string> held;
  std::map<IntfId, HwProgrammingStatus> answer;
};

class FloodingEsiSmTest : public ::testing::Test, public EvpnWorld {
 protected:
  void TearDown() override { check(); }

  void start() {
    sm = Oba::evpnFloodingEsiSmFactory(stub, scheduler, acsd, evpn, mapping);
    check();
  }
  // Each event as the other agents publish it, followed by the machine's invariants.
  void step(const std::function<void()>& event) {
    event();
    check();
  }
  void dfIs(IntfId seg, int vlan, std::uint32_t t) {
    step([&] { evpn->segmentStatusIs(seg)->designatedForwarderTepIs(VlanId(vlan), tep(t)); });
  }
  void dfDel(IntfId seg, int vlan) {
    step([&] { evpn->segmentStatusIs(seg)->designatedForwarderTepDel(VlanId(vlan)); });
  }
  void remoteLabelIs(IntfId seg, std::uint32_t t, EncapTypeLabel label) {
    step([&] { evpn->segmentStatusIs(seg)->remoteEsiLabelIs(tep(t), label); });
  }
  void localLabelIs(IntfId seg, std::uint32_t label) {
    step([&] { evpn->localEsiLabelIs(seg, mpls(label)); });
  }
  void membersIs(IntfId l, std::vector<IntfId> ports) {
    step([&] { acsd->lagToPortIs(l, new Oba::ObaLagPortList(std::move(ports))); });
  }
  void hwIdIs(std::uint32_t t, std::uint32_t hw) {
    step([&] {
      mapping->tunnelIdToHwTunnelIdIs(Oba::TunnelIdToHwTunnelId(tunnelTo(t), Oba::HwTunnelId(hw)));
    });
  }
  void advanceTo(Kiv::Seconds t) {
    step([&] { scheduler->advanceTo(t); });
  }
  // Segment Port-Channel10 with its labels, its members and tunnel 7 published as hw id 3.
  void lagWorld(std::vector<IntfId> ports) {
    localLabelIs(lag(10), 2010);
    membersIs(lag(10), std::move(ports));
    remoteLabelIs(lag(10), 7, mpls(1007));
    hwIdIs(7, 3);
  }
  std::string create(IntfId port, int vlan, std::uint32_t t, int hw, int label, int local) {
    return text("create ", port, " vlan ", vlan, " Tunnel1.", t, " hw ", hw, " label ", label,
                " local ", local);
  }
  std::string del(IntfId port, int vlan) { return text("delete ", port, " vlan ", vlan); }
  bool traced(const std::string& t) const { return traces.has(t); }

  // The relations mirror each other, no emptied set lingers, a label lives only with its tunnel,
  // a pair is parked exactly while a port of it waits, and the chip holds exactly what the machine
  // programmed.
  void check() {
    if (!sm) return;
    for (auto [intf, ivs] : sm->intfVlanSetWalk()) {
      EXPECT_NE(ivs->vlanIds(), 0u) << intf;
      for (auto [vlan, m] : ivs->vlanIdWalk()) {
        EXPECT_TRUE(sm->vlanIntfSet(vlan) && sm->vlanIntfSet(vlan)->intfIdHas(intf)) << intf;
      }
    }
    for (auto [vlan, vis] : sm->vlanIntfSetWalk()) {
      EXPECT_NE(vis->intfIds(), 0u) << vlan;
      for (auto [intf, m] : vis->intfIdWalk()) {
        EXPECT_TRUE(sm->intfVlanSet(intf) && sm->intfVlanSet(intf)->vlanIdHas(vlan)) << intf;
      }
    }
    for (auto [key, tunnel] : sm->intfVlanTunnelWalk()) {
      auto tivs = sm->tunnelIntfVlanSet(tunnel);
      auto itvs = sm->intfTunnelVlanSet(Oba::IntfTunnelKey(key.intfId(), tunnel));
      EXPECT_TRUE(tivs && tivs->intfVlanHas(key) && itvs && itvs->vlanIdHas(key.vlanId())) << key;
    }
    // Each pair counted once per mirror, and no mirror keeps an emptied set.
    std::size_t mirrored = 0;
    for (auto [tunnel, tivs] : sm->tunnelIntfVlanSetWalk()) {
      EXPECT_NE(tivs->intfVlans(), 0u) << tunnel;
      mirrored += tivs->intfVlans();
    }
    for (auto [key, itvs] : sm->intfTunnelVlanSetWalk()) {
      EXPECT_NE(itvs->vlanIds(), 0u) << key;
      mirrored += itvs->vlanIds();
    }
    EXPECT_EQ(mirrored, 2 * sm->intfVlanTunnels());
    for (auto [key, label] : sm->intfVlanTunnelLabelWalk()) {
      EXPECT_EQ(sm->intfVlanTunnel(IntfVlanKey(key.intfId(), key.vlanId())), key.tunnelId()) << key;
    }
    for (auto [key, m] : sm->unprogrammedEsiWalk()) EXPECT_TRUE(sm->esiStatus(key)) << key;
    std::set<std::string> programmed;
    for (auto [key, es] : sm->esiStatusWalk()) {
      EXPECT_EQ(es.unprogrammeds() != 0, sm->unprogrammedEsiHas(key)) << key;
      for (auto [port, m] : es.programmedWalk())
        programmed.insert(text(port, " vlan ", key.vlanId()));
    }
    EXPECT_EQ(programmed, stub->held);
  }

  Kiv::Ptr<LedgerStub> stub = new LedgerStub;
  Kiv::Ptr<Oba::EvpnFloodingEsiSm> sm;
  TraceCapture traces{"ObaEvpnFloodingEsiSm/8"};
};

TEST_F(FloodingEsiSmTest, StartingOverAnExistingWorldProgramsEachPortOnce) {
  // A plain port stands for itself; a LAG is programmed member by member.
  lagWorld({eth(2), eth(1)});
  localLabelIs(eth(5), 2005);
  remoteLabelIs(eth(5), 7, mpls(1007));
  dfIs(eth(5), 20, 7);
  dfIs(lag(10), 10, 7);
  start();
  EXPECT_EQ(stub->calls,
            (Strings{create(eth(1), 10, 7, 3, 1007, 2010), create(eth(2), 10, 7, 3, 1007, 2010),
                     create(eth(5), 20, 7, 3, 1007, 2005)}));
  // The segment reactors' own pass found everything done.
  EXPECT_TRUE(traced("already programmed"));
  EXPECT_TRUE(
      traced("programEsiHelper logical intf Ethernet5 phy intf Ethernet5 vlan 20 label 1007"));
  EXPECT_EQ(sm->segmentStatuss(), 2u);
  EXPECT_TRUE(scheduler->idle());
}

TEST_F(FloodingEsiSmTest, ARefusedMemberIsRetriedEveryFiveSecondsUntilTheChipTakesIt) {
  start();
  lagWorld({eth(1), eth(2)});
  stub->answer[eth(2)] = HwProgrammingStatus::notProgrammed;
  dfIs(lag(10), 10, 7);
  IntfVlanKey key(lag(10), VlanId(10));
  EXPECT_TRUE(traced("failed to program esi"));
  EXPECT_TRUE(traced("next unprogrammed review at 5"));
  EXPECT_TRUE(sm->unprogrammedEsiHas(key) && sm->esiStatus(key)->unprogrammedHas(eth(2)));

  advanceTo(5.0);  // still refused: parked again, the member that took it is not re-sent
  EXPECT_EQ(*scheduler->nextDueTime(), 10.0);
  stub->answer.clear();
  advanceTo(10.0);
  EXPECT_EQ(stub->calls,
            (Strings{create(eth(1), 10, 7, 3, 1007, 2010), create(eth(2), 10, 7, 3, 1007, 2010),
                     create(eth(2), 10, 7, 3, 1007, 2010), create(eth(2), 10, 7, 3, 1007, 2010)}));
  EXPECT_EQ(sm->unprogrammedEsis(), 0u);
  EXPECT_TRUE(scheduler->idle());

  // A refused member that leaves the LAG is no longer waited for.
  stub->answer[eth(3)] = HwProgrammingStatus::notProgrammed;
  membersIs(lag(10), {eth(1), eth(2), eth(3)});
  EXPECT_TRUE(sm->unprogrammedEsiHas(key));
  membersIs(lag(10), {eth(1), eth(2)});
  EXPECT_EQ(sm->unprogrammedEsis(), 0u);

  // An id the chip calls invalid came from the published mapping: a bug, not a retry.
  stub->answer[eth(3)] = HwProgrammingStatus::invalidHwId;
  EXPECT_DEATH(membersIs(lag(10), {eth(1), eth(2), eth(3)}), "assertion \"0\" failed");
}

TEST_F(FloodingEsiSmTest, AReleasedEntryReviewsAtOnceAndAReviewThatMustYieldResumesLater) {
  start();
  localLabelIs(eth(5), 2005);
  remoteLabelIs(eth(5), 7, mpls(1007));
  hwIdIs(7, 3);
  dfIs(eth(5), 40, 7);
  stub->answer[eth(5)] = HwProgrammingStatus::notProgrammed;
  dfIs(eth(5), 30, 7);
  dfIs(eth(5), 20, 7);
  stub->calls.clear();

  // The entry withdrawn frees room in the chip: the waiting pairs are reviewed at once.
  dfDel(eth(5), 40);
  EXPECT_TRUE(traced("schedule immediate unprogrammed review"));
  EXPECT_EQ(*scheduler->nextDueTime(), 0.0);
  // Told to yield, the review does one pair in key order and resumes after the interval.
  scheduler->forceYieldIs(true);
  advanceTo(0.0);
  EXPECT_EQ(stub->calls, (Strings{del(eth(5), 40), create(eth(5), 20, 7, 3, 1007, 2005)}));
  EXPECT_EQ(*scheduler->nextDueTime(), 5.0);
  stub->answer.clear();
  scheduler->forceYieldIs(false);
  advanceTo(5.0);
  EXPECT_EQ(stub->calls.back(), create(eth(5), 30, 7, 3, 1007, 2005));
  EXPECT_EQ(sm->unprogrammedEsis(), 0u);
  EXPECT_TRUE(scheduler->idle());
}

TEST_F(FloodingEsiSmTest, ALagMemberLeavingIsDeletedAloneAndTheOthersAreNotResent) {
  start();
  lagWorld({eth(1), eth(2), eth(3)});
  dfIs(lag(10), 10, 7);
  stub->calls.clear();
  membersIs(lag(10), {eth(1), eth(3)});
  EXPECT_EQ(stub->calls, Strings{del(eth(2), 10)});
  EXPECT_TRUE(traced("stale lag member, delete"));
  EXPECT_TRUE(traced("already programmed"));

  membersIs(lag(10), {});
  EXPECT_TRUE(traced("no lag members"));
  step([&] { acsd->lagToPortDel(lag(10)); });
  EXPECT_TRUE(traced("no lag configuration"));
  EXPECT_EQ(stub->calls, (Strings{del(eth(2), 10), del(eth(1), 10), del(eth(3), 10)}));
  membersIs(lag(10), {eth(4)});
  EXPECT_EQ(stub->calls.back(), create(eth(4), 10, 7, 3, 1007, 2010));
}

TEST_F(FloodingEsiSmTest, ADesignatedForwarderMoveUnprogramsTheOldTunnelFirst) {
  start();
  lagWorld({eth(1), eth(2)});
  remoteLabelIs(lag(10), 8, mpls(1008));
  hwIdIs(8, 4);
  dfIs(lag(10), 10, 7);
  stub->calls.clear();
  dfIs(lag(10), 10, 8);
  EXPECT_EQ(stub->calls,
            (Strings{del(eth(1), 10), del(eth(2), 10), create(eth(1), 10, 8, 4, 1008, 2010),
                     create(eth(2), 10, 8, 4, 1008, 2010)}));
  EXPECT_FALSE(sm->tunnelIntfVlanSet(tunnelTo(7)));

  // A label of another encapsulation leaves what is programmed alone; a new MPLS label replaces.
  stub->calls.clear();
  remoteLabelIs(lag(10), 8, EncapTypeLabel(EncapTypeLabel::encapTypeVxlan, 5000));
  EXPECT_TRUE(traced("incorrect encap type 2"));
  EXPECT_TRUE(stub->calls.empty());
  remoteLabelIs(lag(10), 8, mpls(1018));
  EXPECT_EQ(stub->calls,
            (Strings{del(eth(1), 10), del(eth(2), 10), create(eth(1), 10, 8, 4, 1018, 2010),
                     create(eth(2), 10, 8, 4, 1018, 2010)}));

  // The segment going away takes everything with it.
  step([&] { evpn->segmentStatusDel(lag(10)); });
  EXPECT_TRUE(stub->held.empty());
  EXPECT_EQ(sm->intfVlanSets() + sm->intfVlanTunnels() + sm->esiStatuss(), 0u);
}

TEST_F(FloodingEsiSmTest, AMissingHwTunnelIdOrLocalLabelWaitsForItsArrival) {
  start();
  membersIs(lag(10), {eth(1)});
  remoteLabelIs(lag(10), 7, mpls(1007));
  dfIs(lag(10), 10, 7);
  EXPECT_TRUE(traced("hw tunnel id not published"));
  dfDel(lag(10), 10);
  EXPECT_TRUE(traced("not programmed"));
  dfIs(lag(10), 10, 7);
  hwIdIs(7, 3);
  EXPECT_TRUE(traced("local label not published"));
  traces.clear();
  step([&] { evpn->localEsiLabelIs(lag(10), EncapTypeLabel()); });  // the empty label
  EXPECT_TRUE(traced("local label not published"));
  EXPECT_TRUE(stub->calls.empty());
  EXPECT_EQ(sm->unprogrammedEsis(), 0u);  // nothing parked: the arrivals re-drive the pair
  EXPECT_TRUE(scheduler->idle());

  localLabelIs(lag(10), 2010);
  EXPECT_EQ(stub->calls, Strings{create(eth(1), 10, 7, 3, 1007, 2010)});
  step([&] { evpn->localEsiLabelDel(lag(10)); });
  localLabelIs(lag(10), 2011);
  step([&] { mapping->tunnelIdToHwTunnelIdDel(tunnelTo(7)); });
  EXPECT_EQ(stub->calls, (Strings{create(eth(1), 10, 7, 3, 1007, 2010), del(eth(1), 10),
                                  create(eth(1), 10, 7, 3, 1007, 2011), del(eth(1), 10)}));
}

TEST_F(FloodingEsiSmTest, TheTypicalEventFromElectionToWithdrawal) {
  start();
  localLabelIs(lag(10), 2010);
  membersIs(lag(10), {eth(1), eth(2), eth(3)});
  remoteLabelIs(lag(10), 7, mpls(1007));
  stub->answer[eth(2)] = HwProgrammingStatus::notProgrammed;
  dfIs(lag(10), 10, 7);  // elected before the hardware tunnel id is published
  EXPECT_TRUE(stub->calls.empty());
  hwIdIs(7, 3);
  stub->answer.clear();
  advanceTo(5.0);
  dfDel(lag(10), 10);
  step([&] { mapping->tunnelIdToHwTunnelIdDel(tunnelTo(7)); });
  EXPECT_EQ(stub->calls,
            (Strings{create(eth(1), 10, 7, 3, 1007, 2010), create(eth(2), 10, 7, 3, 1007, 2010),
                     create(eth(3), 10, 7, 3, 1007, 2010), create(eth(2), 10, 7, 3, 1007, 2010),
                     del(eth(1), 10), del(eth(3), 10), del(eth(2), 10)}));
  EXPECT_EQ(sm->intfVlanSets() + sm->vlanIntfSets() + sm->intfVlanTunnels() +
                sm->tunnelIntfVlanSets() + sm->intfTunnelVlanSets() + sm->intfVlanTunnelLabels() +
                sm->esiStatuss() + sm->unprogrammedEsis(),
            0u);
  EXPECT_TRUE(scheduler->idle());
}

TEST_F(FloodingEsiSmTest, BrokenContractsAbort) {
  start();
  lagWorld({eth(1)});
  IntfVlanKey parked(lag(10), VlanId(40));
  const std::vector<std::pair<std::string, std::function<void()>>> broken = {
      {"vis", [&] { sm->deleteIntfVlanMapping(lag(10), VlanId(99)); }},
      {"intfVlanTunnelHas\\( key \\)",
       [&] { sm->programEsiHelper(lag(10), eth(1), VlanId(99), MplsLabel(1)); }},
      {"intfVlanTunnelLabelHas\\( labelKey \\)",
       [&] {
         sm->addOrUpdateIntfVlanTunnelMapping(lag(10), VlanId(99), tunnelTo(7));
         sm->programEsiHelper(lag(10), eth(1), VlanId(99), MplsLabel(1));
       }},
      {"es",
       [&] {
         sm->unprogrammedEsiIs(parked, true);
         sm->doReviewUnprogrammed();
       }},
      {"es->unprogrammeds\\(\\)",
       [&] {
         sm->unprogrammedEsiIs(parked, true);
         sm->esiStatusIs(parked);
         sm->doReviewUnprogrammed();
       }},
      {"itvs",
       [&] {
         sm->addOrUpdateIntfVlanTunnelMapping(lag(10), VlanId(99), tunnelTo(7));
         sm->intfTunnelVlanSetDelAll();
         sm->deleteIntfVlanTunnelMapping(lag(10), VlanId(99));
       }},
      {"task",
       [&] {
         sm->reviewUnprogrammedDel();
         sm->doReviewUnprogrammed();
       }},
      {"initialized\\(\\)",
       [&] {
         sm->initializedIs(false);
         sm->processIntfVlan(lag(10), VlanId(10));
       }},
      {"floodingHelper\\(\\)",
       [&] { Oba::evpnFloodingEsiSmFactory(nullptr, scheduler, acsd, evpn, mapping); }},
  };
  for (const auto& [assertion, breakIt] : broken) {
    EXPECT_DEATH(breakIt(), "assertion \"" + assertion + "\" failed") << assertion;
  }
  try {
    sm->segmentStatusIs(nullptr);
    FAIL() << "expected a range error";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "null _segmentStatus parameter to mutator for "
                 "Oba::EvpnFloodingEsiSm::segmentStatus not allowed\"");
  }
}

}  // namespace
