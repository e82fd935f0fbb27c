// Both EVPN machines over one status, when a change carries an endpoint whose tunnel id is out of
// range: each machine raises the range error where its algorithm converts the endpoint, the error
// reaches the control plane's mutator call, and the framework stays consistent, so every machine
// is told and both keep working after it.
#include <gtest/gtest.h>

#include "EvpnWorld.h"

#include "Kiv/Types.h"
#include "Oba/ObaHelperStubs.h"
#include "ObaEvpn/ObaEvpnFloodingEsiSm.h"
#include "ObaEvpn/ObaEvpnHwTunnelIdSm.h"

namespace {

using Bridging::VlanId;
using Quil::IntfId;

IntfId tep(std::uint64_t tunnel) { return Quil::DynamicTunnelIntfId::intfId(tunnel); }

TEST(ThrowingInput, AnOutOfRangeEndpointReachesTheCallerAndLeavesBothMachinesWorking) {
  EvpnWorld w;
  auto hwHelper = ObaHelper::evpnHwTunnelIdSmHelperStubFactory("hw");
  auto flooding = ObaHelper::evpnFloodingSmHelperStubFactory("flooding");
  const IntfId e1 = IntfId::ethernet(1);
  w.evpn->localEsiLabelIs(e1, Evpn::EncapTypeLabel::mpls(Quil::MplsLabel(2001)));
  auto ess = w.evpn->segmentStatusIs(e1);
  ess->remoteEsiLabelIs(tep((1ull << 32) | 1), Evpn::EncapTypeLabel::mpls(Quil::MplsLabel(1001)));
  auto hwSm = Oba::evpnHwTunnelIdSmFactory(hwHelper, w.scheduler, w.acsd, w.evpn, w.mapping);
  auto esiSm = Oba::evpnFloodingEsiSmFactory(flooding, w.scheduler, w.acsd, w.evpn, w.mapping);

  // Tunnel type 65536 is beyond what a tunnel id holds.
  const IntfId bad = tep((65536ull << 32) | 1);
  EXPECT_THROW(ess->designatedForwarderTepIs(VlanId(10), bad), Kiv::RangeException);
  // The tunnel-id machine converts first and holds nothing; the flooding machine records the pair
  // as a candidate before it converts.
  EXPECT_FALSE(hwSm->intfVlanTunnelHas(Oba::IntfVlanKey(e1, VlanId(10))));
  EXPECT_EQ(hwHelper->getHwTunnelIdCount(), 0u);
  ASSERT_TRUE(esiSm->intfVlanSet(e1));
  EXPECT_TRUE(esiSm->intfVlanSet(e1)->vlanIdHas(VlanId(10)));
  EXPECT_FALSE(esiSm->intfVlanTunnelHas(Oba::IntfVlanKey(e1, VlanId(10))));

  // A valid endpoint afterwards reaches both: an id, its row, the ESI data.
  ess->designatedForwarderTepIs(VlanId(10), tep((1ull << 32) | 1));
  EXPECT_EQ(hwHelper->getHwTunnelIdCount(), 1u);
  EXPECT_EQ(w.mapping->tunnelIdToHwTunnelIds(), 1u);
  EXPECT_EQ(flooding->createEsiDataCount(), 1u);
  // And its removal undoes both, which needs the notifiee lists delivering normally again.
  ess->designatedForwarderTepDel(VlanId(10));
  EXPECT_EQ(w.mapping->tunnelIdToHwTunnelIds(), 0u);
  EXPECT_EQ(flooding->deleteEsiDataCount(), 1u);
  EXPECT_EQ(hwHelper->releaseHwTunnelIdCount(), 1u);
}

}  // namespace
