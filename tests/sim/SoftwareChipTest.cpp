// The simulator's software chip: its id pool, refusals, the violation ledger and the call log.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "sim/SoftwareChip.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Oba::HwProgrammingStatus;
using Oba::HwTunnelId;
using Quil::IntfId;
using Quil::MplsLabel;
using Rc = Mpls::LfibHwProgrammingReturnCode;
using Sim::SoftwareChip;
using TunnelId = Tunnel::TunnelTable::TunnelId;

const IntfId e1 = IntfId::ethernet(1);
const IntfId e2 = IntfId::ethernet(2);
const TunnelId t1((1ull << 32) | 1);

class SoftwareChipTest : public ::testing::Test {
 protected:
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock();
  Kiv::Ptr<SoftwareChip> chip = new SoftwareChip(clock);

  std::uint32_t get() { return chip->getHwTunnelId().value(); }
  std::vector<std::string> violationTexts() const {
    std::vector<std::string> v;
    for (const auto& x : chip->violations()) v.push_back(x.text);
    return v;
  }
};

TEST_F(SoftwareChipTest, PoolHandsOutLowestFreeIdWithinItsSize) {
  chip->hwTunnelIdPoolIs(4);
  EXPECT_EQ(get(), 1u);
  EXPECT_EQ(get(), 2u);
  EXPECT_EQ(get(), 3u);
  chip->releaseHwTunnelId(HwTunnelId(2));
  EXPECT_EQ(get(), 2u);  // reused before a fresh one
  EXPECT_EQ(get(), 4u);
  EXPECT_EQ(get(), 0u);  // exhausted
  chip->hwTunnelIdPoolIs(2);
  EXPECT_EQ(chip->hwTunnelIdsInUse(), (std::set<std::uint32_t>{1, 2, 3, 4}));
  chip->releaseHwTunnelId(HwTunnelId(4));
  chip->releaseHwTunnelId(HwTunnelId(3));
  EXPECT_EQ(get(), 0u);  // 3 and 4 are free but above the new size
  chip->releaseHwTunnelId(HwTunnelId(1));
  EXPECT_EQ(get(), 1u);
  EXPECT_EQ(chip->handedOutCount(2), 2u);
  EXPECT_EQ(chip->releasedCount(2), 1u);
  EXPECT_EQ(chip->releasedCount(3), 1u);
  EXPECT_TRUE(chip->violations().empty());
  chip->reset();
  EXPECT_EQ(chip->hwTunnelIdPool(), 2u);
  EXPECT_EQ(chip->handedOutCount(2), 0u);
  EXPECT_EQ(get(), 1u);
}

TEST_F(SoftwareChipTest, RefusalsAnswerMatchingCallsAndChangeNoTable) {
  chip->refusalIs({.op = "createEsiData", .port = e1, .times = 1});
  chip->refusalIs({.op = "createVlanToDot1qMapping",
                   .vlan = VlanId(20),
                   .rc = HwProgrammingStatus::invalidHwId});
  chip->refusalIs({.op = "createEsiPortMap", .port = e2, .lfibRc = Rc::lfibHwProgrammingFailed});
  chip->refusalIs({.op = "getHwTunnelId", .times = 1});
  EXPECT_EQ(chip->refusals(), 4u);

  EXPECT_EQ(get(), 0u);
  EXPECT_EQ(get(), 1u);
  const HwTunnelId hw(1);
  const MplsLabel l(1001), local(2001);
  EXPECT_EQ(chip->createEsiData(e2, VlanId(10), t1, hw, l, local), HwProgrammingStatus::programmed);
  EXPECT_EQ(chip->createEsiData(e1, VlanId(10), t1, hw, l, local),
            HwProgrammingStatus::notProgrammed);
  EXPECT_EQ(chip->esiData().size(), 1u);
  EXPECT_EQ(chip->createEsiData(e1, VlanId(10), t1, hw, l, local), HwProgrammingStatus::programmed);
  EXPECT_EQ(chip->esiData().at({e1, VlanId(10)}), (SoftwareChip::EsiEntry{t1, hw, l, local}));
  EXPECT_EQ(chip->refusals(), 2u);  // the one-shot rules are spent

  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(chip->createVlanToDot1qMapping(e1, VlanId(20), VlanIdOrNone(100)),
              HwProgrammingStatus::invalidHwId);
  }
  EXPECT_EQ(chip->createVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone(100)),
            HwProgrammingStatus::programmed);
  EXPECT_EQ(chip->dot1q().size(), 1u);
  EXPECT_EQ(chip->createEsiPortMap(l, e2), Rc::lfibHwProgrammingFailed);
  EXPECT_EQ(chip->createEsiPortMap(l, e1), Rc::lfibHwProgrammingSuccess);
  EXPECT_EQ(chip->esiPortMaps().size(), 1u);

  chip->refusalDelAll();
  EXPECT_EQ(chip->createEsiPortMap(l, e2), Rc::lfibHwProgrammingSuccess);
  EXPECT_THROW(
      {
        try {
          chip->refusalIs({.op = "addEsiData"});
        } catch (const Kiv::RangeException& e) {
          EXPECT_STREQ(e.what(), "cannot refuse 'addEsiData': no such chip operation");
          throw;
        }
      },
      Kiv::RangeException);
  EXPECT_TRUE(chip->violations().empty());
}

TEST_F(SoftwareChipTest, LedgerRecordsWhatACorrectAgentNeverDoes) {
  clock->nowIs(5.0);
  chip->releaseHwTunnelId(HwTunnelId(7));
  EXPECT_EQ(get(), 1u);
  chip->releaseHwTunnelId(HwTunnelId(1));
  clock->nowIs(6.0);
  chip->releaseHwTunnelId(HwTunnelId(1));
  EXPECT_EQ(chip->releasedCount(1), 1u);
  chip->createEsiData(e1, VlanId(10), t1, HwTunnelId(7), MplsLabel(1001), MplsLabel(2001));
  EXPECT_EQ(chip->esiData().size(), 1u);  // stored all the same
  chip->deleteEsiData(e2, VlanId(10));
  chip->deleteVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone(100));
  chip->deleteEsiPortMap(MplsLabel(1001), e1);
  EXPECT_EQ(violationTexts(),
            (std::vector<std::string>{
                "releaseHwTunnelId 7: never handed out",
                "releaseHwTunnelId 1: released twice",
                "createEsiData Ethernet1 vlan 10 uses hw tunnel id 7, which is not handed out",
                "deleteEsiData Ethernet2 vlan 10: nothing to delete",
                "deleteVlanToDot1qMapping Ethernet1 vlan 10 dot1q 100: nothing to delete",
                "deleteEsiPortMap label 1001 intf Ethernet1: nothing to delete",
            }));
  EXPECT_EQ(chip->violations()[0].time, 5.0);
  EXPECT_EQ(chip->violations()[1].time, 6.0);
  chip->reset();
  EXPECT_TRUE(chip->violations().empty());
  EXPECT_TRUE(chip->esiData().empty());
  EXPECT_EQ(chip->callCount(), 0u);
}

TEST_F(SoftwareChipTest, HelpersLogExactTextsAndACorrectSequenceLeavesNoViolation) {
  std::vector<std::string> log;
  chip->callListenerIs([&](const SoftwareChip::Call& c) {
    EXPECT_EQ(c.text.rfind(c.op, 0), 0u);
    EXPECT_EQ(c.time, 3.0);
    log.push_back(c.text);
  });
  clock->nowIs(3.0);
  auto hwHelper = chip->hwTunnelIdHelper();
  auto flood = chip->floodingHelper();
  auto decap = chip->esiFilteringDecapHelper();
  const HwTunnelId hw = hwHelper->getHwTunnelId();
  flood->createEsiData(e1, VlanId(10), t1, hw, MplsLabel(1001), MplsLabel(2001));
  flood->createVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone(100));
  decap->createEsiPortMap(MplsLabel(1001), e1);
  decap->deleteEsiPortMap(MplsLabel(1001), e1);
  flood->deleteVlanToDot1qMapping(e1, VlanId(10), VlanIdOrNone(100));
  flood->deleteEsiData(e1, VlanId(10));
  hwHelper->releaseHwTunnelId(hw);
  EXPECT_EQ(log, (std::vector<std::string>{
                     "getHwTunnelId -> 1",
                     "createEsiData Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1 label 1001 local 2001 "
                     "-> programmed",
                     "createVlanToDot1qMapping Ethernet1 vlan 10 dot1q 100 -> programmed",
                     "createEsiPortMap label 1001 intf Ethernet1 -> lfibHwProgrammingSuccess",
                     "deleteEsiPortMap label 1001 intf Ethernet1",
                     "deleteVlanToDot1qMapping Ethernet1 vlan 10 dot1q 100",
                     "deleteEsiData Ethernet1 vlan 10",
                     "releaseHwTunnelId 1",
                 }));
  EXPECT_EQ(chip->callCount(), 8u);
  EXPECT_TRUE(chip->violations().empty());
  EXPECT_TRUE(chip->esiData().empty() && chip->dot1q().empty() && chip->esiPortMaps().empty());
  EXPECT_TRUE(chip->hwTunnelIdsInUse().empty());
}

TEST(SoftwareChipDeathTest, HelperOutlivingItsChipAborts) {
  Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> helper;
  {
    Kiv::Ptr<SoftwareChip> chip = new SoftwareChip(new Kiv::VirtualClock());
    helper = chip->hwTunnelIdHelper();
  }
  EXPECT_DEATH(helper->getHwTunnelId(),
               "software chip destroyed while a machine still holds its helper");
}

}  // namespace
