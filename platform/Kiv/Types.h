#pragma once
// The framework's small value types: strings, names, the range error and the hash mixer.

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Kiv {

using String = std::string;

// The name of an entity or task: fixed at construction, printed in traces and diagnostics.
class Name {
 public:
  Name() = default;
  Name(const char* s) : s_(s) {}
  Name(std::string s) : s_(std::move(s)) {}
  Name(std::string_view s) : s_(s) {}
  const std::string& string() const { return s_; }
  const char* c_str() const { return s_.c_str(); }
  bool operator==(const Name&) const = default;
  auto operator<=>(const Name&) const = default;

 private:
  std::string s_;
};

inline std::ostream& operator<<(std::ostream& os, const Name& n) { return os << n.string(); }

// Raised when a value is out of the range its attribute allows. The text is the contract: callers
// and tests match it literally.
class RangeException : public std::range_error {
 public:
  explicit RangeException(const std::string& what) : std::range_error(what) {}
};

// The text a reactor mutator raises when it is handed a null entity.
inline std::string nullMutatorText(std::string_view attr, std::string_view qualifiedAttr) {
  std::string s;
  s.reserve(attr.size() + qualifiedAttr.size() + 48);
  s.append("null _").append(attr).append(" parameter to mutator for ");
  s.append(qualifiedAttr).append(" not allowed\"");
  return s;
}

// A key whose values fill a small range densely (a VLAN id) specializes this with the range's
// size and the mapping both ways, and can then be the key of a Kiv::BitMap:
//   static constexpr std::uint32_t span;       // keys are numbered 0..span-1
//   static std::uint32_t index(const K&);
//   static K key(std::uint32_t);
template <class K>
struct DenseKey;

// A key that splits into an ordered first part and a dense second part (an interface and a
// VLAN), ordered by the first, then the second, specializes this and can then be the key of a
// Kiv::OrderedBitMap:
//   using Major = ...;                           // ordered with <
//   using Minor = ...;                           // a DenseKey
//   static Major major(const K&);
//   static Minor minor(const K&);
//   static K join(const Major&, const Minor&);
template <class K>
struct SplitKey;

// Incremental hash: start empty, feed field hashes in field order, take result(). Each word is
// scrambled and folded in, and the result is finalised, so keys that differ in one small field
// (a VLAN number) still spread over the whole 32 bits: the hash maps index by those bits.
class HashMixer {
 public:
  HashMixer& add(std::uint32_t v) {
    v *= 0xcc9e2d51u;
    v = rotl(v, 15);
    v *= 0x1b873593u;
    h_ ^= v;
    h_ = rotl(h_, 13) * 5 + 0xe6546b64u;
    ++words_;
    return *this;
  }
  HashMixer& add64(std::uint64_t v) {
    add(static_cast<std::uint32_t>(v));
    return add(static_cast<std::uint32_t>(v >> 32));
  }
  std::uint32_t result() const {
    std::uint32_t h = h_ ^ (words_ * 4);
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
  }

 private:
  static constexpr std::uint32_t rotl(std::uint32_t x, int r) { return (x << r) | (x >> (32 - r)); }
  std::uint32_t h_ = 0;
  std::uint32_t words_ = 0;
};

// Jenkins' one-at-a-time hash over a 64-bit value's eight bytes, lowest byte first.
constexpr std::uint32_t oneAtATimeHash(std::uint64_t v) {
  std::uint32_t h = 0;
  for (int i = 0; i < 8; ++i) {
    h += static_cast<std::uint32_t>((v >> (8 * i)) & 0xff);
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

// Values that carry their own hash() plug into the standard containers through this functor.
struct MemberHash {
  template <class T>
  std::size_t operator()(const T& v) const noexcept(noexcept(v.hash())) {
    return v.hash();
  }
};

}  // namespace Kiv
