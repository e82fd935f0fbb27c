#include "sim/families/dot1qDecap/Dot1qDecapAgent.h"

#include <algorithm>
#include <sstream>

#include "Kiv/Digest.h"
#include "sim/FamilyHelpers.h"
#include "sim/families/dot1qDecap/Dot1qDecapCheck.h"
#include "sim/families/dot1qDecap/Dot1qDecapTables.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim {

namespace {
constexpr auto filterType = Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter;
}  // namespace

std::string dot1qLine(const Dot1qDecapChip::PortVlan& key, Bridging::VlanIdOrNone dot1q) {
  std::ostringstream os;
  os << key.first << " vlan " << key.second << " dot1q " << dot1q;
  return os.str();
}

std::string portMapLine(Quil::MplsLabel label, Quil::IntfId intf) {
  std::ostringstream os;
  os << "label " << label << " intf " << intf;
  return os.str();
}

// ---- the agent's part ---------------------------------------------------------------------------

// The routes the decapsulation machine parks and unparks, as readers of the hardware status see
// them.
class Dot1qDecapAgent::HwStatusLog : public Mpls::LfibHwStatus::NotifieeConst {
 public:
  explicit HwStatusLog(Dot1qDecapAgent* family) : family_(family) {
    notifierIs(family->lfibHwStatus);
  }
  void onUnprogrammedRoute(const Mpls::RouteKey& key) override {
    if (!family_->agent.log().enabled()) return;
    std::ostringstream os;
    os << "unprogrammedRoute label " << key.topLabel();
    if (auto rc = notifier()->unprogrammedRoute(key)) {
      os << " " << *rc;
    } else {
      os << " deleted";
    }
    family_->agent.note("lfibHwStatus", os.str());
  }

 private:
  Dot1qDecapAgent* family_;
};

Dot1qDecapAgent::Dot1qDecapAgent(HostAgent& a)
    : agent(a),
      chip(Dot1qDecapChip::Dot1qDecapChipIs(a.chip)),
      evpnStatus(a.part<TunnelEsiAgent>().evpnStatus),
      acsd(a.part<TunnelEsiAgent>().acsd),
      mplsConfig(new Evpn::MplsConfig),
      vlanStatusDir(new Bridging::VlanStatusDir),
      lfibStatus(new Mpls::LfibStatus),
      lfibTrackingStatus(new Mpls::LfibTrackingStatus),
      lfibHwStatus(new Mpls::LfibHwStatus),
      hwStatusLog_(std::make_unique<HwStatusLog>(this)) {}

Dot1qDecapAgent::~Dot1qDecapAgent() = default;

void Dot1qDecapAgent::startFloodingDot1qSm() {
  floodingDot1qSm = Oba::evpnFloodingDot1qSmFactory(chip->floodingHelper(), agent.scheduler, acsd,
                                                    evpnStatus, mplsConfig, vlanStatusDir);
}

// A starting decapsulation machine knows nothing the chip holds, and drains only the backlog: the
// agent hands it every published route, with no route parked, as a fresh start over a reset chip
// has them.
void Dot1qDecapAgent::startDecapSm() {
  std::vector<Mpls::RouteKey> parked;
  for (auto [key, rc] : lfibHwStatus->unprogrammedRouteWalk()) parked.push_back(key);
  for (const auto& key : parked) lfibHwStatus->unprogrammedRouteDel(key);
  backlogRoutes([](const Mpls::LfibRoute&) { return true; });
  decapSm = Oba::esiFilteringDecapSmFactory(chip->decapHelper(), agent.scheduler, lfibStatus,
                                            lfibTrackingStatus, lfibHwStatus);
}

void Dot1qDecapAgent::start() {
  startFloodingDot1qSm();
  startDecapSm();
}

void Dot1qDecapAgent::stop() {
  decapSm = nullptr;
  floodingDot1qSm = nullptr;
}

void Dot1qDecapAgent::restart(const std::string& machine) {
  if (machine == "floodingDot1q") {
    // The new incarnation decides nothing before its first drain, a second later, and only ever
    // deletes what it programmed itself: mappings the old one left (a port refused now, a pair
    // gone meanwhile) would stay for good. The agent clears the table; the new incarnation
    // programs what its inputs call for.
    floodingDot1qSm = nullptr;
    std::vector<std::pair<Dot1qDecapChip::PortVlan, Bridging::VlanIdOrNone>> held(
        chip->dot1q().begin(), chip->dot1q().end());
    for (const auto& [key, dot1q] : held)
      chip->deleteVlanToDot1qMapping(key.first, key.second, dot1q);
    startFloodingDot1qSm();
    return;
  }
  // The new incarnation does not know the port maps its predecessor programmed: it could neither
  // delete them nor see their interfaces as taken. The agent deletes them and hands it every route.
  decapSm = nullptr;
  std::vector<std::pair<Quil::MplsLabel, Quil::IntfId>> held(chip->portMaps().begin(),
                                                             chip->portMaps().end());
  for (const auto& [label, intf] : held) chip->deleteEsiPortMap(label, intf);
  startDecapSm();
}

void Dot1qDecapAgent::restartAlone(const std::string& machine) {
  agent.note("agent", "restart " + machine + " alone");
  if (machine == "floodingDot1q") {
    floodingDot1qSm = nullptr;
    startFloodingDot1qSm();
  } else {
    // Not even the routes the old one parked are handed over: the new one starts from the
    // backlog the publisher keeps.
    decapSm = nullptr;
    decapSm = Oba::esiFilteringDecapSmFactory(chip->decapHelper(), agent.scheduler, lfibStatus,
                                              lfibTrackingStatus, lfibHwStatus);
  }
}

void Dot1qDecapAgent::backlogRoutes(const std::function<bool(const Mpls::LfibRoute&)>& touched) {
  std::vector<Mpls::RouteKey> keys;
  for (auto [key, route] : lfibStatus->routeWalk()) {
    if (touched(route)) keys.push_back(key);
  }
  for (const auto& key : keys) lfibTrackingStatus->routeKeyBacklogIs(key, true);
}

void Dot1qDecapAgent::routeIs(Quil::MplsLabel label, Mpls::LfibViaSetKey viaSet) {
  const Mpls::RouteKey key(label);
  lfibStatus->routeIs(key, Mpls::LfibRoute{key, viaSet});
  backlogIs(label);
}

void Dot1qDecapAgent::routeDel(Quil::MplsLabel label) {
  lfibStatus->routeDel(Mpls::RouteKey(label));
  backlogIs(label);
}

void Dot1qDecapAgent::viaSetIs(Mpls::LfibViaSetKey set, Mpls::LfibViaKey via) {
  lfibStatus->viaSetIs(set, Mpls::LfibViaSet{set, via});
  backlogRoutes([set](const Mpls::LfibRoute& r) { return r.viaSetKey == set; });
}

void Dot1qDecapAgent::viaSetDel(Mpls::LfibViaSetKey set) {
  lfibStatus->viaSetDel(set);
  backlogRoutes([set](const Mpls::LfibRoute& r) { return r.viaSetKey == set; });
}

void Dot1qDecapAgent::filterViaIs(std::uint32_t index, Quil::IntfId intf) {
  const Mpls::LfibViaKey via(filterType, index);
  lfibStatus->evpnEthernetSegmentFilterViaIs(via, Mpls::LfibEvpnEthernetSegmentFilterVia{intf});
  backlogRoutes([&](const Mpls::LfibRoute& r) {
    auto set = lfibStatus->viaSet(r.viaSetKey);
    return set && set->viaKey == via;
  });
}

void Dot1qDecapAgent::filterViaDel(std::uint32_t index) {
  const Mpls::LfibViaKey via(filterType, index);
  lfibStatus->evpnEthernetSegmentFilterViaDel(via);
  backlogRoutes([&](const Mpls::LfibRoute& r) {
    auto set = lfibStatus->viaSet(r.viaSetKey);
    return set && set->viaKey == via;
  });
}

void Dot1qDecapAgent::backlogIs(Quil::MplsLabel label) {
  lfibTrackingStatus->routeKeyBacklogIs(Mpls::RouteKey(label), true);
}

std::vector<std::string> Dot1qDecapAgent::dot1qLines() const {
  std::vector<std::string> out;
  for (const auto& [key, dot1q] : chip->dot1q()) out.push_back(dot1qLine(key, dot1q));
  return out;
}

std::vector<std::string> Dot1qDecapAgent::portMapLines() const {
  std::vector<std::string> out;
  for (const auto& [label, intf] : chip->portMaps()) out.push_back(portMapLine(label, intf));
  return out;
}

std::vector<std::string> Dot1qDecapAgent::unprogrammedRouteLines() const {
  std::vector<std::pair<Quil::MplsLabel, Mpls::LfibHwProgrammingReturnCode>> routes;
  for (auto [key, rc] : lfibHwStatus->unprogrammedRouteWalk()) {
    routes.emplace_back(key.topLabel(), rc);
  }
  std::sort(routes.begin(), routes.end());
  std::vector<std::string> out;
  for (const auto& [label, rc] : routes) {
    std::ostringstream os;
    os << "label " << label << " " << rc;
    out.push_back(os.str());
  }
  return out;
}

std::vector<std::string> Dot1qDecapAgent::lines(std::string_view table) const {
  if (table == "dot1q") return dot1qLines();
  if (table == "esiPortMaps") return portMapLines();
  return unprogrammedRouteLines();
}

void Dot1qDecapAgent::printChip(std::ostream& os) const {
  os << "chip dot1q:\n" << block(dot1qLines());
  os << "chip esiPortMaps:\n" << block(portMapLines());
}

void Dot1qDecapAgent::printOutputs(std::ostream& os) const {
  os << "lfibHwStatus unprogrammedRoute:\n" << block(unprogrammedRouteLines());
}

void Dot1qDecapAgent::publish(Publisher& p) {
  p.mirror<UnprogrammedRoutesTable>([this](Publisher::Rows<UnprogrammedRoutesTable>& rows) {
    for (auto [key, rc] : lfibHwStatus->unprogrammedRouteWalk()) rows.put(key, rc);
  });
}

void Dot1qDecapAgent::draw(DotGraph& graph) const { drawDot1qDecap(*this, graph); }

// The dot1q drain, its retries while the chip has room, the backlog drain, and the retries of
// parked routes that could now go through.
bool Dot1qDecapAgent::busy() const {
  if (const auto& sm = floodingDot1qSm) {
    if (reviewPending(sm->reviewIntfVlan()->task())) return true;
    if (reviewPending(sm->reviewUnprogrammed()->task()) && chip->dot1q().size() < chip->dot1qSize())
      return true;
  }
  if (const auto& sm = decapSm) {
    if (reviewPending(sm->reviewRouteKeyBacklog()->task())) return true;
    if (reviewPending(sm->reviewUnprogrammed()->task()) && parkedRouteCouldMove(*this)) return true;
  }
  return false;
}

void Dot1qDecapAgent::count(Counters& c) const {
  c["dot1qChecked"] += chip->dot1q().size();
  c["portMapsChecked"] += chip->portMaps().size();
}

std::optional<CheckFailure> Dot1qDecapAgent::check(Counters* counters) const {
  return checkDot1qDecap(*this, counters);
}

ExpectedTables Dot1qDecapAgent::finalExpectations() const {
  std::vector<std::string> dot1q, portMaps;
  for (const auto& [key, tag] : compareDot1q(*this, nullptr).wanted)
    dot1q.push_back(dot1qLine(key, tag));
  for (const auto& [label, intf] : comparePortMaps(*this, nullptr).wanted) {
    portMaps.push_back(portMapLine(label, intf));
  }
  return {{"dot1q", dot1q}, {"esiPortMaps", portMaps}};
}

// Inputs, outputs and machines by their digests; the chip part is the chip's.
void Dot1qDecapAgent::digest(Kiv::Digest& d) const {
  d.add(mplsConfig);
  d.add(vlanStatusDir);
  d.add(lfibStatus);
  d.add(lfibTrackingStatus);
  d.add(lfibHwStatus);
  d.add(floodingDot1qSm);
  d.add(decapSm);
}

}  // namespace Sim
