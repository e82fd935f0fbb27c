#pragma once
// The dot1q and decapsulation family's scenario actions, each one definition (sim/ActionForm.h):
// VLAN membership and status, the EVPN VLAN-to-dot1q mapping and its switch, the label routes,
// via sets and filter vias the label-forwarding agent publishes, and the chip's table sizes. Their
// YAML forms are in docs/scenario-format.md.

#include <cstdint>
#include <string>
#include <vector>

#include "sim/ActionForm.h"
#include "sim/families/dot1qDecap/Dot1qDecapAgent.h"

namespace Sim::dot1qDecap {

// The codecs of the family's own values.
inline constexpr auto tag =
    form::parsed("a dot1q tag (1-4094 or none)", &Bridging::VlanIdOrNone::parse);
inline constexpr auto viaSetNumber = form::count("a via set number");
inline constexpr auto viaIndex = form::count("a via index");
// A via's table, 1-6; 6 is the Ethernet-segment filter.
struct ViaType {
  using Value = Mpls::LfibViaType;
  Value read(const Reader& r, const YAML::Node& n) const;
  void write(std::ostream& os, Value v) const { os << v; }
};

struct VlanMember {
  static constexpr const char* name = "vlanMember";
  Bridging::VlanId vlan;
  Quil::IntfId intf;
  static auto form() {
    return form::map(form::field("vlan", &VlanMember::vlan, form::vlan),
                     form::field("intf", &VlanMember::intf, form::segment));
  }
  void apply(Dot1qDecapAgent& f) const;
};

struct VlanMemberDel {
  static constexpr const char* name = "vlanMemberDel";
  Bridging::VlanId vlan;
  Quil::IntfId intf;
  static auto form() {
    return form::map(form::field("vlan", &VlanMemberDel::vlan, form::vlan),
                     form::field("intf", &VlanMemberDel::intf, form::segment));
  }
  void apply(Dot1qDecapAgent& f) const;
};

// An empty VLAN status.
struct VlanStatus {
  static constexpr const char* name = "vlanStatus";
  Bridging::VlanId vlan;
  static auto form() { return form::value(&VlanStatus::vlan, form::vlan); }
  void apply(Dot1qDecapAgent& f) const;
};

struct VlanStatusDel {
  static constexpr const char* name = "vlanStatusDel";
  Bridging::VlanId vlan;
  static auto form() { return form::value(&VlanStatusDel::vlan, form::vlan); }
  void apply(Dot1qDecapAgent& f) const;
};

struct Dot1q {
  static constexpr const char* name = "dot1q";
  Bridging::VlanId vlan;
  Bridging::VlanIdOrNone tag;
  static auto form() {
    return form::map(form::field("vlan", &Dot1q::vlan, form::vlan),
                     form::field("tag", &Dot1q::tag, dot1qDecap::tag));
  }
  void apply(Dot1qDecapAgent& f) const;
};

struct Dot1qDel {
  static constexpr const char* name = "dot1qDel";
  Bridging::VlanId vlan;
  static auto form() { return form::value(&Dot1qDel::vlan, form::vlan); }
  void apply(Dot1qDecapAgent& f) const;
};

// The EVPN MPLS configuration's dot1q switch.
struct Dot1qEnabled {
  static constexpr const char* name = "dot1qEnabled";
  bool on = false;
  static auto form() { return form::value(&Dot1qEnabled::on, form::flag); }
  void apply(Dot1qDecapAgent& f) const;
};

struct Route {
  static constexpr const char* name = "route";
  Quil::MplsLabel label;
  std::uint32_t viaSet = 0;
  static auto form() {
    return form::map(form::field("label", &Route::label, form::mplsLabel),
                     form::field("viaSet", &Route::viaSet, viaSetNumber));
  }
  void apply(Dot1qDecapAgent& f) const;
};

struct RouteDel {
  static constexpr const char* name = "routeDel";
  Quil::MplsLabel label;
  static auto form() { return form::value(&RouteDel::label, form::mplsLabel); }
  void apply(Dot1qDecapAgent& f) const;
};

struct ViaSet {
  static constexpr const char* name = "viaSet";
  std::uint32_t set = 0;
  Mpls::LfibViaType type = Mpls::LfibViaType::viaTypeNone;
  std::uint32_t index = 0;
  static auto form() {
    return form::map(form::field("set", &ViaSet::set, viaSetNumber),
                     form::field("type", &ViaSet::type, ViaType{}),
                     form::field("index", &ViaSet::index, viaIndex));
  }
  void apply(Dot1qDecapAgent& f) const;
};

struct ViaSetDel {
  static constexpr const char* name = "viaSetDel";
  std::uint32_t set = 0;
  static auto form() { return form::value(&ViaSetDel::set, viaSetNumber); }
  void apply(Dot1qDecapAgent& f) const;
};

// An Ethernet-segment filter via: the interface whose ports a route's port map names.
struct FilterVia {
  static constexpr const char* name = "filterVia";
  std::uint32_t index = 0;
  Quil::IntfId intf;
  static auto form() {
    return form::map(form::field("index", &FilterVia::index, viaIndex),
                     form::field("intf", &FilterVia::intf, form::segment));
  }
  void apply(Dot1qDecapAgent& f) const;
};

struct FilterViaDel {
  static constexpr const char* name = "filterViaDel";
  std::uint32_t index = 0;
  static auto form() { return form::value(&FilterViaDel::index, viaIndex); }
  void apply(Dot1qDecapAgent& f) const;
};

// The label-forwarding agent puts a route into the backlog of its own accord.
struct Backlog {
  static constexpr const char* name = "backlog";
  Quil::MplsLabel label;
  static auto form() { return form::value(&Backlog::label, form::mplsLabel); }
  void apply(Dot1qDecapAgent& f) const;
};

// The sizes of the chip's dot1q and ESI port-map tables.
struct ChipTables {
  static constexpr const char* name = "chipTables";
  std::uint32_t dot1q = 0;
  std::uint32_t portMaps = 0;
  static auto form() {
    return form::map(
        form::field("dot1q", &ChipTables::dot1q, form::count("a number of dot1q mappings")),
        form::field("portMaps", &ChipTables::portMaps, form::count("a number of ESI port maps")));
  }
  void apply(Dot1qDecapAgent& f) const;
};

// One of the family's machines made again alone, the agent reconciling nothing: what a restart
// of the machine alone leaves in the chip (a `restart` of the machine is reconciled).
struct RestartAlone {
  static constexpr const char* name = "restartAlone";
  static constexpr bool needsStartedAgent = true;
  std::string machine;
  struct Machine {
    using Value = std::string;
    Value read(const Reader& r, const YAML::Node& n) const;
    void write(std::ostream& os, const Value& v) const { os << v; }
  };
  static auto form() { return form::value(&RestartAlone::machine, Machine{}); }
  void apply(Dot1qDecapAgent& f) const { f.restartAlone(machine); }
};

template <class A>
Action action(A a) {
  return makeAction<Dot1qDecapAgent>(std::move(a));
}

std::vector<ActionKind> actionKinds();
std::vector<ChipOperation> chipOperations();

// Table entries given as maps: a dot1q mapping, an ESI port map, an unprogrammed route.
std::string dot1qEntry(const Reader& r, const YAML::Node& n);
std::string portMapEntry(const Reader& r, const YAML::Node& n);
std::string unprogrammedRouteEntry(const Reader& r, const YAML::Node& n);

}  // namespace Sim::dot1qDecap
