#pragma once
// Bridging::VlanIdOrNone: an optional usable VLAN (1..4094), for attributes where "no VLAN" is a
// legitimate setting rather than a missing value. Held in 16 bits, 0 meaning none.
//
//   Bridging::VlanIdOrNone v;              // "none"
//   Bridging::VlanIdOrNone w(10);          // "10"; w.vlanId() == Bridging::VlanId(10)

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Bridging/VlanId.h"
#include "Kiv/Types.h"
#include "Quil/Text.h"

namespace Bridging {

class VlanIdOrNone {
 public:
  static constexpr std::uint16_t maxValue = 4094;

  constexpr VlanIdOrNone() = default;
  // 0 means none; raises Kiv::RangeException "VlanIdOrNone::value > 4094 not allowed" above 4094.
  explicit constexpr VlanIdOrNone(std::uint16_t value) : value_(value) {
    if (value > maxValue) throw Kiv::RangeException("VlanIdOrNone::value > 4094 not allowed");
  }
  // The unset VLAN 0 gives none; VLAN 4095 is rejected as above.
  explicit constexpr VlanIdOrNone(VlanId vlan) : VlanIdOrNone(vlan.value()) {}
  // Accepts "none" or the decimal form of 1..4094; parse() raises Kiv::RangeException
  // "cannot parse '<s>' as VlanIdOrNone" where tryParse() gives nothing.
  static std::optional<VlanIdOrNone> tryParse(std::string_view s);
  static VlanIdOrNone parse(std::string_view s);

  constexpr bool isNone() const { return value_ == 0; }
  constexpr std::uint16_t value() const { return value_; }
  constexpr VlanId vlanId() const { return VlanId(value_); }

  std::uint32_t hash() const { return Kiv::HashMixer().add(value_).result(); }
  constexpr bool operator==(const VlanIdOrNone&) const = default;
  constexpr auto operator<=>(const VlanIdOrNone&) const = default;
  // The string form, on the stack.
  Quil::TextBuf<4> text() const;
  std::string toString() const { return text().string(); }

 private:
  std::uint16_t value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, VlanIdOrNone vlan) {
  return os << vlan.text().view();
}

}  // namespace Bridging

template <>
struct std::hash<Bridging::VlanIdOrNone> {
  std::size_t operator()(Bridging::VlanIdOrNone v) const noexcept { return v.hash(); }
};
