#include "sim/families/dot1qDecap/Dot1qDecapCheck.h"

#include <set>
#include <sstream>

#include "Oba/ObaKeys.h"
#include "sim/FamilyHelpers.h"

namespace Sim {

namespace {

using PortVlan = Dot1qDecapChip::PortVlan;
using Rc = Mpls::LfibHwProgrammingReturnCode;
constexpr auto filterType = Mpls::LfibViaType::viaTypeEvpnEthernetSegmentFilter;

template <class T>
std::string orNone(const T* v) {
  return v ? findingLine(*v) : std::string("none");
}

// Which pair of the dot1q machine holds a physical (port, VLAN), as programmed or as parked.
struct Holder {
  Quil::IntfId logical;
  bool programmed;
};
std::map<PortVlan, Holder> holders(const Oba::EvpnFloodingDot1qSm& sm) {
  std::map<PortVlan, Holder> out;
  for (auto [key, st] : sm.dot1qStatusWalk()) {
    for (auto [port, m] : st.programmedWalk()) {
      out[PortVlan{port, key.vlanId()}] = Holder{key.intfId(), true};
    }
    for (auto [port, m] : st.unprogrammedWalk()) {
      out.try_emplace(PortVlan{port, key.vlanId()}, Holder{key.intfId(), false});
    }
  }
  return out;
}

// The route's via key, when the route and its via set are published.
std::optional<Mpls::LfibViaKey> viaKeyOf(const Mpls::LfibStatus& lfib, Quil::MplsLabel label) {
  auto route = lfib.route(Mpls::RouteKey(label));
  if (!route) return std::nullopt;
  auto set = lfib.viaSet(route->viaSetKey);
  if (!set) return std::nullopt;
  return set->viaKey;
}

// A published route whose via is of another type than the filter via: the machine skips it and
// leaves whatever it held for the route as it was.
bool otherViaType(const Mpls::LfibStatus& lfib, Quil::MplsLabel label) {
  auto via = viaKeyOf(lfib, label);
  return via && via->viaType() != filterType;
}

}  // namespace

Dot1qTable expectedDot1q(const Bridging::VlanStatusDir& vlans, const Evpn::EvpnStatus& evpnStatus,
                         const Oba::ObaCommonSmData& acsd) {
  Dot1qTable out;
  for (auto [vlan, vs] : vlans.vlanStatusWalk()) {
    auto tag = evpnStatus.vlanToDot1q(vlan);
    if (!tag) continue;
    for (auto [intf, forwarding] : vs->vlanPortStatusWalk()) {
      if (!intf.isPortChannel()) {
        out.insert_or_assign(PortVlan{intf, vlan}, *tag);
        continue;
      }
      if (auto members = acsd.lagToPort(intf)) {
        for (Quil::IntfId port : members->ports()) out.insert_or_assign(PortVlan{port, vlan}, *tag);
      }
    }
  }
  return out;
}

PortMapTable filterRoutes(const Mpls::LfibStatus& lfib) {
  PortMapTable out;
  for (auto [key, route] : lfib.routeWalk()) {
    auto set = lfib.viaSet(route.viaSetKey);
    if (!set || set->viaKey.viaType() != filterType) continue;
    auto via = lfib.evpnEthernetSegmentFilterVia(set->viaKey);
    if (!via || *via == Mpls::LfibEvpnEthernetSegmentFilterVia()) continue;
    out.emplace(key.topLabel(), via->intfId);
  }
  return out;
}

// Walks two ordered tables side by side: f(key, expected or null, actual or null).
template <class Table, class F>
void merge(const Table& expected, const Table& actual, F f) {
  auto e = expected.begin();
  auto a = actual.begin();
  while (e != expected.end() || a != actual.end()) {
    if (a == actual.end() || (e != expected.end() && e->first < a->first)) {
      f(e->first, &e->second, nullptr);
      ++e;
    } else if (e == expected.end() || a->first < e->first) {
      f(a->first, nullptr, &a->second);
      ++a;
    } else {
      f(e->first, &e->second, &a->second);
      ++e;
      ++a;
    }
  }
}

Comparison<Dot1qTable> compareDot1q(const Dot1qDecapAgent& agent, Counters* allowances) {
  Comparison<Dot1qTable> out;
  const Dot1qTable expected = expectedDot1q(*agent.vlanStatusDir, *agent.evpnStatus, *agent.acsd);
  std::map<PortVlan, Holder> held;
  if (agent.floodingDot1qSm) held = holders(*agent.floodingDot1qSm);
  merge(expected, agent.chip->dot1q(),
        [&](const PortVlan& key, const Bridging::VlanIdOrNone* want,
            const Bridging::VlanIdOrNone* got) {
          if (want && got && *want == *got) {
            out.wanted.emplace(key, *want);
            return;
          }
          // Refused by the chip (or its table was full) and parked: the review retries it.
          auto h = held.find(key);
          if (want && !got && h != held.end() && !h->second.programmed) {
            if (allowances) ++(*allowances)["parkedDot1q"];
            return;
          }
          if (want) out.wanted.emplace(key, *want);
          out.diffs.push_back(findingLine(key.first, " vlan ", key.second, ": expected dot1q ",
                                          orNone(want), ", actual ", orNone(got)));
        });
  return out;
}

Comparison<PortMapTable> comparePortMaps(const Dot1qDecapAgent& agent, Counters* allowances) {
  Comparison<PortMapTable> out;
  const Mpls::LfibStatus& lfib = *agent.lfibStatus;
  const PortMapTable expected = filterRoutes(lfib);
  const PortMapTable& actual = agent.chip->portMaps();
  const auto& sm = agent.decapSm;
  auto count = [&](const char* what) {
    if (allowances) ++(*allowances)[what];
  };
  merge(expected, actual,
        [&](Quil::MplsLabel label, const Quil::IntfId* want, const Quil::IntfId* got) {
          const Mpls::RouteKey key(label);
          if (want && got && *want == *got) {
            out.wanted.emplace(label, *want);
            return;
          }
          if (got && !want && sm && otherViaType(lfib, label)) {
            // A finding: the machine skips a route whose via turned to another type, and its port
            // map stays, held by the machine for the route.
            auto via = sm->routeEsiFilterVia(key);
            if (via && via->intfId == *got) {
              count("otherViaType");
              out.wanted.emplace(label, *got);
              return;
            }
          }
          if (want && !got && sm) {
            auto parked = agent.lfibHwStatus->unprogrammedRoute(key);
            if (parked == Rc::lfibHwProgrammingIntfConflict) {
              // One route per interface: another route's map holds it, as the machine records.
              auto owner = sm->intfRoute(*want);
              auto ownerMap = owner ? actual.find(owner->topLabel()) : actual.end();
              if (owner && *owner != key && ownerMap != actual.end() && ownerMap->second == *want) {
                count("parkedConflict");
                return;
              }
            } else if (parked == Rc::lfibHwProgrammingResourceFull ||
                       parked == Rc::lfibHwProgrammingFailed) {
              count("parkedRefused");  // retried every five seconds
              return;
            } else if (!parked && !sm->routeEsiFilterViaHas(key)) {
              // The chip answered a code the machine does not define: it records nothing, and
              // nothing retries the route until it changes.
              auto rc = agent.chip->lastPortMapRc().find(label);
              if (rc != agent.chip->lastPortMapRc().end() &&
                  static_cast<std::uint32_t>(rc->second) > 3) {
                count("undefinedRc");
                return;
              }
            }
          }
          if (want) out.wanted.emplace(label, *want);
          out.diffs.push_back(findingLine("label ", label, ": expected intf ", orNone(want),
                                          ", actual ", orNone(got)));
        });
  // Parked routes that are not filter routes: only those whose via turned to another type (the
  // machine skips them and leaves them parked).
  for (auto [key, rc] : agent.lfibHwStatus->unprogrammedRouteWalk()) {
    if (expected.contains(key.topLabel())) continue;
    if (otherViaType(lfib, key.topLabel())) {
      count("parkedOtherType");
      continue;
    }
    out.diffs.push_back(findingLine("label ", key.topLabel(), ": parked (", rc,
                                    ") but not a route with a filter via"));
  }
  return out;
}

std::vector<std::string> checkFloodingDot1qSm(const Dot1qDecapAgent& agent) {
  std::vector<std::string> out;
  const auto& sm = agent.floodingDot1qSm;
  if (!sm) return {"the machine is not running"};

  // intfVlanSet and vlanIntfSet hold the same pairs, none left empty: the members of the VLANs.
  std::set<Oba::IntfVlanKey> pairs, reverse, members;
  for (auto [intf, ivs] : sm->intfVlanSetWalk()) {
    if (!ivs->vlanIds()) out.push_back(findingLine("intfVlanSet ", intf, " is empty"));
    for (auto [vlan, m] : ivs->vlanIdWalk()) pairs.insert(Oba::IntfVlanKey(intf, vlan));
  }
  for (auto [vlan, vis] : sm->vlanIntfSetWalk()) {
    if (!vis->intfIds()) out.push_back(findingLine("vlanIntfSet ", vlan, " is empty"));
    for (auto [intf, m] : vis->intfIdWalk()) reverse.insert(Oba::IntfVlanKey(intf, vlan));
  }
  if (pairs != reverse) out.push_back("intfVlanSet and vlanIntfSet hold different pairs");
  for (auto [vlan, vs] : agent.vlanStatusDir->vlanStatusWalk()) {
    for (auto [intf, m] : vs->vlanPortStatusWalk()) members.insert(Oba::IntfVlanKey(intf, vlan));
  }
  const bool draining = sm->reviewIntfVlan()->task()->taskScheduled();
  if (sm->intfVlanQueues() && !draining) out.push_back("pairs are queued but no drain is due");
  if (!draining && pairs != members) {
    out.push_back(
        findingLine(pairs.size(), " member pairs held, ", members.size(), " in the VLANs"));
  }

  // The tag in use is the VLAN's, for member pairs only.
  for (auto [key, tag] : sm->intfVlanDot1qWalk()) {
    if (!pairs.contains(key)) {
      out.push_back(
          findingLine("intfVlanDot1q ", key.intfId(), " vlan ", key.vlanId(), " not a member"));
    }
    auto current = agent.evpnStatus->vlanToDot1q(key.vlanId());
    if (!draining && (!current || *current != tag)) {
      out.push_back(findingLine("intfVlanDot1q ", key.intfId(), " vlan ", key.vlanId(), " holds ",
                                tag, ", the VLAN has ", orNone(current ? &*current : nullptr)));
    }
  }

  // Port bookkeeping: a pair with ports has its tag; programmed ports are in the chip with it;
  // programmed and parked are apart; parked ports and unprogrammedDot1q agree.
  for (auto [key, st] : sm->dot1qStatusWalk()) {
    auto tag = sm->intfVlanDot1q(key);
    if (!tag)
      out.push_back(
          findingLine("dot1qStatus ", key.intfId(), " vlan ", key.vlanId(), " without a tag"));
    if (st.unprogrammeds() && !sm->unprogrammedDot1qHas(key)) {
      out.push_back(findingLine("dot1qStatus ", key.intfId(), " vlan ", key.vlanId(),
                                " has parked ports but is not in unprogrammedDot1q"));
    }
    for (auto [port, m] : st.programmedWalk()) {
      if (st.unprogrammedHas(port)) {
        out.push_back(findingLine(key.intfId(), " vlan ", key.vlanId(), ": ", port,
                                  " programmed and parked"));
      }
      auto it = agent.chip->dot1q().find(PortVlan{port, key.vlanId()});
      if (it == agent.chip->dot1q().end() || (tag && it->second != *tag)) {
        out.push_back(findingLine(key.intfId(), " vlan ", key.vlanId(), ": ", port,
                                  " is held programmed but the chip does not have its tag"));
      }
    }
  }
  for (auto [key, m] : sm->unprogrammedDot1qWalk()) {
    auto st = sm->dot1qStatus(key);
    if (!st || !st->unprogrammeds()) {
      out.push_back(findingLine("unprogrammedDot1q ", key.intfId(), " vlan ", key.vlanId(),
                                " has no parked port"));
    }
  }
  return out;
}

std::vector<std::string> checkDecapSm(const Dot1qDecapAgent& agent) {
  std::vector<std::string> out;
  const auto& sm = agent.decapSm;
  if (!sm) return {"the machine is not running"};
  // routeEsiFilterVia[r].intf = i exactly when intfRoute[i] = r; a programmed route is not parked
  // and its map is in the chip.
  for (auto [key, via] : sm->routeEsiFilterViaWalk()) {
    auto owner = sm->intfRoute(via.intfId);
    if (!owner || *owner != key) {
      out.push_back(
          findingLine("route ", key.topLabel(), " holds ", via.intfId, ", intfRoute does not"));
    }
    if (agent.lfibHwStatus->unprogrammedRouteHas(key)) {
      out.push_back(findingLine("route ", key.topLabel(), " is programmed and parked"));
    }
    auto map = agent.chip->portMaps().find(key.topLabel());
    if (map == agent.chip->portMaps().end() || map->second != via.intfId) {
      out.push_back(findingLine("route ", key.topLabel(), " is held programmed on ", via.intfId,
                                " but the chip does not have its port map"));
    }
  }
  for (auto [intf, key] : sm->intfRouteWalk()) {
    auto via = sm->routeEsiFilterVia(key);
    if (!via || via->intfId != intf) {
      out.push_back(findingLine("intfRoute ", intf, " -> ", key.topLabel(), " without its via"));
    }
  }
  if (agent.lfibTrackingStatus->routeKeyBacklogs() &&
      !sm->reviewRouteKeyBacklog()->task()->taskScheduled()) {
    out.push_back("routes are in the backlog but no drain is due");
  }
  return out;
}

bool parkedRouteCouldMove(const Dot1qDecapAgent& agent) {
  const auto& sm = agent.decapSm;
  if (!sm || !agent.lfibHwStatus->unprogrammedRoutes()) return false;
  const PortMapTable routes = filterRoutes(*agent.lfibStatus);
  const auto& chip = *agent.chip;
  for (auto [key, rc] : agent.lfibHwStatus->unprogrammedRouteWalk()) {
    auto r = routes.find(key.topLabel());
    if (r == routes.end()) {
      if (otherViaType(*agent.lfibStatus, key.topLabel())) continue;  // skipped for good
      return true;                                                    // would be dropped
    }
    if (rc == Rc::lfibHwProgrammingIntfConflict) {
      auto owner = sm->intfRoute(r->second);
      if (!owner || *owner == key) return true;
      continue;
    }
    if (chip.portMaps().size() < chip.portMapSize() || chip.portMaps().contains(key.topLabel()))
      return true;
  }
  return false;
}

std::optional<CheckFailure> checkDot1qDecap(const Dot1qDecapAgent& agent, Counters* allowances) {
  if (auto l = checkFloodingDot1qSm(agent); !l.empty()) {
    return CheckFailure{"floodingDot1q machine", std::move(l)};
  }
  if (auto l = checkDecapSm(agent); !l.empty()) {
    return CheckFailure{"esiFilteringDecap machine", std::move(l)};
  }
  if (auto c = compareDot1q(agent, allowances); !c.diffs.empty()) {
    return CheckFailure{"dot1q", std::move(c.diffs)};
  }
  if (auto c = comparePortMaps(agent, allowances); !c.diffs.empty()) {
    return CheckFailure{"esiPortMaps", std::move(c.diffs)};
  }
  return std::nullopt;
}

}  // namespace Sim
