#include "Bridging/VlanIdOrNone.h"

namespace Bridging {

Quil::TextBuf<4> VlanIdOrNone::text() const {
  Quil::TextBuf<4> t;
  if (isNone()) return t.append("none");
  return t.appendDecimal(value_);
}

std::optional<VlanIdOrNone> VlanIdOrNone::tryParse(std::string_view s) {
  if (s == "none") return VlanIdOrNone();
  std::uint64_t v = 0;
  // "0" is not a string form: none prints as "none".
  if (!Quil::text::parseDecimal(s, maxValue, v) || v == 0) return std::nullopt;
  return VlanIdOrNone(static_cast<std::uint16_t>(v));
}

VlanIdOrNone VlanIdOrNone::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  Quil::text::cannotParse(s, "VlanIdOrNone");
}

}  // namespace Bridging
