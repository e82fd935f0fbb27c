#pragma once
// Tunnel::TunnelTable::TunnelId: the switch-wide id of a tunnel towards a remote endpoint, 48 bits
// written as a 16-bit type and a 32-bit index, "Tunnel<type>.<index>". The zero id is invalid and
// is what a default-constructed id holds.
//
//   Tunnel::TunnelTable::TunnelId t((1ull << 32) | 7);      // "Tunnel1.7", type() 1, index() 7
//
// Dynamic tunnel interfaces carry a wider raw value (Quil::DynamicTunnelIntfId::tunnelId); building
// a TunnelId from it is where an out-of-range value is caught.

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Types.h"
#include "Quil/Text.h"

namespace Tunnel {

// Scopes the tunnel table's types.
struct TunnelTable {
  class TunnelId;
};

class TunnelTable::TunnelId {
 public:
  static constexpr std::uint64_t minValue = 0;
  static constexpr std::uint64_t maxValue = (1ull << 48) - 1;

  constexpr TunnelId() = default;
  // Raises Kiv::RangeException
  // "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed" out of range.
  explicit constexpr TunnelId(std::uint64_t value)
      : type_(static_cast<std::uint32_t>(value >> 32)), index_(static_cast<std::uint32_t>(value)) {
    // minValue is 0, so only the upper bound can be crossed by an unsigned value.
    if (value > maxValue) {
      throw Kiv::RangeException(
          "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
    }
  }
  static constexpr TunnelId invalid() { return TunnelId(); }
  // Accepts exactly "Tunnel<type>.<index>"; parse() raises Kiv::RangeException
  // "cannot parse '<s>' as TunnelId" where tryParse() gives nothing.
  static std::optional<TunnelId> tryParse(std::string_view s);
  static TunnelId parse(std::string_view s);

  constexpr bool isValid() const { return value() != 0; }
  constexpr std::uint64_t value() const { return std::uint64_t{type_} << 32 | index_; }
  constexpr std::uint32_t type() const { return type_; }
  constexpr std::uint32_t index() const { return index_; }

  // The one-at-a-time hash of the value alone, nothing else mixed in, so every table keyed by
  // tunnel id spreads the ids the same way.
  constexpr std::uint32_t hash() const { return Kiv::oneAtATimeHash(value()); }
  constexpr bool operator==(const TunnelId&) const = default;
  constexpr auto operator<=>(const TunnelId&) const = default;
  // The string form, on the stack ("Tunnel65535.4294967295" is the longest).
  Quil::TextBuf<22> text() const {
    return Quil::TextBuf<22>().append("Tunnel").appendDecimal(type()).append(".").appendDecimal(
        index());
  }
  std::string toString() const { return text().string(); }

 private:
  // Type, then index (so the default comparisons order by the whole value), in two words: an id
  // is aligned on four bytes and packs beside a smaller field in the machines' keys and rows.
  std::uint32_t type_ = 0;
  std::uint32_t index_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, TunnelTable::TunnelId id) {
  return os << id.text().view();
}

}  // namespace Tunnel

template <>
struct std::hash<Tunnel::TunnelTable::TunnelId> {
  std::size_t operator()(Tunnel::TunnelTable::TunnelId v) const noexcept { return v.hash(); }
};
