#include "sim/families/dot1qDecap/Dot1qDecapActions.h"

#include <charconv>
#include <sstream>

#include "Oba/ObaCommon.h"

namespace Sim::dot1qDecap {

Mpls::LfibViaType ViaType::read(const Reader& r, const YAML::Node& n) const {
  const char* const what = "a via type (1-6; 6: Ethernet-segment filter)";
  const std::uint32_t type = r.count(n, what);
  if (type < 1 || type > 6) r.failExpected(n, what);
  return static_cast<Mpls::LfibViaType>(type);
}

std::string RestartAlone::Machine::read(const Reader& r, const YAML::Node& n) const {
  const char* const what = "a machine of the family (floodingDot1q or esiFilteringDecap)";
  std::string m = r.scalar(n, what);
  if (m != "floodingDot1q" && m != "esiFilteringDecap") r.failExpected(n, what);
  return m;
}

void VlanMember::apply(Dot1qDecapAgent& f) const {
  f.vlanStatusDir->vlanStatusIs(vlan)->vlanPortStatusIs(intf, true);
}

void VlanMemberDel::apply(Dot1qDecapAgent& f) const {
  if (auto vs = f.vlanStatusDir->vlanStatus(vlan)) vs->vlanPortStatusDel(intf);
}

void VlanStatus::apply(Dot1qDecapAgent& f) const { f.vlanStatusDir->vlanStatusIs(vlan); }

void VlanStatusDel::apply(Dot1qDecapAgent& f) const { f.vlanStatusDir->vlanStatusDel(vlan); }

void Dot1q::apply(Dot1qDecapAgent& f) const { f.evpnStatus->vlanToDot1qIs(vlan, tag); }

void Dot1qDel::apply(Dot1qDecapAgent& f) const { f.evpnStatus->vlanToDot1qDel(vlan); }

void Dot1qEnabled::apply(Dot1qDecapAgent& f) const { f.mplsConfig->vlanServiceDot1qEnabledIs(on); }

void Route::apply(Dot1qDecapAgent& f) const { f.routeIs(label, Mpls::LfibViaSetKey(viaSet)); }

void RouteDel::apply(Dot1qDecapAgent& f) const { f.routeDel(label); }

void ViaSet::apply(Dot1qDecapAgent& f) const {
  f.viaSetIs(Mpls::LfibViaSetKey(set), Mpls::LfibViaKey(type, index));
}

void ViaSetDel::apply(Dot1qDecapAgent& f) const { f.viaSetDel(Mpls::LfibViaSetKey(set)); }

void FilterVia::apply(Dot1qDecapAgent& f) const { f.filterViaIs(index, intf); }

void FilterViaDel::apply(Dot1qDecapAgent& f) const { f.filterViaDel(index); }

void Backlog::apply(Dot1qDecapAgent& f) const { f.backlogIs(label); }

void ChipTables::apply(Dot1qDecapAgent& f) const { f.chip->sizesIs(dot1q, portMaps); }

// The chip operations a chipRefuse rule may name, with the codes each may answer: a dot1q
// mapping's hardware status, a port map's label-forwarding code (an enumerator's name, or any
// other number the chip might answer).
std::vector<ChipOperation> chipOperations() {
  auto hwRc = [](const Reader& r, const YAML::Node& n) {
    return static_cast<std::uint32_t>(
        r.parsed(n, "notProgrammed or invalidHwId", Oba::parseHwProgrammingStatus));
  };
  auto hwText = [](std::uint32_t v) {
    return std::string(Oba::toString(static_cast<Oba::HwProgrammingStatus>(v)));
  };
  // A port map's code: an enumerator's name, or any other number the chip might answer.
  const char* const lfibWhat = "a return code (lfibHwProgramming..., or a number above 3)";
  auto lfibRc = [lfibWhat](const Reader& r, const YAML::Node& n) {
    const std::string s = r.scalar(n, lfibWhat);
    std::uint32_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec == std::errc() && end == s.data() + s.size()) {
      if (v == 0) r.failExpected(n, lfibWhat);
      return v;
    }
    const auto rc = r.parsed(n, lfibWhat, Mpls::parseLfibHwProgrammingReturnCode);
    if (rc == Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingSuccess) {
      r.failExpected(n, lfibWhat);
    }
    return static_cast<std::uint32_t>(rc);
  };
  auto lfibText = [](std::uint32_t v) {
    if (v > 3) return std::to_string(v);
    std::ostringstream os;
    os << static_cast<Mpls::LfibHwProgrammingReturnCode>(v);
    return os.str();
  };
  const auto notProgrammed = static_cast<std::uint32_t>(Oba::HwProgrammingStatus::notProgrammed);
  const auto failed =
      static_cast<std::uint32_t>(Mpls::LfibHwProgrammingReturnCode::lfibHwProgrammingFailed);
  return {
      {"createVlanToDot1qMapping", "notProgrammed or invalidHwId", hwRc, notProgrammed, true, true,
       hwText},
      {"createEsiPortMap", lfibWhat, lfibRc, failed, true, false, lfibText,
       [](const Reader& r, const YAML::Node& n) { return r.segment(n); }},
  };
}

std::vector<ActionKind> actionKinds() {
  return Sim::actionKinds<Dot1qDecapAgent, VlanMember, VlanMemberDel, VlanStatus, VlanStatusDel,
                          Dot1q, Dot1qDel, Dot1qEnabled, Route, RouteDel, ViaSet, ViaSetDel,
                          FilterVia, FilterViaDel, Backlog, ChipTables, RestartAlone>();
}

std::string dot1qEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"port", "vlan", "dot1q"}, "a dot1q mapping");
  return dot1qLine({r.port(r.field(n, "port")), r.vlan(r.field(n, "vlan"))},
                   tag.read(r, r.field(n, "dot1q")));
}

std::string portMapEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"label", "intf"}, "an ESI port map");
  return portMapLine(r.mplsLabel(r.field(n, "label")), r.segment(r.field(n, "intf")));
}

std::string unprogrammedRouteEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"label", "reason"}, "an unprogrammed route");
  std::ostringstream os;
  os << "label " << r.mplsLabel(r.field(n, "label")) << " "
     << r.parsed(r.field(n, "reason"), "a return code (lfibHwProgramming...)",
                 Mpls::parseLfibHwProgrammingReturnCode);
  return os.str();
}

}  // namespace Sim::dot1qDecap
