// The simulator's software chip: its core (refusals, the violation ledger, the call log, a reset
// that reaches every part) under the tables of the tunnel-id and ESI family.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "sim/SoftwareChip.h"
#include "sim/families/tunnelEsi/TunnelEsiChip.h"

namespace {

using Bridging::VlanId;
using Oba::HwProgrammingStatus;
using Oba::HwTunnelId;
using Quil::IntfId;
using Quil::MplsLabel;
using Sim::SoftwareChip;
using Sim::TunnelEsiChip;
using TunnelId = Tunnel::TunnelTable::TunnelId;

const IntfId e1 = IntfId::ethernet(1);
const IntfId e2 = IntfId::ethernet(2);
const TunnelId t1((1ull << 32) | 1);

class SoftwareChipTest : public ::testing::Test {
 protected:
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock();
  Kiv::Ptr<SoftwareChip> chip = new SoftwareChip(clock);
  Kiv::Ptr<TunnelEsiChip> esi = TunnelEsiChip::TunnelEsiChipIs(chip);

  std::uint32_t get() { return esi->getHwTunnelId().value(); }
  std::vector<std::string> violationTexts() const {
    std::vector<std::string> v;
    for (const auto& x : chip->violations()) v.push_back(x.text);
    return v;
  }
};

TEST_F(SoftwareChipTest, PoolHandsOutLowestFreeIdWithinItsSize) {
  esi->hwTunnelIdPoolIs(4);
  EXPECT_EQ(get(), 1u);
  EXPECT_EQ(get(), 2u);
  EXPECT_EQ(get(), 3u);
  esi->releaseHwTunnelId(HwTunnelId(2));
  EXPECT_EQ(get(), 2u);  // reused before a fresh one
  EXPECT_EQ(get(), 4u);
  EXPECT_EQ(get(), 0u);  // exhausted
  esi->hwTunnelIdPoolIs(2);
  EXPECT_EQ(esi->hwTunnelIdsInUse(), (std::set<std::uint32_t>{1, 2, 3, 4}));
  esi->releaseHwTunnelId(HwTunnelId(4));
  esi->releaseHwTunnelId(HwTunnelId(3));
  EXPECT_EQ(get(), 0u);  // 3 and 4 are free but above the new size
  esi->releaseHwTunnelId(HwTunnelId(1));
  EXPECT_EQ(get(), 1u);
  EXPECT_EQ(esi->handedOutCount(2), 2u);
  EXPECT_EQ(esi->releasedCount(2), 1u);
  EXPECT_EQ(esi->releasedCount(3), 1u);
  EXPECT_TRUE(chip->violations().empty());
  chip->reset();
  EXPECT_EQ(esi->hwTunnelIdPool(), 2u);
  EXPECT_EQ(esi->handedOutCount(2), 0u);
  EXPECT_EQ(get(), 1u);
}

TEST_F(SoftwareChipTest, RefusalsAnswerMatchingCallsAndChangeNoTable) {
  chip->refusalIs({.op = "createEsiData", .port = e1, .times = 1});
  chip->refusalIs({.op = "createEsiData", .vlan = VlanId(20), .rc = 2});
  chip->refusalIs({.op = "getHwTunnelId", .times = 1});
  EXPECT_EQ(chip->refusals(), 3u);

  EXPECT_EQ(get(), 0u);
  EXPECT_EQ(get(), 1u);
  const HwTunnelId hw(1);
  const MplsLabel l(1001), local(2001);
  EXPECT_EQ(esi->createEsiData(e2, VlanId(10), t1, hw, l, local), HwProgrammingStatus::programmed);
  EXPECT_EQ(esi->createEsiData(e1, VlanId(10), t1, hw, l, local),
            HwProgrammingStatus::notProgrammed);
  EXPECT_EQ(esi->esiData().size(), 1u);
  EXPECT_EQ(esi->createEsiData(e1, VlanId(10), t1, hw, l, local), HwProgrammingStatus::programmed);
  EXPECT_EQ(esi->esiData().at({e1, VlanId(10)}), (TunnelEsiChip::EsiEntry{t1, hw, l, local}));
  EXPECT_EQ(chip->refusals(), 1u);  // the one-shot rules are spent

  // A rule for every call of a VLAN answers its own code, on any port, as often as it is asked.
  for (IntfId port : {e1, e2, e1}) {
    EXPECT_EQ(esi->createEsiData(port, VlanId(20), t1, hw, l, local),
              HwProgrammingStatus::invalidHwId);
  }
  EXPECT_EQ(esi->esiData().size(), 2u);
  chip->refusalDelAll();
  EXPECT_EQ(esi->createEsiData(e2, VlanId(20), t1, hw, l, local), HwProgrammingStatus::programmed);
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
  esi->releaseHwTunnelId(HwTunnelId(7));
  EXPECT_EQ(get(), 1u);
  esi->releaseHwTunnelId(HwTunnelId(1));
  clock->nowIs(6.0);
  esi->releaseHwTunnelId(HwTunnelId(1));
  EXPECT_EQ(esi->releasedCount(1), 1u);
  esi->createEsiData(e1, VlanId(10), t1, HwTunnelId(7), MplsLabel(1001), MplsLabel(2001));
  EXPECT_EQ(esi->esiData().size(), 1u);  // stored all the same
  esi->deleteEsiData(e2, VlanId(10));
  EXPECT_EQ(violationTexts(),
            (std::vector<std::string>{
                "releaseHwTunnelId 7: never handed out",
                "releaseHwTunnelId 1: released twice",
                "createEsiData Ethernet1 vlan 10 uses hw tunnel id 7, which is not handed out",
                "deleteEsiData Ethernet2 vlan 10: nothing to delete",
            }));
  EXPECT_EQ(chip->violations()[0].time, 5.0);
  EXPECT_EQ(chip->violations()[1].time, 6.0);
  // A reset of the chip reaches its parts.
  chip->reset();
  EXPECT_TRUE(chip->violations().empty());
  EXPECT_TRUE(esi->esiData().empty());
  EXPECT_TRUE(esi->hwTunnelIdsInUse().empty());
  EXPECT_EQ(chip->callCount(), 0u);
}

TEST_F(SoftwareChipTest, HelpersLogExactTextsAndACorrectSequenceLeavesNoViolation) {
  std::vector<std::string> log, callers;
  clock->nowIs(3.0);
  chip->callListenerIs([&](const SoftwareChip::Call& c) {
    EXPECT_EQ(c.text.rfind(c.op, 0), 0u);
    EXPECT_EQ(c.time, 3.0);
    log.push_back(c.text);
    callers.push_back(c.caller ? c.caller : "agent");
  });
  auto hwHelper = esi->hwTunnelIdHelper();
  auto flood = esi->floodingHelper();
  const HwTunnelId hw = hwHelper->getHwTunnelId();
  flood->createEsiData(e1, VlanId(10), t1, hw, MplsLabel(1001), MplsLabel(2001));
  esi->deleteEsiData(e1, VlanId(10));  // as the agent would, not through a helper
  hwHelper->releaseHwTunnelId(hw);
  EXPECT_EQ(log, (std::vector<std::string>{
                     "getHwTunnelId -> 1",
                     "createEsiData Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1 label 1001 local 2001 "
                     "-> programmed",
                     "deleteEsiData Ethernet1 vlan 10",
                     "releaseHwTunnelId 1",
                 }));
  EXPECT_EQ(callers,
            (std::vector<std::string>{"hwTunnelId", "floodingEsi", "agent", "hwTunnelId"}));
  EXPECT_EQ(chip->callCount(), 4u);
  EXPECT_TRUE(chip->violations().empty());
  EXPECT_TRUE(esi->esiData().empty());
  EXPECT_TRUE(esi->hwTunnelIdsInUse().empty());
}

TEST(SoftwareChipDeathTest, HelperOutlivingItsChipAborts) {
  Kiv::Ptr<ObaHelper::EvpnHwTunnelIdSmHelper> helper;
  {
    Kiv::Ptr<SoftwareChip> chip = new SoftwareChip(new Kiv::VirtualClock());
    helper = TunnelEsiChip::TunnelEsiChipIs(chip)->hwTunnelIdHelper();
  }
  EXPECT_DEATH(helper->getHwTunnelId(),
               "software chip destroyed while a machine still holds its helper");
}

}  // namespace
