#pragma once
// Bridging::MacVlanPair: the key of a learnt or advertised MAC — a MAC address within a VLAN.
// Eight bytes; ordered by VLAN first, then by MAC, so one VLAN's MACs sit together.
//
//   Bridging::MacVlanPair k{Bridging::VlanId(10), Quil::EthAddr::broadcast()};
//   k.toString();                                    // "10/ff:ff:ff:ff:ff:ff"

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Bridging/VlanId.h"
#include "Kiv/Types.h"
#include "Quil/EthAddr.h"
#include "Quil/Text.h"

namespace Bridging {

struct MacVlanPair {
  VlanId vlanId;
  Quil::EthAddr macAddr;

  // Accepts exactly "<vlan>/<mac>"; parse() raises Kiv::RangeException
  // "cannot parse '<s>' as MacVlanPair" where tryParse() gives nothing.
  static std::optional<MacVlanPair> tryParse(std::string_view s);
  static MacVlanPair parse(std::string_view s);

  std::uint32_t hash() const {
    return Kiv::HashMixer().add(vlanId.hash()).add(macAddr.hash()).result();
  }
  constexpr bool operator==(const MacVlanPair&) const = default;
  constexpr auto operator<=>(const MacVlanPair&) const = default;
  // The string form, on the stack.
  Quil::TextBuf<22> text() const {
    return Quil::TextBuf<22>()
        .append(vlanId.text().view())
        .append("/")
        .append(macAddr.text().view());
  }
  std::string toString() const { return text().string(); }
};

inline std::ostream& operator<<(std::ostream& os, const MacVlanPair& key) {
  return os << key.text().view();
}

}  // namespace Bridging

template <>
struct std::hash<Bridging::MacVlanPair> {
  std::size_t operator()(const Bridging::MacVlanPair& v) const noexcept { return v.hash(); }
};
