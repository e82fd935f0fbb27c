#include "L2Rib/Dest.h"

#include <array>

namespace L2Rib {

namespace {

constexpr std::array<std::string_view, 4> destTypeNames = {
    "destTypeUnknown",
    "destTypeIntf",
    "destTypeTunnel",
    "destTypeMpls",
};

constexpr std::array<std::string_view, 5> floodSetTypeNames = {
    "floodSetTypeUnknown",        "floodSetTypeAny",       "floodSetTypeBroadcast",
    "floodSetTypeUnknownUnicast", "floodSetTypeMulticast",
};

// The name of an enumerator, or "<typeName>(<n>)" for a value outside the enumeration.
template <std::size_t N>
std::ostream& printEnum(std::ostream& os, const std::array<std::string_view, N>& names,
                        std::string_view typeName, std::uint8_t v) {
  if (v < N) return os << names[v];
  return os << Quil::TextBuf<40>().append(typeName).append("(").appendDecimal(v).append(")").view();
}

// The enumerator a name stands for; its trailing underscore is optional.
template <std::size_t N>
std::optional<std::uint8_t> parseEnum(const std::array<std::string_view, N>& names,
                                      std::string_view s) {
  if (s.ends_with('_')) s.remove_suffix(1);
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == s) return static_cast<std::uint8_t>(i);
  }
  return std::nullopt;
}

// Strips "<prefix>" and ")" from "<prefix>...)".
bool consumeCall(std::string_view& s, std::string_view prefix) {
  if (!s.starts_with(prefix) || !s.ends_with(')')) return false;
  s = s.substr(prefix.size(), s.size() - prefix.size() - 1);
  return true;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, DestType t) {
  return printEnum(os, destTypeNames, "DestType", t);
}

std::string toString(DestType t) {
  return t < destTypeNames.size() ? std::string(destTypeNames[t])
                                  : "DestType(" + std::to_string(t) + ")";
}

DestType parseDestType(std::string_view s) {
  if (auto v = parseEnum(destTypeNames, s)) return static_cast<DestType>(*v);
  Quil::text::cannotParse(s, "DestType");
}

std::ostream& operator<<(std::ostream& os, FloodSetType t) {
  return printEnum(os, floodSetTypeNames, "FloodSetType", t);
}

std::string toString(FloodSetType t) {
  return t < floodSetTypeNames.size() ? std::string(floodSetTypeNames[t])
                                      : "FloodSetType(" + std::to_string(t) + ")";
}

FloodSetType parseFloodSetType(std::string_view s) {
  if (auto v = parseEnum(floodSetTypeNames, s)) return static_cast<FloodSetType>(*v);
  Quil::text::cannotParse(s, "FloodSetType");
}

Quil::TextBuf<40> Dest::text() const {
  Quil::TextBuf<40> t;
  switch (destType_) {
    case destTypeMpls_:
      t.append("mpls(").append(tunnelId_.text().view()).append(", ");
      return t.append(label_.text().view()).append(")");
    case destTypeTunnel_:
      return t.append("tunnel(").append(tunnelId_.text().view()).append(")");
    case destTypeIntf_:
      return t.append("intf(").append(intfId_.text().view()).append(")");
    default:
      return t.append("unknown");
  }
}

std::optional<Dest> Dest::tryParse(std::string_view s) {
  if (s == "unknown") return Dest();
  if (consumeCall(s, "mpls(")) {
    auto comma = s.find(", ");
    if (comma == std::string_view::npos) return std::nullopt;
    auto tunnelId = TunnelId::tryParse(s.substr(0, comma));
    auto label = Quil::MplsLabel::tryParse(s.substr(comma + 2));
    if (!tunnelId || !label) return std::nullopt;
    return mpls(*tunnelId, *label);
  }
  if (consumeCall(s, "tunnel(")) {
    if (auto tunnelId = TunnelId::tryParse(s)) return tunnel(*tunnelId);
    return std::nullopt;
  }
  if (consumeCall(s, "intf(")) {
    if (auto intfId = Quil::IntfId::tryParse(s)) return intf(*intfId);
  }
  return std::nullopt;
}

Dest Dest::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  Quil::text::cannotParse(s, "Dest");
}

}  // namespace L2Rib
