#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "Kiv/Digest.h"
#include "sim/FamilyHelpers.h"
#include "sim/families/tunnelEsi/TunnelEsiCheck.h"
#include "sim/families/tunnelEsi/TunnelEsiTables.h"

namespace Sim {

// ---- the agent's part ---------------------------------------------------------------------------

// Every write to the mapping table, as readers of the table see it.
class TunnelEsiAgent::MappingLog : public Oba::TunnelIdToHwTunnelIdMapping::NotifieeConst {
 public:
  explicit MappingLog(TunnelEsiAgent* family) : family_(family) { notifierIs(family->mapping); }
  void onTunnelIdToHwTunnelId(const Tunnel::TunnelTable::TunnelId& tunnel) override {
    if (!family_->agent.log().enabled()) return;
    auto row = notifier()->tunnelIdToHwTunnelId(tunnel);
    std::ostringstream os;
    if (row.found) {
      os << row.row.compactString();
    } else {
      os << tunnel << " deleted";
    }
    family_->agent.note("mapping", os.str());
  }

 private:
  TunnelEsiAgent* family_;
};

TunnelEsiAgent::TunnelEsiAgent(HostAgent& a)
    : agent(a),
      chip(TunnelEsiChip::TunnelEsiChipIs(a.chip)),
      evpnStatus(new Evpn::EvpnStatus),
      acsd(new Oba::ObaCommonSmData),
      mapping(new Oba::TunnelIdToHwTunnelIdMapping("tunnelIdToHwTunnelId")),
      mappingLog_(std::make_unique<MappingLog>(this)) {}

TunnelEsiAgent::~TunnelEsiAgent() = default;

void TunnelEsiAgent::startHwTunnelIdSm() {
  hwTunnelIdSm = Oba::evpnHwTunnelIdSmFactory(chip->hwTunnelIdHelper(), agent.scheduler, acsd,
                                              evpnStatus, mapping);
}

void TunnelEsiAgent::startFloodingEsiSm() {
  floodingEsiSm = Oba::evpnFloodingEsiSmFactory(chip->floodingHelper(), agent.scheduler, acsd,
                                                evpnStatus, mapping);
}

void TunnelEsiAgent::start() {
  // The writer of the mapping first, so the flooding machine starts over published ids.
  startHwTunnelIdSm();
  startFloodingEsiSm();
}

void TunnelEsiAgent::stop() {
  floodingEsiSm = nullptr;
  hwTunnelIdSm = nullptr;
}

// A new incarnation of the flooding machine rewrites the ESI data its inputs call for, over what
// the chip still holds from the old one; what it does not hold as programmed after its first walk
// would stay in the chip for good, since it only ever deletes what it programmed itself: entries of
// a tunnel that has no hardware id now (the old one was given back), of a pair whose remote label
// turned to another encapsulation, of ports the chip refused this time. The agent deletes them.
void TunnelEsiAgent::reconcileEsiData() {
  std::set<TunnelEsiChip::PortVlan> held;
  for (auto [key, status] : floodingEsiSm->esiStatusWalk()) {
    for (auto [port, member] : status.programmedWalk()) held.emplace(port, key.vlanId());
  }
  std::vector<TunnelEsiChip::PortVlan> left;
  for (const auto& [key, entry] : chip->esiData()) {
    if (!held.contains(key)) left.push_back(key);
  }
  for (const auto& [port, vlan] : left) chip->deleteEsiData(port, vlan);
}

void TunnelEsiAgent::restart(const std::string& machine) {
  if (machine == "floodingEsi") {
    floodingEsiSm = nullptr;
    startFloodingEsiSm();
    reconcileEsiData();
    return;
  }
  // The new incarnation asks for ids afresh, so the ids the old one published go back to the chip,
  // or they would leak. Readers must stop using an id before the chip may hand it out again: the
  // ESI data that names a published id is deleted and the rows are removed first, and only then
  // do the ids go back. The flooding machine reads the table and forgets a tunnel's users when its
  // row goes, so a row that comes back would never reprogram them: the reader restarts with its
  // writer, after it.
  stop();
  std::vector<std::pair<Tunnel::TunnelTable::TunnelId, Oba::HwTunnelId>> rows;
  std::set<std::uint32_t> published;
  for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
    rows.emplace_back(tunnel, row.hwTunnelId());
    published.insert(row.hwTunnelId().value());
  }
  std::vector<TunnelEsiChip::PortVlan> naming;
  for (const auto& [key, entry] : chip->esiData()) {
    if (published.contains(entry.hw.value())) naming.push_back(key);
  }
  for (const auto& [port, vlan] : naming) chip->deleteEsiData(port, vlan);
  for (const auto& [tunnel, hw] : rows) mapping->tunnelIdToHwTunnelIdDel(tunnel);
  for (const auto& [tunnel, hw] : rows) chip->releaseHwTunnelId(hw);
  start();
  reconcileEsiData();
}

std::vector<std::string> TunnelEsiAgent::esiDataLines() const {
  std::vector<std::string> out;
  for (const auto& [key, e] : chip->esiData()) out.push_back(esiLine(key, e));
  return out;
}

std::vector<std::string> TunnelEsiAgent::mappingLines() const {
  std::vector<std::string> out;
  for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
    out.push_back(row.compactString());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> TunnelEsiAgent::hwTunnelIdLines() const {
  std::vector<std::string> out;
  for (std::uint32_t id : chip->hwTunnelIdsInUse()) out.push_back(std::to_string(id));
  return out;
}

std::vector<std::string> TunnelEsiAgent::lines(std::string_view table) const {
  if (table == "esiData") return esiDataLines();
  if (table == "mapping") return mappingLines();
  return hwTunnelIdLines();
}

void TunnelEsiAgent::printChip(std::ostream& os) const {
  os << "chip esiData:\n" << block(esiDataLines());
  os << "chip hwTunnelIds in use:\n" << block(hwTunnelIdLines());
}

void TunnelEsiAgent::printOutputs(std::ostream& os) const {
  os << "mapping tunnelIdToHwTunnelId:\n" << block(mappingLines());
}

void TunnelEsiAgent::publish(Publisher& p) {
  mapping->tunnelIdToHwTunnelIdBackingIs(p.backing<MappingTable>());
}

void TunnelEsiAgent::draw(DotGraph& graph) const { drawTunnelEsi(*this, graph); }

// The flooding machine's retries, and the tunnel-id machine's while the chip has an id to give.
bool TunnelEsiAgent::busy() const {
  const bool flooding = floodingEsiSm && floodingEsiSm->reviewUnprogrammed() &&
                        reviewPending(floodingEsiSm->reviewUnprogrammed()->task());
  const bool hw = hwTunnelIdSm && hwTunnelIdSm->reviewUnprogrammed() &&
                  reviewPending(hwTunnelIdSm->reviewUnprogrammed()->task()) &&
                  chip->freeHwTunnelId() != 0;
  return flooding || hw;
}

void TunnelEsiAgent::count(Counters& c) const { c["esiEntriesChecked"] += chip->esiData().size(); }

void TunnelEsiAgent::ledger(std::vector<std::string>& out) const {
  for (auto& l : checkHwTunnelIdLedger(*this)) {
    out.push_back(std::move(l));
  }
}

std::optional<CheckFailure> TunnelEsiAgent::check(Counters* counters) const {
  return checkTunnelEsi(*this, counters);
}

ExpectedTables TunnelEsiAgent::finalExpectations() const {
  std::vector<std::string> esiLines, mappingLines, hwIds;
  for (const auto& [key, e] : compareEsiData(*this, nullptr).wanted) {
    esiLines.push_back(esiLine(key, e));
  }
  // The rows whose tunnels are in use, and the ids those rows hold.
  std::set<Tunnel::TunnelTable::TunnelId> inUse;
  for (auto [intf, ess] : evpnStatus->segmentStatusWalk()) {
    for (auto [vlan, tep] : ess->designatedForwarderTepWalk()) {
      inUse.insert(Tunnel::TunnelTable::TunnelId(Quil::DynamicTunnelIntfId::tunnelId(tep)));
    }
  }
  std::vector<std::uint32_t> ids;
  for (auto [tunnel, row] : mapping->tunnelIdToHwTunnelIdWalk()) {
    if (!inUse.contains(tunnel)) continue;
    mappingLines.push_back(row.compactString());
    ids.push_back(row.hwTunnelId().value());
  }
  std::sort(mappingLines.begin(), mappingLines.end());
  std::sort(ids.begin(), ids.end());
  for (auto id : ids) hwIds.push_back(std::to_string(id));
  return {{"esiData", esiLines}, {"mapping", mappingLines}, {"hwTunnelIds", hwIds}};
}

// Inputs, outputs and machines by their digests; the chip part is the chip's.
void TunnelEsiAgent::digest(Kiv::Digest& d) const {
  d.add(evpnStatus);
  d.add(acsd);
  d.add(mapping);
  d.add(hwTunnelIdSm);
  d.add(floodingEsiSm);
}

}  // namespace Sim
