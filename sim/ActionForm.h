#pragma once
// A family's scenario actions, each defined once: a struct with its key, its values, its YAML form
// (read and written from the same definition) and what it does to the family's agent part. The
// reader, the writer, the fuzzer and the shrinker all go through the definition:
//
//   struct DesignatedForwarder {
//     static constexpr const char* name = "designatedForwarder";
//     Quil::IntfId segment;
//     Bridging::VlanId vlan;
//     Quil::IntfId tep;
//     static auto form() {
//       return form::map(form::field("segment", &DesignatedForwarder::segment, form::segment),
//                        form::field("vlan", &DesignatedForwarder::vlan, form::vlan),
//                        form::field("tep", &DesignatedForwarder::tep, form::tep));
//     }
//     void apply(TunnelEsiAgent& f) const;
//   };
//
//   actionKinds<TunnelEsiAgent, DesignatedForwarder, ...>()   // the family's ActionKinds
//   makeAction<TunnelEsiAgent>(DesignatedForwarder{s, v, t})  // what the fuzzer draws
//
// A form is a codec for the action's value: `read(reader, node)` gives the value or refuses the
// node with its line and what was expected; `write(os, value)` writes it as the reader takes it.
// form::map writes "{segment: Ethernet1, vlan: 10, tep: DynTunnel1.1}" and reads exactly those
// keys (form::optionalField: a key that may be left out); form::value(&A::member, codec) is a
// value of one codec. An action may say `static constexpr bool keptByShrinking = true` (a setting
// its world depends on).

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Bridging/VlanId.h"
#include "Evpn/EvpnStatus.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "sim/Family.h"
#include "sim/HostAgent.h"
#include "sim/ScenarioReader.h"

namespace Sim {

namespace form {

// ---- codecs of the values every family meets
// ------------------------------------------------------

// A value written as its stream text, read by one of the reader's calls.
template <class T, T (Reader::*Read)(const YAML::Node&) const>
struct Plain {
  using Value = T;
  T read(const Reader& r, const YAML::Node& n) const { return (r.*Read)(n); }
  void write(std::ostream& os, const T& v) const { os << v; }
};

inline constexpr Plain<Quil::IntfId, &Reader::segment> segment{};  // EthernetN or Port-ChannelN
inline constexpr Plain<Quil::IntfId, &Reader::lag> lag{};
inline constexpr Plain<Quil::IntfId, &Reader::port> port{};  // a physical port
inline constexpr Plain<Quil::IntfId, &Reader::tep> tep{};    // a dynamic tunnel interface
inline constexpr Plain<Bridging::VlanId, &Reader::vlan> vlan{};
inline constexpr Plain<Evpn::EncapTypeLabel, &Reader::label> label{};
inline constexpr Plain<Evpn::EncapTypeLabel, &Reader::localLabel> localLabel{};
inline constexpr Plain<Quil::MplsLabel, &Reader::mplsLabel> mplsLabel{};

// A whole number, `what` naming it in a refusal ("a number of hardware tunnel ids").
struct Count {
  using Value = std::uint32_t;
  const char* what;
  Value read(const Reader& r, const YAML::Node& n) const { return r.count(n, what); }
  void write(std::ostream& os, Value v) const { os << v; }
};
constexpr Count count(const char* what) { return {what}; }

// A time or latency in seconds.
struct Time {
  using Value = double;
  const char* what;
  Value read(const Reader& r, const YAML::Node& n) const { return r.time(n, what); }
  void write(std::ostream& os, Value v) const { os << v; }
};
constexpr Time time(const char* what) { return {what}; }

// true or false.
struct Flag {
  using Value = bool;
  Value read(const Reader& r, const YAML::Node& n) const { return r.flag(n); }
  void write(std::ostream& os, Value v) const { os << (v ? "true" : "false"); }
};
inline constexpr Flag flag{};

// A value its type parses from text (`parse` raises Kiv::RangeException on a bad one), written as
// its stream text.
template <class F>
struct Parsed {
  using Value = std::decay_t<decltype(std::declval<F>()(std::string()))>;
  const char* what;  // "a dot1q tag (1-4094 or none)"
  F parse;
  Value read(const Reader& r, const YAML::Node& n) const { return r.parsed(n, what, parse); }
  void write(std::ostream& os, const Value& v) const { os << v; }
};
template <class F>
constexpr Parsed<F> parsed(const char* what, F parse) {
  return {what, parse};
}

// A list of values of one codec: "[Ethernet1, Ethernet2]".
template <class C>
struct List {
  using Value = std::vector<typename C::Value>;
  C item;
  const char* what;  // "a list of ports"
  Value read(const Reader& r, const YAML::Node& n) const {
    if (!n.IsSequence()) r.failExpected(n, what);
    Value out;
    for (const auto& e : n) out.push_back(item.read(r, e));
    return out;
  }
  void write(std::ostream& os, const Value& v) const {
    os << "[";
    for (std::size_t i = 0; i < v.size(); ++i) {
      if (i) os << ", ";
      item.write(os, v[i]);
    }
    os << "]";
  }
};
template <class C>
constexpr List<C> list(C item, const char* what) {
  return {item, what};
}

// ---- forms of a whole action
// ----------------------------------------------------------------------

// One key of a map form: its name, the member it fills, and the member's codec.
template <class A, class M, class C>
struct Field {
  using Action = A;
  const char* key;
  M A::*member;
  C codec;
  void read(const Reader& r, const YAML::Node& n, A& a) const {
    a.*member = codec.read(r, r.field(n, key));
  }
  void write(std::ostream& os, const A& a, const char*& sep) const {
    os << sep << key << ": ";
    codec.write(os, a.*member);
    sep = ", ";
  }
};
template <class A, class M, class C>
constexpr Field<A, M, C> field(const char* key, M A::*member, C codec) {
  return {key, member, codec};
}

// A key that may be left out: the member then holds `orElse`, and is written only when it holds
// something else ("{vlan: 10, dest: ...}" for the broadcast MAC).
template <class A, class M, class C>
struct OptionalField : Field<A, M, C> {
  M orElse;
  void read(const Reader& r, const YAML::Node& n, A& a) const {
    const YAML::Node v = n[this->key];
    a.*(this->member) = v ? this->codec.read(r, v) : orElse;
  }
  void write(std::ostream& os, const A& a, const char*& sep) const {
    if (!(a.*(this->member) == orElse)) Field<A, M, C>::write(os, a, sep);
  }
};
template <class A, class M, class C>
constexpr OptionalField<A, M, C> optionalField(const char* key, M A::*member, C codec,
                                               std::type_identity_t<M> orElse) {
  return {{key, member, codec}, std::move(orElse)};
}

// A map of keys, required unless optional, read and written in their order:
// "{segment: Ethernet1, vlan: 10}".
template <class A, class... F>
struct Map {
  std::tuple<F...> fields;
  void read(const Reader& r, const YAML::Node& n, A& a, const char* action) const {
    std::apply(
        [&](const auto&... f) {
          r.onlyKeys(n, {f.key...}, action);
          (f.read(r, n, a), ...);
        },
        fields);
  }
  void write(std::ostream& os, const A& a) const {
    os << "{";
    std::apply(
        [&](const auto&... f) {
          const char* sep = "";
          (f.write(os, a, sep), ...);
        },
        fields);
    os << "}";
  }
};
template <class F, class... G>
constexpr Map<typename F::Action, F, G...> map(F f, G... g) {
  return {{f, g...}};
}

// The whole value of one codec: "segmentDel: Ethernet1".
template <class A, class M, class C>
struct Value {
  M A::*member;
  C codec;
  void read(const Reader& r, const YAML::Node& n, A& a, const char*) const {
    a.*member = codec.read(r, n);
  }
  void write(std::ostream& os, const A& a) const { codec.write(os, a.*member); }
};
template <class A, class M, class C>
constexpr Value<A, M, C> value(M A::*member, C codec) {
  return {member, codec};
}

}  // namespace form

// ---- actions from their definitions
// ---------------------------------------------------------------

// An action of definition A on the agent part `Part`, as the core holds it.
template <class Part, class A>
class ActionOf : public ActionBody {
 public:
  explicit ActionOf(A a) : value(std::move(a)) {}
  void apply(HostAgent& agent) const override { value.apply(agent.part<Part>()); }
  void write(std::ostream& os) const override {
    os << A::name << ": ";
    A::form().write(os, value);
  }
  std::string_view name() const override { return A::name; }
  bool needsStartedAgent() const override {
    if constexpr (requires { A::needsStartedAgent; }) {
      return A::needsStartedAgent;
    } else {
      return false;
    }
  }
  bool keptByShrinking() const override {
    if constexpr (requires { A::keptByShrinking; }) {
      return A::keptByShrinking;
    } else {
      return false;
    }
  }
  const A value;
};

template <class Part, class A>
Action makeAction(A a) {
  return Action{0, std::make_shared<const ActionOf<Part, A>>(std::move(a))};
}

// The definition behind an action of this family, when it is one of definition A: what a
// family's fuzzer looks for in a burst it ends.
template <class Part, class A>
const A* actionValue(const Action& a) {
  if (a.body->name() != A::name) return nullptr;
  return &static_cast<const ActionOf<Part, A>&>(*a.body).value;
}

// Reading one action of definition A; `check`, if given, sees each action read in the order of
// the file (what spans actions: a port that is a segment and a LAG member at once).
template <class Part, class A, class Check>
ActionKind actionKind(const std::shared_ptr<Check>& check) {
  return {A::name, [check](const Reader& r, const YAML::Node& v) {
            A a{};
            A::form().read(r, v, a, A::name);
            if constexpr (!std::is_same_v<Check, std::nullptr_t>) check->read(r, v, a);
            return std::shared_ptr<const ActionBody>(std::make_shared<const ActionOf<Part, A>>(a));
          }};
}

// The ActionKinds of a family's definitions, in order.
template <class Part, class... A>
std::vector<ActionKind> actionKinds() {
  return {actionKind<Part, A>(std::shared_ptr<std::nullptr_t>())...};
}
template <class Part, class... A, class Check>
std::vector<ActionKind> actionKinds(const std::shared_ptr<Check>& check) {
  return {actionKind<Part, A>(check)...};
}

}  // namespace Sim
