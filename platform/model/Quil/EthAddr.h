#pragma once
// Quil::EthAddr: a 48-bit Ethernet MAC address in six bytes, most significant first, as learnt
// and advertised in the MAC tables. Ordering follows the bytes, i.e. the 48-bit value.
//
//   Quil::EthAddr a(0x00, 0x1c, 0x73, 0x00, 0x00, 0x01);     // "00:1c:73:00:00:01"
//   Quil::EthAddr b(0x001c73000001ull);                      // the same address
//   Quil::EthAddr::broadcast().isBroadcast();                // true

#include <array>
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

class EthAddr {
 public:
  static constexpr std::uint64_t maxValue = (1ull << 48) - 1;

  constexpr EthAddr() = default;
  constexpr EthAddr(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3,
                    std::uint8_t b4, std::uint8_t b5)
      : bytes_{b0, b1, b2, b3, b4, b5} {}
  // From the 48-bit value; a wider value raises Kiv::RangeException
  // "EthAddr::value > 281474976710655 not allowed".
  explicit constexpr EthAddr(std::uint64_t value) {
    if (value > maxValue) throw Kiv::RangeException("EthAddr::value > 281474976710655 not allowed");
    for (int i = 5; i >= 0; --i, value >>= 8) bytes_[i] = static_cast<std::uint8_t>(value);
  }
  static constexpr EthAddr broadcast() { return EthAddr(0xff, 0xff, 0xff, 0xff, 0xff, 0xff); }
  // Accepts exactly "aa:bb:cc:dd:ee:ff" (lower-case hex); parse() raises Kiv::RangeException
  // "cannot parse '<s>' as EthAddr" where tryParse() gives nothing.
  static std::optional<EthAddr> tryParse(std::string_view s);
  static EthAddr parse(std::string_view s);

  constexpr const std::array<std::uint8_t, 6>& bytes() const { return bytes_; }
  constexpr std::uint64_t value() const {
    std::uint64_t v = 0;
    for (auto b : bytes_) v = (v << 8) | b;
    return v;
  }
  constexpr bool isBroadcast() const { return *this == broadcast(); }

  std::uint32_t hash() const { return Kiv::HashMixer().add64(value()).result(); }
  constexpr bool operator==(const EthAddr&) const = default;
  constexpr auto operator<=>(const EthAddr&) const = default;
  // The string form, on the stack.
  TextBuf<17> text() const;
  std::string toString() const { return text().string(); }

 private:
  std::array<std::uint8_t, 6> bytes_{};
};

inline std::ostream& operator<<(std::ostream& os, EthAddr addr) { return os << addr.text().view(); }

}  // namespace Quil

template <>
struct std::hash<Quil::EthAddr> {
  std::size_t operator()(Quil::EthAddr v) const noexcept { return v.hash(); }
};
