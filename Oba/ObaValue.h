#pragma once
// The shared shape of the library's value types: keys and records made of a few fields.
//
// A value type lists its fields once and gets equality, lexicographic ordering in field order,
// the framework hash fed field by field, an emptiness test, and its string form both ways:
//
//   Value('Oba::IntfVlanKey', ** {'intfId': Ethernet1, 'vlanId': 10})
//
//   struct IntfVlanKeyFields {
//     static constexpr const char* typeName = "Oba::IntfVlanKey";
//     static constexpr std::array<const char*, 2> names{"intfId", "vlanId"};
//   };
//   class IntfVlanKey : public Oba::Value<IntfVlanKey, IntfVlanKeyFields, Quil::IntfId,
//                                         Bridging::VlanId> {
//    public:
//     using Value::Value;
//     Quil::IntfId intfId() const { return field<0>(); }
//     Bridging::VlanId vlanId() const { return field<1>(); }
//   };
//
// Field hashing: a field with its own hash() (a tunnel id's is the one-at-a-time byte hash)
// contributes that; a 64-bit integer is mixed in as 64 bits; enumerations and smaller integers
// as 32 bits.

#include <array>
#include <charconv>
#include <cstdint>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kiv/Types.h"
#include "Oba/ObaExport.h"

namespace Oba {

// Splits "Value('<typeName>', ** {'a': x, 'b': y})" into the field texts, in order. Nested
// brackets and parentheses in a field's text (a destination "mpls(Tunnel1.7, 1001)") stay whole.
// Throws Kiv::RangeException naming the type when the text is not of that form.
OBA_EXPORT std::vector<std::string_view> splitValueText(std::string_view text,
                                                        std::string_view typeName,
                                                        const char* const* names,
                                                        std::size_t count);
[[noreturn]] OBA_EXPORT void throwBadValueText(std::string_view text, std::string_view typeName);

template <class T>
T parseField(std::string_view s, std::string_view typeName) {
  if constexpr (requires { T::parse(s); }) {
    return T::parse(s);
  } else if constexpr (std::is_integral_v<T>) {
    T v{};
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || end != s.data() + s.size()) throwBadValueText(s, typeName);
    return v;
  } else {
    return parseValueField(s, static_cast<T*>(nullptr));  // enumerations: found by ADL
  }
}

template <class T>
void mixField(Kiv::HashMixer& h, const T& v) {
  if constexpr (requires { v.hash(); }) {
    h.add(static_cast<std::uint32_t>(v.hash()));
  } else if constexpr (std::is_integral_v<T> && sizeof(T) == 8) {
    h.add64(static_cast<std::uint64_t>(v));
  } else {
    h.add(static_cast<std::uint32_t>(v));
  }
}

// A value's fields as a plain aggregate rather than a std::tuple: a value whose fields are
// trivially copyable is then trivially copyable itself, and can be a row of a table that lives in
// shared memory (a tuple's assignment is the standard library's own, never trivial).
template <std::size_t I, class T>
struct ValueField {
  T v{};
};
template <class Seq, class... F>
struct ValueFields;
template <std::size_t... I, class... F>
struct ValueFields<std::index_sequence<I...>, F...> : ValueField<I, F>... {
  ValueFields() = default;
  explicit ValueFields(const F&... f) : ValueField<I, F>{f}... {}
  template <class Fn>
  decltype(auto) apply(Fn&& fn) const {
    return fn(static_cast<const ValueField<I, F>&>(*this).v...);
  }
  template <class Fn>
  decltype(auto) apply(Fn&& fn) {
    return fn(static_cast<ValueField<I, F>&>(*this).v...);
  }
  bool operator==(const ValueFields& o) const {
    return ((static_cast<const ValueField<I, F>&>(*this).v ==
             static_cast<const ValueField<I, F>&>(o).v) &&
            ...);
  }
  // Lexicographic in field order.
  bool operator<(const ValueFields& o) const {
    int order = 0;
    (void)(((order = compare(static_cast<const ValueField<I, F>&>(*this).v,
                             static_cast<const ValueField<I, F>&>(o).v)) == 0) &&
           ...);
    return order < 0;
  }

 private:
  template <class T>
  static int compare(const T& a, const T& b) {
    return a < b ? -1 : (b < a ? 1 : 0);
  }
};

template <class Derived, class Fields, class... F>
class Value {
  using Storage = ValueFields<std::index_sequence_for<F...>, F...>;

 public:
  Value() = default;
  explicit Value(const F&... f) : f_(f...) {}
  // Parses the string form; Kiv::RangeException when it is not one.
  explicit Value(std::string_view text) { parse(text); }
  template <class It>
  Value(It first, It last) {
    parse(std::string_view(std::to_address(first), static_cast<std::size_t>(last - first)));
  }

  template <std::size_t I>
  const auto& field() const {
    using T = std::tuple_element_t<I, std::tuple<F...>>;
    return static_cast<const ValueField<I, T>&>(f_).v;
  }

  std::uint32_t hash() const {
    Kiv::HashMixer h;
    f_.apply([&](const F&... f) { (mixField(h, f), ...); });
    return h.result();
  }
  friend bool operator==(const Derived& a, const Derived& b) { return a.f_ == b.f_; }
  friend bool operator<(const Derived& a, const Derived& b) { return a.f_ < b.f_; }
  bool operator!() const { return f_ == Storage(); }

  friend std::ostream& operator<<(std::ostream& os, const Derived& v) {
    os << "Value('" << Fields::typeName << "', ** {";
    std::size_t i = 0;
    v.f_.apply([&](const F&... f) {
      ((os << (i ? ", '" : "'") << Fields::names[i] << "': " << f, ++i), ...);
    });
    return os << "})";
  }
  std::string toString() const {
    std::ostringstream os;
    os << static_cast<const Derived&>(*this);
    return os.str();
  }

 private:
  void parse(std::string_view text) {
    auto parts = splitValueText(text, Fields::typeName, Fields::names.data(), sizeof...(F));
    std::size_t i = 0;
    f_.apply([&](F&... f) { ((f = parseField<F>(parts[i++], Fields::typeName)), ...); });
  }

  Storage f_;
};

}  // namespace Oba

// Every value type is a key of the standard hash containers through its hash().
#define OBA_VALUE_STD_HASH(T)                                              \
  template <>                                                              \
  struct std::hash<T> {                                                    \
    std::size_t operator()(const T& v) const noexcept { return v.hash(); } \
  };
