#pragma once
// The flood-set family's scenario actions, each one definition (sim/ActionForm.h): the layer-2
// RIB's flood sets, a second writer on the MPLS-only flood sets, and the chip's flood-list
// latency. Their YAML forms are in docs/scenario-format.md.

#include <optional>
#include <ostream>
#include <vector>

#include "L2Rib/Dest.h"
#include "Quil/EthAddr.h"
#include "sim/ActionForm.h"
#include "sim/families/floodSet/FloodSetAgent.h"

namespace Sim::floodSet {

// ---- codecs of the flood sets' values -----------------------------------------------------------

// A value that YAML would misread bare (a MAC address's colons, a destination's parentheses),
// written in single quotes.
template <class T, T (*Read)(const Reader&, const YAML::Node&)>
struct Quoted {
  using Value = T;
  T read(const Reader& r, const YAML::Node& n) const { return Read(r, n); }
  void write(std::ostream& os, const T& v) const { os << '\'' << v << '\''; }
};

Quil::EthAddr readMac(const Reader& r, const YAML::Node& n);
// A destination the flood-set machines program as the file says it: mpls(TunnelT.I, LABEL),
// tunnel(TunnelT.I) or intf(NAME), over a real tunnel and with a real label.
L2Rib::Dest readDest(const Reader& r, const YAML::Node& n);

inline constexpr Quoted<Quil::EthAddr, &readMac> mac{};
inline constexpr Quoted<L2Rib::Dest, &readDest> dest{};

// A flood set's type, written when one is given (a flood set keeps its own until then).
struct FloodSetTypeCodec {
  using Value = std::optional<L2Rib::FloodSetType>;
  Value read(const Reader& r, const YAML::Node& n) const {
    return r.parsed(n, "a flood-set type (floodSetTypeBroadcast, ...)", L2Rib::parseFloodSetType);
  }
  void write(std::ostream& os, const Value& v) const { os << *v; }
};
inline constexpr FloodSetTypeCodec floodSetType{};

// The map of an action on one flood set: "{vlan: 10, mac: '01:00:5e:00:00:01', ...}", the MAC
// left out for the broadcast flood set; `more` are the keys after them.
template <class A, class... F>
auto floodSetForm(F... more) {
  return form::map(form::field("vlan", &A::vlan, form::vlan),
                   form::optionalField("mac", &A::mac, mac, Quil::EthAddr::broadcast()), more...);
}

// ---- the actions --------------------------------------------------------------------------------

// A destination of the RIB's flood set, `value` as the RIB holds it; `type` sets the flood set's.
struct FloodSetDest {
  static constexpr const char* name = "floodSetDest";
  Bridging::VlanId vlan;
  Quil::EthAddr mac = Quil::EthAddr::broadcast();
  L2Rib::Dest dest;
  bool value = true;
  std::optional<L2Rib::FloodSetType> type = std::nullopt;  // the flood set keeps its own
  static auto form() {
    return floodSetForm<FloodSetDest>(
        form::field("dest", &FloodSetDest::dest, floodSet::dest),
        form::optionalField("value", &FloodSetDest::value, form::flag, true),
        form::optionalField("type", &FloodSetDest::type, floodSetType, std::nullopt));
  }
  void apply(FloodSetAgent& f) const;
};

struct FloodSetDestDel {
  static constexpr const char* name = "floodSetDestDel";
  Bridging::VlanId vlan;
  Quil::EthAddr mac = Quil::EthAddr::broadcast();
  L2Rib::Dest dest;
  static auto form() {
    return floodSetForm<FloodSetDestDel>(
        form::field("dest", &FloodSetDestDel::dest, floodSet::dest));
  }
  void apply(FloodSetAgent& f) const;
};

struct FloodSetDel {
  static constexpr const char* name = "floodSetDel";
  Bridging::VlanId vlan;
  Quil::EthAddr mac = Quil::EthAddr::broadcast();
  static auto form() { return floodSetForm<FloodSetDel>(); }
  void apply(FloodSetAgent& f) const;
};

// Every flood set of the VLAN.
struct VlanFloodSetDel {
  static constexpr const char* name = "vlanFloodSetDel";
  Bridging::VlanId vlan;
  static auto form() { return form::value(&VlanFloodSetDel::vlan, form::vlan); }
  void apply(FloodSetAgent& f) const;
};

// A second writer on the filter's output, as a misbuilt agent would have: whatever it writes
// reaches the flood-set machines unfiltered.
struct MplsFloodSetDest {
  static constexpr const char* name = "mplsFloodSetDest";
  Bridging::VlanId vlan;
  Quil::EthAddr mac = Quil::EthAddr::broadcast();
  L2Rib::Dest dest;
  static auto form() {
    return floodSetForm<MplsFloodSetDest>(
        form::field("dest", &MplsFloodSetDest::dest, floodSet::dest));
  }
  void apply(FloodSetAgent& f) const;
};

// How long the chip takes to act on a change of its flood lists.
struct FloodListLatency {
  static constexpr const char* name = "floodListLatency";
  double seconds = 0;
  static auto form() {
    return form::value(&FloodListLatency::seconds, form::time("a latency in seconds"));
  }
  void apply(FloodSetAgent& f) const;
};

template <class A>
Action action(A a) {
  return makeAction<FloodSetAgent>(std::move(a));
}

// The family's ActionKinds.
std::vector<ActionKind> actionKinds();

}  // namespace Sim::floodSet
