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

// Incremental hash: start empty, feed field hashes in field order, take result().
class HashMixer {
 public:
  HashMixer& add(std::uint32_t v) {
    h_ ^= v + 0x9e3779b9u + (h_ << 6) + (h_ >> 2);
    return *this;
  }
  HashMixer& add64(std::uint64_t v) {
    add(static_cast<std::uint32_t>(v));
    return add(static_cast<std::uint32_t>(v >> 32));
  }
  std::uint32_t result() const { return h_; }

 private:
  std::uint32_t h_ = 0;
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
