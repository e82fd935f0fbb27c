#include "sim/families/floodSet/FloodSetAgent.h"

#include <algorithm>
#include <sstream>

#include "Kiv/Digest.h"
#include "sim/ChipLink.h"
#include "sim/families/fec/FecAgent.h"
#include "sim/families/floodSet/FloodSetCheck.h"
#include "sim/families/floodSet/FloodSetTables.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim {

std::string hwInfoLine(const Oba::MplsFloodSetVia& via, const Oba::MplsDestHwInfo& info) {
  return chipText(via.tunnelId(), " label ", via.label(), " -> hwId ",
                  info.hwIdForTunnelProgramming(), " l2IntfId ", info.l2IntfId());
}

// ---- the agent's part ---------------------------------------------------------------------------

// Every write to the outputs the other side reads: the pairs' hardware identifiers and the
// flood-list configuration, as the chip layer sees them.
class FloodSetAgent::Log {
 public:
  class HwInfo : public Oba::HwInfoMapping::NotifieeConst {
   public:
    explicit HwInfo(FloodSetAgent* f) : f_(f) { notifierIs(f->hwInfoMapping); }
    void onMapping(const Oba::MplsFloodSetVia& via) override {
      if (!f_->agent.log().enabled()) return;
      auto info = notifier()->mapping(via);
      f_->agent.note("hwInfoMapping",
                     info ? hwInfoLine(via, *info)
                          : chipText(via.tunnelId(), " label ", via.label(), " deleted"));
    }

   private:
    FloodSetAgent* f_;
  };
  explicit Log(FloodSetAgent* f) : hwInfo(f) {}
  HwInfo hwInfo;
};

// The chip's answers to the FEC machine, followed so that the chip's ledger learns when a
// hardware FEC id goes back because its request went: a hardware flood list must not use it any
// more. An answer the chip takes back while the request stays (a chip that lost the FEC) is the
// chip's own doing.
class FloodSetAgent::Answers : public Oba::FecIdToHwFecIdResponse::NotifieeConst {
 public:
  explicit Answers(FloodSetAgent* f) : f_(f) { notifierIs(f->fecResponse); }
  void onHwFecId(const Shoal::Fib::FecId& fecId) override {
    auto row = notifier()->hwFecId(fecId);
    if (row.found) {
      hw_[fecId] = row.row.hwFecId();
      return;
    }
    auto it = hw_.find(fecId);
    if (it == hw_.end()) return;
    const std::uint64_t hw = it->second;
    hw_.erase(it);
    if (!f_->fecRequest->hwFecIdRequest(fecId).found) f_->lists->hwFecIdReleased(hw);
  }

 private:
  FloodSetAgent* f_;
  std::map<Shoal::Fib::FecId, std::uint64_t> hw_;
};

FloodSetAgent::FloodSetAgent(HostAgent& a)
    : agent(a),
      tunnels(a.part<TunnelEsiAgent>()),
      l2RibFloodSet(new L2Rib::FloodSetOutput("l2RibFloodSet")),
      mplsFloodSet(new L2Rib::FloodSetOutput("mplsFloodSet")),
      hwInfoMapping(new Oba::HwInfoMapping),
      hwConfig(new Oba::EvpnVlanFloodSetHwConfig),
      hwStatus(new Oba::EvpnVlanFloodSetHwStatus),
      fecRequest(new Oba::FecIdToHwFecIdRequest("mplsFloodSetFecRequest")),
      fecResponse(new Oba::FecIdToHwFecIdResponse("mplsFloodSetFecResponse")),
      lists(FloodListChip::FloodListChipIs(a.chip, a.scheduler, hwConfig, hwStatus)),
      fecs(a.part<FecAgent>().chip),
      timerWheel(Mox::TimerWheel::TimerWheelIs(a.clock)),
      log_(std::make_unique<Log>(this)),
      answers_(std::make_unique<Answers>(this)),
      fecRestartTask_(
          Mox::TimerTask::TimerTaskIs(a.scheduler, Mox::TaskPriority(3), "restartFecSm")),
      fecRestart_(std::make_unique<FecRestart>(this)) {
  fecs->requesterIs(fecRequest, fecResponse, fecWriter);
  // An id the chip took back on its own stays in the flood lists until the chip removes the
  // members naming it; it is not handed to another FEC before.
  fecs->heldElsewhereIs([lists = lists](std::uint32_t hw) { return lists->usesHwFecId(hw); });
  FecChip* chip = fecs.ptr();
  lists->hwFecIdLetGoIs([chip](std::uint64_t hw) {
    if (hw <= 0xffffffffu) chip->releasedElsewhere(static_cast<std::uint32_t>(hw));
  });
  lists->hwFecIdHeldIs([chip](std::uint64_t hw) {
    auto a = chip->answers().find(static_cast<std::uint32_t>(hw));
    return hw <= 0xffffffffu && a != chip->answers().end() &&
           std::string_view(a->second.writer) == fecWriter;
  });
  TunnelEsiAgent* t = &tunnels;
  lists->hwTunnelIdHeldIs(
      [t](Oba::HwTunnelId id) { return t->chip->hwTunnelIdsInUse().contains(id.value()); });
  lists->stillWantedIs([this](const Bridging::MacVlanPair& list, const Oba::MplsDestConfig& m) {
    return stillWanted(list, m);
  });
}

// The member is in the RIB's flood set, its tunnel has the hardware id it names (or none, as it
// names none), and its pair has the identifiers it names.
bool FloodSetAgent::stillWanted(const Bridging::MacVlanPair& list,
                                const Oba::MplsDestConfig& m) const {
  auto v = l2RibFloodSet->vlanFloodSet(list.vlanId);
  auto fs = v ? v->floodSet(list.macAddr) : nullptr;
  if (!fs || !fs->destSet(L2Rib::Dest::mpls(m.tunnelId(), m.label())).value_or(false)) {
    return false;
  }
  auto row = tunnels.mapping->tunnelIdToHwTunnelId(m.tunnelId());
  if ((row.found ? row.row.hwTunnelId() : Oba::HwTunnelId()) != m.hwTunnelId()) return false;
  auto info = hwInfoMapping->mapping(Oba::MplsFloodSetVia(m.tunnelId(), m.label()));
  return info && info->hwIdForTunnelProgramming() == m.hwIdForTunnelProgramming() &&
         info->l2IntfId() == m.l2IntfId();
}

FloodSetAgent::~FloodSetAgent() = default;

void FloodSetAgent::startFecSm() {
  fecSm = Oba::evpnFloodSetFecSmFactory(mplsFloodSet, tunnels.mapping, hwStatus, fecRequest,
                                        fecResponse, hwInfoMapping, timerWheel);
}

void FloodSetAgent::startVlanSm() {
  vlanSm = Oba::evpnVlanFloodSetSmFactory(mplsFloodSet, tunnels.mapping, hwInfoMapping, hwConfig,
                                          hwStatus);
}

void FloodSetAgent::start() {
  // The filter first, so that the flood-set machines start over the MPLS-only flood sets; then
  // the writer of the pairs' hardware identifiers before their reader. A machine that starts
  // drops what an earlier one wrote; the FEC machine's requests go before it starts (see
  // restart()).
  lists->restartingIs(true);
  filterSm = Oba::vlanFloodSetFilterSmFactory(L2Rib::destTypeMpls_, l2RibFloodSet, mplsFloodSet);
  dropFecRequests();
  startFecSm();
  startVlanSm();
  lists->restartingIs(false);
}

void FloodSetAgent::stop() {
  fecStartPending = false;
  fecRestartTask_->unscheduleTask();
  vlanSm = nullptr;
  fecSm = nullptr;
  filterSm = nullptr;
}

void FloodSetAgent::dropFecRequests() {
  fecRequest->hwFecIdRequestDelAll();
  fecRequest->fecDelAll();
}

// A new FEC machine drops the old one's requests and identifiers and requests the pairs again
// under the ids of a new allocator, but it neither deletes the old FEC definitions nor hears the
// chip's answers that are already there: an answer for a FEC id it reuses, withdrawn later, keeps
// the id out of its allocator for good; and the chip gives back the old hardware FEC ids while its
// flood lists may still use them. The agent restarts it in stages, a quarter second apart: it
// withdraws the pairs' identifiers (the VLAN flood-set machine takes their members out of the
// configuration); once the chip has emptied its lists of them, it deletes the old requests and
// definitions; once the chip has withdrawn every answer, it starts the new machine.
class FloodSetAgent::FecRestart : public Mox::TimerTask::Notifiee {
 public:
  explicit FecRestart(FloodSetAgent* f) : f_(f) { notifierIs(f->fecRestartTask_); }
  void onTaskRun() override { f_->continueFecRestart(); }

 private:
  FloodSetAgent* f_;
};

void FloodSetAgent::continueFecRestart() {
  if (!lists->busy() && (fecRequest->hwFecIdRequests() || fecRequest->fecs())) dropFecRequests();
  if (lists->busy() || fecResponse->hwFecIds() || fecResponse->l2IntfIds()) {
    fecRestartTask_->scheduleTaskDelay(0.25);
    return;
  }
  fecStartPending = false;
  lists->restartingIs(true);
  startFecSm();
  lists->restartingIs(false);
}

void FloodSetAgent::restart(const std::string& machine) {
  lists->restartingIs(true);
  if (machine == "floodSetFec") {
    fecSm = nullptr;
    hwInfoMapping->mappingDelAll();
    fecStartPending = true;
    fecRestartTask_->scheduleTask();
  } else {
    vlanSm = nullptr;
    startVlanSm();
  }
  lists->restartingIs(false);
}

std::vector<std::string> FloodSetAgent::mplsFloodSetLines() const {
  std::vector<std::string> out;
  for (auto [vlan, v] : mplsFloodSet->vlanFloodSetWalk()) {
    for (auto [mac, fs] : v->floodSetWalk()) {
      for (auto [dest, value] : fs->destSetWalk()) {
        out.push_back(chipText(Bridging::MacVlanPair{vlan, mac}.text().view(), " ",
                               dest.text().view(), value ? "" : " (false)"));
      }
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> FloodSetAgent::configLines() const {
  std::vector<std::string> out;
  for (auto [list, c] : hwConfig->configWalk()) {
    for (auto [m, unused] : c->mplsDestConfigWalk()) out.push_back(memberLine(list, m));
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> FloodSetAgent::listLines() const {
  std::vector<std::string> out;
  for (const auto& [list, members] : lists->lists()) {
    for (const auto& m : members) out.push_back(memberLine(list, m));
  }
  return out;
}

std::vector<std::string> FloodSetAgent::statusLines() const {
  std::vector<std::string> out;
  for (auto [list, s] : hwStatus->statusWalk()) {
    for (auto [m, rc] : s->mplsDestStatusWalk()) {
      out.push_back(memberLine(list, m) + " -> " + Oba::toString(rc));
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> FloodSetAgent::hwInfoLines() const {
  std::vector<std::string> out;
  for (auto [via, info] : hwInfoMapping->mappingWalk()) out.push_back(hwInfoLine(via, info));
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> FloodSetAgent::fecRequestLines() const {
  std::vector<std::string> out;
  for (auto [fecId, req] : fecRequest->hwFecIdRequestWalk()) {
    std::ostringstream os;
    os << fecId;
    auto fec = fecRequest->fec(fecId);
    for (const auto& v : fec.found ? fec.row.via() : std::vector<Shoal::Fib::Via>{}) {
      os << " " << v.tunnelId() << " label " << v.mplsLabel();
    }
    os << " hwTunnelId " << req.hwTunnelId().value();
    out.push_back(os.str());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> FloodSetAgent::lines(std::string_view table) const {
  if (table == "mplsFloodSet") return mplsFloodSetLines();
  if (table == "floodSetFecs") return fecRequestLines();
  if (table == "floodListConfig") return configLines();
  if (table == "floodLists") return listLines();
  if (table == "floodListStatus") return statusLines();
  return hwInfoLines();
}

void FloodSetAgent::printChip(std::ostream& os) const {
  os << "chip floodLists:\n" << block(listLines());
  os << "chip floodListStatus:\n" << block(statusLines());
}

void FloodSetAgent::printOutputs(std::ostream& os) const {
  os << "mplsFloodSet:\n" << block(mplsFloodSetLines());
  os << "floodSetFecs:\n" << block(fecRequestLines());
  os << "hwInfoMapping:\n" << block(hwInfoLines());
  os << "floodListConfig:\n" << block(configLines());
}

void FloodSetAgent::publish(Publisher& p) {
  fecRequest->hwFecIdRequestBackingIs(p.backing<FloodSetFecRequestsTable>());
  p.mirror<HwInfoTable>([this](Publisher::Rows<HwInfoTable>& rows) {
    for (auto [via, info] : hwInfoMapping->mappingWalk()) rows.put(via, info);
  });
  p.mirror<FloodListsTable>([this](Publisher::Rows<FloodListsTable>& rows) {
    for (auto [list, c] : hwConfig->configWalk()) {
      for (auto [m, unused] : c->mplsDestConfigWalk()) rows.put(FloodListMember(list, m), true);
    }
  });
}

void FloodSetAgent::draw(DotGraph& graph) const { drawFloodSets(*this, graph); }

bool FloodSetAgent::busy() const { return lists->busy() || fecs->busy() || fecStartPending; }

void FloodSetAgent::count(Counters& c) const {
  for (const auto& [list, members] : lists->lists()) c["floodListMembers"] += members.size();
}

std::optional<CheckFailure> FloodSetAgent::check(Counters* counters) const {
  return checkFloodSets(*this, counters);
}

ExpectedTables FloodSetAgent::finalExpectations() const {
  return {{"mplsFloodSet", expectedMplsFloodSetLines(*this)}, {"floodLists", listLines()}};
}

// Inputs, outputs and machines by their digests; the chip part is the chip's.
void FloodSetAgent::digest(Kiv::Digest& d) const {
  d.add(l2RibFloodSet);
  d.add(mplsFloodSet);
  d.add(hwInfoMapping);
  d.add(hwConfig);
  d.add(hwStatus);
  d.add(fecRequest);
  d.add(fecResponse);
  d.add(filterSm);
  d.add(fecSm);
  d.add(vlanSm);
}

}  // namespace Sim
