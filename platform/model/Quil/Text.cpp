#include "Quil/Text.h"

#include "Kiv/Types.h"

namespace Quil::text {

void cannotParse(std::string_view text, std::string_view typeName) {
  std::string what;
  what.reserve(text.size() + typeName.size() + 20);
  what.append("cannot parse '").append(text).append("' as ").append(typeName);
  throw Kiv::RangeException(what);
}

bool parseDecimal(std::string_view s, std::uint64_t max, std::uint64_t& out) {
  if (s.empty() || (s.size() > 1 && s.front() == '0')) return false;
  std::uint64_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || v > max) return false;
  out = v;
  return true;
}

bool parseDottedPair(std::string_view s, std::uint64_t maxHigh, std::uint64_t maxLow,
                     std::uint64_t& high, std::uint64_t& low) {
  auto dot = s.find('.');
  if (dot == std::string_view::npos) return false;
  return parseDecimal(s.substr(0, dot), maxHigh, high) &&
         parseDecimal(s.substr(dot + 1), maxLow, low);
}

}  // namespace Quil::text
