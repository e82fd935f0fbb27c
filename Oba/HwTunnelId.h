#pragma once
// The chip's hardware tunnel id: a 32-bit value, 0 meaning none (the chip had none to give).

#include <charconv>
#include <cstdint>
#include <ostream>
#include <string_view>

#include "Kiv/Types.h"

namespace Oba {

class HwTunnelId {
 public:
  constexpr HwTunnelId() = default;
  constexpr explicit HwTunnelId(std::uint32_t v) : value_(v) {}
  constexpr std::uint32_t value() const { return value_; }
  constexpr bool isValid() const { return value_ != 0; }
  std::uint32_t hash() const { return Kiv::HashMixer().add(value_).result(); }
  constexpr bool operator==(const HwTunnelId&) const = default;
  constexpr auto operator<=>(const HwTunnelId&) const = default;

  // The decimal form; Kiv::RangeException "cannot parse '<s>' as HwTunnelId" otherwise.
  static HwTunnelId parse(std::string_view s) {
    std::uint32_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size()) {
      throw Kiv::RangeException("cannot parse '" + std::string(s) + "' as HwTunnelId");
    }
    return HwTunnelId(v);
  }

 private:
  std::uint32_t value_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, HwTunnelId id) { return os << id.value(); }

}  // namespace Oba

template <>
struct std::hash<Oba::HwTunnelId> {
  std::size_t operator()(Oba::HwTunnelId v) const noexcept { return v.hash(); }
};
