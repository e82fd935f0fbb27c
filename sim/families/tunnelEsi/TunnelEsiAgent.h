#pragma once
// The tunnel-id and ESI data family's part of a host agent: the hardware tunnel-id machine, which
// gives each designated forwarder's tunnel a hardware id and publishes the mapping table, and the
// ESI flooding machine, which reads that table and programs split-horizon ESI data per physical
// port and VLAN.
//
// Inputs: the EVPN status (segments, designated forwarders, ESI labels) and the agent's common
// data (LAG membership). Output: the tunnel-id mapping table. Chip: TunnelEsiChip. Scenario
// actions: designatedForwarder(Del), remoteEsiLabel(Del), localEsiLabel(Del), segment(Del),
// lag(Del), chipPool; tables: esiData, mapping, hwTunnelIds (docs/scenario-format.md).

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Evpn/EvpnStatus.h"
#include "Oba/ObaCommon.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnFloodingEsiSm.h"
#include "ObaEvpn/ObaEvpnHwTunnelIdSm.h"
#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/families/tunnelEsi/TunnelEsiChip.h"

namespace Sim {

const Family& tunnelEsiFamily();

// The family's part of a host agent, as tests and checks see it.
class TunnelEsiAgent : public FamilyAgent {
 public:
  static const Family& family() { return tunnelEsiFamily(); }

  explicit TunnelEsiAgent(HostAgent& agent);
  ~TunnelEsiAgent() override;

  void start() override;
  void stop() override;
  // "floodingEsi" alone; "hwTunnelId" with its reader after it.
  void restart(const std::string& machine) override;
  std::vector<std::string> lines(std::string_view table) const override;
  void printChip(std::ostream& os) const override;
  void printOutputs(std::ostream& os) const override;
  void publish(Publisher& p) override;
  void draw(DotGraph& graph) const override;
  // The flooding machine's retries, and the tunnel-id machine's while the chip has an id to give.
  bool busy() const override;
  void count(Counters& c) const override;
  void ledger(std::vector<std::string>& out) const override;
  std::optional<CheckFailure> check(Counters* counters) const override;
  ExpectedTables finalExpectations() const override;
  void digest(Kiv::Digest& d) const override;

  std::vector<std::string> esiDataLines() const;
  std::vector<std::string> mappingLines() const;
  std::vector<std::string> hwTunnelIdLines() const;

  HostAgent& agent;
  const Kiv::Ptr<TunnelEsiChip> chip;
  const Kiv::Ptr<Evpn::EvpnStatus> evpnStatus;
  const Kiv::Ptr<Oba::ObaCommonSmData> acsd;
  const Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> mapping;
  Kiv::Ptr<Oba::EvpnHwTunnelIdSm> hwTunnelIdSm;
  Kiv::Ptr<Oba::EvpnFloodingEsiSm> floodingEsiSm;

 private:
  class MappingLog;
  void startHwTunnelIdSm();
  void startFloodingEsiSm();
  void reconcileEsiData();

  std::unique_ptr<MappingLog> mappingLog_;
};

// "Ethernet1 vlan 10 tunnel Tunnel1.1 hw 1 label 1001 local 2001", as scenario files write it.
std::string esiLine(const TunnelEsiChip::PortVlan& key, const TunnelEsiChip::EsiEntry& e);

// The family's part of the picture of the forwarding state
// (sim/families/tunnelEsi/TunnelEsiDraw.cpp).
void drawTunnelEsi(const TunnelEsiAgent& family, DotGraph& graph);

}  // namespace Sim
