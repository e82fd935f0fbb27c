#pragma once
// The MPLS flood-set family's part of a host agent, wired as on a switch: the layer-2 RIB
// publishes its full flood sets (destinations of every type); the flood-set filter machine derives
// the MPLS-only flood sets from them; the flood-set machines read those with the tunnel-id mapping
// that the tunnel-id family's machine writes, and program the chip's flood lists (FloodListChip),
// which reports each member back.
//
// Inputs: the RIB's flood sets. Outputs: the MPLS-only flood sets, the hardware flood-list
// configuration, the hardware identifiers of each (tunnel, label) pair, the FEC requests. Chip:
// FloodListChip, and the status it reports. Scenario actions: floodSetDest(Del), floodSetDel,
// vlanFloodSetDel, mplsFloodSetDest, floodListLatency; tables: mplsFloodSet, floodSetFecs,
// floodListConfig, floodLists, floodListStatus, hwInfoMapping (docs/scenario-format.md).

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "L2Rib/FloodSet.h"
#include "Mox/TimerTask.h"
#include "Mox/TimerWheel.h"
#include "Oba/ObaFecRecords.h"
#include "Oba/ObaFloodSetRecords.h"
#include "ObaEvpn/ObaEvpnFloodSetFecSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetFilterSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetSm.h"
#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/families/fec/FecChip.h"
#include "sim/families/floodSet/FloodListChip.h"

namespace Sim {

const Family& floodSetFamily();

class TunnelEsiAgent;

class FloodSetAgent : public FamilyAgent {
 public:
  static const Family& family() { return floodSetFamily(); }

  explicit FloodSetAgent(HostAgent& agent);
  ~FloodSetAgent() override;

  void start() override;
  void stop() override;
  // "floodSetFec" or "vlanFloodSet", each alone.
  void restart(const std::string& machine) override;
  std::vector<std::string> lines(std::string_view table) const override;
  void printChip(std::ostream& os) const override;
  void printOutputs(std::ostream& os) const override;
  void publish(Publisher& p) override;
  void draw(DotGraph& graph) const override;
  bool busy() const override;
  void count(Counters& c) const override;
  std::optional<CheckFailure> check(Counters* counters) const override;
  ExpectedTables finalExpectations() const override;
  void digest(Kiv::Digest& d) const override;

  std::vector<std::string> mplsFloodSetLines() const;
  std::vector<std::string> configLines() const;
  std::vector<std::string> listLines() const;
  std::vector<std::string> statusLines() const;
  std::vector<std::string> hwInfoLines() const;
  std::vector<std::string> fecRequestLines() const;
  // Whether the inputs call for the member exactly as it is configured.
  bool stillWanted(const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m) const;

  HostAgent& agent;
  // The tunnel-id family's part: its mapping table and its chip's hardware tunnel ids.
  TunnelEsiAgent& tunnels;
  const Kiv::Ptr<L2Rib::FloodSetOutput> l2RibFloodSet;
  const Kiv::Ptr<L2Rib::FloodSetOutput> mplsFloodSet;
  const Kiv::Ptr<Oba::HwInfoMapping> hwInfoMapping;
  const Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig> hwConfig;
  const Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus> hwStatus;
  const Kiv::Ptr<Oba::FecIdToHwFecIdRequest> fecRequest;
  const Kiv::Ptr<Oba::FecIdToHwFecIdResponse> fecResponse;
  const Kiv::Ptr<FloodListChip> lists;
  // The chip's FEC table, shared with the other FEC requesters; it answers the FEC machine's
  // requests as "floodSetFec".
  const Kiv::Ptr<FecChip> fecs;
  static constexpr const char* fecWriter = "floodSetFec";
  const Kiv::Ptr<Mox::TimerWheel> timerWheel;
  Kiv::Ptr<Oba::VlanFloodSetFilterSm> filterSm;
  Kiv::Ptr<Oba::EvpnFloodSetFecSm> fecSm;
  Kiv::Ptr<Oba::EvpnVlanFloodSetSm> vlanSm;
  // A restarted FEC machine waits for the chip to let go of the old one's pairs and FECs.
  bool fecStartPending = false;

 private:
  class Log;
  class Answers;
  class FecRestart;
  void startFecSm();
  void dropFecRequests();
  void continueFecRestart();
  void startVlanSm();
  std::unique_ptr<Log> log_;
  std::unique_ptr<Answers> answers_;
  Kiv::Ptr<Mox::TimerTask> fecRestartTask_;
  std::unique_ptr<FecRestart> fecRestart_;
};

// "10/ff:ff:ff:ff:ff:ff Tunnel1.1 label 1001 -> hwId 4097 l2IntfId Vlan4097"
std::string hwInfoLine(const Oba::MplsFloodSetVia& via, const Oba::MplsDestHwInfo& info);

// The family's part of the picture (--dot): FloodSetDraw.cpp.
void drawFloodSets(const FloodSetAgent& family, DotGraph& graph);

}  // namespace Sim
