// The dot1q flooding machine, driven as the bridging agent and the control plane would drive it,
// over a recording chip stub and virtual time.
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

#include "Oba/ObaHelperStubs.h"
#include "ObaEvpn/ObaEvpnFloodingDot1qSm.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Oba::HwProgrammingStatus;
using Oba::IntfVlanKey;
using Quil::IntfId;
using Strings = std::vector<std::string>;

IntfId eth(std::uint32_t n) { return IntfId::ethernet(n); }
IntfId lag(std::uint32_t n) { return IntfId::portChannel(n); }

template <class... T>
std::string text(const T&... parts) {
  std::ostringstream os;
  (os << ... << parts);
  return os.str();
}

// The chip: every call in order, the mappings it holds, and per-port answers.
class LedgerStub : public ObaHelper::EvpnFloodingSmHelperStub {
 public:
  LedgerStub() : EvpnFloodingSmHelperStub("chip") {}
  HwProgrammingStatus createVlanToDot1qMapping(IntfId port, VlanId vlan,
                                               VlanIdOrNone dot1q) override {
    calls.push_back(text("create ", port, " vlan ", vlan, " dot1q ", dot1q));
    auto rc = answer.count(port) ? answer[port] : createVlanToDot1qRc();
    if (rc == HwProgrammingStatus::programmed) held[text(port, " vlan ", vlan)] = dot1q;
    return rc;
  }
  void deleteVlanToDot1qMapping(IntfId port, VlanId vlan, VlanIdOrNone dot1q) override {
    calls.push_back(text("delete ", port, " vlan ", vlan, " dot1q ", dot1q));
    auto it = held.find(text(port, " vlan ", vlan));
    ASSERT_TRUE(it != held.end()) << "never held: " << port;
    EXPECT_EQ(it->second, dot1q) << "deleted with another tag than programmed";
    held.erase(it);
  }
  Strings calls;
  std::map<std::string, VlanIdOrNone> held;
  std::map<IntfId, HwProgrammingStatus> answer;
};

class FloodingDot1qSmTest : public ::testing::Test, public EvpnWorld {
 protected:
  void TearDown() override { check(); }

  void start() {
    sm = Oba::evpnFloodingDot1qSmFactory(stub, scheduler, acsd, evpn, mplsConfig, vlans);
  }
  void tagIs(int vlan, int tag) { evpn->vlanToDot1qIs(VlanId(vlan), VlanIdOrNone(tag)); }
  void memberIs(int vlan, IntfId intf) {
    vlans->vlanStatusIs(VlanId(vlan))->vlanPortStatusIs(intf, true);
  }
  void memberDel(int vlan, IntfId intf) {
    vlans->vlanStatusIs(VlanId(vlan))->vlanPortStatusDel(intf);
  }
  void membersIs(IntfId l, std::vector<IntfId> ports) {
    acsd->lagToPortIs(l, new Oba::ObaLagPortList(std::move(ports)));
  }
  void advanceTo(Kiv::Seconds t) { scheduler->advanceTo(t); }
  std::string create(IntfId port, int vlan, int tag) {
    return text("create ", port, " vlan ", vlan, " dot1q ", tag);
  }
  std::string del(IntfId port, int vlan, int tag) {
    return text("delete ", port, " vlan ", vlan, " dot1q ", tag);
  }
  long count(const std::string& prefix) const {
    return std::count_if(traces.lines.begin(), traces.lines.end(),
                         [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
  }

  // The relations mirror each other, a pair is parked exactly while a port of it waits, and the
  // chip holds exactly what the machine booked as programmed, with the tag it holds for the pair.
  void check() {
    if (!sm) return;
    for (auto [intf, ivs] : sm->intfVlanSetWalk()) {
      for (auto [vlan, m] : ivs->vlanIdWalk()) {
        EXPECT_TRUE(sm->vlanIntfSet(vlan) && sm->vlanIntfSet(vlan)->intfIdHas(intf)) << intf;
      }
    }
    std::map<std::string, VlanIdOrNone> programmed;
    for (auto [key, ds] : sm->dot1qStatusWalk()) {
      EXPECT_EQ(ds.unprogrammeds() != 0, sm->unprogrammedDot1qHas(key)) << key;
      for (auto [port, m] : ds.programmedWalk()) {
        programmed[text(port, " vlan ", key.vlanId())] = *sm->intfVlanDot1q(key);
      }
    }
    EXPECT_EQ(programmed, stub->held);
  }

  Kiv::Ptr<LedgerStub> stub = new LedgerStub;
  Kiv::Ptr<Oba::EvpnFloodingDot1qSm> sm;
  TraceCapture traces{"ObaEvpnFloodingDot1qSm/8"};
};

TEST_F(FloodingDot1qSmTest, ABurstOfEventsForOnePairIsDecidedOnceAfterTheDelay) {
  start();
  memberIs(10, eth(1));
  EXPECT_TRUE(traces.has("  next intf vlan review at 1"));
  advanceTo(0.5);
  tagIs(10, 100);  // no pair knows the VLAN yet: nothing queued
  memberDel(10, eth(1));
  memberIs(10, eth(1));
  EXPECT_TRUE(traces.has("  already scheduled"));
  EXPECT_TRUE(stub->calls.empty());
  advanceTo(1.0);
  EXPECT_EQ(count("processIntfVlan"), 1);
  EXPECT_EQ(stub->calls, Strings{create(eth(1), 10, 100)});

  // A tag change reaches a known pair; the old tag goes before the new one comes.
  tagIs(10, 200);
  tagIs(10, 300);
  mplsConfig->vlanServiceDot1qEnabledIs(true);  // only a fresh look at the tagged VLANs
  EXPECT_TRUE(traces.has("handleVlanServiceDot1qEnabled enabled 1"));
  advanceTo(2.0);
  EXPECT_EQ(stub->calls,
            (Strings{create(eth(1), 10, 100), del(eth(1), 10, 100), create(eth(1), 10, 300)}));
  // Leaving the VLAN deletes with the tag that was programmed; so does losing the tag.
  memberIs(20, eth(2));
  tagIs(20, 20);
  memberDel(10, eth(1));
  advanceTo(3.0);
  evpn->vlanToDot1qDel(VlanId(20));
  advanceTo(4.0);
  EXPECT_TRUE(traces.has("intf not a part of vlan"));
  EXPECT_TRUE(traces.has("not in vlan-dot1q mapping"));
  EXPECT_EQ(stub->calls.size(), 6u);
  EXPECT_EQ(stub->calls[3], del(eth(1), 10, 300));
  EXPECT_EQ(stub->calls.back(), del(eth(2), 20, 20));
  vlans->vlanStatusDel(VlanId(20));
  advanceTo(5.0);
  EXPECT_EQ(sm->intfVlanSets() + sm->vlanIntfSets() + sm->dot1qStatuss() + sm->intfVlanQueues(),
            0u);
}

TEST_F(FloodingDot1qSmTest, ALagMemberLeavingIsDeletedAloneAndARefusedPortIsRetried) {
  start();
  membersIs(lag(10), {eth(1), eth(2), eth(3)});
  tagIs(10, 100);
  memberIs(10, lag(10));
  stub->answer[eth(3)] = HwProgrammingStatus::notProgrammed;
  advanceTo(1.0);
  EXPECT_TRUE(traces.has("failed to program dot1q mapping"));
  EXPECT_TRUE(sm->unprogrammedDot1qHas(IntfVlanKey(lag(10), VlanId(10))));
  stub->calls.clear();

  membersIs(lag(10), {eth(1), eth(3)});
  advanceTo(2.0);
  EXPECT_EQ(stub->calls, (Strings{del(eth(2), 10, 100), create(eth(3), 10, 100)}));
  EXPECT_TRUE(traces.has("stale lag member, delete"));
  EXPECT_TRUE(traces.has("already programmed"));
  // Still refused; the review, due five seconds after the first refusal, takes it.
  stub->answer.clear();
  advanceTo(6.0);
  EXPECT_EQ(stub->calls.back(), create(eth(3), 10, 100));
  EXPECT_EQ(sm->unprogrammedDot1qs(), 0u);

  membersIs(lag(10), {});
  advanceTo(7.0);
  EXPECT_TRUE(traces.has("no lag members"));
  EXPECT_TRUE(stub->held.empty());
  acsd->lagToPortDel(lag(10));
  advanceTo(8.0);
  EXPECT_TRUE(traces.has("no lag configuration"));

  membersIs(lag(10), {eth(4)});
  stub->answer[eth(4)] = HwProgrammingStatus::invalidHwId;
  EXPECT_DEATH(advanceTo(9.0), "assertion \"0\" failed");
}

TEST_F(FloodingDot1qSmTest, AReleasedMappingReviewsAtOnceAndDrainsThatMustYieldResumeAtOnce) {
  tagIs(10, 100);
  tagIs(20, 200);
  memberIs(10, eth(1));
  memberIs(20, eth(1));
  memberIs(20, eth(2));
  start();  // the existing world is queued, not programmed, at start
  EXPECT_TRUE(stub->calls.empty());
  stub->answer[eth(2)] = HwProgrammingStatus::notProgrammed;
  scheduler->forceYieldIs(true);
  advanceTo(1.0);  // one pair per run, each run due at once
  EXPECT_EQ(stub->calls.size(), 3u);
  EXPECT_EQ(sm->intfVlanQueues(), 0u);
  EXPECT_EQ(count("processIntfVlan"), 3);
  scheduler->forceYieldIs(false);

  stub->answer.clear();
  memberDel(10, eth(1));
  advanceTo(2.0);
  EXPECT_TRUE(traces.has("schedule immediate unprogrammed review"));
  EXPECT_EQ(stub->calls.back(), create(eth(2), 20, 200));
  EXPECT_TRUE(scheduler->idle());
}

TEST_F(FloodingDot1qSmTest, BrokenContractsAbort) {
  start();
  IntfVlanKey parked(eth(1), VlanId(10));
  const std::vector<std::pair<std::string, std::function<void()>>> broken = {
      {"ds",
       [&] {
         sm->unprogrammedDot1qIs(parked, true);
         sm->doReviewUnprogrammed();
       }},
      {"ds->unprogrammeds\\(\\)",
       [&] {
         sm->unprogrammedDot1qIs(parked, true);
         sm->dot1qStatusIs(parked);
         sm->doReviewUnprogrammed();
       }},
      {"task",
       [&] {
         sm->reviewIntfVlanDel();
         sm->doReviewIntfVlan();
       }},
      {"initialized\\(\\)",
       [&] {
         sm->initializedIs(false);
         sm->processIntfVlan(eth(1), VlanId(10));
       }},
      {"vlanStatusDir\\(\\)",
       [&] { Oba::evpnFloodingDot1qSmFactory(stub, scheduler, acsd, evpn, mplsConfig, nullptr); }},
  };
  for (const auto& [assertion, breakIt] : broken) {
    EXPECT_DEATH(breakIt(), "assertion \"" + assertion + "\" failed") << assertion;
  }
}

}  // namespace
