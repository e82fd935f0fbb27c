#pragma once
// Text helpers shared by the model's value types: printing into a small stack buffer (no
// allocation, whatever flags the stream carries) and strict parsing of their string forms.
//
//   Quil::TextBuf<24> t;
//   t.append("Ethernet").appendDecimal(n);
//   os << t.view();                                   // honours std::setw on the whole text
//
//   std::uint64_t n;
//   if (!Quil::text::parseDecimal(s, 4095, n)) Quil::text::cannotParse(s, "VlanId");

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Kiv/Assert.h"

namespace Quil {

// A fixed-capacity text built on the stack; overflowing it is a programming error.
template <std::size_t N>
class TextBuf {
 public:
  TextBuf& append(std::string_view s) {
    KIV_ASSERT(s.size() <= N - size_);
    for (char c : s) data_[size_++] = c;
    return *this;
  }
  TextBuf& appendDecimal(std::uint64_t v) {
    auto [end, ec] = std::to_chars(data_ + size_, data_ + N, v);
    KIV_ASSERT(ec == std::errc());
    size_ = static_cast<std::size_t>(end - data_);
    return *this;
  }
  TextBuf& appendHexByte(std::uint8_t b) {
    static constexpr char digits[] = "0123456789abcdef";
    KIV_ASSERT(N - size_ >= 2);
    data_[size_++] = digits[b >> 4];
    data_[size_++] = digits[b & 0xf];
    return *this;
  }
  std::string_view view() const { return std::string_view(data_, size_); }
  std::string string() const { return std::string(data_, size_); }

 private:
  char data_[N];
  std::size_t size_ = 0;
};

namespace text {

// Raises Kiv::RangeException "cannot parse '<text>' as <typeName>".
[[noreturn]] void cannotParse(std::string_view text, std::string_view typeName);

// Accepts exactly the decimal form of a value in [0, max]: digits only, no sign, no blanks and no
// leading zero (so that every accepted text is the one the value prints as).
bool parseDecimal(std::string_view s, std::uint64_t max, std::uint64_t& out);

// Drops `prefix` from the front of `s` if it is there.
inline bool consumePrefix(std::string_view& s, std::string_view prefix) {
  if (!s.starts_with(prefix)) return false;
  s.remove_prefix(prefix.size());
  return true;
}

// Splits "<high>.<low>" into two decimals, each within its own maximum.
bool parseDottedPair(std::string_view s, std::uint64_t maxHigh, std::uint64_t maxLow,
                     std::uint64_t& high, std::uint64_t& low);

}  // namespace text
}  // namespace Quil
