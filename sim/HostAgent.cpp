#include "sim/HostAgent.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace Sim {

// Every write to the mapping table, as readers of the table see it.
class HostAgent::MappingLog : public Oba::TunnelIdToHwTunnelIdMapping::NotifieeConst {
 public:
  explicit MappingLog(HostAgent* agent) : agent_(agent) { notifierIs(agent->mapping); }
  void onTunnelIdToHwTunnelId(const Tunnel::TunnelTable::TunnelId& tunnel) override {
    if (!agent_->log_->enabled()) return;
    auto row = notifier()->tunnelIdToHwTunnelId(tunnel);
    std::ostringstream os;
    if (row.found) {
      os << row.row.compactString();
    } else {
      os << tunnel << " deleted";
    }
    agent_->note("mapping", os.str());
  }

 private:
  HostAgent* agent_;
};

HostAgent::HostAgent(SimLog* log)
    : clock(new Kiv::VirtualClock),
      scheduler(Mox::TaskScheduler::TaskSchedulerIs(clock)),
      chip(new SoftwareChip(clock)),
      evpnStatus(new Evpn::EvpnStatus),
      acsd(new Oba::ObaCommonSmData),
      mapping(new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId")),
      log_(log) {
  // Each chip call is logged with who made it: the machine that holds the helper it came
  // through, or the agent itself.
  chip->callListenerIs([this](const SoftwareChip::Call& c) {
    calls_.push_back(c.text);
    std::string_view who = "agent>chip";
    if (c.caller && std::string_view(c.caller) == "hwTunnelIdHelper") who = "hwTunnelId>chip";
    if (c.caller && std::string_view(c.caller) == "floodingHelper") who = "floodingEsi>chip";
    note(who, c.text);
  });
  mappingLog_ = std::make_unique<MappingLog>(this);
  log_->clockIs(clock.ptr());
}

HostAgent::~HostAgent() {
  // The machines go first: they hold the inputs and the chip's helpers.
  floodingEsiSm = nullptr;
  hwTunnelIdSm = nullptr;
  chip->callListenerIs(nullptr);
  log_->clockIs(nullptr);
}

void HostAgent::startHwTunnelIdSm() {
  hwTunnelIdSm =
      Oba::evpnHwTunnelIdSmFactory(chip->hwTunnelIdHelper(), scheduler, acsd, evpnStatus, mapping);
}

void HostAgent::startFloodingEsiSm() {
  floodingEsiSm =
      Oba::evpnFloodingEsiSmFactory(chip->floodingHelper(), scheduler, acsd, evpnStatus, mapping);
}

// A new incarnation of the flooding machine rewrites the ESI data its inputs call for, over what
// the chip still holds from the old one; what it does not hold as programmed after its first walk
// would stay in the chip for good, since it only ever deletes what it programmed itself: entries of
// a tunnel that has no hardware id now (the old one was given back), of a pair whose remote label
// turned to another encapsulation, of ports the chip refused this time. The agent deletes them.
void HostAgent::reconcileEsiData() {
  std::set<SoftwareChip::PortVlan> held;
  for (auto [key, status] : floodingEsiSm->esiStatusWalk()) {
    for (auto [port, member] : status->programmedWalk()) held.emplace(port, key.vlanId());
  }
  std::vector<SoftwareChip::PortVlan> left;
  for (const auto& [key, entry] : chip->esiData()) {
    if (!held.contains(key)) left.push_back(key);
  }
  for (const auto& [port, vlan] : left) chip->deleteEsiData(port, vlan);
}

void HostAgent::start() {
  // The writer of the mapping first, so the flooding machine starts over published ids.
  startHwTunnelIdSm();
  startFloodingEsiSm();
}

void HostAgent::restart(const std::string& machine) {
  note("agent", "restart " + machine);
  if (machine == "floodingEsi") {
    floodingEsiSm = nullptr;
    startFloodingEsiSm();
    reconcileEsiData();
    return;
  }
  if (machine == "agent") {
    // A restarting agent reinitialises its chip: nothing programmed survives it.
    floodingEsiSm = nullptr;
    hwTunnelIdSm = nullptr;
    chip->reset();
    start();
    return;
  }
  if (machine == "hwTunnelId") {
    // The new incarnation clears the mapping table and asks for ids afresh: the ids the old one
    // published go back to the chip first, or they would leak. The flooding machine reads that
    // table and forgets a tunnel's users when its row goes, so a row that comes back would never
    // reprogram them: the reader restarts with its writer, after it.
    floodingEsiSm = nullptr;
    hwTunnelIdSm = nullptr;
    for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
      chip->releaseHwTunnelId(row.hwTunnelId());
    }
    start();
    reconcileEsiData();
  }
}

void HostAgent::apply(const Action& a) {
  using K = Action::Kind;
  switch (a.kind) {
    case K::designatedForwarder:
      evpnStatus->segmentStatusIs(a.segment)->designatedForwarderTepIs(a.vlan, a.tep);
      break;
    case K::designatedForwarderDel:
      if (auto ess = evpnStatus->segmentStatus(a.segment)) ess->designatedForwarderTepDel(a.vlan);
      break;
    case K::remoteEsiLabel:
      evpnStatus->segmentStatusIs(a.segment)->remoteEsiLabelIs(a.tep, a.label);
      break;
    case K::remoteEsiLabelDel:
      if (auto ess = evpnStatus->segmentStatus(a.segment)) ess->remoteEsiLabelDel(a.tep);
      break;
    case K::localEsiLabel:
      evpnStatus->localEsiLabelIs(a.segment, a.label);
      break;
    case K::localEsiLabelDel:
      evpnStatus->localEsiLabelDel(a.segment);
      break;
    case K::segment:
      evpnStatus->segmentStatusIs(a.segment);
      break;
    case K::segmentDel:
      evpnStatus->segmentStatusDel(a.segment);
      break;
    case K::lag:
      acsd->lagToPortIs(a.segment, new Oba::ObaLagPortList(a.members));
      break;
    case K::lagDel:
      acsd->lagToPortDel(a.segment);
      break;
    case K::chipPool:
      chip->hwTunnelIdPoolIs(a.count);
      break;
    case K::chipRefuse:
      chip->refusalIs(a.refusal);
      break;
    case K::chipRefuseNone:
      chip->refusalDelAll();
      break;
    case K::restart:
      restart(a.machine);
      break;
  }
}

std::vector<std::string> HostAgent::takeCalls() {
  std::vector<std::string> out;
  out.swap(calls_);
  return out;
}

std::vector<std::string> HostAgent::esiDataLines() const {
  std::vector<std::string> out;
  for (const auto& [key, e] : chip->esiData()) {
    std::ostringstream os;
    os << key.first << " vlan " << key.second << " tunnel " << e.tunnel << " hw " << e.hw
       << " label " << e.label << " local " << e.localLabel;
    out.push_back(os.str());
  }
  return out;
}

std::vector<std::string> HostAgent::mappingLines() const {
  std::vector<std::string> out;
  for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
    out.push_back(row.compactString());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> HostAgent::hwTunnelIdLines() const {
  std::vector<std::string> out;
  for (std::uint32_t id : chip->hwTunnelIdsInUse()) out.push_back(std::to_string(id));
  return out;
}

std::vector<std::string> HostAgent::violationLines() const {
  std::vector<std::string> out;
  for (const auto& v : chip->violations()) out.push_back(v.text);
  return out;
}

}  // namespace Sim
