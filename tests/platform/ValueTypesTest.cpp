// The external model's value types: string forms both ways, range errors, ordering and hashing.

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <type_traits>
#include <unordered_map>

#include "Bridging/MacVlanPair.h"
#include "Bridging/VlanIdOrNone.h"
#include "L2Rib/Dest.h"
#include "L2Rib/ObjTuple.h"
#include "Mpls/Lfib.h"
#include "Mpls/ReturnCode.h"
#include "Quil/IntfId.h"
#include "Shoal/Fib.h"
#include "Tunnel/TunnelId.h"

namespace {

using Bridging::MacVlanPair;
using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using L2Rib::Dest;
using Quil::DynamicTunnelIntfId;
using Quil::EthAddr;
using Quil::IntfId;
using Quil::MplsLabel;
using TunnelId = Tunnel::TunnelTable::TunnelId;

template <class T>
std::string streamed(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

// Parsing the text and printing the value gives the text back, by both printers.
template <class T>
T roundTrip(std::string_view text) {
  T v = T::parse(text);
  EXPECT_EQ(v.toString(), text);
  EXPECT_EQ(streamed(v), text);
  EXPECT_EQ(T::parse(v.toString()), v);
  return v;
}

template <class F>
std::string rangeError(F&& f) {
  try {
    f();
  } catch (const Kiv::RangeException& e) {
    return e.what();
  }
  return "no exception";
}

template <class T>
void expectRejected(std::string_view text, std::string_view typeName) {
  EXPECT_EQ(rangeError([&] { T::parse(text); }),
            "cannot parse '" + std::string(text) + "' as " + std::string(typeName));
}

TEST(ValueTypesTest, IntfIdClassifiesPrintsAndOrdersByKind) {
  // Four-byte aligned: an interface and a VLAN pack into a twelve-byte key.
  static_assert(sizeof(IntfId) == 8 && alignof(IntfId) == 4 &&
                std::is_trivially_copyable_v<IntfId>);
  EXPECT_TRUE(!roundTrip<IntfId>("none"));
  IntfId e1 = roundTrip<IntfId>("Ethernet1");
  IntfId eMax = roundTrip<IntfId>("Ethernet4294967295");
  IntfId lag = roundTrip<IntfId>("Port-Channel10");
  IntfId dyn = roundTrip<IntfId>("DynTunnel1.7");
  IntfId dynMax = roundTrip<IntfId>("DynTunnel16777215.4294967295");
  EXPECT_EQ(roundTrip<IntfId>("DynTunnel0.0"), DynamicTunnelIntfId::intfId(0));
  EXPECT_EQ(e1, IntfId::ethernet(1));
  EXPECT_EQ(lag, IntfId::portChannel(10));
  EXPECT_TRUE(e1.isEthernet() && lag.isPortChannel() && dyn.isDynamicTunnel() && !dyn.empty());
  EXPECT_EQ(lag.number(), 10u);
  EXPECT_EQ(DynamicTunnelIntfId::tunnelId(dyn), (1ull << 32) | 7);
  EXPECT_EQ(DynamicTunnelIntfId::tunnelId(dynMax), DynamicTunnelIntfId::maxTunnelValue);
  EXPECT_EQ(DynamicTunnelIntfId::tunnelId(lag), 0u);
  EXPECT_EQ(DynamicTunnelIntfId::tunnelId(IntfId()), 0u);
  // Kinds group: the largest port sorts before the smallest LAG, every LAG before any tunnel.
  EXPECT_LT(IntfId(), e1);
  EXPECT_LT(eMax, IntfId::portChannel(1));
  EXPECT_LT(IntfId::portChannel(0xffffffff), DynamicTunnelIntfId::intfId(0));
  EXPECT_EQ(e1.hash(), Kiv::HashMixer().add64(e1.value()).result());
  std::unordered_map<IntfId, int> byIntf{{e1, 1}, {lag, 2}, {dyn, 3}};
  EXPECT_EQ(byIntf.at(IntfId::parse("DynTunnel1.7")), 3);
  // Printing ignores the stream's number base but honours its width.
  std::ostringstream os;
  os << std::hex << std::setw(12) << lag;
  EXPECT_EQ(os.str(), "Port-Channel10");
  os.str("");
  os << std::setw(10) << e1;
  EXPECT_EQ(os.str(), " Ethernet1");

  for (auto bad :
       {"", "None", "Ethernet0", "Ethernet01", "Ethernet", "ethernet1", "Ethernet+1",
        "Ethernet4294967296", "Port-Channel-1", "DynTunnel1", "DynTunnel1.", "DynTunnel.7",
        "DynTunnel16777216.0", "DynTunnel1.4294967296", "DynTunnel1.7 ", " Ethernet1"}) {
    expectRejected<IntfId>(bad, "IntfId");
  }
  EXPECT_DEATH(IntfId::ethernet(0), "assertion \"n >= 1\" failed");
  EXPECT_DEATH(DynamicTunnelIntfId::intfId(1ull << 56),
               "assertion \"tunnelValue <= maxTunnelValue\" failed");
}

TEST(ValueTypesTest, TunnelIdRangeHashAndTheDynamicTunnelItNames) {
  static_assert(sizeof(TunnelId) == 8 && alignof(TunnelId) == 4 &&
                std::is_trivially_copyable_v<TunnelId>);
  TunnelId t = roundTrip<TunnelId>("Tunnel1.7");
  EXPECT_EQ(t.type(), 1u);
  EXPECT_EQ(t.index(), 7u);
  EXPECT_EQ(roundTrip<TunnelId>("Tunnel0.0"), TunnelId::invalid());
  EXPECT_FALSE(TunnelId().isValid());
  EXPECT_EQ(roundTrip<TunnelId>("Tunnel65535.4294967295").value(), TunnelId::maxValue);
  EXPECT_LT(TunnelId(0xffffffff), TunnelId(1ull << 32));  // unsigned: index overflows into type
  for (auto bad : {"Tunnel65536.0", "Tunnel1.4294967296", "Tunnel1", "tunnel1.7", "DynTunnel1.7"}) {
    expectRejected<TunnelId>(bad, "TunnelId");
  }
  const std::string rangeText =
      "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed";
  EXPECT_EQ(rangeError([] { TunnelId(TunnelId::maxValue + 1); }), rangeText);

  // One-at-a-time over the bytes of 1, lowest first (h += b; h += h << 10; h ^= h >> 6):
  //   byte 0 (1): 0x1 -> 0x401 -> 0x411
  //   byte 1 (0): 0x411 -> 0x104811 -> 0x100931
  //   byte 2 (0): 0x100931 -> 0x4034cd31 -> 0x41341e05
  //   byte 3 (0): 0x41341e05 -> 0x11ac3205 -> 0x11ea82cd
  //   byte 4 (0): 0x11ea82cd -> 0xbbf5b6cd -> 0xb91a6016
  //   byte 5 (0): 0xb91a6016 -> 0x229ab816 -> 0x2210d2f6
  //   byte 6 (0): 0x2210d2f6 -> 0x655caaf6 -> 0x64c9d85d
  //   byte 7 (0): 0x64c9d85d -> 0x8c2b4c5d -> 0x8e1be16c
  //   h += h << 3: 0xfefaeccc; h ^= h >> 11: 0xfee53391; h += h << 15: 0x98adb391.
  EXPECT_EQ(TunnelId(1).hash(), 0x98adb391u);
  EXPECT_EQ(std::hash<TunnelId>()(TunnelId(1)), 0x98adb391u);

  // The dynamic tunnel interface names its tunnel; a wider value only fails as a tunnel id.
  IntfId dyn = IntfId::parse("DynTunnel1.7");
  EXPECT_EQ(TunnelId(DynamicTunnelIntfId::tunnelId(dyn)), t);
  IntfId wide = IntfId::parse("DynTunnel65536.0");
  EXPECT_EQ(rangeError([&] { TunnelId(DynamicTunnelIntfId::tunnelId(wide)); }), rangeText);
}

TEST(ValueTypesTest, EthAddrAndMplsLabelEdges) {
  static_assert(sizeof(EthAddr) == 6 && std::is_trivially_copyable_v<EthAddr>);
  EXPECT_EQ(roundTrip<EthAddr>("00:00:00:00:00:00"), EthAddr());
  EXPECT_TRUE(roundTrip<EthAddr>("ff:ff:ff:ff:ff:ff").isBroadcast());
  EthAddr a = roundTrip<EthAddr>("00:1c:73:0a:b0:01");
  EXPECT_EQ(a, EthAddr(0x00, 0x1c, 0x73, 0x0a, 0xb0, 0x01));
  EXPECT_EQ(a, EthAddr(0x001c730ab001ull));
  EXPECT_EQ(a.value(), 0x001c730ab001ull);
  EXPECT_FALSE(a.isBroadcast());
  EXPECT_LT(EthAddr(0x00ffffffffffull), EthAddr(0x010000000000ull));
  EXPECT_EQ(rangeError([] { EthAddr(1ull << 48); }),
            "EthAddr::value > 281474976710655 not allowed");
  for (auto bad : {"00:1C:73:0a:b0:01", "00-1c-73-0a-b0-01", "0:1c:73:0a:b0:01", "00:1c:73:0a:b0",
                   "00:1c:73:0a:b0:01:", "00:1c:73:0a:b0:0g"}) {
    expectRejected<EthAddr>(bad, "EthAddr");
  }

  EXPECT_TRUE(!roundTrip<MplsLabel>("none"));
  EXPECT_TRUE(MplsLabel().isNoLabel());
  EXPECT_EQ(roundTrip<MplsLabel>("0").value(), 0u);
  EXPECT_EQ(roundTrip<MplsLabel>("1048575").value(), 0xfffffu);
  EXPECT_EQ(MplsLabel::parse("1048576"), MplsLabel());
  EXPECT_EQ(rangeError([] { MplsLabel(0x100001); }), "MplsLabel::value > 1048576 not allowed");
  for (auto bad : {"1048577", "-1", "01", "None", ""}) expectRejected<MplsLabel>(bad, "MplsLabel");
}

TEST(ValueTypesTest, VlansAndTheMacVlanKey) {
  EXPECT_EQ(roundTrip<VlanId>("0"), VlanId());
  EXPECT_FALSE(VlanId().isValid());
  EXPECT_TRUE(roundTrip<VlanId>("4094").isValid());
  EXPECT_FALSE(roundTrip<VlanId>("4095").isValid());
  EXPECT_EQ(rangeError([] { VlanId(4096); }), "VlanId::value > 4095 not allowed");
  for (auto bad : {"4096", "010", "x"}) expectRejected<VlanId>(bad, "VlanId");

  EXPECT_TRUE(roundTrip<VlanIdOrNone>("none").isNone());
  EXPECT_EQ(roundTrip<VlanIdOrNone>("4094").vlanId(), VlanId(4094));
  EXPECT_TRUE(VlanIdOrNone(VlanId()).isNone());
  EXPECT_EQ(VlanIdOrNone(VlanId(10)).value(), 10u);
  EXPECT_EQ(rangeError([] { VlanIdOrNone(4095); }), "VlanIdOrNone::value > 4094 not allowed");
  EXPECT_EQ(rangeError([] { VlanIdOrNone(VlanId(4095)); }),
            "VlanIdOrNone::value > 4094 not allowed");
  for (auto bad : {"0", "4095", ""}) expectRejected<VlanIdOrNone>(bad, "VlanIdOrNone");

  static_assert(sizeof(MacVlanPair) == 8 && std::is_trivially_copyable_v<MacVlanPair>);
  MacVlanPair k = roundTrip<MacVlanPair>("10/ff:ff:ff:ff:ff:ff");
  EXPECT_EQ(k, (MacVlanPair{VlanId(10), EthAddr::broadcast()}));
  EXPECT_EQ(k.hash(), Kiv::HashMixer().add(VlanId(10).hash()).add(k.macAddr.hash()).result());
  // The VLAN decides before the MAC.
  EXPECT_LT(k, (MacVlanPair{VlanId(11), EthAddr()}));
  EXPECT_LT((MacVlanPair{VlanId(10), EthAddr()}), k);
  for (auto bad :
       {"10", "10/", "4096/00:00:00:00:00:01", "10/00:00:00:00:00:0", "10 /ff:ff:ff:ff:ff:ff"}) {
    expectRejected<MacVlanPair>(bad, "MacVlanPair");
  }
}

TEST(ValueTypesTest, EnumNamesBothWays) {
  using Mpls::LfibHwProgrammingReturnCode;
  EXPECT_EQ(streamed(LfibHwProgrammingReturnCode::lfibHwProgrammingResourceFull),
            "lfibHwProgrammingResourceFull");
  EXPECT_EQ(Mpls::parseLfibHwProgrammingReturnCode("lfibHwProgrammingFailed"),
            LfibHwProgrammingReturnCode::lfibHwProgrammingFailed);
  EXPECT_EQ(rangeError([] { Mpls::parseLfibHwProgrammingReturnCode("failed"); }),
            "cannot parse 'failed' as LfibHwProgrammingReturnCode");

  EXPECT_EQ(streamed(L2Rib::destTypeMpls_), "destTypeMpls");
  EXPECT_EQ(L2Rib::toString(L2Rib::destTypeUnknown_), "destTypeUnknown");
  EXPECT_EQ(L2Rib::parseDestType("destTypeTunnel"), L2Rib::destTypeTunnel_);
  EXPECT_EQ(L2Rib::parseDestType("destTypeIntf_"), L2Rib::destTypeIntf_);
  EXPECT_EQ(streamed(static_cast<L2Rib::DestType>(9)), "DestType(9)");
  EXPECT_EQ(rangeError([] { L2Rib::parseDestType("destTypeMpls__"); }),
            "cannot parse 'destTypeMpls__' as DestType");

  EXPECT_EQ(streamed(L2Rib::floodSetTypeUnknownUnicast_), "floodSetTypeUnknownUnicast");
  EXPECT_EQ(L2Rib::parseFloodSetType("floodSetTypeMulticast"), L2Rib::floodSetTypeMulticast_);
  EXPECT_EQ(rangeError([] { L2Rib::parseFloodSetType("floodSetTypeAll"); }),
            "cannot parse 'floodSetTypeAll' as FloodSetType");
}

TEST(ValueTypesTest, DestFormsOrderAndId) {
  static_assert(sizeof(Dest) == 24 && std::is_trivially_copyable_v<Dest>);
  TunnelId t17 = TunnelId::parse("Tunnel1.7");
  Dest mpls = roundTrip<Dest>("mpls(Tunnel1.7, 1001)");
  Dest tunnel = roundTrip<Dest>("tunnel(Tunnel1.7)");
  Dest intf = roundTrip<Dest>("intf(Ethernet3)");
  EXPECT_EQ(roundTrip<Dest>("unknown"), Dest());
  roundTrip<Dest>("mpls(Tunnel65535.4294967295, 1048575)");
  roundTrip<Dest>("mpls(Tunnel0.0, none)");
  roundTrip<Dest>("intf(DynTunnel16777215.4294967295)");
  EXPECT_EQ(mpls, Dest::mpls(t17, MplsLabel(1001)));
  EXPECT_EQ(mpls.destType(), L2Rib::destTypeMpls_);
  EXPECT_EQ(mpls.label(), MplsLabel(1001));
  EXPECT_EQ(tunnel, Dest::tunnel(t17));
  EXPECT_EQ(intf.intfId(), IntfId::ethernet(3));
  EXPECT_NE(Dest::mpls(t17, MplsLabel()), tunnel);  // same fields but the type

  // Type first (intf < tunnel < mpls), then tunnel id, then label.
  EXPECT_LT(Dest(), intf);
  EXPECT_LT(Dest::intf(IntfId::parse("DynTunnel9.9")), Dest::tunnel(TunnelId(1)));
  EXPECT_LT(Dest::tunnel(TunnelId((9ull << 32) | 9)), Dest::mpls(TunnelId(1), MplsLabel(0)));
  EXPECT_LT(Dest::mpls(t17, MplsLabel(5000)), Dest::mpls(TunnelId(t17.value() + 1), MplsLabel(1)));
  EXPECT_LT(Dest::mpls(t17, MplsLabel(1)), mpls);

  EXPECT_EQ(mpls.hash(), Kiv::HashMixer()
                             .add(L2Rib::destTypeMpls_)
                             .add(t17.hash())
                             .add(MplsLabel(1001).hash())
                             .add(IntfId().hash())
                             .result());
  EXPECT_EQ(mpls.destId(), Dest::parse("mpls(Tunnel1.7, 1001)").destId());
  EXPECT_NE(mpls.destId(), tunnel.destId());
  L2Rib::DestId id = roundTrip<L2Rib::DestId>("DestId4294967295");
  EXPECT_EQ(id.value(), 0xffffffffu);
  std::unordered_map<Dest, L2Rib::DestId> ids{{mpls, mpls.destId()}, {intf, intf.destId()}};
  EXPECT_EQ(ids.at(Dest::mpls(t17, MplsLabel(1001))), mpls.destId());

  for (auto bad : {"mpls(Tunnel1.7,1001)", "mpls(Tunnel1.7)", "mpls(Tunnel1.7, 1001", "tunnel()",
                   "tunnel(Tunnel1.7, 1)", "intf(Ethernet0)", "intf Ethernet3", "Unknown"}) {
    expectRejected<Dest>(bad, "Dest");
  }
  expectRejected<L2Rib::DestId>("DestId", "DestId");
  expectRejected<L2Rib::DestId>("DestId4294967296", "DestId");
}

// The numbers the label-forwarding agents exchange are fixed; the names are ours.
TEST(ValueTypesTest, LabelRouteKeysViaKeysAndReturnCodes) {
  using Mpls::LfibHwProgrammingReturnCode;
  EXPECT_EQ(static_cast<int>(LfibHwProgrammingReturnCode::lfibHwProgrammingIntfConflict), 1);
  EXPECT_EQ(static_cast<int>(LfibHwProgrammingReturnCode::lfibHwProgrammingResourceFull), 2);
  EXPECT_EQ(static_cast<int>(LfibHwProgrammingReturnCode::lfibHwProgrammingFailed), 3);
  EXPECT_EQ(static_cast<int>(Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter), 6);

  Mpls::RouteKey r(MplsLabel(1001));
  EXPECT_EQ(streamed(r), "topLabel 1001");
  EXPECT_LT(r, Mpls::RouteKey(MplsLabel(1002)));
  EXPECT_EQ(r.hash(), Mpls::RouteKey(MplsLabel(1001)).hash());
  EXPECT_FALSE(Mpls::LfibViaKey());  // names no via
  Mpls::LfibViaKey via(Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter, 12);
  EXPECT_TRUE(via);
  EXPECT_EQ(streamed(via), "6/12");
  EXPECT_NE(via.hash(), Mpls::LfibViaKey(Mpls::LfibViaType::viaTypeMpls, 12).hash());
  EXPECT_EQ(streamed(Mpls::LfibEvpnEthernetSegmentFilterVia{IntfId::ethernet(3)}),
            "intf Ethernet3");
}

}  // namespace

TEST(RibForwardingTypes, ObjectTuplesFecIdsAndTheEcmpRange) {
  using L2Rib::ObjTuple;
  ObjTuple label = ObjTuple::label(L2Rib::LabelId(7));
  EXPECT_EQ(label.toString(), "label/7");
  EXPECT_EQ(label.labelId(), L2Rib::LabelId(7));
  // The same id in another table is another object.
  EXPECT_NE(label, ObjTuple::dest(L2Rib::DestId(7)));
  EXPECT_NE(label.hash(), ObjTuple::dest(L2Rib::DestId(7)).hash());
  EXPECT_EQ(ObjTuple().tableType(), L2Rib::tableTypeNone_);
  EXPECT_EQ(L2Rib::LoadBalanceId::parse("LoadBalanceId12"), L2Rib::LoadBalanceId(12));

  using namespace Shoal::Fib;
  FecId id = FecId::encode(FecIdAdjType::tunnel, 7);
  EXPECT_EQ(id.value(), 0x0800000000000007ull);
  EXPECT_EQ(id.number(), 7u);
  EXPECT_FALSE(FecId::invalid().isValid());
  EXPECT_NO_THROW(EcmpIndex(EcmpIndex::max));
  try {
    EcmpIndex(EcmpIndex::max + 1);
    ADD_FAILURE() << "no range error";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(), "EcmpIndex::value < EcmpIndex::min or > EcmpIndex::max not allowed");
  }
  // Vias keep index order whatever order they are added in; re-adding an index replaces it.
  Fec fec(id);
  Tunnel::TunnelTable::TunnelId t1((1ull << 32) | 1);
  fec.viaIs(Via(EcmpIndex(1), Quil::MplsLabel(20), t1));
  fec.viaIs(Via(EcmpIndex(0), Quil::MplsLabel(10), t1));
  fec.viaIs(Via(EcmpIndex(1), Quil::MplsLabel(21), t1));
  ASSERT_EQ(fec.vias(), 2u);
  EXPECT_EQ(fec.via()[1].mplsLabel(), Quil::MplsLabel(21));
  std::ostringstream os;
  os << fec;
  EXPECT_EQ(os.str(),
            "Fec(FecId(0x800000000000007) [via(0, 10, Tunnel1.1), via(1, 21, Tunnel1.1)])");
}
