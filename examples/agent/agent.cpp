// oba-example-agent: the smallest forwarding agent that embeds libObaEvpn, built against the
// installed package only. It owns what an agent owns (README.md beside it): one scheduler on a
// virtual clock, the machines' inputs and outputs, a chip layer of its own (a helper per
// interface, each printing what it is told), and every machine of the library, made through its
// factory. It plays a few control-plane events, restarts the hardware tunnel-id machine the way an
// agent must, and tears everything down.
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "Bridging/VlanStatus.h"
#include "Evpn/EvpnStatus.h"
#include "Kiv/Clock.h"
#include "L2Rib/FloodSet.h"
#include "L2Rib/RibOutputs.h"
#include "Mox/TaskScheduler.h"
#include "Mox/TimerWheel.h"
#include "Mpls/Lfib.h"
#include "Oba/ObaCommon.h"
#include "Oba/ObaFecRecords.h"
#include "Oba/ObaFloodSetRecords.h"
#include "Oba/ObaHelpers.h"
#include "Oba/TunnelIdToHwTunnelIdMapping.h"
#include "ObaEvpn/ObaEvpnEsiFilteringDecapSm.h"
#include "ObaEvpn/ObaEvpnFloodSetFecSm.h"
#include "ObaEvpn/ObaEvpnFloodingDot1qSm.h"
#include "ObaEvpn/ObaEvpnFloodingEsiSm.h"
#include "ObaEvpn/ObaEvpnHwTunnelIdSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetFilterSm.h"
#include "ObaEvpn/ObaEvpnVlanFloodSetSm.h"
#include "ObaEvpn/ObaMacAddrFecRequestSm.h"

namespace {

using Bridging::VlanId;
using Quil::IntfId;
using Quil::MplsLabel;
using TunnelId = Tunnel::TunnelTable::TunnelId;

// Every line starts with the virtual time.
std::ostream& say(const Kiv::Clock& clock) { return std::cout << "[" << clock.now() << "s] "; }

// ---- the chip layer: one helper per interface, each operation overridden ----------------------

class ChipTunnelIds : public ObaHelper::EvpnHwTunnelIdSmHelper {
 public:
  explicit ChipTunnelIds(const Kiv::Clock& clock)
      : EvpnHwTunnelIdSmHelper("chipTunnelIds"), clock_(clock) {}
  Oba::HwTunnelId getHwTunnelId() override {
    std::uint32_t id = free_.empty() ? next_++ : free_.extract(free_.begin()).value();
    say(clock_) << "chip: getHwTunnelId -> " << id << "\n";
    return Oba::HwTunnelId(id);
  }
  void releaseHwTunnelId(Oba::HwTunnelId id) override {
    say(clock_) << "chip: releaseHwTunnelId " << id << "\n";
    free_.insert(id.value());
  }

 private:
  const Kiv::Clock& clock_;
  std::uint32_t next_ = 1;
  std::set<std::uint32_t> free_;
};

class ChipFlooding : public ObaHelper::EvpnFloodingSmHelper {
 public:
  using PortVlan = std::pair<IntfId, VlanId>;
  explicit ChipFlooding(const Kiv::Clock& clock)
      : EvpnFloodingSmHelper("chipFlooding"), clock_(clock) {}
  Oba::HwProgrammingStatus createVlanToDot1qMapping(IntfId port, VlanId vlan,
                                                    Bridging::VlanIdOrNone dot1q) override {
    say(clock_) << "chip: createVlanToDot1qMapping " << port << " vlan " << vlan << " dot1q "
                << dot1q << "\n";
    return Oba::HwProgrammingStatus::programmed;
  }
  void deleteVlanToDot1qMapping(IntfId port, VlanId vlan, Bridging::VlanIdOrNone dot1q) override {
    say(clock_) << "chip: deleteVlanToDot1qMapping " << port << " vlan " << vlan << " dot1q "
                << dot1q << "\n";
  }
  Oba::HwProgrammingStatus createEsiData(IntfId port, VlanId vlan, const TunnelId& tunnel,
                                         Oba::HwTunnelId hw, MplsLabel label,
                                         MplsLabel localLabel) override {
    say(clock_) << "chip: createEsiData " << port << " vlan " << vlan << " tunnel " << tunnel
                << " hw " << hw << " label " << label << " local " << localLabel << "\n";
    esiData[{port, vlan}] = hw;
    return Oba::HwProgrammingStatus::programmed;
  }
  void deleteEsiData(IntfId port, VlanId vlan) override {
    say(clock_) << "chip: deleteEsiData " << port << " vlan " << vlan << "\n";
    esiData.erase({port, vlan});
  }
  // What the chip holds: the agent reconciles it after a restart.
  std::map<PortVlan, Oba::HwTunnelId> esiData;

 private:
  const Kiv::Clock& clock_;
};

class ChipDecap : public ObaHelper::EsiFilteringDecapHelper {
 public:
  explicit ChipDecap(const Kiv::Clock& clock)
      : EsiFilteringDecapHelper("chipDecap"), clock_(clock) {}
  Mpls::LfibHwProgrammingReturnCode createEsiPortMap(MplsLabel label, IntfId intf) override {
    say(clock_) << "chip: createEsiPortMap label " << label << " intf " << intf << "\n";
    return Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess;
  }
  void deleteEsiPortMap(MplsLabel label, IntfId intf) override {
    say(clock_) << "chip: deleteEsiPortMap label " << label << " intf " << intf << "\n";
  }

 private:
  const Kiv::Clock& clock_;
};

// The FEC requests reach the chip layer through a table, not a helper: it reads them as they are
// written (on a switch, from another process) and answers in the response table.
class ChipFecReader : public Oba::FecIdToHwFecIdRequest::NotifieeConst {
 public:
  explicit ChipFecReader(const Kiv::Clock& clock) : clock_(clock) {}
  void onHwFecIdRequest(const Shoal::Fib::FecId& id) override {
    bool asked = notifier()->hwFecIdRequest(id).found;
    say(clock_) << "chip: hardware FEC id " << (asked ? "asked for " : "no longer asked for ") << id
                << "\n";
    // A request written again (its tunnel got another hardware id) keeps its place in the queue.
    if (asked && std::find(pending.begin(), pending.end(), id) == pending.end()) {
      pending.push_back(id);
    }
  }
  std::vector<Shoal::Fib::FecId> pending;

 private:
  const Kiv::Clock& clock_;
};

// The chip's FEC ids: one counter for both request tables, as one chip has one FEC table. A
// flood-list FEC also gets the layer-2 interface the chip makes for it, which the flood-list
// machines need before they can name the member.
class ChipFecs {
 public:
  void answer(ChipFecReader& reader, Oba::FecIdToHwFecIdResponse& response, bool withL2Intf) {
    for (const auto& id : reader.pending) {
      response.hwFecIdIs(Oba::FecToHwFecId(id, next_));
      if (withL2Intf) response.l2IntfIdIs(id, Quil::IntfId::ethernet(100 + (next_ & 0xff)));
      ++next_;
    }
    reader.pending.clear();
  }

 private:
  std::uint64_t next_ = 0x5000;
};

// The hardware flood lists: the chip layer reads the members the VLAN flood-set machine wants and
// reports each as programmed, as a chip that had room for them would.
void programFloodLists(const Kiv::Clock& clock, const Oba::EvpnVlanFloodSetHwConfig& config,
                       Oba::EvpnVlanFloodSetHwStatus& status) {
  for (auto [key, list] : config.configWalk()) {
    for (auto [member, on] : list->mplsDestConfigWalk()) {
      say(clock) << "chip: flood list vlan " << key.vlanId << " " << key.macAddr << " member "
                 << member.tunnelId() << " label " << member.label() << " hw tunnel "
                 << member.hwTunnelId() << " hw FEC " << member.hwIdForTunnelProgramming() << " l2 "
                 << member.l2IntfId() << "\n";
      status.statusIs(key)->mplsDestStatusIs(member, Oba::HwProgrammingStatus::programmed);
    }
  }
}

// ---- the agent ----------------------------------------------------------------------------------

class Agent {
 public:
  Agent() {
    fecReader.notifierIs(fecRequest);
    floodSetFecReader.notifierIs(floodSetFecRequest);
  }

  // Every machine, through its factory, over the inputs as they are now. A machine catches up
  // with its inputs when it is made, so the order only matters between writer and reader.
  void start() {
    // The mapping's writer before its reader: the ESI machine starts over published ids.
    hwTunnelIdSm =
        Oba::evpnHwTunnelIdSmFactory(chipTunnelIds, scheduler, acsd, evpnStatus, mapping);
    floodingEsiSm =
        Oba::evpnFloodingEsiSmFactory(chipFlooding, scheduler, acsd, evpnStatus, mapping);
    floodingDot1qSm = Oba::evpnFloodingDot1qSmFactory(chipFlooding, scheduler, acsd, evpnStatus,
                                                      mplsConfig, vlanStatusDir);
    decapSm = Oba::esiFilteringDecapSmFactory(chipDecap, scheduler, lfib, lfibTracking, lfibHw);
    // The flood-list machines take MPLS destinations (tunnel and label) only.
    floodSetFilterSm =
        Oba::vlanFloodSetFilterSmFactory(L2Rib::destTypeMpls_, l2RibFloodSet, mplsFloodSet);
    // The flood-list machines start here, after the filter whose output they read: the FEC
    // machine first, as it writes the identifiers the VLAN flood-set machine reads.
    floodSetFecSm =
        Oba::evpnFloodSetFecSmFactory(mplsFloodSet, mapping, floodSetHwStatus, floodSetFecRequest,
                                      floodSetFecResponse, hwInfoMapping, timerWheel);
    vlanFloodSetSm = Oba::evpnVlanFloodSetSmFactory(mplsFloodSet, mapping, hwInfoMapping,
                                                    floodSetHwConfig, floodSetHwStatus);
    macFecSm =
        Oba::obaMacAddrFecRequestSmFactory(labels, loadBalances, dests, hosts, fecResponse,
                                           fecRequest, objTupleToHwId, timerWheel, scheduler);
  }

  // The machines go in the reverse order. A machine's destructor does not undo its work: what it
  // programmed stays in the chip, for the next incarnation to take over.
  void stop() {
    macFecSm = nullptr;
    vlanFloodSetSm = nullptr;
    floodSetFecSm = nullptr;
    floodSetFilterSm = nullptr;
    decapSm = nullptr;
    floodingDot1qSm = nullptr;
    floodingEsiSm = nullptr;
    hwTunnelIdSm = nullptr;
  }

  // A new tunnel-id machine clears the mapping and asks for ids afresh; the ESI machine forgets a
  // tunnel's users when its row goes and would not reprogram them when it comes back. So the
  // reader restarts with its writer, and the old ids go back to the chip once nothing names them.
  void restartHwTunnelIdSm() {
    floodingEsiSm = nullptr;
    hwTunnelIdSm = nullptr;
    std::vector<std::pair<TunnelId, Oba::HwTunnelId>> rows;
    std::set<std::uint32_t> published;
    for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
      rows.emplace_back(tunnel, row.hwTunnelId());
      published.insert(row.hwTunnelId().value());
    }
    // Readers stop using an id before the chip may hand it out again: the ESI data that names
    // one, then the rows (other agents see each go), then the ids.
    std::vector<ChipFlooding::PortVlan> naming;
    for (const auto& [key, hw] : chipFlooding->esiData) {
      if (published.contains(hw.value())) naming.push_back(key);
    }
    for (const auto& [port, vlan] : naming) chipFlooding->deleteEsiData(port, vlan);
    for (const auto& [tunnel, hw] : rows) mapping->tunnelIdToHwTunnelIdDel(tunnel);
    for (const auto& [tunnel, hw] : rows) chipTunnelIds->releaseHwTunnelId(hw);
    hwTunnelIdSm =
        Oba::evpnHwTunnelIdSmFactory(chipTunnelIds, scheduler, acsd, evpnStatus, mapping);
    floodingEsiSm =
        Oba::evpnFloodingEsiSmFactory(chipFlooding, scheduler, acsd, evpnStatus, mapping);
    reconcileEsiData();
  }

  // The ESI machine deletes only what it programmed itself: after a restart, the chip's entries
  // that the new incarnation does not hold as programmed have nobody else to delete them.
  void reconcileEsiData() {
    std::set<ChipFlooding::PortVlan> held;
    for (auto [key, status] : floodingEsiSm->esiStatusWalk()) {
      for (auto [port, programmed] : status.programmedWalk()) held.emplace(port, key.vlanId());
    }
    std::vector<ChipFlooding::PortVlan> left;
    for (const auto& [key, hw] : chipFlooding->esiData) {
      if (!held.contains(key)) left.push_back(key);
    }
    for (const auto& [port, vlan] : left) chipFlooding->deleteEsiData(port, vlan);
  }

  // Runs the machines' reviews up to time t.
  void runUntil(Kiv::Seconds t) { scheduler->advanceTo(t); }
  void event(Kiv::Seconds t, const char* what) {
    runUntil(t);
    say(*clock) << "event: " << what << "\n";
  }

  // Time: one scheduler on a virtual clock; nothing runs until the agent advances it.
  const Kiv::Ptr<Kiv::VirtualClock> clock = new Kiv::VirtualClock;
  const Kiv::Ptr<Mox::TaskScheduler> scheduler = Mox::TaskScheduler::TaskSchedulerIs(clock);
  const Kiv::Ptr<Mox::TimerWheel> timerWheel = Mox::TimerWheel::TimerWheelIs(clock);

  // The chip layer.
  const Kiv::Ptr<ChipTunnelIds> chipTunnelIds = new ChipTunnelIds(*clock);
  const Kiv::Ptr<ChipFlooding> chipFlooding = new ChipFlooding(*clock);
  const Kiv::Ptr<ChipDecap> chipDecap = new ChipDecap(*clock);
  ChipFecReader fecReader{*clock};
  ChipFecReader floodSetFecReader{*clock};
  ChipFecs chipFecs;

  // Inputs, written as the control plane and the other agents tell this one.
  const Kiv::Ptr<Oba::ObaCommonSmData> acsd = new Oba::ObaCommonSmData;
  const Kiv::Ptr<Evpn::EvpnStatus> evpnStatus = new Evpn::EvpnStatus;
  const Kiv::Ptr<Evpn::MplsConfig> mplsConfig = new Evpn::MplsConfig;
  const Kiv::Ptr<Bridging::VlanStatusDir> vlanStatusDir = new Bridging::VlanStatusDir;
  const Kiv::Ptr<Mpls::LfibStatus> lfib = new Mpls::LfibStatus;
  const Kiv::Ptr<Mpls::LfibTrackingStatus> lfibTracking = new Mpls::LfibTrackingStatus;
  const Kiv::Ptr<L2Rib::FloodSetOutput> l2RibFloodSet = new L2Rib::FloodSetOutput("l2Rib");
  const Kiv::Ptr<L2Rib::LabelOutput> labels = new L2Rib::LabelOutput("label");
  const Kiv::Ptr<L2Rib::LoadBalanceOutput> loadBalances = new L2Rib::LoadBalanceOutput("lb");
  const Kiv::Ptr<L2Rib::DestOutput> dests = new L2Rib::DestOutput("dest");
  const Kiv::Ptr<L2Rib::HostOutput> hosts = new L2Rib::HostOutput("host");
  const Kiv::Ptr<Oba::FecIdToHwFecIdResponse> fecResponse =
      new Oba::FecIdToHwFecIdResponse("fecResponse");
  const Kiv::Ptr<Oba::FecIdToHwFecIdResponse> floodSetFecResponse =
      new Oba::FecIdToHwFecIdResponse("floodSetFecResponse");
  const Kiv::Ptr<Oba::EvpnVlanFloodSetHwStatus> floodSetHwStatus =
      new Oba::EvpnVlanFloodSetHwStatus;
  // Outputs: the machines write them, other agents read them.
  const Kiv::Ptr<Oba::TunnelIdToHwTunnelIdMapping> mapping =
      new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId");
  const Kiv::Ptr<Mpls::LfibHwStatus> lfibHw = new Mpls::LfibHwStatus;
  const Kiv::Ptr<L2Rib::FloodSetOutput> mplsFloodSet = new L2Rib::FloodSetOutput("mpls");
  const Kiv::Ptr<Oba::FecIdToHwFecIdRequest> floodSetFecRequest =
      new Oba::FecIdToHwFecIdRequest("floodSetFecRequest");
  const Kiv::Ptr<Oba::HwInfoMapping> hwInfoMapping = new Oba::HwInfoMapping;
  const Kiv::Ptr<Oba::EvpnVlanFloodSetHwConfig> floodSetHwConfig =
      new Oba::EvpnVlanFloodSetHwConfig;
  const Kiv::Ptr<Oba::FecIdToHwFecIdRequest> fecRequest =
      new Oba::FecIdToHwFecIdRequest("fecRequest");
  const Kiv::Ptr<Oba::ObjTupleToHwId> objTupleToHwId = new Oba::ObjTupleToHwId("objTupleToHwId");

  // The machines.
  Kiv::Ptr<Oba::EvpnHwTunnelIdSm> hwTunnelIdSm;
  Kiv::Ptr<Oba::EvpnFloodingEsiSm> floodingEsiSm;
  Kiv::Ptr<Oba::EvpnFloodingDot1qSm> floodingDot1qSm;
  Kiv::Ptr<Oba::EsiFilteringDecapSm> decapSm;
  Kiv::Ptr<Oba::VlanFloodSetFilterSm> floodSetFilterSm;
  Kiv::Ptr<Oba::EvpnFloodSetFecSm> floodSetFecSm;
  Kiv::Ptr<Oba::EvpnVlanFloodSetSm> vlanFloodSetSm;
  Kiv::Ptr<Oba::ObaMacAddrFecRequestSm> macFecSm;
};

}  // namespace

int main() {
  const IntfId lag = IntfId::portChannel(10), eth1 = IntfId::ethernet(1),
               eth2 = IntfId::ethernet(2);
  const IntfId peer = Quil::DynamicTunnelIntfId::intfId((1ull << 32) | 1);  // DynTunnel1.1
  const TunnelId peerTunnel((1ull << 32) | 1);
  const VlanId vlan10(10);

  Agent agent;
  // What the agent knows before its machines run: the LAG and the segment's ESI labels.
  agent.acsd->lagToPortIs(lag, new Oba::ObaLagPortList({eth1, eth2}));
  agent.evpnStatus->localEsiLabelIs(lag, Evpn::EncapTypeLabel::mpls(MplsLabel(2001)));
  agent.evpnStatus->segmentStatusIs(lag)->remoteEsiLabelIs(
      peer, Evpn::EncapTypeLabel::mpls(MplsLabel(1001)));
  agent.start();
  agent.scheduler->runDue();

  agent.event(1, "the peer behind DynTunnel1.1 becomes designated forwarder for VLAN 10");
  agent.evpnStatus->segmentStatus(lag)->designatedForwarderTepIs(vlan10, peer);

  agent.event(2, "VLAN 10's service takes dot1q tag 100 on Port-Channel10");
  agent.mplsConfig->vlanServiceDot1qEnabledIs(true);
  agent.evpnStatus->vlanToDot1qIs(vlan10, Bridging::VlanIdOrNone(100));
  agent.vlanStatusDir->vlanStatusIs(vlan10)->vlanPortStatusIs(lag, true);
  agent.runUntil(3);  // the dot1q machine decides a second after the first event

  agent.event(4, "a label route for ESI label 3001 filters towards Port-Channel10");
  const Mpls::RouteKey route(MplsLabel(3001));
  const Mpls::LfibViaKey via(Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter, 1);
  const Mpls::LfibViaSetKey viaSet(1);
  agent.lfib->evpnEthernetSegmentFilterViaIs(via, Mpls::LfibEvpnEthernetSegmentFilterVia{lag});
  agent.lfib->viaSetIs(viaSet, Mpls::LfibViaSet{viaSet, via});
  agent.lfib->routeIs(route, Mpls::LfibRoute{route, viaSet});
  agent.lfibTracking->routeKeyBacklogIs(route, true);
  agent.scheduler->runDue();

  agent.event(5, "the RIB floods VLAN 10 to the peer under label 1001 and to Ethernet3");
  auto floodSet = agent.l2RibFloodSet->vlanFloodSetIs(vlan10)->floodSetIs(Quil::EthAddr(0));
  floodSet->destSetIs(L2Rib::Dest::mpls(peerTunnel, MplsLabel(1001)), true);
  floodSet->destSetIs(L2Rib::Dest::intf(IntfId::ethernet(3)), true);
  for (auto [vlan, vfs] : agent.mplsFloodSet->vlanFloodSetWalk()) {
    for (auto [mac, fs] : vfs->floodSetWalk()) {
      for (auto [dest, on] : fs->destSetWalk()) {
        say(*agent.clock) << "MPLS flood set: vlan " << vlan << " " << dest << "\n";
      }
    }
  }
  // The FEC machine asked for the pair's FEC; once the chip layer answers, the VLAN flood-set
  // machine writes the member into the hardware flood list and the chip reports it programmed.
  agent.chipFecs.answer(agent.floodSetFecReader, *agent.floodSetFecResponse, true);
  for (auto [via, info] : agent.hwInfoMapping->mappingWalk()) {
    say(*agent.clock) << "hwInfoMapping: " << via.tunnelId() << " label " << via.label()
                      << " -> hw FEC " << info.hwIdForTunnelProgramming() << " l2 "
                      << info.l2IntfId() << "\n";
  }
  programFloodLists(*agent.clock, *agent.floodSetHwConfig, *agent.floodSetHwStatus);

  agent.event(6, "a remote MAC in VLAN 10 is learnt behind label 1001 over the peer's tunnel");
  agent.dests->destIs(L2Rib::DestId(1), L2Rib::Dest::tunnel(peerTunnel));
  agent.labels->labelIs(L2Rib::LabelId(1),
                        L2Rib::Label(MplsLabel(1001), L2Rib::ObjTuple::dest(L2Rib::DestId(1))));
  agent.hosts->hostIs({vlan10, Quil::EthAddr(0x020000000001ull)},
                      L2Rib::HostAndSource(L2Rib::ObjTuple::label(L2Rib::LabelId(1))));
  agent.scheduler->runDue();
  // The chip layer answers each request; the machine publishes the result for other agents.
  agent.chipFecs.answer(agent.fecReader, *agent.fecResponse, false);
  for (auto [tuple, hw] : agent.objTupleToHwId->hwIdWalk()) {
    say(*agent.clock) << "objTupleToHwId: " << tuple << " -> " << hw << "\n";
  }

  agent.event(8, "the agent restarts the hardware tunnel-id machine");
  agent.restartHwTunnelIdSm();
  agent.scheduler->runDue();

  agent.event(10, "the peer stops being designated forwarder for VLAN 10");
  agent.evpnStatus->segmentStatus(lag)->designatedForwarderTepDel(vlan10);
  agent.runUntil(12);

  agent.stop();
  say(*agent.clock) << "stopped\n";
  return 0;
}
