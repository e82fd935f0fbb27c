#pragma once
// The tunnel-id family's scenario actions, each one definition (sim/ActionForm.h): the EVPN
// status a scenario publishes (designated forwarders, ESI labels, segments), the LAG membership,
// and the chip's pool of hardware tunnel ids. Their YAML forms are in docs/scenario-format.md.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/ActionForm.h"
#include "sim/families/tunnelEsi/TunnelEsiAgent.h"

namespace Sim::tunnelEsi {

struct DesignatedForwarder {
  static constexpr const char* name = "designatedForwarder";
  Quil::IntfId segment;
  Bridging::VlanId vlan;
  Quil::IntfId tep;
  static auto form() {
    return form::map(form::field("segment", &DesignatedForwarder::segment, form::segment),
                     form::field("vlan", &DesignatedForwarder::vlan, form::vlan),
                     form::field("tep", &DesignatedForwarder::tep, form::tep));
  }
  void apply(TunnelEsiAgent& f) const;
};

struct DesignatedForwarderDel {
  static constexpr const char* name = "designatedForwarderDel";
  Quil::IntfId segment;
  Bridging::VlanId vlan;
  static auto form() {
    return form::map(form::field("segment", &DesignatedForwarderDel::segment, form::segment),
                     form::field("vlan", &DesignatedForwarderDel::vlan, form::vlan));
  }
  void apply(TunnelEsiAgent& f) const;
};

struct RemoteEsiLabel {
  static constexpr const char* name = "remoteEsiLabel";
  Quil::IntfId segment;
  Quil::IntfId tep;
  Evpn::EncapTypeLabel label;
  static auto form() {
    return form::map(form::field("segment", &RemoteEsiLabel::segment, form::segment),
                     form::field("tep", &RemoteEsiLabel::tep, form::tep),
                     form::field("label", &RemoteEsiLabel::label, form::label));
  }
  void apply(TunnelEsiAgent& f) const;
};

struct RemoteEsiLabelDel {
  static constexpr const char* name = "remoteEsiLabelDel";
  Quil::IntfId segment;
  Quil::IntfId tep;
  static auto form() {
    return form::map(form::field("segment", &RemoteEsiLabelDel::segment, form::segment),
                     form::field("tep", &RemoteEsiLabelDel::tep, form::tep));
  }
  void apply(TunnelEsiAgent& f) const;
};

struct LocalEsiLabel {
  static constexpr const char* name = "localEsiLabel";
  Quil::IntfId segment;
  Evpn::EncapTypeLabel label;
  static auto form() {
    return form::map(form::field("segment", &LocalEsiLabel::segment, form::segment),
                     form::field("label", &LocalEsiLabel::label, form::localLabel));
  }
  void apply(TunnelEsiAgent& f) const;
};

struct LocalEsiLabelDel {
  static constexpr const char* name = "localEsiLabelDel";
  Quil::IntfId segment;
  static auto form() { return form::value(&LocalEsiLabelDel::segment, form::segment); }
  void apply(TunnelEsiAgent& f) const;
};

// An empty segment status.
struct Segment {
  static constexpr const char* name = "segment";
  Quil::IntfId segment;
  static auto form() { return form::value(&Segment::segment, form::segment); }
  void apply(TunnelEsiAgent& f) const;
};

struct SegmentDel {
  static constexpr const char* name = "segmentDel";
  Quil::IntfId segment;
  static auto form() { return form::value(&SegmentDel::segment, form::segment); }
  void apply(TunnelEsiAgent& f) const;
};

struct Lag {
  static constexpr const char* name = "lag";
  Quil::IntfId lag;
  std::vector<Quil::IntfId> members;
  static auto form() {
    return form::map(
        form::field("lag", &Lag::lag, form::lag),
        form::field("members", &Lag::members, form::list(form::port, "a list of ports")));
  }
  void apply(TunnelEsiAgent& f) const;
};

struct LagDel {
  static constexpr const char* name = "lagDel";
  Quil::IntfId lag;
  static auto form() { return form::value(&LagDel::lag, form::lag); }
  void apply(TunnelEsiAgent& f) const;
};

// The chip's hardware tunnel ids: 1..count.
struct ChipPool {
  static constexpr const char* name = "chipPool";
  std::uint32_t count = 0;
  static auto form() {
    return form::value(&ChipPool::count, form::count("a number of hardware tunnel ids"));
  }
  void apply(TunnelEsiAgent& f) const;
};

template <class A>
Action action(A a) {
  return makeAction<TunnelEsiAgent>(std::move(a));
}

// The family's ActionKinds, reading each scenario with a check of what its ports are.
std::vector<ActionKind> actionKinds();

// Table entries given as maps: an ESI entry, a mapping row.
std::string esiEntry(const Reader& r, const YAML::Node& n);
std::string mappingEntry(const Reader& r, const YAML::Node& n);

}  // namespace Sim::tunnelEsi

namespace Sim {

// The family's `lag` action (members given) or `lagDel` (none): how another family's fuzzer changes
// the LAG membership this family owns.
Action lagAction(Quil::IntfId lag, std::optional<std::vector<Quil::IntfId>> members);

}  // namespace Sim
