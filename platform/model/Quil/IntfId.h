#pragma once
// Quil::IntfId: an interface identifier that knows what kind of interface it names — a physical
// port, a LAG, or the dynamic tunnel interface towards a remote tunnel endpoint — in one 64-bit
// word. It is the key of every per-interface table, so it is cheap to copy, hash and compare.
//
//   auto e = Quil::IntfId::ethernet(1);                              // "Ethernet1"
//   auto p = Quil::IntfId::portChannel(10);                          // "Port-Channel10"
//   auto t = Quil::DynamicTunnelIntfId::intfId((1ull << 32) | 7);    // "DynTunnel1.7"
//   std::uint64_t raw = Quil::DynamicTunnelIntfId::tunnelId(t);      // (1 << 32) | 7
//
// The kind sits in the top 8 bits and the number below, so ordering by the raw value keeps each
// kind together: ports, then LAGs, then dynamic tunnels. The default value is the empty id, "none".

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Assert.h"
#include "Kiv/Types.h"
#include "Quil/Text.h"

namespace Quil {

class IntfId {
 public:
  constexpr IntfId() = default;

  // A physical port; ports are numbered from 1.
  static constexpr IntfId ethernet(std::uint32_t n) {
    KIV_ASSERT(n >= 1);
    return IntfId(kindEthernet, n);
  }
  // A link aggregation group; LAGs are numbered from 1.
  static constexpr IntfId portChannel(std::uint32_t n) {
    KIV_ASSERT(n >= 1);
    return IntfId(kindPortChannel, n);
  }
  // Accepts exactly the string form; parse() raises Kiv::RangeException
  // "cannot parse '<s>' as IntfId" where tryParse() gives nothing.
  static std::optional<IntfId> tryParse(std::string_view s);
  static IntfId parse(std::string_view s);

  constexpr bool empty() const { return value() == 0; }
  constexpr bool operator!() const { return empty(); }
  constexpr bool isEthernet() const { return kind() == kindEthernet; }
  constexpr bool isPortChannel() const { return kind() == kindPortChannel; }
  constexpr bool isDynamicTunnel() const { return kind() == kindDynamicTunnel; }
  // The raw word, kind included.
  constexpr std::uint64_t value() const { return std::uint64_t{high_} << 32 | low_; }
  // The port or LAG number, or the dynamic tunnel's 56-bit tunnel value.
  constexpr std::uint64_t number() const { return value() & numberMask; }

  std::uint32_t hash() const { return Kiv::HashMixer().add64(value()).result(); }
  constexpr bool operator==(const IntfId&) const = default;
  constexpr auto operator<=>(const IntfId&) const = default;
  // The string form, on the stack ("DynTunnel16777215.4294967295" is the longest).
  TextBuf<28> text() const;
  std::string toString() const { return text().string(); }

 private:
  friend struct DynamicTunnelIntfId;

  static constexpr int kindShift = 56;
  static constexpr std::uint64_t numberMask = (1ull << kindShift) - 1;
  static constexpr std::uint8_t kindEthernet = 1;
  static constexpr std::uint8_t kindPortChannel = 2;
  static constexpr std::uint8_t kindDynamicTunnel = 3;

  constexpr IntfId(std::uint8_t kind, std::uint64_t number)
      : high_(static_cast<std::uint32_t>(((std::uint64_t{kind} << kindShift) | number) >> 32)),
        low_(static_cast<std::uint32_t>(number)) {}
  constexpr std::uint8_t kind() const {
    return static_cast<std::uint8_t>(high_ >> (kindShift - 32));
  }

  // The word in two halves, high first (so the default comparisons order by the whole word): an
  // id is then aligned on four bytes, and a key of an interface and a VLAN packs into twelve
  // bytes instead of sixteen, in tables of half a million pairs.
  std::uint32_t high_ = 0;
  std::uint32_t low_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, IntfId intf) { return os << intf.text().view(); }

// The dynamic tunnel interfaces: one per remote tunnel endpoint, named by its tunnel value
// (type << 32) | index. The value may be wider than a valid tunnel id (up to 56 bits), so the
// conversion back yields the raw value and the caller range-checks it as a tunnel id.
struct DynamicTunnelIntfId {
  static constexpr std::uint64_t maxTunnelValue = IntfId::numberMask;

  static constexpr IntfId intfId(std::uint64_t tunnelValue) {
    KIV_ASSERT(tunnelValue <= maxTunnelValue);
    return IntfId(IntfId::kindDynamicTunnel, tunnelValue);
  }
  // The raw tunnel value of a dynamic tunnel interface; 0 for any other interface.
  static constexpr std::uint64_t tunnelId(IntfId intf) {
    return intf.isDynamicTunnel() ? intf.number() : 0;
  }
};

}  // namespace Quil

template <>
struct std::hash<Quil::IntfId> {
  std::size_t operator()(Quil::IntfId v) const noexcept { return v.hash(); }
};
