#include "sim/live/Translator.h"

#include <algorithm>

#include "sim/families/floodSet/FloodSetActions.h"
#include "sim/families/macFec/MacFecActions.h"
#include "sim/families/tunnelEsi/TunnelEsiActions.h"

namespace Live {

namespace tunnelEsi = Sim::tunnelEsi;
namespace macFec = Sim::macFec;
namespace floodSet = Sim::floodSet;

namespace {

// Tunnel type 1: a tunnel towards a remote edge, its index the edge's IPv4 address, so that an
// edge names the same tunnel in every run and in every scenario written from one.
std::uint64_t tunnelValue(std::uint32_t address) { return (1ull << 32) | address; }

L2Rib::Dest floodDest(std::uint32_t edge, std::uint32_t label) {
  return L2Rib::Dest::mpls(Tunnel::TunnelTable::TunnelId(tunnelValue(edge)),
                           Quil::MplsLabel(label));
}

// Takes a reference on the object of `key`, made by `make(id)` when it is new.
template <class Objects, class K, class Make>
std::uint32_t acquire(Objects& objects, const K& key, Make make) {
  auto it = objects.byKey.find(key);
  if (it != objects.byKey.end()) {
    ++it->second.refs;
    return it->second.id;
  }
  const std::uint32_t id = objects.ids.take();
  make(id);
  objects.byKey.emplace(key, typename Objects::Obj{id, 1});
  objects.byId.emplace(id, key);
  return id;
}

// Drops a reference on object `id`: its key when that was the last one (the object goes).
template <class Objects>
std::optional<typename decltype(Objects::byId)::mapped_type> drop(Objects& objects,
                                                                  std::uint32_t id) {
  auto key = objects.byId.at(id);
  auto& obj = objects.byKey.at(key);
  if (--obj.refs > 0) return std::nullopt;
  objects.byKey.erase(key);
  objects.byId.erase(id);
  objects.ids.give(id);
  return key;
}

}  // namespace

Quil::IntfId tunnelOf(std::uint32_t address) {
  return Quil::DynamicTunnelIntfId::intfId(tunnelValue(address));
}

std::uint32_t Translator::Ids::take() {
  if (freed.empty()) return next++;
  const std::uint32_t id = *freed.begin();
  freed.erase(freed.begin());
  return id;
}

bool Translator::Use::samePlace(const Use& o) const {
  if (type != o.type || effect != o.effect) return false;
  switch (type) {
    case ethernetSegment:
      return segment == o.segment;
    case autoDiscovery:
      return segment == o.segment && edge == o.edge;
    case inclusiveMulticast:
      return vlan == o.vlan && edge == o.edge && label == o.label;
    default:
      return vlan == o.vlan && mac == o.mac;
  }
}

Translator::Translator(const Config& config) : config_(config) {}

Translator::Use Translator::use(const Route& r) const {
  Use u;
  u.type = r.type;
  u.edge = r.edge();
  u.label = r.type == autoDiscovery ? *r.esiLabel : r.label;
  u.mac = r.mac;
  if (r.type == macIp || r.type == inclusiveMulticast) {
    // The VLAN whose EVPN instance the route's targets name: the first that one does.
    bool found = false;
    for (const auto& t : r.routeTargets) {
      if (auto v = config_.vlanOfTarget.find(t); v != config_.vlanOfTarget.end()) {
        u.vlan = v->second;
        found = true;
        break;
      }
    }
    if (!found) {
      std::string targets;
      for (const auto& t : r.routeTargets) targets += (targets.empty() ? "" : ", ") + t;
      throw RouteError("no VLAN here has route target " +
                       (targets.empty() ? std::string("(none given)") : targets));
    }
  } else {
    u.segment = config_.segmentOf(r.esi);
  }
  // This switch's own routes, and those of segments it is not on, change nothing here.
  u.effect = !r.own && u.edge != config_.address && u.edge != 0 &&
             (u.segment || r.type == macIp || r.type == inclusiveMulticast);
  return u;
}

void Translator::unusable(const std::string& reason, const std::string& key) {
  if (unusable_[reason]++ == 0 && onFirstUnusable) onFirstUnusable(reason, key);
}

void Translator::path(const nlohmann::json& p, Actions& out) {
  Route r;
  try {
    r = readRoute(p);
  } catch (const RouteError& e) {
    // The route named by its NLRI, as far as there is one.
    const auto* nlri = p.is_object() && p.contains("nlri") ? &p["nlri"] : &p;
    unusable(e.what(), nlri->dump().substr(0, 160));
    return;
  }
  if (r.withdrawal) {
    withdraw(r.key, out);
  } else {
    add(r, out);
  }
}

void Translator::table(const nlohmann::json& paths, Actions& out) {
  if (!paths.is_array()) {
    unusable("malformed: a table that is not a list of paths", paths.dump().substr(0, 120));
    return;
  }
  // gobgp lists a table in no fixed order: by key, one table gives one sequence of actions.
  std::vector<std::pair<std::string, const nlohmann::json*>> sorted;
  for (const auto& p : paths) {
    std::string key;
    try {
      key = readRoute(p).key;
    } catch (const RouteError&) {
    }
    sorted.emplace_back(key, &p);
  }
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& [key, p] : sorted) path(*p, out);
}

void Translator::add(const Route& r, Actions& out) {
  auto it = held_.find(r.key);
  if (it != held_.end()) confirmed_ += it->second.stale;
  if (it != held_.end() && it->second.content == r.content) {
    it->second.stale = false;
    return;
  }
  Use u;
  try {
    u = use(r);
  } catch (const RouteError& e) {
    // What the route's earlier form programmed stays.
    unusable(e.what(), r.key);
    if (it != held_.end()) it->second.stale = false;
    return;
  }
  if (it == held_.end()) {
    held_.emplace(r.key, Held{u, r.content, false});
    on(r.key, u, out);
    return;
  }
  // An update: the new form first, then the old one's place let go if it moved (make before
  // break: a host never loses its path in between).
  const Use old = it->second.use;
  it->second = Held{u, r.content, false};
  on(r.key, u, out);
  if (!old.samePlace(u)) off(r.key, old, out);
}

void Translator::withdraw(const std::string& key, Actions& out) {
  auto it = held_.find(key);
  if (it == held_.end()) return;  // a route never used
  const Use u = it->second.use;
  held_.erase(it);
  off(key, u, out);
}

void Translator::markStale() {
  for (auto& [key, h] : held_) h.stale = true;
}

std::size_t Translator::staleCount() const {
  return std::count_if(held_.begin(), held_.end(), [](const auto& h) { return h.second.stale; });
}

void Translator::dropStale(Actions& out) {
  std::vector<std::string> stale;
  for (const auto& [key, h] : held_) {
    if (h.stale) stale.push_back(key);
  }
  for (const auto& key : stale) withdraw(key, out);
}

// An edge's ESI label for a segment, as the agent is told it: when its first route comes, and
// when the first route changes.
void Translator::esiLabelTold(const Use& u, std::uint32_t label, Actions& out) {
  out.push_back(tunnelEsi::action(tunnelEsi::RemoteEsiLabel{
      u.segment->intf, tunnelOf(u.edge), Evpn::EncapTypeLabel::mpls(Quil::MplsLabel(label))}));
}

void Translator::on(const std::string& key, const Use& u, Actions& out) {
  if (!u.effect) return;
  switch (u.type) {
    case ethernetSegment:
      segmentEdges_[u.segment][key] = u.edge;
      elect(*u.segment, out);
      break;
    case autoDiscovery: {
      // The edge's label is that of its first route (by key): told when that one changes.
      auto& labels = esiLabels_[{u.segment, u.edge}];
      const std::optional<std::uint32_t> before =
          labels.empty() ? std::nullopt : std::optional(labels.begin()->second);
      labels[key] = u.label;
      if (before != labels.begin()->second) esiLabelTold(u, labels.begin()->second, out);
      break;
    }
    case inclusiveMulticast: {
      const auto dest = floodDest(u.edge, u.label);
      auto& routes = floodMembers_[{u.vlan.value(), dest}];
      if (routes.empty()) {
        out.push_back(floodSet::action(
            floodSet::FloodSetDest{u.vlan, Quil::EthAddr::broadcast(), dest, true, std::nullopt}));
      }
      routes.insert(key);
      break;
    }
    default: {
      const HostKey host{u.vlan.value(), u.mac.value()};
      hostPaths_[host][key] = {u.edge, u.label};
      hostChanged(host, out);
    }
  }
}

void Translator::off(const std::string& key, const Use& u, Actions& out) {
  if (!u.effect) return;
  switch (u.type) {
    case ethernetSegment: {
      auto& edges = segmentEdges_[u.segment];
      edges.erase(key);
      elect(*u.segment, out);
      break;
    }
    case autoDiscovery: {
      const std::pair place{u.segment, u.edge};
      auto& labels = esiLabels_[place];
      const std::uint32_t before = labels.begin()->second;
      labels.erase(key);
      if (labels.empty()) {
        esiLabels_.erase(place);
        out.push_back(
            tunnelEsi::action(tunnelEsi::RemoteEsiLabelDel{u.segment->intf, tunnelOf(u.edge)}));
      } else if (labels.begin()->second != before) {
        esiLabelTold(u, labels.begin()->second, out);
      }
      break;
    }
    case inclusiveMulticast: {
      const auto dest = floodDest(u.edge, u.label);
      const std::pair place{u.vlan.value(), dest};
      auto& routes = floodMembers_[place];
      routes.erase(key);
      if (routes.empty()) {
        floodMembers_.erase(place);
        out.push_back(
            floodSet::action(floodSet::FloodSetDestDel{u.vlan, Quil::EthAddr::broadcast(), dest}));
      }
      break;
    }
    default: {
      const HostKey host{u.vlan.value(), u.mac.value()};
      hostPaths_[host].erase(key);
      hostChanged(host, out);
    }
  }
}

void Translator::elect(const LocalSegment& segment, Actions& out) {
  // The segment's edges in address order, this switch among them.
  std::set<std::uint32_t> edges{config_.address};
  for (const auto& [key, edge] : segmentEdges_[&segment]) edges.insert(edge);
  const std::vector<std::uint32_t> ordered(edges.begin(), edges.end());
  for (const auto& v : config_.vlans) {
    const std::uint32_t df = ordered[v.vlan.value() % ordered.size()];
    const std::pair place{segment.intf, v.vlan.value()};
    auto told = forwarders_.find(place);
    if (df == config_.address) {
      if (told == forwarders_.end()) continue;
      forwarders_.erase(told);
      out.push_back(tunnelEsi::action(tunnelEsi::DesignatedForwarderDel{segment.intf, v.vlan}));
    } else if (told == forwarders_.end() || told->second != df) {
      forwarders_[place] = df;
      out.push_back(
          tunnelEsi::action(tunnelEsi::DesignatedForwarder{segment.intf, v.vlan, tunnelOf(df)}));
    }
  }
}

void Translator::hostChanged(const HostKey& host, Actions& out) {
  std::set<Path> distinct;
  if (auto p = hostPaths_.find(host); p != hostPaths_.end()) {
    for (const auto& [key, path] : p->second) distinct.insert(path);
    if (p->second.empty()) hostPaths_.erase(p);
  }
  const Bridging::VlanId vlan(host.first);
  const Quil::EthAddr mac(host.second);
  auto was = heads_.find(host);
  if (distinct.empty()) {
    if (was == heads_.end()) return;
    const auto old = was->second;
    heads_.erase(was);
    out.push_back(macFec::action(macFec::HostDel{vlan, mac}));
    release(old, out);
    return;
  }
  const auto head = acquireHead({distinct.begin(), distinct.end()}, out);
  if (was != heads_.end() && was->second == head) {
    release(head, out);  // the reference just taken: the host already points there
    return;
  }
  out.push_back(macFec::action(macFec::Host{vlan, mac, head}));
  if (was != heads_.end()) release(was->second, out);
  heads_[host] = head;
}

L2Rib::ObjTuple Translator::acquireDest(std::uint32_t edge, Actions& out) {
  return L2Rib::ObjTuple(acquire(dests_, edge,
                                 [&](std::uint32_t id) {
                                   out.push_back(macFec::action(macFec::Dest{id, tunnelOf(edge)}));
                                 }),
                         L2Rib::tableTypeDest_);
}

L2Rib::ObjTuple Translator::acquireLabel(const Path& p, Actions& out) {
  return L2Rib::ObjTuple(
      acquire(labels_, p,
              [&](std::uint32_t id) {
                const auto dest = acquireDest(p.first, out);
                out.push_back(macFec::action(macFec::Label{id, Quil::MplsLabel(p.second), dest}));
              }),
      L2Rib::tableTypeLabel_);
}

L2Rib::ObjTuple Translator::acquireHead(const std::vector<Path>& paths, Actions& out) {
  if (paths.size() == 1) return acquireLabel(paths.front(), out);
  // One ECMP group holds 256 paths: the edges past them are left out.
  const std::vector<Path> group(paths.begin(),
                                paths.begin() + std::min<std::size_t>(paths.size(), 256));
  return L2Rib::ObjTuple(acquire(loadBalances_, group,
                                 [&](std::uint32_t id) {
                                   std::vector<L2Rib::ObjTuple> next;
                                   for (const auto& p : group) next.push_back(acquireLabel(p, out));
                                   out.push_back(macFec::action(macFec::LoadBalance{id, next}));
                                 }),
                         L2Rib::tableTypeLoadBalance_);
}

void Translator::release(L2Rib::ObjTuple o, Actions& out) {
  switch (o.tableType()) {
    case L2Rib::tableTypeLoadBalance_:
      if (auto paths = drop(loadBalances_, o.id())) {
        out.push_back(macFec::action(macFec::LoadBalanceDel{o.id()}));
        for (const auto& p : *paths)
          release(L2Rib::ObjTuple(labels_.byKey.at(p).id, L2Rib::tableTypeLabel_), out);
      }
      break;
    case L2Rib::tableTypeLabel_:
      if (auto path = drop(labels_, o.id())) {
        out.push_back(macFec::action(macFec::LabelDel{o.id()}));
        release(L2Rib::ObjTuple(dests_.byKey.at(path->first).id, L2Rib::tableTypeDest_), out);
      }
      break;
    default:
      if (drop(dests_, o.id())) out.push_back(macFec::action(macFec::DestDel{o.id()}));
  }
}

}  // namespace Live
