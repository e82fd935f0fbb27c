#pragma once
// Quil::MplsLabel: a 20-bit MPLS label, or noLabel (one past the largest label) when a route or
// destination carries none. The default value is noLabel, printed "none".
//
//   Quil::MplsLabel l(1001);        // "1001"
//   !Quil::MplsLabel();             // true: no label

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Types.h"
#include "Quil/Text.h"

namespace Quil {

class MplsLabel {
 public:
  static constexpr std::uint32_t noLabel = 0x100000;

  constexpr MplsLabel() = default;
  // Raises Kiv::RangeException "MplsLabel::value > 1048576 not allowed" above noLabel.
  explicit constexpr MplsLabel(std::uint32_t value) : value_(value) {
    if (value > noLabel) throw Kiv::RangeException("MplsLabel::value > 1048576 not allowed");
  }
  // Accepts the decimal form up to noLabel, and "none" for noLabel; parse() raises
  // Kiv::RangeException "cannot parse '<s>' as MplsLabel" where tryParse() gives nothing.
  static std::optional<MplsLabel> tryParse(std::string_view s);
  static MplsLabel parse(std::string_view s);

  constexpr std::uint32_t value() const { return value_; }
  constexpr bool isNoLabel() const { return value_ == noLabel; }
  constexpr bool operator!() const { return isNoLabel(); }

  std::uint32_t hash() const { return Kiv::HashMixer().add(value_).result(); }
  constexpr bool operator==(const MplsLabel&) const = default;
  constexpr auto operator<=>(const MplsLabel&) const = default;
  // The string form, on the stack.
  TextBuf<8> text() const;
  std::string toString() const { return text().string(); }

 private:
  std::uint32_t value_ = noLabel;
};

inline std::ostream& operator<<(std::ostream& os, MplsLabel label) {
  return os << label.text().view();
}

}  // namespace Quil

template <>
struct std::hash<Quil::MplsLabel> {
  std::size_t operator()(Quil::MplsLabel v) const noexcept { return v.hash(); }
};
