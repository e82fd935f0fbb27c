#include "Bridging/MacVlanPair.h"

namespace Bridging {

std::optional<MacVlanPair> MacVlanPair::tryParse(std::string_view s) {
  auto slash = s.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  auto vlan = VlanId::tryParse(s.substr(0, slash));
  auto mac = Quil::EthAddr::tryParse(s.substr(slash + 1));
  if (!vlan || !mac) return std::nullopt;
  return MacVlanPair{*vlan, *mac};
}

MacVlanPair MacVlanPair::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  Quil::text::cannotParse(s, "MacVlanPair");
}

}  // namespace Bridging
