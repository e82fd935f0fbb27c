#pragma once
// Bridging::VlanId: an 802.1Q VLAN id in 16 bits. Every 12-bit value is representable so that
// configuration can be held as given; 0 means unset and only 1..4094 name a usable VLAN.
//
//   Bridging::VlanId v(10);          // "10"
//   v.isValid();                     // true; VlanId().isValid() and VlanId(4095).isValid() are not

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Types.h"
#include "Quil/Text.h"

namespace Bridging {

class VlanId {
 public:
  static constexpr std::uint16_t maxValue = 4095;

  constexpr VlanId() = default;
  // Raises Kiv::RangeException "VlanId::value > 4095 not allowed" above 4095.
  explicit constexpr VlanId(std::uint16_t value) : value_(value) {
    if (value > maxValue) throw Kiv::RangeException("VlanId::value > 4095 not allowed");
  }
  // Accepts exactly the decimal form of 0..4095; parse() raises Kiv::RangeException
  // "cannot parse '<s>' as VlanId" where tryParse() gives nothing.
  static std::optional<VlanId> tryParse(std::string_view s);
  static VlanId parse(std::string_view s);

  constexpr std::uint16_t value() const { return value_; }
  constexpr bool isValid() const { return value_ >= 1 && value_ <= 4094; }

  std::uint32_t hash() const { return Kiv::HashMixer().add(value_).result(); }
  constexpr bool operator==(const VlanId&) const = default;
  constexpr auto operator<=>(const VlanId&) const = default;
  // The string form, on the stack.
  Quil::TextBuf<4> text() const { return Quil::TextBuf<4>().appendDecimal(value_); }
  std::string toString() const { return text().string(); }

 private:
  std::uint16_t value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, VlanId vlan) { return os << vlan.text().view(); }

}  // namespace Bridging

// Every 12-bit value is a VLAN id: a set of them can be held in bits.
template <>
struct Kiv::DenseKey<Bridging::VlanId> {
  static constexpr std::uint32_t span = Bridging::VlanId::maxValue + 1;
  static std::uint32_t index(Bridging::VlanId v) { return v.value(); }
  static Bridging::VlanId key(std::uint32_t i) {
    return Bridging::VlanId(static_cast<std::uint16_t>(i));
  }
};

template <>
struct std::hash<Bridging::VlanId> {
  std::size_t operator()(Bridging::VlanId v) const noexcept { return v.hash(); }
};
