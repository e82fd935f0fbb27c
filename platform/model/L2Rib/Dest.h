#pragma once
// L2Rib::Dest: where the layer-2 RIB sends traffic for a MAC or a flood list — a local interface,
// a tunnel to a remote endpoint, or a tunnel with an MPLS label beneath it. A small value, used as
// a key of the RIB's tables and flood sets.
//
//   auto d = L2Rib::Dest::mpls(tunnelId, Quil::MplsLabel(1001));   // "mpls(Tunnel1.7, 1001)"
//   auto e = L2Rib::Dest::tunnel(tunnelId);                        // "tunnel(Tunnel1.7)"
//   auto f = L2Rib::Dest::intf(Quil::IntfId::ethernet(3));         // "intf(Ethernet3)"
//   L2Rib::Dest();                                                 // "unknown"
//
// Also here: DestType, the kind of a destination, and FloodSetType, which kind of flooded traffic
// a flood set carries. A destination's short id, DestId, is in L2Rib/RibId.h.

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Types.h"
#include "L2Rib/RibId.h"
#include "Quil/IntfId.h"
#include "Quil/MplsLabel.h"
#include "Quil/Text.h"
#include "Tunnel/TunnelId.h"

namespace L2Rib {

enum DestType : std::uint8_t {
  destTypeUnknown_ = 0,
  destTypeIntf_ = 1,
  destTypeTunnel_ = 2,
  destTypeMpls_ = 3,
};

// Prints the enumerator's name without its trailing underscore, e.g. "destTypeMpls".
std::ostream& operator<<(std::ostream& os, DestType t);
std::string toString(DestType t);
// Accepts an enumerator's name with or without the trailing underscore; raises
// Kiv::RangeException "cannot parse '<s>' as DestType" otherwise.
DestType parseDestType(std::string_view s);

enum FloodSetType : std::uint8_t {
  floodSetTypeUnknown_ = 0,
  floodSetTypeAny_ = 1,
  floodSetTypeBroadcast_ = 2,
  floodSetTypeUnknownUnicast_ = 3,
  floodSetTypeMulticast_ = 4,
};

// Prints the enumerator's name without its trailing underscore, e.g. "floodSetTypeBroadcast".
std::ostream& operator<<(std::ostream& os, FloodSetType t);
std::string toString(FloodSetType t);
// Accepts an enumerator's name with or without the trailing underscore; raises
// Kiv::RangeException "cannot parse '<s>' as FloodSetType" otherwise.
FloodSetType parseFloodSetType(std::string_view s);

class Dest {
 public:
  using TunnelId = Tunnel::TunnelTable::TunnelId;

  // The unknown destination: no tunnel, no label, no interface.
  constexpr Dest() = default;
  static constexpr Dest mpls(TunnelId tunnelId, Quil::MplsLabel label) {
    return Dest(destTypeMpls_, tunnelId, label, Quil::IntfId());
  }
  static constexpr Dest tunnel(TunnelId tunnelId) {
    return Dest(destTypeTunnel_, tunnelId, Quil::MplsLabel(), Quil::IntfId());
  }
  static constexpr Dest intf(Quil::IntfId intfId) {
    return Dest(destTypeIntf_, TunnelId(), Quil::MplsLabel(), intfId);
  }
  // Accepts exactly the string forms above; parse() raises Kiv::RangeException
  // "cannot parse '<s>' as Dest" where tryParse() gives nothing.
  static std::optional<Dest> tryParse(std::string_view s);
  static Dest parse(std::string_view s);

  constexpr DestType destType() const { return destType_; }
  constexpr TunnelId tunnelId() const { return tunnelId_; }
  // The RIB's destination table calls it the destination's tunnel.
  constexpr TunnelId tunnel() const { return tunnelId_; }
  constexpr Quil::MplsLabel label() const { return label_; }
  constexpr Quil::IntfId intfId() const { return intfId_; }
  // Derived from the fields alone, so the same destination has the same id in every trace.
  DestId destId() const { return DestId(hash()); }

  std::uint32_t hash() const {
    return Kiv::HashMixer()
        .add(destType_)
        .add(tunnelId_.hash())
        .add(label_.hash())
        .add(intfId_.hash())
        .result();
  }
  constexpr bool operator==(const Dest&) const = default;
  // Lexicographic in the order destType, tunnelId, label, intfId (not the storage order, which
  // is chosen to keep the value at 24 bytes).
  constexpr std::strong_ordering operator<=>(const Dest& o) const {
    if (auto c = destType_ <=> o.destType_; c != 0) return c;
    if (auto c = tunnelId_ <=> o.tunnelId_; c != 0) return c;
    if (auto c = label_ <=> o.label_; c != 0) return c;
    return intfId_ <=> o.intfId_;
  }
  // The string form, on the stack ("mpls(Tunnel65535.4294967295, 1048575)" is the longest).
  Quil::TextBuf<40> text() const;
  std::string toString() const { return text().string(); }

 private:
  constexpr Dest(DestType destType, TunnelId tunnelId, Quil::MplsLabel label, Quil::IntfId intfId)
      : tunnelId_(tunnelId), intfId_(intfId), label_(label), destType_(destType) {}

  TunnelId tunnelId_;
  Quil::IntfId intfId_;
  Quil::MplsLabel label_;
  DestType destType_ = destTypeUnknown_;
};

inline std::ostream& operator<<(std::ostream& os, const Dest& dest) {
  return os << dest.text().view();
}

}  // namespace L2Rib

template <>
struct std::hash<L2Rib::Dest> {
  std::size_t operator()(const L2Rib::Dest& v) const noexcept { return v.hash(); }
};
