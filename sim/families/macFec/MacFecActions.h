#pragma once
// The MAC-address FEC family's scenario actions, each one definition (sim/ActionForm.h): the rows
// of the layer-2 RIB a scenario writes (hosts, labels, load balances, destinations), a row torn
// and written again, and the machine's chain length. Their YAML forms are in
// docs/scenario-format.md. The chip FEC table's settings are the fec family's actions.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Bridging/MacVlanPair.h"
#include "L2Rib/ObjTuple.h"
#include "Mox/NumAllocator.h"
#include "Quil/EthAddr.h"
#include "sim/ActionForm.h"
#include "sim/families/macFec/MacFecAgent.h"

namespace Sim::macFec {

// ---- the values of the family's own forms -------------------------------------------------------

// An object of the RIB: "label/3", "loadBalance/1", "dest/2".
struct RibObject {
  using Value = L2Rib::ObjTuple;
  Value read(const Reader& r, const YAML::Node& n) const;
  void write(std::ostream& os, const Value& v) const { os << v; }
};
inline constexpr RibObject ribObject{};

// The objects a load balance lists: "[dest/1, label/2]", one per path of an ECMP group at most.
struct Paths {
  using Value = std::vector<L2Rib::ObjTuple>;
  Value read(const Reader& r, const YAML::Node& n) const;
  void write(std::ostream& os, const Value& v) const;
};
inline constexpr Paths paths{};

// A MAC address: "02:00:00:00:00:01".
struct MacAddress {
  using Value = Quil::EthAddr;
  Value read(const Reader& r, const YAML::Node& n) const;
  void write(std::ostream& os, const Value& v) const { os << v.text().view(); }
};
inline constexpr MacAddress macAddress{};

// The machine's chain length: 2 or 3.
struct ChainLength {
  using Value = std::uint32_t;
  Value read(const Reader& r, const YAML::Node& n) const;
  void write(std::ostream& os, Value v) const { os << v; }
};
inline constexpr ChainLength chainLength{};

// The numbers the machine's FEC allocator hands out: "{first: 1, last: 4}", within 1-1048575 (the
// machine's own range, which the FEC-id encoding of the adjacency type holds).
struct FecNumbers {
  using Value = Mox::Range;
  Value read(const Reader& r, const YAML::Node& n) const;
  void write(std::ostream& os, const Value& v) const;
};
inline constexpr FecNumbers fecNumbers{};

// The id of a row of the label, load-balance or destination table.
inline constexpr form::Count ribId = form::count("a RIB id");

// ---- the actions --------------------------------------------------------------------------------

// A host points at the head of its chain.
struct Host {
  static constexpr const char* name = "host";
  Bridging::VlanId vlan;
  Quil::EthAddr mac;
  L2Rib::ObjTuple to;
  static auto form() {
    return form::map(form::field("vlan", &Host::vlan, form::vlan),
                     form::field("mac", &Host::mac, macAddress),
                     form::field("to", &Host::to, ribObject));
  }
  void apply(MacFecAgent& f) const;
};

struct HostDel {
  static constexpr const char* name = "hostDel";
  Bridging::VlanId vlan;
  Quil::EthAddr mac;
  static auto form() {
    return form::map(form::field("vlan", &HostDel::vlan, form::vlan),
                     form::field("mac", &HostDel::mac, macAddress));
  }
  void apply(MacFecAgent& f) const;
};

// A label over one object.
struct Label {
  static constexpr const char* name = "label";
  std::uint32_t id = 0;
  Quil::MplsLabel mpls;
  L2Rib::ObjTuple next;
  static auto form() {
    return form::map(form::field("id", &Label::id, ribId),
                     form::field("mpls", &Label::mpls, form::mplsLabel),
                     form::field("next", &Label::next, ribObject));
  }
  void apply(MacFecAgent& f) const;
};

struct LabelDel {
  static constexpr const char* name = "labelDel";
  std::uint32_t id = 0;
  static auto form() { return form::value(&LabelDel::id, ribId); }
  void apply(MacFecAgent& f) const;
};

struct LoadBalance {
  static constexpr const char* name = "loadBalance";
  std::uint32_t id = 0;
  std::vector<L2Rib::ObjTuple> next;
  static auto form() {
    return form::map(form::field("id", &LoadBalance::id, ribId),
                     form::field("next", &LoadBalance::next, paths));
  }
  void apply(MacFecAgent& f) const;
};

struct LoadBalanceDel {
  static constexpr const char* name = "loadBalanceDel";
  std::uint32_t id = 0;
  static auto form() { return form::value(&LoadBalanceDel::id, ribId); }
  void apply(MacFecAgent& f) const;
};

// A destination over a tunnel.
struct Dest {
  static constexpr const char* name = "dest";
  std::uint32_t id = 0;
  Quil::IntfId tunnel;
  static auto form() {
    return form::map(form::field("id", &Dest::id, ribId),
                     form::field("tunnel", &Dest::tunnel, form::tep));
  }
  void apply(MacFecAgent& f) const;
};

struct DestDel {
  static constexpr const char* name = "destDel";
  std::uint32_t id = 0;
  static auto form() { return form::value(&DestDel::id, ribId); }
  void apply(MacFecAgent& f) const;
};

// A row of the RIB as `corrupt` and `rewrite` name it: an object, or a host given as hostDel
// gives it, "{vlan: 10, mac: 02:00:00:00:00:01}".
struct RibRow {
  std::optional<Bridging::MacVlanPair> host;
  L2Rib::ObjTuple object;  // when no host
};
struct RibRowForm {
  using Value = RibRow;
  const char* action;  // names the action in a refusal of a host's keys
  Value read(const Reader& r, const YAML::Node& n) const;
  void write(std::ostream& os, const Value& v) const;
};

// A torn row: readers that look it up meet the table's corruption exception until the writer
// writes it again.
struct Corrupt {
  static constexpr const char* name = "corrupt";
  RibRow row;
  static auto form() { return form::value(&Corrupt::row, RibRowForm{name}); }
  void apply(MacFecAgent& f) const;
};

// The writer writes the row again as it is (or deletes it when there is none).
struct Rewrite {
  static constexpr const char* name = "rewrite";
  RibRow row;
  static auto form() { return form::value(&Rewrite::row, RibRowForm{name}); }
  void apply(MacFecAgent& f) const;
};

// The machine's setting; a running machine is restarted with a new one.
struct MaxChainLength {
  static constexpr const char* name = "maxChainLength";
  // Load balances over labels abort a machine with chain length 2: the setting stays.
  static constexpr bool keptByShrinking = true;
  std::uint32_t count = 0;
  static auto form() { return form::value(&MaxChainLength::count, chainLength); }
  void apply(MacFecAgent& f) const;
};

// How long the machine's review waits before it resumes after a run that yielded (and before its
// first run, for a machine made after it is set).
struct ReviewInterval {
  static constexpr const char* name = "macFecReviewInterval";
  double seconds = 0;
  static auto form() {
    return form::value(&ReviewInterval::seconds, form::time("a review interval in seconds"));
  }
  void apply(MacFecAgent& f) const { f.reviewIntervalIs(seconds); }
};

// The machine's FEC number range, as the agent sizes it: a machine is made with it, and a running
// one is restarted with a new one (its allocator starts afresh, every number free).
struct FecNumberRange {
  static constexpr const char* name = "macFecNumberRange";
  Mox::Range range;
  static auto form() { return form::value(&FecNumberRange::range, fecNumbers); }
  void apply(MacFecAgent& f) const { f.fecNumberRangeIs(range); }
};

template <class A>
Action action(A a) {
  return makeAction<MacFecAgent>(std::move(a));
}

// The family's ActionKinds, in the order above.
std::vector<ActionKind> actionKinds();

// A table entry given as a map: a result row, {object, hw}.
std::string resultEntry(const Reader& r, const YAML::Node& n);

}  // namespace Sim::macFec
