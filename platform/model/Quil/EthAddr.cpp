#include "Quil/EthAddr.h"

namespace Quil {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

TextBuf<17> EthAddr::text() const {
  TextBuf<17> t;
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i) t.append(":");
    t.appendHexByte(bytes_[i]);
  }
  return t;
}

std::optional<EthAddr> EthAddr::tryParse(std::string_view s) {
  if (s.size() != 17) return std::nullopt;
  EthAddr addr;
  for (std::size_t i = 0; i < 6; ++i) {
    int hi = hexDigit(s[3 * i]), lo = hexDigit(s[3 * i + 1]);
    if (hi < 0 || lo < 0 || (i < 5 && s[3 * i + 2] != ':')) return std::nullopt;
    addr.bytes_[i] = static_cast<std::uint8_t>(hi << 4 | lo);
  }
  return addr;
}

EthAddr EthAddr::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  text::cannotParse(s, "EthAddr");
}

}  // namespace Quil
