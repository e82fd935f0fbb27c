// Flood-set records: member identity, hashing, string forms, and who is told of which change.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "Oba/ObaFloodSetRecords.h"

namespace {

using Oba::HwProgrammingStatus;
using Oba::MplsDestConfig;
using Oba::MplsDestHwInfo;
using Oba::MplsFloodSetVia;
using Oba::VlanMacDest;
using TunnelId = Tunnel::TunnelTable::TunnelId;

const TunnelId tunnel17((1ull << 32) | 7);
const TunnelId tunnel29((2ull << 32) | 9);
const Bridging::MacVlanPair bcast10{Bridging::VlanId(10), Quil::EthAddr::broadcast()};

MplsDestConfig member(std::uint64_t hwId) {
  return MplsDestConfig(tunnel17, Quil::MplsLabel(1001), Oba::HwTunnelId(3), hwId,
                        Quil::IntfId::ethernet(4));
}

// The tunnel-id reduction written out byte by byte, as the readers in other processes do it.
std::uint32_t oneAtATime(TunnelId id) {
  std::uint64_t v = id.value();
  unsigned char bytes[8];
  std::memcpy(bytes, &v, 8);
  std::uint32_t h = 0;
  for (unsigned char b : bytes) {
    h += b;
    h *= 1025;
    h ^= h >> 6;
  }
  h *= 9;
  h ^= h >> 11;
  h *= 32769;
  return h;
}

TEST(ObaFloodSetRecords, EveryFieldIsPartOfAMembersIdentity) {
  // The empty member: no label (1048576), no identifiers, no interface.
  MplsDestConfig none;
  EXPECT_EQ(none.label().value(), 1048576u);
  EXPECT_TRUE(!none);
  EXPECT_FALSE(!member(0));
  EXPECT_TRUE(!MplsDestHwInfo());

  // Re-resolving the FEC's hardware id makes a new member: a second key in the config set and in
  // the status, never an update in place.
  const MplsDestConfig before = member(0x100000001), after = member(0x100000002);
  EXPECT_FALSE(before == after);
  EXPECT_TRUE(before < after);
  Oba::VlanFloodSetConfig config(bcast10);
  Oba::VlanFloodSetStatus status(bcast10);
  config.mplsDestConfigIs(before, true);
  status.mplsDestStatusIs(before, HwProgrammingStatus::programmed);
  config.mplsDestConfigIs(after, true);
  status.mplsDestStatusIs(after, HwProgrammingStatus::invalidHwId);
  EXPECT_EQ(config.mplsDestConfigs(), 2u);
  EXPECT_EQ(status.mplsDestStatus(before), HwProgrammingStatus::programmed);
  EXPECT_EQ(status.mplsDestStatus(after), HwProgrammingStatus::invalidHwId);
  std::ostringstream os;
  os << *status.mplsDestStatus(after);
  EXPECT_EQ(os.str(), "invalidHwId");

  // The hash reduces the tunnel id byte by byte and mixes the FEC's id in as 64 bits
  // (this one has bit 32 set, so a 32-bit mix would miss part of it).
  EXPECT_EQ(MplsFloodSetVia(tunnel17, Quil::MplsLabel(1001)).hash(),
            Kiv::HashMixer().add(oneAtATime(tunnel17)).add(Quil::MplsLabel(1001).hash()).result());
  EXPECT_EQ(before.hash(), Kiv::HashMixer()
                               .add(oneAtATime(tunnel17))
                               .add(Quil::MplsLabel(1001).hash())
                               .add(Oba::HwTunnelId(3).hash())
                               .add64(0x100000001)
                               .add(Quil::IntfId::ethernet(4).hash())
                               .result());
}

TEST(ObaFloodSetRecords, MembersOfOneFloodListAreOrderedByDestination) {
  const Bridging::VlanId v10(10), v9(9);
  const auto mac = Quil::EthAddr::broadcast();
  const VlanMacDest a(v10, mac, L2Rib::Dest::mpls(tunnel17, Quil::MplsLabel(1001)));
  const VlanMacDest b(v10, mac, L2Rib::Dest::mpls(tunnel17, Quil::MplsLabel(1002)));
  const VlanMacDest c(v10, mac, L2Rib::Dest::mpls(tunnel29, Quil::MplsLabel(5)));
  const VlanMacDest earlierVlan(v9, mac, L2Rib::Dest::mpls(tunnel29, Quil::MplsLabel(9)));
  std::set<VlanMacDest> ordered{c, b, a, earlierVlan};
  EXPECT_EQ(std::vector<VlanMacDest>(ordered.begin(), ordered.end()),
            (std::vector<VlanMacDest>{earlierVlan, a, b, c}));
  std::unordered_set<VlanMacDest> hashed{a, b, c, a};
  EXPECT_EQ(hashed.size(), 3u);
}

template <class T>
void expectRoundTrip(const T& v, const std::string& text) {
  EXPECT_EQ(v.toString(), text);
  EXPECT_EQ(T(std::string_view(text)), v) << text;
  EXPECT_EQ(T(text.begin(), text.end()), v) << text;
}

TEST(ObaFloodSetRecords, EveryValuePrintsAndParsesBack) {
  expectRoundTrip(MplsFloodSetVia(tunnel17, Quil::MplsLabel(1001)),
                  "Value('Oba::MplsFloodSetVia', ** {'tunnelId': Tunnel1.7, 'label': 1001})");
  expectRoundTrip(MplsDestHwInfo(0x100000001, Quil::IntfId::ethernet(4)),
                  "Value('Oba::MplsDestHwInfo', ** {'hwIdForTunnelProgramming': 4294967297, "
                  "'l2IntfId': Ethernet4})");
  expectRoundTrip(member(42),
                  "Value('Oba::MplsDestConfig', ** {'tunnelId': Tunnel1.7, 'label': 1001, "
                  "'hwTunnelId': 3, 'hwIdForTunnelProgramming': 42, 'l2IntfId': Ethernet4})");
  expectRoundTrip(MplsDestConfig(),
                  "Value('Oba::MplsDestConfig', ** {'tunnelId': Tunnel0.0, 'label': none, "
                  "'hwTunnelId': 0, 'hwIdForTunnelProgramming': 0, 'l2IntfId': none})");
  expectRoundTrip(VlanMacDest(Bridging::VlanId(10), Quil::EthAddr::broadcast(),
                              L2Rib::Dest::mpls(tunnel17, Quil::MplsLabel(1001))),
                  "Value('Oba::VlanMacDest', ** {'vlanId': 10, 'macAddr': ff:ff:ff:ff:ff:ff, "
                  "'dest': mpls(Tunnel1.7, 1001)})");
  EXPECT_THROW(MplsFloodSetVia(std::string_view(
                   "Value('Oba::MplsFloodSetVia', ** {'tunnelId': Tunnel1.7, 'label': 1048577})")),
               Kiv::RangeException);
}

class ConfigWatcher : public Oba::VlanFloodSetConfig::NotifieeConst {
 public:
  void onMplsDestConfig(const MplsDestConfig& k) override { told.push_back(k); }
  std::vector<MplsDestConfig> told;
};

class HwConfigWatcher : public Oba::EvpnVlanFloodSetHwConfig::NotifieeConst {
 public:
  void onConfig(const Bridging::MacVlanPair& k) override { told.push_back(k); }
  std::vector<Bridging::MacVlanPair> told;
};

TEST(ObaFloodSetRecords, TheChipLayerIsToldOnlyOfRealChanges) {
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig> hw = new Oba::EvpnVlanFloodSetHwConfig();
  HwConfigWatcher hwWatcher;
  hwWatcher.notifierIs(hw);

  // The flood list is created once; asking again returns it without a second notice.
  auto list = hw->configIs(bcast10);
  EXPECT_EQ(hw->configIs(bcast10), list);
  EXPECT_EQ(list->macVlanPair(), bcast10);
  EXPECT_EQ(hwWatcher.told, (std::vector<Bridging::MacVlanPair>{bcast10}));

  ConfigWatcher watcher;
  watcher.notifierIs(list);
  const MplsDestConfig m1 = member(1), m2 = member(2);
  list->mplsDestConfigIs(m1, true);
  list->mplsDestConfigIs(m1, true);  // already there: nothing to tell
  list->mplsDestConfigIs(m2, true);
  list->mplsDestConfigDel(m1);
  list->mplsDestConfigDel(m1);  // already gone
  EXPECT_EQ(watcher.told, (std::vector<MplsDestConfig>{m1, m2, m1}));
  watcher.told.clear();
  list->mplsDestConfigIs(m1, true);
  list->mplsDestConfigDelAll();
  EXPECT_EQ(watcher.told.size(), 3u);
  EXPECT_EQ(list->mplsDestConfigs(), 0u);

  // The published hardware ids follow the same rule.
  struct MappingWatcher : Oba::HwInfoMapping::NotifieeConst {
    void onMapping(const MplsFloodSetVia&) override { ++told; }
    int told = 0;
  } mappingWatcher;
  Kiv::Ptr<Oba::HwInfoMapping> mapping = new Oba::HwInfoMapping();
  mappingWatcher.notifierIs(mapping);
  const MplsFloodSetVia via(tunnel17, Quil::MplsLabel(1001));
  mapping->mappingIs(via, MplsDestHwInfo(7, Quil::IntfId::ethernet(1)));
  mapping->mappingIs(via, MplsDestHwInfo(7, Quil::IntfId::ethernet(1)));
  mapping->mappingIs(via, MplsDestHwInfo(8, Quil::IntfId::ethernet(1)));
  EXPECT_EQ(mappingWatcher.told, 2);
  EXPECT_EQ(mapping->mapping(via)->hwIdForTunnelProgramming(), 8u);

  hw->configDel(bcast10);
  EXPECT_EQ(hwWatcher.told.size(), 2u);
  Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus> hwStatus = new Oba::EvpnVlanFloodSetHwStatus();
  EXPECT_EQ(hwStatus->statusIs(bcast10), hwStatus->statusIs(bcast10));
  EXPECT_EQ(hwStatus->statuss(), 1u);
}

}  // namespace
