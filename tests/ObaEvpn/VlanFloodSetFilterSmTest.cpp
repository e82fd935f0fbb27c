// The flood-set filter: the RIB's full flood sets in, the flood sets of one destination type out.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Kiv/Trace.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetFilterSm.h"

namespace {

using Bridging::VlanId;
using L2Rib::Dest;

const Tunnel::TunnelTable::TunnelId tunnel1((1ull << 32) | 1);
const Dest t1 = Dest::tunnel(tunnel1);
const Dest t2 = Dest::tunnel(Tunnel::TunnelTable::TunnelId((1ull << 32) | 2));
const Dest m1 = Dest::mpls(tunnel1, Quil::MplsLabel(1001));
const Dest e3 = Dest::intf(Quil::IntfId::ethernet(3));
const Quil::EthAddr macA(0xa), macB(0xb);

// "source <n>", then sorted "; <vlan> <last MAC byte> <type> <dest>[=false]..." per flood set,
// or "; <vlan> -" for a VLAN entry left without flood sets.
std::string dump(const L2Rib::FloodSetOutput& out) {
  std::vector<std::string> lines;
  for (auto [vlan, vfs] : out.vlanFloodSetWalk()) {
    if (!vfs->floodSets()) lines.push_back(vlan.toString() + " -");
    for (auto [mac, fs] : vfs->floodSetWalk()) {
      std::vector<std::string> dests;
      for (auto [d, value] : fs->destSetWalk())
        dests.push_back(d.toString() + (value ? "" : "=false"));
      std::sort(dests.begin(), dests.end());
      std::string line = vlan.toString() + " " + mac.toString().substr(15) + " " +
                         L2Rib::toString(fs->floodSetType()).substr(12);
      for (const auto& d : dests) line += " " + d;
      lines.push_back(line);
    }
  }
  std::sort(lines.begin(), lines.end());
  std::string s = "source " + std::to_string(out.source());
  for (const auto& l : lines) s += "; " + l;
  return s;
}

struct World {
  Kiv::Ptr<L2Rib::FloodSetOutput> in = new L2Rib::FloodSetOutput("l2Rib");
  Kiv::Ptr<L2Rib::FloodSetOutput> out = new L2Rib::FloodSetOutput("tunnelFloodSet");
  Kiv::Ptr<Oba::VlanFloodSetFilterSm> sm;

  Kiv::Ptr<L2Rib::FloodSet> fs(int vlan, Quil::EthAddr mac) {
    return in->vlanFloodSetIs(VlanId(vlan))->floodSetIs(mac);
  }
  void start() { sm = Oba::vlanFloodSetFilterSmFactory(L2Rib::destTypeTunnel_, in, out); }
};

TEST(VlanFloodSetFilterSm, OnlyMatchingDestinationsMakeOutputAndTheLastOneTakesItAway) {
  World w;
  w.start();
  w.fs(10, macA)->destSetIs(m1, true);
  w.fs(10, macA)->destSetIs(e3, true);
  EXPECT_EQ(dump(*w.out), "source 0");  // not even an empty flood set

  w.fs(10, macA)->destSetIs(t1, true);
  w.fs(10, macB)->destSetIs(t2, true);
  w.fs(10, macA)->destSetDel(m1);
  EXPECT_EQ(dump(*w.out),
            "source 0; 10 0a Unknown tunnel(Tunnel1.1); 10 0b Unknown tunnel(Tunnel1.2)");
  w.fs(10, macA)->destSetDel(t1);
  EXPECT_EQ(dump(*w.out), "source 0; 10 0b Unknown tunnel(Tunnel1.2)");
  w.fs(10, macB)->destSetDel(t2);
  EXPECT_EQ(dump(*w.out), "source 0");  // the VLAN entry went with its last flood set
}

TEST(VlanFloodSetFilterSm, RemovingAnInputMacOrVlanRemovesTheOutputOneWhole) {
  World w;
  w.start();
  w.fs(10, macA)->destSetIs(t1, true);
  w.fs(10, macA)->destSetIs(t2, false);  // held as false: only the MAC's removal takes it
  w.fs(10, macB)->destSetIs(t1, true);
  w.fs(20, macA)->destSetIs(t1, true);
  w.in->vlanFloodSet(VlanId(10))->floodSetDel(macA);
  EXPECT_EQ(dump(*w.out),
            "source 0; 10 0b Unknown tunnel(Tunnel1.1); 20 0a Unknown tunnel(Tunnel1.1)");
  w.in->vlanFloodSetDel(VlanId(20));
  w.in->vlanFloodSet(VlanId(10))->floodSetDel(macB);
  EXPECT_EQ(dump(*w.out), "source 0");

  // A VLAN that comes back is a new entity; its reactor follows it.
  w.fs(20, macA)->destSetIs(t2, true);
  EXPECT_EQ(dump(*w.out), "source 0; 20 0a Unknown tunnel(Tunnel1.2)");
}

TEST(VlanFloodSetFilterSm, PresenceDecidesAdditionAndTheStoredValueDeletion) {
  World w;
  w.start();
  auto fs = w.fs(10, macA);
  fs->destSetIs(t1, false);
  fs->destSetIs(t2, true);
  fs->destSetDel(t1);
  fs->destSetDel(t2);
  EXPECT_EQ(dump(*w.out), "source 0; 10 0a Unknown tunnel(Tunnel1.1)=false");

  // The value travels with each add; once true, the entry can go, and everything with it.
  fs->destSetIs(t1, true);
  std::vector<std::string> lines;
  Kiv::traceSinkIs([&](const Kiv::TraceLine& l) { lines.emplace_back(l.text); });
  Kiv::traceConfigIs("ObaEvpnVlanFloodSetFilterSm/8");
  fs->destSetDel(t1);
  Kiv::traceConfigIs("");
  Kiv::traceSinkIs(nullptr);
  const std::string at = " vlan: 10 mac: 00:00:00:00:00:0a dest: " + t1.destId().toString();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "  handleDestSet" + at, "   processDest" + at, "    deleteDest" + at,
                       "     deleting dest " + t1.destId().toString(),
                       "     deleting floodSet with vlan 10 and mac 00:00:00:00:00:0a",
                       "     deleting vlanFloodSet with vlan 10"}));
  EXPECT_EQ(dump(*w.out), "source 0");
}

TEST(VlanFloodSetFilterSm, TypeReachesTheOutputAtTheNextAddAndSourceFollowsTheInput) {
  World w;
  w.in->sourceIs(3);
  w.start();
  EXPECT_EQ(w.out->source(), 3u);
  auto fs = w.fs(10, macA);
  fs->floodSetTypeIs(L2Rib::floodSetTypeBroadcast_);
  fs->destSetIs(t1, true);
  fs->floodSetTypeIs(L2Rib::floodSetTypeMulticast_);
  w.in->sourceIs(4);
  EXPECT_EQ(dump(*w.out), "source 4; 10 0a Broadcast tunnel(Tunnel1.1)");
  fs->destSetIs(t2, true);
  EXPECT_EQ(dump(*w.out), "source 4; 10 0a Multicast tunnel(Tunnel1.1) tunnel(Tunnel1.2)");
}

TEST(VlanFloodSetFilterSm, MadeOverAFullInputItReproducesItFilteredAndKeepsFollowing) {
  World w;
  w.in->sourceIs(7);
  for (int vlan : {10, 20}) {
    for (Dest d : {t1, m1, e3}) w.fs(vlan, macA)->destSetIs(d, true);
    w.fs(vlan, macA)->floodSetTypeIs(L2Rib::floodSetTypeAny_);
  }
  w.fs(30, macA)->destSetIs(m1, true);  // nothing of the type: no output at all
  w.out->vlanFloodSetIs(VlanId(40))->floodSetIs(macA)->destSetIs(t2, true);  // not the input's
  w.start();
  EXPECT_EQ(dump(*w.out),
            "source 7; 10 0a Any tunnel(Tunnel1.1); 20 0a Any tunnel(Tunnel1.1); "
            "40 0a Unknown tunnel(Tunnel1.2)");

  // Flood sets that were there before the machine are watched like new ones.
  w.fs(20, macA)->destSetIs(t2, true);
  w.fs(20, macA)->destSetDel(t1);
  w.in->vlanFloodSet(VlanId(10))->floodSetDel(macA);
  EXPECT_EQ(dump(*w.out), "source 7; 20 0a Any tunnel(Tunnel1.2); 40 0a Unknown tunnel(Tunnel1.2)");

  // Destroying the machine leaves the output as it is.
  w.sm = nullptr;
  w.in->vlanFloodSetDel(VlanId(20));
  EXPECT_EQ(w.in->notifieeCount(), 0u);
  EXPECT_TRUE(w.out->vlanFloodSet(VlanId(20)));
}

TEST(VlanFloodSetFilterSm, NullEntitiesAndUninitializedWorkAreRefused) {
  World w;
  w.fs(10, macA);
  w.start();
  auto nullError = [](auto mutate) {
    try {
      mutate();
    } catch (const Kiv::RangeException& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  EXPECT_EQ(nullError([&] { w.sm->vlanFloodSetIs(nullptr); }),
            "null _vlanFloodSet parameter to mutator for Oba::VlanFloodSetFilterSm::vlanFloodSet "
            "not allowed\"");
  EXPECT_EQ(nullError([&] { w.sm->vlanFloodSet(VlanId(10))->floodSetIs(nullptr); }),
            "null _floodSet parameter to mutator for "
            "Oba::VlanFloodSetFilterSm::KivVlanFloodSet::floodSet not allowed\"");
  EXPECT_EQ(
      nullError([&] { Oba::vlanFloodSetFilterSmFactory(L2Rib::destTypeTunnel_, nullptr, w.out); }),
      "null _inFloodSetOutput parameter to mutator for "
      "Oba::VlanFloodSetFilterSm::inFloodSetOutput not allowed\"");

  // Before initialization the flood-set handlers do nothing; the source handler may not run.
  w.sm->initializedIs(false);
  w.fs(10, macA)->destSetIs(t1, true);
  w.fs(20, macA)->destSetIs(t1, true);
  EXPECT_EQ(dump(*w.out), "source 0");
  EXPECT_DEATH(w.in->sourceIs(1), "assertion \"initialized\\(\\)\" failed");
}

}  // namespace
