#include "sim/families/macFec/MacFecActions.h"

#include <charconv>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include "Shoal/Fib.h"

namespace Sim::macFec {

using L2Rib::ObjTuple;

// ---- the values of the family's own forms -------------------------------------------------------

ObjTuple RibObject::read(const Reader& r, const YAML::Node& n) const {
  return r.parsed(
      n, "an object of the RIB (label/N, loadBalance/N or dest/N)", [](const std::string& s) {
        for (auto [prefix, type] : {std::pair{"label/", L2Rib::tableTypeLabel_},
                                    std::pair{"loadBalance/", L2Rib::tableTypeLoadBalance_},
                                    std::pair{"dest/", L2Rib::tableTypeDest_}}) {
          const std::size_t len = std::strlen(prefix);
          if (s.compare(0, len, prefix) != 0) continue;
          std::uint32_t id = 0;
          auto [p, ec] = std::from_chars(s.data() + len, s.data() + s.size(), id);
          if (ec == std::errc() && p == s.data() + s.size() && s.size() > len) {
            return ObjTuple(id, type);
          }
        }
        throw Kiv::RangeException("not an object");
      });
}

namespace {

constexpr auto objects = form::list(ribObject, "a list of objects");

}  // namespace

std::vector<ObjTuple> Paths::read(const Reader& r, const YAML::Node& n) const {
  // One via per path, at an ECMP index: a longer list is none the FEC could hold.
  constexpr std::size_t most = Shoal::Fib::EcmpIndex::max + 1;
  if (n.IsSequence() && n.size() > most) {
    r.fail(n, "expected at most " + std::to_string(most) +
                  " objects (the paths of one ECMP group), got " + std::to_string(n.size()));
  }
  return objects.read(r, n);
}

void Paths::write(std::ostream& os, const std::vector<ObjTuple>& v) const { objects.write(os, v); }

Quil::EthAddr MacAddress::read(const Reader& r, const YAML::Node& n) const { return r.mac(n); }

std::uint32_t ChainLength::read(const Reader& r, const YAML::Node& n) const {
  const std::uint32_t length = r.count(n, "a chain length (2 or 3)");
  if (length != 2 && length != 3) r.failExpected(n, "a chain length (2 or 3)");
  return length;
}

Mox::Range FecNumbers::read(const Reader& r, const YAML::Node& n) const {
  if (!n.IsMap()) r.failExpected(n, "a FEC number range {first: N, last: M}");
  r.onlyKeys(n, {"first", "last"}, "a FEC number range");
  // The machine's own range bounds any the agent gives.
  const auto bound = Oba::ObaMacAddrFecRequestSm::fecNumberRange;
  const YAML::Node firstNode = r.field(n, "first");
  const YAML::Node lastNode = r.field(n, "last");
  const std::uint32_t first = r.count(firstNode, "a first FEC number");
  if (first < bound.min || first > bound.max) r.failExpected(firstNode, "a FEC number 1-1048575");
  const std::uint32_t last = r.count(lastNode, "a last FEC number");
  if (last < first || last > bound.max) {
    r.failExpected(lastNode, "a FEC number from first (" + std::to_string(first) + ") to 1048575");
  }
  return {first, last};
}

void FecNumbers::write(std::ostream& os, const Value& v) const {
  os << "{first: " << v.min << ", last: " << v.max << "}";
}

RibRow RibRowForm::read(const Reader& r, const YAML::Node& n) const {
  if (!n.IsMap()) return {std::nullopt, ribObject.read(r, n)};
  HostDel h;
  HostDel::form().read(r, n, h, action);
  return {Bridging::MacVlanPair{h.vlan, h.mac}, ObjTuple()};
}

void RibRowForm::write(std::ostream& os, const RibRow& v) const {
  if (!v.host) return ribObject.write(os, v.object);
  HostDel::form().write(os, HostDel{v.host->vlanId, v.host->macAddr});
}

// ---- the actions --------------------------------------------------------------------------------

void Host::apply(MacFecAgent& f) const { f.hosts->hostIs({vlan, mac}, L2Rib::HostAndSource(to)); }

void HostDel::apply(MacFecAgent& f) const { f.hosts->hostDel({vlan, mac}); }

void Label::apply(MacFecAgent& f) const {
  f.labels->labelIs(L2Rib::LabelId(id), L2Rib::Label(mpls, next));
}

void LabelDel::apply(MacFecAgent& f) const { f.labels->labelDel(L2Rib::LabelId(id)); }

void LoadBalance::apply(MacFecAgent& f) const {
  f.lbs->loadBalanceIs(L2Rib::LoadBalanceId(id), L2Rib::LoadBalance(next));
}

void LoadBalanceDel::apply(MacFecAgent& f) const {
  f.lbs->loadBalanceDel(L2Rib::LoadBalanceId(id));
}

void Dest::apply(MacFecAgent& f) const {
  f.dests->destIs(L2Rib::DestId(id), L2Rib::Dest::tunnel(Tunnel::TunnelTable::TunnelId(
                                         Quil::DynamicTunnelIntfId::tunnelId(tunnel))));
}

void DestDel::apply(MacFecAgent& f) const { f.dests->destDel(L2Rib::DestId(id)); }

void Corrupt::apply(MacFecAgent& f) const {
  if (row.host) {
    f.hosts->hostCorruptIs(*row.host);
    f.hosts->hostNotify(*row.host);
    return;
  }
  const ObjTuple& o = row.object;
  switch (o.tableType()) {
    case L2Rib::tableTypeLabel_:
      f.labels->labelCorruptIs(o.labelId());
      f.labels->labelNotify(o.labelId());
      break;
    case L2Rib::tableTypeLoadBalance_:
      f.lbs->loadBalanceCorruptIs(o.loadBalanceId());
      f.lbs->loadBalanceNotify(o.loadBalanceId());
      break;
    default:
      f.dests->destCorruptIs(o.destId());
      f.dests->destNotify(o.destId());
      break;
  }
}

namespace {

// The row of `key` written again as the table holds it, or deleted when it holds none.
template <class Walk, class K, class Put, class Del>
void again(Walk walk, const K& key, Put put, Del del) {
  for (auto&& e : walk) {
    if (e.key == key) return put(e.value);
  }
  del();
}

}  // namespace

void Rewrite::apply(MacFecAgent& f) const {
  if (row.host) {
    auto& t = *f.hosts;
    const Bridging::MacVlanPair& host = *row.host;
    return again(
        t.hostWalk(), host, [&](const auto& v) { t.hostIs(host, v); }, [&] { t.hostDel(host); });
  }
  const ObjTuple& o = row.object;
  switch (o.tableType()) {
    case L2Rib::tableTypeLabel_: {
      auto& t = *f.labels;
      return again(
          t.labelWalk(), o.labelId(), [&](const auto& v) { t.labelIs(o.labelId(), v); },
          [&] { t.labelDel(o.labelId()); });
    }
    case L2Rib::tableTypeLoadBalance_: {
      auto& t = *f.lbs;
      return again(
          t.loadBalanceWalk(), o.loadBalanceId(),
          [&](const auto& v) { t.loadBalanceIs(o.loadBalanceId(), v); },
          [&] { t.loadBalanceDel(o.loadBalanceId()); });
    }
    default: {
      auto& t = *f.dests;
      return again(
          t.destWalk(), o.destId(), [&](const auto& v) { t.destIs(o.destId(), v); },
          [&] { t.destDel(o.destId()); });
    }
  }
}

void MaxChainLength::apply(MacFecAgent& f) const { f.maxChainLengthIs(count); }

std::vector<ActionKind> actionKinds() {
  return Sim::actionKinds<MacFecAgent, Host, HostDel, Label, LabelDel, LoadBalance, LoadBalanceDel,
                          Dest, DestDel, Corrupt, Rewrite, MaxChainLength, ReviewInterval,
                          FecNumberRange>();
}

// ---- table entries given as maps ----------------------------------------------------------------

std::string resultEntry(const Reader& r, const YAML::Node& n) {
  r.onlyKeys(n, {"object", "hw"}, "a result row");
  std::ostringstream os;
  os << ribObject.read(r, r.field(n, "object")) << " -> "
     << r.count(r.field(n, "hw"), "a hardware FEC id");
  return os.str();
}

}  // namespace Sim::macFec
