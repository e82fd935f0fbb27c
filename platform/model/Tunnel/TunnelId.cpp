#include "Tunnel/TunnelId.h"

namespace Tunnel {

std::optional<TunnelTable::TunnelId> TunnelTable::TunnelId::tryParse(std::string_view s) {
  std::uint64_t type = 0, index = 0;
  if (!Quil::text::consumePrefix(s, "Tunnel") ||
      !Quil::text::parseDottedPair(s, maxValue >> 32, 0xffffffffull, type, index)) {
    return std::nullopt;
  }
  return TunnelId((type << 32) | index);
}

TunnelTable::TunnelId TunnelTable::TunnelId::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  Quil::text::cannotParse(s, "TunnelId");
}

}  // namespace Tunnel
