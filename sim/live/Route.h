#pragma once
// One path of the EVPN table as gobgp's monitor prints it (`gobgp monitor global rib -a evpn
// --current -j`: a JSON array of paths per line), read through nlohmann-json into what the
// translation uses. docs/decisions.md records the shapes of gobgp 3.10's JSON that matter here.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Quil/EthAddr.h"
#include "sim/live/LiveConfig.h"

namespace Live {

// A route the translation cannot use, and why: counted and logged, never fatal.
class RouteError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum RouteType : int {
  autoDiscovery = 1,       // per segment (etag 0xffffffff) with the ESI label community
  macIp = 2,               // a host's MAC behind an edge, with the edge's label
  inclusiveMulticast = 3,  // an edge in a VLAN's flood list, with its ingress-replication label
  ethernetSegment = 4,     // an edge on a segment: a candidate in its forwarder election
};

inline constexpr std::uint32_t maxEthernetTag = 0xffffffff;     // a per-segment A-D route's etag
inline constexpr std::uint32_t ingressReplication = 6;          // the PMSI tunnel type
inline constexpr std::uint32_t encapVxlan = 8, encapMpls = 10;  // the encapsulation community's

struct Route {
  std::string key;      // the route's key: its type and the NLRI fields that name it
  std::string content;  // everything the translation reads: an update that keeps it changes nothing
  int type = 0;
  bool withdrawal = false;
  bool own = false;  // this switch's speaker originated it (no neighbor)
  std::uint32_t nexthop = 0;
  std::uint32_t originator = 0;  // the NLRI's router address (types 3 and 4)
  Esi esi{};
  std::uint32_t etag = 0;
  Quil::EthAddr mac;
  std::uint32_t label = 0;  // type 2: its first label; type 3: the PMSI tunnel's label
  std::uint32_t pmsiTunnel = 0;
  std::optional<std::uint32_t> esiLabel;  // type 1
  std::vector<std::string> routeTargets;
  // The edge a route brings: the next hop, or for types 3 and 4 the router the NLRI names.
  std::uint32_t edge() const { return originator ? originator : nexthop; }
};

// Reads one path; throws RouteError with the reason it cannot be used. A withdrawal is read for
// its key alone.
Route readRoute(const nlohmann::json& path);

// The ESI as gobgp writes it: "single-homed", or "ESI_ARBITRARY | " and its nine bytes.
Esi readEsi(const std::string& text);

}  // namespace Live
