#pragma once
// The dot1q and decapsulation family's part of a host agent: the dot1q flooding machine, which
// programs the 802.1Q tag of each EVPN VLAN service on the member ports of the VLAN's interfaces,
// and the ESI filtering on decapsulation machine, which programs an ESI port map for each label
// route with an Ethernet-segment filter via.
//
// Both program per interface over the world of the tunnel-id and ESI family: the EVPN status
// (whose vlanToDot1q this family's actions write) and the LAG membership are that family's, read
// through agent.part<TunnelEsiAgent>(). This family owns the VLAN status directory, the EVPN
// MPLS configuration, and the label-forwarding status, tracking backlog and hardware status; it
// plays the agent that publishes the routes, putting every route a change touches into the
// backlog. Chip: Dot1qDecapChip. Actions, tables: docs/scenario-format.md.

#include <memory>
#include <string>
#include <vector>

#include "Bridging/VlanStatus.h"
#include "Evpn/EvpnStatus.h"
#include "Mpls/Lfib.h"
#include "Oba/ObaCommon.h"
#include "ObaEvpn/ObaEvpnEsiFilteringDecapSm.h"
#include "ObaEvpn/ObaEvpnFloodingDot1qSm.h"
#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/families/dot1qDecap/Dot1qDecapChip.h"

namespace Sim {

const Family& dot1qDecapFamily();

class Dot1qDecapAgent : public FamilyAgent {
 public:
  static const Family& family() { return dot1qDecapFamily(); }

  explicit Dot1qDecapAgent(HostAgent& agent);
  ~Dot1qDecapAgent() override;

  void start() override;
  void stop() override;
  // "floodingDot1q" or "esiFilteringDecap", each with the chip reconciled for the new incarnation.
  void restart(const std::string& machine) override;
  // The machine made again over the same inputs, the chip left as the old one left it.
  void restartAlone(const std::string& machine);
  std::vector<std::string> lines(std::string_view table) const override;
  void printChip(std::ostream& os) const override;
  void printOutputs(std::ostream& os) const override;
  void publish(Publisher& p) override;
  void draw(DotGraph& graph) const override;
  // The dot1q drain, its retries while the chip has room, the backlog drain, and the retries of
  // parked routes that could now go through.
  bool busy() const override;
  void count(Counters& c) const override;
  std::optional<CheckFailure> check(Counters* counters) const override;
  ExpectedTables finalExpectations() const override;
  void digest(Kiv::Digest& d) const override;

  // The label-forwarding publisher: each change puts the routes it touches into the backlog.
  void routeIs(Quil::MplsLabel label, Mpls::LfibViaSetKey viaSet);
  void routeDel(Quil::MplsLabel label);
  void viaSetIs(Mpls::LfibViaSetKey set, Mpls::LfibViaKey via);
  void viaSetDel(Mpls::LfibViaSetKey set);
  void filterViaIs(std::uint32_t index, Quil::IntfId intf);
  void filterViaDel(std::uint32_t index);
  void backlogIs(Quil::MplsLabel label);

  std::vector<std::string> dot1qLines() const;
  std::vector<std::string> portMapLines() const;
  std::vector<std::string> unprogrammedRouteLines() const;

  HostAgent& agent;
  const Kiv::Ptr<Dot1qDecapChip> chip;
  const Kiv::Ptr<Evpn::EvpnStatus> evpnStatus;  // the tunnel-id and ESI family's
  const Kiv::Ptr<Oba::ObaCommonSmData> acsd;    // the tunnel-id and ESI family's
  const Kiv::Ptr<Evpn::MplsConfig> mplsConfig;
  const Kiv::Ptr<Bridging::VlanStatusDir> vlanStatusDir;
  const Kiv::Ptr<Mpls::LfibStatus> lfibStatus;
  const Kiv::Ptr<Mpls::LfibTrackingStatus> lfibTrackingStatus;
  const Kiv::Ptr<Mpls::LfibHwStatus> lfibHwStatus;
  Kiv::Ptr<Oba::EvpnFloodingDot1qSm> floodingDot1qSm;
  Kiv::Ptr<Oba::EsiFilteringDecapSm> decapSm;

 private:
  class HwStatusLog;
  void startFloodingDot1qSm();
  void startDecapSm();
  void backlogRoutes(const std::function<bool(const Mpls::LfibRoute&)>& touched);

  std::unique_ptr<HwStatusLog> hwStatusLog_;
};

// "Ethernet1 vlan 10 dot1q 100", "label 1001 intf Ethernet1", as scenario files write them.
std::string dot1qLine(const Dot1qDecapChip::PortVlan& key, Bridging::VlanIdOrNone dot1q);
std::string portMapLine(Quil::MplsLabel label, Quil::IntfId intf);

// The family's part of the picture of the forwarding state
// (sim/families/dot1qDecap/Dot1qDecapDraw.cpp).
void drawDot1qDecap(const Dot1qDecapAgent& family, DotGraph& graph);

}  // namespace Sim
