#pragma once
// The host agent of the simulator: what a forwarding agent on a switch does around the library.
// It owns the inputs (EVPN status, the agent's common data), the output table the hardware
// tunnel-id machine writes and the flooding machine reads, the software chip, one scheduler on a
// virtual clock, and the state machines, wired as on a switch. It can restart one machine (destroy
// it and build it again over the same inputs) or the whole agent; after a restart of the flooding
// machine it deletes the ESI data that the new incarnation does not hold as programmed.

#include <string>
#include <vector>

#include "Evpn/EvpnStatus.h"
#include "Kiv/Clock.h"
#include "Mox/TaskScheduler.h"
#include "Oba/ObaCommon.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnFloodingEsiSm.h"
#include "ObaEvpn/ObaEvpnHwTunnelIdSm.h"
#include "sim/Scenario.h"
#include "sim/SimLog.h"
#include "sim/SoftwareChip.h"

namespace Sim {

class HostAgent {
 public:
  explicit HostAgent(SimLog* log);
  ~HostAgent();
  HostAgent(const HostAgent&) = delete;
  HostAgent& operator=(const HostAgent&) = delete;

  // Builds the machines over the inputs as they are now.
  void start();
  // "hwTunnelId", "floodingEsi" or "agent".
  void restart(const std::string& machine);
  // Changes an input or the chip, as a scenario step says.
  void apply(const Action& a);

  double now() const { return clock->now(); }
  // The chip calls made since the last take, as their texts.
  std::vector<std::string> takeCalls();
  // The chip's and the output table's contents, one line per entry, sorted.
  std::vector<std::string> esiDataLines() const;
  std::vector<std::string> mappingLines() const;
  std::vector<std::string> hwTunnelIdLines() const;
  std::vector<std::string> violationLines() const;

  const Kiv::Ptr<Kiv::VirtualClock> clock;
  const Kiv::Ptr<Mox::TaskScheduler> scheduler;
  const Kiv::Ptr<SoftwareChip> chip;
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
  void note(std::string_view source, std::string_view text) { log_->add(now(), source, text); }

  SimLog* log_;
  std::vector<std::string> calls_;
  std::unique_ptr<MappingLog> mappingLog_;
};

}  // namespace Sim
