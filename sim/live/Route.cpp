#include "sim/live/Route.h"

#include "Quil/MplsLabel.h"

namespace Live {

namespace {

using nlohmann::json;

std::uint32_t address(const json& j, const char* what) {
  auto a = parseAddress(j.get<std::string>());
  if (!a) throw RouteError(std::string("malformed: ") + what + " '" + j.get<std::string>() + "'");
  return *a;
}

std::uint32_t mplsLabel(const json& j, const char* what) {
  const auto v = j.get<std::uint64_t>();
  if (v >= Quil::MplsLabel::noLabel) {
    throw RouteError(std::string("malformed: ") + what + " " + std::to_string(v) +
                     " is no MPLS label");
  }
  return static_cast<std::uint32_t>(v);
}

// The path attributes the translation reads: the next hop, the route targets, the encapsulation,
// the ESI label and the PMSI tunnel.
void readAttrs(const json& attrs, Route& r, std::string& content) {
  std::optional<std::uint32_t> encap;
  bool pmsi = false;
  for (const auto& a : attrs) {
    const int type = a.at("type").get<int>();
    if (type == 14) {
      // Its `value` lists every NLRI of the update the path came in: only the next hop is its own.
      r.nexthop = address(a.at("nexthop"), "next hop");
      content += "nexthop " + a.at("nexthop").get<std::string>();
      continue;
    } else if (type == 16) {
      for (const auto& c : a.at("value")) {
        const int ct = c.at("type").get<int>(), sub = c.value("subtype", -1);
        if ((ct == 0 || ct == 1 || ct == 2) && sub == 2) {
          r.routeTargets.push_back(c.at("value").get<std::string>());
        } else if (ct == 3 && sub == 12) {
          encap = c.at("tunnel_type").get<std::uint32_t>();
        } else if (ct == 6 && sub == 1) {
          r.esiLabel = mplsLabel(c.at("label"), "ESI label");
        }
      }
    } else if (type == 22) {
      pmsi = true;
      if (a.at("tunnel-type").get<std::uint32_t>() != ingressReplication) {
        throw RouteError("a PMSI tunnel of type " + a.at("tunnel-type").dump() +
                         " where ingress replication is needed");
      }
      r.label = mplsLabel(a.at("label"), "PMSI label");
      r.pmsiTunnel = address(a.at("tunnel-id"), "PMSI tunnel");
    } else {
      continue;
    }
    content += a.dump();
  }
  // No encapsulation community: MPLS, the default of an EVPN route.
  if (encap && *encap == encapVxlan) throw RouteError("VXLAN where MPLS is needed");
  if (encap && *encap != encapMpls) {
    throw RouteError("encapsulation " + std::to_string(*encap) + " where MPLS is needed");
  }
  if (r.type == inclusiveMulticast && !pmsi) {
    throw RouteError("an inclusive-multicast route without a PMSI tunnel");
  }
  if (r.type == autoDiscovery && !r.esiLabel) {
    throw RouteError("a per-segment auto-discovery route without an ESI label");
  }
}

}  // namespace

Esi readEsi(const std::string& text) {
  if (text == "single-homed") return Esi{};
  const std::string arbitrary = "ESI_ARBITRARY | ";
  if (text.starts_with(arbitrary)) {
    if (auto e = parseEsi("00:" + text.substr(arbitrary.size()))) return *e;
  }
  throw RouteError("an ESI written '" + text + "' (only arbitrary ESIs are read)");
}

Route readRoute(const json& path) {
  Route r;
  try {
    const json& nlri = path.at("nlri");
    if (!nlri.contains("type") || !nlri.contains("value")) throw RouteError("not an EVPN route");
    r.type = nlri.at("type").get<int>();
    if (r.type < autoDiscovery || r.type > ethernetSegment) {
      throw RouteError("a route of type " + std::to_string(r.type) + ", which is not followed");
    }
    const json& v = nlri.at("value");
    // The key: the NLRI without what RFC 7432 leaves out of a route's key (the labels, and a MAC
    // route's ESI).
    json key = v;
    key.erase("labels");
    key.erase("label");
    if (r.type == macIp) key.erase("esi");
    r.key = std::to_string(r.type) + key.dump();
    r.withdrawal = path.value("withdrawal", false);
    r.own = !path.contains("neighbor-ip");
    if (r.withdrawal) return r;

    r.content = nlri.dump();
    if (v.contains("esi")) r.esi = readEsi(v.at("esi").get<std::string>());
    if (v.contains("etag")) r.etag = v.at("etag").get<std::uint32_t>();
    if (r.type == inclusiveMulticast || r.type == ethernetSegment) {
      r.originator = address(v.at("ip"), "router address");
    }
    if (r.type == autoDiscovery && r.etag != maxEthernetTag) {
      throw RouteError("an auto-discovery route per EVPN instance, which is not followed");
    }
    if (r.type == macIp) {
      auto mac = Quil::EthAddr::tryParse(v.at("mac").get<std::string>());
      if (!mac) throw RouteError("malformed: MAC '" + v.at("mac").get<std::string>() + "'");
      r.mac = *mac;
      const json& labels = v.at("labels");
      if (!labels.is_array() || labels.empty())
        throw RouteError("malformed: a MAC route without labels");
      r.label = mplsLabel(labels.at(0), "label");
    }
    readAttrs(path.at("attrs"), r, r.content);
  } catch (const nlohmann::json::exception& e) {
    // A missing field or one of another type: the library's words name which.
    throw RouteError(std::string("malformed: ") + e.what());
  }
  return r;
}

}  // namespace Live
