#pragma once
// The digest of an entity's state: a 128-bit hash of every collection and scalar its accessor
// families declare, in declaration order, each collection in its walk order, child entities by
// their own digests. Two entities with equal digests hold the same state as far as anything that
// walks or reads them can tell, which is what lets an explorer of event orders merge two states
// reached by different paths.
//
// The accessor families stamp the digest (Kiv/Entity.h): each collection or scalar declared with
// one of them also declares a function that adds it to a Digest, and a mark, an empty member,
// whose initializer registers that function for its class the first time an object of the class
// is made. A new attribute is in the digest without anyone writing it. The registry is one per
// process (this library's), so classes made in different shared objects register once.
//
//   Kiv::Digest d;
//   Kiv::digestOf(*machine, d);         // every declared collection and scalar of the machine
//   auto [lo, hi] = d.value();
//
// Values go in by what they are: numbers and enumerations by value, strings by their bytes,
// optionals and counted pointers by presence and then what they hold, collections (anything with
// size() and walk()) by size and then each key and value, standard containers and pairs by
// their elements, a class with registered fields by its
// fields, anything else that prints by its text. A value of none of these kinds is counted as
// opaque (`opaque()`, `firstOpaque()`): the digest is then not a faithful picture of the state.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "Kiv/Ptr.h"

namespace Kiv {

class Digest;

// A registered field: adds one attribute of the object at `self` to the digest.
using DigestFieldFn = void (*)(const void* self, Digest&);
struct DigestField {
  std::string name;
  DigestFieldFn add;
};

// Registers a field of class `type` (its type_info name). A field already registered under its
// name is not registered again (a class made in two shared objects registers from both).
void registerDigestField(const char* type, const char* name, DigestFieldFn add);
// The fields of class `type` in declaration order, or null for a class none of whose objects has
// been made (or which declares none).
const std::vector<DigestField>* digestFields(const char* type);

class Digest {
 public:
  void word(std::uint64_t w) {
    a_ = mix(a_ ^ w);
    b_ = mix(b_ + w * 0x9e3779b97f4a7c15ull + 0x632be59bd9b4e019ull);
  }
  void bytes(const void* p, std::size_t n);
  void text(std::string_view s) {
    word(s.size());
    bytes(s.data(), s.size());
  }

  template <class T>
  void add(const T& v);
  // One attribute: its name, then its value.
  template <class T>
  void field(const char* name, const T& v) {
    text(name);
    add(v);
  }

  std::pair<std::uint64_t, std::uint64_t> value() const { return {a_, b_}; }
  // How many values went in that it could not read, and the type of the first.
  std::size_t opaque() const { return opaque_; }
  const std::string& firstOpaque() const { return firstOpaque_; }

  // Adds the registered fields of the object at `self`, of class `type`; false when the class has
  // none registered.
  bool fieldsOf(const char* type, const void* self);

 private:
  static std::uint64_t mix(std::uint64_t x) {
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ull;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebull;
    return x ^ (x >> 31);
  }
  void opaqueIs(const char* type) {
    if (!opaque_++) firstOpaque_ = type;
  }
  template <class T>
  void object(const T& v);

  std::uint64_t a_ = 0x243f6a8885a308d3ull;
  std::uint64_t b_ = 0x13198a2e03707344ull;
  std::size_t opaque_ = 0;
  std::string firstOpaque_;
  std::uint32_t depth_ = 0;
};

// Every registered field of `c`, of its class as made (and of the class it is seen as, when that
// is a base with fields of its own).
template <class C>
void digestOf(const C& c, Digest& d) {
  d.add(c);
}

namespace detail {
template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {};
template <class T>
concept Walkable = requires(const T& c) {
  c.size();
  c.walk();
};
template <class T>
struct IsPair : std::false_type {};
template <class A, class B>
struct IsPair<std::pair<A, B>> : std::true_type {};
template <class T>
concept Range = requires(const T& c) {
  c.size();
  c.begin();
  c.end();
};
template <class T>
concept Printable = requires(std::ostream& os, const T& v) {
  os << v;
};
}  // namespace detail

template <class T>
void Digest::add(const T& v) {
  if constexpr (std::is_arithmetic_v<T>) {
    if constexpr (std::is_floating_point_v<T>) {
      const double x = v;
      std::uint64_t w;
      static_assert(sizeof w == sizeof x);
      __builtin_memcpy(&w, &x, sizeof w);
      word(w);
    } else {
      word(static_cast<std::uint64_t>(v));
    }
  } else if constexpr (std::is_enum_v<T>) {
    word(static_cast<std::uint64_t>(v));
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    text(std::string_view(v));
  } else if constexpr (detail::IsOptional<T>::value) {
    word(v.has_value());
    if (v) add(*v);
  } else if constexpr (detail::IsPtr<T>::value) {
    word(v ? 1 : 0);
    if (v) object(*v);
  } else if constexpr (detail::IsPair<T>::value) {
    add(v.first);
    add(v.second);
  } else if constexpr (detail::Walkable<T>) {
    word(v.size());
    for (auto&& e : v.walk()) {
      add(e.key);
      add(e.value);
    }
  } else if constexpr (detail::Range<T>) {
    word(v.size());
    for (const auto& e : v) add(e);
  } else {
    object(v);
  }
}

// A class: its registered fields (those of the class it was made as, then those of the class it
// is seen as, if another), else its text, else opaque.
template <class T>
void Digest::object(const T& v) {
  // A child that reaches its parent again ends the descent rather than the stack.
  if (depth_ > 64) {
    opaqueIs("a chain of children deeper than 64");
    return;
  }
  ++depth_;
  const char* seen = typeid(T).name();
  const char* made = seen;
  if constexpr (std::is_polymorphic_v<T>) made = typeid(v).name();
  const void* self = &v;
  if constexpr (std::is_polymorphic_v<T>) self = dynamic_cast<const void*>(&v);
  bool any = fieldsOf(made, self);
  if (made != seen && std::string_view(made) != seen) any = fieldsOf(seen, &v) || any;
  if (!any) {
    if constexpr (detail::Printable<T>) {
      std::ostringstream os;
      os << v;
      text(os.str());
    } else {
      opaqueIs(made);
    }
  }
  --depth_;
}

// The mark of one field: made with its object, it registers the field for the object's class the
// first time (a guard test each time after that). `Add` is a lambda that adds the field of a
// `const C*` to a digest.
template <class Mark, class C, class Add>
Mark digestMark(const C*, const char* name, Add) {
  static const bool registered = (registerDigestField(typeid(C).name(), name,
                                                      [](const void* self, Digest& d) {
                                                        Add{}(static_cast<const C*>(self), d);
                                                      }),
                                  true);
  (void)registered;
  return Mark{};
}

}  // namespace Kiv

// Inside a class, after the storage of attribute `attr` (the expression S): its digest function
// and its mark. Used by the accessor families of Kiv/Entity.h.
#define KIV_DIGEST_FIELD_(attr, S)                                                               \
 public:                                                                                         \
  void kivDigest_##attr##_(::Kiv::Digest& kivD) const { kivD.field(#attr, S); }                  \
                                                                                                 \
 private:                                                                                        \
  struct kivMark_##attr##_t {                                                                    \
    bool operator==(const kivMark_##attr##_t&) const = default;                                  \
  };                                                                                             \
  [[no_unique_address]] kivMark_##attr##_t kivMark_##attr##_ =                                   \
      ::Kiv::digestMark<kivMark_##attr##_t>(                                                     \
          this, #attr,                                                                           \
          [](const auto* kivSelf, ::Kiv::Digest& kivD) { kivSelf->kivDigest_##attr##_(kivD); }); \
                                                                                                 \
 public:
