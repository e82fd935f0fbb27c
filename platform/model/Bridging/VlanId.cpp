#include "Bridging/VlanId.h"

namespace Bridging {

std::optional<VlanId> VlanId::tryParse(std::string_view s) {
  std::uint64_t v = 0;
  if (!Quil::text::parseDecimal(s, maxValue, v)) return std::nullopt;
  return VlanId(static_cast<std::uint16_t>(v));
}

VlanId VlanId::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  Quil::text::cannotParse(s, "VlanId");
}

}  // namespace Bridging
