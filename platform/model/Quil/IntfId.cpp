#include "Quil/IntfId.h"

namespace Quil {

namespace {

constexpr std::string_view ethernetPrefix = "Ethernet";
constexpr std::string_view portChannelPrefix = "Port-Channel";
constexpr std::string_view dynTunnelPrefix = "DynTunnel";
constexpr std::uint64_t maxTunnelType = (1ull << 24) - 1;
constexpr std::uint64_t max32 = 0xffffffffull;  // port and LAG numbers, tunnel index

}  // namespace

TextBuf<28> IntfId::text() const {
  TextBuf<28> t;
  if (isEthernet()) {
    t.append(ethernetPrefix).appendDecimal(number());
  } else if (isPortChannel()) {
    t.append(portChannelPrefix).appendDecimal(number());
  } else if (isDynamicTunnel()) {
    t.append(dynTunnelPrefix).appendDecimal(number() >> 32).append(".");
    t.appendDecimal(number() & max32);
  } else {
    t.append("none");
  }
  return t;
}

std::optional<IntfId> IntfId::tryParse(std::string_view s) {
  std::uint64_t n = 0, type = 0, index = 0;
  if (s == "none") return IntfId();
  if (text::consumePrefix(s, ethernetPrefix)) {
    if (text::parseDecimal(s, max32, n) && n >= 1) return IntfId(kindEthernet, n);
  } else if (text::consumePrefix(s, portChannelPrefix)) {
    if (text::parseDecimal(s, max32, n) && n >= 1) return IntfId(kindPortChannel, n);
  } else if (text::consumePrefix(s, dynTunnelPrefix)) {
    if (text::parseDottedPair(s, maxTunnelType, max32, type, index)) {
      return IntfId(kindDynamicTunnel, (type << 32) | index);
    }
  }
  return std::nullopt;
}

IntfId IntfId::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  text::cannotParse(s, "IntfId");
}

}  // namespace Quil
