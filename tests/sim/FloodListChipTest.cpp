// The chip's flood lists as the chip layer keeps them: what the VLAN flood-set machine configures
// reaches the hardware list after the chip's latency, in the order it was configured, and comes
// back as status; a refused member is reported and kept out; the ledger catches what a correct
// agent or chip never does.
#include <gtest/gtest.h>

#include "Kiv/Clock.h"
#include "sim/families/floodSet/FloodListChip.h"

namespace {

using Oba::HwProgrammingStatus;

struct Lists {
  Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  Kiv::Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  Kiv::Ptr<Sim::SoftwareChip> chip = new Sim::SoftwareChip(clock);
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig> config = new Oba::EvpnVlanFloodSetHwConfig;
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus> status = new Oba::EvpnVlanFloodSetHwStatus;
  Kiv::Ptr<Sim::FloodListChip> lists;
  std::vector<std::string> calls;

  Lists() {
    lists = Sim::FloodListChip::FloodListChipIs(chip, scheduler, config, status);
    chip->callListenerIs([this](const Sim::SoftwareChip::Call& c) { calls.push_back(c.text); });
  }
  ~Lists() { chip->callListenerIs(nullptr); }

  static inline const Bridging::MacVlanPair list10{Bridging::VlanId(10),
                                                   Quil::EthAddr::broadcast()};
  static Oba::MplsDestConfig member(std::uint64_t hwId, std::uint32_t hwTunnel = 1) {
    return Oba::MplsDestConfig(Tunnel::TunnelTable::TunnelId((1ull << 32) | 1),
                               Quil::MplsLabel(1001), Oba::HwTunnelId(hwTunnel), hwId,
                               Quil::IntfId::ethernet(static_cast<std::uint32_t>(hwId)));
  }
  std::optional<HwProgrammingStatus> reported(const Oba::MplsDestConfig& m) const {
    auto s = status->status(list10);
    return s ? s->mplsDestStatus(m) : std::nullopt;
  }
  bool inHardware(const Oba::MplsDestConfig& m) const {
    auto l = lists->lists().find(list10);
    return l != lists->lists().end() && l->second.contains(m);
  }
  std::vector<std::string> violations() const {
    std::vector<std::string> out;
    for (const auto& v : chip->violations()) out.push_back(v.text);
    return out;
  }
};

TEST(FloodListChip, AMemberIsProgrammedAndReportedAfterTheLatencyAndLeavesWithItsStatus) {
  Lists t;
  t.lists->latencyIs(0.5);
  const auto a = Lists::member(7), b = Lists::member(8);
  t.config->configIs(Lists::list10)->mplsDestConfigIs(a, true);
  t.scheduler->runDue();
  EXPECT_FALSE(t.reported(a));  // nothing yet: the chip acts half a second later
  t.scheduler->advanceBy(0.5);
  EXPECT_EQ(t.reported(a), HwProgrammingStatus::programmed);
  EXPECT_TRUE(t.inHardware(a));

  // A change of hardware FEC id, made before broken: the chip keeps the order even when its
  // latency falls between the two changes.
  t.config->configIs(Lists::list10)->mplsDestConfigIs(b, true);
  t.lists->latencyIs(0);
  t.config->configIs(Lists::list10)->mplsDestConfigDel(a);
  t.scheduler->runDue();
  EXPECT_TRUE(t.inHardware(a));  // the removal waits for the addition before it
  t.scheduler->advanceBy(0.5);
  EXPECT_FALSE(t.inHardware(a));
  EXPECT_TRUE(t.inHardware(b));
  EXPECT_FALSE(t.reported(a));
  EXPECT_TRUE(t.violations().empty());

  // The emptied list goes whole, its status with it.
  t.config->configDel(Lists::list10);
  t.scheduler->runDue();
  EXPECT_TRUE(t.lists->lists().empty());
  EXPECT_FALSE(t.status->status(Lists::list10));
  EXPECT_EQ(t.calls.back(),
            "unprogramFloodListMember 10/ff:ff:ff:ff:ff:ff Tunnel1.1 label 1001 hwTunnelId 1 "
            "hwId 8 l2IntfId Ethernet8");
}

// A FEC moves: the member is replaced twice before the chip comes to it (its interface, then its
// hardware id). The chip does not program the member that already left, and still puts the final
// one in before it takes the original out.
TEST(FloodListChip, AMemberReplacedTwiceBeforeTheChipActsIsStillMadeBeforeBroken) {
  Lists t;
  const auto a = Lists::member(7);
  t.config->configIs(Lists::list10)->mplsDestConfigIs(a, true);
  t.scheduler->runDue();
  const Oba::MplsDestConfig between(a.tunnelId(), a.label(), a.hwTunnelId(), 7,
                                    Quil::IntfId::ethernet(8));
  const auto b = Lists::member(8);
  auto list = t.config->configIs(Lists::list10);
  list->mplsDestConfigIs(between, true);
  list->mplsDestConfigDel(a);
  list->mplsDestConfigIs(b, true);
  list->mplsDestConfigDel(between);
  t.calls.clear();
  t.scheduler->runDue();
  EXPECT_EQ(t.calls,
            (std::vector<std::string>{
                "programFloodListMember 10/ff:ff:ff:ff:ff:ff Tunnel1.1 label 1001 hwTunnelId 1 "
                "hwId 8 l2IntfId Ethernet8 -> programmed",
                "unprogramFloodListMember 10/ff:ff:ff:ff:ff:ff Tunnel1.1 label 1001 hwTunnelId 1 "
                "hwId 7 l2IntfId Ethernet7"}));
  EXPECT_TRUE(t.inHardware(b));
  EXPECT_TRUE(t.violations().empty());
}

TEST(FloodListChip, ARefusedMemberIsReportedAndKeptOutOfTheList) {
  Lists t;
  t.chip->refusalIs({.op = "programFloodListMember",
                     .port = Quil::DynamicTunnelIntfId::intfId((1ull << 32) | 1),
                     .vlan = Bridging::VlanId(10),
                     .times = 1,
                     .rc = static_cast<std::uint32_t>(HwProgrammingStatus::invalidHwId)});
  const auto a = Lists::member(7), b = Lists::member(8);
  t.config->configIs(Lists::list10)->mplsDestConfigIs(a, true);
  t.config->configIs(Lists::list10)->mplsDestConfigIs(b, true);
  t.scheduler->runDue();
  EXPECT_EQ(t.reported(a), HwProgrammingStatus::invalidHwId);
  EXPECT_FALSE(t.inHardware(a));
  EXPECT_EQ(t.reported(b), HwProgrammingStatus::programmed);
}

TEST(FloodListChip, TheLedgerCatchesABreakBeforeMakeAndIdsNobodyHolds) {
  Sim::FloodListChip::canaryBreakBeforeMakeIs(true);
  Lists t;
  Sim::FloodListChip::canaryBreakBeforeMakeIs(false);
  t.lists->hwTunnelIdHeldIs([](Oba::HwTunnelId id) { return id.value() == 1; });
  t.lists->hwFecIdHeldIs([](std::uint64_t hw) { return hw != 9; });
  const auto a = Lists::member(7), b = Lists::member(8), c = Lists::member(9, 2);
  t.config->configIs(Lists::list10)->mplsDestConfigIs(a, true);
  t.scheduler->runDue();
  t.config->configIs(Lists::list10)->mplsDestConfigIs(b, true);
  t.config->configIs(Lists::list10)->mplsDestConfigDel(a);
  t.scheduler->runDue();
  ASSERT_EQ(t.violations().size(), 1u);
  EXPECT_EQ(
      t.violations()[0],
      "unprogramFloodListMember 10/ff:ff:ff:ff:ff:ff Tunnel1.1 label 1001 hwTunnelId 1 hwId 7 "
      "l2IntfId Ethernet7: removed before its replacement hwTunnelId 1 hwId 8 was added");

  t.config->configIs(Lists::list10)->mplsDestConfigIs(c, true);
  t.scheduler->runDue();
  t.lists->hwFecIdReleased(8);
  const auto v = t.violations();
  ASSERT_EQ(v.size(), 4u);
  EXPECT_NE(v[1].find(": hw tunnel id 2 is not handed out"), std::string::npos) << v[1];
  EXPECT_NE(v[2].find(": hw FEC id 9 is not handed out"), std::string::npos) << v[2];
  EXPECT_EQ(v[3], "hw FEC id 8 released while flood list 10/ff:ff:ff:ff:ff:ff still uses it");
}

}  // namespace
