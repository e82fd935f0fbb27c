// The hardware tunnel-id machine, driven as the control plane would drive it, over a recording
// chip stub and virtual time.
#include <gtest/gtest.h>

#include "EvpnWorld.h"
#include "TraceCapture.h"

#include <map>
#include <string>
#include <vector>

#include "Kiv/Clock.h"
#include "Kiv/Trace.h"
#include "Oba/ObaHelperStubs.h"
#include "ObaEvpn/ObaEvpnHwTunnelIdSm.h"

namespace {

using Oba::HwTunnelId;
using TunnelId = Tunnel::TunnelTable::TunnelId;
using Bridging::VlanId;
using Quil::IntfId;

IntfId tep(std::uint32_t index) { return Quil::DynamicTunnelIntfId::intfId((1ull << 32) | index); }
TunnelId tunnelTo(std::uint32_t index) { return TunnelId((1ull << 32) | index); }

// The stub, plus a ledger of every call in order, so tests can check what happened when.
class LedgerStub : public ObaHelper::EvpnHwTunnelIdSmHelperStub {
 public:
  LedgerStub() : EvpnHwTunnelIdSmHelperStub("chip") {}
  HwTunnelId getHwTunnelId() override {
    rowsAtFirstGet =
        rowsAtFirstGet < 0 ? static_cast<int>(mapping->tunnelIdToHwTunnelIds()) : rowsAtFirstGet;
    HwTunnelId id = EvpnHwTunnelIdSmHelperStub::getHwTunnelId();
    calls.push_back("get " + std::to_string(id.value()));
    if (id.isValid()) handedOut.push_back(id);
    return id;
  }
  void releaseHwTunnelId(HwTunnelId id) override {
    // The row must be gone before the chip may hand the id out again.
    for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
      EXPECT_NE(row.hwTunnelId(), id) << "released while still published";
    }
    EvpnHwTunnelIdSmHelperStub::releaseHwTunnelId(id);
    calls.push_back("release " + std::to_string(id.value()));
    ++released[id.value()];
  }
  Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> mapping;
  std::vector<std::string> calls;
  std::vector<HwTunnelId> handedOut;
  std::map<std::uint32_t, int> released;
  int rowsAtFirstGet = -1;
};

class HwTunnelIdSmTest : public ::testing::Test, public EvpnWorld {
 protected:
  void SetUp() override { stub->mapping = mapping; }
  void TearDown() override { checkInvariants(); }

  void start() { sm = Oba::evpnHwTunnelIdSmFactory(stub, scheduler, acsd, evpn, mapping); }
  Kiv::Ptr<Evpn::EthernetSegmentStatus> segment(std::uint32_t lag) {
    return evpn->segmentStatusIs(IntfId::portChannel(lag));
  }
  std::optional<HwTunnelId> hwIdOf(std::uint32_t tepIndex) {
    auto l = mapping->tunnelIdToHwTunnelId(tunnelTo(tepIndex));
    return l.found ? std::optional(l.row.hwTunnelId()) : std::nullopt;
  }
  bool traced(const std::string& text) const { return traces.has(text); }

  // The machine's own invariants, and the balance of ids between the chip and the table.
  void checkInvariants() {
    if (!sm) return;
    for (auto [key, tunnel] : sm->intfVlanTunnelWalk()) {
      auto ivs = sm->intfVlanSet(key.intfId());
      ASSERT_TRUE(ivs && ivs->vlanIdHas(key.vlanId())) << key;
      auto tivs = sm->tunnelIntfVlanSet(tunnel);
      ASSERT_TRUE(tivs && tivs->intfVlanHas(key)) << key;
    }
    for (auto [tunnel, tivs] : sm->tunnelIntfVlanSetWalk()) {
      if (!tivs->intfVlans()) continue;
      EXPECT_TRUE(mapping->tunnelIdToHwTunnelId(tunnel).found || sm->unprogrammedTunnelHas(tunnel))
          << tunnel;
    }
    for (HwTunnelId id : stub->handedOut) {
      bool published = false;
      for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
        published |= row.hwTunnelId() == id;
      }
      EXPECT_EQ(published ? 0 : 1, stub->released[id.value()]) << "id " << id;
    }
  }

  Kiv::Ptr<LedgerStub> stub = new LedgerStub;
  Kiv::Ptr<Oba::EvpnHwTunnelIdSm> sm;
  TraceCapture traces{"ObaEvpnHwTunnelIdSm/5"};
};

TEST_F(HwTunnelIdSmTest, VlansSharingAnEndpointShareOneHardwareId) {
  Kiv::Quiktrace::instance().clear();
  start();
  auto seg = segment(10);
  seg->designatedForwarderTepIs(VlanId(10), tep(1));
  seg->designatedForwarderTepIs(VlanId(20), tep(1));
  EXPECT_EQ(*hwIdOf(1), HwTunnelId(1));
  EXPECT_EQ(stub->getHwTunnelIdCount(), 1u);
  EXPECT_TRUE(traced("already programmed"));

  seg->designatedForwarderTepDel(VlanId(10));
  EXPECT_TRUE(traced("Cannot unprogram the tunnel"));
  EXPECT_TRUE(hwIdOf(1));
  seg->designatedForwarderTepDel(VlanId(20));
  EXPECT_FALSE(hwIdOf(1));
  EXPECT_EQ(stub->calls, (std::vector<std::string>{"get 1", "release 1"}));
  EXPECT_TRUE(traced("releasing hw tunnel id 1"));
  // The always-on ring kept the events, with the id as a value of its own.
  bool ringHasRelease = false;
  for (const auto& r : Kiv::Quiktrace::instance().records()) {
    ringHasRelease |= std::string(r.source) == "ObaEvpnHwTunnelIdSm" &&
                      std::string(r.text) == "releasing hw tunnel id " && r.hasValue &&
                      r.value == 1;
  }
  EXPECT_TRUE(ringHasRelease);
  // Nothing of the interface is left; the tunnel's empty user set is kept for reuse.
  EXPECT_EQ(sm->intfVlanSets(), 0u);
  EXPECT_EQ(sm->intfVlanTunnels(), 0u);
  EXPECT_EQ(sm->tunnelIntfVlanSet(tunnelTo(1))->intfVlans(), 0u);
}

TEST_F(HwTunnelIdSmTest, ADesignatedForwarderMoveReleasesTheOldIdBeforeAskingForANewOne) {
  start();
  auto seg = segment(10);
  seg->designatedForwarderTepIs(VlanId(10), tep(1));
  seg->designatedForwarderTepIs(VlanId(10), tep(2));
  EXPECT_EQ(stub->calls, (std::vector<std::string>{"get 1", "release 1", "get 2"}));
  EXPECT_FALSE(hwIdOf(1));
  EXPECT_EQ(*hwIdOf(2), HwTunnelId(2));
  EXPECT_EQ(*sm->intfVlanTunnel(Oba::IntfVlanKey(IntfId::portChannel(10), VlanId(10))),
            tunnelTo(2));
}

TEST_F(HwTunnelIdSmTest, ExhaustedIdsAreRetriedEveryIntervalAndAtOnceWhenOneIsReleased) {
  start();
  stub->hwTunnelIdExhaustedIs(true);
  auto seg = segment(10);
  seg->designatedForwarderTepIs(VlanId(10), tep(1));
  EXPECT_TRUE(traced("failed to program tunnel"));
  EXPECT_TRUE(traced("next unprogrammed review at 5"));
  EXPECT_EQ(*scheduler->nextDueTime(), 5.0);
  seg->designatedForwarderTepIs(VlanId(20), tep(2));
  EXPECT_TRUE(traced("already scheduled"));
  EXPECT_EQ(sm->unprogrammedTunnels(), 2u);

  // Still exhausted at the review: both stay and the next review is five seconds on.
  scheduler->advanceTo(5.0);
  EXPECT_EQ(sm->unprogrammedTunnels(), 2u);
  EXPECT_EQ(*scheduler->nextDueTime(), 10.0);

  // The chip frees up: the review publishes both.
  stub->hwTunnelIdExhaustedIs(false);
  scheduler->advanceTo(10.0);
  EXPECT_EQ(sm->unprogrammedTunnels(), 0u);
  EXPECT_TRUE(hwIdOf(1) && hwIdOf(2));

  // Exhausted again, a third tunnel waits; a release schedules an immediate review.
  stub->hwTunnelIdExhaustedIs(true);
  seg->designatedForwarderTepIs(VlanId(30), tep(3));
  EXPECT_TRUE(sm->unprogrammedTunnelHas(tunnelTo(3)));
  stub->hwTunnelIdExhaustedIs(false);  // the released id makes room in a real chip
  traces.clear();
  seg->designatedForwarderTepDel(VlanId(10));
  EXPECT_TRUE(traced("schedule immediate unprogrammed review"));
  EXPECT_EQ(*scheduler->nextDueTime(), clock->now());
  scheduler->runDue();
  EXPECT_TRUE(hwIdOf(3));
  EXPECT_TRUE(scheduler->idle());
}

TEST_F(HwTunnelIdSmTest, AReviewThatMustYieldResumesAfterTheInterval) {
  start();
  stub->hwTunnelIdExhaustedIs(true);
  auto seg = segment(10);
  for (std::uint32_t i = 1; i <= 3; ++i) seg->designatedForwarderTepIs(VlanId(i), tep(i));
  stub->hwTunnelIdExhaustedIs(false);
  scheduler->forceYieldIs(true);
  scheduler->advanceTo(5.0);
  EXPECT_EQ(sm->unprogrammedTunnels(), 2u);
  EXPECT_EQ(*scheduler->nextDueTime(), 10.0);
  scheduler->advanceTo(10.0);
  scheduler->advanceTo(15.0);
  EXPECT_EQ(sm->unprogrammedTunnels(), 0u);
  EXPECT_TRUE(scheduler->idle());  // the last key needed no further run
}

TEST_F(HwTunnelIdSmTest, RemovingASegmentUnprogramsEveryVlanOfItsInterface) {
  start();
  auto seg = segment(10);
  seg->designatedForwarderTepIs(VlanId(10), tep(1));
  seg->designatedForwarderTepIs(VlanId(20), tep(2));
  stub->hwTunnelIdExhaustedIs(true);
  seg->designatedForwarderTepIs(VlanId(30), tep(3));  // never gets an id
  evpn->segmentStatusDel(IntfId::portChannel(10));
  EXPECT_FALSE(sm->segmentStatus(IntfId::portChannel(10)));
  EXPECT_EQ(stub->releaseHwTunnelIdCount(), 2u);
  EXPECT_TRUE(traced("not programmed"));
  EXPECT_EQ(sm->unprogrammedTunnels(), 0u);
  EXPECT_EQ(sm->intfVlanSets(), 0u);
  EXPECT_EQ(mapping->tunnelIdToHwTunnelIds(), 0u);
}

TEST_F(HwTunnelIdSmTest, StartingOverExistingInputsProgramsEachTunnelOnceAfterClearingStaleRows) {
  mapping->tunnelIdToHwTunnelIdIs(Oba::TunnelIdToHwTunnelId(tunnelTo(9), HwTunnelId(99)));
  segment(10)->designatedForwarderTepIs(VlanId(10), tep(1));
  segment(10)->designatedForwarderTepIs(VlanId(20), tep(2));
  segment(11)->designatedForwarderTepIs(VlanId(10), tep(1));
  start();
  EXPECT_EQ(stub->rowsAtFirstGet, 0);
  EXPECT_FALSE(hwIdOf(9));
  EXPECT_EQ(stub->getHwTunnelIdCount(), 2u);  // the reactors' second pass changed nothing
  EXPECT_EQ(sm->segmentStatuss(), 2u);
  EXPECT_EQ(sm->tunnelIntfVlanSet(tunnelTo(1))->intfVlans(), 2u);

  // An endpoint beyond the tunnel-id range is refused before anything changes.
  auto far = Quil::DynamicTunnelIntfId::intfId(1ull << 48);
  try {
    segment(10)->designatedForwarderTepIs(VlanId(10), far);
    FAIL() << "expected a range error";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
  }
  EXPECT_EQ(*sm->intfVlanTunnel(Oba::IntfVlanKey(IntfId::portChannel(10), VlanId(10))),
            tunnelTo(1));
  EXPECT_EQ(stub->getHwTunnelIdCount(), 2u);
  segment(10)->designatedForwarderTepDel(VlanId(10));  // leave the inputs consistent
}

TEST_F(HwTunnelIdSmTest, BrokenContractsAbort) {
  start();
  segment(10)->designatedForwarderTepIs(VlanId(10), tep(1));
  EXPECT_DEATH(
      {
        sm->tunnelIntfVlanSetDel(tunnelTo(1));
        sm->unProgramHwTunnelId(IntfId::portChannel(10), VlanId(10));
      },
      "assertion \"tivs\" failed");
  EXPECT_DEATH(
      {
        sm->initializedIs(false);
        sm->maybeScheduleUnprogrammedReview(false);
      },
      "assertion \"initialized\\(\\)\" failed");
  EXPECT_DEATH(
      {
        sm->reviewUnprogrammedDel();
        sm->doReviewUnprogrammed();
      },
      "assertion \"task\" failed");
}

}  // namespace
