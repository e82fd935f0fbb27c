// The machines' keys, membership sets and the mapping row: how they print, parse, order and hash.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <unordered_set>

#include "Oba/ObaFecRecords.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Oba/ObaKeys.h"
#include "Oba/ObaSets.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"

namespace {

using Bridging::VlanId;
using Quil::IntfId;
using TunnelId = Tunnel::TunnelTable::TunnelId;

// The rows other processes read are stored as their bytes in shared memory.
static_assert(std::is_trivially_copyable_v<Oba::TunnelIdToHwTunnelId>);
static_assert(std::is_trivially_copyable_v<Oba::HwFecIdRequest>);
static_assert(std::is_trivially_copyable_v<Oba::ObjTupleAndFecId>);
static_assert(std::is_trivially_copyable_v<Oba::MplsDestConfig>);
static_assert(std::is_trivially_copyable_v<Oba::MplsDestHwInfo>);

TEST(ObaKeys, PrintParseOrderAndHash) {
  Oba::IntfVlanTunnelKey k(IntfId::portChannel(10), VlanId(20), TunnelId((1ull << 32) | 7));
  const std::string text =
      "Value('Oba::IntfVlanTunnelKey', ** {'intfId': Port-Channel10, 'vlanId': 20, "
      "'tunnelId': Tunnel1.7})";
  EXPECT_EQ(k.toString(), text);
  EXPECT_EQ(Oba::IntfVlanTunnelKey(text.begin(), text.end()), k);
  EXPECT_THROW(Oba::IntfVlanKey(std::string_view("Value('Oba::IntfVlanKey', ** {'intfId': x})")),
               Kiv::RangeException);
  const std::string empty;
  EXPECT_THROW(Oba::IntfVlanKey(empty.begin(), empty.end()), Kiv::RangeException);

  // The interface decides before the VLAN is looked at; same interface: by VLAN number.
  Oba::IntfVlanKey e1v9(IntfId::ethernet(1), VlanId(9)), e2v1(IntfId::ethernet(2), VlanId(1)),
      e1v10(IntfId::ethernet(1), VlanId(10));
  EXPECT_TRUE(e1v9 < e2v1);
  EXPECT_TRUE(e1v9 < e1v10);
  EXPECT_FALSE(e1v10 < e1v9);

  // The mixer is fed each field's own hash in field order: the fields' order matters.
  Kiv::HashMixer h;
  h.add(IntfId::ethernet(1).hash()).add(VlanId(9).hash());
  EXPECT_EQ(e1v9.hash(), h.result());
  std::unordered_set<Oba::IntfVlanKey> set{e1v9, e2v1, e1v10, e1v9};
  EXPECT_EQ(set.size(), 3u);
}

TEST(ObaSets, MembershipIsPresenceAndNotifiesNobody) {
  Oba::IntfVlanStatus s{Oba::IntfVlanKey()};
  s.unprogrammedIs(IntfId::ethernet(3), false);  // present with false is still a member
  EXPECT_EQ(s.unprogrammeds(), 1u);
  s.unprogrammedDel(IntfId::ethernet(3));
  EXPECT_EQ(s.unprogrammeds(), 0u);
}

TEST(ObaMapping, RowsPrintAndParseAndReadersHearEachWrite) {
  Oba::TunnelIdToHwTunnelId row(TunnelId((1ull << 32) | 2), Oba::HwTunnelId(5));
  const std::string text =
      "Value('Oba::TunnelIdToHwTunnelId', ** {'key': Tunnel1.2, 'hwTunnelId': 5})";
  EXPECT_EQ(row.toString(), text);
  EXPECT_EQ(Oba::TunnelIdToHwTunnelId(std::string_view(text)), row);
  EXPECT_EQ(row.compactString(), "Tunnel1.2 -> 5");

  struct Reader : Oba::TunnelIdToHwTunnelIdMapping::NotifieeConst {
    int told = 0;
    void onTunnelIdToHwTunnelId(const TunnelId&) override { ++told; }
  } reader;
  Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> m = new Oba::TunnelIdToHwTunnelIdMapping("m");
  reader.notifierIs(m);
  m->tunnelIdToHwTunnelIdIs(row);
  m->tunnelIdToHwTunnelIdIs(Oba::TunnelIdToHwTunnelId(row.key(), Oba::HwTunnelId(6)));
  EXPECT_EQ(reader.told, 2);  // the overwrite is told once for its key
  EXPECT_EQ(m->tunnelIdToHwTunnelId(row.key()).row.hwTunnelId(), Oba::HwTunnelId(6));
  m->tunnelIdToHwTunnelIdDelAll();
  EXPECT_EQ(reader.told, 3);
  EXPECT_FALSE(m->tunnelIdToHwTunnelId(row.key()).found);
}

}  // namespace
