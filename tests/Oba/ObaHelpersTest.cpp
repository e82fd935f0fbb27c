// The chip helpers: base operations abort or default, the recording stubs record and notify.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "Oba/ObaHelperStubs.h"
#include "Oba/ObaHelpers.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Oba::HwProgrammingStatus;
using Oba::HwTunnelId;
using Quil::IntfId;
using Quil::MplsLabel;
using Tunnel::TunnelTable;

// Sets or clears OBA_NOOP_AGENT for one test and puts the caller's setting back afterwards.
class NoopAgent {
 public:
  explicit NoopAgent(const char* value) {
    if (const char* old = std::getenv(kName)) saved_ = old;
    value ? setenv(kName, value, 1) : unsetenv(kName);
  }
  ~NoopAgent() { saved_ ? setenv(kName, saved_->c_str(), 1) : unsetenv(kName); }

 private:
  static constexpr const char* kName = "OBA_NOOP_AGENT";
  std::optional<std::string> saved_;
};

std::string abortText(const char* message) {
  return std::string(message) + "\nassertion \"0\" failed at ObaCommon:25";
}

TEST(ObaHelpersDeathTest, BaseOperationsAbortWithTheirMessageWithoutNoopAgent) {
  NoopAgent noop(nullptr);
  Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper> decap = new ObaHelper::EsiFilteringDecapHelper("d");
  Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> flood = new ObaHelper::EvpnFloodingSmHelper("f");
  Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> hw = new ObaHelper::EvpnHwTunnelIdSmHelper("h");
  const auto e1 = IntfId::ethernet(1);
  EXPECT_DEATH(decap->createEsiPortMap(MplsLabel(16), e1),
               abortText("Unimplemented createEsiPortMap"));
  EXPECT_DEATH(decap->deleteEsiPortMap(MplsLabel(16), e1),
               abortText("Unimplemented deleteEsiPortMap"));
  EXPECT_DEATH(flood->createVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone()),
               abortText("Unimplemented createVlanToDot1qMapping"));
  EXPECT_DEATH(flood->deleteVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone()),
               abortText("Unimplemented deleteVlanToDot1qMapping"));
  EXPECT_DEATH(flood->createEsiData(e1, VlanId(10), TunnelTable::TunnelId(7), HwTunnelId(3),
                                    MplsLabel(16), MplsLabel(17)),
               abortText("Unimplemented addEsiData"));
  EXPECT_DEATH(flood->deleteEsiData(e1, VlanId(10)), abortText("Unimplemented deleteEsiData"));
  EXPECT_DEATH(hw->getHwTunnelId(), abortText("Unimplemented getHwTunnelId"));
  EXPECT_DEATH(hw->releaseHwTunnelId(HwTunnelId(3)), abortText("Unimplemented releaseHwTunnelId"));
}

TEST(ObaHelpers, BaseOperationsReturnTheirDefaultsUnderNoopAgentEvenWhenItIsEmpty) {
  for (const char* value : {"1", ""}) {
    SCOPED_TRACE(std::string("OBA_NOOP_AGENT='") + value + "'");
    NoopAgent noop(value);
    ObaHelper::EsiFilteringDecapHelper decap("d");
    ObaHelper::EvpnFloodingSmHelper flood("f");
    ObaHelper::EvpnHwTunnelIdSmHelper hw("h");
    const auto e1 = IntfId::ethernet(1);
    EXPECT_EQ(decap.createEsiPortMap(MplsLabel(16), e1),
              Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingResourceFull);
    decap.deleteEsiPortMap(MplsLabel(16), e1);
    EXPECT_EQ(flood.createVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone(20)),
              HwProgrammingStatus::notProgrammed);
    flood.deleteVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone(20));
    EXPECT_EQ(flood.createEsiData(e1, VlanId(10), TunnelTable::TunnelId(7), HwTunnelId(3),
                                  MplsLabel(16), MplsLabel(17)),
              HwProgrammingStatus::notProgrammed);
    flood.deleteEsiData(e1, VlanId(10));
    EXPECT_EQ(hw.getHwTunnelId(), HwTunnelId(0));  // reads as exhaustion
    hw.releaseHwTunnelId(HwTunnelId(3));
    EXPECT_EQ(hw.name(), Kiv::Name("h"));
  }
}

TEST(ObaHelperStubs, HwTunnelIdStubHandsOutFreshIdsAndHonoursExhaustion) {
  auto stub = ObaHelper::evpnHwTunnelIdSmHelperStubFactory("hw");
  Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> helper = stub;  // as a machine sees it
  EXPECT_EQ(helper->getHwTunnelId(), HwTunnelId(1));
  EXPECT_EQ(helper->getHwTunnelId(), HwTunnelId(2));
  EXPECT_EQ(helper->getHwTunnelId(), HwTunnelId(3));

  stub->hwTunnelIdExhaustedIs(true);
  EXPECT_EQ(helper->getHwTunnelId(), HwTunnelId(0));
  EXPECT_EQ(helper->getHwTunnelId(), HwTunnelId(0));
  EXPECT_EQ(stub->getHwTunnelIdCount(), 5u);  // refused calls still count
  EXPECT_EQ(stub->hwTunnelIdIndex(), 4u);

  // A released id is recorded but never handed out again; the pool resumes where it stopped.
  helper->releaseHwTunnelId(HwTunnelId(2));
  EXPECT_EQ(stub->releaseHwTunnelIdCount(), 1u);
  EXPECT_EQ(stub->releaseHwTunnelIdHwTunnelId(), HwTunnelId(2));
  stub->hwTunnelIdExhaustedIs(false);
  EXPECT_EQ(helper->getHwTunnelId(), HwTunnelId(4));
  EXPECT_EQ(stub->getHwTunnelIdCount(), 6u);
}

struct FloodingWatcher : ObaHelper::EvpnFloodingSmHelperStub::NotifieeConst {
  int esiDataCalls = 0;
  int rcChanges = 0;
  MplsLabel labelAtCall;
  void onCreateEsiDataCount() override {
    ++esiDataCalls;
    labelAtCall = notifier()->createEsiDataLabel();  // recorded before the count moved
  }
  void onCreateEsiDataRc() override { ++rcChanges; }
};

TEST(ObaHelperStubs, FloodingStubRecordsTheLastCallAndNotifiesOnlyOnChange) {
  auto stub = ObaHelper::evpnFloodingSmHelperStubFactory("flood");
  EXPECT_EQ(stub->createEsiDataRc(), HwProgrammingStatus::programmed);
  EXPECT_EQ(stub->createVlanToDot1qVlanId(), VlanId(1));
  EXPECT_TRUE(stub->createVlanToDot1qDot1q().isNone());
  FloodingWatcher w;
  w.notifierIs(stub);

  stub->createEsiDataRcIs(HwProgrammingStatus::programmed);  // no change: nobody told
  EXPECT_EQ(w.rcChanges, 0);
  stub->createEsiDataRcIs(HwProgrammingStatus::notProgrammed);
  stub->createEsiDataRcIs(HwProgrammingStatus::notProgrammed);
  EXPECT_EQ(w.rcChanges, 1);

  Kiv::Ptr<ObaHelper::EvpnFloodingSmHelper> helper = stub;
  const auto e2 = IntfId::ethernet(2);
  EXPECT_EQ(helper->createEsiData(e2, VlanId(10), TunnelTable::TunnelId(7), HwTunnelId(3),
                                  MplsLabel(100), MplsLabel(200)),
            HwProgrammingStatus::notProgrammed);
  EXPECT_EQ(w.esiDataCalls, 1);
  EXPECT_EQ(w.labelAtCall, MplsLabel(100));  // the first label; the second is not kept
  EXPECT_EQ(stub->createEsiDataIntfId(), e2);
  EXPECT_EQ(stub->createEsiDataVlanId(), VlanId(10));
  EXPECT_EQ(stub->createEsiDataTid(), TunnelTable::TunnelId(7));
  EXPECT_EQ(stub->createEsiDataHwTid(), HwTunnelId(3));

  EXPECT_EQ(helper->createVlanToDot1qMapping(e2, VlanId(10), VlanIdOrNone(20)),
            HwProgrammingStatus::programmed);
  helper->deleteVlanToDot1qMapping(e2, VlanId(11), VlanIdOrNone(21));
  helper->deleteEsiData(e2, VlanId(12));
  EXPECT_EQ(stub->createVlanToDot1qDot1q(), VlanIdOrNone(20));
  EXPECT_EQ(stub->deleteVlanToDot1qVlanId(), VlanId(11));
  EXPECT_EQ(stub->deleteVlanToDot1qDot1q(), VlanIdOrNone(21));
  EXPECT_EQ(stub->deleteEsiDataVlanId(), VlanId(12));
  EXPECT_EQ(
      stub->createVlanToDot1qCount() + stub->deleteVlanToDot1qCount() + stub->deleteEsiDataCount(),
      3u);
}

TEST(ObaHelperStubs, EsiPortMapStubReturnsItsConfiguredResult) {
  auto stub = ObaHelper::esiFilteringDecapHelperStubFactory("decap");
  Kiv::Ptr<ObaHelper::EsiFilteringDecapHelper> helper = stub;
  EXPECT_EQ(helper->createEsiPortMap(MplsLabel(16), IntfId::portChannel(3)),
            Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess);
  stub->createEsiPortMapRcIs(Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingResourceFull);
  EXPECT_EQ(helper->createEsiPortMap(MplsLabel(17), IntfId::ethernet(4)),
            Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingResourceFull);
  EXPECT_EQ(stub->createEsiPortMapCount(), 2u);
  EXPECT_EQ(stub->createEsiPortMapLabel(), MplsLabel(17));
  EXPECT_EQ(stub->createEsiPortMapIntfId(), IntfId::ethernet(4));
  helper->deleteEsiPortMap(MplsLabel(16), IntfId::portChannel(3));
  EXPECT_EQ(stub->deleteEsiPortMapCount(), 1u);
  EXPECT_EQ(stub->deleteEsiPortMapLabel(), MplsLabel(16));
  EXPECT_EQ(stub->deleteEsiPortMapIntfId(), IntfId::portChannel(3));
}

}  // namespace
